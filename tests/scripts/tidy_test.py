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

# Stands for clang-tidy: it records its arguments and rejects a source or header that contains BAD, and a file that
# includes such a source, two sources that contain MEET, or, if it has the rest of a batch, a source that contains LATER.
TIDY = """#!/bin/sh
[ "$1" = --version ] && exit 0
for word; do case $word in --) break ;; *.cpp | *.c) source=$word ;; esac; done
echo "$source" >> calls
echo "$@" >> commands
parts=$(sed -n 's/^#include "\\(.*\\.cpp\\)"$/\\1/p' "$source")
result=0
for bad in $(grep -l BAD "$source" header.h $parts); do
  echo "$bad:1:1: error: invalid case style for function 'BAD' [names]"
  result=1
done
set -- $(grep -l MEET $parts /dev/null)
first=$1
for other; do
  [ "$other" = "$first" ] && continue
  printf "%s:1:1: error: redefinition of 'MEET' [names]\n%s:1:1: note: previous one\n" "$other" "$first"
  result=1
done
case $source in *_rest.cpp) grep -q LATER $parts && result=1 ;; esac
exit $result
"""
NAMES = [f"tests/unit/{name}_test.cpp" for name in ("one", "two", "three", "four")]
PROGRAM = ["tools/main.cpp", "tools/one.cpp", "tools/three.cpp", "tools/two.cpp"]
ALONE = "{}:1:1: error: invalid case style for function 'BAD' [names]\n\n"


