#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""What is shipped does not name the folder in which it was built, with its debug information, so that two folders give
the same packages: the files that are named here, and what the build's commands make of every other source."""
import argparse
import json
import mmap
import pathlib
import sys

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
parser.add_argument("--build", required=True, type=pathlib.Path)
parser.add_argument("files", nargs="+", type=pathlib.Path)
options = parser.parse_args()

NAMES = {str(options.source), str(options.source.resolve())}
# Where the debug information says that the sources are.
MAPPED = b"/usr/src/metadata-lib/"


def text_at(data, place):
    start = max(data.rfind(b"\0", 0, place), place - 200) + 1
    return data[start:data.find(b"\0", place)].decode(errors="replace")


faults = [f"{entry['file']} is compiled without -ffile-prefix-map"
          for entry in json.loads((options.build / "compile_commands.json").read_text())
          if f"-ffile-prefix-map={options.source}={MAPPED.decode().rstrip('/')}" not in entry["command"].split()]
for path in options.files:
    with path.open("rb") as file, mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as content:
        for name in NAMES:
            found = content.find(name.encode() + b"/")
            if found >= 0:
                faults.append(f"{path} names its folder: {text_at(content, found)}")
        if content.find(MAPPED) < 0:
            faults.append(f"{path} has no debug information with {MAPPED.decode()}")
print("\n".join(faults), file=sys.stderr)
sys.exit(1 if faults else 0)
