#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The man pages and the completions of bash and zsh have exactly the options that --help prints, mdencoder.ini(5) has
the keys of the complete example, and every page is well formed."""
import argparse
import pathlib
import re
import subprocess
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True)
parser.add_argument("--version", required=True)
parser.add_argument("--programs", nargs=3, required=True)
options, rest = parser.parse_known_args()
SOURCE = pathlib.Path(options.source)
PROGRAMS = {pathlib.Path(path).name: path for path in options.programs}
COMMANDS = {"mdfeed": ("klv", "cot", "anc", "ts"), "mdencoder": ("inspect", "decode"), "make_geoid_grid": ()}


def output(*command, **settings):
    return subprocess.run(command, check=True, capture_output=True, text=True, **settings).stdout


def helped(program, *command):
    """The options of a help text, which start their lines."""
    text = output(PROGRAMS[program], *command, "--help")
    return set(re.findall(r"^ +(?:-h,)?(--[a-z-]+)", text, re.M))


def page(name):
    return (SOURCE / "docs/man" / name).read_text()


def bash_completes(program, *words):
    """What bash offers behind these words for a word that starts with a minus."""
    script = f"""source {SOURCE}/completions/{program}.bash
COMP_WORDS=({program} {' '.join(words)} -); COMP_CWORD={len(words) + 1}
compopt() {{ :; }}
_{program}; printf '%s\\n' "${{COMPREPLY[@]}}" """
    return {word for word in output("bash", "-euc", script).split() if word.startswith("--")}


def zsh_completes(program, *words):
    """The same of zsh: the completion runs with an _arguments that prints the options among its specifications."""
    script = f"""_arguments() {{
  local word; for word in "$@"; do
    [[ $word == '*::options:->options' ]] || continue
    (( $#words > 1 )) || return 0
    state=options line=("$words[2]")
    return 1
  done
  for word in "$@"; do
    [[ $word =~ '(^|[)*,])(--[a-z-]+)\\[' ]] && print -r -- $match[2]
  done
  return 0
}}
words=({program} {' '.join(words)})
run() {{ source {SOURCE}/completions/_{program} }}
run"""
    return set(output("zsh", "-fc", script).split())


class Options(unittest.TestCase):
    def test_pages_name_every_option_and_no_other(self):
        for program in PROGRAMS:
            known = set().union(*(helped(program, command) for command in COMMANDS[program]), helped(program))
            named = {"--" + name for name in re.findall(r"\bFl (?:h [,|] )?-([a-z-]+)", page(program + ".1"))}
            self.assertEqual(named, known, program)

    def test_bash_completes_the_options_of_the_help_text(self):
        for program, commands in COMMANDS.items():
            self.assertEqual(bash_completes(program), helped(program))
            for command in commands:
                self.assertEqual(bash_completes(program, command), helped(program, command), command)

    def test_zsh_completes_the_options_of_the_help_text(self):
        for program in ("mdencoder", "make_geoid_grid"):
            self.assertEqual(zsh_completes(program) | {"--help"}, helped(program))
        for program, commands in COMMANDS.items():
            for command in commands:
                self.assertEqual(zsh_completes(program, command) | {"--help"}, helped(program, command), command)
        for path in (SOURCE / "completions").glob("_*"):
            subprocess.run(["zsh", "-n", path], check=True)

    def test_both_shells_know_the_fields_that_can_be_damaged(self):
        fields = re.search(r"FIELD is one of ([a-z0-9, -]+)", output(PROGRAMS["mdfeed"], "cot", "--help")).group(1)
        for name in ("mdfeed.bash", "_mdfeed"):
            text = " ".join((SOURCE / "completions" / name).read_text().split())
            self.assertIn(" ".join(fields.split(", ")), text)
        self.assertIn(fields.strip(), " ".join(page("mdfeed.1").split()))

    def test_the_page_of_the_configuration_has_the_keys_of_the_example(self):
        example = (SOURCE / "encoder/mdencoder.example.ini").read_text()
        keys = {re.sub(r"^relay\d", "relay", key) for key in re.findall(r"^;?([a-z_0-9]+) = ", example, re.M)}
        named = set()
        for line in re.findall(r"^\.It Ic (.*)", page("mdencoder.ini.5"), re.M):
            named |= {re.sub(r"^relay\d", "relay", key) for key in re.findall(r"[a-z_0-9]{3,}", line)}
        self.assertEqual(named, keys)

    def test_pages_are_well_formed(self):
        pages = sorted((SOURCE / "docs/man").iterdir())
        self.assertEqual(len(pages), 5)
        for path in pages:
            done = subprocess.run(["mandoc", "-Tlint", "-Wwarning", path], capture_output=True, text=True)
            self.assertEqual((done.returncode, done.stdout), (0, ""), path)

    def test_every_program_tells_the_same_version(self):
        for program, path in PROGRAMS.items():
            self.assertEqual(output(path, "--version"), f"{program} {options.version}\n")


unittest.main(argv=["options_test"] + rest)
