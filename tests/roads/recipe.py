# SPDX-License-Identifier: Apache-2.0
"""Runs the recipes of docs/outputs as they are printed: a configuration, and commands for two shells in one folder."""
import os
import pathlib
import re
import subprocess

import harness


def blocks(page, language):
    """Returns the fenced blocks of a page of docs/outputs in one language."""
    text = (pathlib.Path(harness.options.source) / "docs/outputs" / f"{page}.md").read_text()
    return re.findall(rf"^```{language}\n(.*?)^```$", text, re.M | re.S)


class Recipe:
    """The recipe of a page: its configuration is outputs.ini, and the programs are found by their names."""

    def __init__(self, test, page, **more):
        self.test = test
        self.folder = test.folder
        for number, text in enumerate(blocks(page, "ini")):
            (self.folder / ("outputs.ini" if number == 0 else f"outputs{number}.ini")).write_text(text)
        (self.commands,) = [block.strip().splitlines() for block in blocks(page, "sh")][:1]
        self.environment = {**os.environ, "TZ": "UTC", "PATH": f"{self.folder}/bin:{os.environ['PATH']}", **more}
        (self.folder / "bin").mkdir()
        self.script("mdfeed", f'exec "{harness.options.feed}" "$@"')
        self.script("mdencoder", 'case "$1" in inspect | decode) ;; *) set -- "$@" --library '
                    f'"{harness.options.library}" ;; esac\nexec "{harness.options.encoder}" "$@"')

    def script(self, name, text):
        path = self.folder / "bin" / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def start(self, number, **more):
        """Starts a command, and returns its process."""
        return self.test.start("sh", "-c", "exec " + self.commands[number], cwd=self.folder, env=self.environment, **more)

    def run(self, number, expected=0):
        """Runs a command to its end, and returns what it printed."""
        done = subprocess.run(["sh", "-c", self.commands[number]], cwd=self.folder, env=self.environment,
                              capture_output=True, text=True, timeout=60 * harness.SLOW)
        self.test.assertEqual(done.returncode, expected, done.stderr)
        return done.stdout
