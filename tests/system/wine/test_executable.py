#!/usr/bin/env python3
# SPDX-FileCopyrightText: 2026 The Quillmere developers
# SPDX-License-Identifier: MIT
"""What the built executables say of themselves. QUILLMERE_BIN names the folder of the executables."""

import hashlib
import json
import os
import pathlib
import unittest
import zipfile

import peinfo

BIN = pathlib.Path(os.environ["QUILLMERE_BIN"])
EXECUTABLES = sorted(BIN.glob("*.exe"))
SERVER = BIN / "quillmere.exe"

# What every Windows 10 and Windows Server 2016 has.
SYSTEM_LIBRARIES = {
    "advapi32.dll", "api-ms-win-core-synch-l1-2-0.dll", "authz.dll", "iphlpapi.dll", "kernel32.dll", "msvcrt.dll",
    "netapi32.dll", "ole32.dll", "secur32.dll", "shell32.dll", "user32.dll", "userenv.dll", "version.dll",
    "winhttp.dll", "winmm.dll", "ws2_32.dll",
}  # fmt: skip

ENDBR64 = bytes.fromhex("f30f1efa")

MESSAGE_TABLE = bytes.fromhex(
    "01000000"  # one block
    "010000c0"  # from identifier
    "010000c0"  # to identifier
    "10000000"  # its entries begin here
    "1000"  # length of the entry
    "0100"  # UTF-16
    "250031000d000a000000"  # "%1", carriage return, line feed, null
    "0000"  # padding
)


class Executables(unittest.TestCase):
    def test_are_those_that_an_operator_gets(self):
        names = [path.name for path in EXECUTABLES]
        self.assertEqual(names, ["quillmere-check.exe", "quillmere-monitor.exe", "quillmere-radio.exe", "quillmere-watch.exe",
                                 "quillmere.exe"])

    def test_are_packed_with_their_papers(self):
        with zipfile.ZipFile(BIN.parent / "quillmere-windows.zip") as archive:
            names = archive.namelist()
            for path in EXECUTABLES:
                with self.subTest(path.name):
                    self.assertEqual(archive.read(f"quillmere/{path.name}"), path.read_bytes())
        for paper in ("LICENSE.txt", "README.md", "CHANGELOG.md", "docs/windows.md", "docs/operations.md",
                      "docs/monitoring/quillmere.rules.yml", "docs/monitoring/dashboard.json", "examples/README.md",
                      "examples/python/radio.py", "examples/python/application.py", "examples/javascript/radio.js",
                      "examples/javascript/application.js", "examples/javascript/package.json", "examples/java/Radio.java",
                      "examples/java/Application.java", "examples/csharp/Radio.cs", "examples/csharp/Application.cs"):
            self.assertIn(f"quillmere/{paper}", names)
        captures = [f"quillmere/wireshark/captures/{name}.pcap" for name in ("bad", "discovery", "radios")]
        self.assertEqual([name for name in names if "/wireshark/" in name], ["quillmere/wireshark/quillmere.lua", *captures])
        self.assertEqual([name for name in names if name.endswith(".exe")], [f"quillmere/{p.name}" for p in EXECUTABLES])

    def test_have_bills_of_their_materials(self):
        for name in ("quillmere-windows.zip", "quillmere-setup.exe"):
            bill = json.loads((BIN.parent / f"{name}.spdx.json").read_text())
            whole, *components = bill["packages"]
            digest = hashlib.sha256((BIN.parent / name).read_bytes()).hexdigest()
            self.assertEqual(whole["checksums"], [{"algorithm": "SHA256", "checksumValue": digest}])
            names = {component["name"] for component in components}
            self.assertLessEqual({"qt6-base", "sqlite3", "mingw-w64-x86-64-dev", "gcc-mingw-w64-x86-64-posix"}, names)
            self.assertEqual({row["relationshipType"] for row in bill["relationships"]}, {"DESCRIBES", "STATIC_LINK", "CONTAINS"})
            self.assertEqual(self.contained(bill), {("libboost1.74-dev", "BSL-1.0"), *self.of_the_page()})
            self.assertEqual(len(bill["relationships"]), len(bill["packages"]))
            sqlite = next(component for component in components if component["name"] == "sqlite3")
            # As the server itself says it.
            self.assertIn(sqlite["versionInfo"].split("-")[0].encode(), SERVER.read_bytes())

    @staticmethod
    def contained(bill):
        """What is compiled or bundled into the executables: its name and its licence."""
        inside = {row["relatedSpdxElement"] for row in bill["relationships"] if row["relationshipType"] == "CONTAINS"}
        return {(package["name"], package["licenseDeclared"]) for package in bill["packages"] if package["SPDXID"] in inside}

    @staticmethod
    def of_the_page():
        packages = json.loads((BIN.parent / "tools/monitor/page/materials.json").read_text())
        return {(package["name"], package.get("licence") or package["license"]) for package in packages}

    def test_are_stripped(self):
        for path in EXECUTABLES:
            with self.subTest(path.name):
                self.assertEqual(peinfo.symbols(path), [])

    def test_need_only_the_libraries_of_the_system(self):
        for path in EXECUTABLES:
            with self.subTest(path.name):
                self.assertLessEqual(set(peinfo.imported_libraries(path)), SYSTEM_LIBRARIES)

    def test_are_protected(self):
        for path in EXECUTABLES:
            with self.subTest(path.name):
                on = {"HIGH_ENTROPY_VA", "DYNAMIC_BASE", "NX_COMPAT", "RELOC"}
                self.assertLessEqual(on, peinfo.hardening(path))
                # Every function that is called through a pointer begins with the mark of a branch target.
                self.assertGreater(path.read_bytes().count(ENDBR64), 1000)

    def test_hold_no_time_and_no_folder_of_the_build(self):
        for path in EXECUTABLES:
            with self.subTest(path.name):
                self.assertFalse(peinfo.has_timestamp(path))
                self.assertNotIn(os.fsencode(pathlib.Path(__file__).resolve().parents[3]), path.read_bytes())

    def test_have_the_version(self):
        for path in EXECUTABLES:
            with self.subTest(path.name):
                self.assertEqual(peinfo.version(path), ((1, 38, 3, 27), (1, 38, 3, 27)))
                self.assertIn((24, 1, 1033), peinfo.resource_ids(path))

    def test_keep_the_ansi_code_page_and_take_long_paths(self):
        manifest = SERVER.read_bytes()
        self.assertIn(b"longPathAware", manifest)
        self.assertNotIn(b"<activeCodePage", manifest)


class MessageTable(unittest.TestCase):
    def test_shows_a_record_as_it_is(self):
        self.assertEqual(len(MESSAGE_TABLE), 32)
        self.assertIn((11, 1, 1033), peinfo.resource_ids(SERVER))
        self.assertEqual(peinfo.message_table(SERVER), MESSAGE_TABLE)


if __name__ == "__main__":
    unittest.main(verbosity=2)
