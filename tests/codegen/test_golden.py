"""The header for one small interface, to the byte: what users see does not change unseen.

BMCBUS_UPDATE=1 python3 tests/codegen/test_golden.py takes over what the generator writes now.
"""

import os
import unittest

from support import HERE, GeneratorTest

DESCRIPTION = HERE / "golden" / "com.example.test.Small.xml"
GOLDEN = HERE / "golden" / "client_cache.hpp.expected"
HINT = "after looking at the difference, run BMCBUS_UPDATE=1 python3 tests/codegen/test_golden.py"


class Golden(GeneratorTest):
    def test_header(self):
        self.assertGenerated(self.generate(DESCRIPTION))
        made = (self.output / "client_cache.hpp").read_text(encoding="utf-8")
        if os.environ.get("BMCBUS_UPDATE"):
            GOLDEN.write_text(made, encoding="utf-8")
        self.assertMultiLineEqual(GOLDEN.read_text(encoding="utf-8"), made, HINT)


if __name__ == "__main__":
    unittest.main()
