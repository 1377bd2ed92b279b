#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The README's figures are those of docs/performance.md, and its picture is a drawing for light and dark pages."""
import argparse
import pathlib
import re
import unittest
import xml.etree.ElementTree

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()
README = (options.source / "README.md").read_text()


class Readme(unittest.TestCase):
    def test_figures_are_those_that_were_measured(self):
        measured = {}
        for line in (options.source / "docs/performance.md").read_text().splitlines():
            cells = [cell.strip() for cell in line.strip("|").split("|")]
            if len(cells) in (9, 10) and cells[5].startswith("±") and cells[0] not in measured:
                measured[cells[0]] = cells[4]
        told = re.findall(r"^\| [^|]+ \| `(\w+)` \| ([0-9.]+) \|$", README, re.M)
        self.assertGreater(len(told), 8)
        for workload, ratio in told:
            self.assertEqual(ratio, measured.get(workload), workload)

    def test_the_picture_is_there_for_light_and_dark(self):
        (name,) = re.findall(r"^!\[[^\]]+\]\(([^)]+\.svg)\)$", README, re.M)
        text = (options.source / name).read_text()
        root = xml.etree.ElementTree.fromstring(text.encode())
        self.assertTrue(root.tag.endswith("svg"))
        classes = set(re.findall(r'class="(\w+)"', text)) - {"name", "small"}
        light, dark = text.split("prefers-color-scheme: dark", 1)
        for name in classes:
            self.assertIn(f".{name} {{", light)
            self.assertIn(f".{name} {{", dark)


unittest.main(argv=[__file__, *rest])
