"""Step two: one interface as the templates see it, fully checked.

The templates get one variable, `interface`, an `Interface` with its properties, methods and signals.
"""

import re
from dataclasses import dataclass, field

from . import names
from .refusal import Problem, Refusal
from .signature import UNSERVED, SignatureError, parse_signature

USE_DATACACHE = "com.tamm.bmcbus.UseDatacache"
EMITS_CHANGED = "org.freedesktop.DBus.Property.EmitsChangedSignal"
_STANDARD = "org.freedesktop.DBus."
_FLAG = "_is_set"


@dataclass(frozen=True)
class Wanted:
    """The kinds of class to generate; an explicit one that cannot be made is told."""

    cache: bool = True
    direct: bool = True
    signals: bool = True
    explicit: bool = False


@dataclass
class Argument:
    """An argument of a method or signal, or a property.

    Private members end in an underscore or in the word, so they never meet a parameter or another
    member.
    """

    name: str  # made up where an argument of a method has none
    type: object  # cpp, signature, kind ("basic", "array", "dict", "struct"), parts (the types inside)
    line: int
    param: str = ""  # a function parameter, "<name>_"
    field: str = ""  # the private member for the value, "<name>_"
    flag: str = ""  # and the one that tells whether it was set, "<name>_is_set"

    @property
    def signature(self):
        return self.type.signature

    @property
    def is_text(self):
        return self.signature == "s"


@dataclass
class Property(Argument):
    writable: bool = False
    variant_index: int = 0  # of its type in the interface's variant
    number: int = 0  # its place among all in ascending order of the names


@dataclass
class Method:
    name: str
    line: int
    ins: list
    outs: list


@dataclass
class Signal:
    name: str
    line: int
    args: list

    @property
    def class_name(self):
        return self.name

    @property
    def signature(self):
        return "".join(arg.signature for arg in self.args)


@dataclass(frozen=True)
class Overload:
    """One of the ways to make an object: which parameters it has behind the path."""

    service: bool = False
    callback: bool = False
    user_data: bool = False
    use_async: bool = False

    @property
    def parameters(self):
        listed = (
            (True, "std::string path"),
            (self.service, "std::string service"),
            (self.callback, "Callback callback"),
            (self.user_data, "void* user_data"),
            (self.use_async, "bool use_async"),
        )
        return [parameter for has, parameter in listed if has]

    @property
    def arguments(self):
        """For what takes all of them; the strings' contents may be taken."""
        return [
            "&service" if self.service else "nullptr",
            "path",
            "callback" if self.callback else "nullptr",
            "user_data" if self.user_data else "nullptr",
            "use_async" if self.use_async else "false",
        ]

    @property
    def meant(self):
        """What besides a flag can stand in the last place, so that it is not refused as one."""
        if self.user_data:
            return []
        if self.callback:
            return ["void*"]
        return ["Callback"] if self.service else ["std::string", "Callback"]


_CALLBACKS = ({}, {"callback": True}, {"callback": True, "user_data": True})
_CONSTRUCTORS = [
    Overload(service=service, use_async=use_async, **callback)
    for use_async in (False, True)
    for service in (False, True)
    for callback in _CALLBACKS
]


def _factories(constructors):
    """A registered object's callback comes with its user data."""
    return [one for one in constructors if one.callback == one.user_data]


@dataclass
class Interface:
    name: str  # "com.tamm.bmc.Thermal.FanReporting"
    line: int
    basename: str = "client_cache"  # the output files without their extension
    wanted: Wanted = Wanted()
    datacache: bool = False  # annotation com.tamm.bmcbus.UseDatacache is true
    # In declaration order; empty if no class that has them is wanted.
    properties: list = field(default_factory=list)
    methods: list = field(default_factory=list)
    signals: list = field(default_factory=list)

    # How objects are made.
    constructors = _CONSTRUCTORS
    factories = _factories(_CONSTRUCTORS)
    signal_constructors = _CONSTRUCTORS[: len(_CALLBACKS)]
    signal_factories = _factories(signal_constructors)

    @property
    def parts(self):
        return self.name.split(".")

    @property
    def namespace(self):
        """Around the proxy classes, inside ClientCache or ClientEdge."""
        return self.parts[:-1]

    @property
    def class_name(self):
        """Of the proxy classes; also a word of their enter and leave lines."""
        return self.parts[-1]

    @property
    def group(self):
        """The namespace of the signal classes, inside ClientCache."""
        return self.parts[-1]

    @property
    def tables(self):
        """The namespace of the tables: sources that are compiled as one do not share it."""
        return "::".join(["bmcbus_tables", *self.parts, "of_" + re.sub(r"\W", "_", self.basename)])

    @property
    def header(self):
        """How the source beside it includes the header."""
        return self.basename + ".hpp"

    @property
    def include(self):
        """How users include it."""
        return "/".join(self.parts + [self.header])

    @property
    def label(self):
        """The file label of the log lines."""
        return f"{self.class_name}/{self.basename}.cpp"

    @property
    def has_cache(self):
        return self.wanted.cache and bool(self.properties)

    @property
    def has_direct(self):
        return self.wanted.direct and bool(self.properties or self.methods)

    @property
    def writable(self):
        return [prop for prop in self.properties if prop.writable]

    @property
    def by_name(self):
        """The properties in ascending order of their names, which is that of their numbers."""
        return sorted(self.properties, key=lambda prop: prop.name.encode())

    @property
    def variant(self):
        """The distinct property types, ordered by their C++ spelling (byte-wise)."""
        return _distinct(prop.type for prop in self.properties)

    @property
    def argument_types(self):
        """The same for the arguments of the signals."""
        return _distinct(arg.type for signal in self.signals for arg in signal.args)


