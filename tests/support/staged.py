"""The build, installed into a folder of its own."""

import os
import re
import subprocess
import tempfile
from pathlib import Path


def run(*command, **options):
    """Gives what the command prints; its failure fails the test with all that it said."""
    done = subprocess.run(
        [str(word) for word in command],
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        encoding="utf-8",
        errors="replace",
        check=False,
        **options,
    )
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


def _in_front(folder, variable):
    """The folder before those that the variable lists: what the package files require may be there."""
    return ":".join(filter(None, [str(folder), os.environ.get(variable)]))


class Stage:
    """A copy of what `meson install` puts under the prefix, made to work where it lies.

    The environment says where the build is, BMCBUS_BUILD, and what prefix it was configured with,
    BMCBUS_PREFIX.
    """

    def __init__(self):
        self._folder = tempfile.TemporaryDirectory(prefix="bmcbus-install.")
        root = Path(self._folder.name)
        build = os.environ["BMCBUS_BUILD"]
        run("meson", "install", "-C", build, "--no-rebuild", "--quiet", "--destdir", root)
        self.prefix = root / Path(os.environ["BMCBUS_PREFIX"]).relative_to("/")
        self.packages = [found.parent for found in self.prefix.rglob("bmcbus.pc")]
        for file in self.packages[0].glob("*.pc"):
            text = file.read_text(encoding="utf-8")
            text = re.sub("(?m)^prefix=.*", f"prefix={self.prefix}", text)
            file.write_text(text, encoding="utf-8")
        self.built = self.packages[0].parent / "bmcbus" / "include"
        self.library = next(self.prefix.rglob("libbmcbus.so"))
        self.environment = {
            **os.environ,
            "PKG_CONFIG_PATH": _in_front(self.packages[0], "PKG_CONFIG_PATH"),
        }
        # Also where the libraries lie that the package files require.
        folders = self.pkg_config("--libs-only-L", "bmcbus")
        self.folders = list(dict.fromkeys([str(self.library.parent), *(name[2:] for name in folders)]))
        self.environment["LD_LIBRARY_PATH"] = _in_front(":".join(self.folders), "LD_LIBRARY_PATH")

    def close(self):
        self._folder.cleanup()

    def pkg_config(self, *arguments):
        return run("pkg-config", *arguments, env=self.environment).split()
