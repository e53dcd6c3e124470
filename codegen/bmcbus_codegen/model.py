"""Step two: one interface as the templates see it, fully checked.

The templates get one variable, `interface`, an `Interface` with its properties, methods and signals.
"""

import re
from dataclasses import dataclass, field

from .signature import HEADERS


@dataclass(frozen=True)
class Wanted:
    """The kinds of class to generate; an explicit one that cannot be made is told."""

    cache: bool = True
    direct: bool = True
    signals: bool = True
    explicit: bool = False
    strict: bool = False  # a member that cannot be served refuses all


@dataclass(frozen=True)
class Naming:
    """What the names for C++ are to be instead of the interface's own; empty for those."""

    namespace: str = ""  # "com.example" or "com::example"
    class_name: str = ""


@dataclass
class Argument:
    """An argument of a method or signal, or a property.

    Private members for values end in an underscore, so they never meet a parameter or another member.
    """

    name: str  # on the bus; made up where an argument has none
    type: object  # cpp, signature, kind ("basic", "array", "dict", "struct"), parts (the types inside)
    line: int
    member: str = ""  # a member of a result: the name itself wherever C++ allows it
    param: str = ""  # a function parameter, "<name>_"
    field: str = ""  # the private member for the value, "<name>_"
    cpp_name: str = ""  # in the names of accessors; `name` unless that will not do
    enum_name: str = ""  # the enumeration that its text is of, "com.example.Lamp.Color"
    enum: str = ""  # and its C++ type, where that is known
    doc: str = ""

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
    cpp_name: str = ""
    doc: str = ""

    @property
    def text(self):
        """All that the description says, a paragraph each."""
        said = [f"- `{arg.name}`: {arg.doc}" for arg in self.ins + self.outs if arg.doc]
        return "\n\n".join(filter(None, [self.doc, *said]))

    @property
    def ins_signature(self):
        return "".join(arg.signature for arg in self.ins)

    @property
    def result(self):
        """The type of what it gives, inside its class."""
        if not self.outs:
            return "void"
        return self.outs[0].type.cpp if len(self.outs) == 1 else "Result_" + self.cpp_name

    @property
    def reply_signature(self):
        return "".join(out.signature for out in self.outs)


@dataclass
class Signal:
    name: str
    line: int
    args: list
    class_name: str = ""  # `name` unless that will not do
    doc: str = ""

    @property
    def signature(self):
        return "".join(arg.signature for arg in self.args)


@dataclass
class Enumeration:
    """A scoped enumeration, and its texts on the bus."""

    name: str  # in C++
    prefix: str  # what all texts begin with
    values: list  # the rest of each, as on the bus
    cpp_values: list
    docs: dict = field(default_factory=dict)  # by value
    doc: str = ""


@dataclass(frozen=True)
class Constant:
    """A name from the description as a constant."""

    name: str
    value: str


@dataclass(frozen=True)
class Place:
    """Where an object with the interface is found."""

    service: str
    path: str


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

    # Names for C++, beside those of the bus.
    namespace: list = field(default_factory=list)  # around the proxy classes, inside ClientCache
    class_name: str = ""  # of the proxy classes; also a word of their enter and leave lines
    enumerations: list = field(default_factory=list)
    errors: list = field(default_factory=list)
    paths: list = field(default_factory=list)
    services: list = field(default_factory=list)
    places: list = field(default_factory=list)  # where objects are found
    left_out: list = field(default_factory=list)  # properties that are not served
    neighbours: list = field(default_factory=list)  # the interfaces whose enumerations it uses
    doc: str = ""

    # How objects are made.
    constructors = _CONSTRUCTORS
    factories = _factories(_CONSTRUCTORS)
    signal_constructors = _CONSTRUCTORS[: len(_CALLBACKS)]
    signal_factories = _factories(signal_constructors)

    @property
    def parts(self):
        return self.name.split(".")

    @property
    def group(self):
        """The namespace of the signal classes, inside ClientCache."""
        return self.class_name

    @property
    def types(self):
        """The namespace of what has no class: enumerations and constants."""
        return "::".join(["ClientTypes", *self.namespace, self.class_name])

    @property
    def guard(self):
        """What keeps the types from being said twice, where headers share an interface."""
        parts = [*self.namespace, self.class_name]
        return "BMCBUS_TYPES_" + "".join(f"{len(part)}{part}" for part in parts)

    @property
    def tables(self):
        """The namespace of the tables: sources that are compiled as one do not share it."""
        own = "of_" + re.sub(r"\W", "_", self.basename)
        return "::".join(["bmcbus_tables", *self.namespace, self.class_name, own])

    @property
    def text(self):
        """What the description says of the whole, a paragraph each."""
        return "\n\n".join(filter(None, [self.doc, self.where]))

    @property
    def where(self):
        places = ", ".join(f"`{one.path}` of `{one.service}`" for one in self.places)
        return places and f"Found at {places}."

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
    def with_types(self):
        """The interfaces whose enumerations and constants the header has."""
        return [one for one in [self, *self.neighbours] if one.has_types]

    @property
    def items(self):
        """All that has a type."""
        arguments = [arg for method in self.methods for arg in method.ins + method.outs]
        return self.properties + arguments + [arg for one in self.signals for arg in one.args]

    @property
    def has_types(self):
        return bool(self.enumerations or self.errors or self.paths or self.services)

    @property
    def headers(self):
        """Those that only the types of this interface need."""
        letters = {letter for one in self.items for letter in one.signature}
        return sorted(HEADERS[letter] for letter in letters if letter in HEADERS)

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
LARGEST = 0x10000
MOST_TYPES = 0x100
_BYTES = {"y": 1, "b": 1, "n": 2, "q": 2, "i": 4, "u": 4, "x": 8, "t": 8, "d": 8, "h": 16, "v": 40}
_CONTAINER_BYTES = {"array": 24, "dict": 48}
_CLASS_BYTES = 32


def least_bytes(kind):
    """What a value takes in an object of a 64-bit system, without what lies between values."""
    if kind.kind == "struct":
        return sum(least_bytes(part) for part in kind.parts)
    return _CONTAINER_BYTES.get(kind.kind) or _BYTES.get(kind.signature, _CLASS_BYTES)


def _distinct(types):
    return sorted(set(types), key=lambda one: one.cpp.encode())
