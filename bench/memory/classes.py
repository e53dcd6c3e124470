"""Prints the catalogue's classes: CACHED(class), SUBSCRIBER(class) and DIRECT(class).

    classes.py CODEGEN_DIR DESCRIPTION.xml...
"""

import sys
from pathlib import Path

sys.dont_write_bytecode = True
codegen, *descriptions = sys.argv[1:]
sys.path.insert(0, codegen)

from bmcbus_codegen.model import build, choose  # noqa: E402
from bmcbus_codegen.parser import parse  # noqa: E402

lines = []
for description in descriptions:
    root, _ = parse(Path(description).read_bytes())
    interface, _ = build(choose(root, None))
    folder = "/".join(interface.parts)
    print(f"#include <{folder}/client_cache.hpp>")
    name = "::".join([*interface.namespace, interface.class_name])
    if interface.has_cache:
        lines.append(f"CACHED(ClientCache::{name})")
    if interface.has_direct:
        lines.append(f"DIRECT(ClientEdge::{name})")
    for signal in interface.signals:
        lines.append(f"SUBSCRIBER(ClientCache::{interface.group}::{signal.class_name})")
print("#define EVERY_CLASS", *lines, sep=" \\\n    ")
