"""Step three: templates filled with the model, and the files on disk."""

import errno
import functools
import os
import re
import tempfile
import textwrap
from pathlib import Path

import jinja2

TEMPLATES = Path(__file__).resolve().parent.parent / "templates"
_SUFFIXES = (".hpp", ".cpp")


@functools.cache
def _environment():
    environment = jinja2.Environment(
        loader=jinja2.FileSystemLoader(TEMPLATES),
        undefined=jinja2.StrictUndefined,
        trim_blocks=True,
        lstrip_blocks=True,
        keep_trailing_newline=True,
    )
    environment.filters["comment"] = comment
    environment.filters["prose"] = prose
    environment.filters["anchor"] = anchor
    return environment


def comment(text, indent=0):
    """A description as the inside of a Doxygen comment, whatever it says."""
    text = re.sub(r"[^\x20-\x7e\n\u00a0-\uffff]", " ", text).replace("*/", "* /").replace("/*", "/ *")
    text = re.sub(r"([\\@<>&%#\"])", r"\\\1", text)
    lines = []
    for paragraph in re.split(r"\n\s*\n", text.strip()):
        lines += textwrap.wrap(" ".join(paragraph.split()), 97 - indent) + [""]
    return "\n".join(f"{' ' * indent} * {line}".rstrip() for line in lines[:-1])


def prose(text):
    """A description as one line of Markdown, also inside a table."""
    return re.sub(r"([\\`*_<>|\[\]])", r"\\\1", " ".join(text.split()))


def anchor(heading):
    """What links to a heading, as Markdown's readers make it."""
    return re.sub(r"[^a-z0-9_ -]", "", heading.lower()).replace(" ", "-")


def render_page(interfaces):
    """Gives a page in Markdown about the interfaces."""
    return _environment().get_template("page.md.j2").render(interfaces=interfaces)


def render(interface):
    """Gives the text of each output file by its name."""
    files = {}
    for suffix in _SUFFIXES:
        template = _environment().get_template(f"client_cache{suffix}.j2")
        files[interface.basename + suffix] = template.render(interface=interface)
    return files


def write(files, directory):
    """Writes all of the files, or none of them when one cannot be written."""
    written = []
    try:
        for name, text in files.items():
            if os.path.isdir(os.path.join(directory, name)):
                raise IsADirectoryError(errno.EISDIR, f"{name} is a folder")
            handle, temporary = tempfile.mkstemp(prefix=f".{name}.", dir=directory)
            written.append((temporary, os.path.join(directory, name)))
            with os.fdopen(handle, "w", encoding="utf-8", newline="\n") as stream:
                stream.write(text)
            # mkstemp makes private files; these are as readable as any other.
            os.chmod(temporary, 0o666 & ~_umask())
        while written:
            os.replace(*written[0])
            written.pop(0)
    finally:
        for temporary, _ in written:
            os.unlink(temporary)


def write_dependencies(depfile, outputs, sources):
    """Writes a rule for make: what was made, and of what, this program included."""
    here = Path(__file__).resolve().parent
    made_of = [*map(Path, sources), *sorted(here.glob("*.py")), *sorted(TEMPLATES.glob("*.j2"))]
    rule = f"{_words(outputs)}: {_words(made_of)}\n"
    Path(depfile).write_text(rule, encoding="utf-8")


def _words(paths):
    return " ".join(
        re.sub(r"([ #\\])", r"\\\1", str(path)).replace("$", "$$") for path in paths
    )


def _umask():
    mask = os.umask(0)
    os.umask(mask)
    return mask
