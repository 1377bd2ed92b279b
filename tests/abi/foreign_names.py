#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""foreign_names.py MAP OUTPUT: writes C code with a function for every exported name, each of which ends the process.
The library would call them if an encoder's function of the same name took precedence over its own."""
import pathlib
import re
import sys

names = re.findall(r"^    (\w+);", pathlib.Path(sys.argv[1]).read_text(), re.M)
lines = ["#include <stdlib.h>", "#include <unistd.h>", ""]
for name in names:
    text = f"{name} of the program was called\\n"
    lines += [f"void {name}(void);", f"void {name}(void) {{", f'  if (write(2, "{text}", sizeof "{text}" - 1) >= 0) abort();',
              "}"]
pathlib.Path(sys.argv[2]).write_text("\n".join(lines) + "\n")
