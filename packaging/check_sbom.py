#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Checks a bill of materials in SPDX 2.3 that lies beside its packages: the fields that SPDX demands, the form of its
identifiers, that relationships lead to elements, and the sums of the packages and all their files. Debian's
node-spdx-expression-parse reads the licences.

    packaging/check_sbom.py FILE
"""
import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
from urllib.parse import urlparse

IDENTIFIER = re.compile(r"SPDXRef-[A-Za-z0-9.-]+")
DIGITS = {"SHA1": 40, "SHA256": 64}
# Of the relationships of SPDX 2.3 those that packages of programs can have.
RELATIONSHIPS = {"DESCRIBES", "CONTAINS", "GENERATED_FROM", "DYNAMIC_LINK", "STATIC_LINK", "BUILD_TOOL_OF",
                 "BUILD_DEPENDENCY_OF", "RUNTIME_DEPENDENCY_OF", "DEPENDS_ON"}
READ_LICENCES = """const parse = require("spdx-expression-parse");
for (const terms of process.argv.slice(1)) {
  try { parse(terms); } catch (fault) { console.log(terms + ": " + fault.message); }
}"""


def document_faults(document):
    wanted = {"spdxVersion": "SPDX-2.3", "dataLicense": "CC0-1.0", "SPDXID": "SPDXRef-DOCUMENT"}
    for name, value in wanted.items():
        if document.get(name) != value:
            yield f"{name} is {document.get(name)}"
    for name in ("name", "documentNamespace", "creationInfo"):
        if not document.get(name):
            yield f"the document has no {name}"
    namespace = urlparse(document.get("documentNamespace", ""))
    if not namespace.scheme or not namespace.netloc or namespace.fragment:
        yield "documentNamespace is no absolute address without fragment"
    information = document.get("creationInfo", {})
    if not re.fullmatch(r"\d{4}(-\d\d){2}T\d\d(:\d\d){2}Z", information.get("created", "")):
        yield "created is no date"
    if not information.get("creators") or any(not re.match(r"(Person|Organization|Tool): \S", creator)
                                              for creator in information["creators"]):
        yield "the creators are not persons, organizations or tools"


def element_faults(element, required):
    name = element.get("SPDXID", "an element")
    for field in required:
        if not element.get(field):
            yield f"{name} has no {field}"
    if not IDENTIFIER.fullmatch(name):
        yield f"{name} is no identifier"
    for checksum in element.get("checksums", []):
        if not re.fullmatch(f"[0-9a-f]{{{DIGITS[checksum['algorithm']]}}}", checksum["checksumValue"]):
            yield f"{name} has a wrong {checksum['algorithm']}"


def package_faults(package, files):
    yield from element_faults(package, ["SPDXID", "name", "downloadLocation", "licenseDeclared", "copyrightText"])
    if not package.get("filesAnalyzed", True):
        return
    own = [files.get(name) for name in package.get("hasFiles", [])]
    if not own or None in own:
        yield f"{package['name']} lacks files"
        return
    code = hashlib.sha1("".join(sorted(sum_of(file, "SHA1") for file in own)).encode()).hexdigest()
    if package["packageVerificationCode"]["packageVerificationCodeValue"] != code:
        yield f"{package['name']} has a wrong verification code"


def sum_of(element, algorithm):
    return next((checksum["checksumValue"] for checksum in element.get("checksums", [])
                 if checksum["algorithm"] == algorithm), "")


def structure_faults(document):
    files = {file["SPDXID"]: file for file in document["files"]}
    packages = {package["SPDXID"]: package for package in document["packages"]}
    if len(files) + len(packages) != len(document["files"]) + len(document["packages"]):
        yield "two elements have the same identifier"
    yield from document_faults(document)
    for file in files.values():
        yield from element_faults(file, ["SPDXID", "fileName", "checksums"])
        if not sum_of(file, "SHA1"):
            yield f"{file['SPDXID']} has no SHA1"
    for package in packages.values():
        yield from package_faults(package, files)
    known = {"SPDXRef-DOCUMENT", *files, *packages}
    for relation in document["relationships"]:
        for end in (relation["spdxElementId"], relation["relatedSpdxElement"]):
            if end not in known:
                yield f"a relationship leads to {end}, which is not there"
        if relation["relationshipType"] not in RELATIONSHIPS:
            yield f"{relation['relationshipType']} is no relationship"
    related = {relation["spdxElementId"] for relation in document["relationships"]}
    related |= {relation["relatedSpdxElement"] for relation in document["relationships"]}
    yield from (f"{name} stands alone" for name in packages if name not in related)


def content_faults(document, folder):
    """The packages and what they unpack to have the sums that the bill gives."""
    files = {file["SPDXID"]: file for file in document["files"]}
    shipped = [package for package in document["packages"] if package.get("packageFileName")]
    listed = {package["packageFileName"] for package in shipped}
    yield from (f"{deb.name} is not in the bill" for deb in sorted(folder.glob("*.deb")) if deb.name not in listed)
    for package in shipped:
        deb = folder / package["packageFileName"]
        if hashlib.sha256(deb.read_bytes()).hexdigest() != sum_of(package, "SHA256"):
            yield f"{deb.name} has another sum"
        with tempfile.TemporaryDirectory() as unpacked:
            subprocess.run(["dpkg-deb", "-x", deb, unpacked], check=True)
            there = {f"./{path.relative_to(unpacked)}": hashlib.sha1(path.read_bytes()).hexdigest()
                     for path in pathlib.Path(unpacked).rglob("*") if path.is_file() and not path.is_symlink()}
        named = {files[name]["fileName"]: sum_of(files[name], "SHA1") for name in package["hasFiles"]}
        if there != named:
            yield f"{deb.name} has other files"


def licence_faults(document):
    terms = {element.get(field) for element in document["packages"] + document["files"]
             for field in ("licenseDeclared", "licenseConcluded")} - {None, "NOASSERTION", "NONE"}
    said = subprocess.run(["nodejs", "-e", READ_LICENCES, *sorted(terms)], check=True, capture_output=True, text=True,
                          env=os.environ | {"NODE_PATH": "/usr/share/nodejs"})
    yield from (f"no licence: {line}" for line in said.stdout.splitlines())


def main():
    path = pathlib.Path(sys.argv[1])
    document = json.loads(path.read_text())
    faults = list(structure_faults(document))
    faults = faults or [*content_faults(document, path.parent), *licence_faults(document)]
    print("".join(f"{path.name}: {fault}\n" for fault in faults), end="", file=sys.stderr)
    return 1 if faults else 0


if __name__ == "__main__":
    sys.exit(main())
