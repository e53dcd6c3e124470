"""The output for one description, byte for byte: a change of the templates shows what it does.

    test_golden.py            compares
    test_golden.py --update   writes the output anew, for the diff to be read
"""

import sys
import unittest

from support import HERE, GeneratorTest

FOLDER = HERE / "golden"
UPDATE = "--update" in sys.argv


class Golden(GeneratorTest):
    def test_output(self):
        self.assertGenerated(self.generate(FOLDER / "com.example.Door.xml"))
        for name in self.written():
            text = (self.output / name).read_text(encoding="utf-8")
            golden = FOLDER / (name + ".golden")
            if UPDATE:
                golden.write_text(text, encoding="utf-8")
            with self.subTest(name=name):
                self.assertEqual(golden.read_text(encoding="utf-8"), text)


if __name__ == "__main__":
    unittest.main(argv=[one for one in sys.argv if one != "--update"])
