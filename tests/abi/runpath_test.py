#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Programs look for shared libraries only relative to themselves, in the build tree and after an installation: the run
path has no empty element, which means the current folder, and no folder of the machine that built them."""
import argparse
import os
import pathlib
import re
import shutil
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--build", required=True)
parser.add_argument("--encoder", required=True)
parser.add_argument("--cmake", required=True)
options, rest = parser.parse_known_args()


def is_elf(path):
    if path.is_symlink() or not path.is_file() or not os.access(path, os.X_OK):
        return False
    with open(path, "rb") as file:
        header = file.read(18)
    return header[:4] == b"\x7fELF" and header[16] in (2, 3)


def dynamic(path):
    return subprocess.run(["readelf", "-d", path], check=True, capture_output=True, text=True).stdout


def runpaths(folder):
    for path in folder.rglob("*"):
        if is_elf(path):
            for value in re.findall(r"\((?:RUNPATH|RPATH)\).*\[(.*)\]", dynamic(path)):
                yield path, value


class Runpath(unittest.TestCase):
    def check(self, folder):
        seen = 0
        for path, value in runpaths(folder):
            seen += 1
            for element in value.split(":"):
                self.assertTrue(element == "$ORIGIN" or element.startswith("$ORIGIN/"), f"{path}: [{value}]")
        return seen

    def test_programs_of_the_build_tree_find_the_library_from_where_they_stand(self):
        self.assertGreaterEqual(self.check(pathlib.Path(options.build)), 2)

    def test_the_build_trees_encoder_takes_its_own_library_and_none_of_the_current_folder(self):
        with tempfile.TemporaryDirectory() as folder:
            (pathlib.Path(folder) / "libmetadata_lib.so.1").write_text("planted")
            (pathlib.Path(folder) / "ok.ini").write_text("[udp]\ninput = udp\nport = 15674\nfamily = ipv4\n")
            run = subprocess.run([options.encoder, "ok.ini", "--duration", "0.2"], cwd=folder, capture_output=True,
                                 text=True, timeout=60, env={"PATH": os.environ["PATH"]})
            self.assertEqual(run.returncode, 0, run.stderr)

    def test_an_installed_encoder_finds_the_installed_library(self):
        with tempfile.TemporaryDirectory() as folder:
            prefix = pathlib.Path(folder) / "prefix"
            for component in ("library", "tools"):
                subprocess.run([options.cmake, "--install", options.build, "--prefix", prefix, "--component", component],
                               check=True, capture_output=True)
            self.assertGreaterEqual(self.check(prefix), 1)
            moved = pathlib.Path(folder) / "moved"
            shutil.move(prefix, moved)
            (pathlib.Path(folder) / "ok.ini").write_text("[udp]\ninput = udp\nport = 15674\nfamily = ipv4\n")
            run = subprocess.run([moved / "bin" / "mdencoder", "ok.ini", "--duration", "0.2"], cwd=folder,
                                 capture_output=True, text=True, timeout=60, env={"PATH": os.environ["PATH"]})
            self.assertEqual(run.returncode, 0, run.stderr)


unittest.main(argv=["runpath_test"] + rest)
