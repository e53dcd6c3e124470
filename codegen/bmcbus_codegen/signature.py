"""D-Bus type signatures and the C++ types that they become."""

from dataclasses import dataclass

_LONGEST = 255
_DEEPEST = 32
# D-Bus allows 32 here, too; the time that compilers take for a std::vector doubles with each level.
_DEEPEST_ARRAY = 16

# Type code -> C++ type.
BASIC = {
    "y": "uint8_t",
    "b": "bool",
    "n": "int16_t",
    "q": "uint16_t",
    "i": "int32_t",
    "u": "uint32_t",
    "x": "int64_t",
    "t": "uint64_t",
    "d": "double",
    "s": "std::string",
    "o": "bmcbus::ObjectPath",
    "g": "bmcbus::Signature",
    "h": "bmcbus::UnixFd",
    "v": "bmcbus::Variant",
}

# Type code -> the header that only descriptions with the type need.
HEADERS = {
    "g": "bmcbus/signature.hpp",
    "h": "bmcbus/unix_fd.hpp",
    "v": "bmcbus/variant.hpp",
}


class SignatureError(Exception):
    """The text is not the signature of one complete type."""


@dataclass(frozen=True)
class Type:
    """One complete type.

    kind is "basic", "array", "dict" or "struct"; parts holds the element type of an array, key
    and value type of a dict, the member types of a struct.
    """

    signature: str
    kind: str
    cpp: str
    parts: tuple = ()


class _Parser:
    """Recursive descent; the nesting limits bound the recursion."""

    def __init__(self, text):
        self._text = text
        self._at = 0

    def single(self):
        if not self._text:
            raise SignatureError("the signature is empty")
        if len(self._text) > _LONGEST:
            raise SignatureError(f"the signature is longer than {_LONGEST} characters")
        found = self._complete(0, 0)
        if self._at != len(self._text):
            raise SignatureError("the signature holds more than one complete type")
        return found

    def _peek(self):
        return self._text[self._at] if self._at < len(self._text) else None

    def _complete(self, arrays, structs):
        code = self._peek()
        self._at += 1
        if code in BASIC:
            return Type(code, "basic", BASIC[code])
        if code == "a":
            return self._array(arrays + 1, structs)
        if code == "(":
            return self._struct(arrays, structs + 1)
        if code == "{":
            raise SignatureError("a dict entry stands outside an array")
        if code in (")", "}"):
            raise SignatureError(f"'{code}' closes nothing")
        raise SignatureError(f"unknown type code '{code}'")

    def _array(self, arrays, structs):
        if arrays > _DEEPEST_ARRAY:
            raise SignatureError(f"arrays are nested more than {_DEEPEST_ARRAY} deep")
        if self._peek() in (None, ")", "}"):
            raise SignatureError("an array has no element type")
        if self._peek() == "{":
            self._at += 1
            return self._dict(arrays, structs + 1)
        element = self._complete(arrays, structs)
        return _compound("array", "a{}", "std::vector<{}>", (element,))

    def _dict(self, arrays, structs):
        _check_struct_depth(structs)
        parts = self._until("}", "dict entry", arrays, structs)
        if len(parts) != 2:
            raise SignatureError(f"a dict entry needs a key and a value type, found {len(parts)}")
        if parts[0].kind != "basic" or parts[0].signature == "v":
            raise SignatureError(f"the dict key type '{parts[0].signature}' is not a basic type")
        return _compound("dict", "a{{{}}}", "std::map<{}>", parts)

    def _struct(self, arrays, structs):
        _check_struct_depth(structs)
        parts = self._until(")", "struct", arrays, structs)
        if not parts:
            raise SignatureError("a struct has no members")
        return _compound("struct", "({})", "std::tuple<{}>", parts)

    def _until(self, closing, what, arrays, structs):
        parts = []
        while self._peek() != closing:
            if self._peek() is None:
                raise SignatureError(f"a {what} is not closed")
            parts.append(self._complete(arrays, structs))
        self._at += 1
        return tuple(parts)


def _check_struct_depth(structs):
    if structs > _DEEPEST:
        raise SignatureError(f"structs and dict entries are nested more than {_DEEPEST} deep")


def _compound(kind, signature, cpp, parts):
    return Type(
        signature.format("".join(part.signature for part in parts)),
        kind,
        cpp.format(", ".join(part.cpp for part in parts)),
        parts,
    )


def parse_signature(text):
    """Gives the one complete type that the text stands for; raises SignatureError."""
    return _Parser(text).single()
