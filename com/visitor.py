"""Writes a header that goes through the catalogue: its classes, and the members of each.

    visitor.py CODEGEN_DIR OUTPUT DESCRIPTION.xml...
"""

import sys
from pathlib import Path

sys.dont_write_bytecode = True
codegen, output, *descriptions = sys.argv[1:]
sys.path.insert(0, codegen)

from bmcbus_codegen.builder import build  # noqa: E402
from bmcbus_codegen.parser import parse  # noqa: E402
from bmcbus_codegen.source import choose  # noqa: E402

HEAD = """
namespace catalogue
{

/** A property, or an argument of a signal, and how an object gives it. */
template <class Class, class T>
struct Member
{
    const char* name;
    const char* type;
    void (Class::*get)(bool& is_set, T& value);
};

/**
 * A cached proxy or a subscriber: `interface`, `signal` where it has one, and `Each(visit)`, which
 * calls `visit` with the `Member` for each of its members in the order of their declaration.
 */
template <class Class>
struct Members;
"""
MEMBERS = """
template <>
struct Members<{name}>
{{
    using Class = {name};
    static constexpr const char* interface = "{interface}";
    static constexpr const char* signal = {signal};

    template <class Visit>
    static constexpr void Each(Visit visit)
    {{
{visits}
    }}
}};
"""
TAIL = """
/** Calls `visit.template operator()<Class>(its name)` for every class. */
template <class Visit>
void EveryClass(Visit visit)
{{
{visits}
}}

}} // namespace catalogue
"""


def members(name, interface, items, signal=None):
    visits = "\n".join(
        f'        visit(Member<Class, {one.type.cpp}>{{"{one.name}", "{one.signature}", '
        f"&Class::Get_{one.name}}});"
        for one in items
    )
    signal = f'"{signal.name}"' if signal else "nullptr"
    return MEMBERS.format(name=name, interface=interface.name, signal=signal, visits=visits)


includes, classes, text = [], [], HEAD
for description in descriptions:
    root, _ = parse(Path(description).read_bytes())
    interface, _ = build(choose(root, None))
    includes.append(f"#include <{interface.include}>\n")
    name = "::".join(interface.parts)
    if interface.has_cache:
        classes.append("ClientCache::" + name)
        text += members(classes[-1], interface, interface.properties)
    if interface.has_direct:
        classes.append("ClientEdge::" + name)
    for signal in interface.signals:
        classes.append(f"ClientCache::{interface.group}::{signal.class_name}")
        text += members(classes[-1], interface, signal.args, signal)
visits = "\n".join(f'    visit.template operator()<{one}>("{one}");' for one in classes)
text += TAIL.format(visits=visits)
Path(output).write_text("#pragma once\n\n" + "".join(includes) + text, encoding="utf-8")
