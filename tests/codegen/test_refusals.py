"""Input that is not served: file, line and reason, and no output."""

import re
import unittest

from support import HERE, GeneratorTest

REFUSED = HERE / "refused"
EXPECTED = re.compile(r"<!-- refused: (.*) -->")


def expected_problems(file):
    """The files say beside each fault what is to be said about it."""
    lines = file.read_text(encoding="utf-8").splitlines()
    return [
        (number, found.group(1))
        for number, line in enumerate(lines, 1)
        for found in EXPECTED.finditer(line)
    ]


class Files(GeneratorTest):
    def test_each_file_is_refused_for_its_reasons(self):
        files = [file for file in sorted(REFUSED.glob("*.xml")) if expected_problems(file)]
        self.assertTrue(files)
        for file in files:
            with self.subTest(file=file.name):
                self.assertRefused(self.generate("--strict", file), file, *expected_problems(file))

    def test_not_well_formed(self):
        file = REFUSED / "not_well_formed.xml"
        self.assertRefused(
            self.generate(file), file, (4, "not well-formed XML: mismatched tag")
        )
        for text, problem in (
            ("", (1, "no element found")),
            ("no XML\n", (1, "syntax error")),
            ("<node>\n\n", (3, "no element found")),
            ("<node/>\n<node/>", (2, "junk after document element")),
            ("<node>\n<a b='1' b='2'/></node>", (2, "duplicate attribute")),
            (b"<node>\n\xff</node>", (2, "not well-formed (invalid token)")),
            (b"<node>\n\0</node>", (2, "not well-formed (invalid token)")),
            ("<node>&none;</node>", (1, "undefined entity")),
            ("<?xml version='1.0' encoding='none'?><node/>", (1, "unknown encoding: none")),
        ):
            with self.subTest(text=text):
                file = self.write(text)
                line, reason = problem
                self.assertRefused(
                    self.generate(file), file, (line, "not well-formed XML: " + reason)
                )


class Names(GeneratorTest):
    def test_interface_names(self):
        elements = (
            "may hold only elements of letters, digits and underscores that do not begin with a "
            "digit"
        )
        for name, reason in (
            ("", "is empty"),
            ("Sensor", "needs at least two elements with a dot between them"),
            ("com..Sensor", elements),
            (".com.Sensor", elements),
            ("com.Sensor.", elements),
            ("com.2nd", elements),
            ("com.my-company.Sensor", elements),
            ("com.exämple.Sensor", elements),
            ("com.Sensor ", elements),
            ("a." + "b" * 254, "is longer than 255 characters"),
        ):
            with self.subTest(name=name):
                file = self.interface('<property name="value" type="d" access="read"/>', name)
                problem = (1, f"interface name '{name}' {reason}")
                self.assertRefused(self.generate(file), file, problem)

    def test_member_name_length(self):
        longest = "p" * 255
        self.assertGenerated(
            self.generate(
                self.interface(f'<property name="{longest}" type="d" access="read"/>')
            )
        )

    def test_member_name_too_long(self):
        name = "p" * 256
        file = self.interface(f'<property name="{name}" type="d" access="read"/>')
        self.assertRefused(
            self.generate("--strict", file),
            file,
            (2, f"property name '{name}' is longer than 255 characters"),
        )

    def test_objects_over_64_kib(self):
        wide = "(" + 253 * "t" + ")"
        for what in ("property", "arg"):
            access = 'access="read"' if what == "property" else ""
            items = [f'<{what} name="p{i}" type="{wide}" {access}/>' for i in range(33)]
            signal = ("<signal name='Sensor'>", "</signal>") if what == "arg" else ("", "")
            line = 2 if what == "arg" else 1
            with self.subTest(what=what):
                file = self.interface(signal[0] + "".join(items) + signal[1])
                problem = (line, "an object of 'Sensor' would take more than 64 KiB")
                self.assertRefused(self.generate(file), file, problem)
                file = self.interface(signal[0] + "".join(items[:32]) + signal[1])
                self.assertGenerated(self.generate(file))
                for name in self.written():
                    (self.output / name).unlink()


class Depth(GeneratorTest):
    """The bounds of a signature, from both sides."""

    def check(self, signature, reason):
        file = self.interface(f'<property name="p" type="{signature}" access="read"/>')
        problem = (2, f"property 'p': type '{signature}': {reason}")
        self.assertRefused(self.generate("--strict", file), file, problem)

    def test_too_deep_or_long(self):
        self.check("a" * 17 + "s", "arrays are nested more than 16 deep")
        structs = "structs and dict entries are nested more than 32 deep"
        self.check("(" * 33 + "s" + ")" * 33, structs)
        self.check("(" * 32 + "a{ss}" + ")" * 32, structs)
        self.check("(" + "s" * 254 + ")", "the signature is longer than 255 characters")
        self.check("(" * 255, structs)

    def test_just_within(self):
        types = ("a" * 16 + "s", "(" * 32 + "as" + ")" * 32, "(" + "s" * 253 + ")")
        self.assertGenerated(
            self.generate(
                self.interface(
                    "".join(
                        f'<property name="p{number}" type="{one}" access="read"/>'
                        for number, one in enumerate(types)
                    )
                )
            )
        )


if __name__ == "__main__":
    unittest.main()
