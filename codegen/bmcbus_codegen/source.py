"""Descriptions from files: XML and YAML, bounded in size."""

import os
from pathlib import Path

from . import yaml_reader
from .parser import parse
from .refusal import Problem, Refusal

# Descriptions have some kilobytes; the longest known have some hundred.
_LARGEST = 8 << 20


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
