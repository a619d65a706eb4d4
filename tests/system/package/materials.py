#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT

"""A package's bill of materials has the libraries that the package depends on, and no others: materials.py BILL..."""

import hashlib
import json
import pathlib
import re
import subprocess
import sys

NO_LIBRARIES = {"systemd", "systemd-standalone-sysusers", "systemd-sysusers"}


def main():
    for bill in sys.argv[1:]:
        deb = bill.removesuffix(".spdx.json")
        document = json.loads(pathlib.Path(bill).read_text(encoding="utf-8"))
        whole, *components = document["packages"]
        digest = hashlib.sha256(pathlib.Path(deb).read_bytes()).hexdigest()
        if whole["checksums"] != [{"algorithm": "SHA256", "checksumValue": digest}]:
            sys.exit(f"{bill}: of another file")
        depends = subprocess.run(["dpkg-deb", "--field", deb, "Depends"], check=True, capture_output=True, text=True).stdout
        wanted = set(re.findall(r"(?:^|[,|])\s*([a-z0-9.+-]+)", depends)) - NO_LIBRARIES
        listed = {component["name"]: component["versionInfo"] for component in components}
        if set(listed) != wanted:
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
        print(f"{pathlib.Path(bill).name}: {len(listed)} libraries, as the package depends on")


main()
