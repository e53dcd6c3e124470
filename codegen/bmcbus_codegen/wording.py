"""Types in the words of the interface YAML: "array[struct[string, enum[self.Color]]]"."""

import re

from .signature import SignatureError

_BASIC = {
    "byte": "y",
    "boolean": "b",
    "int16": "n",
    "uint16": "q",
    "int32": "i",
    "uint32": "u",
    "int64": "x",
    "uint64": "t",
    "size": "t",
    "ssize": "x",
    "double": "d",
    "string": "s",
    "object_path": "o",
    "signature": "g",
    "unixfd": "h",
}
_TOKEN = re.compile(r"\s*([\[\],]|[^\[\],\s]+)")
_LONGEST = 4096
_DEEPEST = 64


class _Parser:
    def __init__(self, text):
        if len(text) > _LONGEST:
            raise SignatureError(f"the type is longer than {_LONGEST} characters")
        self._tokens = _TOKEN.findall(text)
        self._at = 0

    def single(self):
        if not self._tokens:
            raise SignatureError("the type is empty")
        found = self._complete(0)
        if self._at != len(self._tokens):
            raise SignatureError(f"'{self._tokens[self._at]}' follows the type")
        return found

    def _next(self):
        token = self._tokens[self._at] if self._at < len(self._tokens) else ""
        self._at += 1
        return token

    def _inside(self, depth):
        """What stands between brackets: types, or the name of an enumeration."""
        if self._next() != "[":
            raise SignatureError("'[' is missing")
        parts = []
        while True:
            parts.append(self._complete(depth + 1))
            token = self._next()
            if token == "]":
                return parts
            if token != ",":
                raise SignatureError("']' is missing")

    def _complete(self, depth):
        if depth > _DEEPEST:
            raise SignatureError(f"types are nested more than {_DEEPEST} deep")
        word = self._next()
        if word in _BASIC:
            return _BASIC[word], None
        if word == "enum":
            return self._enumeration()
        if word not in ("array", "set", "dict", "struct", "tuple", "variant"):
            raise SignatureError(f"unknown type '{word}'" if word else "the type ends early")
        if word == "variant" and (self._at >= len(self._tokens) or self._tokens[self._at] != "["):
            return "v", None
        parts = [signature for signature, _ in self._inside(depth)]
        if word == "variant":
            return "v", None
        if word in ("struct", "tuple"):
            return f"({''.join(parts)})", None
        wanted = 2 if word == "dict" else 1
        if len(parts) != wanted:
            raise SignatureError(f"{word} needs {wanted} type{'s' if wanted > 1 else ''} inside")
        return ("a{%s%s}" % tuple(parts) if word == "dict" else f"a{parts[0]}"), None

    def _enumeration(self):
        if self._next() != "[":
            raise SignatureError("'[' is missing")
        name = self._next()
        if self._next() != "]":
            raise SignatureError("']' is missing")
        return "s", name


def signature_of(text):
    """The D-Bus signature, and the name of the enumeration where the type is one; SignatureError."""
    return _Parser(text).single()
