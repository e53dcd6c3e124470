"""The catalogue is a contract with other services: nothing in it changes by accident.

--update writes what there is to golden/catalogue.golden, for the diff to be read.
"""

import unittest

from support import SOURCE, GeneratorTest, main

from bmcbus_codegen.builder import build
from bmcbus_codegen.parser import parse
from bmcbus_codegen.source import choose


def summary(model):
    """The interface, and a line for each member with its signatures."""
    yield model.name + (" (datacache)" if model.datacache else "")
    for prop in model.properties:
        yield f"  {prop.name} {prop.signature}" + (" writable" if prop.writable else "")
    for method in model.methods:
        sides = (" ".join(f"{arg.name} {arg.signature}" for arg in side) for side in (method.ins, method.outs))
        yield "  {}({}) -> ({})".format(method.name, *sides)
    for signal in model.signals:
        yield f"  signal {signal.name}"
        yield from (f"    {arg.name} {arg.signature}" for arg in signal.args)


class Catalogue(GeneratorTest):
    def test_members_and_places(self):
        lines = []
        page = (SOURCE / "docs" / "catalogue.md").read_text(encoding="utf-8")
        for file in sorted((SOURCE / "com").rglob("*.xml")):
            root, notes = parse(file.read_bytes())
            model, more = build(choose(root, None))
            self.assertEqual(notes + more, [])
            self.assertEqual(str(file.relative_to(SOURCE)), "/".join(model.parts) + f"/{model.name}.xml")
            # The page for readers has a place of each.
            rows = [f"| `{one.service}` | `{one.path}` |" for one in model.places]
            listed = [line for line in page.splitlines() if line.startswith(f"| `{model.name}` |")]
            self.assertTrue([line for line in listed if line.endswith(tuple(rows))], model.name)
            lines += summary(model)
        self.assertGolden("catalogue", "\n".join(lines) + "\n")


if __name__ == "__main__":
    main()
