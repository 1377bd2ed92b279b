#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/tidy.py checks every source, and checks it again only if something changed that the result depends on."""
import argparse
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

# Stands for clang-tidy: it records its arguments and rejects a source or header that contains BAD.
TIDY = """#!/bin/sh
[ "$1" = --version ] && exit 0
for source; do :; done
echo "$source" >> calls
grep -q BAD "$source" header.h && { echo "$source is bad"; exit 1; }
exit 0
"""


class Tidy(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for name in ("scripts", "bin", "build/tidy", "deep"):
            (self.tree / name).mkdir(parents=True)
        shutil.copy(options.source / "scripts/tidy.py", self.tree / "scripts")
        (self.tree / "bin/clang-tidy-14").write_text(TIDY)
        (self.tree / "bin/clang-tidy-14").chmod(0o755)
        self.write(".clang-tidy", "Checks: '*'\n")
        self.write("header.h", "int Answer();\n")
        for name in ("deep/one.cpp", "two.cpp"):
            self.write(name, f'#include "{self.tree}/header.h"\nint Answer() {{ return 42; }}\n')
        self.command = "clang++-14 -o {0}.o -c {0}"
        self.compile("deep/one.cpp", "two.cpp")

    def write(self, name, text):
        (self.tree / name).write_text(text)

    def compile(self, *names):
        entries = [{"directory": str(self.tree / "build/tidy"), "file": str(self.tree / name),
                    "command": self.command.format(self.tree / name)} for name in names]
        self.write("build/tidy/compile_commands.json", json.dumps(entries))

    def tidy(self, *names):
        """Returns the exit code, the output, and the sources that were checked."""
        (self.tree / "calls").write_text("")
        done = subprocess.run([self.tree / "scripts/tidy.py", *names], cwd=self.tree, text=True,
                              env={**os.environ, "PATH": f"{self.tree}/bin:{os.environ['PATH']}"},
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.returncode, done.stdout, sorted((self.tree / "calls").read_text().split())

    def both(self):
        return self.tidy("deep/one.cpp", "two.cpp")

    def test_a_clean_source_is_looked_at_once(self):
        self.assertEqual(self.both(), (0, "", ["deep/one.cpp", "two.cpp"]))
        self.assertEqual(self.both(), (0, "", []))

    def test_a_bad_source_is_looked_at_every_time(self):
        with open(self.tree / "two.cpp", "a") as file:
            file.write("// BAD\n")
        self.assertEqual(self.both(), (1, "two.cpp is bad\n\n", ["deep/one.cpp", "two.cpp"]))
        self.assertEqual(self.both(), (1, "two.cpp is bad\n\n", ["two.cpp"]))

    def test_a_change_in_a_header_even_of_a_comment_is_looked_at(self):
        self.both()
        self.write("header.h", "int Answer();  // BAD\n")
        self.assertEqual(self.both()[::2], (1, ["deep/one.cpp", "two.cpp"]))

    def test_a_change_of_the_checks_or_the_command_is_looked_at(self):
        self.both()
        self.write("deep/.clang-tidy", "Checks: '-*'\n")
        self.assertEqual(self.both()[2], ["deep/one.cpp"])
        self.write(".clang-tidy", "Checks: 'bugprone-*'\n")
        self.assertEqual(self.both()[2], ["deep/one.cpp", "two.cpp"])
        self.command += " -DMORE"
        self.compile("deep/one.cpp", "two.cpp")
        self.assertEqual(self.both()[2], ["deep/one.cpp", "two.cpp"])

    def test_a_source_that_nothing_compiles_is_named(self):
        self.compile("two.cpp")
        code, said, _ = self.both()
        self.assertEqual((code, said), (1, "deep/one.cpp: is part of no target\n"))

    def test_a_source_that_does_not_compile_is_named(self):
        self.write("two.cpp", '#include "absent.h"\n')
        code, said, _ = self.both()
        self.assertEqual(code, 1)
        self.assertIn("two.cpp: cannot be preprocessed", said)


if __name__ == "__main__":
    unittest.main(argv=["tidy_test"] + rest)
