#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The stripped library of 64-bit Arm stays below its limit, and has no tables for unwinding."""
import argparse
import pathlib
import re
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--library", required=True)
parser.add_argument("--strip", required=True)
parser.add_argument("--limit", required=True, type=int)
options, rest = parser.parse_known_args()


class Size(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.stripped = pathlib.Path(folder.name) / "library.so"
        subprocess.run([options.strip, "-o", self.stripped, options.library], check=True)

    def test_the_stripped_file_is_small(self):
        self.assertLess(self.stripped.stat().st_size, options.limit)

    def test_functions_have_no_tables_for_unwinding(self):
        sections = subprocess.run(["readelf", "-SW", self.stripped], check=True, capture_output=True, text=True).stdout
        size = re.search(r"\.eh_frame +\w+ +\w+ +\w+ +(\w+)", sections)
        self.assertLess(int(size.group(1), 16) if size else 0, 1024, "those of the compiler's start files alone are less")


unittest.main(argv=["size_test"] + rest)
