#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Runs scripts/check in a tree from an archive, on a machine without git: it finds every source and every violation."""
import argparse
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

PROGRAMS = "bash basename dirname nproc env find sed sort grep uniq xargs cat python3 clang-format-14".split()
MARK = "// SPDX-License-Identifier: Apache-2.0\n"
GOOD = "int Answer() {\n  return 42;\n}\n"


class CheckWithoutGit(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        base = pathlib.Path(folder.name)
        self.programs = base / "bin"
        self.programs.mkdir()
        for name in PROGRAMS:
            (self.programs / name).symlink_to(shutil.which(name))
        self.tree = base / "tree"
        for name in ("scripts", "metadata_lib", "tests", "fuzz", "bench", "tools/deep", "build/dev", "out"):
            (self.tree / name).mkdir(parents=True)
        for name in ("check", "check_source.py", "common.sh", "includes.py"):
            shutil.copy(options.source / "scripts" / name, self.tree / "scripts" / name)
        shutil.copy(options.source / ".clang-format", self.tree)
        for name in ("metadata_lib/good.cpp", "metadata_lib/good.h", "tools/deep/good.cpp",
                     "tests/good.cpp", "fuzz/good.cpp", "bench/good.cpp"):
            self.write(name, GOOD)

    def write(self, name, text):
        (self.tree / name).write_text(MARK + text)

    def check(self):
        done = subprocess.run([self.tree / "scripts/check"], env={"PATH": str(self.programs)}, cwd="/",
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        return done.returncode, done.stdout

    def test_git_is_out_of_reach(self):
        self.assertIsNone(shutil.which("git", path=str(self.programs)))
        self.assertFalse(any((parent / ".git").exists() for parent in self.tree.parents))

    def test_a_clean_tree_passes(self):
        self.assertEqual(self.check(), (0, "== Checking the source\n"))

    def test_a_source_without_its_licence_is_named(self):
        (self.tree / "fuzz/bad.cpp").write_text(GOOD)
        (self.tree / "tests/bad.py").write_text("print()\n")
        self.assertEqual(self.check(), (1, "== Checking the source\n" + "".join(
            f'no line "SPDX-License-Identifier: Apache-2.0": {name}\n' for name in ("fuzz/bad.cpp", "./tests/bad.py"))))

    def test_bad_format_anywhere_is_named(self):
        self.write("tools/deep/bad.cpp", "int  Answer( ) {return 42;}\n")
        code, text = self.check()
        self.assertNotEqual(code, 0)
        self.assertIn("tools/deep/bad.cpp", text)

    def test_a_mark_in_the_library_is_named(self):
        self.write("metadata_lib/bad.cpp", GOOD.replace("42;", "42;  // TO" + "DO"))
        code, text = self.check()
        self.assertNotEqual(code, 0)
        self.assertIn("metadata_lib/bad.cpp:3: unfinished mark", text)

    def test_a_header_that_is_missing_is_named(self):
        self.write("tests/bad.cpp", "std::vector<int> g_numbers;\n")
        self.assertEqual(self.check(), (1, "== Checking the source\ntests/bad.cpp: does not include <vector>\n"))

    def test_a_missing_header_is_named_in_every_folder(self):
        for name in ("metadata_lib", "host", "host_runtime/deep", "encoder", "tools/deep", "formats", "new"):
            (self.tree / name).mkdir(parents=True, exist_ok=True)
            self.write(f"{name}/bad.h", "std::vector<int> Numbers();\n")
            with self.subTest(folder=name):
                self.assertEqual(self.check(),
                                 (1, f"== Checking the source\n{name}/bad.h: does not include <vector>\n"))
            (self.tree / name / "bad.h").unlink()

    def test_a_header_is_named_as_c_spells_it_where_c_reads_it(self):
        self.write("bench/bad.c", "uint8_t g_number;\n")
        self.assertEqual(self.check(), (1, "== Checking the source\nbench/bad.c: does not include <stdint.h>\n"))
        self.write("bench/bad.c", "#include <stdint.h>\n\nuint8_t g_number;\n")
        self.assertEqual(self.check()[0], 0)

    def test_a_header_that_is_not_used_is_named(self):
        self.write("bench/bad.cpp", "#include <map>\n\nint g_number;  // not a std::map\n")
        self.assertEqual(self.check(), (1, "== Checking the source\nbench/bad.cpp: includes <map> without need\n"))

    def test_a_source_may_rely_on_its_own_header(self):
        self.write("tests/pair.h", "#include <vector>\n\nstd::vector<int> Numbers();\n")
        self.write("tests/pair.cpp", '#include "pair.h"\n\nstd::vector<int> Numbers() {\n  return {};\n}\n')
        self.assertEqual(self.check()[0], 0)

    def test_generated_files_are_not_checked(self):
        for name in ("build/dev/generated.cpp", "out/generated.cpp"):
            self.write(name, "int  Answer( ) {return 42;}\n")
        self.assertEqual(self.check()[0], 0)


if __name__ == "__main__":
    unittest.main(argv=["check_test"] + rest)
