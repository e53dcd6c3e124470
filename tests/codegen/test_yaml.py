"""Interface YAML, many files in one run, and input that is hostile."""

import unittest

from support import GeneratorTest
from bmcbus_codegen.builder import build
from bmcbus_codegen.model import Wanted
from bmcbus_codegen.refusal import Refusal
from bmcbus_codegen.source import read
from bmcbus_codegen.wording import signature_of

LAMP = """
description: >
    A lamp.
properties:
    - name: Shade
      type: enum[self.Color]
      description: Colour */ of it.
    - name: Level
      type: size
      flags: [const]
    - name: Names
      type: set [ string ]
      flags:
          - readonly
          - emits_invalidation
    - name: Table
      type: dict[string, struct[byte, array[variant[string, int64]]]]
      default: NaN
    - name: Odd
      type: dict[string]
methods:
    - name: Blink
      parameters:
          - name: times
            type: uint32
      returns:
          - type: unixfd
      errors:
          - self.Error.Broken
signals:
    - name: Off
      properties:
          - name: why
            type: enum[com.example.Other.Reason]
enumerations:
    - name: Color
      values:
          - name: Red
            description: As a rose.
          - name: delete
paths:
    - namespace: /com/example/lamps
      segments:
          - name: First
            value: lamp0
service_names:
    - default: com.example.Lamps
Oddity: 1
"""


class Yaml(GeneratorTest):
    def yaml(self, text, name="com/example/Lamp"):
        file = self.folder / (name + ".interface.yaml")
        file.parent.mkdir(parents=True, exist_ok=True)
        file.write_text(text, encoding="utf-8")
        return file

    def refusal(self, text):
        with self.assertRaises(Refusal) as raised:
            read(self.yaml(text), self.folder)
        return str(raised.exception)

    def test_says_what_xml_says(self):
        file = self.yaml(LAMP)
        errors = file.with_name("Lamp.errors.yaml")
        errors.write_text("- name: Dark\n  description: No light.\n", encoding="utf-8")
        root, notes, files = read(file, self.folder)
        model, more = build(root.children[0], Wanted())
        self.assertEqual(model.name, "com.example.Lamp")
        self.assertEqual([str(one) for one in files], [str(file), str(errors)])
        self.assertEqual(
            [(one.name, one.signature, one.writable, one.enum) for one in model.properties],
            [
                ("Shade", "s", True, "::ClientTypes::com::example::Lamp::Color"),
                ("Level", "t", False, ""),
                ("Names", "as", False, ""),
                ("Table", "a{s(yav)}", True, ""),
            ],
        )
        self.assertEqual(model.left_out, ["Odd"])
        method = model.methods[0]
        self.assertEqual([one.signature for one in method.ins + method.outs], ["u", "h"])
        self.assertEqual(model.signals[0].args[0].signature, "s")
        color = model.enumerations[0]
        self.assertEqual((color.prefix, color.values), ("com.example.Lamp.Color.", ["Red", "delete"]))
        self.assertEqual(color.cpp_values, ["Red", "delete_"])
        self.assertEqual([one.value for one in model.errors], ["com.example.Lamp.Error.Dark"])
        self.assertEqual(
            [one.value for one in model.paths], ["/com/example/lamps", "/com/example/lamps/lamp0"]
        )
        self.assertEqual([one.value for one in model.services], ["com.example.Lamps"])
        said = [one.reason for one in notes + more]
        self.assertIn("unknown key 'Oddity' is passed over", said)
        self.assertIn(
            "property 'Odd': type 'dict[string]': dict needs 2 types inside; "
            "the property is left out",
            said,
        )

    def test_words(self):
        for words, signature in (
            ("variant", "v"),
            ("tuple[byte,boolean]", "(yb)"),
            ("array[array[object_path]]", "aao"),
            ("dict[ uint16 , ssize ]", "a{qx}"),
        ):
            self.assertEqual(signature_of(words), (signature, None))

    def test_hostile(self):
        self.assertIn("aliases are not served", self.refusal("a: &a [1]\nb: *a\n"))
        self.assertIn("nested more than 16 deep", self.refusal("[" * 900))
        self.assertIn("not well-formed YAML", self.refusal("a: [\n"))
        self.assertIn("larger than 8 MiB", self.refusal("#" * ((8 << 20) + 1)))

    def test_deep_and_expanding_xml(self):
        for text, reason in (
            ("<node>" * 1000000, "elements are nested more than 64 deep"),
            (
                "<!DOCTYPE node [<!ENTITY a 'b'>]><node/>",
                "entity 'a' is declared; entities are not served, write its text out",
            ),
        ):
            with self.assertRaises(Refusal) as raised:
                read(self.write(text))
            self.assertEqual([one.reason for one in raised.exception.problems], [reason])


class Tree(GeneratorTest):
    def test_many_in_one_run(self):
        first = self.folder / "first.xml"
        first.write_text(
            '<node><interface name="com.example.Item"><property name="A" type="s" access="read"/>'
            '</interface><interface name="com.example.Item.Part"><signal name="B"/></interface>'
            "</node>",
            encoding="utf-8",
        )
        bad = self.write("<node/>" * 2)
        depfile = self.folder / "all.d"
        done = self.generate("-o", self.output, "--depfile", depfile, first, bad)
        self.assertEqual(done.returncode, 1)
        self.assertIn(f"{bad}:1: not well-formed XML", done.stderr)
        self.assertIn("'com::example::Item' of com.example.Item is also of", done.stderr)
        for name in ("Item/client_cache.hpp", "Item/Part/client_cache.cpp"):
            self.assertTrue((self.output / "com/example" / name).is_file())
            self.assertIn(f"com/example/{name}", depfile.read_text(encoding="utf-8"))
        self.assertIn(str(first), depfile.read_text(encoding="utf-8"))

    def test_enumerations_of_another_file(self):
        enum = '<annotation name="com.tamm.bmcbus.%s" value="%s"/>'
        item = enum % ("Enum", "Color: Red") + '<property name="A" type="s" access="read"/>'
        uses = [
            f'<property name="P{number}" type="s" access="readwrite">{enum % ("Type", name)}</property>'
            for number, name in enumerate(("enum[com.example.Item.Color]", "enum[com.example.X.Y]"))
        ]
        files = []
        for name, body in (("com.example.Item.Part", "".join(uses)), ("com.example.Item", item)):
            files.append(self.interface(body, name).rename(self.folder / name))
        done = self.generate("-o", self.output, *files)
        self.assertEqual(done.returncode, 0)
        header = (self.output / "com/example/Item/Part/client_cache.hpp").read_text(encoding="utf-8")
        color = "::ClientTypes::com::example::Item::Color"
        self.assertEqual(header.count(f"bool Get_P0({color}& value)"), 2)
        self.assertNotIn("bool Get_P1(::", header)
        self.assertIn("enumeration 'com.example.X.Y' is in no file of this run", done.stderr)
        # Each header says the types by itself, and both can be included.
        item = (self.output / "com/example/Item/client_cache.hpp").read_text(encoding="utf-8")
        types = item[item.index("#ifndef") : item.index("#endif")]
        self.assertIn(types, header)

    def test_several_files_need_a_tree(self):
        file = self.interface('<property name="A" type="s" access="read"/>')
        self.assertEqual(self.generate(file, file).returncode, 2)


if __name__ == "__main__":
    unittest.main()