# An object's values are reached by 16-bit offsets, its types by 8-bit numbers.
_LARGEST = 0x10000
_MOST_TYPES = 0x100
_BYTES = {"y": 1, "b": 1, "n": 2, "q": 2, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8}
_CONTAINER_BYTES = {"array": 24, "dict": 48}
_CLASS_BYTES = 32


def _least_bytes(kind):
    """What a value takes in an object of a 64-bit system, without what lies between values."""
    if kind.kind == "struct":
        return sum(_least_bytes(part) for part in kind.parts)
    return _CONTAINER_BYTES.get(kind.kind) or _BYTES.get(kind.signature, _CLASS_BYTES)


def _distinct(types):
    return sorted(set(types), key=lambda one: one.cpp.encode())


def _annotation(element, name):
    """Its value, or None."""
    for one in element.all("annotation"):
        if one.attributes["name"] == name:
            return one.attributes["value"]
    return None


class _Builder:
    """Turns the element of one interface into the model and collects every problem."""

    def __init__(self, element, wanted, basename):
        self._element = element
        self._wanted = wanted
        self._problems = []
        self._notes = []
        self._model = Interface(element.attributes["name"], element.line, basename, wanted)

    def build(self):
        self._check_interface_name()
        self._read_annotations()
        properties = [self._property(one) for one in self._element.all("property")]
        methods = [self._method(one) for one in self._element.all("method")]
        signals = [self._signal(one) for one in self._element.all("signal")]
        self._check_kinds(properties, methods, signals)
        wanted = self._wanted
        self._model.properties = properties if wanted.cache or wanted.direct else []
        self._model.methods = methods if wanted.direct else []
        self._model.signals = signals if wanted.signals else []
        for what, members in (
            ("property", properties),
            ("method", methods),
            ("signal", signals),
        ):
            self._check_repeats(what, members)
        self._check_served()
        if not self._problems:
            self._check_classes()
            self._check_sizes()
        if self._problems:
            raise Refusal(self._problems)
        self._settle_names()
        return self._model, self._notes

    # Reading

    def _refuse(self, line, reason):
        self._problems.append(Problem(line, reason))

    def _check_interface_name(self):
        name, line = self._model.name, self._element.line
        problem = names.interface_problem(name)
        if problem:
            self._refuse(line, f"interface name '{name}' {problem}")
            return
        for part in self._model.parts:
            problem = names.scope_problem(part)
            if problem:
                self._refuse(line, f"interface name '{name}' makes no C++ name: {problem}")

    def _read_annotations(self):
        for one in self._element.all("annotation"):
            name, value = one.attributes["name"], one.attributes["value"]
            if name == USE_DATACACHE:
                if value not in ("true", "false"):
                    self._refuse(one.line, f"annotation {name} is '{value}', not true or false")
                self._model.datacache = value == "true"
            elif name.startswith("com.tamm.bmcbus."):
                self._notes.append(Problem(one.line, f"unknown annotation {name} is passed over"))

    def _member_name(self, element, what):
        name = element.attributes["name"]
        problem = names.member_problem(name)
        if problem:
            self._refuse(element.line, f"{what} name '{name}' {problem}")
        return name

    def _type(self, element, what):
        text = element.attributes["type"]
        try:
            return parse_signature(text)
        except SignatureError as error:
            self._refuse(element.line, f"{what}: type '{text}': {error}")
            return None

    def _property(self, element):
        name = self._member_name(element, "property")
        what = f"property '{name}'"
        access = element.attributes["access"]
        if access == "write":
            if self._wanted.cache or self._wanted.direct:
                reason = f"{what} is write-only; only read and readwrite are served"
                self._refuse(element.line, reason)
        elif access not in ("read", "readwrite"):
            self._refuse(element.line, f"{what}: access '{access}' is not read or readwrite")
        self._note_unannounced(element, what)
        kind = self._type(element, what)
        return Property(name, kind, element.line, writable=access == "readwrite")

    def _note_unannounced(self, element, what):
        """A cached proxy reads such a property once, which is rarely what is wanted."""
        emits = _annotation(element, EMITS_CHANGED) or _annotation(self._element, EMITS_CHANGED)
        if self._wanted.cache and emits in ("false", "invalidates"):
            reason = f"{what} sends no new values, so a cached proxy keeps the first it read"
            self._notes.append(Problem(element.line, reason))

    def _method(self, element):
        name = self._member_name(element, "method")
        what = f"method '{name}'"
        ins, outs = [], []
        given = {one.attributes.get("name") for one in element.all("arg")}
        for one in element.all("arg"):
            direction = one.attributes.get("direction", "in")
            if direction not in ("in", "out"):
                self._refuse(one.line, f"{what}: direction '{direction}' is not in or out")
            into = outs if direction == "out" else ins
            made_up = names.free_name(f"{direction}{len(into) + 1}", given)
            into.append(self._argument(one, what, made_up))
        self._check_repeats(f"{what}: argument", ins + outs)
        return Method(name, element.line, ins, outs)

    def _signal(self, element):
        name = self._member_name(element, "signal")
        what = f"signal '{name}'"
        args = []
        for one in element.all("arg"):
            direction = one.attributes.get("direction", "out")
            if direction != "out":
                self._refuse(one.line, f"{what}: direction '{direction}' is not out")
            args.append(self._argument(one, what, None))
        self._check_repeats(f"{what}: argument", args)
        return Signal(name, element.line, args)

    def _argument(self, element, what, made_up):
        """made_up is the name to take if there is none; None where accessors are named by it."""
        name = element.attributes.get("name", "")
        if not name and made_up:
            name = made_up
        elif not name:
            if self._wanted.signals:
                reason = f"{what}: an argument has no name; its accessor needs one"
                self._refuse(element.line, reason)
        else:
            problem = names.member_problem(name)
            if name in names.KEYWORDS:
                problem = "is a C++ keyword"
            if problem:
                hint = "; it appears nowhere on the bus, so change it here"
                self._refuse(element.line, f"{what}: argument name '{name}' {problem}{hint}")
        return Argument(name, self._type(element, f"{what}: argument '{name}'"), element.line)

    # Checking

    def _check_repeats(self, what, items):
        seen = {}
        for item in items:
            if item.name and item.name in seen:
                self._refuse(
                    item.line, f"{what} '{item.name}' is declared before in line {seen[item.name]}"
                )
            seen.setdefault(item.name, item.line)

    def _check_kinds(self, properties, methods, signals):
        """Something must come out; what was asked for by name and does not is told."""
        line, wanted = self._element.line, self._wanted
        if not (properties or methods or signals):
            self._refuse(line, "the interface has no properties, methods or signals")
            return
        kinds = (
            (wanted.cache, properties, "no cached proxy: the interface has no properties"),
            (
                wanted.direct,
                properties or methods,
                "no direct proxy: the interface has no properties or methods",
            ),
            (wanted.signals, signals, "no signal classes: the interface has no signals"),
        )
        missing = [Problem(line, reason) for asked, has, reason in kinds if asked and not has]
        if not any(asked and has for asked, has, _ in kinds):
            self._problems += missing
        elif wanted.explicit:
            self._notes += missing

    def _check_served(self):
        """Only for what is generated: one odd method need not stand in the way of the rest."""
        items = [(f"property '{prop.name}'", prop) for prop in self._model.properties]
        for what, members in (("method", self._model.methods), ("signal", self._model.signals)):
            for member in members:
                args = member.args if what == "signal" else member.ins + member.outs
                items += [(f"{what} '{member.name}': argument '{arg.name}'", arg) for arg in args]
        for what, item in items:
            for code in item.type.unserved if item.type else ():
                self._refuse(
                    item.line,
                    f"{what}: type '{item.signature}' is not served: {UNSERVED[code]}",
                )

    def _check_classes(self):
        model = self._model
        if model.has_cache:
            self._check_class(
                model,
                model.properties,
                names.CACHE_MEMBERS,
                names.CACHE_PREFIXES,
                names.CACHE_WORDS,
            )
        if model.has_direct:
            self._check_class(
                model,
                model.properties,
                names.DIRECT_MEMBERS,
                names.DIRECT_PREFIXES,
                names.DIRECT_WORDS,
            )
            for method in model.methods:
                if model.class_name == "Call_" + method.name:
                    self._refuse(
                        method.line,
                        f"method '{method.name}' becomes 'Call_{method.name}', the name of its "
                        "class",
                    )
        for signal in model.signals:
            self._check_signal_class(signal)

    def _check_class(self, owner, items, members, prefixes, words=frozenset()):
        """owner is what the class is named by, items become its accessors and fields."""
        if owner.class_name in members:
            self._refuse(
                owner.line,
                f"a class cannot be named '{owner.class_name}': it has a member of that name",
            )
        if owner.class_name in words:
            self._refuse(
                owner.line,
                f"a class cannot be named '{owner.class_name}': its constructors have a parameter "
                "of that name",
            )
        for item in items:
            for prefix in prefixes:
                if owner.class_name == prefix + item.name:
                    self._refuse(
                        item.line,
                        f"'{item.name}' becomes '{owner.class_name}', the name of its class",
                    )

    def _check_sizes(self):
        model = self._model
        self._check_size(model, model.properties)
        for signal in model.signals:
            self._check_size(signal, signal.args)
        if sum(len(prop.name) + 1 for prop in model.properties) > _LARGEST:
            self._refuse(model.line, "the names of the properties take more than 64 KiB")
        for types, what in ((model.variant, "property"), (model.argument_types, "argument")):
            if len(types) > _MOST_TYPES:
                self._refuse(model.line, f"there are more than {_MOST_TYPES} {what} types")

    def _check_size(self, owner, items):
        size = sum(_least_bytes(item.type) + 1 for item in items)  # a flag each
        if size > _LARGEST:
            reason = f"an object of '{owner.class_name}' would take more than 64 KiB"
            self._refuse(owner.line, reason)

    def _check_signal_class(self, signal):
        problem = names.scope_problem(signal.name)
        if problem:
            self._refuse(signal.line, f"signal '{signal.name}' makes no C++ class: {problem}")
        self._check_class(
            signal, signal.args, names.SIGNAL_MEMBERS, ("Get_",), names.SIGNAL_WORDS
        )
        if [self._model.group, signal.name] == self._model.parts[:2]:
            self._refuse(
                signal.line,
                f"the class of signal '{signal.name}' collides with the interface's own name",
            )

    # Names that the description leaves open

    def _settle_names(self):
        model = self._model
        for prop in model.properties:
            prop.variant_index = model.variant.index(prop.type)
        for number, prop in enumerate(model.by_name):
            prop.number = number
        _settle_members(model.class_name, model.properties, names.CACHE_PREFIXES)
        for method in model.methods:
            _settle_params(method.ins + method.outs)
        for signal in model.signals:
            _settle_members(signal.class_name, signal.args, ("Get_",))


