"""Step one: the XML file as a tree of elements with line numbers.

After this step every element stands where it may stand and has the attributes that it must have.
What the attributes say is checked by the model.

Elements and attributes whose name has a colon belong to other vocabularies (documentation, hints
for other generators) and are passed over. So are unknown elements, as D-Bus asks for, but with a
note, since they may be misspelled. An unknown attribute is refused: a misspelled `direction` would
silently turn an argument around.
"""

from dataclasses import dataclass, field
from xml.parsers import expat

from .refusal import Problem, Refusal


@dataclass
class Element:
    tag: str
    line: int
    attributes: dict
    children: list = field(default_factory=list)

    def all(self, tag):
        return [child for child in self.children if child.tag == tag]


@dataclass(frozen=True)
class _Rule:
    parents: tuple
    required: tuple
    optional: tuple = ()


_RULES = {
    "node": _Rule((None, "node"), (), ("name",)),
    "interface": _Rule(("node",), ("name",)),
    "method": _Rule(("interface",), ("name",)),
    "signal": _Rule(("interface",), ("name",)),
    "property": _Rule(("interface",), ("name", "type", "access")),
    "arg": _Rule(("method", "signal"), ("type",), ("name", "direction")),
    "annotation": _Rule(
        ("node", "interface", "method", "signal", "property", "arg", "annotation"),
        ("name", "value"),
    ),
}

# Deeper than any description; real ones take five.
_DEEPEST = 64


class _Stop(Exception):
    """Nothing more is read."""


class _Reader:
    """The handlers of one pass over the text."""

    def __init__(self):
        self.root = None
        self.problems = []
        self.notes = []
        self._open = []
        self._depth = 0
        self._skipped_depth = 0
        self._expat = expat.ParserCreate()
        self._expat.StartElementHandler = self._start
        self._expat.EndElementHandler = self._end
        self._expat.EntityDeclHandler = self._entity

    def read(self, text):
        try:
            self._expat.Parse(text, True)
        except _Stop:
            pass
        except expat.ExpatError as error:
            reason = "not well-formed XML: " + expat.ErrorString(error.code)
            self.problems.append(Problem(error.lineno, reason))
        except (LookupError, ValueError) as error:
            # An encoding that is not known; once an element was read, a fault of this program.
            if self.root is not None:
                raise
            self.problems.append(Problem(self._line(), f"not well-formed XML: {error}"))

    def _line(self):
        return self._expat.CurrentLineNumber

    def _refuse(self, reason):
        self.problems.append(Problem(self._line(), reason))

    def _entity(self, name, *_):
        # Nothing in introspection data needs them, and they can blow a small file up.
        self._refuse(f"entity '{name}' is declared; entities are not served, write its text out")
        raise _Stop

    def _start(self, tag, attributes):
        self._depth += 1
        if self._depth > _DEEPEST:
            self._refuse(f"elements are nested more than {_DEEPEST} deep")
            raise _Stop
        if self._skipped_depth:
            self._skipped_depth += 1
            return
        rule = _RULES.get(tag)
        parent = self._open[-1].tag if self._open else None
        if parent is None and tag != "node":
            self._refuse(f"the outermost element is '{tag}', expected 'node'")
            self._skipped_depth = 1
            return
        if rule is None:
            if ":" not in tag:
                self.notes.append(Problem(self._line(), f"unknown element '{tag}' is passed over"))
            self._skipped_depth = 1
            return
        if parent not in rule.parents:
            self._refuse(f"element '{tag}' may not stand inside '{parent}'")
            self._skipped_depth = 1
            return
        element = Element(tag, self._line(), attributes)
        self._check_attributes(element, rule)
        if self._open:
            self._open[-1].children.append(element)
        else:
            self.root = element
        self._open.append(element)

    def _end(self, _tag):
        self._depth -= 1
        if self._skipped_depth:
            self._skipped_depth -= 1
        else:
            self._open.pop()

    def _check_attributes(self, element, rule):
        for name in rule.required:
            if name not in element.attributes:
                self._refuse(f"element '{element.tag}' has no attribute '{name}'")
                element.attributes[name] = ""
        for name in element.attributes:
            foreign = ":" in name or name == "xmlns"
            if not foreign and name not in rule.required + rule.optional:
                self._refuse(f"element '{element.tag}' has an unknown attribute '{name}'")


def parse(text):
    """Gives the outermost `node` and a list of notes; raises Refusal."""
    reader = _Reader()
    reader.read(text)
    if reader.problems:
        raise Refusal(reader.problems)
    return reader.root, reader.notes
