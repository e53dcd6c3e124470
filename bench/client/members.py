"""Prints the properties of an interface as initialisers: {"name", "signature"},"""

import sys
import xml.etree.ElementTree as ElementTree

for one in ElementTree.parse(sys.argv[1]).iter("property"):
    print(f'{{"{one.get("name")}", "{one.get("type")}"}},')
