"""Renders every_member_tables.cpp.j2 for the interface descriptions of the catalogue.

    render_every_member.py CODEGEN_DIR TEMPLATE OUTPUT DESCRIPTION.xml...
"""

import sys
from pathlib import Path

codegen, template, output, *descriptions = sys.argv[1:]
sys.path.insert(0, codegen)

import jinja2  # noqa: E402

from bmcbus_codegen.builder import build  # noqa: E402
from bmcbus_codegen.parser import parse  # noqa: E402
from bmcbus_codegen.source import choose  # noqa: E402

environment = jinja2.Environment(
    undefined=jinja2.StrictUndefined,
    trim_blocks=True,
    lstrip_blocks=True,
    keep_trailing_newline=True,
)
text = environment.from_string(Path(template).read_text(encoding="utf-8"))
interfaces = [
    build(choose(parse(Path(description).read_bytes())[0], None))[0]
    for description in descriptions
]
Path(output).write_text(text.render(interfaces=interfaces), encoding="utf-8")
