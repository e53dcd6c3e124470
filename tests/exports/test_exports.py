"""Compares what the shared library exports with exports.txt: nothing more, nothing less.

    test_exports.py LIBRARY DESCRIPTION.xml...

Names are compared demangled and in the spelling of the headers, since mangled ones differ between
32 and 64 bits and between generations of what the library builds on.
"""

import re
import subprocess
import sys
from pathlib import Path

sys.dont_write_bytecode = True

HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE.parent.parent / "codegen"))

from bmcbus_codegen.builder import build  # noqa: E402
from bmcbus_codegen.parser import parse  # noqa: E402
from bmcbus_codegen.source import choose  # noqa: E402

# Arguments of standard templates that nobody writes.
IMPLIED = ("std::allocator<", "std::less<", "std::char_traits<")
# One type each, wherever the generation in use declares it.
RENAMED = (
    (r"std::__cxx11::", "std::"),
    (r"sdbusplus::(?:bus::)?(?:bus|bus_t)\b", "bmcbus::Bus"),
    (r"sdbusplus::(?:message::)?(?:message|message_t)\b", "bmcbus::Message"),
    (r"\[abi:cxx11\]", ""),
    (r", \d+ul?(?=>)", ""), # the extent of a span
    (r"@.*", ""),
)
# What asio looks for in an io_context, which library and program share; each release has its own.
SERVICES = "typeinfo for boost::asio::detail::typeid_wrapper<"


def spelled(name, wide):
    """A demangled name as the headers spell it; wide says whether a long has 64 bits."""
    for pattern, text in RENAMED:
        name = re.sub(pattern, text, name)
    name = _without_implied(name)
    name = name.replace("std::basic_string<char>", "std::string")
    words = "long" if wide else "long long"
    name = re.sub(rf"\bunsigned {words}\b", "uint64", name)
    return re.sub(rf"(?<!unsigned )\b{words}\b", "int64", name)


def _without_implied(name):
    """Drops implied template arguments, also inside other ones, and the blanks after them."""
    done, at = "", 0
    while at < len(name):
        if done.endswith(", ") and name.startswith(IMPLIED, at):
            at = _end_of_argument(name, at)
            done = done[:-2]
        else:
            done += name[at]
            at += 1
    return re.sub(r"\s+>", ">", done)


def _end_of_argument(name, at):
    depth = 0
    while depth or name[at] not in ",>":
        depth += {"<": 1, ">": -1}.get(name[at], 0)
        at += 1
    return at


def exported(library):
    wide = Path(library).read_bytes()[4] == 2  # the ELF class
    listed = subprocess.run(
        ["nm", "-D", "--defined-only", "-C", library], capture_output=True, text=True, check=True
    )
    names = (line.split(" ", 2) for line in listed.stdout.splitlines())
    ours = (name for _, kind, name in names if kind != "A" and not name.startswith(SERVICES))
    return {spelled(name, wide) for name in ours}, wide


def sections(text):
    found = {}
    for line in text.splitlines():
        if match := re.fullmatch(r"\[(.*)\]", line):
            lines = found.setdefault(match[1], [])
        elif line and not line.startswith("#"):
            lines.append(line)
    return found


class Expected:
    """The names that exports.txt stands for, given the catalogue."""

    def __init__(self, text, wide):
        self._sections = sections(text)
        self._used = {"library"}
        self._wide = wide
        self.names = set()
        self._fill("library")

    def interface(self, interface):
        name = interface.class_name
        space = "::".join(interface.namespace)
        variant = "std::variant<%s>" % ", ".join(kind.cpp for kind in interface.variant)
        words = {"c": name, "V": variant}
        if interface.has_cache:
            words["C"] = f"ClientCache::{space}::{name}"
            self._class("cached", words, interface.properties)
            if interface.datacache:
                self._fill("cached with datacache", **words)
        if interface.has_direct:
            words["C"] = f"ClientEdge::{space}::{name}"
            self._fill("direct", **words)
            for member in interface.properties:
                self._fill("direct property", p=member.name, T=member.type.cpp, **words)
            for member in interface.writable:
                self._fill("direct writable property", p=member.name, T=member.type.cpp, **words)
            if interface.properties:
                self._fill("direct with properties", **words)
            if interface.writable:
                self._fill("direct with writable properties", **words)
            for method in interface.methods:
                arguments = [f"{arg.type.cpp} const&" for arg in method.ins]
                arguments += [f"{arg.type.cpp}&" for arg in method.outs]
                self._fill("direct method", p=method.name, A=", ".join(["bool&", *arguments]), **words)
        for signal in interface.signals:
            full = f"ClientCache::{interface.group}::{signal.class_name}"
            self._class("subscriber", {"c": signal.class_name, "C": full}, signal.args)

    def unused(self):
        return set(self._sections) - self._used

    def _class(self, kind, words, members):
        self._fill("object", **words)
        self._fill(kind, **words)
        for member in members:
            self._fill("object value", p=member.name, T=member.type.cpp, **words)
            if kind == "cached":
                self._fill("cached property", p=member.name, T=member.type.cpp, **words)
        if members:
            everything = ", ".join(f"{member.type.cpp}&" for member in members)
            self._fill("object with values", A=everything, **words)

    def _fill(self, section, **words):
        self._used.add(section)
        for line in self._sections[section]:
            for word, text in words.items():
                line = line.replace("{" + word + "}", text)
            self.names.add(self._demangled(line))

    def _demangled(self, line):
        """The compiler's spelling of the types, which an alias in a header may hide."""
        line = re.sub(r"\bsize_t\b", "uint64" if self._wide else "unsigned int", line)
        if self._wide:
            line = re.sub(r"\bunsigned long\b", "uint64", line)
        for alias, plain in (
            ("uint8_t", "unsigned char"),
            ("int16_t", "short"),
            ("uint16_t", "unsigned short"),
            ("int32_t", "int"),
            ("uint32_t", "unsigned int"),
            ("int64_t", "int64"),
            ("uint64_t", "uint64"),
        ):
            line = re.sub(rf"\b{alias}\b", plain, line)
        return line


def main(library, *descriptions):
    found, wide = exported(library)
    expected = Expected((HERE / "exports.txt").read_text(encoding="utf-8"), wide)
    for description in descriptions:
        root, _ = parse(Path(description).read_bytes())
        expected.interface(build(choose(root, None))[0])
    problems = [f"[{section}] is used by no class" for section in sorted(expected.unused())]
    problems += [f"missing: {name}" for name in sorted(expected.names - found)]
    problems += [f"not listed: {name}" for name in sorted(found - expected.names)]
    print("\n".join(problems))
    print(f"{len(found)} names exported, {len(problems)} problems")
    return 1 if problems else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
