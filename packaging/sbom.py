#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Writes the bill of materials of Debian packages, as SPDX 2.3 in JSON: the packages with the sums of their files, what
their programs are linked with, what is compiled into them, and what they were built with.

    packaging/sbom.py --packages build/packages/amd64 --output FILE
    packaging/sbom.py --packages build/packages/arm64 --sysroot build/sysroot/arm64 --output FILE

The same packages give the same bill: its date is SOURCE_DATE_EPOCH or, without it, that of packaging/debian/changelog.
"""
import argparse
import datetime
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import uuid

ROOT = pathlib.Path(__file__).resolve().parent.parent
SUPPLIER = "Organization: metadata_lib developers"

# The terms of what is linked or compiled in, by the beginning of the Debian package's name. NOTICE has them in words.
# A package that is not listed ends the program.
LICENCES = {
    "libc6": "LGPL-2.1-or-later",
    "libgcc": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libstdc++": "GPL-3.0-or-later WITH GCC-exception-3.1",
    "libavformat": "LGPL-2.1-or-later",
    "libavcodec": "LGPL-2.1-or-later",
    "libavfilter": "LGPL-2.1-or-later",
    "libavutil": "LGPL-2.1-or-later",
    "libspdlog": "MIT",
    "libfmt": "MIT",
    "libinih": "BSD-3-Clause",
    "libpcap": "BSD-3-Clause",
    "libpugixml": "MIT",
    "libssl": "Apache-2.0",
    "libcpp-httplib": "MIT",
    "zlib1g": "Zlib",
    "libcli11": "BSD-3-Clause",
    "nlohmann-json3": "MIT",
}
# Whose code is inside the programs: headers, and archives of the compiler. The library takes from libgcc alone.
COMPILED_IN = {
    "libmetadata-lib1": ["libgcc-12-dev"],
    "libmetadata-lib-dev": ["nlohmann-json3-dev", "libspdlog-dev", "libfmt-dev", "libstdc++-12-dev"],
    "metadata-tools": ["libcli11-dev", "libcpp-httplib-dev", "nlohmann-json3-dev", "libspdlog-dev", "libfmt-dev", "libstdc++-12-dev",
                       "libgcc-12-dev"],
}
# What the page inside a program has from npm, of what its lock file names; axe-core is for the tests alone.
PAGE = ROOT / "encoder/page/third_party/package-lock.json"
IN_PAGE = {"metadata-tools": ["leaflet", "world-atlas"]}
# What the headings of packaging/debian-packages.txt mean for the packages. Those of tests and checks leave no trace.
HEADINGS = {"build": "BUILD_TOOL_OF", "libraries of the host runtime, the stand-in encoder and the tools":
            "BUILD_DEPENDENCY_OF", "packages": "BUILD_TOOL_OF"}
UNUSED_HEADINGS = {"geoid grid and its reference", "tests", "checks"}


class Fault(Exception):
    """What keeps a bill from being written."""


def run(*command):
    return subprocess.run([str(part) for part in command], check=True, capture_output=True, text=True).stdout


def sums(path):
    content = path.read_bytes()
    return [{"algorithm": name.upper(), "checksumValue": hashlib.new(name, content).hexdigest()}
            for name in ("sha1", "sha256")]


def identifier(*parts):
    return "SPDXRef-" + re.sub(r"[^A-Za-z0-9.-]", "-", "-".join(parts).replace("+", "plus"))


def licence(package):
    for beginning, terms in LICENCES.items():
        if package.startswith(beginning):
            return terms
    raise Fault(f"{package} is not in LICENCES of packaging/sbom.py; put it into NOTICE, too")


class Machine:
    """Debian's packages on the machine that the programs run on, and which of them has a shared library."""

    def __init__(self, packages, shlibs):
        self.versions = {}
        self.provided = {}
        for line in packages.splitlines():
            name, version, *provides = line.replace(",", " ").split()
            self.versions[name] = version
            self.provided.update({other: name for other in provides})
        self.owners = {}
        for line in shlibs.splitlines():
            words = line.split()
            if len(words) >= 3 and not words[0].endswith(":"):
                self.owners[words[0], words[1]] = words[2]

    def owner(self, soname):
        """The package of libavformat.so.59 is that of the library libavformat in version 59."""
        name, _, version = soname.partition(".so.")
        package = self.owners.get((name, version))
        package = package if package in self.versions else self.provided.get(package)
        if not package:
            raise Fault(f"no package has {soname}")
        return package


