"""Installs the build into a folder of its own and uses it as a stranger would.

    test_install.py [CLASS...]

The environment says where things are: BMCBUS_BUILD, BMCBUS_PREFIX (the configured one), and CC and
CXX, the compilers. What is installed is found by pkg-config alone.
"""

import os
import re
import shlex
import shutil
import subprocess
import sys
import tempfile
import unittest
from concurrent.futures import ThreadPoolExecutor
from pathlib import Path

sys.dont_write_bytecode = True

SOURCE = Path(__file__).resolve().parent.parent.parent
CXX = shlex.split(os.environ["CXX"])
CC = shlex.split(os.environ["CC"])
EXAMPLE = SOURCE / "examples" / "own-interface"
WITH_SIMULATOR = bool(os.environ["BMCBUS_WITH_SIMULATOR"])
SIMULATOR = (
    "bin/bmcbus-simulator",
    "lib/systemd/system/bmcbus-simulator.service",
    "share/doc/bmcbus/examples/bmcbus-simulator.conf",
    "share/man/man1/bmcbus-simulator.1",
)

sys.path.insert(0, str(SOURCE / "tests" / "support"))
from staged import Stage, run  # noqa: E402


# Each line between the marks has a path and a service in one another's place.
SWAPPED = """
#include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
using Cached = ClientCache::com::tamm::bmc::Thermal::FanReporting;
using Direct = ClientEdge::com::tamm::bmc::Thermal::FanReporting;
struct Settings { char path[32]; };
void right(const Settings& settings, std::string text, Cached::Callback call, sd_bus* bus)
{
    const char path[] = "/fans";
    static const char service[] = "a.b";
    Cached a(path, service), b(settings.path, text), c("/fans", text, call), d(text, "a.b", call, nullptr);
    Cached e("/fans", nullptr), f("/fans", {}, call, nullptr, true), g("/fans", "", [](Cached*, void*) {}), h(path, "a.b", true);
    Cached i("/fans", "a.b", nullptr, 0, false);
    Cached::Create("/fans", service, nullptr, nullptr);
    Cached refused("fans", "a.b"), unknown("/fans", "/b"); // one alone may be meant, and is refused in use
    Direct k("a.b", path), l("", text), m(text, settings.path), n(bus, "a.b", "/fans"), o({}, "/fans");
}
#ifdef WRONG
constexpr const char* named = "/fans";
void w1() { Cached("a.b", "/fans"); } // wrong
void w2() { Cached("a.b", named, nullptr, nullptr, true); } // wrong
void w3(Cached::Callback call) { Cached::Create("a.b", named, call, nullptr); } // wrong
void w4() { Direct(named, "a.b"); } // wrong
void w5(sd_bus* bus) { Direct(bus, "/fans", "a.b"); } // wrong
#endif
"""

LINKED = """
#include <cstdio>
#include <object_mapper.hpp>
#include <pathops.hpp>

int main()
{
    std::string service;
    ObjectMapper::Wrappers::PathAndInterfaceToService("/x", "a.b", service);
    std::puts(DBU_insert_key("/a/b", "K#L").c_str());
}
"""


class InstallTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.stage = Stage()
        cls.addClassCleanup(cls.stage.close)

    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="bmcbus-user.")
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)


