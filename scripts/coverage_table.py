#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints the lines and branches of a gcovr summary, with a row for each source file and a sum for each folder."""
import json
import os
import sys
from collections import defaultdict


def row(name, counts):
    line, line_all, branch, branch_all = counts

    def part(covered, total):
        share = f"{100 * covered / total:5.1f} %" if total else "      -"
        return f"{covered:6} of {total:6} {share}"

    return f"{name:44}{part(line, line_all)}   {part(branch, branch_all)}"


def main():
    with open(sys.argv[1], encoding="utf-8") as summary:
        files = json.load(summary)["files"]
    folders = defaultdict(list)
    for file in files:
        counts = [file[key] for key in ("line_covered", "line_total", "branch_covered", "branch_total")]
        folders[os.path.dirname(file["filename"])].append((os.path.basename(file["filename"]), counts))
    if not folders:
        sys.exit("coverage: the tests left no data")
    print(f"{'':44}{'lines':>16}{'':12}{'branches':>16}")
    for folder in sorted(folders):
        for name, counts in sorted(folders[folder]):
            print(row("  " + name, counts))
        print(row(folder + "/", [sum(column) for column in zip(*(counts for _, counts in folders[folder]))]))


main()
