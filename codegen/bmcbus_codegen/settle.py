"""Step two, its end: what everything is called in C++.

What is different on the bus may be one in C++, or taken already. Such a name is changed until it fits,
with a note where users meet it.
"""

from . import names
from .refusal import Problem


class _Settling:
    """One model, and the notes about it."""

    def __init__(self, model, notes):
        self._model = model
        self._notes = notes

    def _note(self, line, reason):
        self._notes.append(Problem(line, reason))

    def settle(self, namespace, class_name):
        model = self._model
        self._settle_scopes(namespace, class_name)
        self._settle_properties()
        for prop in model.properties:
            prop.variant_index = model.variant.index(prop.type)
        for number, prop in enumerate(model.by_name):
            prop.number = number
        _settle_members(model.class_name, model.properties, names.CACHE_PREFIXES)
        _settle_results(model.properties)
        for method in model.methods:
            _settle_params(method.ins + method.outs)
            _settle_results(method.outs)
        for signal in model.signals:
            self._settle_signal(signal)
            _settle_members(signal.class_name, signal.args, ("Get_",))

    def _settle_scopes(self, wanted, class_name):
        """Namespaces and class: as is wanted, or as the interface's name has them."""
        model, parts = self._model, self._model.parts
        namespace = wanted.replace("::", ".").split(".") if wanted else parts[:-1]
        class_name = class_name or parts[-1]
        model.namespace = [names.scope_name(part) for part in namespace]
        model.class_name = names.scope_name(class_name)
        while self._is_taken(model.class_name):
            model.class_name += "_"
        settled = [*model.namespace, model.class_name]
        if settled != [*namespace, class_name]:
            self._note(model.line, f"the classes are named {'::'.join(settled)} in C++")

    def _is_taken(self, name):
        """Whether a class of the name would have a member of that name, or hide a parameter."""
        model = self._model
        taken = set()
        if model.has_cache:
            taken |= names.CACHE_MEMBERS | names.CACHE_WORDS
            taken |= {a + one.cpp_name for a in names.CACHE_PREFIXES for one in model.properties}
        if model.has_direct:
            taken |= names.DIRECT_MEMBERS | names.DIRECT_WORDS
            taken |= {a + one.cpp_name for a in names.DIRECT_PREFIXES for one in model.properties}
            taken |= {a + one.cpp_name for a in names.METHOD_PREFIXES for one in model.methods}
        return name in taken

    def _settle_properties(self):
        """Different names on the bus may have become one in C++."""
        taken = set()
        for what, members in (("property", self._model.properties), ("method", self._model.methods)):
            for one in members:
                settled = one.cpp_name
                while (what, settled) in taken:
                    settled += "_"
                if settled != one.cpp_name:
                    self._note(one.line, f"{what} '{one.name}' is '{settled}' in C++")
                one.cpp_name = settled
                taken.add((what, settled))

    def _settle_signal(self, signal):
        taken = names.SIGNAL_MEMBERS | names.SIGNAL_WORDS
        taken |= {"Get_" + arg.cpp_name for arg in signal.args}
        taken |= {one.class_name for one in self._model.signals if one is not signal}
        settled = names.scope_name(signal.class_name, taken)
        # The namespace of the signal classes may be the first of the proxies'.
        while [self._model.group, settled] == [*self._model.namespace, self._model.class_name][:2]:
            settled += "_"
        if settled != signal.name:
            self._note(signal.line, f"the class of signal '{signal.name}' is '{settled}' in C++")
        signal.class_name = settled


def _settle_members(class_name, items, prefixes):
    taken = {prefix + item.cpp_name for prefix in prefixes for item in items} | {class_name}
    for item in items:
        item.field = names.free_name(item.cpp_name + "_", taken)
        taken.add(item.field)
    _settle_params(items)


def _settle_results(items):
    taken = set()
    for item in items:
        item.member = names.scope_name(item.cpp_name, taken)
        taken.add(item.member)


def _settle_params(items):
    """The underscore keeps them clear of macros, keywords and all that the generated code says."""
    taken = set()
    for item in items:
        item.param = names.free_name(item.cpp_name + "_", taken)
        taken.add(item.param)


def settle_names(model, notes, namespace, class_name):
    """Fills the names of a model in, with what namespace and class are wanted to be, or None."""
    _Settling(model, notes).settle(namespace, class_name)
