"""Follows docs/getting-started.md word by word, as root on this machine, without a trace on it.

    getting_started.py

It goes into a mount namespace of its own, in which /usr, /etc and /var are copies that end with it,
and into a fresh copy of the sources. Only the packages that this machine has already make it another
place than a bare one. Ends with 77, the status of a skipped test, where that is not possible.
"""

import os
import shutil
import subprocess
import sys
import tempfile
from pathlib import Path

sys.dont_write_bytecode = True

from blocks import SOURCE, blocks  # noqa: E402
from running import machine, run  # noqa: E402

PAGE = SOURCE / "docs" / "getting-started.md"
COPIED = ("/usr", "/etc", "/var")
SKIPPED = 77
# What would lead to this machine's own builds.
FOREIGN = ("PKG_CONFIG_PATH", "LD_LIBRARY_PATH", "BMCBUS_INTERFACE_PATH", "DESTDIR")


def isolate(scratch):
    """Puts a copy on write over each folder, in this process's namespace."""
    subprocess.run(["mount", "-t", "tmpfs", "tmpfs", scratch], check=True)
    for folder in COPIED:
        upper, work = scratch / folder[1:] / "upper", scratch / folder[1:] / "work"
        upper.mkdir(parents=True)
        work.mkdir()
        options = f"lowerdir={folder},upperdir={upper},workdir={work}"
        subprocess.run(["mount", "-t", "overlay", "overlay", "-o", options, folder], check=True)


def copy_of_the_sources(folder):
    def unwanted(place, names):
        top = Path(place) == SOURCE
        return [name for name in names if top and (name.startswith("build") or name == ".git")]

    shutil.copytree(SOURCE, folder, ignore=unwanted, symlinks=True)
    return folder


def commands(block):
    print(f"\n## {block.place}\n{block.text}", flush=True)
    return ["bash", "-euo", "pipefail", "-c", block.text]


def follow(scratch):
    environment = {name: text for name, text in os.environ.items() if name not in FOREIGN}
    os.environ.clear()
    os.environ.update(environment)
    source = copy_of_the_sources(scratch / "source")
    folder = scratch / "work"
    folder.mkdir()
    page = blocks(PAGE)
    for block in page:
        if "alone" in block.marks:
            subprocess.run(commands(block), cwd=source, stdin=subprocess.DEVNULL, check=True)
    with machine("bmcbus-simulator") as clients:
        for block in page:
            if "file" in block.marks:
                (folder / block.marks["file"]).write_text(block.text, encoding="utf-8")
            if block.kind == "commands" and "alone" not in block.marks:
                print(run(commands(block), clients, folder, block.marks.get("shows")), flush=True)


def main():
    if sys.argv[1:] != ["inside"]:
        probe = subprocess.run(["unshare", "--mount", "true"], stderr=subprocess.DEVNULL, check=False)
        if os.geteuid() != 0 or probe.returncode != 0:
            print("getting started: skipped, only root may have a view of the machine of its own")
            return SKIPPED
        own = ["unshare", "--mount", "--propagation", "private", sys.executable, __file__, "inside"]
        return subprocess.run(own, check=False).returncode
    with tempfile.TemporaryDirectory(prefix="bmcbus-started.", dir="/tmp") as folder:
        try:
            isolate(Path(folder))
            follow(Path(folder))
        finally:
            os.chdir("/")
            subprocess.run(["umount", "--lazy", folder], check=False)
    print("getting started: followed to its end")
    return 0


if __name__ == "__main__":
    sys.exit(main())
