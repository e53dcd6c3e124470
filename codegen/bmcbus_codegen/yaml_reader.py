"""Step one for the interface YAML of sdbusplus: the same tree that introspection XML gives.

What XML cannot say stands in the tree as annotations, which may be written in XML just as well:

    com.tamm.bmcbus.Type      of a property or argument: its type in the words of the YAML
    com.tamm.bmcbus.Enum      of an interface: "Color: Red Green"
    com.tamm.bmcbus.Error     of an interface: the full name of an error
    com.tamm.bmcbus.Path      of an interface: "name: /some/path"
    com.tamm.bmcbus.Service   of an interface: "name: some.bus.Name"
    org.gtk.GDBus.DocString   of all: the description

The file's events are taken one by one, without recursion and without aliases, so that a small file
cannot become a large one.
"""

from dataclasses import dataclass
from pathlib import Path

from .parser import Element
from .refusal import Problem, Refusal

TYPE = "com.tamm.bmcbus.Type"
ENUM = "com.tamm.bmcbus.Enum"
ERROR = "com.tamm.bmcbus.Error"
PATH = "com.tamm.bmcbus.Path"
SERVICE = "com.tamm.bmcbus.Service"
DOC = "org.gtk.GDBus.DocString"
EMITS = "org.freedesktop.DBus.Property.EmitsChangedSignal"
DEPRECATED = "org.freedesktop.DBus.Deprecated"
NO_REPLY = "org.freedesktop.DBus.Method.NoReply"

SUFFIX = ".interface.yaml"
_DEEPEST = 16
_KNOWN = frozenset(
    "description properties methods signals enumerations paths service_names associations".split()
)
_EMITS = {"const": "const", "emits_invalidation": "invalidates", "explicit": "false"}


@dataclass
class _Node:
    """A scalar (value is text), a list, or a mapping (a list of pairs of nodes)."""

    kind: str
    value: object
    line: int


def is_yaml(file):
    return str(file).endswith((".yaml", ".yml"))


def interface_of(file, root):
    """The interface that a file describes: its path below the root folder."""
    path = Path(file)
    if root is not None:
        try:
            path = path.resolve().relative_to(Path(root).resolve())
        except ValueError:
            raise Refusal([Problem(1, f"the file is not below the folder {root}")]) from None
    elif path.is_absolute() or ".." in path.parts:
        path = _below_first_element(path)
    text = path.as_posix()
    if not text.endswith(SUFFIX):
        raise Refusal([Problem(1, f"the file's name does not end in {SUFFIX}")])
    return text[: -len(SUFFIX)].lstrip("./").replace("/", ".")


def _below_first_element(path):
    """Without a root, the path begins where a name usually does."""
    for number, part in enumerate(path.parts):
        if part in ("com", "org", "net", "xyz", "io", "de", "edu", "gov"):
            return Path(*path.parts[number:])
    return Path(path.name)


def parse_yaml(text, name):
    """Gives the outermost `node` with the interface `name`, and a list of notes; raises Refusal."""
    document = _document(text)
    reader = _Reader(name)
    root = Element("node", 1, {})
    root.children.append(reader.interface(document))
    if reader.problems:
        raise Refusal(reader.problems)
    return root, reader.notes


def parse_errors(text, name):
    """Gives an annotation for each error in a file of errors."""
    document = _document(text)
    if document.kind != "list":
        raise Refusal([Problem(document.line, "a file of errors is a list")])
    errors = []
    for one in document.value:
        for key, value in one.value if one.kind == "map" else ():
            if key.value == "name" and value.kind == "text":
                errors.append(_annotation(ERROR, f"{name}.Error.{value.value}", value.line))
    return errors


def _document(text):
    # Only needed for YAML.
    import yaml

    loader = getattr(yaml, "CSafeLoader", yaml.SafeLoader)
    try:
        return _build(yaml, yaml.parse(text, Loader=loader))
    except yaml.YAMLError as error:
        mark = getattr(error, "problem_mark", None)
        line = mark.line + 1 if mark else 1
        reason = getattr(error, "problem", None) or str(error).split("\n")[0]
        raise Refusal([Problem(line, f"not well-formed YAML: {reason}")]) from None


def _build(yaml, events):
    """The tree of a document, from its events."""
    result = []
    open_nodes = []
    for event in events:
        line = event.start_mark.line + 1
        if isinstance(event, yaml.AliasEvent):
            raise Refusal([Problem(line, "aliases are not served; write the value out")])
        if isinstance(event, yaml.ScalarEvent):
            node = _Node("text", event.value, line)
        elif isinstance(event, yaml.SequenceStartEvent):
            node = _Node("list", [], line)
        elif isinstance(event, yaml.MappingStartEvent):
            node = _Node("map", [], line)
        elif isinstance(event, (yaml.SequenceEndEvent, yaml.MappingEndEvent)):
            node = open_nodes.pop()
            if node.kind == "map":
                node.value = list(zip(node.value[::2], node.value[1::2]))
            continue
        else:
            continue
        (open_nodes[-1].value if open_nodes else result).append(node)
        if node.kind != "text":
            if len(open_nodes) == _DEEPEST:
                raise Refusal([Problem(line, f"nested more than {_DEEPEST} deep")])
            open_nodes.append(node)
    return result[0] if result else _Node("map", [], 1)


def _annotation(name, value, line):
    return Element("annotation", line, {"name": name, "value": value})


