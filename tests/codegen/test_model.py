"""What the templates are given: the order of the variant, names that are free."""

import unittest

import support  # noqa: F401  (makes the package importable)
from bmcbus_codegen.builder import build, choose
from bmcbus_codegen.model import Wanted
from bmcbus_codegen.parser import parse


def model(body, name="com.example.Sensor", **wanted):
    text = f'<node><interface name="{name}">{body}</interface></node>'
    root, _ = parse(text)
    made, _ = build(choose(root, None), Wanted(**wanted))
    return made


def properties(*pairs):
    return "".join(
        f'<property name="{name}" type="{kind}" access="read"/>' for name, kind in pairs
    )


class Variant(unittest.TestCase):
    def test_is_ordered_by_spelling(self):
        kinds = ("y", "au", "q", "ay", "o", "y")
        made = model(properties(*((f"p{i}", kind) for i, kind in enumerate(kinds))))
        self.assertEqual(
            [one.cpp for one in made.variant],
            [
                "bmcbus::ObjectPath",
                "std::vector<uint32_t>",
                "std::vector<uint8_t>",
                "uint16_t",
                "uint8_t",
            ],
        )
        self.assertEqual([prop.variant_index for prop in made.properties], [4, 1, 3, 2, 0, 4])


class Names(unittest.TestCase):
    def test_fields_stay_clear_of_each_other_and_of_accessors(self):
        kinds = ("value", "value_is_set", "value_", "Get_value", "Get_value_", "Sensor")
        made = model(properties(*((name, "s") for name in kinds)), "com.example.Sensor_")
        members = [prop.field for prop in made.properties] + [prop.flag for prop in made.properties]
        accessors = [prefix + name for name in kinds for prefix in ("Get_", "Set_", "SetLocked_")]
        everything = members + accessors + ["Sensor_"]
        self.assertEqual(len(set(everything)), len(everything))
        self.assertEqual(made.properties[0].field, "value_")

    def test_parameters_stay_clear_of_each_other(self):
        made = model(
            '<method name="act"><arg type="s"/><arg name="a" type="s"/><arg type="s"/>'
            '<arg name="in1" type="s"/>'
            '<arg name="a_" type="s" direction="out"/><arg type="s" direction="out"/></method>'
        )
        method = made.methods[0]
        self.assertEqual([arg.param for arg in method.ins], ["in1_", "a_", "in3_", "in1__"])
        self.assertEqual([arg.param for arg in method.outs], ["a__", "out2_"])

    def test_methods_of_one_name_differ_in_their_arguments(self):
        method = '<method name="close"><arg name="a" type="%s"/></method>'
        made = model(method % "i" + method % "s" + method % "i")
        self.assertEqual([one.cpp_name for one in made.methods], ["close", "close_"])
        self.assertEqual([one.ins_signature for one in made.methods], ["i", "s"])

    def test_the_arguments_of_a_signal_go_out(self):
        made = model('<signal name="on"><arg name="a" type="i" direction="in"/></signal>')
        self.assertEqual([arg.name for arg in made.signals[0].args], ["a"])

    def test_places(self):
        made = model(properties(("value", "d")), "com.example.power.Sensor")
        self.assertEqual(made.namespace, ["com", "example", "power"])
        self.assertEqual(made.include, "com/example/power/Sensor/client_cache.hpp")
        self.assertEqual(made.label, "Sensor/client_cache.cpp")

    def test_kinds(self):
        body = (
            properties(("value", "d"))
            + '<method name="act"/><signal name="changed"><arg name="a" type="s"/></signal>'
        )
        for wanted, expected in (
            ({}, (True, True, 1, 1, 1)),
            ({"direct": False, "signals": False}, (True, False, 1, 0, 0)),
            ({"cache": False, "signals": False}, (False, True, 1, 1, 0)),
            ({"cache": False, "direct": False}, (False, False, 0, 0, 1)),
        ):
            made = model(body, **wanted)
            self.assertEqual(
                (
                    made.has_cache,
                    made.has_direct,
                    len(made.properties),
                    len(made.methods),
                    len(made.signals),
                ),
                expected,
            )


if __name__ == "__main__":
    unittest.main()
