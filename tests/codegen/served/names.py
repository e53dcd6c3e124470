"""Writes a description full of names that generated code, and the headers around it, use themselves.

    names.py OUTPUT
"""

import sys
from itertools import cycle

KEYWORDS = "class delete template"
OWN = """
value name at owner callback user_data async use object is_set v1 out in lock wanted success found
values msg ok service path target interface client label properties alternatives argumentTypes
fields about Tables Variant Callback Callbacks anchor bus std bmcbus uint8_t string vector map errno
NULL Get Create Ready match signal_count object_mutex active use_async Types Names value_
value_is_set Get_value detail com example ClientCache ClientEdge
"""
# Methods, each with an argument and a result.
METHODS = (
    "delete path service", "new class_name ok", "Call in out", "Get target interface",
    "std client name", "NULL bus reply", "value in1 out1",
)
SIGNALS = {
    "changed": OWN,
    "value": "value name at owner callback user_data",
    "string": "value name at owner callback user_data",
}


def arguments(names):
    return [f'<arg name="{name}" type="{kind}"/>' for name, kind in zip(names.split(), cycle("su"))]


lines = []
for method, taken, given in map(str.split, METHODS):
    lines.append(f'<method name="{method}"><arg name="{taken}" type="s" direction="in"/>')
    lines.append(f'<arg name="{given}" type="s" direction="out"/></method>')
for signal, names in SIGNALS.items():
    lines += [f'<signal name="{signal}">', *arguments(names), "</signal>"]
for name, kind in zip((OWN + KEYWORDS).split(), cycle("us")):
    lines.append(f'<property name="{name}" type="{kind}" access="readwrite"/>')
with open(sys.argv[1], "w", encoding="utf-8") as output:
    print('<node><interface name="com.example.test.Names">', *lines, "</interface></node>",
          sep="\n", file=output)
