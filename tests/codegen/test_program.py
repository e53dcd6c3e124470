"""The command line, and input that is served in whole or in part."""

import os
import re
import unittest

from support import OUTPUT, SOURCE, GeneratorTest, run

PROPERTY = '<property name="value" type="d" access="read"/>'
METHOD = '<method name="reset"/>'
SIGNAL = '<signal name="changed"><arg name="value" type="d"/></signal>'
# What a running service says about itself.
INTROSPECTED = f"""<!DOCTYPE node PUBLIC "-//freedesktop//DTD D-BUS Object Introspection 1.0//EN"
"http://www.freedesktop.org/standards/dbus/1.0/introspect.dtd">
<node>
 <interface name="org.freedesktop.DBus.Peer">
  <method name="Ping"/>
 </interface>
 <interface name="org.freedesktop.DBus.Properties">
  <method name="Get">
   <arg name="interface_name" direction="in" type="s"/>
   <arg name="value" direction="out" type="v"/>
  </method>
 </interface>
 <interface name="com.example.Sensor">
  <annotation name="org.freedesktop.DBus.Deprecated" value="true"/>
  {PROPERTY}
 </interface>
 <node name="child"/>
</node>
"""


class CommandLine(GeneratorTest):
    def test_help_and_manual_name_the_same_options(self):
        done = run("--help")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        options = set(re.findall(r"--[a-z-]+", done.stdout))
        self.assertLessEqual({"--cache", "--direct", "--signals"}, options)
        page = (SOURCE / "docs/man/bmcbus-codegen.1").read_text(encoding="utf-8")
        described = re.findall(r"(?m)^\.TP\n\.BI? (\\-\\-\S+)", page)
        self.assertEqual(
            {one.replace("\\", "") for one in described}, options - {"--xml-interface"}
        )

    def test_version(self):
        done = run("--version")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertRegex(done.stdout, r"^bmcbus-codegen \d+\.\d+\.\d+\n$")
        if "BMCBUS_VERSION" in os.environ:
            self.assertEqual(done.stdout.split()[1], os.environ["BMCBUS_VERSION"])

    def test_list_types_knows_every_type_code(self):
        done = run("--list-types")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        listed = {line.split()[0] for line in done.stdout.splitlines()[1:]}
        self.assertLessEqual(set("ybnqiuxtdsogvh"), listed)

    def test_misuse(self):
        file = self.interface(PROPERTY)
        for arguments, said in (
            ((), "the following arguments are required: FILE"),
            (("--cach", file), "unrecognized arguments: --cach"),
            ((file, file), "several files need -o DIR or --page NAME"),
            (("--output-dir",), "expected one argument"),
            (("--basename", "a/b", file), "'a/b' is not a plain file name"),
            (("--basename", "", file), "'' is not a plain file name"),
        ):
            with self.subTest(arguments=arguments):
                done = run(*arguments)
                self.assertEqual((done.returncode, done.stdout), (2, ""))
                self.assertIn("usage: bmcbus-codegen", done.stderr)
                self.assertIn(said, done.stderr)

    def test_files_that_cannot_be_used(self):
        file = self.interface(PROPERTY)
        missing = self.folder / "missing"
        for arguments, said in (
            ((missing,), f"{missing}: No such file or directory"),
            ((self.folder,), f"{self.folder}: Is a directory"),
            (("--output-dir", missing, file), f"{missing}: No such file or directory"),
        ):
            with self.subTest(arguments=arguments):
                done = self.generate(*arguments)
                self.assertEqual((done.returncode, done.stdout), (1, ""))
                self.assertEqual(done.stderr, f"bmcbus-codegen: {said}\n")
                self.assertEqual(self.written(), ())


class Output(GeneratorTest):
    def contents(self):
        return {name: (self.output / name).read_bytes() for name in self.written()}

    def test_same_bytes_on_every_run(self):
        types = "ybnqiuxtdso"
        file = self.interface(
            "".join(
                f'<property name="p{number}" type="{one}" access="readwrite"/>'
                for number, one in enumerate([*types, *("a" + one for one in types), "a{s(yb)}"])
            )
        )
        self.assertGenerated(self.generate(file, environment={"PYTHONHASHSEED": "1"}))
        first = self.contents()
        self.assertGenerated(
            self.generate(file, environment={"PYTHONHASHSEED": "2", "LC_ALL": "C", "TZ": "UTC"})
        )
        self.assertEqual(self.contents(), first)
        self.assertTrue(all(first.values()))

    def test_refused_input_leaves_earlier_output_alone(self):
        self.assertGenerated(self.generate(self.interface(PROPERTY)))
        before = self.contents()
        self.assertEqual(self.generate(self.interface("<signal/>")).returncode, 1)
        self.assertEqual(self.contents(), before)

    def test_both_files_or_none(self):
        (self.output / "client_cache.cpp").mkdir()
        done = self.generate(self.interface(PROPERTY))
        self.assertEqual(done.returncode, 1)
        self.assertEqual(
            done.stderr, f"bmcbus-codegen: {self.output}: client_cache.cpp is a folder\n"
        )
        self.assertEqual(self.written(), ("client_cache.cpp",))

    def test_files_are_as_readable_as_any(self):
        mask = os.umask(0o027)
        try:
            self.assertGenerated(self.generate(self.interface(PROPERTY)))
        finally:
            os.umask(mask)
        for name in OUTPUT:
            self.assertEqual((self.output / name).stat().st_mode & 0o777, 0o640)

    def test_basename(self):
        done = self.generate("--basename", "sensor", self.interface(PROPERTY))
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.assertEqual(self.written(), ("sensor.cpp", "sensor.hpp"))
        self.assertIn(b'#include "sensor.hpp"', self.contents()["sensor.cpp"])

    def test_depfile_names_what_the_output_is_made_of(self):
        rule = self.output / "a rule.d"
        file = self.interface(PROPERTY)
        self.assertEqual(self.generate("--depfile", rule, file).returncode, 0)
        outputs, inputs = rule.read_text(encoding="utf-8").rstrip("\n").split(": ")
        self.assertEqual(
            outputs.split(), [str(self.output / name) for name in sorted(OUTPUT, reverse=True)]
        )
        inputs = inputs.split()
        self.assertIn(str(file), inputs)
        self.assertTrue(any(name.endswith("client_cache.hpp.j2") for name in inputs))
        self.assertEqual([name for name in inputs if not os.path.exists(name)], [])
        unwritable = self.generate("--depfile", self.output, file)
        self.assertEqual(
            (unwritable.returncode, unwritable.stderr),
            (1, f"bmcbus-codegen: {self.output}: Is a directory\n"),
        )


