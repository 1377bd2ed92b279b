#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/mutate.py breaks code and nothing else, tries each break in a copy, and tells which ones no test found."""
import argparse
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()
sys.path.insert(0, str(options.source / "scripts"))
sys.dont_write_bytecode = True
import mutate  # noqa: E402

CODE = """#include "half.h"
// Returns less than 5 < 6.
int Half(int value, bool isUp) {
  if (value < 10 && isUp) ++value;
  MD_LOG(5, "%d of 7.\\n", value);
  Note(value);
  return value / 2 + 1'000;
}
"""
PROJECT = """cmake_minimum_required(VERSION 3.25)
project(small LANGUAGES CXX)
enable_testing()
add_executable(unit_mdencoder encoder/small.cpp tests/unit/mdencoder/small_test.cpp)
add_test(NAME unit_mdencoder COMMAND unit_mdencoder)
"""
PRESETS = """{"version": 6,
  "configurePresets": [{"name": "dev", "generator": "Ninja", "binaryDir": "${sourceDir}/build/dev"}],
  "buildPresets": [{"name": "dev", "configurePreset": "dev"}],
  "testPresets": [{"name": "dev", "configurePreset": "dev"}]}
"""
# The test does not look at what becomes of numbers from 10.
SMALL = """bool IsSmall(int value) {
  while (value > 99) --value;
  return value < 10;
}
"""
TEST = """bool IsSmall(int value);
int main() { return IsSmall(9) && !IsSmall(50) ? 0 : 1; }
"""


class Breaks(unittest.TestCase):
    def breaks(self, text):
        return [each.apply(text).split("\n")[each.line - 1].strip() for each in mutate.breaks_of("half.cpp", text)]

    def test_each_kind_stands_for_itself(self):
        found = self.breaks(CODE)
        for line in ("if (value <= 10 && isUp) ++value;", "if (value < 11 && isUp) ++value;",
                     "if (value < 10 || isUp) ++value;", "if (!(value < 10 && isUp)) ++value;",
                     "if (value < 10 && isUp) --value;", ";", "return value / 3 + 1'000;", "return value / 2 - 1'000;",
                     "return value / 2 + 1001;"):
            self.assertIn(line, found)
        self.assertEqual(len(found), 9)

    def test_a_break_is_told_with_its_place(self):
        told = [each.tell(CODE) for each in mutate.breaks_of("half.cpp", CODE)]
        self.assertIn('half.cpp:4: "<=" for "<"', told)
        self.assertIn('half.cpp:6: without "Note(value);"', told)


class Run(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for name, text in (("CMakeLists.txt", PROJECT), ("CMakePresets.json", PRESETS), (".gitignore", "build/\n"),
                           ("encoder/small.cpp", SMALL), ("tests/unit/mdencoder/small_test.cpp", TEST)):
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            (self.tree / name).write_text(text)
        (self.tree / "scripts").mkdir()
        shutil.copy(options.source / "scripts/mutate.py", self.tree / "scripts")
        subprocess.run(["git", "init", "-q"], cwd=self.tree, check=True)

    def mutate(self, *arguments):
        done = subprocess.run([sys.executable, self.tree / "scripts/mutate.py", *arguments], cwd=self.tree, text=True,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout

    def test_a_break_that_no_test_finds_is_told(self):
        code, output = self.mutate("encoder/small.cpp", "--lines", "3")
        self.assertEqual((code, output.splitlines()), (1, ['encoder/small.cpp:3: "<=" for "<"', 'encoder/small.cpp:3: "11" for "10"',
                                                           "0 of 2 breaks were found; 0 more did not compile"]))
        self.assertEqual((self.tree / "encoder/small.cpp").read_text(), SMALL)

    def test_a_break_that_a_test_finds_is_counted(self):
        (self.tree / "tests/unit/mdencoder/small_test.cpp").write_text(TEST.replace("50", "10"))
        code, output = self.mutate("encoder/small.cpp", "--lines", "3", "--count", "1")
        self.assertEqual((code, output), (0, "1 of 1 breaks were found; 0 more did not compile\n"))

    def test_tests_must_succeed_first(self):
        (self.tree / "tests/unit/mdencoder/small_test.cpp").write_text(TEST.replace("50", "5"))
        code, output = self.mutate("encoder/small.cpp", "--lines", "3", "--count", "1")
        self.assertEqual(code, 2)
        self.assertIn("the tests fail without any break", output)

    def test_a_source_without_tests_is_refused(self):
        (self.tree / "other.cpp").write_text(SMALL)
        code, output = self.mutate("other.cpp")
        self.assertEqual((code, output), (2, "mutate: other.cpp: no folder of tests/unit tests it; --tests names what does\n"))


unittest.main(argv=["mutate_test"] + rest)
