"""The output for one description, byte for byte: a change of the templates shows what it does.

    test_golden.py            compares
    test_golden.py --update   writes the output anew, for the diff to be read
"""

from support import GOLDEN, GeneratorTest, main


class Golden(GeneratorTest):
    def test_output(self):
        done = self.generate(GOLDEN / "com.example.Door.xml")
        self.generate("--page", "page.md", GOLDEN / "com.example.Door.xml")
        self.assertGolden("notes", done.stderr.replace(f"{GOLDEN}/", ""))
        for name in self.written():
            self.assertGolden(name, (self.output / name).read_text(encoding="utf-8"))


if __name__ == "__main__":
    main()
