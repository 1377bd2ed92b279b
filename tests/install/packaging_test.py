#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""The recipes under packaging/ are well formed and say what the tree says: version, licence, options. scripts/packages
makes the Debian packages and tries them."""
import argparse
import hashlib
import pathlib
import re
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
for option in ("cmake", "source", "version"):
    parser.add_argument("--" + option, required=True)
options, rest = parser.parse_known_args()
SOURCE = pathlib.Path(options.source)
PACKAGING = SOURCE / "packaging"
BUILDROOT = PACKAGING / "buildroot"
OPTIONS = set(re.findall(r"^option\((METADATA_\w+)", (SOURCE / "CMakeLists.txt").read_text(), re.M))

# A statement of a BitBake recipe: an assignment with its operators, flags and overrides, or inherit.
STATEMENT = re.compile(r'^(?:[A-Za-z_][\w${}-]*(?:\[[\w-]+\])?(?::[\w${}-]+)* ?(?:\?\?=|\?=|:=|\+=|=\+|\.=|=\.|=) ?"[^"]*"'
                       r'|inherit [\w -]+)$')

# python3-kconfiglib is a module of Debian's own Python.
DEBIANS_PYTHON = "/usr/bin/python3"
CHOOSE = """import kconfiglib, sys
tree = kconfiglib.Kconfig(sys.argv[1])
tree.syms["BR2_PACKAGE_METADATA_LIB"].set_value(2)
print(tree.syms["BR2_PACKAGE_METADATA_LIB"].str_value)"""


class Packaging(unittest.TestCase):
    def test_the_debian_changelog_begins_with_this_version(self):
        first = (PACKAGING / "debian/changelog").read_text().splitlines()[0]
        self.assertEqual(first.split()[:2], ["metadata-lib", f"({options.version}-1)"])

    def test_maintainer_scripts_are_shell(self):
        for name in ("tools/postinst", "tools/postrm", "cross/dpkg-shlibdeps", "try.sh"):
            subprocess.run(["sh", "-n", PACKAGING / "debian" / name], check=True)

    def recipe(self):
        path = PACKAGING / f"yocto/metadata-lib_{options.version}.bb"
        joined = path.read_text().replace("\\\n", "")
        return [line for line in joined.splitlines() if line and not line.startswith("#")]

    def test_the_yocto_recipe_is_well_formed(self):
        for line in self.recipe():
            self.assertRegex(line, STATEMENT)
            self.assertEqual(line.count("${"), line.count("}"), line)

    def test_the_yocto_recipe_names_the_licence_and_options_of_the_tree(self):
        text = "\n".join(self.recipe())
        self.assertIn("md5=" + hashlib.md5((SOURCE / "LICENSE").read_bytes()).hexdigest(), text)
        named = set(re.findall(r"-D(METADATA_\w+)=", text))
        self.assertLessEqual(named, OPTIONS)
        self.assertEqual(len(named), 3)

    def test_the_buildroot_menu_reads_and_can_be_chosen(self):
        with tempfile.TemporaryDirectory() as folder:
            known = set(re.findall(r"\bBR2_(?!EXTERNAL|PACKAGE)\w+", (BUILDROOT / "metadata-lib/Config.in").read_text()))
            off = {"BR2_STATIC_LIBS"}
            lines = [f"config {name}\n\tbool\n\tdefault {'n' if name in off else 'y'}\n" for name in sorted(known)]
            menu = pathlib.Path(folder) / "Config.in"
            menu.write_text("\n".join(lines) + f'\nsource "{BUILDROOT}/metadata-lib/Config.in"\n')
            done = subprocess.run([DEBIANS_PYTHON, "-c", CHOOSE, menu], capture_output=True, text=True)
            self.assertEqual((done.stdout, done.stderr), ("y\n", ""))

    def test_the_buildroot_recipe_configures_the_tree(self):
        with tempfile.TemporaryDirectory() as folder:
            makefile = pathlib.Path(folder) / "Makefile"
            makefile.write_text(f"BR2_EXTERNAL_METADATA_LIB_PATH = {BUILDROOT}\n"
                                "define cmake-package\nendef\n"
                                f"include {BUILDROOT}/external.mk\n"
                                "show:\n\t@echo '$(METADATA_LIB_VERSION)|$(abspath $(METADATA_LIB_SITE))|"
                                "$(METADATA_LIB_LICENSE_FILES)|$(METADATA_LIB_CONF_OPTS)'\n")
            shown = subprocess.run(["make", "--warn-undefined-variables", "-f", makefile, "show"], check=True,
                                   capture_output=True, text=True)
            self.assertEqual(shown.stderr, "")
            version, site, licences, settings = shown.stdout.strip().split("|")
            self.assertEqual((version, site), (options.version, str(SOURCE)))
            for name in licences.split():
                self.assertTrue((SOURCE / name).exists(), name)
            done = subprocess.run([options.cmake, "-S", site, "-B", folder + "/build", *settings.split()], check=True,
                                  capture_output=True, text=True)
            self.assertNotIn("not used by the project", done.stderr)


unittest.main(argv=["packaging_test"] + rest)
