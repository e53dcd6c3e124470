"""The command line."""

import argparse
import re
import sys
from pathlib import Path

from . import __version__
from .model import Wanted, build, choose
from .parser import parse
from .refusal import Refusal
from .render import render, write, write_dependencies
from .signature import BASIC, UNSERVED

_PROGRAM = "bmcbus-codegen"
_DESCRIPTION = """
Make C++ classes for libbmcbus from the D-Bus introspection data of one interface: a cached proxy
(ClientCache::...), a direct proxy (ClientEdge::...) and one class per signal
(ClientCache::<last part of the interface name>::<signal>). FILE.xml is written by hand or printed
by `busctl introspect --xml-interface SERVICE PATH`; the standard org.freedesktop.DBus interfaces
in it are passed over.
"""
_EPILOG = """
Without --cache, --direct and --signals everything is made that the interface has something for.
When the input is refused, every reason is printed as FILE:LINE: REASON, nothing is written and
the exit status is 1. The same input gives the same bytes on every run.
"""


class _ListTypes(argparse.Action):
    def __call__(self, parser, namespace, values, option_string=None):
        print("D-Bus type  C++ type")
        for code, cpp in BASIC.items():
            print(f"{code:<12}{cpp}")
        print("aT          std::vector<T>")
        print("a{KV}       std::map<K, V>, K a basic type")
        print("(T1T2...)   std::tuple<T1, T2, ...>")
        for code, reason in UNSERVED.items():
            print(f"{code:<12}refused: {reason}")
        parser.exit()


def _basename(text):
    if not re.fullmatch(r"[A-Za-z0-9_][A-Za-z0-9_.+-]*", text, re.ASCII):
        raise argparse.ArgumentTypeError(f"'{text}' is not a plain file name")
    return text


def _parser():
    parser = argparse.ArgumentParser(
        prog=_PROGRAM, description=_DESCRIPTION, epilog=_EPILOG, allow_abbrev=False
    )
    parser.add_argument("--version", action="version", version=f"{_PROGRAM} {__version__}")
    parser.add_argument(
        "--list-types",
        action=_ListTypes,
        nargs=0,
        help="print which D-Bus types are served and exit",
    )
    kinds = parser.add_argument_group("what to make")
    kinds.add_argument("--cache", action="store_true", help="make the cached proxy")
    kinds.add_argument("--direct", action="store_true", help="make the direct proxy")
    kinds.add_argument("--signals", action="store_true", help="make the signal classes")
    parser.add_argument(
        "--interface", metavar="NAME", help="the interface to take where FILE.xml has several"
    )
    parser.add_argument(
        "--output-dir",
        metavar="DIR",
        default=".",
        help="an existing folder for the output (default: the current one)",
    )
    parser.add_argument(
        "--basename",
        metavar="NAME",
        type=_basename,
        default="client_cache",
        help="write NAME.hpp and NAME.cpp (default: %(default)s)",
    )
    parser.add_argument(
        "--depfile",
        metavar="FILE",
        help="write a rule for make that names what the output is made of: FILE.xml and this program",
    )
    parser.add_argument("file", metavar="FILE.xml", help="the introspection data")
    return parser


def _wanted(options):
    chosen = (options.cache, options.direct, options.signals)
    return Wanted(*chosen, explicit=True) if any(chosen) else Wanted()


def _say(file, problems, prefix=""):
    for problem in problems:
        print(f"{file}:{problem.line}: {prefix}{problem.reason}", file=sys.stderr)


def _fail(reason):
    print(f"{_PROGRAM}: {reason}", file=sys.stderr)
    return 1


def main(arguments=None):
    """Runs the generator; gives the exit status."""
    options = _parser().parse_args(arguments)
    try:
        text = Path(options.file).read_bytes()
    except OSError as error:
        return _fail(f"{options.file}: {error.strerror}")
    try:
        root, notes = parse(text)
        model, more = build(choose(root, options.interface), _wanted(options), options.basename)
    except Refusal as refusal:
        _say(options.file, refusal.problems)
        return 1
    _say(options.file, sorted(notes + more), "note: ")
    files = render(model)
    try:
        write(files, options.output_dir)
    except OSError as error:
        return _fail(f"{options.output_dir}: {error.strerror}")
    try:
        if options.depfile is not None:
            outputs = [Path(options.output_dir, name) for name in files]
            write_dependencies(options.depfile, outputs, options.file)
    except OSError as error:
        return _fail(f"{options.depfile}: {error.strerror}")
    return 0
