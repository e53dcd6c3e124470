"""The scripts in trees that are moved, read-only or used twice at once, and below odd temporary folders.

scripts/common.sh does all of that, so a small project with it stands for the whole one.
"""

import hashlib
import json
import os
import re
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True

SOURCE = Path(__file__).resolve().parent.parent.parent

# Enough to be seen at work: the second of two builds meets the first one's compiler.
PROJECT = """
project('small', meson_version: '>=1.0.0')
custom_target(output: 'made', command: ['sh', '-c', 'sleep 1; echo made > "$0"', '@OUTPUT@'],
              build_by_default: true)
foreach number : range(30)
    custom_target(output: 'step@0@'.format(number), command: ['touch', '@OUTPUT@'], build_by_default: true)
endforeach
"""
SCRIPT = """#!/usr/bin/env bash
set -euo pipefail
source "$(dirname "${BASH_SOURCE[0]}")/common.sh"
build plain || die "the build failed"
cat "$top/build/plain/made"
"""


class Scripts(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="bmcbus-scripts.", dir="/tmp")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.tree = self.folder / "tree"
        (self.tree / "scripts").mkdir(parents=True)
        shutil.copy(SOURCE / "scripts" / "common.sh", self.tree / "scripts")
        (self.tree / "scripts" / "make").write_text(SCRIPT, encoding="utf-8")
        (self.tree / "meson.build").write_text(PROJECT, encoding="utf-8")

    def start(self, tree, **environment):
        return subprocess.Popen(
            ["bash", tree / "scripts" / "make"],
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            env={**os.environ, **environment},
        )

    def make(self, tree, **environment):
        with self.start(tree, **environment) as process:
            said = process.communicate()[0]
        return process.returncode, said

    def assert_made(self, tree, **environment):
        status, said = self.make(tree, **environment)
        self.assertEqual((status, said.splitlines()[-1:]), (0, ["made"]), said)
        return said

    def test_two_scripts_at_once(self):
        with self.start(self.tree) as first, self.start(self.tree) as second:
            said = [process.communicate()[0] for process in (first, second)]
        for process, text in zip((first, second), said):
            self.assertEqual((process.returncode, text.splitlines()[-1:]), (0, ["made"]), text)
        self.assertIn("Waiting for another script that uses build/plain", "".join(said))

    def test_progress_is_shown_off_a_terminal(self):
        self.assertRegex(self.assert_made(self.tree), r"build/plain: \d+ of 31 steps")

    def test_moved_and_copied_trees_build_again(self):
        self.assert_made(self.tree)
        copied = self.folder / "copy"
        shutil.copytree(self.tree, copied, symlinks=True)
        moved = self.folder / "moved"
        self.tree.rename(moved)
        for tree in (moved, copied):
            said = self.assert_made(tree)
            self.assertIn(f"The tree was in {self.tree} before", said)
            info = tree / "build" / "plain" / "meson-info" / "meson-info.json"
            directories = json.loads(info.read_text(encoding="utf-8"))["directories"]
            self.assertEqual(directories["source"], str(tree))
            self.assertNotIn("before", self.assert_made(tree))
        self.assertFalse(self.tree.exists())

    def test_read_only_tree_is_named(self):
        # A file in the folder's place refuses root, too.
        (self.tree / "build").write_text("", encoding="utf-8")
        status, said = self.make(self.tree)
        self.assertNotEqual(status, 0)
        self.assertRegex(said, rf"^make: cannot write to {re.escape(str(self.tree))}/build: .*\n$")

    def test_odd_tmpdir(self):
        for name in ("a@b", "a b", "a+b", "x" * 150):
            (self.folder / name).mkdir()
            self.assert_made(self.tree, TMPDIR=str(self.folder / name))
            self.assertEqual(list((self.folder / name).iterdir()), [])


class Demo(unittest.TestCase):
    def test_demo_spells_its_bus_for_odd_tmpdir(self):
        """The address that scripts/demo writes is read back by those who parse addresses."""
        text = (SOURCE / "scripts" / "demo").read_text(encoding="utf-8")
        [function] = re.findall(r"^escaped\(\)\n\{\n.*?^\}\n", text, re.M | re.S)
        for path in ("/tmp/plain-1_2.3/bus", "/tmp/a@b c+d,e;f=g%h<&\"'\\/bus", "/tmp/ä/bus"):
            said = subprocess.run(
                ["bash", "-c", function + 'escaped "$1"', "bash", path],
                capture_output=True, text=True, check=True,
            ).stdout
            self.assertRegex(said, r"^([-_/.a-zA-Z0-9]|%[0-9a-f]{2})+$")
            back = re.sub(rb"%(..)", lambda m: bytes([int(m[1], 16)]), said.encode())
            self.assertEqual(back.decode(), path)


class Recipe(unittest.TestCase):
    def test_recipe_fits_the_source(self):
        """What meta/ says of the options, the licence and the version, which no BitBake reads here."""
        [recipe] = [path.read_text(encoding="utf-8") for path in (SOURCE / "meta").rglob("*.bb")]
        options = (SOURCE / "meson_options.txt").read_text(encoding="utf-8")
        for name, value in re.findall(r"-D(\w+)=(\w+)", recipe):
            line = "option('werror', type: 'boolean'"  # Meson's own
            if name != "werror":
                [line] = re.findall(rf"^option\('{name}', .*$", options, re.M)
            kind = re.search(r"type: '(\w+)'", line)[1]
            choices = {"boolean": "true false", "feature": "enabled disabled auto"}.get(kind, line)
            self.assertRegex(choices, rf"\b{value}\b", f"-D{name}={value}")
        md5 = hashlib.md5((SOURCE / "LICENSE").read_bytes()).hexdigest()
        self.assertIn(f"file://LICENSE;md5={md5}", recipe)
        version = re.search(r"version: '(.*)'", (SOURCE / "meson.build").read_text(encoding="utf-8"))[1]
        self.assertIn(f'PV = "{version}+git"', recipe)


if __name__ == "__main__":
    unittest.main()
