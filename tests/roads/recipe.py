# SPDX-License-Identifier: Apache-2.0
"""Runs the commands of the documentation as they are printed, in one folder with the configurations of their page."""
import os
import pathlib
import re
import subprocess

import harness
import pages

SOURCE = pathlib.Path(harness.options.source)


class Recipe:
    """The commands of a block ("docs/outputs/cot.md#1"), which find the programs by their names. The configurations of its
    page are beside them, named by their first lines ("; camera.ini") or else outputs.ini, outputs1.ini and so on. The test
    fails if it does not run every command."""

    def __init__(self, test, name, **more):
        self.test = test
        self.folder = test.folder
        for number, text in enumerate(pages.blocks(SOURCE / name.split("#")[0], "ini")):
            named = re.match(r"; (\S+\.ini)\n", text)
            (self.folder / (named[1] if named else f"outputs{number or ''}.ini")).write_text(text)
        self.name = name
        self.commands = pages.commands(pages.block(SOURCE, name))
        self.left = set(range(len(self.commands)))
        self.environment = {**os.environ, "TZ": "UTC", "PATH": f"{self.folder}/bin:{os.environ['PATH']}", **more}
        (self.folder / "bin").mkdir(exist_ok=True)
        self.script("mdfeed", f'exec "{pathlib.Path(harness.options.feed).resolve()}" "$@"')
        self.script("mdencoder", 'case "$1" in inspect | decode) ;; *) set -- "$@" --library '
                    f'"{pathlib.Path(harness.options.library).resolve()}" ;; esac\n'
                    f'exec "{pathlib.Path(harness.options.encoder).resolve()}" "$@"')
        test.addCleanup(self.check_that_all_were_run)

    def check_that_all_were_run(self):
        if not harness.has_failed(self.test):
            self.test.assertEqual([self.commands[number] for number in sorted(self.left)], [], f"not run of {self.name}")

    def script(self, name, text):
        path = self.folder / "bin" / name
        path.write_text(f"#!/bin/sh\n{text}\n")
        path.chmod(0o755)

    def start(self, number, **more):
        """Starts a command, and returns its process."""
        self.left.discard(number)
        command = self.commands[number].removesuffix(" &")
        return self.test.start("sh", "-c", "exec " + command, cwd=self.folder, env=self.environment, **more)

    def run(self, number, expected=0):
        """Runs a command to its end, and returns what it printed."""
        self.left.discard(number)
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
