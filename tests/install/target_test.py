#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The commands of docs/target.md make the library for 64-bit Arm, of no more than the size that the page promises."""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import sys
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
parser.add_argument("--folder", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()
SOURCE = options.source.resolve()
sys.path.append(str(SOURCE / "tests/roads"))
import pages


class Target(unittest.TestCase):
    def setUp(self):
        """A tree of links, of which only the folder of builds is its own. It is always at the same place, so that ccache
        knows what it has compiled there."""
        self.folder = options.folder.resolve()
        shutil.rmtree(self.folder, ignore_errors=True)
        self.folder.mkdir(parents=True)
        for path in SOURCE.iterdir():
            if path.name != "build":
                (self.folder / path.name).symlink_to(path)

    def test_the_page_makes_the_library(self):
        launchers = {f"CMAKE_{language}_COMPILER_LAUNCHER": "ccache" for language in ("C", "CXX")}
        done = subprocess.run(["sh", "-euc", pages.block(SOURCE, "docs/target.md#1")], cwd=self.folder, text=True,
                              capture_output=True, timeout=600, env={**os.environ, **launchers})
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertNotIn("not used by the project", done.stderr)
        library = (self.folder / "build/target/metadata_lib/libmetadata_lib.so").resolve()
        header = subprocess.run(["readelf", "-hS", "-W", library], check=True, capture_output=True, text=True).stdout
        self.assertRegex(header, r"Machine: +AArch64")
        self.assertNotIn(".symtab", header, "it is stripped")
        limit = re.search(r"holds the size below ([0-9,]+) bytes", (SOURCE / "docs/target.md").read_text())
        self.assertLess(library.stat().st_size, int(limit[1].replace(",", "")))


unittest.main(argv=["target_test"] + rest)
