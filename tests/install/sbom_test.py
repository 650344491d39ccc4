#!/usr/bin/env python3
"""packaging/sbom.py on the packages of this build."""

import argparse
import hashlib
import json
import pathlib
import subprocess
import sys
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
import cyclonedx  # noqa: E402

SBOM = pathlib.Path(__file__).resolve().parents[2] / "packaging" / "sbom.py"


def run(*arguments):
    return subprocess.run([SBOM, *arguments], capture_output=True, text=True, timeout=300, check=False)


class SbomTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.debs = sorted(cls.packages.glob("*.deb"))
        cls.text = run(*cls.debs).stdout
        cls.bill = json.loads(cls.text)
        cls.parts = {part["bom-ref"]: part for part in cls.bill["components"]}

    def part(self, name):
        (part,) = (part for part in self.bill["components"] if part["name"] == name)
        return part

    def names_needed_by(self, name):
        (row,) = (row for row in self.bill["dependencies"] if row["ref"] == self.part(name)["bom-ref"])
        return {self.parts[reference]["name"] for reference in row["dependsOn"]}

    def test_form(self):
        self.assertEqual(("CycloneDX", "1.6"), (self.bill["bomFormat"], self.bill["specVersion"]))
        self.assertRegex(self.bill["serialNumber"], r"^urn:uuid:[0-9a-f]{8}(-[0-9a-f]{4}){3}-[0-9a-f]{12}$")
        self.assertEqual(len(self.parts), len(self.bill["components"]), "two components have one reference")

    @unittest.skipUnless(cyclonedx.IS_THERE, "without the schema")
    def test_is_valid_in_the_eyes_of_the_official_schema(self):
        self.assertEqual([], cyclonedx.problems(self.bill))

    def test_every_package_has_its_digest(self):
        self.assertEqual(5, len(self.debs))
        for deb in self.debs:
            digest = hashlib.sha256(deb.read_bytes()).hexdigest()
            part = self.part(deb.name.partition("_")[0])
            self.assertEqual([{"alg": "SHA-256", "content": digest}], part["hashes"])

    def test_libraries_have_version_supplier_and_licence(self):
        part = self.part("libjsoncpp25")
        version = subprocess.run(
            ["dpkg-query", "--show", "--showformat=${Version}", "libjsoncpp25"],
            capture_output=True,
            text=True,
            check=True,
        ).stdout
        self.assertEqual(version, part["version"])
        self.assertTrue(part["supplier"]["name"] and part["licenses"])

    def test_what_each_package_needs_and_contains(self):
        self.assertLessEqual({"libarchive13", "libisal2", "libc6-dev"}, self.names_needed_by("orbamira-common"))
        self.assertLessEqual({"liborbamira-updater1", "libcli11-dev"}, self.names_needed_by("orbamira-tools"))
        self.assertLessEqual({"orbamira-common", "libcurl4"}, self.names_needed_by("liborbamira-updater1"))
        self.assertEqual({"python3", "openssl"}, self.names_needed_by("orbamira-mkpack"))

    def test_same_packages_give_the_same_bytes(self):
        self.assertEqual(self.text, run(*reversed(self.debs)).stdout)

    def test_what_is_no_package_is_told(self):
        for arguments in ([], [SBOM]):
            self.assertNotEqual(0, run(*arguments).returncode)
            self.assertEqual("", run(*arguments).stdout)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--packages", required=True, type=pathlib.Path, help="folder of the packages")
    own, rest = parser.parse_known_args()
    SbomTest.packages = own.packages
    unittest.main(argv=[sys.argv[0], *rest])
