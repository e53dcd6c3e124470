"""Descriptions from files, XML and YAML, bounded in size; and which interface of one is wanted."""

import os
from pathlib import Path

from . import yaml_reader
from .parser import parse
from .refusal import Problem, Refusal

# Descriptions have some kilobytes; the longest known have some hundred.
_LARGEST = 8 << 20

_STANDARD = "org.freedesktop.DBus."


def _text(file):
    """The contents; raises OSError, or Refusal for more than a description can have."""
    with open(file, "rb") as stream:
        text = stream.read(_LARGEST + 1)
    if len(text) > _LARGEST:
        raise Refusal([Problem(1, f"the file is larger than {_LARGEST >> 20} MiB")])
    return text


def read(file, root=None):
    """Gives the outermost `node`, notes, and the files that were read; raises OSError or Refusal.

    The name of an interface in YAML is the path of its file below the folder `root`.
    """
    text = _text(file)
    if not yaml_reader.is_yaml(file):
        return (*parse(text), [file])
    name = yaml_reader.interface_of(file, root)
    node, notes = yaml_reader.parse_yaml(text, name)
    files = [file]
    errors = Path(str(file)[: -len(yaml_reader.SUFFIX)] + ".errors.yaml")
    if os.path.exists(errors):
        node.children[0].children += yaml_reader.parse_errors(_text(errors), name)
        files.append(str(errors))
    return node, notes, files


def own_interfaces(root):
    """Gives the elements of the interfaces that a file describes; raises Refusal.

    Running services also describe the standard interfaces.
    """
    seen = {}
    for one in root.all("interface"):
        own = one.attributes["name"]
        if own in seen:
            reason = f"interface '{own}' is declared before in line {seen[own]}"
            raise Refusal([Problem(one.line, reason)])
        seen[own] = one.line
    found = root.all("interface")
    return [one for one in found if not one.attributes["name"].startswith(_STANDARD)]


def choose(root, name):
    """Gives the element of the interface to serve; raises Refusal."""
    own = own_interfaces(root)
    if name is not None:
        # A standard one is chosen by its name.
        chosen = [one for one in root.all("interface") if one.attributes["name"] == name]
        if not chosen:
            listed = ", ".join(one.attributes["name"] for one in own)
            reason = f"there is no interface '{name}'" + (f", but {listed}" if own else "")
            raise Refusal([Problem(root.line, reason)])
        return chosen[0]
    if not own:
        raise Refusal([Problem(root.line, "there is no interface besides the standard ones")])
    if len(own) > 1:
        listed = ", ".join(one.attributes["name"] for one in own)
        reason = f"there are several interfaces, choose one with --interface: {listed}"
        raise Refusal([Problem(root.line, reason)])
    return own[0]
