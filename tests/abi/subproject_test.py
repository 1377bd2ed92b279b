# SPDX-License-Identifier: Apache-2.0
"""As a folder of another project the tree configures only the library and forces no setting on that project."""
import argparse
import json
import pathlib
import subprocess
import tempfile
import unittest

ARGUMENTS = None

OUTER = """cmake_minimum_required(VERSION 3.25)
project(outer VERSION 7.8.9 LANGUAGES C CXX)
add_subdirectory({tree} inner)
add_library(user STATIC user.cpp)
target_link_libraries(user PRIVATE metadata_lib)
"""


class Subproject(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = tempfile.TemporaryDirectory()
        outer = pathlib.Path(cls.folder.name)
        (outer / "CMakeLists.txt").write_text(OUTER.format(tree=ARGUMENTS.source))
        (outer / "user.cpp").write_text('#include "metadata_lib.h"\n')
        subprocess.run([ARGUMENTS.cmake, "-S", outer, "-B", outer / "build", "-G", "Ninja",
                        "-D", f"CMAKE_CXX_COMPILER={ARGUMENTS.compiler}", "-D", "CMAKE_EXPORT_COMPILE_COMMANDS=ON"],
                       check=True, stdout=subprocess.DEVNULL)
        cls.commands = json.loads((outer / "build/compile_commands.json").read_text())
        cls.cache = (outer / "build/CMakeCache.txt").read_text()
        cls.ninja = (outer / "build/build.ninja").read_text()

    @classmethod
    def tearDownClass(cls):
        cls.folder.cleanup()

    def test_only_the_library_is_built(self):
        built = {pathlib.Path(command["file"]).relative_to(ARGUMENTS.source).parts[0] for command in self.commands
                 if not command["file"].endswith("user.cpp")}
        self.assertEqual(built, {"metadata_lib"})
        self.assertIn("METADATA_BUILD_HOST:BOOL=OFF", self.cache)
        self.assertIn("METADATA_BUILD_TESTS:BOOL=OFF", self.cache)

    def test_warnings_are_not_errors_and_no_compiler_cache_is_used(self):
        for command in self.commands:
            self.assertNotIn("-Werror", command["command"])
            self.assertNotIn("ccache", command["command"])

    def test_the_library_keeps_its_own_version(self):
        self.assertIn(f"libmetadata_lib.so.{ARGUMENTS.version}", self.ninja)
        self.assertNotIn("libmetadata_lib.so.7", self.ninja)

    def test_a_user_finds_the_public_header(self):
        user = next(command for command in self.commands if command["file"].endswith("user.cpp"))
        self.assertIn("metadata_lib/include", user["command"])

    def test_no_packages_are_made_of_the_outer_project(self):
        self.assertNotIn("cpack", self.ninja)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("cmake", "compiler", "source", "version"):
        parser.add_argument("--" + name, required=True)
    ARGUMENTS, rest = parser.parse_known_args()
    unittest.main(argv=["subproject_test.py"] + rest)
