"""The bill of materials that mkpack makes of a pack."""

import hashlib
import json
import pathlib
import struct
import subprocess
import sys
import tarfile
import unittest

from mkpack_test import MkpackTest
from verify_test_case import HEVC

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
import cyclonedx  # noqa: E402

NAME = "sbom.cdx.json"
COMPONENTS = """\
supplier = "Example NAS GmbH"

[[component]]
name = "libhevc"
version = "4.1.2"
licence = "BSD-3-Clause AND (MIT OR LicenseRef-Example)"
supplier = "Example Codecs Ltd"
purl = "pkg:generic/libhevc@4.1.2"
cpe = "cpe:2.3:a:example:libhevc:4.1.2:*:*:*:*:*:*:*"
files = ["lib/libhevc.so.*"]

[[component]]
name = "libutil"
version = "2"
licence = "GPL-2.0-only WITH Classpath-exception-2.0"
supplier = "Example Codecs Ltd"
files = ["lib/libutil.so", "share/*"]
"""


def compile_library(path, *options):
    subprocess.run(
        ["c++", "-shared", "-fPIC", "-nostdlib", "-x", "c", "/dev/null", "-o", path, "-x", "none", *options], check=True
    )


class SbomTest(MkpackTest):
    def setUp(self):
        super().setUp()
        lib = self.payload / "lib"
        (lib / "libdecoder.so.1").unlink()
        compile_library(lib / "libutil.so", "-Wl,-soname,libutil.so.2")
        hevc = lib / "libhevc.so.4.1"
        compile_library(
            hevc, "-Wl,-soname,libhevc.so.4", "-Wl,--no-as-needed", "-Wl,--no-warn-mismatch", lib / "libutil.so", "-lc"
        )
        (lib / "libhevc.so.4").symlink_to("libhevc.so.4.1")
        (self.payload / "share").mkdir()
        (self.payload / "share/table.bin").write_bytes(b"table")
        self.components = self.top / "components.toml"
        self.components.write_text(COMPONENTS)

    def bill(self, **options):
        """The bill beside the package, which is the one inside."""
        package = self.make(sbom=self.components, **options)
        beside = package.with_suffix(".cdx.json").read_bytes()
        self.assertEqual(beside, self.content(package, NAME))
        return json.loads(beside)

    def part(self, bill, name):
        (part,) = (part for part in bill["components"] if part["name"] == name)
        return part

    def assert_refused(self, problem, text):
        self.components.write_text(text)
        self.assert_fails(f"mkpack: {self.components}: {problem}\n", sbom=self.components)

    def test_every_component_has_what_its_maker_says(self):
        bill = self.bill()
        pack = bill["metadata"]["component"]
        self.assertEqual((HEVC, "1.2", "Example NAS GmbH"), (pack["name"], pack["version"], pack["supplier"]["name"]))
        self.assertNotIn("timestamp", bill["metadata"])
        hevc = self.part(bill, "libhevc")
        self.assertEqual(("4.1.2", "Example Codecs Ltd"), (hevc["version"], hevc["supplier"]["name"]))
        self.assertEqual([{"expression": "BSD-3-Clause AND (MIT OR LicenseRef-Example)"}], hevc["licenses"])
        self.assertEqual("pkg:generic/libhevc@4.1.2", hevc["purl"])
        self.assertTrue(hevc["cpe"].startswith("cpe:2.3:a:example"))

    def test_every_file_has_its_digest_and_its_name_for_others(self):
        bill = self.bill()
        files = {file["name"]: file for part in bill["components"] for file in part.get("components", [])}
        expected = {"lib/libhevc.so.4.1", "lib/libutil.so", "share/table.bin"}
        self.assertEqual(expected, set(files))
        for name, file in files.items():
            digest = hashlib.sha256((self.payload / name).read_bytes()).hexdigest()
            self.assertEqual([{"alg": "SHA-256", "content": digest}], file["hashes"])
        self.assertEqual("libhevc.so.4", files["lib/libhevc.so.4.1"]["properties"][0]["value"])
        self.assertNotIn("properties", files["share/table.bin"])

    def test_what_needs_what(self):
        bill = self.bill()
        needs = {row["ref"]: row["dependsOn"] for row in bill["dependencies"]}
        self.assertEqual(["libhevc@4.1.2", "libutil@2"], needs[f"{HEVC}@1.2"])
        self.assertEqual(["libutil@2", "soname:libc.so.6"], needs["libhevc@4.1.2"])
        self.assertEqual([], needs["libutil@2"])
        outside = self.part(bill, "libc.so.6")
        self.assertEqual("excluded", outside["scope"])
        self.assertNotIn("version", outside)

    def test_what_is_linked_into_a_component(self):
        more = """
[[component]]
name = "libmath"
version = "0.9"
licence = "MIT"
supplier = "Somebody"
part_of = "libhevc"
"""
        self.components.write_text(COMPONENTS + more)
        bill = self.bill()
        part = self.part(bill, "libmath")
        self.assertEqual(("0.9", "Somebody"), (part["version"], part["supplier"]["name"]))
        self.assertNotIn("components", part)
        needs = {row["ref"]: row["dependsOn"] for row in bill["dependencies"]}
        self.assertEqual(["libmath@0.9", "libutil@2", "soname:libc.so.6"], needs["libhevc@4.1.2"])
        self.assertEqual(["libhevc@4.1.2", "libutil@2"], needs[f"{HEVC}@1.2"])
        if cyclonedx.IS_THERE:
            self.assertEqual([], cyclonedx.problems(bill))
        about = 'component "libmath"'
        for wrong, problem in (
            (
                'part_of = "libother"',
                f"{about} is part_of libother, which has no files here. Name one component that has files.",
            ),
            ("part_of = 1", f"the part_of of {about} is no text. Write it in quotes, on one line."),
            ('part_of = "libhevc"\nfiles = ["share/*"]', f"{about} has both files and part_of. Remove one of them."),
        ):
            self.assert_refused(problem, COMPONENTS + more.replace('part_of = "libhevc"', wrong))
        twin = COMPONENTS.replace("libutil", "libhevc", 1)
        self.assert_refused(
            f"{about} is part_of libhevc, which names several. Name one component that has files.", twin + more
        )
        self.assert_refused(
            f"{HEVC}@1.2 is there twice. Put its files into one [[component]].",
            COMPONENTS + more.replace("libmath", HEVC).replace("0.9", "1.2"),
        )

    @unittest.skipUnless(cyclonedx.IS_THERE, "without the schema")
    def test_is_valid_in_the_eyes_of_the_official_schema(self):
        bill = self.bill(environment={"SOURCE_DATE_EPOCH": "1700000000"})
        self.assertEqual("2023-11-14T22:13:20+00:00", bill["metadata"]["timestamp"])
        self.assertEqual([], cyclonedx.problems(bill))
        for wrong in ({"bomFormat": "other"}, {"serialNumber": "1"}, {"components": [{"name": "without a type"}]}):
            self.assertNotEqual([], cyclonedx.problems(bill | wrong))

    def test_same_payload_gives_the_same_bytes(self):
        first = self.make(sbom=self.components)
        second = self.make(sbom=self.components, output=self.top / "other")
        self.assertEqual(first.name, second.name)
        for suffix in (".opk", ".cdx.json"):
            self.assertEqual(first.with_suffix(suffix).read_bytes(), second.with_suffix(suffix).read_bytes())
        (self.payload / "share/table.bin").write_bytes(b"other")
        third = self.make(sbom=self.components, output=self.top / "third")
        serials = {json.loads(path.with_suffix(".cdx.json").read_text())["serialNumber"] for path in (first, third)}
        self.assertEqual(2, len(serials))

    def test_without_the_option_there_is_none(self):
        package = self.make()
        self.assertNotIn(NAME, self.members(package))
        self.assertEqual([], list(self.output.glob("*.cdx.json")))

    def test_what_is_missing_is_an_error(self):
        for key in ("name", "version", "licence", "supplier"):
            line = next(line for line in COMPONENTS.split("[[component]]")[1].splitlines() if line.startswith(key))
            about = 'component "libhevc"' if key != "name" else "a component"
            self.assert_refused(f"{about} has no {key}. Add it.", COMPONENTS.replace(line + "\n", "", 1))
        self.assert_refused("the pack has no supplier. Add it.", COMPONENTS.partition("\n")[2])
        self.assert_refused(
            'component "libutil" has no files. Name them, such as files = ["lib/libdecoder.so.*"], or what it is '
            "part_of.",
            COMPONENTS.replace('files = ["lib/libutil.so", "share/*"]', ""),
        )
        self.assert_refused(
            "the version of component \"libutil\" is no text. Write it in quotes, on one line.",
            COMPONENTS.replace('version = "2"', "version = 2"),
        )
        self.assert_refused(
            "no [[component]]. Describe each component of the pack in one.", 'supplier = "Example NAS GmbH"\n'
        )

    def test_each_file_belongs_to_exactly_one_component(self):
        self.assert_refused(
            "share/table.bin in the payload belongs to no component. Give it to one, or leave it out.",
            COMPONENTS.replace(', "share/*"', ""),
        )
        self.assert_refused(
            "lib/libutil.so belongs to both libhevc and libutil. Give it to one of them.",
            COMPONENTS.replace("lib/libhevc.so.*", "lib/*"),
        )
        self.assert_refused(
            '"lib/libother.so" is not a file of the payload. Correct the name, or remove it.',
            COMPONENTS.replace('"share/*"', '"share/*", "lib/libother.so"'),
        )
        self.assert_refused(
            "libutil@2 is there twice. Put its files into one [[component]].",
            COMPONENTS.replace("libhevc", "libutil").replace("4.1.2", "2"),
        )

    def test_what_nothing_reads_is_an_error(self):
        self.assert_refused(
            'component "libhevc" has a "license", which nothing reads. Write licence, or remove it.',
            COMPONENTS.replace("licence", "license"),
        )
        for licence in ("Commercial licence of Example", "MIT AND", "(MIT", "WITH MIT", "MIT WITH", "MIT)"):
            self.assert_refused(
                f'component "libhevc" has the licence "{licence}", which is no SPDX expression. Write one such as '
                "BSD-3-Clause, or LicenseRef- and a name of your own.",
                COMPONENTS.replace("BSD-3-Clause AND (MIT OR LicenseRef-Example)", licence),
            )
        self.components.write_bytes(b"\xff")
        result = self.run_mkpack(sbom=self.components)
        self.assertEqual(1, result.returncode)
        self.assertIn("no TOML", result.stderr)

    def test_a_payload_that_has_one_already_is_refused(self):
        (self.payload / NAME).write_text("{}")
        self.assert_fails(
            f"mkpack: {NAME} in the payload has the name that --sbom writes to. Remove it.\n", sbom=self.components
        )

    def test_a_list_that_is_not_there(self):
        self.assert_fails(
            f"mkpack: {self.top}/none: No such file or directory. Put it there, or correct the path.\n",
            sbom=self.top / "none",
        )

    def test_damaged_libraries_are_refused(self):
        library = self.payload / "lib/libutil.so"
        whole = library.read_bytes()
        # Of each length and with each byte of the header changed it is taken, or refused in a sentence.
        self.mkpack_module()
        for size in (4, 5, 6, 40, 63, 64, 200, len(whole) // 2):
            self.assert_no_crash(library, whole[:size])
        for at in range(4, 64):
            self.assert_no_crash(library, whole[:at] + bytes([whole[at] ^ 0xFF]) + whole[at + 1 :])
        library.write_bytes(whole[:64])
        self.assert_fails(
            "mkpack: lib/libutil.so in the payload is a damaged ELF file. Build it again.\n", sbom=self.components
        )

    def mkpack_module(self):
        from orbamira_mkpack import elf

        self.elf = elf

    def assert_no_crash(self, library, data):
        library.write_bytes(data)
        with library.open("rb") as file:
            try:
                self.elf.names(file)
            except ValueError as error:
                self.assertEqual("damaged ELF file", str(error))

    def test_a_library_of_32_bits_and_the_other_byte_order(self):
        self.mkpack_module()
        strings = b"\0libarm.so.1\0libc.so.6\0"
        dynamic = b"".join(struct.pack(">iI", *entry) for entry in ((14, 1), (1, 13), (5, 0x1000 + 200), (0, 0)))
        header = b"\x7fELF\x01\x02\x01".ljust(16, b"\0") + struct.pack(
            ">HHIIIIIHHHHHH", 3, 40, 1, 0, 52, 0, 0, 52, 32, 2, 0, 0, 0
        )
        segments = struct.pack(">IIIIIIII", 1, 0, 0x1000, 0, 300, 300, 5, 4) + struct.pack(
            ">IIIIIIII", 2, 116, 0x1074, 0, len(dynamic), len(dynamic), 6, 4
        )
        path = self.top / "libarm.so"
        path.write_bytes(((header + segments + dynamic).ljust(200, b"\0") + strings).ljust(300, b"\0"))
        with path.open("rb") as file:
            names = self.elf.names(file)
        self.assertEqual(("libarm.so.1", ["libc.so.6"]), (names.soname, names.needed))

    def test_appliances_take_the_package(self):
        with tarfile.open(self.make(sbom=self.components), "r:") as outer:
            self.assertEqual(["INFO", "package.tgz"], outer.getnames())
        result = subprocess.run(
            [self.command()[0], "verify", self.output], capture_output=True, text=True, timeout=600, check=False
        )
        self.assertEqual((0, ""), (result.returncode, result.stderr), result.stdout)


if __name__ == "__main__":
    unittest.main()
