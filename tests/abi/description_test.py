#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The exported functions and every record they take are those of tests/abi/metadata_lib.abi, which is what encoders were
built against. A change that is meant is accepted by hand and committed with its description:

    tests/abi/description_test.py --library build/package/metadata_lib/libmetadata_lib.so --source . --accept
"""
import argparse
import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--library", required=True, help="built with debug information, on either machine")
parser.add_argument("--source", required=True)
parser.add_argument("--accept", action="store_true")
options, rest = parser.parse_known_args()
SOURCE = pathlib.Path(options.source)
DESCRIPTION = SOURCE / "tests/abi/metadata_lib.abi"
HEADERS = SOURCE / "metadata_lib/include"


def describe():
    """What libabigail reads from the library, without anything that depends on how or where it was built."""
    return subprocess.run(["abidw", "--exported-interfaces-only", "--no-corpus-path", "--no-show-locs",
                           "--no-comp-dir-path", "--no-elf-needed", "--no-parameter-names", "--type-id-style", "hash",
                           "--drop-private-types", "--headers-dir", HEADERS, options.library],
                          check=True, capture_output=True, text=True).stdout


def differences(description):
    """The status of abidiff and what it prints; 0 and nothing when the library is as described."""
    with tempfile.NamedTemporaryFile("w", suffix=".abi") as file:
        file.write(description)
        file.flush()
        done = subprocess.run(["abidiff", "--no-architecture", file.name, options.library], capture_output=True,
                              text=True)
    return done.returncode, done.stdout + done.stderr


class Description(unittest.TestCase):
    def test_the_library_is_as_described(self):
        status, text = differences(DESCRIPTION.read_text())
        self.assertEqual((status, text), (0, ""), "see --accept if the change is meant")

    def test_every_exported_name_is_described(self):
        listed = set(re.findall(r"^    (\w+);", (SOURCE / "metadata_lib/metadata_lib.map").read_text(), re.M))
        described = set(re.findall(r"<elf-symbol name='(\w+)'", DESCRIPTION.read_text()))
        self.assertEqual(described - {"METADATA_LIB_1"}, listed)

    def test_a_difference_is_seen(self):
        text = DESCRIPTION.read_text()
        for pattern in (r" *<data-member [^\n]*\n *<var-decl name='nTotalSize'[^\n]*\n *</data-member>\n",
                        r"    <elf-symbol name='CalcCRC16'.*\n"):
            changed, count = re.subn(pattern, "", text)
            self.assertEqual(count, 1, pattern)
            self.assertNotEqual(differences(changed)[0], 0, pattern)


if options.accept:
    DESCRIPTION.write_text(describe())
    sys.exit(0)
unittest.main(argv=["description_test"] + rest)
