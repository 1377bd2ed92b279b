#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An installed tree that was moved afterwards builds the README's example by its own line, by CMake, by make and with
dlopen, and the programs run; the commands of README and guide find it as /opt/metadata. Nothing in the tree names the
folder it was installed to or built in."""
import argparse
import os
import pathlib
import re
import select
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

parser = argparse.ArgumentParser()
for option in ("cmake", "build", "source", "version"):
    parser.add_argument("--" + option, required=True)
options, rest = parser.parse_known_args()
SOURCE = pathlib.Path(options.source).resolve()
sys.path.append(str(SOURCE / "tests/roads"))
import pages

KLV = bytes.fromhex("060E2B34020B01010E01030101000000") + bytes([10, 2, 8]) + bytes(8)
TEXT = {".pc", ".cmake", ".txt", ".md", ".h", ".c", ".ini", ""}
CXX_USER = """#include <cstdio>
#include "host.h"
#include "host_runtime.h"
#include "metadata_lib.h"
int main() {
  HostRuntimeConfig config;
  config.logLevel = 0;
  return HostRuntime_Apply(config) && METADATALIB_Init(METADATALIB_CAPS_IPV4_SUPPORT) ? (METADATALIB_Shutdown(), 0) : 1;
}
"""
CXX_LISTS = """cmake_minimum_required(VERSION 3.16)
project(user LANGUAGES CXX)
set(CMAKE_CXX_STANDARD 20)
find_package(metadata_lib REQUIRED COMPONENTS host_runtime)
add_executable(user user.cpp)
target_link_libraries(user PRIVATE metadata_lib::host_runtime metadata_lib::metadata_lib)
"""
LIBRARY_LISTS = """cmake_minimum_required(VERSION 3.16)
project(user LANGUAGES C)
find_package(metadata_lib {version} REQUIRED {components})
add_library(user SHARED user.c)
target_link_libraries(user PRIVATE metadata_lib::metadata_lib)
"""
LIBRARY_USER = "#include <metadata_lib/metadata_lib.h>\nBOOL start(void) { return METADATALIB_Init(2u); }\n"

# Runs commands with a folder in the place of /opt/metadata, which the machine may have or not.
IN_OPT = """
mount -t tmpfs tmpfs "$2"
mkdir "$2/upper" "$2/work"
mount -t overlay -o "lowerdir=/opt,upperdir=$2/upper,workdir=$2/work" overlay /opt
mkdir -p /opt/metadata
mount --bind "$1" /opt/metadata
eval "$3"
"""


def run(*command, **settings):
    done = subprocess.run(command, capture_output=True, text=True, timeout=240, **settings)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout


def first_line(command, port, datagrams, environment):
    """What a program prints first while it is sent the datagrams; it must end well on SIGINT."""
    process = subprocess.Popen(command, stdout=subprocess.PIPE, env=environment)
    line = b""
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as sender:
        deadline = time.monotonic() + 60
        while time.monotonic() < deadline and process.poll() is None and not line:
            for datagram in datagrams:
                sender.sendto(datagram, ("127.0.0.1", port))
            if select.select([process.stdout], [], [], 0.1)[0]:
                line = os.read(process.stdout.fileno(), 4096)
    process.send_signal(signal.SIGINT)
    status = process.wait(timeout=20)
    process.stdout.close()
    return line.split(b"\n")[0].decode(), status


class Tree(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        cls.scratch = pathlib.Path(cls.folder.name)
        cls.first = cls.scratch / "first-place"
        run(options.cmake, "--install", options.build, "--prefix", cls.first)
        cls.prefix = cls.scratch / "moved"
        shutil.move(cls.first, cls.prefix)
        cls.libdir = next(cls.prefix.rglob("libmetadata_lib.so.1")).parent
        cls.environment = dict(os.environ, PKG_CONFIG_PATH=str(cls.libdir / "pkgconfig"),
                               LD_LIBRARY_PATH=str(cls.libdir), CMAKE_PREFIX_PATH=str(cls.prefix), TZ="UTC")

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def fresh(self, *files):
        """A folder outside the tree with these files of the installed example."""
        folder = pathlib.Path(tempfile.mkdtemp(dir=self.scratch))
        example = next(self.prefix.rglob("example/encoder.c")).parent
        for name in files:
            shutil.copy(example / name, folder)
        return folder

    def prints_klv(self, program):
        self.assertEqual(first_line(program, 15000, [KLV], self.environment), ("camera #0: 27 bytes", 0))

    def converts_events(self, program):
        events = [(SOURCE / f"tests/data/cot_events/level_flight_{kind}.xml").read_bytes()
                  for kind in ("spi", "aircraft")]
        line, status = first_line(program, 15001, events, self.environment)
        self.assertRegex(line, r"^aircraft #0: \d+ bytes$")
        self.assertEqual(status, 0)
        self.assertNotIn("libmetadata_lib", run("readelf", "-d", program))

    def test_the_example_is_the_one_in_the_readme(self):
        readme = (SOURCE / "README.md").read_text()
        self.assertEqual(re.search(r"^```c\n(.*?)^```", readme, re.S | re.M).group(1),
                         (SOURCE / "example/encoder.c").read_text())

    def in_opt(self, prefix, commands):
        """What runs commands of the documents, for which the prefix is /opt/metadata."""
        layer = tempfile.mkdtemp(dir=self.scratch)
        return "unshare", "--mount", "--propagation", "private", "sh", "-euc", IN_OPT, "sh", prefix, layer, commands

    def test_the_readmes_lines_build_it_with_either_compiler(self):
        lines = pages.block(SOURCE, "README.md#3")
        for compiler in ("gcc", "clang-14"):
            folder = self.fresh("encoder.c")
            (folder / "cc").symlink_to(shutil.which(compiler))
            run(*self.in_opt(self.prefix, lines), cwd=folder, env={**os.environ, "PATH": f"{folder}:{os.environ['PATH']}"})
            self.prints_klv(folder / "encoder")

    def test_the_readmes_lines_configure_and_install(self):
        """What is installed was built by the tests' preset. The build between is that of docs/integration.md, word by
        word, which scripts/fresh follows in a bare root: it takes minutes."""
        configure, build = pages.commands(pages.block(SOURCE, "README.md#2"))
        guide = pages.commands(pages.block(SOURCE, "docs/integration.md#1"))
        self.assertEqual(guide.count(configure) + guide.count(build), 2)
        folder = self.fresh()
        for path in SOURCE.iterdir():
            if path.name != "build":
                (folder / path.name).symlink_to(path)
        said = run("sh", "-euc", f"exec 2>&1\n{configure}", cwd=folder)
        self.assertNotIn("not used by the project", said)
        self.assertTrue((folder / "build/install/cmake_install.cmake").exists())
        shutil.rmtree(folder / "build/install")
        (folder / "build/install").symlink_to(pathlib.Path(options.build).resolve())
        (folder / "installed").mkdir()
        run(*self.in_opt(folder / "installed", build.split(" && ")[1]), cwd=folder)
        self.assertEqual(self.names(folder / "installed"), self.names(self.prefix))

    def test_the_guides_lines_build_and_run_the_examples(self):
        """Of "First run", what follows the installation. What precedes it needs a bare root (scripts/fresh)."""
        commands = pages.commands(pages.block(SOURCE, "docs/integration.md#1"))
        copy = next(number for number, command in enumerate(commands) if "--install" in command) + 1
        programs = [command for command in commands[copy:] if "./encoder" in command]
        self.assertEqual(len(programs), 2)
        build = commands[copy:commands.index(programs[0])]
        for program in programs:
            text = "\n".join(["mount -t tmpfs tmpfs /tmp", "exec 3>&1 >&2", *build, "exec >&3 3>&-", "exec env " + program])
            line = first_line(self.in_opt(self.prefix, text), 15000, [KLV], os.environ)
            self.assertEqual(line, ("camera #0: 27 bytes", 0))

    def test_make_builds_both_programs(self):
        folder = self.fresh("encoder.c", "encoder_dlopen.c", "minimal_host.c", "Makefile")
        run("make", "CFLAGS=-Wall -Wextra -Werror", cwd=folder, env=self.environment)
        self.prints_klv(folder / "encoder")
        self.converts_events(folder / "encoder_dlopen")
        self.prints_klv(folder / "encoder_minimal")

    def test_the_minimal_host_is_minimal_and_whole(self):
        folder = self.fresh("minimal_host.c")
        self.assertLess(len((folder / "minimal_host.c").read_text().splitlines()), 300)
        flags = run("pkg-config", "--cflags", "metadata_lib", env=self.environment).split()
        run("gcc", "-Wall", "-Wextra", "-Werror", "-c", *flags, "minimal_host.c", cwd=folder)
        defined = {line.split()[-1] for line in run("nm", "--defined-only", folder / "minimal_host.o").splitlines()}
        declared = set()
        for header in (SOURCE / "host").glob("*.h"):
            text = re.sub(r"//.*", "", header.read_text())
            declared |= set(re.findall(r"^(?:extern )?[\w*]+[ *]+(\w+)(?:\(|;)", text, re.M)) - {"typedef"}
        self.assertIn("FDMGR_Select", declared)
        self.assertEqual(declared - defined, set())

    def test_cmake_builds_both_programs(self):
        folder = self.fresh("encoder.c", "encoder_dlopen.c", "minimal_host.c", "CMakeLists.txt")
        run(options.cmake, "-S", folder, "-B", folder / "build", env=self.environment)
        run(options.cmake, "--build", folder / "build", env=self.environment)
        self.prints_klv(folder / "build/encoder")
        self.converts_events(folder / "build/encoder_dlopen")
        self.prints_klv(folder / "build/encoder_minimal")
        lists = (SOURCE / "README.md").read_text()
        for line in re.search(r"^```cmake\n(.*?)^```", lists, re.S | re.M).group(1).splitlines():
            self.assertIn(line, (folder / "CMakeLists.txt").read_text())

    def test_a_cpp_program_sets_the_runtime_up(self):
        folder = self.fresh()
        (folder / "CMakeLists.txt").write_text(CXX_LISTS)
        (folder / "user.cpp").write_text(CXX_USER)
        run(options.cmake, "-S", folder, "-B", folder / "build", env=self.environment)
        run(options.cmake, "--build", folder / "build", env=self.environment)
        run(folder / "build/user", env=self.environment)

    def configure(self, version, components, **more):
        folder = self.fresh()
        (folder / "CMakeLists.txt").write_text(LIBRARY_LISTS.format(version=version, components=components))
        (folder / "user.c").write_text(LIBRARY_USER)
        run(options.cmake, "-S", folder, "-B", folder / "build", env={**self.environment, **more})
        return folder / "build"

    def test_the_library_alone_needs_none_of_the_runtimes_libraries(self):
        build = self.configure("1.0", "", PKG_CONFIG_LIBDIR="/nowhere", PKG_CONFIG_PATH="")
        run(options.cmake, "--build", build)

    def test_a_missing_component_and_another_major_version_are_refused(self):
        with self.assertRaisesRegex(AssertionError, "needs pkg-config"):
            self.configure("1.0", "COMPONENTS host_runtime", PKG_CONFIG_LIBDIR="/nowhere", PKG_CONFIG_PATH="")
        with self.assertRaisesRegex(AssertionError, "no component engine"):
            self.configure("1.0", "COMPONENTS engine")
        with self.assertRaisesRegex(AssertionError, "version"):
            self.configure("2.0", "")

    def test_pkg_config_tells_the_version(self):
        for name in ("metadata_lib", "metadata_host_runtime"):
            self.assertEqual(run("pkg-config", "--modversion", name, env=self.environment).strip(), options.version)

    def test_the_programs_run(self):
        for program in ("mdencoder", "mdfeed", "make_geoid_grid"):
            self.assertEqual(run(self.prefix / "bin" / program, "--version", env={"PATH": os.environ["PATH"]}),
                             f"{program} {options.version}\n")
        (self.scratch / "one.ini").write_text("[udp]\ninput = udp\nport = 15001\nfamily = ipv4\n")
        encoder = subprocess.run([self.prefix / "bin/mdencoder", self.scratch / "one.ini", "--duration", "0.1"], check=True,
                                 capture_output=True, text=True, timeout=60)
        library = self.libdir / f"libmetadata_lib.so.{options.version}"
        self.assertIn(f"METADATALIB {options.version} is {library.resolve()}; host runtime {options.version}.",
                      encoder.stderr)
        sample = next(self.prefix.rglob("mdencoder.example.ini"))
        run(self.prefix / "bin/mdencoder", sample, "--check-text")

    def test_no_text_names_the_folders_it_came_from(self):
        places = [str(self.first), str(SOURCE), str(pathlib.Path(options.build).resolve())]
        seen = 0
        for path in self.prefix.rglob("*"):
            if path.is_file() and path.suffix in TEXT and path.parent.name != "bin":
                seen += 1
                text = path.read_text()
                for place in places:
                    self.assertNotIn(place, text, path)
        self.assertGreater(seen, 20)

    @staticmethod
    def names(root):
        return sorted(str(path.relative_to(root)) for path in root.rglob("*"))

    def test_destdir_gets_the_same_tree(self):
        staged = self.scratch / "staged"
        run(options.cmake, "--install", options.build, "--prefix", "/opt/metadata",
            env=dict(os.environ, DESTDIR=str(staged)))
        self.assertEqual(self.names(staged / "opt/metadata"), self.names(self.prefix))
        shutil.rmtree(staged)

    def test_every_header_and_page_is_there(self):
        def count(pattern):
            return len(list(self.prefix.glob(pattern)))
        self.assertEqual(count("include/metadata_lib/metadata_lib.h"), 1)
        self.assertEqual(count("include/metadata_host/host*.h"), len(list((SOURCE / "host").glob("*.h"))) + 1)
        self.assertEqual([count(f"share/man/man{section}/*.{section}") for section in (1, 3, 5)], [3, 1, 1])
        self.assertEqual(count("share/doc/*/docs/**/*.md"), len(list((SOURCE / "docs").rglob("*.md"))))
        for name in ("README.md", "CHANGELOG.md", "CONTRIBUTING.md", "LICENSE", "NOTICE", "example/Makefile"):
            self.assertEqual(count("share/doc/*/" + name), 1, name)


unittest.main(argv=["tree_test"] + rest)
