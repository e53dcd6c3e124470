"""Takes the program texts out of the documents, for the build.

    extract.py list DOCUMENT...             name, language and kind of each program, one a
                                            line; the build must know all documents
    extract.py program NAME OUTPUT          the program with that name
    extract.py fragments OUTPUT             one source file with all fragments
"""

import re
import sys
from pathlib import Path

from blocks import all_blocks, documents

SURROUNDINGS = Path(__file__).resolve().parent / "surroundings"
INCLUDE = re.compile(r"^#include .*$", re.M)
PLACE = "@FRAGMENT@\n"


def located(block, text):
    """The text with a line of the compiler's that names its place in the document."""
    return f'#line {block.line} "{block.place.rsplit(":", 1)[0]}"\n{text}'


def fragment(block):
    """What a fragment includes, and itself inside its surroundings."""
    file = SURROUNDINGS / (block.marks.get("in", "statements") + ".hpp.in")
    around = file.read_text(encoding="utf-8").replace("@NAME@", re.sub(r"\W", "_", block.name))
    before, after = around.split(PLACE)
    body = located(block, INCLUDE.sub("", block.text))
    return INCLUDE.findall(block.text), before + body + after


def main(what, *arguments):
    if what == "list":
        unknown = set(documents()) - {Path(argument).resolve() for argument in arguments}
        if unknown:
            sys.exit(f"the list in tests/docs/meson.build lacks {sorted(map(str, unknown))}")
        for block in all_blocks():
            if block.kind == "program":
                print(f"{block.name} {block.language} {'test' if block.is_test else 'program'}")
    elif what == "program":
        name, output = arguments
        (block,) = [block for block in all_blocks() if block.name == name]
        Path(output).write_text(located(block, block.text), encoding="utf-8")
    elif what == "fragments":
        includes, bodies = [], []
        for block in all_blocks():
            if block.kind == "fragment":
                needed, body = fragment(block)
                includes += [line for line in needed if line not in includes]
                bodies.append(body)
        Path(arguments[0]).write_text("\n".join(includes + bodies), encoding="utf-8")
    else:
        sys.exit(__doc__)


if __name__ == "__main__":
    main(*sys.argv[1:])
