#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The shared library exports exactly the names of its map, needs only libc, and leaves only libc's names and the host
services undefined."""
import argparse
import pathlib
import re
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--library", required=True)
parser.add_argument("--map", required=True)
parser.add_argument("--host", required=True)
options, rest = parser.parse_known_args()


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True).stdout


class Exports(unittest.TestCase):
    def test_exports_exactly_the_names_of_the_map(self):
        listed = set(re.findall(r"^    (\w+);", pathlib.Path(options.map).read_text(), re.M))
        defined = {line.split()[-1].split("@")[0] for line in
                   output("nm", "-D", "--defined-only", options.library).splitlines()}
        defined.discard("METADATA_LIB_1")
        self.assertEqual(defined, listed)

    def test_needs_nothing_but_libc(self):
        needed = re.findall(r"\(NEEDED\).*\[(.*)\]", output("readelf", "-d", options.library))
        self.assertEqual([name for name in needed if not name.startswith("ld-linux")], ["libc.so.6"])

    def test_soname_carries_the_major_version(self):
        self.assertIn("[libmetadata_lib.so.1]", output("readelf", "-d", options.library))

    def test_reaches_its_own_names_without_a_look_up(self):
        listed = set(re.findall(r"^    (\w+);", pathlib.Path(options.map).read_text(), re.M))
        looked_up = {word.split("@")[0] for word in output("readelf", "-rW", options.library).split()}
        self.assertEqual(looked_up & listed, set())

    def test_undefined_names_are_libc_or_host_services(self):
        declared = "".join(path.read_text() for path in pathlib.Path(options.host).glob("*.h"))
        services = set(re.findall(r"\b(\w+)\(", declared)) | {"g_bThreadStateDebuggingEnabled"}
        undefined = set()
        for line in output("nm", "-D", "--undefined-only", options.library).splitlines():
            kind, name = line.split()[-2:]
            if kind == "U" and "@GLIBC" not in name:
                undefined.add(name)
        self.assertEqual(undefined - services, set())


unittest.main(argv=["exports_test"] + rest)