class _Reader:
    """Turns mappings into elements."""

    def __init__(self, name):
        self._name = name
        self.problems = []
        self.notes = []

    def _refuse(self, line, reason):
        self.problems.append(Problem(line, reason))

    def interface(self, document):
        if document.kind != "map":
            self._refuse(document.line, "an interface is a mapping")
            return Element("interface", 1, {"name": self._name})
        element = Element("interface", 1, {"name": self._name})
        for key, value in document.value:
            if key.value not in _KNOWN:
                reason = f"unknown key '{key.value}' is passed over"
                self.notes.append(Problem(key.line, reason))
        self._describe(element, self._fields(document))
        for one in self._entries(document, "enumerations"):
            self._enumeration(element, one)
        for kind, read in (
            ("properties", self._property),
            ("methods", self._method),
            ("signals", self._signal),
        ):
            for one in self._entries(document, kind):
                element.children.append(read(one))
        for one in self._entries(document, "paths"):
            self._path(element, one, "")
        self._services(element, self._fields(document).get("service_names"))
        return element

    def _fields(self, node):
        return {key.value: value for key, value in node.value} if node.kind == "map" else {}

    def _entries(self, node, name):
        """The mappings of a list below a key; a key without a value has none."""
        listed = self._fields(node).get(name)
        if listed is None or (listed.kind == "text" and not listed.value):
            return []
        if listed.kind != "list":
            self._refuse(listed.line, f"'{name}' is not a list")
            return []
        for one in listed.value:
            if one.kind != "map":
                self._refuse(one.line, f"an entry of '{name}' is not a mapping")
        return [one for one in listed.value if one.kind == "map"]

    def _text(self, fields, name, default=""):
        value = fields.get(name)
        return value.value if value is not None and value.kind == "text" else default

    def _words(self, fields, name):
        value = fields.get(name)
        if value is None:
            return []
        listed = value.value if value.kind == "list" else [value]
        return [one.value for one in listed if one.kind == "text" and one.value]

    def _describe(self, element, fields):
        text = self._text(fields, "description").strip()
        if text:
            element.children.append(_annotation(DOC, text, element.line))

    def _named(self, tag, node, **attributes):
        fields = self._fields(node)
        name = self._text(fields, "name")
        element = Element(tag, node.line, {"name": name, **attributes})
        self._describe(element, fields)
        self._flags(element, self._words(fields, "flags"))
        for error in self._words(fields, "errors"):
            full = self._name + error[len("self") :] if error.startswith("self.") else error
            element.children.append(_annotation(ERROR, full, node.line))
        return element, fields

    def _flags(self, element, flags):
        for flag in flags:
            if flag == "deprecated":
                element.children.append(_annotation(DEPRECATED, "true", element.line))
            elif flag == "no_reply":
                element.children.append(_annotation(NO_REPLY, "true", element.line))
            elif flag in _EMITS and element.tag == "property":
                element.children.append(_annotation(EMITS, _EMITS[flag], element.line))

    def _typed(self, element, fields):
        text = self._text(fields, "type")
        element.attributes["type"] = ""
        element.children.append(_annotation(TYPE, text, element.line))

    def _property(self, node):
        element, fields = self._named("property", node)
        fixed = {"const", "readonly"} & set(self._words(fields, "flags"))
        element.attributes["access"] = "read" if fixed else "readwrite"
        self._typed(element, fields)
        return element

    def _arguments(self, element, node, key, direction):
        for one in self._entries(node, key):
            arg, fields = self._named("arg", one, direction=direction)
            self._typed(arg, fields)
            element.children.append(arg)

    def _method(self, node):
        element, _ = self._named("method", node)
        self._arguments(element, node, "parameters", "in")
        self._arguments(element, node, "returns", "out")
        return element

    def _signal(self, node):
        element, _ = self._named("signal", node)
        self._arguments(element, node, "properties", "out")
        return element

    def _enumeration(self, element, node):
        fields = self._fields(node)
        values = [
            self._text(self._fields(one), "name") for one in self._entries(node, "values")
        ]
        text = f"{self._text(fields, 'name')}: {' '.join(values)}"
        annotation = _annotation(ENUM, text, node.line)
        self._describe(annotation, fields)
        for one in self._entries(node, "values"):
            doc = self._text(self._fields(one), "description").strip()
            if doc:
                name = self._text(self._fields(one), "name")
                annotation.children.append(_annotation(name, doc, one.line))
        element.children.append(annotation)

    def _path(self, element, node, before):
        """An absolute path, or segments of one; a segment stands below what holds it."""
        fields = self._fields(node)
        value = ""
        for key in ("namespace", "instance", "value"):
            value = value or self._text(fields, key)
        if before:
            value = f"{before}/{value}"
        if value:
            name = self._text(fields, "name") or ("instance" if "instance" in fields else "namespace")
            element.children.append(_annotation(PATH, f"{name}: {value}", node.line))
        for one in self._entries(node, "segments"):
            self._path(element, one, value)

    def _services(self, element, node):
        if node is None:
            return
        pairs = []
        if node.kind == "map":
            pairs = [(key.value, value) for key, value in node.value if key.value != "description"]
        elif node.kind == "list":
            for one in node.value:
                fields = self._fields(one)
                name = self._text(fields, "name", "default")
                if "value" in fields or "default" in fields:
                    pairs.append((name, fields.get("value", fields.get("default"))))
        for name, value in pairs:
            if value.kind == "text" and value.value:
                text = f"{name}: {value.value}"
                element.children.append(_annotation(SERVICE, text, value.line))
