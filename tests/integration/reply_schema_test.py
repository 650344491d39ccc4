"""The reply's schema, held against what mkpack writes, what mkpack verify says, and what an appliance does.

usage: reply_schema_test.py --build BUILD
"""

import argparse
import hashlib
import json
import pathlib
import sys
import tempfile
import unittest

import jsonschema

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Paths, Publisher, mkpack_of  # noqa: E402

# Changes of a good reply's pack (None takes a member out) that leave it good.
TAKEN = (
    {},
    {"title": None, "size": None},
    {"size": 0},
    {"security": True},
    {"security": False},
    {"more": [1, {"a": None}]},
    {"version": "1.0-rc1+b_2"},
    {"version": "0" * 64},
)
# That no appliance installs.
REFUSED = (
    {"link": None},
    {"link": ""},
    {"link": "ftp://127.0.0.1/pack.opk"},
    {"link": "pack.opk"},
    {"link": {}},
    {"link": 1},
    {"checksum": None},
    {"checksum": ""},
    {"checksum": "0" * 63},
    {"checksum": "g" * 64},
    {"checksum": []},
    {"version": {}},
    {"version": ["1"]},
)
# That appliances install, and the schema refuses all the same; docs/protocol.md says why.
STRICTER = (
    {"version": None},
    {"version": ""},
    {"version": 2},
    {"version": 1.5},
    {"version": True},
    {"version": "2 beta"},
    {"version": "2" * 65},
    {"title": 1},
    {"size": -1},
    {"size": "many"},
    {"security": "yes"},
    {"security": 1},
)
# Whole texts; PACK stands for the name of the pack.
REFUSED_TEXTS = (
    "null",
    "[]",
    "1",
    '"text"',
    "{}",
    '{"PACK": null}',
    '{"PACK": []}',
    '{"PACK": "text"}',
    '{"PACK": 1}',
    '{"vendor": {}}',
)


class ReplySchemaTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        build = pathlib.Path(cls.arguments.build)
        schema = json.loads((build / "packaging/reply.schema.json").read_text())
        jsonschema.Draft202012Validator.check_schema(schema)
        cls.validator = jsonschema.Draft202012Validator(schema)
        cls.folder = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory()))
        cls.publisher = cls.enterClassContext(Publisher(cls.folder / "served", build))
        address = cls.publisher.publish("1.0", 1)
        cls.good = json.loads((cls.folder / "served" / address.rpartition("/")[2]).read_text())
        sys.path.insert(0, str(mkpack_of(build).parent))
        sys.dont_write_bytecode = True
        from orbamira_mkpack import reply

        cls.reply = reply
        cls.name, cls.aac_name = Paths(build).hevc_pack, Paths(build).hevc_aac_pack

    def changed(self, values):
        pack = {**self.good[self.name], **values}
        return json.dumps({self.name: {name: value for name, value in pack.items() if value is not None}})

    def is_valid(self, text):
        """What the schema says, with which mkpack verify must agree."""
        members = json.loads(text)
        valid = self.validator.is_valid(members)
        found = isinstance(members, dict) and not self.reply.findings(members, None)
        self.assertEqual(valid, found, "mkpack verify and the schema")
        return valid

    def is_installed(self, text):
        """Whether a fresh appliance installs what the reply offers."""
        root = tempfile.mkdtemp(dir=self.folder)
        appliance = Appliance.lay_out(root, self.arguments.build)
        (self.publisher.folder / "reply.json").write_text(text)
        appliance.use_server(self.publisher.url + "/reply.json")
        done = appliance.packctl("update")
        installed = (appliance.pack / "INFO").exists()
        self.assertEqual(installed, done.returncode == 0, done.stdout + done.stderr)
        return installed

    def test_takes_what_mkpack_writes(self):
        self.validator.validate(self.good)
        offer = set(self.validator.schema["$defs"]["offer"]["properties"])
        self.assertEqual(set(self.good[self.name]), offer - {"rollout", "channel", "security"})
        self.validator.validate({self.aac_name: self.good[self.name], self.name: self.good[self.name], "vendor": 1})

    def test_takes_what_appliances_take(self):
        sha512 = hashlib.sha512((self.folder / "served" / self.good[self.name]["link"].rpartition("/")[2]).read_bytes())
        sha256 = self.good[self.name]["checksum"]
        for values in (*TAKEN, {"checksum": sha512.hexdigest()}, {"checksum": sha256.upper()}):
            with self.subTest(values):
                text = self.changed(values)
                self.assertEqual((True, True), (self.is_valid(text), self.is_installed(text)))

    def test_refuses_what_appliances_refuse(self):
        for text in (*map(self.changed, REFUSED), *REFUSED_TEXTS):
            with self.subTest(text):
                self.assertEqual((False, False), (self.is_valid(text), self.is_installed(text)))

    def test_is_stricter_where_it_says_so(self):
        for values in STRICTER:
            with self.subTest(values):
                text = self.changed(values)
                self.assertEqual((False, True), (self.is_valid(text), self.is_installed(text)))

    def test_json_is_stricter_than_appliances(self):
        for text in ("// a comment\n" + self.changed({}), self.changed({}) + "more"):
            with self.subTest(text):
                self.assertTrue(self.is_installed(text))
                with self.assertRaises(self.reply.ReplyError):
                    self.reply.parse(text.encode())

    def test_bound_is_that_of_appliances(self):
        text = self.changed({})
        for size, taken in ((self.reply.MAX_SIZE, True), (self.reply.MAX_SIZE + 1, False)):
            self.assertEqual(taken, self.is_installed(text.ljust(size)))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    ReplySchemaTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