def this_machine():
    shlibs = "".join(path.read_text() for path in sorted(pathlib.Path("/var/lib/dpkg/info").glob("*.shlibs")))
    # A library of another machine may be installed beside ours, in the same version.
    return Machine(run("dpkg-query", "-W", "-f", "${Package} ${Version} ${Provides}\n"), shlibs)


def sysroot_machine(folder):
    return Machine((folder / "DEBIAN/packages").read_text(), (folder / "DEBIAN/shlibs").read_text())


def needed(path):
    """The shared libraries that a program or library names itself."""
    with path.open("rb") as file:
        if file.read(4) != b"\x7fELF":
            return []
    return re.findall(r"\(NEEDED\)[^\[]*\[([^\]]+)\]", run("readelf", "-dW", path))


def ship(deb, unpacked, folder):
    """A package as the bill has it, its files, and the shared libraries it names."""
    fields = dict(re.findall(r"^(Package|Version|Architecture): (.*)$", run("dpkg-deb", "--field", deb), re.M))
    run("dpkg-deb", "-x", deb, unpacked)
    files, libraries = [], set()
    for path in sorted(path for path in unpacked.rglob("*") if path.is_file() and not path.is_symlink()):
        name = path.relative_to(unpacked)
        files.append({"SPDXID": identifier("File", fields["Package"], str(name)), "fileName": f"./{name}",
                      "checksums": sums(path), "licenseConcluded": "NOASSERTION", "copyrightText": "NOASSERTION"})
        if not fields["Package"].endswith("-dbgsym"):
            libraries.update(needed(path))
    code = hashlib.sha1("".join(sorted(file["checksums"][0]["checksumValue"] for file in files)).encode()).hexdigest()
    package = entry(fields["Package"], fields["Version"], fields["Architecture"], "Apache-2.0", SUPPLIER)
    package.update(packageFileName=deb.relative_to(folder).as_posix(), checksums=sums(deb), filesAnalyzed=True,
                   packageVerificationCode={"packageVerificationCodeValue": code},
                   hasFiles=[file["SPDXID"] for file in files],
                   copyrightText="2025-2026 The metadata_lib developers")
    return package, files, libraries


def entry(name, version, architecture, terms, supplier="Organization: Debian"):
    result = {"SPDXID": identifier("Package", name), "name": name, "supplier": supplier,
              "downloadLocation": "NOASSERTION", "filesAnalyzed": False, "licenseConcluded": "NOASSERTION",
              "licenseDeclared": terms, "copyrightText": "NOASSERTION"}
    if version:
        result["versionInfo"] = version
    if supplier != SUPPLIER and version:
        locator = f"pkg:deb/debian/{name.replace('+', '%2B')}@{version.replace('+', '%2B').replace(':', '%3A')}"
        result["externalRefs"] = [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                                   "referenceLocator": f"{locator}?arch={architecture}"}]
    return result


def of_npm(name, lock):
    locked = lock["packages"][f"node_modules/{name}"]
    result = entry(name, None, "all", locked["license"], "Organization: npm")
    result["versionInfo"] = locked["version"]
    result["externalRefs"] = [{"referenceCategory": "PACKAGE-MANAGER", "referenceType": "purl",
                               "referenceLocator": f"pkg:npm/{name}@{locked['version']}"}]
    return result


def built_with(text):
    """The pairs of package and relationship in packaging/debian-packages.txt."""
    pairs, heading = [], None
    for line in text.splitlines():
        if line.startswith("# ---"):
            heading = line[5:].strip()
            if heading not in HEADINGS and heading not in UNUSED_HEADINGS:
                raise Fault(f"packaging/sbom.py does not know the heading \"{heading}\"")
        elif line and not line.startswith("#") and heading in HEADINGS:
            pairs.append((line.strip(), HEADINGS[heading]))
    return pairs