def _settle_members(class_name, items, prefixes):
    taken = {prefix + item.name for prefix in prefixes for item in items} | {class_name}
    for item in items:
        item.field = names.free_name(item.name + "_", taken)
        item.flag = names.free_name(item.name + _FLAG, taken)
        taken |= {item.field, item.flag}
    _settle_params(items)


def _settle_params(items):
    """The underscore keeps them clear of macros, keywords and all that the generated code says."""
    taken = set()
    for item in items:
        item.param = names.free_name(item.name + "_", taken)
        taken.add(item.param)


def choose(root, name):
    """Gives the element of the interface to serve; raises Refusal.

    Running services also describe the standard interfaces, which are chosen only by name.
    """
    found = root.all("interface")
    seen = {}
    for one in found:
        own = one.attributes["name"]
        if own in seen:
            reason = f"interface '{own}' is declared before in line {seen[own]}"
            raise Refusal([Problem(one.line, reason)])
        seen[own] = one.line
    if name is not None:
        chosen = [one for one in found if one.attributes["name"] == name]
        if not chosen:
            raise Refusal([Problem(root.line, f"there is no interface '{name}'")])
        return chosen[0]
    own = [one for one in found if not one.attributes["name"].startswith(_STANDARD)]
    if not own:
        raise Refusal([Problem(root.line, "there is no interface besides the standard ones")])
    if len(own) > 1:
        listed = ", ".join(one.attributes["name"] for one in own)
        reason = f"there are several interfaces, choose one with --interface: {listed}"
        raise Refusal([Problem(root.line, reason)])
    return own[0]


def build(element, wanted=Wanted(), basename="client_cache"):
    """Gives the checked model of one interface and a list of notes; raises Refusal."""
    return _Builder(element, wanted, basename).build()