class Files(InstallTest):
    def test_nothing_is_missing(self):
        prefix = self.stage.prefix
        for name in (
            "bin/bmcbus-codegen",
            "share/man/man1/bmcbus-codegen.1",
            *(SIMULATOR if WITH_SIMULATOR else ()),
        ):
            self.assertTrue((prefix / name).is_file(), name)
        self.assertEqual(len(self.stage.packages), 1)
        for name in ("bmcbus-testing.pc", "../libbmcbus-testing.a", "../libbmcbus.so.1"):
            self.assertTrue((self.stage.packages[0] / name).is_file(), name)

    def test_every_public_header_and_description_is_there(self):
        include = self.stage.prefix / "include" / "bmcbus"
        for root in (SOURCE / "include", SOURCE / "kit" / "include"):
            for header in root.rglob("*.h*"):
                name = header.relative_to(root)
                if header.suffix == ".in":  # differs between machines
                    self.assertTrue((self.stage.built / name.with_suffix("")).is_file(), name)
                else:
                    self.assertTrue((include / name).is_file(), name)
        interfaces = self.stage.prefix / "share" / "dbus-1" / "interfaces"
        for description in (SOURCE / "com").rglob("*.xml"):
            self.assertTrue((interfaces / description.name).is_file(), description.name)
            path = description.parent.relative_to(SOURCE)
            self.assertTrue((include / path / "client_cache.hpp").is_file(), str(path))

    def test_package_files_lead_to_what_they_name(self):
        self.assertIn("-lbmcbus", self.stage.pkg_config("--libs", "bmcbus"))
        self.assertIn("-lbmcbus-testing", self.stage.pkg_config("--libs", "bmcbus-testing"))
        [interfaces] = self.stage.pkg_config("--variable=interfaces_dir", "bmcbus")
        self.assertEqual(len(list(Path(interfaces).glob("com.tamm.*.xml"))), 10)
        [codegen] = self.stage.pkg_config("--variable=codegen", "bmcbus")
        run(codegen, "--output-dir", self.folder, EXAMPLE / "com.example.rack.Sensor.xml")
        self.assertEqual(
            (self.folder / "client_cache.hpp").read_text(encoding="utf-8").count("class BMCBUS_EXPORT"),
            3,
        )

    def test_link_without_path(self):
        """What pkg-config names links, and starts with nothing but our folder as its run path."""
        program = self.folder / "use"
        environment = {
            name: value
            for name, value in self.stage.environment.items()
            if name not in ("LD_LIBRARY_PATH", "LD_RUN_PATH")
        }
        run(*CXX, "-std=c++20", "-x", "c++", "-", "-o", program,
            *self.stage.pkg_config("--cflags", "bmcbus"), *self.stage.pkg_config("--libs", "bmcbus"),
            f"-Wl,-rpath,{self.stage.library.parent}", input=LINKED, env=environment)
        # A sdbusplus that is not in a default folder is found as whoever installed it there says.
        others = [name for name in self.stage.folders if name != str(self.stage.library.parent)]
        environment["LD_LIBRARY_PATH"] = ":".join(others)
        environment["DBUS_SYSTEM_BUS_ADDRESS"] = "unix:path=/nonexistent"
        said = subprocess.run([program], env=environment, stdout=subprocess.PIPE, text=True, check=True)
        self.assertEqual(said.stdout, "/a/k/l/b\n")

    def test_czmq_comes_with_a_zloop(self):
        """Programs that have one are linked with it by our package file; others need none."""
        needed = [run("readelf", "-d", self.stage.library)]
        for name in ("use", "zloop_new"):
            source = LINKED if name == "use" else "#include <czmq.h>\nint main() { return zloop_new() == nullptr; }\n"
            run(*CXX, "-std=c++20", "-x", "c++", "-", "-o", self.folder / name,
                *self.stage.pkg_config("--cflags", "--libs", "bmcbus"), input=source, env=self.stage.environment)
            needed.append(run("readelf", "-d", self.folder / name))
        self.assertEqual(["libczmq" in one for one in needed], [False, False, True])

    def test_package_file_says_which_libsystemd(self):
        for package in ("bmcbus", "bmcbus-testing"):
            needed = run("pkg-config", "--print-requires", package, env=self.stage.environment)
            self.assertIn("libsystemd >= 246", needed)

    def test_programs_start_and_manual_pages_are_well_formed(self):
        if WITH_SIMULATOR:
            run(self.stage.prefix / "bin" / "bmcbus-simulator", "--help", env=self.stage.environment)
        if man := shutil.which("groff"):
            for page in (self.stage.prefix / "share" / "man" / "man1").iterdir():
                said = subprocess.run(
                    [man, "-man", "-Tutf8", "-ww", "-z", page], capture_output=True, text=True, check=True
                )
                self.assertEqual(said.stderr, "", page.name)


