#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""scripts/fuzz knows every fuzzer that is built, and refuses what it cannot do before it builds anything."""
import argparse
import pathlib
import re
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()


class Fuzz(unittest.TestCase):
    def fuzz(self, *arguments):
        done = subprocess.run([options.source / "scripts/fuzz", *arguments], capture_output=True, text=True)
        return done.returncode, done.stdout + done.stderr

    def test_every_fuzzer_is_run(self):
        built = re.findall(r"^metadata_(?:format_)?fuzzer\((\w+) ", (options.source / "fuzz/CMakeLists.txt").read_text(), re.M)
        self.assertGreater(len(built), 10)
        self.assertEqual(self.fuzz("--list"), (0, "".join(f"{name}\n" for name in sorted(built))))

    def test_what_is_wrong_is_said_at_once(self):
        for arguments, said in ((["nothing"], 'no fuzzer "nothing"; one of: bits_and_patterns '),
                                (["--seconds", "0"], '--seconds takes a number of seconds, not "0"'),
                                (["--fast"], 'unknown option "--fast"; see --help')):
            code, output = self.fuzz(*arguments)
            self.assertEqual(code, 1)
            self.assertTrue(output.startswith(f"fuzz: {said}"), output)


unittest.main(argv=["fuzz_test"] + rest)
