#!/usr/bin/env python3
# SPDX-FileCopyrightText: The ipsec-helpers authors
# SPDX-License-Identifier: Apache-2.0
"""Tests of tools/sbom.py with the built libraries.

Usage: bill_of_materials.py SBOM LIBRARY...
"""
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

SBOM, *LIBRARIES = [pathlib.Path(argument).resolve() for argument in sys.argv[1:]]
del sys.argv[1:]


class BillOfMaterials(unittest.TestCase):
    def setUp(self):
        self.scratch = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.scratch)
        self.folder = self.folder_of("package")

    def folder_of(self, name):
        folder = self.scratch / name
        (folder / "doc").mkdir(parents=True)
        for library in LIBRARIES:
            shutil.copy(library, folder)
        (folder / "doc" / "a text").write_text("Some words.\n")
        (folder / "link").symlink_to("doc/a text")
        return folder

    def make(self, folder, time="1767225600"):
        self.out = folder / "doc" / "bill.json"
        command = [
            sys.executable,
            SBOM,
            "--package",
            "some",
            "--version",
            "7.8.9",
            "--folder",
            folder,
            "--out",
            self.out,
        ]
        environment = {**os.environ, "SOURCE_DATE_EPOCH": time}
        if time is None:
            del environment["SOURCE_DATE_EPOCH"]
        return subprocess.run(command, env=environment, capture_output=True, text=True, check=False)

    def bill(self):
        done = self.make(self.folder)
        self.assertEqual(done.returncode, 0, done.stderr)
        return json.loads(self.out.read_text())

    def test_every_file_stands_there_with_its_checksums(self):
        bill = self.bill()
        names = {file["fileName"] for file in bill["files"]}
        self.assertEqual(names, {f"./{library.name}" for library in LIBRARIES} | {"./doc/a text"})
        for file in bill["files"]:
            for checksum in file["checksums"]:
                tool = checksum["algorithm"].lower() + "sum"
                told = subprocess.run(
                    [tool, self.folder / file["fileName"]], capture_output=True, text=True, check=True
                )
                self.assertEqual(told.stdout.split()[0].lstrip("\\"), checksum["checksumValue"])

    def test_libraries_are_linked_with_openssl_and_the_platform_has_spdlog_and_fmt_in_it(self):
        bill = self.bill()
        names = {entry["SPDXID"]: entry["fileName"] for entry in bill["files"]}
        names |= {entry["SPDXID"]: entry["name"] for entry in bill["packages"]}
        found = {
            (names[one["spdxElementId"]], one["relationshipType"], names[one["relatedSpdxElement"]])
            for one in bill["relationships"]
            if one["relationshipType"].endswith("_LINK")
        }
        for library in LIBRARIES:
            platform = "platform" in library.name
            for component in ("spdlog", "fmt"):
                self.assertEqual((f"./{library.name}", "STATIC_LINK", component) in found, platform)
            self.assertEqual((f"./{library.name}", "DYNAMIC_LINK", "openssl") in found, not platform)
            self.assertIn((f"./{library.name}", "DYNAMIC_LINK", "glibc"), found)
        openssl = next(entry for entry in bill["packages"] if entry["name"] == "openssl")
        self.assertRegex(openssl["versionInfo"], r"^3\.\d")
        platforms = [file for file in bill["files"] if "platform" in file["fileName"]]
        self.assertEqual([file["licenseConcluded"] for file in platforms], ["Apache-2.0 AND MIT"])

    def test_all_names_are_unique_and_known(self):
        bill = self.bill()
        known = [bill["SPDXID"], *(entry["SPDXID"] for entry in bill["packages"] + bill["files"])]
        self.assertEqual(len(known), len(set(known)))
        for one in bill["relationships"]:
            self.assertIn(one["spdxElementId"], known)
            self.assertIn(one["relatedSpdxElement"], known)

    def test_the_same_files_give_the_same_bill_and_others_another(self):
        self.bill()
        first = self.out.read_bytes()
        self.bill()  # its own file does not count
        self.assertEqual(self.out.read_bytes(), first)
        self.assertEqual(self.make(self.folder_of("another name")).returncode, 0)
        self.assertEqual(self.out.read_bytes(), first)
        (self.folder / "doc" / "a text").write_text("Other words.\n")
        second = self.bill()
        self.assertNotEqual(second["documentNamespace"], json.loads(first)["documentNamespace"])

    def test_what_the_bill_would_not_know_is_an_error(self):
        missing = self.make(self.folder, time=None)
        self.assertEqual(missing.returncode, 1)
        self.assertIn("the time of the bill, is not set", missing.stderr)
        shutil.copy(shutil.which("readelf"), self.folder)  # it is linked with a library of binutils
        done = self.make(self.folder)
        self.assertEqual(done.returncode, 1)
        self.assertIn("NEEDED in", done.stderr)


if __name__ == "__main__":
    unittest.main()
