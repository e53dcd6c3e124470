"""Prints MEMBER(name) for every property of an interface, or every argument of one of its signals.

    members.py DESCRIPTION.xml [SIGNAL]
"""

import sys
import xml.etree.ElementTree as ElementTree

path, *signal = sys.argv[1:]
interface = ElementTree.parse(path).find("interface")
members = interface.findall(f"signal[@name='{signal[0]}']/arg" if signal else "property")
for member in members:
    print(f'MEMBER({member.get("name")})')
