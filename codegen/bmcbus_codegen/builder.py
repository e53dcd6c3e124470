"""Step two: the element of an interface becomes the model, checked.

What cannot be served is left out with a note, or refused where that is wanted. What appears only in
C++ is changed until it fits, with a note as well.
"""

from . import names
from .model import (
    LARGEST,
    MOST_TYPES,
    Argument,
    Constant,
    Enumeration,
    Interface,
    Method,
    Naming,
    Place,
    Property,
    Signal,
    Wanted,
    least_bytes,
)
from .refusal import Problem, Refusal
from .settle import settle_names
from .signature import SignatureError, parse_signature
from .wording import signature_of

_OWN = "com.tamm.bmcbus."
USE_DATACACHE = _OWN + "UseDatacache"
NAME = _OWN + "Name"
CLASS = _OWN + "Class"
NAMESPACE = _OWN + "Namespace"
TYPE = _OWN + "Type"
ENUM = _OWN + "Enum"
ERROR = _OWN + "Error"
PATH = _OWN + "Path"
SERVICE = _OWN + "Service"
AT = _OWN + "At"
_KNOWN = (USE_DATACACHE, NAME, CLASS, NAMESPACE, TYPE, ENUM, ERROR, PATH, SERVICE, AT)
EMITS_CHANGED = "org.freedesktop.DBus.Property.EmitsChangedSignal"
DOC = ("org.gtk.GDBus.DocString", "org.freedesktop.DBus.DocString")


def _annotation(element, name):
    """Its value, or None."""
    for one in element.all("annotation"):
        if one.attributes["name"] == name:
            return one.attributes["value"]
    return None


def _doc(element):
    return _annotation(element, DOC[0]) or _annotation(element, DOC[1]) or ""


