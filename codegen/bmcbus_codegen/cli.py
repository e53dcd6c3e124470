"""The command line."""

import argparse
import os
import re
import sys
from pathlib import Path

from . import __version__
from .builder import build, resolve_enumerations
from .model import Naming, Wanted
from .refusal import Problem, Refusal
from .render import render, render_page, write, write_dependencies
from .signature import BASIC
from .source import choose, own_interfaces, read

_PROGRAM = "bmcbus-codegen"
_DESCRIPTION = """
Make C++ classes for libbmcbus from the D-Bus introspection data of an interface: a cached proxy
(ClientCache::...), a direct proxy (ClientEdge::...) and one class per signal
(ClientCache::<last part of the interface name>::<signal>); enumerations and constants that the
description has are in ClientTypes::.... FILE is XML, written by hand or printed by
`busctl introspect --xml-interface SERVICE PATH`, or an interface YAML of sdbusplus; the standard
org.freedesktop.DBus interfaces in it are passed over.
"""
_EPILOG = """
Without --cache, --direct and --signals everything is made that the interface has something for.
A member that cannot be served is left out with a note, unless --strict is given. When the input is
refused, every reason is printed as FILE:LINE: REASON, nothing is written for it and the exit status
is 1. The same input gives the same bytes on every run.
"""


class _ListTypes(argparse.Action):
    def __call__(self, parser, namespace, values, option_string=None):
        print("D-Bus type  C++ type")
        for code, cpp in BASIC.items():
            print(f"{code:<12}{cpp}")
        print("aT          std::vector<T>")
        print("a{KV}       std::map<K, V>, K a basic type")
        print("(T1T2...)   std::tuple<T1, T2, ...>")
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
        "--interface", metavar="NAME", help="the interface to take where FILE has several"
    )
    parser.add_argument(
        "--strict",
        action="store_true",
        help="refuse an interface with a member that cannot be served",
    )
    parser.add_argument(
        "--namespace",
        metavar="NAME",
        default="",
        help="the namespaces of the classes (com::example) instead of the interface's own",
    )
    parser.add_argument(
        "--class",
        metavar="NAME",
        default="",
        dest="class_name",
        help="the name of the classes instead of the interface's last part",
    )
    parser.add_argument(
        "--root",
        metavar="DIR",
        help="the folder below which the path of a YAML file is its interface's name",
    )
    parser.add_argument(
        "-o",
        "--tree",
        metavar="DIR",
        help="take many files, with all interfaces in them, and write each interface to "
        "DIR/<its/name/with/slashes>/NAME.hpp and NAME.cpp",
    )
    parser.add_argument(
        "--page",
        metavar="NAME",
        type=_basename,
        help="take many files, with all interfaces in them, and write one page in Markdown about them, "
        "with their descriptions, to NAME instead of classes",
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
        help="write a rule for make that names what the output is made of: FILE and this program",
    )
    parser.add_argument("files", metavar="FILE", nargs="+", help="a description, XML or YAML")
    return parser


def _wanted(options):
    chosen = (options.cache, options.direct, options.signals)
    if any(chosen):
        return Wanted(*chosen, explicit=True, strict=options.strict)
    return Wanted(strict=options.strict)


def _say(file, problems, prefix=""):
    for problem in problems:
        print(f"{file}:{problem.line}: {prefix}{problem.reason}", file=sys.stderr)


def _fail(reason):
    print(f"{_PROGRAM}: {reason}", file=sys.stderr)
    return 1


class _Run:
    """Everything that one start of the program makes."""

    def __init__(self, options):
        self._options = options
        self._wanted = _wanted(options)
        self._naming = Naming(options.namespace, options.class_name)
        self._sources = []
        self._outputs = []
        self._models = []  # with the file that each comes from
        self.failed = False

    def file(self, file):
        """Reads a file and makes a model of each interface that is wanted."""
        try:
            root, notes, sources = read(file, self._options.root)
            self._sources += sources
            for element in self._chosen(root):
                model, more = build(element, self._wanted, self._options.basename, self._naming)
                self._models.append((file, model))
                notes = notes + more
        except OSError as error:
            self.failed = bool(_fail(f"{error.filename}: {error.strerror}"))
        except Refusal as refusal:
            _say(file, refusal.problems)
            self.failed = True
        else:
            _say(file, sorted(set(notes)), "note: ")

    def _chosen(self, root):
        many = self._options.tree is not None or self._options.page is not None
        if not many or self._options.interface is not None:
            return [choose(root, self._options.interface)]
        return own_interfaces(root)

    def write(self):
        """Writes the classes of all models, which may use each other's enumerations."""
        models = {}
        for _, model in self._models:
            models.setdefault(model.name, model)
        if self._options.page is not None:
            page = {self._options.page: render_page([model for _, model in self._models])}
            self._write_files(page, self._options.output_dir)
            return
        for file, model in self._models:
            notes = resolve_enumerations(model, models)
            if self._options.tree is not None:
                _say(file, notes, "note: ")
            self._write_files(render(model), self._folder(model))

    def _write_files(self, files, folder):
        try:
            if self._options.tree is not None:
                os.makedirs(folder, exist_ok=True)
            write(files, folder)
        except OSError as error:
            self.failed = bool(_fail(f"{folder}: {error.strerror}"))
        else:
            self._outputs += [Path(folder, name) for name in files]

    def _folder(self, model):
        if self._options.tree is None:
            return self._options.output_dir
        return os.path.join(self._options.tree, os.path.dirname(model.include))

    def say_neighbours(self):
        """Classes that one source cannot have both of."""
        classes, signals = {}, {}
        for file, model in self._models:
            own = (*model.namespace, model.class_name)
            for length in range(1, len(own)):
                classes.setdefault(own[:length], (model.name, "namespace"))
            for signal in model.signals:
                name = (model.group, signal.class_name)
                other = signals.setdefault(name, model.name)
                if other != model.name:
                    self._say_neighbour(file, model, "::".join(name), other)
        for file, model in self._models:
            own = (*model.namespace, model.class_name)
            other, _ = classes.get(own, (model.name, ""))
            if other != model.name:
                self._say_neighbour(file, model, "::".join(own), other)
            classes.setdefault(own, (model.name, "class"))

    def _say_neighbour(self, file, model, name, other):
        reason = (
            f"'{name}' of {model.name} is also of {other}, so no source can include both; "
            "set another with --class or the annotation com.tamm.bmcbus.Class"
        )
        _say(file, [Problem(model.line, reason)], "note: ")

    def write_dependencies(self):
        if self._options.depfile is not None:
            write_dependencies(self._options.depfile, self._outputs, self._sources)


def _misuse(options):
    if options.tree is not None and options.page is not None:
        return "--page and -o are two things to make"
    if options.tree is None and options.page is None and len(options.files) > 1:
        return "several files need -o DIR or --page NAME"
    if options.tree is not None and (options.namespace or options.class_name):
        if len(options.files) > 1:
            return "--namespace and --class are for one interface"
    return None


def main(arguments=None):
    """Runs the generator; gives the exit status."""
    parser = _parser()
    options = parser.parse_args(arguments)
    misuse = _misuse(options)
    if misuse:
        parser.error(misuse)
    run = _Run(options)
    for file in options.files:
        run.file(file)
    run.write()
    run.say_neighbours()
    if run.failed and options.tree is None:
        return 1
    try:
        run.write_dependencies()
    except OSError as error:
        return _fail(f"{options.depfile}: {error.strerror}")
    return 1 if run.failed else 0
