#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the first C block of a Markdown file to a source file. It allows at most 45 lines, so that the block stays
readable."""
import re
import sys

text = open(sys.argv[1], encoding="utf-8").read()
code = re.search(r"^```c\n(.*?)^```", text, re.S | re.M).group(1)
assert len([line for line in code.splitlines() if line.strip()]) <= 45, "the README's example has grown too long"
open(sys.argv[2], "w", encoding="utf-8").write(code)