class Choice(GeneratorTest):
    def test_standard_interfaces_are_passed_over(self):
        self.assertGenerated(self.generate(self.write(INTROSPECTED)))
        text = (self.output / "client_cache.hpp").read_text()
        self.assertIn("com.example.Sensor", text)
        self.assertNotIn("org.freedesktop.DBus.Peer", text)

    def test_several_interfaces(self):
        two = INTROSPECTED.replace("org.freedesktop.DBus.Peer", "com.example.Other")
        file = self.write(two)
        reason = (
            "there are several interfaces, choose one with --interface: "
            "com.example.Other, com.example.Sensor"
        )
        self.assertRefused(self.generate(file), file, (3, reason))
        self.assertRefused(
            self.generate("--interface", "com.example.sensor", file),
            file,
            (3, "there is no interface 'com.example.sensor', but com.example.Other, com.example.Sensor"),
        )
        self.assertGenerated(self.generate("--interface", "com.example.Sensor", file))

    def test_kinds_that_the_interface_has_nothing_for(self):
        no_direct = "no direct proxy: the interface has no properties or methods"
        for body, option, reason in (
            (METHOD + SIGNAL, "--cache", "no cached proxy: the interface has no properties"),
            (SIGNAL, "--direct", no_direct),
            (PROPERTY, "--signals", "no signal classes: the interface has no signals"),
        ):
            with self.subTest(option=option):
                file = self.interface(body)
                self.assertRefused(self.generate(option, file), file, (1, reason))
        file = self.interface(PROPERTY)
        done = self.generate("--cache", "--direct", "--signals", file)
        self.assertEqual(
            (done.returncode, done.stderr),
            (0, f"{file}:1: note: no signal classes: the interface has no signals\n"),
        )

    def test_oddities_matter_only_in_what_is_made(self):
        method = '<method name="open"><arg name="file" type="z" direction="out"/></method>'
        secret = '<property name="key" type="s" access="write"/>'
        odd = '<signal name="changed"><arg type="z"/></signal>'
        for body, refused, served in (
            (method + PROPERTY + SIGNAL, "--direct", ("--cache", "--signals")),
            (secret + SIGNAL, "--cache", ("--signals",)),
            (PROPERTY + odd, "--signals", ("--cache", "--direct")),
        ):
            with self.subTest(refused=refused):
                file = self.interface(body)
                self.assertEqual(self.generate("--strict", file).returncode, 1)
                self.assertEqual(self.generate("--strict", refused, file).returncode, 1)
                self.assertGenerated(self.generate("--strict", *served, file))
                for name in self.written():
                    (self.output / name).unlink()


class Notes(GeneratorTest):
    def test_foreign_elements_are_passed_over(self):
        body = """<doc:doc xmlns:doc="http://www.freedesktop.org/dbus/1.0/doc.dtd">
<doc:para>Text <interface name="not.an.interface"/></doc:para></doc:doc>
<property name="value" type="d" access="read" tp:type="Reading" xmlns:tp="urn:x"/>"""
        self.assertGenerated(self.generate(self.interface(body)))

    def test_unknown_ones_are_noted(self):
        body = (
            '<methode name="reset"><arg type="z"/></methode>\n'
            '<annotation name="com.tamm.bmcbus.UseDataCache" value="true"/>\n'
            '<annotation name="com.example.Unit" value="W"/>\n' + PROPERTY
        )
        file = self.interface(body)
        done = self.generate(file)
        self.assertEqual(done.returncode, 0)
        self.assertEqual(
            done.stderr,
            f"{file}:2: note: unknown element 'methode' is passed over\n"
            f"{file}:3: note: unknown annotation com.tamm.bmcbus.UseDataCache is passed over\n",
        )

    def test_values_that_are_not_sent(self):
        emits = '<annotation name="org.freedesktop.DBus.Property.EmitsChangedSignal" value="%s"/>'
        body = emits % "false" + "".join(
            f'\n<property name="{value}" type="s" access="read">{emits % value}</property>'
            for value in ("true", "const", "invalidates", "false")
        )
        body += '\n<property name="plain" type="s" access="read"/>'
        file = self.interface(body)
        self.assertEqual(
            self.generate("--cache", file).stderr,
            "".join(
                f"{file}:{line}: note: property '{name}' sends no new values, so a cached proxy "
                "keeps the first it read\n"
                for line, name in ((5, "invalidates"), (6, "false"), (7, "plain"))
            ),
        )
        self.assertEqual(self.generate("--direct", file).stderr, "")


if __name__ == "__main__":
    unittest.main()
