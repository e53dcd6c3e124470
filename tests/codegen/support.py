"""Runs the generator as its users do."""

import os
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True

HERE = Path(__file__).resolve().parent
SOURCE = HERE.parent.parent
PROGRAM = os.environ.get("BMCBUS_CODEGEN", str(SOURCE / "codegen" / "bmcbus-codegen"))

sys.path.insert(0, str(SOURCE / "codegen"))

GOLDEN = HERE / "golden"
UPDATE = "--update" in sys.argv
OUTPUT = ("client_cache.cpp", "client_cache.hpp")


def run(*arguments, environment=None):
    """Gives the finished process with its output as text."""
    return subprocess.run(
        [sys.executable, PROGRAM, *map(str, arguments)],
        capture_output=True,
        encoding="utf-8",
        env={**os.environ, "PYTHONIOENCODING": "utf-8", **(environment or {})},
        timeout=120,
        check=False,
    )


class GeneratorTest(unittest.TestCase):
    """A test with an empty folder for the output and one for input that it makes itself."""

    maxDiff = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.output = self.folder / "output"
        self.output.mkdir()

    def write(self, text):
        file = self.folder / "input.xml"
        file.write_bytes(text if isinstance(text, bytes) else text.encode())
        return file

    def interface(self, body="", name="com.example.Sensor"):
        """A file with one interface; its body begins in line 2."""
        return self.write(f'<node><interface name="{name}">\n{body}\n</interface></node>\n')

    def generate(self, *arguments, **options):
        return run("--output-dir", self.output, *arguments, **options)

    def written(self):
        return tuple(sorted(os.listdir(self.output)))

    def assertGenerated(self, done):
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.written(), OUTPUT)

    def assertRefused(self, done, file, *problems):
        """problems are pairs of line and reason."""
        expected = "".join(f"{file}:{line}: {reason}\n" for line, reason in problems)
        self.assertEqual((done.stderr, done.stdout, done.returncode), (expected, "", 1))
        self.assertEqual(self.written(), ())

    def assertGolden(self, name, text):
        """What is in the file of that name, or will be from now on."""
        file = GOLDEN / (name + ".golden")
        if UPDATE:
            file.write_text(text, encoding="utf-8")
        with self.subTest(name=name):
            self.assertEqual(file.read_text(encoding="utf-8"), text)


def main():
    unittest.main(argv=[one for one in sys.argv if one != "--update"])
