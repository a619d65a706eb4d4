#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A package's bill of materials has the libraries that the package depends on, what is compiled into its programs, and no
others: materials.py BILL..."""

import hashlib
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile

SBOM = pathlib.Path(__file__).resolve().parents[3] / "packaging" / "sbom"
NO_LIBRARIES = {"systemd", "systemd-standalone-sysusers", "systemd-sysusers"}
HEADERS = "libboost1.74-dev"
# Made up, as the build of the page leaves it.
PAGE = [{"name": "charts", "version": "1.6.32", "licence": "MIT"}, {"name": "@scope/charts", "version": "2.0.0", "licence": "ISC"},
        {"name": "charts", "version": "2.0.0", "licence": "0BSD"}]


def fields(component):
    return component["name"], component["versionInfo"], component["licenseDeclared"], component["externalRefs"][0]["referenceLocator"]


def contained(document):
    """What is compiled or bundled into the delivered file, by its name, version, licence and package URL."""
    inside = {row["relatedSpdxElement"] for row in document["relationships"] if row["relationshipType"] == "CONTAINS"}
    return [package for package in document["packages"] if package["SPDXID"] in inside]


def page_packages():
    """The bill of any program that holds a page names the page's packages."""
    with tempfile.TemporaryDirectory() as folder:
        delivered, page = pathlib.Path(folder, "delivered"), pathlib.Path(folder, "materials.json")
        delivered.write_bytes(b"x")
        page.write_text(json.dumps(PAGE), encoding="utf-8")
        subprocess.run([SBOM, delivered, "1.0", "--elf", "/bin/sh", "--npm", page], check=True,
                       env={**os.environ, "SOURCE_DATE_EPOCH": "315532800"})
        document = json.loads(pathlib.Path(f"{delivered}.spdx.json").read_text(encoding="utf-8"))
    found = {fields(component) for component in contained(document)}
    wanted = {("charts", "1.6.32", "MIT", "pkg:npm/charts@1.6.32"), ("@scope/charts", "2.0.0", "ISC", "pkg:npm/%40scope/charts@2.0.0"),
              ("charts", "2.0.0", "0BSD", "pkg:npm/charts@2.0.0")}
    if found != wanted:
        sys.exit(f"sbom: of a page's packages it has {sorted(found)}")
    names = [package["SPDXID"] for package in document["packages"]]
    if len(set(names)) != len(names):
        sys.exit(f"sbom: one identifier for two packages: {names}")


def check_contents(bill, document):
    """Of a bill of the real thing: headers and the page's packages where the monitor is, nothing elsewhere."""
    wanted = set()
    if pathlib.Path(bill).name.startswith("quillmere-monitor_"):
        wanted.add((HEADERS, "BSL-1.0"))
        page = pathlib.Path(bill).parent / "materials.json"
        if page.exists():
            wanted |= {(package["name"], package.get("licence") or package["license"])
                       for package in json.loads(page.read_text(encoding="utf-8"))}
    found = {(component["name"], component["licenseDeclared"]) for component in contained(document)}
    if found != wanted:
        sys.exit(f"{bill}: it contains {sorted(found)}, and should {sorted(wanted)}")


def main():
    page_packages()
    for bill in sys.argv[1:]:
        deb = bill.removesuffix(".spdx.json")
        document = json.loads(pathlib.Path(bill).read_text(encoding="utf-8"))
        whole, *components = document["packages"]
        digest = hashlib.sha256(pathlib.Path(deb).read_bytes()).hexdigest()
        if whole["checksums"] != [{"algorithm": "SHA256", "checksumValue": digest}]:
            sys.exit(f"{bill}: of another file")
        depends = subprocess.run(["dpkg-deb", "--field", deb, "Depends"], check=True, capture_output=True, text=True).stdout
        wanted = set(re.findall(r"(?:^|[,|])\s*([a-z0-9.+-]+)", depends)) - NO_LIBRARIES
        check_contents(bill, document)
        components = [component for component in components if "pkg:deb/" in fields(component)[3]]
        listed = {component["name"]: component["versionInfo"] for component in components}
        if set(listed) - {HEADERS} != wanted:
            sys.exit(f"{bill}: it has {sorted(listed)}, the package depends on {sorted(wanted)}")
        for name, version in listed.items():
            installed = subprocess.run(["dpkg-query", "--show", "--showformat=${Version}", name], check=True,
                                       capture_output=True, text=True).stdout
            if version != installed:
                sys.exit(f"{bill}: {name} {version}, linked with {installed}")
        related = {row["relatedSpdxElement"] for row in document["relationships"]}
        related |= {row["spdxElementId"] for row in document["relationships"]}
        if related != {"SPDXRef-DOCUMENT"} | {package["SPDXID"] for package in document["packages"]}:
            sys.exit(f"{bill}: a component without its relationship")
        print(f"{pathlib.Path(bill).name}: {len(wanted)} libraries, as the package depends on")


main()
