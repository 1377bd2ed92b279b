#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Every fenced block of README and docs says what it is, and is checked as that.

    ini           a configuration of mdencoder, or keys of a source; ini host, ini library, ini unit are other files
    sh            commands: those of a recipe are run by the test that names its page, of others programs and options exist
    text          what a program says: the words are those of the sources; text drawing is none
    json          one value, or one on each line
    c, cmake      the names of the library are those of its headers"""
import json
import pathlib
import re
import subprocess

import harness
import pages
from harness import EndToEndTest

SOURCE = pathlib.Path(harness.options.source)
HERE = pathlib.Path(__file__).parent
# Programs of the system that commands begin with.
SYSTEM = {"apt-get", "cat", "cc", "cd", "cmake", "cp", "ctest", "curl", "export", "ffmpeg", "ffplay", "ffprobe", "git",
          "gst-launch-1.0", "journalctl", "mkdir", "mpv", "npm", "socat", "systemctl", "tcpdump", "vlc"}


def all_blocks():
    for page in pages.pages(SOURCE):
        for line, kind, body in pages.fenced(page):
            yield page, line, kind, body


def literals():
    """Returns the texts of the programs' sources, joined as the compiler joins them, with one space for what is put in."""
    text = ""
    for folder in ("encoder", "host_runtime", "formats"):
        for path in sorted((SOURCE / folder).rglob("*.cpp")):
            text += re.sub(r'"\s*\n\s*"', "", path.read_text())
    return text


class Docs(EndToEndTest):
    def each(self, *kinds):
        """Returns the blocks of some kinds, with their pages. A fault is told with the place that was looked at last."""
        for page, line, kind, body in all_blocks():
            if kind in kinds:
                self.place = f"{page.relative_to(SOURCE)}:{line}"
                yield page, body

    def test_each_block_says_what_it_is(self):
        known = {"ini", "ini host", "ini library", "ini unit", "sh", "text", "text drawing", "json", "c", "cmake"}
        for page, line, kind, _ in all_blocks():
            self.assertIn(kind, known, f"{page}:{line}")

    def check_text(self, config, *arguments):
        path = self.folder / "page.ini"
        path.write_text(config)
        done = subprocess.run([harness.options.encoder, path, "--check-text", *arguments], capture_output=True, text=True,
                              timeout=60 * harness.SLOW)
        self.assertEqual(done.returncode, 0, f"{self.place}: {done.stderr}")

    def test_configurations_are_right(self):
        source = "[source]\ninput = udp\nport = 5000\n"
        for _, config in self.each("ini"):
            text = config if re.search(r"^\[", config, re.M) else source + config
            # A file with settings of the encoder only has its sources elsewhere.
            sections = set(re.findall(r"^\[([^]\s]+)", text, re.M)) - {"encoder"}
            self.check_text(text if sections else text + source)

    def test_files_of_the_host_are_right(self):
        for _, config in self.each("ini host"):
            (self.folder / "host.ini").write_text(config)
            self.check_text("[source]\ninput = udp\nport = 5000\n", "--host-config", str(self.folder / "host.ini"))

    def test_other_files_have_sections_and_keys(self):
        for _, config in self.each("ini library", "ini unit"):
            for line in config.splitlines():
                self.assertRegex(line, r"^(\[\w+\]|\w+ ?= ?\S.*|[;#].*)$", self.place)

    def is_run(self, page):
        """Returns whether a test runs the recipe of a page, which it then names."""
        name = page.relative_to(SOURCE / "docs").with_suffix("").as_posix() if page.name != "README.md" else "README.md"
        tests = "".join(path.read_text() for path in sorted(HERE.glob("*_test.py")) if path != pathlib.Path(__file__))
        wanted = (f'"{name}"', f'"{pathlib.Path(name).name}"', f"{name}.md")
        return "recipe" in tests.lower() and any(word in tests for word in wanted)

    def test_commands_are_run_or_can_be(self):
        help_texts = "".join(
            subprocess.run([program, *words, "--help"], capture_output=True, text=True, timeout=60 * harness.SLOW).stdout
            for program, *words in ((harness.options.encoder,), (harness.options.encoder, "inspect"),
                                    (harness.options.encoder, "decode"), (harness.options.feed,),
                                    *((harness.options.feed, kind) for kind in ("klv", "cot", "anc", "ts"))))
        for page, body in self.each("sh"):
            if self.is_run(page):
                continue
            for command in re.split(r"\n|&&|\|(?!\|)", body.replace("\\\n", " ")):
                words = command.split("#")[0].split()
                if not words:
                    continue
                program = words[0]
                own = program in ("mdencoder", "mdfeed")
                self.assertTrue(own or program in SYSTEM or (SOURCE / program).exists() or "=" in program
                                or pathlib.Path(program).name.split("-")[-1] in ("strip", "jq"), f"{self.place}: {program}: {command}")
                for option in re.findall(r"--[a-z][a-z-]*", command) if own else ():
                    self.assertRegex(help_texts, rf"{option}\b", f"{self.place}: {command}")

    def test_lines_are_those_of_the_programs(self):
        texts = literals()
        for _, body in self.each("text"):
            for line in body.splitlines():
                # What the program puts in is a number, a name in brackets, an address or a quotation.
                pieces = re.split(r'"[^"]*"|\[[^]]*\]|\S*[/\d.]\S*|=|source \w+|,|: | must be ', line.removeprefix("mdencoder: "))
                words = [piece.strip(" :;()") for piece in pieces]
                self.assertTrue(any(len(each) >= 8 and each in texts for each in words), f"{self.place}: {line}")

    def test_values_are_json(self):
        for _, body in self.each("json"):
            try:
                json.loads(body)
            except ValueError:
                for line in body.splitlines():
                    json.loads(line)

    def test_names_are_those_of_the_headers(self):
        headers = "".join(path.read_text() for folder in ("metadata_lib/include", "host", "host_runtime")
                          for path in sorted((SOURCE / folder).glob("*.h")))
        for _, body in self.each("c"):
            for name in re.findall(r"\b(?:METADATALIB|MetaData|HostRuntime|MDATA)_\w+", body):
                self.assertTrue(re.search(rf"\b{name}\b", headers), f"{self.place}: {name}")


if __name__ == "__main__":
    harness.main()
