#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""clang stops at a lock of the library that is missing, and at a function of the metadata thread that another calls."""
import argparse
import pathlib
import shutil
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()

COMPILE = ["clang++-14", "-std=gnu++20", "-fsyntax-only", "-Wthread-safety", "-Werror=thread-safety"]
LOCKS = [
    ("md_sensors.cpp", "MdLock lock(_g_SensorLock);"),
    ("md_udp.cpp", "MdLock lock(_g_SenderLock);"),
    ("md_xml_log.cpp", "MdLock lock(_g_XMLOutLock);"),
    ("metadata_api.cpp", "MdLock lock(_g_SrcListLock);"),
    ("metadata_api.cpp", "MdLock lock(g_MetaDataAPIMutex);"),
    ("metadata_api.cpp", "g_MetaDataAPIMutex.Unlock();"),
    ("utils.cpp", "_g_BufferMutex.Unlock();"),
    ("metadata_api.cpp", "kMetadataThread.Assume();"),
]


class ThreadSafety(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.tree = pathlib.Path(folder.name)
        for name in ("metadata_lib", "host"):
            shutil.copytree(options.source / name, self.tree / name)

    def compile(self, name):
        """What clang says about a source; nothing if it compiles."""
        library = self.tree / "metadata_lib"
        done = subprocess.run([*COMPILE, f"-I{library}/include", f"-I{library}", f"-I{self.tree}/host", library / name],
                              text=True, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        return done.stdout if done.returncode != 0 else ""

    def test_the_library_passes(self):
        for source in sorted((self.tree / "metadata_lib").glob("*.cpp")):
            self.assertEqual(self.compile(source.name), "")

    def test_every_lock_is_missed(self):
        for name, lock in LOCKS:
            path = self.tree / "metadata_lib" / name
            text = path.read_text(encoding="utf-8")
            self.assertIn(lock, text)
            path.write_text(text.replace(lock, ""), encoding="utf-8")
            self.assertIn("[-Werror,-Wthread-safety", self.compile(name), f"{name} without {lock}")
            path.write_text(text, encoding="utf-8")


if __name__ == "__main__":
    unittest.main(argv=["thread_safety_test"] + rest)
