"""The fenced blocks of the documents, and what becomes of each.

A block's language decides:

    cpp, c  with main(): a program, built and run on a bus with the simulator
            with TEST or TEST_F: a program of GoogleTest, built and run
            else: a fragment, compiled inside its surroundings
    sh      commands, run by bash in a folder that the blocks of one document share
    text    output, pictures: nothing
    others  data such as xml: written to a file that commands read

Comments in the lines before the fence, which readers do not see, say more:

    <!-- file: NAME -->      commands of the same document find the block in this file
    <!-- built by: commands --> the commands of the document compile this C++ file, not the build
    <!-- in: NAME -->        surroundings of a fragment, a file in surroundings/ (statements)
    <!-- shows: TEXT -->     it is done when a line of its output begins so, and is ended then
    <!-- folder: source -->  commands run at the top of the source tree
    <!-- needs: FOLDER -->   commands run only when the tests were built in this folder
    <!-- alone: REASON -->   commands run where getting_started.py runs them, nowhere else
    <!-- not run: REASON --> it is not looked at
"""

import re
from dataclasses import dataclass, field
from pathlib import Path

SOURCE = Path(__file__).resolve().parents[2]

FENCE = re.compile(r"^```(.*)$")
MARK = re.compile(r"^<!-- (file|built by|in|shows|folder|needs|alone|not run): (.+) -->$")
DATA = ("xml", "yaml", "meson", "ini")


@dataclass
class Block:
    """One fenced block. The line is the one after the fence."""

    document: Path
    line: int
    language: str
    text: str
    number: int
    marks: dict = field(default_factory=dict)

    @property
    def name(self):
        return f"{self.document.stem}-{self.number}"

    @property
    def place(self):
        return f"{self.document.relative_to(SOURCE)}:{self.line}"

    @property
    def is_test(self):
        return self.language == "cpp" and re.search(r"^TEST(_F)?\(", self.text, re.M) is not None

    @property
    def is_program(self):
        if self.language not in ("cpp", "c"):
            return False
        return self.is_test or re.search(r"^int main\(", self.text, re.M) is not None

    @property
    def kind(self):
        if "not run" in self.marks:
            return "not run"
        if "built by" in self.marks:
            return "file"
        if self.language in ("cpp", "c"):
            return "program" if self.is_program else "fragment"
        if self.language == "sh":
            return "commands"
        if self.language in DATA and "file" in self.marks:
            return "file"
        return "text" if self.language == "text" else "unknown"


def documents():
    """The documents whose blocks are looked at."""
    return [SOURCE / "README.md", *sorted((SOURCE / "docs").glob("*.md"))]


def blocks(document):
    """The fenced blocks of a document, in their order."""
    document = Path(document).resolve()
    found, marks, opened = [], {}, None
    for number, line in enumerate(document.read_text(encoding="utf-8").splitlines(), 1):
        fence = FENCE.match(line)
        if opened is not None and fence:
            opened.text = "".join(opened.text)
            found.append(opened)
            opened = None
        elif opened is not None:
            opened.text.append(line + "\n")
        elif fence:
            opened = Block(document, number + 1, fence[1].strip(), [], len(found) + 1, marks)
            marks = {}
        elif mark := MARK.match(line):
            marks[mark[1]] = mark[2]
        else:
            marks = {}
    if opened is not None:
        raise ValueError(f"{opened.place}: the block does not end")
    return found


def all_blocks():
    """The blocks of all documents."""
    return [block for document in documents() for block in blocks(document)]
