#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every fenced block of README and docs says what it is, and is run or checked as that.

    ini           a configuration of mdencoder, or keys of a source: mdencoder reads it
    ini host      a configuration of the host runtime: mdencoder reads it
    ini library   the library's own file: rewriting_test.py runs the library with it
    ini unit      a change to a unit of systemd: boot_test.py starts the service with it
    sh            commands: a test runs them as they are printed, and has the name of the block as a literal
    text          what a program says: the words are those of the sources; text drawing is none
    json          one value, or one on each line
    c             a program, which tree_test.py builds and runs, or statements, which are compiled with the headers
    cmake         tree_test.py builds a program with these lines"""
import ast
import json
import pathlib
import re
import subprocess

import harness
import pages
from harness import EndToEndTest

SOURCE = pathlib.Path(harness.options.source)
HERE = pathlib.Path(__file__).parent
# Blocks that a script runs, with what prints the commands that it takes from the page. It takes too long for a test:
# scripts/fresh runs it in a bare root.
BY_SCRIPTS = {"docs/integration.md#1": ("scripts/follow-guide", "docs/integration.md", "--list")}
# A function around statements.
STATEMENTS = """#include "metadata_lib.h"
BOOL in_callback(MDATA_BUFFER* buffer);
void later(MDATA_BUFFER* buffer);
BOOL in_callback(MDATA_BUFFER* buffer) {{ {}
  return TRUE; }}
void later(MDATA_BUFFER* buffer) {{ {} }}
"""


def all_blocks():
    for page in pages.pages(SOURCE):
        for line, kind, body in pages.fenced(page):
            yield page, line, kind, body


def runners():
    """Returns the names of blocks that stand in the tests as literals, each with the tests that have it."""
    found = {}
    for path in sorted((SOURCE / "tests").rglob("*_test.py")):
        if path.resolve() == pathlib.Path(__file__).resolve():
            continue
        for node in ast.walk(ast.parse(path.read_text())):
            if isinstance(node, ast.Constant) and isinstance(node.value, str) and pages.NAME.fullmatch(node.value):
                found.setdefault(node.value, set()).add(path)
    return found


def literals():
    """Returns the texts of the programs' sources, joined as the compiler joins them, with one space for what is put in."""
    text = ""
    for folder in ("encoder", "host_runtime", "formats"):
        for path in sorted((SOURCE / folder).rglob("*.cpp")):
            text += re.sub(r'"\s*\n\s*"', "", path.read_text())
    return text


class Docs(EndToEndTest):
    def each(self, *kinds):
        """Returns the blocks of some kinds, with their pages. A fault is told with the place that was looked at last."""
        for page, line, kind, body in all_blocks():
            if kind in kinds:
                self.place = f"{page.relative_to(SOURCE)}:{line}"
                yield page, body

    def test_each_block_says_what_it_is(self):
        known = {"ini", "ini host", "ini library", "ini unit", "sh", "text", "text drawing", "json", "c", "cmake"}
        for page, line, kind, _ in all_blocks():
            self.assertIn(kind, known, f"{page}:{line}")

    def check_text(self, config, *arguments):
        path = self.folder / "page.ini"
        path.write_text(config)
        done = subprocess.run([harness.options.encoder, path, "--check-text", *arguments], capture_output=True, text=True,
                              timeout=60 * harness.SLOW)
        self.assertEqual(done.returncode, 0, f"{self.place}: {done.stderr}")

    def test_configurations_are_right(self):
        source = "[source]\ninput = udp\nport = 5000\n"
        for _, config in self.each("ini"):
            text = config if re.search(r"^\[", config, re.M) else source + config
            # A file with settings of the encoder only has its sources elsewhere.
            sections = set(re.findall(r"^\[([^]\s]+)", text, re.M)) - {"encoder"}
            self.check_text(text if sections else text + source)

    def test_files_of_the_host_are_right(self):
        for _, config in self.each("ini host"):
            (self.folder / "host.ini").write_text(config)
            self.check_text("[source]\ninput = udp\nport = 5000\n", "--host-config", str(self.folder / "host.ini"))

    def test_other_files_are_read_by_their_tests(self):
        for kind, name in (("ini library", "rewriting_test.py"), ("ini unit", "boot_test.py")):
            self.assertIn(f'pages.blocks(page, "{kind}")', (HERE / name).read_text())

    def test_each_block_of_commands_is_run(self):
        found = runners()
        self.assertEqual(set(found) | set(BY_SCRIPTS), set(pages.names(SOURCE)))
        for name, tests in found.items():
            for path in tests:
                lists = (path.parent / "CMakeLists.txt").read_text()
                known = re.search(rf"\b{path.stem.removesuffix('_test')}\b", lists)
                self.assertTrue(known, f"{path} runs {name}, and is no test")

    def test_scripts_run_the_blocks_that_are_theirs(self):
        for name, (script, *words) in BY_SCRIPTS.items():
            taken = subprocess.run([SOURCE / script, *words], cwd=SOURCE, capture_output=True, text=True, check=True).stdout
            printed = [re.sub(r"  *# .*", "", command) for command in pages.commands(pages.block(SOURCE, name))]
            self.assertEqual(taken.splitlines(), printed, name)
            self.assertIn(f"{script} ", (SOURCE / "scripts/fresh").read_text())

    def test_lines_are_those_of_the_programs(self):
        texts = literals()
        for _, body in self.each("text"):
            for line in body.splitlines():
                # What the program puts in is a number, a name in brackets, an address or a quotation.
                pieces = re.split(r'"[^"]*"|\[[^]]*\]|\S*[/\d.]\S*|=|source \w+|,|: | must be ', line.removeprefix("mdencoder: "))
                words = [piece.strip(" :;()") for piece in pieces]
                self.assertTrue(any(len(each) >= 8 and each in texts for each in words), f"{self.place}: {line}")

    def test_values_are_json(self):
        for _, body in self.each("json"):
            try:
                json.loads(body)
            except ValueError:
                for line in body.splitlines():
                    json.loads(line)

    def test_c_is_compiled(self):
        """Statements before a line of dots are those of a callback, and others come later."""
        readme = (SOURCE / "example/encoder.c").read_text()
        folders = [f"-I{SOURCE / name}" for name in ("metadata_lib/include", "host")]
        for _, body in self.each("c"):
            text = body if "int main(" in body else STATEMENTS.format(*(body.split("...\n") + [""])[:2])
            self.assertTrue(text != body or body == readme, f"{self.place}: only the README's program is run")
            done = subprocess.run(["cc", "-std=gnu11", "-Wall", "-Wextra", "-Werror", "-fsyntax-only", *folders, "-x", "c", "-"],
                                  input=text, capture_output=True, text=True)
            self.assertEqual(done.returncode, 0, f"{self.place}: {done.stderr}")

    def test_cmake_is_that_of_the_readme(self):
        self.assertEqual([page.name for page, _ in self.each("cmake")], ["README.md"])


if __name__ == "__main__":
    harness.main()
