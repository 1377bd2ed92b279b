#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Prints a header or a page as doxygen reads it. The headers have plain comments in front of and behind declarations;
the pages have links as they work in the repository.

    docs/doxygen_filter.py FILE
"""
import pathlib
import re
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent

# A comment of either kind, or what only looks as if it had one.
TOKEN = re.compile(r'"(?:\\.|[^"\\\n])*"|\'(?:\\.|[^\'\\\n])*\'|/\*.*?\*/|//[^\n]*', re.S)
BANNER = re.compile(r"/\*[ -]*\*/|/\* .*\S {2,}\*/|// --- .*", re.S)

def comment_text(comment):
    """The lines of a comment without its marks."""
    if comment.startswith("/*"):
        lines = re.sub(r"^\s*\* ?", "", comment[2:-2], flags=re.M).splitlines()
        lines = [lines[0].strip()] + lines[1:] if lines else []
    else:
        lines = [re.sub(r"^\s*// ?", "", line) for line in comment.splitlines()]
    lines = [line for line in lines if not line.startswith("SPDX-")]
    while lines and not lines[0].strip():
        lines.pop(0)
    while lines and not lines[-1].strip():
        lines.pop()
    return [line.rstrip() for line in lines]


def markdown(lines):
    """What is set in columns stays in columns: a block of code, which an empty line begins."""
    result = []
    for line in lines:
        if line.startswith("  ") and not (result and result[-1] and not result[-1].startswith("  ")):
            line = "      " + line
        result.append(line if line.startswith("  ") else re.sub(r"([@*]|--)", r"\\\1", line.replace("<", "&lt;")))
    return result


def documented(comment, behind, first):
    """The comment as doxygen takes it: of the file, of what stands before it on its line, or of what follows."""
    if BANNER.fullmatch(comment):
        return comment
    lines = markdown(comment_text(comment))
    if behind:
        return "/**< " + " ".join(line.strip() for line in lines) + " */"
    opening = "/** @file\n" if first else "/**\n"
    return opening + "\n".join(lines) + "\n*/"


def before(text, place):
    """What stands on the line before a place."""
    return text[text.rfind("\n", 0, place) + 1:place]


def end_of_comment(text, token):
    """Lines with // below each other, in the same column, are one comment."""
    end = token.end()
    column = len(before(text, token.start()))
    while token.group().startswith("//"):
        further = re.compile(r"\n[ \t]{%d}//[^\n]*" % column).match(text, end)
        if not further:
            break
        end = further.end()
    return end


def header(text):
    parts, place, first = [], 0, True
    for token in TOKEN.finditer(text):
        if token.start() < place:
            continue
        parts.append(text[place:token.start()])
        place = token.end()
        if token.group().startswith("/") and not before(text, token.start()).startswith("#endif"):
            place = end_of_comment(text, token)
            behind = before(text, token.start()).strip() != ""
            comment = text[token.start():place]
            told = comment_text(comment) != []
            parts.append(documented(comment, behind, first) if told else comment)
            first = first and not told
        else:
            parts.append(token.group())
    return "".join(parts) + text[place:]


def page_name(path):
    return "page_" + re.sub(r"\W", "_", str(path.relative_to(ROOT).with_suffix("")).removeprefix("docs/"))


def anchor(title):
    """What GitHub calls a heading."""
    return re.sub(r"[^\w\- ]", "", title.strip().lower()).replace(" ", "-")


def link(match, path):
    image, text, target = match.groups()
    if image:
        return f"![{text}]({target.rpartition('/')[2]})"  # doxygen looks for it in IMAGE_PATH
    if re.match(r"\w+:", target):
        return match.group()
    file, _, fragment = target.partition("#")
    other = (path.parent / file).resolve() if file else path
    if other.suffix == ".md":
        name = page_name(other)
        return f"[{text}](@ref {name + '_' + fragment.replace('-', '_') if fragment else name})"
    if other.suffix == ".h":
        return f"[{text}](@ref {other.name})"
    # What is not among the pages is only named; doxygen complains of what does not exist.
    return text if other.exists() else f"[{text}](@ref missing_{other.name})"


def page(text, path):
    lines, code, titled = [], False, False
    for line in text.splitlines():
        if line.lstrip().startswith("```"):
            code = not code
        heading = re.match(r"(#+) (.*)", line)
        if code:
            pass
        elif heading:
            name = page_name(path)
            name += "" if not titled else "_" + anchor(heading.group(2)).replace("-", "_")
            titled = True
            line = f"{line} {{#{name}}}"
        else:
            line = re.sub(r"(!?)\[([^\]]+)\]\(([^)\s]+)\)", lambda match: link(match, path), line)
        lines.append(line)
    return "\n".join(lines) + "\n"


def main():
    path = pathlib.Path(sys.argv[1]).resolve()
    text = path.read_text()
    sys.stdout.write(page(text, path) if path.suffix == ".md" else header(text))


if __name__ == "__main__":
    main()