class Headers(InstallTest):
    """Each compiles on its own; all together they compile under the other language and compiler."""

    def headers(self):
        root = self.stage.prefix / "include" / "bmcbus"
        for header in sorted(root.rglob("*.h*")):
            name = header.relative_to(root)
            if name.parts[0] != "compat":
                yield str(name)

    def compile(self, compiler, language, standard, *names, before=("-fsyntax-only",), source=""):
        source = source or "".join(f"#include <{name}>\n" for name in names) + "extern int something;\n"
        flags = list(before) + [
            # Headers of others may give warnings of their own.
            flag if str(self.stage.prefix) in flag else re.sub("^-I", "-isystem", flag)
            for flag in self.stage.pkg_config("--cflags", "bmcbus", "bmcbus-testing", "glib-2.0")
        ]
        run(*compiler, "-x", language, f"-std={standard}", "-Wall", "-Wextra",
            "-Wpedantic", "-Werror", *flags, "-", input=source)

    def standards(self, compiler):
        """The standards under which the compiler takes the sdbusplus in use by itself.

        Recent generations want C++23, or more of the standard library than clang 14 can read.
        """
        for standard in ("c++20", "c++2b"):
            try:
                self.compile(compiler, "c++", standard, "sdbusplus/bus.hpp")
            except AssertionError:
                print(f"{compiler[-1]} -std={standard}: left out, cannot compile <sdbusplus/bus.hpp>")
            else:
                yield standard

    def test_time_bits(self):
        """Code with another size of time_t than the library had would have another timer record."""
        front = self.folder / "bmcbus"
        front.mkdir()
        config = (self.stage.built / "bmcbus" / "config.h").read_text("utf-8")
        other = re.sub(r"(?m)^(#define BMCBUS_TIME_SIZE) (\d)$", lambda m: f"{m[1]} {12 - int(m[2])}", config)
        self.assertNotEqual(other, config)
        (front / "config.h").write_text(other, encoding="utf-8")
        for compiler, language, standard in ((CC, "c", "c11"), (CXX, "c++", "c++20")):
            self.compile(compiler, language, standard, "scoped_timer.h")
            with self.assertRaisesRegex(AssertionError, "another -D_TIME_BITS than libbmcbus"):
                self.compile(compiler, language, standard, "scoped_timer.h", before=["-fsyntax-only", f"-I{self.folder}"])

    def test_swapped_literals(self):
        """A path and a service in one another's place do not compile; whatever else does."""
        wrong = {number for number, line in enumerate(SWAPPED.splitlines(), 1) if "// wrong" in line}
        for compiler, mode in (("g++", "-O1"), ("g++", "-Os"), ("clang++", "-fsyntax-only")):
            standard = next(self.standards([compiler]), None) if shutil.which(compiler) else None
            if standard is None:
                continue
            flags = [mode, "-S", "-o", os.devnull]
            self.compile([compiler], "c++", standard, before=flags, source=SWAPPED)
            with self.assertRaises(AssertionError) as caught:
                self.compile([compiler], "c++", standard, before=["-DWRONG", *flags], source=SWAPPED)
            said = str(caught.exception)
            self.assertIn("a path begins with '/', a service never does", said)
            self.assertEqual({int(line) for line in re.findall(r"(?m)(?:at |^)<stdin>:(\d+)", said)}, wrong, said)

    def test_alone(self):
        names = list(self.headers())
        standard = next(self.standards(CXX))
        self.assertGreater(len(names), 35)
        with ThreadPoolExecutor(len(os.sched_getaffinity(0))) as pool:
            for done in [pool.submit(self.compile, CXX, "c++", standard, name) for name in names]:
                done.result()

    def test_together(self):
        names = list(self.headers())
        self.compile(CXX, "c++", "c++2b", *names)
        for other in {"clang++", "g++"} - {Path(CXX[-1]).name}:
            if shutil.which(other):
                for standard in self.standards([other]):
                    self.compile([other], "c++", standard, *names)

    def test_c(self):
        root = self.stage.prefix / "include" / "bmcbus"
        plain = [
            name
            for name in self.headers()
            if name.endswith(".h") or "#ifdef __cplusplus" in (root / name).read_text(encoding="utf-8")
        ]
        self.assertLessEqual({"scoped_timer.h", "oneway_channel.hpp", "threadfunnel.hpp"}, set(plain))
        for name in plain:
            self.compile(CC, "c", "c11", name)


class Example(InstallTest):
    def test_a_copy_of_the_example_builds_and_passes_its_own_test(self):
        copy = self.folder / "project"
        shutil.copytree(EXAMPLE, copy)
        run("meson", "setup", "-Doptimization=0", "-Ddebug=false", "-Dwerror=true", "build", cwd=copy,
            env=self.stage.environment)
        run("meson", "compile", "-C", "build", cwd=copy, env=self.stage.environment)
        said = run("meson", "test", "-C", "build", "-v", cwd=copy, env=self.stage.environment)
        self.assertRegex(said, r"Ok: +1\b")


