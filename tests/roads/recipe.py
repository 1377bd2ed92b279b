# SPDX-License-Identifier: Apache-2.0
"""Runs the recipes of the documentation as they are printed: configurations, and commands in one folder."""
import os
import pathlib
import re
import subprocess

import harness

FENCE = re.compile(r"^```([^\n]*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)


def pages():
    """Returns the pages of the documentation whose blocks are checked, as paths below the source folder."""
    source = pathlib.Path(harness.options.source)
    return [source / "README.md", *sorted((source / "docs").rglob("*.md"))]


def blocks(page, language):
    """Returns the fenced blocks of a page below docs/ in one language."""
    text = (pathlib.Path(harness.options.source) / "docs" / f"{page}.md").read_text()
    return [body for info, body in FENCE.findall(text) if info == language]


class Recipe:
    """The recipe of a page below docs/. A configuration has the name in its first line ("; camera.ini"), or else
    outputs.ini, outputs1.ini and so on; the commands are those of the first block, and find the programs by their names."""

    def __init__(self, test, page, **more):
        self.test = test
        self.folder = test.folder
        for number, text in enumerate(blocks(page, "ini")):
            named = re.match(r"; (\S+\.ini)\n", text)
            name = named[1] if named else f"outputs{number or ''}.ini"
            (self.folder / name).write_text(text)
        self.commands = blocks(page, "sh")[0].strip().splitlines()
        self.environment = {**os.environ, "TZ": "UTC", "PATH": f"{self.folder}/bin:{os.environ['PATH']}", **more}
        (self.folder / "bin").mkdir(exist_ok=True)
        self.script("mdfeed", f'exec "{pathlib.Path(harness.options.feed).resolve()}" "$@"')
        self.script("mdencoder", 'case "$1" in inspect | decode) ;; *) set -- "$@" --library '
                    f'"{pathlib.Path(harness.options.library).resolve()}" ;; esac\n'
                    f'exec "{pathlib.Path(harness.options.encoder).resolve()}" "$@"')

    def script(self, name, text):
        path = self.folder / "bin" / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def start(self, number, **more):
        """Starts a command, and returns its process."""
        command = self.commands[number].removesuffix(" &")
        return self.test.start("sh", "-c", "exec " + command, cwd=self.folder, env=self.environment, **more)

    def run(self, number, expected=0):
        """Runs a command to its end, and returns what it printed."""
        done = subprocess.run(["sh", "-c", self.commands[number]], cwd=self.folder, env=self.environment,
                              capture_output=True, text=True, timeout=60 * harness.SLOW)
        self.test.assertEqual(done.returncode, expected, f"{self.commands[number]}: {done.stderr}")
        return done.stdout

    def run_all(self):
        """Runs the commands one after the other, those with "&" beside the others. Returns what the last one printed."""
        for number, command in enumerate(self.commands[:-1]):
            if command.endswith(" &"):
                self.start(number)
            else:
                self.run(number)
        return self.run(len(self.commands) - 1)
