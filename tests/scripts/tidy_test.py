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

# Stands for clang-tidy: it records its arguments and rejects a source or header that contains BAD, and a source that
# includes such a test.
TIDY = """#!/bin/sh
[ "$1" = --version ] && exit 0
for word; do case $word in --) break ;; *.cpp) source=$word ;; esac; done
echo "$source" >> calls
tests=$(sed -n 's/^#include "\\(.*_test.cpp\\)"$/\\1/p' "$source")
grep -q BAD "$source" header.h $tests && { echo "$source is bad"; exit 1; }
exit 0
"""
NAMES = [f"tests/unit/{name}_test.cpp" for name in ("one", "two", "three", "four")]


class Tidy(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for name in ("scripts", "bin", "build/tidy", "deep", "tests/unit"):
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

    def with_tests(self):
        for name in NAMES:
            self.write(name, f'#include "{self.tree}/header.h"\nint Answer() {{ return 42; }}\n')
        self.compile("two.cpp", *NAMES)

    def names(self):
        code, said, calls = self.tidy("--names", "two.cpp", *NAMES)
        return code, said, [call.removeprefix(f"{self.tree}/") for call in calls]

    def test_names_of_tests_are_checked_together(self):
        self.with_tests()
        self.assertEqual(self.names(), (0, "", ["build/tidy/batch_0.cpp", "two.cpp"]))
        self.assertEqual(self.names(), (0, "", []))
        together = (self.tree / "build/tidy/batch_0.cpp").read_text()
        self.assertTrue(together.startswith(f'#include "{self.tree}/header.h"\n'))
        for index, name in enumerate(NAMES):
            self.assertIn(f'namespace batch_{index} {{\n#include "{self.tree}/{name}"\n}}\n', together)

    def test_a_bad_name_among_tests_is_found_and_its_test_named(self):
        self.with_tests()
        with open(self.tree / NAMES[2], "a") as file:
            file.write("// BAD\n")
        self.assertEqual(self.names()[:2], (1, f"{NAMES[2]} is bad\n\n"))
        self.assertEqual(self.names(), (1, f"{NAMES[2]} is bad\n\n", [NAMES[2]]))

    def test_a_test_that_opens_a_namespace_sees_the_real_one(self):
        self.with_tests()
        self.write(NAMES[0], "namespace real {\nint Answer();\n}\n")
        self.assertEqual(self.names()[0], 0)
        self.assertIn("namespace real {}\nnamespace batch_0::real {\nusing namespace ::real;\n}\n",
                      (self.tree / "build/tidy/batch_0.cpp").read_text())

    def test_a_test_in_a_nested_namespace_sees_the_real_ones(self):
        self.with_tests()
        self.write(NAMES[0], "namespace real::inner {\nint Answer();\n}\n")
        self.assertEqual(self.names()[0], 0)
        together = (self.tree / "build/tidy/batch_0.cpp").read_text()
        for name in ("real", "real::inner"):
            self.assertIn(f"namespace {name} {{}}\nnamespace batch_0::{name} {{\nusing namespace ::{name};\n}}\n", together)

    def test_what_passed_all_checks_has_good_names(self):
        self.both()
        self.assertEqual(self.tidy("--names", "deep/one.cpp", "two.cpp"), (0, "", []))

    def test_good_names_are_not_all_checks(self):
        self.tidy("--names", "deep/one.cpp", "two.cpp")
        self.assertEqual(self.both(), (0, "", ["deep/one.cpp", "two.cpp"]))

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