@unittest.skipUnless(shutil.which("cmake"), "cmake is not installed")
class CMake(InstallTest):
    def test_a_copy_of_the_example_builds_and_passes_its_own_test(self):
        copy = self.folder / "project"
        shutil.copytree(EXAMPLE, copy)
        environment = {**self.stage.environment, "CXXFLAGS": "-O0"}
        run("cmake", "-B", "build", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.stage.prefix}", cwd=copy,
            env=environment)
        run("cmake", "--build", "build", cwd=copy, env=environment)
        said = run("ctest", "--test-dir", "build", cwd=copy, env=environment)
        self.assertIn("100% tests passed, 0 tests failed out of 1", said)

    def test_an_older_version_is_not_taken(self):
        (self.folder / "CMakeLists.txt").write_text(
            "cmake_minimum_required(VERSION 3.22)\nproject(x CXX)\nfind_package(bmcbus 99 REQUIRED)\n",
            encoding="utf-8",
        )
        with self.assertRaisesRegex(AssertionError, "version: 0|requested version"):
            run("cmake", "-B", "build", f"-DCMAKE_PREFIX_PATH={self.stage.prefix}", cwd=self.folder,
                env=self.stage.environment)


class Generator(unittest.TestCase):
    def test_only_codegen(self):
        """What the build machine of a cross build needs: it makes classes, and nothing else is there."""
        with tempfile.TemporaryDirectory(prefix="bmcbus-user.") as folder:
            folder = Path(folder)
            run("meson", "setup", "-Donly_codegen=true", f"--prefix={folder / 'native'}", folder / "build", SOURCE)
            run("meson", "install", "-C", folder / "build")
            run(folder / "native" / "bin" / "bmcbus-codegen", "--output-dir", folder,
                EXAMPLE / "com.example.rack.Sensor.xml")
            self.assertTrue((folder / "client_cache.cpp").is_file())
            installed = {path.name for path in (folder / "native").rglob("*") if path.is_file()}
            self.assertFalse([name for name in installed if name.endswith((".so", ".hpp", ".pc"))])


class Subproject(unittest.TestCase):
    PROJECT = """
        project('fan-watch', 'cpp', default_options: ['cpp_std=c++20', 'werror=true'])
        executable('fan-watch', 'main.cpp', dependencies: dependency('bmcbus'))
    """
    PROGRAM = """
        #include <com/tamm/bmc/Thermal/FanReporting/client_cache.hpp>
        #include <pathops.hpp>

        int main()
        {
            ClientEdge::com::tamm::bmc::Thermal::FanReporting fans("com.example.Fans", "/fans");
            const bool same = fans.Service() == "com.example.Fans";
            return same && DBU_make_lower_case("Fan_1") == "fan_1" ? 0 : 1;
        }
    """
    WRAP = """
        [wrap-file]
        directory = libbmcbus

        [provide]
        bmcbus = bmcbus_dep
        bmcbus-testing = bmcbus_testing_dep
        program_names = bmcbus-codegen
    """

    def project(self, folder, name):
        """Another project in a folder, with this one below its subprojects."""
        (folder / "meson.build").write_text(self.PROJECT, encoding="utf-8")
        (folder / "main.cpp").write_text(self.PROGRAM, encoding="utf-8")
        (folder / "subprojects").mkdir()
        (folder / "subprojects" / name).symlink_to(SOURCE)

    def test_another_project_builds_it_along(self):
        with tempfile.TemporaryDirectory(prefix="bmcbus-user.") as folder:
            self.project(Path(folder), "libbmcbus")
            wrap = "\n".join(line.strip() for line in self.WRAP.splitlines())
            Path(folder, "subprojects", "libbmcbus.wrap").write_text(wrap, encoding="utf-8")
            run("meson", "setup", "-Doptimization=0", "-Ddebug=false", "build", cwd=folder)
            run("ninja", "-C", "build", "fan-watch", cwd=folder)
            run("build/fan-watch", cwd=folder)

    def test_a_folder_named_as_the_dependency_needs_no_wrap(self):
        with tempfile.TemporaryDirectory(prefix="bmcbus-user.") as folder:
            self.project(Path(folder), "bmcbus")
            run("meson", "setup", "build", cwd=folder)


if __name__ == "__main__":
    unittest.main()
