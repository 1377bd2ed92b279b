# SPDX-License-Identifier: Apache-2.0
"""The fenced blocks of README and docs, by their names.

The name of a block of commands is its page and its number among those of the page: "docs/outputs/cot.md#1". A test that
runs the block has this name as a literal, by which docs_test.py finds it.
"""
import re
import textwrap

# A block may be part of a list, and then stands as far in as the list's text.
FENCE = re.compile(r"^( *)```([^\n]*)\n(.*?)^\1```$", re.MULTILINE | re.DOTALL)
NAME = re.compile(r"(?:README|docs/[\w/]+)\.md#\d+")


def pages(source):
    """Returns the pages whose blocks are checked."""
    return [source / "README.md", *sorted((source / "docs").rglob("*.md"))]


def fenced(page):
    """Returns the line, the language and the text of each block of a page."""
    text = page.read_text()
    return [(text[:found.start()].count("\n") + 1, found[2], textwrap.dedent(found[3])) for found in FENCE.finditer(text)]


def blocks(page, language):
    return [body for _, kind, body in fenced(page) if kind == language]


def block(source, name):
    """Returns the commands of the block with this name, as they are printed."""
    page, number = name.split("#")
    return blocks(source / page, "sh")[int(number) - 1]


def names(source):
    """Returns the names of all blocks of commands."""
    return [f"{page.relative_to(source)}#{number}" for page in pages(source)
            for number in range(1, len(blocks(page, "sh")) + 1)]


def commands(text):
    """Returns the commands of a block, one each; a line that goes on with a backslash is part of the one before it."""
    return text.replace("\\\n", "").strip().splitlines()