class _Builder:
    """Turns the element of one interface into the model and collects every problem."""

    def __init__(self, element, wanted, basename, naming):
        self._element = element
        self._wanted = wanted
        self._naming = naming
        self._problems = []
        self._notes = []
        self._model = Interface(element.attributes["name"], element.line, basename, wanted)

    def build(self):
        self._check_interface_name()
        if self._problems:
            raise Refusal(self._problems)
        self._read_annotations()
        wanted, model = self._wanted, self._model
        if wanted.cache or wanted.direct:
            model.properties = self._members("property", self._property)
        if wanted.direct:
            model.methods = self._members("method", self._method)
        if wanted.signals:
            model.signals = self._members("signal", self._signal)
        self._describe_arguments()
        self._check_kinds()
        if self._problems:
            raise Refusal(self._problems)
        settle_names(
            model,
            self._notes,
            self._naming.namespace or _annotation(self._element, NAMESPACE),
            self._naming.class_name or _annotation(self._element, CLASS),
        )
        resolve_enumerations(self._model, {self._model.name: self._model})
        self._check_calls()
        self._check_sizes()
        if self._problems:
            raise Refusal(self._problems)
        return self._model, self._notes

    # Reading

    def _refuse(self, line, reason):
        self._problems.append(Problem(line, reason))

    def _note(self, line, reason):
        self._notes.append(Problem(line, reason))

    def _check_interface_name(self):
        problem = names.interface_problem(self._model.name)
        if problem:
            self._refuse(self._element.line, f"interface name '{self._model.name}' {problem}")

    def _read_annotations(self):
        readers = {ENUM: self._enumeration, ERROR: self._error, PATH: self._path}
        readers[SERVICE] = self._service
        readers[AT] = self._place
        self._model.doc = _doc(self._element)
        for one in self._element.all("annotation"):
            name, value = one.attributes["name"], one.attributes["value"]
            if name == USE_DATACACHE:
                if value not in ("true", "false"):
                    self._refuse(one.line, f"annotation {name} is '{value}', not true or false")
                self._model.datacache = value == "true"
            elif name in readers:
                readers[name](one, value)
            elif name.startswith(_OWN) and name not in _KNOWN:
                self._note(one.line, f"unknown annotation {name} is passed over")

    def _place(self, element, text):
        """`com.example.Doors /com/example/doors/front`: a service and an object of it."""
        words = text.split()
        if len(words) != 2 or not words[1].startswith("/"):
            self._note(element.line, f"place '{text}' is not a service and a path; left out")
        else:
            self._model.places.append(Place(*words))

    def _enumeration(self, element, text):
        """`Color: Red Green`; values are text on the bus, so they may be anything without blanks."""
        name, _, listed = text.partition(":")
        name, values = name.strip(), listed.split()
        if names.member_problem(name) or not values:
            self._note(element.line, f"enumeration '{text}' has no name or no values; left out")
            return
        cpp_values = []
        for value in values:
            cpp_values.append(names.scope_name(value, set(cpp_values)))
            if cpp_values[-1] != value:
                reason = f"value '{value}' of enumeration '{name}' is '{cpp_values[-1]}' in C++"
                self._note(element.line, reason)
        docs = {}
        for one in element.all("annotation"):
            docs[one.attributes["name"]] = one.attributes["value"]
        taken = {one.name for one in self._model.enumerations} | {"Errors", "Paths", "Services"}
        self._model.enumerations.append(
            Enumeration(
                names.scope_name(name, taken),
                f"{self._model.name}.{name}.",
                values,
                cpp_values,
                {value: docs[value] for value in values if value in docs},
                docs.get(DOC[0], ""),
            )
        )

    def _constant(self, listed, element, name, value):
        if names.property_problem(value):
            self._note(element.line, f"'{value}' is no name of the bus; left out")
            return
        taken = {one.name for one in listed}
        if all(one.value != value or one.name != name for one in listed):
            listed.append(Constant(names.scope_name(name, taken), value))

    def _error(self, element, text):
        name = text.rpartition(".")[2]
        if all(one.value != text for one in self._model.errors):
            self._constant(self._model.errors, element, name, text)

    def _path(self, element, text):
        name, _, value = text.partition(":")
        self._constant(self._model.paths, element, name.strip(), value.strip())

    def _service(self, element, text):
        name, _, value = text.partition(":")
        self._constant(self._model.services, element, name.strip(), value.strip())

    def _members(self, tag, read):
        """Those that can be served; the others are left out, each with its reasons."""
        served, seen = [], {}
        for element in self._element.all(tag):
            before, self._problems = self._problems, []
            name = element.attributes["name"]
            member = read(element)
            if name in seen and not self._is_overload(member, served):
                reason = f"{tag} '{name}' is declared before in line {seen[name]}"
                self._refuse(element.line, reason)
            if not self._problems:
                served.append(member)
                seen[name] = element.line
            elif self._wanted.strict:
                before += self._problems
            else:
                self._leave_out(tag, name, name in seen)
            self._problems = before
        return served

    def _is_overload(self, member, served):
        """Qt's services tell methods of one name apart by the types of their arguments."""
        if not isinstance(member, Method) or self._wanted.strict or self._problems:
            return False
        return all(one.name != member.name or one.ins_signature != member.ins_signature for one in served)

    def _leave_out(self, tag, name, repeated):
        for line, reason in self._problems:
            self._note(line, f"{reason}; the {tag} is left out")
        if tag == "property" and not repeated and not names.property_problem(name):
            self._model.left_out.append(name)

    def _cpp_name(self, element, what, name):
        """The part of an accessor's name that comes from here."""
        wanted = _annotation(element, NAME)
        cpp_name = names.identifier(name if wanted is None else wanted)
        if wanted is None and cpp_name != name:
            self._note(element.line, f"{what} is '{cpp_name}' in C++")
        return cpp_name

    def _type(self, element, what):
        """The type, and the enumeration that it names."""
        text, wording = element.attributes["type"], _annotation(element, TYPE)
        try:
            enum = None
            if wording is not None:
                try:
                    spelled, enum = signature_of(wording)
                except SignatureError as error:
                    self._refuse(element.line, f"{what}: type '{wording}': {error}")
                    return None, ""
                if text and text != spelled:
                    reason = f"{what}: type '{text}' is not '{wording}', which is '{spelled}'"
                    self._refuse(element.line, reason)
                text = spelled
            return parse_signature(text), self._full_name(enum)
        except SignatureError as error:
            self._refuse(element.line, f"{what}: type '{text}': {error}")
            return None, ""

    def _full_name(self, enum):
        if enum is None:
            return ""
        return self._model.name + enum[len("self") :] if enum.startswith("self.") else enum

    def _property(self, element):
        name = element.attributes["name"]
        what = f"property '{name}'"
        problem = names.property_problem(name)
        if problem:
            self._refuse(element.line, f"property name '{name}' {problem}")
        access = element.attributes["access"]
        if access == "write":
            reason = f"{what} is write-only; only read and readwrite are served"
            self._refuse(element.line, reason)
        elif access not in ("read", "readwrite"):
            self._refuse(element.line, f"{what}: access '{access}' is not read or readwrite")
        kind, enum = self._type(element, what)
        if not self._problems:
            self._note_unannounced(element, what)
        return Property(
            name,
            kind,
            element.line,
            cpp_name="" if problem else self._cpp_name(element, what, name),
            enum_name=enum,
            doc=_doc(element),
            writable=access == "readwrite",
        )

    def _note_unannounced(self, element, what):
        """A cached proxy reads such a property once, which is rarely what is wanted."""
        emits = _annotation(element, EMITS_CHANGED) or _annotation(self._element, EMITS_CHANGED)
        if self._wanted.cache and emits in ("false", "invalidates"):
            reason = f"{what} sends no new values, so a cached proxy keeps the first it read"
            self._note(element.line, reason)

    def _member_name(self, element, what):
        name = element.attributes["name"]
        problem = names.member_problem(name)
        if problem:
            self._refuse(element.line, f"{what} name '{name}' {problem}")
        return name

    def _method(self, element):
        name = self._member_name(element, "method")
        what = f"method '{name}'"
        ins, outs = [], []
        for one in element.all("arg"):
            direction = one.attributes.get("direction", "in")
            if direction not in ("in", "out"):
                self._refuse(one.line, f"{what}: direction '{direction}' is not in or out")
            into = outs if direction == "out" else ins
            into.append(self._argument(one, what, f"{direction}{len(into) + 1}"))
        cpp_name = names.identifier(_annotation(element, NAME) or name)
        return Method(name, element.line, ins, outs, cpp_name, _doc(element))

    def _signal(self, element):
        name = self._member_name(element, "signal")
        what = f"signal '{name}'"
        args = []
        for one in element.all("arg"):
            direction = one.attributes.get("direction", "out")
            if direction != "out":
                said = f"{what}: direction '{direction}' is not out"
                # It can mean nothing else, and other generators take it.
                if direction == "in" and not self._wanted.strict:
                    self._note(one.line, f"{said}; it is taken as out")
                else:
                    self._refuse(one.line, said)
            args.append(self._argument(one, what, f"arg{len(args) + 1}", args))
        class_name = names.identifier(_annotation(element, NAME) or name)
        return Signal(name, element.line, args, class_name, _doc(element))

    def _describe_arguments(self):
        """An argument that says nothing is what the property of the same name is."""
        docs = {prop.name: prop.doc for prop in self._model.properties}
        for signal in self._model.signals:
            for arg in signal.args:
                arg.doc = arg.doc or docs.get(arg.name, "")

    def _argument(self, element, what, made_up, named=None):
        """Accessors are named by the arguments in `named`, which this one stands behind."""
        name = element.attributes.get("name", "")
        said = f"{what}: argument '{name or made_up}'"
        kind, enum = self._type(element, said)
        cpp_name = names.identifier(_annotation(element, NAME) or name or made_up)
        while named is not None and any(one.cpp_name == cpp_name for one in named):
            cpp_name += "_"
        if named is not None and cpp_name != (_annotation(element, NAME) or name):
            said = said if name else f"{what}: an argument without a name"
            self._note(element.line, f"{said} is '{cpp_name}' in C++")
        return Argument(
            name or made_up, kind, element.line, cpp_name=cpp_name, enum_name=enum, doc=_doc(element)
        )

    # Checking

    def _check_kinds(self):
        """Something must come out; what was asked for by name and does not is told."""
        line, wanted, model = self._element.line, self._wanted, self._model
        has = {tag: bool(self._element.all(tag)) for tag in ("property", "method", "signal")}
        if not any(has.values()):
            if not model.has_types:
                self._refuse(line, "the interface has no properties, methods or signals")
            return
        kinds = (
            (wanted.cache, has["property"], "no cached proxy: the interface has no properties"),
            (
                wanted.direct,
                has["property"] or has["method"],
                "no direct proxy: the interface has no properties or methods",
            ),
            (wanted.signals, has["signal"], "no signal classes: the interface has no signals"),
        )
        missing = [Problem(line, reason) for asked, found, reason in kinds if asked and not found]
        if not any(asked and found for asked, found, _ in kinds):
            self._problems += missing
        elif not (model.properties or model.methods or model.signals or self._problems):
            self._problems += self._notes
            self._refuse(line, "nothing of the interface can be served")
        elif wanted.explicit:
            self._notes += missing

    def _check_calls(self):
        """Try_ and Async_ stand before methods and before the names of reads and writes alike."""
        taken = {"GetAll": "the read of all properties"} if self._model.properties else {}
        for prop in self._model.properties:
            taken["Get_" + prop.cpp_name] = f"the read of property '{prop.name}'"
            if prop.writable:
                taken["Set_" + prop.cpp_name] = f"the write of property '{prop.name}'"
        for method in self._model.methods:
            if method.cpp_name in taken:
                self._refuse(
                    method.line,
                    f"method '{method.name}' becomes 'Try_{method.cpp_name}' and "
                    f"'Async_{method.cpp_name}', which are {taken[method.cpp_name]}; "
                    f"give it another name by {NAME}",
                )

    def _check_sizes(self):
        model = self._model
        self._check_size(model, model.properties)
        for signal in model.signals:
            self._check_size(signal, signal.args)
        if sum(len(prop.name) + 1 for prop in model.properties) > LARGEST:
            self._refuse(model.line, "the names of the properties take more than 64 KiB")
        for types, what in ((model.variant, "property"), (model.argument_types, "argument")):
            if len(types) > MOST_TYPES:
                self._refuse(model.line, f"there are more than {MOST_TYPES} {what} types")

    def _check_size(self, owner, items):
        size = sum(least_bytes(item.type) + 1 for item in items)  # a flag each
        if size > LARGEST:
            reason = f"an object of '{owner.class_name}' would take more than 64 KiB"
            self._refuse(owner.line, reason)


def resolve_enumerations(model, models):
    """Finds the C++ types of enumerations among models by name; gives a note for each not found."""
    notes = []
    for item in model.items:
        if not item.enum_name or item.enum:
            continue
        other = models.get(item.enum_name.rpartition(".")[0])
        listed = other.enumerations if other else ()
        found = [one for one in listed if one.prefix == item.enum_name + "."]
        if not found:
            reason = f"enumeration '{item.enum_name}' is in no file of this run; its text is served"
            notes.append(Problem(item.line, reason))
            continue
        item.enum = f"::{other.types}::{found[0].name}"
        if other is not model and other not in model.neighbours:
            model.neighbours.append(other)
    return notes


def build(element, wanted=Wanted(), basename="client_cache", naming=Naming()):
    """Gives the checked model of one interface and a list of notes; raises Refusal."""
    return _Builder(element, wanted, basename, naming).build()
