"""Renders every_member.cpp.j2 for one interface description.

    render_every_member.py CODEGEN_DIR DESCRIPTION.xml TEMPLATE OUTPUT
"""

import sys
from pathlib import Path

codegen, description, template, output = sys.argv[1:]
sys.path.insert(0, codegen)

import jinja2  # noqa: E402

from bmcbus_codegen.builder import build, choose  # noqa: E402
from bmcbus_codegen.parser import parse  # noqa: E402

root, _ = parse(Path(description).read_bytes())
interface, _ = build(choose(root, None))
environment = jinja2.Environment(
    undefined=jinja2.StrictUndefined,
    trim_blocks=True,
    lstrip_blocks=True,
    keep_trailing_newline=True,
)
text = environment.from_string(Path(template).read_text(encoding="utf-8"))
Path(output).write_text(text.render(interface=interface), encoding="utf-8")
