#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""packaging/sbom.py writes what is in packages and what they are linked with, and packaging/check_sbom.py finds what is
wrong in a bill of materials."""
import argparse
import copy
import importlib.util
import pathlib
import shutil
import subprocess
import tempfile
import unittest

parser = argparse.ArgumentParser()
parser.add_argument("--source", required=True, type=pathlib.Path)
options, rest = parser.parse_known_args()


def load(name):
    spec = importlib.util.spec_from_file_location(name, options.source / f"packaging/{name}.py")
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


sbom = load("sbom")
check = load("check_sbom")

INSTALLED = """libc6 2.36-9
libspdlog1.10 1:1.10.0+ds-0.4 libspdlog1.10-fmt9
libgcc-12-dev 12.2.0-14
proj-data 9.1.1-1
"""
SHLIBS = """libc 6 libc6 (>= 2.36)
udeb: libc 6 libc6-udeb (>= 2.36)
libspdlog 1.10 libspdlog1.10-fmt9
"""


class Bill(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)
        self.target = sbom.Machine(INSTALLED, SHLIBS)
        self.make_package("libmetadata-lib1", {"usr/lib/libx.so.1": "/bin/true", "usr/share/doc/x": None})

    def make_package(self, name, files):
        tree = self.folder / name
        (tree / "DEBIAN").mkdir(parents=True)
        (tree / "DEBIAN/control").write_text(f"Package: {name}\nVersion: 1.0.0-1\nArchitecture: amd64\n"
                                             "Maintainer: x <x@x.invalid>\nDescription: x\n")
        for path, content in files.items():
            (tree / path).parent.mkdir(parents=True, exist_ok=True)
            if content:
                shutil.copy(content, tree / path)
            else:
                (tree / path).write_text("text\n")
        subprocess.run(["dpkg-deb", "--build", tree, self.folder / f"{name}.deb"], check=True, capture_output=True)
        shutil.rmtree(tree)

    def bill(self):
        return sbom.Bill(self.folder, self.target, self.target, "amd64").document(1_000_000_000)

    def relations(self, document, kind):
        return [(relation["spdxElementId"], relation["relatedSpdxElement"])
                for relation in document["relationships"] if relation["relationshipType"] == kind]

    def test_the_bill_has_the_packages_their_files_and_what_they_are_linked_with(self):
        document = self.bill()
        self.assertEqual([file["fileName"] for file in document["files"]],
                         ["./usr/lib/libx.so.1", "./usr/share/doc/x"])
        own = "SPDXRef-Package-libmetadata-lib1"
        self.assertEqual(self.relations(document, "DESCRIBES"), [("SPDXRef-DOCUMENT", own)])
        self.assertEqual(self.relations(document, "DYNAMIC_LINK"), [(own, "SPDXRef-Package-libc6")])
        self.assertEqual(self.relations(document, "STATIC_LINK"), [(own, "SPDXRef-Package-libgcc-12-dev")])
        self.assertEqual(document["creationInfo"]["created"], "2001-09-09T01:46:40Z")
        self.assertEqual(self.bill(), document)

    def test_the_tools_contain_what_the_page_has_from_others(self):
        self.target = sbom.Machine(INSTALLED + "".join(f"{name} 1-1\n" for name in sbom.COMPILED_IN["metadata-tools"]), SHLIBS)
        self.make_package("metadata-tools", {"usr/bin/x": None})
        document = self.bill()
        own = "SPDXRef-Package-metadata-tools"
        self.assertEqual(self.relations(document, "CONTAINS"),
                         [(own, "SPDXRef-Package-leaflet"), (own, "SPDXRef-Package-world-atlas")])
        (leaflet,) = [package for package in document["packages"] if package["name"] == "leaflet"]
        self.assertEqual(leaflet["licenseDeclared"], "BSD-2-Clause")
        self.assertRegex(leaflet["externalRefs"][0]["referenceLocator"], r"^pkg:npm/leaflet@1\.")
        self.assertEqual(self.check(document), [])

    def test_another_content_has_another_namespace(self):
        before = self.bill()["documentNamespace"]
        self.make_package("libmetadata-lib-doc", {"usr/share/doc/y": None})
        self.assertNotEqual(self.bill()["documentNamespace"], before)

    def test_a_library_is_found_under_the_name_that_its_package_provides(self):
        self.assertEqual(self.target.owner("libspdlog.so.1.10"), "libspdlog1.10")
        with self.assertRaises(sbom.Fault):
            self.target.owner("libother.so.1")

    def test_what_is_linked_without_a_known_licence_ends_the_bill(self):
        with self.assertRaises(sbom.Fault):
            sbom.licence("libother1")

    def test_every_heading_of_the_build_packages_has_a_meaning(self):
        pairs = sbom.built_with((options.source / "packaging/debian-packages.txt").read_text())
        self.assertIn(("libinih-dev", "BUILD_DEPENDENCY_OF"), pairs)
        self.assertNotIn("valgrind", [name for name, _ in pairs])
        with self.assertRaises(sbom.Fault):
            sbom.built_with("# --- news\nx\n")

    def check(self, document):
        faults = list(check.structure_faults(document))
        return faults or list(check.content_faults(document, self.folder))

    def test_a_bill_that_is_right_passes(self):
        document = self.bill()
        relation = {"spdxElementId": "SPDXRef-Package-proj-data", "relationshipType": "RUNTIME_DEPENDENCY_OF",
                    "relatedSpdxElement": "SPDXRef-Package-metadata-tools"}
        document["relationships"].remove(relation)
        document["packages"] = [package for package in document["packages"] if package["name"] != "proj-data"]
        self.assertEqual(self.check(document), [])

        def spoil(change):
            spoilt = copy.deepcopy(document)
            change(spoilt)
            return self.check(spoilt)

        for change in (lambda spoilt: spoilt.pop("dataLicense"),
                       lambda spoilt: spoilt.update(documentNamespace="x"),
                       lambda spoilt: spoilt["creationInfo"].update(created="today"),
                       lambda spoilt: spoilt["relationships"].append(relation),
                       lambda spoilt: spoilt["files"].pop(),
                       lambda spoilt: spoilt["files"].append(spoilt["files"][0]),
                       lambda spoilt: spoilt["packages"][0].pop("licenseDeclared"),
                       lambda spoilt: spoilt["packages"][1]["checksums"][1].update(checksumValue="0" * 64),
                       lambda spoilt: spoilt["files"][0]["checksums"][0].update(checksumValue="0" * 40)):
            self.assertNotEqual(spoil(change), [])
        self.make_package("libmetadata-lib-doc", {"usr/share/doc/y": None})
        self.assertEqual(self.check(document), ["libmetadata-lib-doc.deb is not in the bill"])


unittest.main(argv=[__file__, *rest])
