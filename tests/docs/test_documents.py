"""The documents keep what they promise: their programs run, their commands work, their links lead
somewhere."""

import os
import re
import sys
import tempfile
import unittest
from pathlib import Path

from blocks import SOURCE, all_blocks, blocks, documents
from running import machine, run

sys.path.insert(0, str(SOURCE / "tests" / "support"))
from staged import Stage  # noqa: E402

BUILD = Path(os.environ["BMCBUS_BUILD"])
SIMULATOR = os.environ["BMCBUS_SIMULATOR"]
PROGRAMS = Path(os.environ["BMCBUS_PROGRAMS"])

# How many blocks nobody runs; each says why. More need a good reason.
NOT_RUN = 2

LINK = re.compile(r"\[[^]]+\]\(([^)#:]*)(?:#([^)]*))?\)")
HEADING = re.compile(r"^#+ (.*)$", re.M)


def prose(document):
    """A document without its blocks."""
    return re.sub(r"^```.*?^```$", "", document.read_text(encoding="utf-8"), flags=re.M | re.S)


def anchors(document):
    """What links to headings of a document are called."""
    headings = HEADING.findall(prose(document))
    return [re.sub(r"[^\w -]", "", heading).lower().replace(" ", "-") for heading in headings]


class Documents(unittest.TestCase):
    """What holds without running anything."""

    def test_every_block_is_looked_at(self):
        unknown = [block for block in all_blocks() if block.kind == "unknown"]
        self.assertEqual([f"{block.place} ({block.language})" for block in unknown], [])

    def test_few_blocks_are_not_run(self):
        left_out = [block for block in all_blocks() if block.kind == "not run"]
        reasons = [f"{block.place}: {block.marks['not run']}" for block in left_out]
        self.assertLessEqual(len(left_out), NOT_RUN, reasons)

    def test_every_mark_is_used(self):
        for document in documents():
            comments = document.read_text(encoding="utf-8").count("<!--")
            marks = sum(len(block.marks) for block in blocks(document))
            self.assertEqual(comments, marks, f"{document.name}: a comment before no block")

    def test_commands_use_the_files(self):
        for document in documents():
            all_here = blocks(document)
            commands = "".join(block.text for block in all_here if block.kind == "commands")
            for block in all_here:
                if block.kind == "file" and block.marks["file"] != "meson.build":
                    self.assertIn(block.marks["file"], commands, block.place)

    def test_links_lead_somewhere(self):
        for document in documents():
            for target, anchor in LINK.findall(prose(document)):
                page = document.parent / target if target else document
                self.assertTrue(page.exists(), f"{document.name}: {target}")
                if anchor:
                    self.assertIn(anchor, anchors(page), f"{document.name}: {target}")

    def test_every_page_can_be_reached(self):
        index = (SOURCE / "docs" / "index.md").read_text(encoding="utf-8")
        for document in documents():
            if document.parent != SOURCE and document.name != "index.md":
                self.assertIn(f"({document.name})", index)


class Programs(unittest.TestCase):
    """One test per program, added below."""


class Commands(unittest.TestCase):
    """One test per document that has commands, added below."""

    @classmethod
    def setUpClass(cls):
        cls.scratch = Path(cls.enterContext(tempfile.TemporaryDirectory()))
        stage = Stage()
        cls.addClassCleanup(stage.close)
        cls.environment = {
            **stage.environment,
            "SYSTEMD_PAGER": "",
            "PATH": f"{stage.prefix / 'bin'}:{os.environ['PATH']}",
            "BMCBUS_INTERFACE_PATH": str(stage.prefix / "share" / "dbus-1" / "interfaces"),
        }

    @classmethod
    def enterContext(cls, context):  # Python 3.10 has none
        value = context.__enter__()
        cls.addClassCleanup(context.__exit__, None, None, None)
        return value

    def go(self, document):
        folder = self.scratch / document.stem
        folder.mkdir()
        with machine(SIMULATOR) as bus:
            address = bus["DBUS_SYSTEM_BUS_ADDRESS"]
            environment = {**self.environment, "DBUS_SYSTEM_BUS_ADDRESS": address}
            for block in blocks(document):
                if "file" in block.marks:
                    (folder / block.marks["file"]).parent.mkdir(parents=True, exist_ok=True)
                    (folder / block.marks["file"]).write_text(block.text, encoding="utf-8")
                if block.kind == "commands" and "alone" not in block.marks:
                    with self.subTest(block.place):
                        self.run_commands(block, environment, folder)

    def run_commands(self, block, environment, folder):
        if "needs" in block.marks and BUILD != SOURCE / block.marks["needs"]:
            self.skipTest(f"only where {block.marks['needs']} is tested")
        place = SOURCE if block.marks.get("folder") == "source" else folder
        command = ["bash", "-euo", "pipefail", "-c", block.text]
        run(command, environment, place, block.marks.get("shows"))


def program_test(block):
    def test(self):
        with machine(SIMULATOR) as environment, tempfile.TemporaryDirectory() as folder:
            program = PROGRAMS / f"document-{block.name}"
            run([program], environment, folder, block.marks.get("shows"))

    test.__doc__ = block.place
    return test


def commands_test(document):
    def test(self):
        self.go(document)

    test.__doc__ = document.name
    return test


def method_name(name):
    return "test_" + re.sub(r"\W", "_", name)


for program in (block for block in all_blocks() if block.kind == "program"):
    setattr(Programs, method_name(program.name), program_test(program))
for page in documents():
    if any(block.kind == "commands" for block in blocks(page)):
        setattr(Commands, method_name(page.stem), commands_test(page))

if __name__ == "__main__":
    unittest.main()