class Tidy(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for name in ("scripts", "bin", "build/tidy", "deep", "fuzz", "metadata_lib", "tests/unit", "tools"):
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

    def compile(self, *names, **more):
        entries = [{"directory": str(self.tree / "build/tidy"), "file": str(self.tree / name),
                    "command": self.command.format(self.tree / name) + more.get(pathlib.Path(name).stem, "")}
                   for name in names]
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
        self.assertEqual(self.both(), (1, ALONE.format("two.cpp"), ["deep/one.cpp", "two.cpp"]))
        self.assertEqual(self.both(), (1, ALONE.format("two.cpp"), ["two.cpp"]))

    def test_a_change_in_a_header_even_of_a_comment_is_looked_at(self):
        self.both()
        self.write("header.h", "int Answer();  // BAD\n")
        self.assertEqual(self.both()[::2], (1, ["deep/one.cpp", "two.cpp"]))

    def test_a_header_whose_name_has_a_blank_is_looked_at(self):
        self.write("odd header.h", "int Other();\n")
        self.write("two.cpp", f'#include "{self.tree}/odd header.h"\n')
        self.both()
        self.write("odd header.h", "long Other();\n")
        self.assertEqual(self.both()[2], ["two.cpp"])

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

    def names(self, *names):
        code, said, calls = self.tidy("--names", *(names or ["two.cpp", *NAMES]))
        return code, said, [call.removeprefix(f"{self.tree}/") for call in calls]

    def header_first(self):
        header = f'"{self.tree}/header.h"'
        return f"#if __has_include({header})\n#include {header}\n#endif\n"

    def with_program(self, **more):
        for name in PROGRAM:
            self.write(name, f'#define MODULE "{name}"\n#include "{self.tree}/header.h"\n')
        self.compile(*PROGRAM, **more)

    def together(self, number=0):
        return (self.tree / f"build/tidy/batch_{number}.cpp").read_text()

    def test_names_of_tests_are_checked_together(self):
        self.with_tests()
        self.assertEqual(self.names(), (0, "", ["build/tidy/batch_0.cpp", "two.cpp"]))
        self.assertEqual(self.names(), (0, "", []))
        together = self.together()
        self.assertTrue(together.startswith(self.header_first()))
        for index, name in enumerate(NAMES):
            self.assertIn(f'namespace batch_{index} {{\n#include "{self.tree}/{name}"\n}}\n', together)

    def test_a_bad_name_among_tests_is_found_and_its_test_named(self):
        self.with_tests()
        with open(self.tree / NAMES[2], "a") as file:
            file.write("// BAD\n")
        self.assertEqual(self.names()[:2], (1, ALONE.format(NAMES[2])))
        self.assertEqual(self.names(), (1, ALONE.format(NAMES[2]), [NAMES[2]]))

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

    def test_sources_of_a_program_are_checked_together_as_they_are(self):
        self.with_program()
        self.assertEqual(self.names(*PROGRAM), (0, "", ["build/tidy/batch_0.cpp"]))
        self.assertEqual(self.names(*PROGRAM), (0, "", []))
        self.assertEqual(self.together(), self.header_first() + "".join(
            f'#pragma push_macro("MODULE")\n#undef MODULE\n#include "{self.tree}/{name}"\n'
            '#pragma pop_macro("MODULE")\n' for name in PROGRAM))

    def test_sources_that_are_compiled_in_another_way_are_checked_apart(self):
        self.with_program(main=" -DMODE", one=" -DMODE")
        self.assertEqual(self.names(*PROGRAM), (0, "", ["build/tidy/batch_0.cpp", "build/tidy/batch_1.cpp"]))
        self.assertEqual([self.together(number).count("#undef") for number in (0, 1)], [2, 2])

    def test_macros_that_are_texts_may_be_those_of_one_source(self):
        self.with_program(main=""" '-DVERSION="1"'""", one=""" '-DFOLDER="2"'""")
        self.assertEqual(self.names(*PROGRAM)[2], ["build/tidy/batch_0.cpp"])
        self.assertIn(' -DVERSION="1" -DFOLDER="2" ', (self.tree / "commands").read_text())

    def test_sources_with_different_texts_for_a_macro_are_checked_apart(self):
        self.with_program(main=""" '-DVERSION="1"'""", one=""" '-DVERSION="2"'""")
        self.assertEqual(self.names(*PROGRAM)[2], ["build/tidy/batch_0.cpp", "tools/one.cpp"])

    def test_c_sources_and_the_library_are_checked_one_by_one(self):
        names = ["metadata_lib/one.cpp", "metadata_lib/two.cpp", "tools/one.c", "tools/two.c"]
        for name in names:
            self.write(name, "int Answer();\n")
        self.compile(*names)
        self.assertEqual(self.names(*names), (0, "", names))

    def test_entry_points_stand_in_namespaces(self):
        names = ["fuzz/one.cpp", "fuzz/two.cpp", "tools/one.cpp", "tools/two.cpp"]
        for name in names:
            entry = "int main() {" if name.startswith("tools") else 'extern "C" int LLVMFuzzerTestOneInput() {'
            self.write(name, f"{entry}  return 0;\n}}\n")
        self.compile(*names)
        self.assertEqual(self.names(*names), (0, "", ["build/tidy/batch_0.cpp"]))
        compiled = subprocess.run(["clang++-14", "-fsyntax-only", self.tree / "build/tidy/batch_0.cpp"], text=True,
                                  stderr=subprocess.PIPE)
        self.assertEqual((compiled.returncode, compiled.stderr), (0, ""))

    def test_a_bad_name_in_a_program_costs_one_more_look_at_the_rest(self):
        self.with_program()
        with open(self.tree / PROGRAM[1], "a") as file:
            file.write("// BAD\n")
        self.assertEqual(self.names(*PROGRAM), (1, ALONE.format(PROGRAM[1]), [
            "build/tidy/batch_0.cpp", "build/tidy/batch_0_rest.cpp", PROGRAM[1]]))
        self.assertEqual(self.names(*PROGRAM), (1, ALONE.format(PROGRAM[1]), [PROGRAM[1]]))

    def test_a_bad_name_in_a_header_is_shown_for_each_source(self):
        self.with_program()
        self.write("header.h", "int Answer();  // BAD\n")
        code, said, calls = self.names(*PROGRAM)
        self.assertEqual((code, calls), (1, ["build/tidy/batch_0.cpp", *PROGRAM]))
        self.assertEqual(said, ALONE.format("header.h") * len(PROGRAM))

    def test_names_that_meet_are_told_and_are_no_fault(self):
        self.with_program()
        for name in PROGRAM[1], PROGRAM[3]:
            with open(self.tree / name, "a") as file:
                file.write("// MEET\n")
        self.assertEqual(self.names(*PROGRAM), (
            0, f"checked one by one, because names meet: MEET ({PROGRAM[3]}, {PROGRAM[1]})\n",
            ["build/tidy/batch_0.cpp", "build/tidy/batch_0_rest.cpp", PROGRAM[3]]))
        self.assertEqual(self.names(*PROGRAM), (0, "", []))

    def test_sources_whose_names_meet_are_both_looked_at(self):
        for bad in PROGRAM[1], PROGRAM[3]:
            self.with_program()
            for name in PROGRAM[1], PROGRAM[3]:
                with open(self.tree / name, "a") as file:
                    file.write(f"// MEET {'BAD' if name == bad else 'GOOD'}\n")
            code, said, calls = self.names(*PROGRAM)
            self.assertEqual((code, said), (1, ALONE.format(bad)))
            self.assertIn(bad, calls)

    def test_all_are_looked_at_one_by_one_when_the_rest_fails_too(self):
        self.with_program()
        for name, mark in zip(PROGRAM, ("LATER", "BAD")):
            with open(self.tree / name, "a") as file:
                file.write(f"// {mark}\n")
        self.assertEqual(self.names(*PROGRAM), (1, ALONE.format(PROGRAM[1]), [
            "build/tidy/batch_0.cpp", "build/tidy/batch_0_rest.cpp", *PROGRAM]))

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
