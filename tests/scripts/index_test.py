#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The pages name files, functions and tests that exist: the index of HACKING.md, the walks of docs/architecture.md, and
the rows of docs/kept.md."""
import argparse
import pathlib
import re
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()


def has(path, name):
    return re.search(rf"\b{re.escape(name)}\b", path.read_text(encoding="utf-8")) is not None


class Index(unittest.TestCase):
    def test_every_row_names_a_file_and_what_stands_in_it(self):
        text = (options.source / "HACKING.md").read_text(encoding="utf-8")
        section = text.split("## Where is it\n")[1].split("\n## ")[0]
        rows = [line.split("|")[1:4] for line in section.splitlines() if line.startswith("| ") and "`" in line]
        self.assertGreaterEqual(len(rows), 20)
        for question, file, functions in rows:
            path = options.source / file.strip().strip("`")
            self.assertTrue(path.is_file(), question)
            names = re.findall(r"`([^`]+)`", functions)
            self.assertTrue(names, question)
            for name in names:
                self.assertTrue(has(path, name), f"{question}: no {name} in {path}")


class Kept(unittest.TestCase):
    def test_every_row_names_tests_that_exist(self):
        sources = (options.source / "tests/unit").rglob("*_test.cpp")
        everything = "".join(path.read_text(encoding="utf-8") for path in sources)
        tests = set(re.findall(r"^TEST(?:_F|_P)?\((\w+), (\w+)\)", everything, re.M))
        tests |= {(suite, "*") for suite, _ in tests}
        text = (options.source / "docs/kept.md").read_text(encoding="utf-8")
        rows = [line for line in text.splitlines() if line.startswith("- ")]
        self.assertGreater(len(rows), 100)
        for row in rows:
            names = re.findall(r"`(\w+)\.(\w+|\*)`", row.rsplit(" - ", 1)[1])
            self.assertTrue(names, row)
            for name in names:
                self.assertIn(name, tests, row)


class Walks(unittest.TestCase):
    def test_every_function_exists(self):
        text = (options.source / "docs/architecture.md").read_text(encoding="utf-8")
        section = text.split("## The walk of one datagram\n")[1].split("\n## Ownership")[0]
        sources = [path for folder in ("metadata_lib", "host") for path in (options.source / folder).rglob("*.[ch]*")]
        everything = "\n".join(path.read_text(encoding="utf-8") for path in sources)
        files = {path.name for path in sources}
        names = set(re.findall(r"`([^`]+)`", section))
        self.assertGreater(len(names), 30)
        for name in names:
            if name in files:
                continue
            self.assertRegex(everything, rf"\b{re.escape(name)}\b")


if __name__ == "__main__":
    unittest.main(argv=["index_test"] + rest)
