"""Writes introspection documents as a C++ array: embed.py OUTPUT DOCUMENT..."""

import json
import pathlib
import sys


def main():
    output, *documents = map(pathlib.Path, sys.argv[1:])
    lines = ["namespace simulator", "{", "extern const char* const documents[];"]
    lines.append("const char* const documents[] = {")
    for document in documents:
        text = document.read_text(encoding="ascii")
        lines += [f"    {json.dumps(line)}" for line in text.splitlines(keepends=True)]
        lines.append("    ,")
    lines += ["    nullptr,", "};", "} // namespace simulator", ""]
    output.write_text("\n".join(lines), encoding="ascii")


if __name__ == "__main__":
    main()