class Bill:
    def __init__(self, folder, target, builder, architecture):
        self.folder, self.target, self.builder, self.architecture = folder, target, builder, architecture
        self.packages, self.files, self.relations = {}, [], []

    def relate(self, first, kind, second):
        relation = {"spdxElementId": first, "relationshipType": kind, "relatedSpdxElement": second}
        if relation not in self.relations:
            self.relations.append(relation)

    def of_debian(self, name, machine, architecture, terms):
        version = machine.versions.get(name)
        self.packages.setdefault(name, entry(name, version, architecture, terms))
        return self.packages[name]["SPDXID"]

    def add_shipped(self, deb, source):
        with tempfile.TemporaryDirectory() as unpacked:
            package, files, libraries = ship(deb, pathlib.Path(unpacked), self.folder)
        self.packages[package["name"]] = package
        self.files += files
        self.relate("SPDXRef-DOCUMENT", "DESCRIBES", package["SPDXID"])
        self.relate(package["SPDXID"], "GENERATED_FROM", source["SPDXID"])
        own = {file["fileName"].rpartition("/")[2] for file in self.files}
        for owner in sorted({self.target.owner(name) for name in libraries if name not in own}):
            terms = licence(owner)
            self.relate(package["SPDXID"], "DYNAMIC_LINK", self.of_debian(owner, self.target, self.architecture, terms))
        for inside in COMPILED_IN.get(package["name"], []):
            if inside not in self.target.versions and inside not in self.builder.versions:
                raise Fault(f"{inside} is not installed")
            machine = self.target if inside in self.target.versions else self.builder
            terms = licence(inside)
            self.relate(package["SPDXID"], "STATIC_LINK", self.of_debian(inside, machine, self.architecture, terms))
        for inside in IN_PAGE.get(package["name"], []):
            self.packages.setdefault(inside, of_npm(inside, json.loads(PAGE.read_text())))
            self.relate(package["SPDXID"], "CONTAINS", self.packages[inside]["SPDXID"])

    def add_all(self):
        debs = sorted(self.folder.glob("*.deb"))
        if not debs:
            raise Fault(f"there are no packages in {self.folder}")
        version = run("dpkg-deb", "--field", debs[0], "Version").strip()
        source = entry("metadata-lib", version, "source", "Apache-2.0", SUPPLIER)
        source["copyrightText"] = "2025-2026 The metadata_lib developers"
        self.packages["metadata-lib"] = source
        for deb in debs:
            self.add_shipped(deb, source)
        data = self.of_debian("proj-data", self.target, "all", "NOASSERTION")
        self.relate(data, "RUNTIME_DEPENDENCY_OF", identifier("Package", "metadata-tools"))
        for name, kind in built_with((ROOT / "packaging/debian-packages.txt").read_text()):
            terms = next((terms for start, terms in LICENCES.items() if name.startswith(start)), "NOASSERTION")
            machine = self.target if kind == "BUILD_DEPENDENCY_OF" else self.builder
            architecture = self.architecture if machine is self.target else run("dpkg", "--print-architecture").strip()
            self.relate(self.of_debian(name, machine, architecture, terms), kind, source["SPDXID"])
        return version

    def document(self, epoch):
        version = self.add_all()
        name = f"metadata-lib_{version}_{self.architecture}"
        content = json.dumps([list(self.packages.values()), self.files, self.relations], sort_keys=True)
        unique = uuid.uuid5(uuid.NAMESPACE_OID, content)
        created = datetime.datetime.fromtimestamp(epoch, datetime.timezone.utc)
        return {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT", "name": name,
                "documentNamespace": f"https://metadata-lib.invalid/spdx/{name}-{unique}",
                "creationInfo": {"created": created.strftime("%Y-%m-%dT%H:%M:%SZ"),
                                 "creators": [SUPPLIER, f"Tool: metadata_lib-packaging-sbom-{version}"]},
                "packages": list(self.packages.values()), "files": self.files, "relationships": self.relations}


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--packages", required=True, type=pathlib.Path, metavar="FOLDER")
    parser.add_argument("--sysroot", type=pathlib.Path, help="of packages for another machine")
    parser.add_argument("--output", required=True, type=pathlib.Path, metavar="FILE")
    options = parser.parse_args()
    epoch = os.environ.get("SOURCE_DATE_EPOCH") or run(
        "dpkg-parsechangelog", "-l", ROOT / "packaging/debian/changelog", "-S", "Timestamp")
    try:
        builder = this_machine()
        target = sysroot_machine(options.sysroot) if options.sysroot else builder
        architecture = "arm64" if options.sysroot else run("dpkg", "--print-architecture").strip()
        document = Bill(options.packages, target, builder, architecture).document(int(epoch))
    except (Fault, subprocess.CalledProcessError) as fault:
        print(f"sbom.py: {fault}", file=sys.stderr)
        return 1
    options.output.write_text(json.dumps(document, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
