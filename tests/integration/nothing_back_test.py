#!/usr/bin/env python3
"""An appliance with a keyring goes back to no older pack, whatever the update server says.

usage: nothing_back_test.py --build BUILD
"""

import argparse
import json
import pathlib
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Paths, Publisher, make_pack  # noqa: E402

DAY = 86_400


class NothingBackTest(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.publisher = self.enterContext(Publisher(self.top / "published", ARGUMENTS.build))
        self.signer = self.publisher.make_signer()
        self.old = self.publisher.publish("1.0", 1)
        self.new = self.publisher.publish("2.0", 2, minimum="1.5")

    def lay_out(self, **options):
        appliance = Appliance.lay_out(self.top / "root", ARGUMENTS.build, **options)
        appliance.trust(self.signer)
        appliance.use_server(self.new)
        return appliance

    def with_new_pack(self):
        appliance = self.lay_out()
        appliance.expect("update")
        self.assert_holds(appliance, "2.0")
        return appliance

    def assert_holds(self, appliance, version):
        self.assertTrue(self.publisher.is_whole(appliance.pack, version))

    def assert_refused(self, appliance, code, *words):
        done = appliance.packctl("--json", *words)
        self.assertEqual(1, done.returncode, done.stdout + done.stderr)
        error = json.loads(done.stdout)["error"]
        self.assertEqual(code, error["code"], error)
        return error

    def offer_old_as(self, version):
        """A reply that offers the package of the old pack under another version, as its server may."""
        reply = json.loads((self.top / "published/reply-1.0.json").read_text())
        for member in reply.values():
            member["version"] = version
        (self.top / "published/hostile.json").write_text(json.dumps(reply))
        return f"{self.publisher.url}/hostile.json"

    def test_older_package_does_not_replace_a_newer_pack_under_another_version(self):
        appliance = self.with_new_pack()
        appliance.use_server(self.offer_old_as("3.0"))
        appliance.expect("check")
        error = self.assert_refused(appliance, "older_version", "update")
        self.assertIn("its version 1.0 is older than the installed 2.0", error["message"])
        self.assertIn("sudo packctl update --allow-older", error["remedy"])
        self.assert_holds(appliance, "2.0")
        # The offer stands, so the note of it stays.
        self.assertEqual(["offer.json"], [pathlib.Path(left).name for left in appliance.leftovers()])

    def test_host_without_packctl_keeps_its_pack_too(self):
        appliance = self.lay_out(packctl=False)
        host = appliance.program("host")
        self.assertEqual(0, appliance.run(host).returncode)
        appliance.use_server(self.offer_old_as("3.0"))
        done = appliance.run(host)
        self.assertEqual(1, done.returncode, done.stdout)
        self.assertIn("its version 1.0 is older than the installed 2.0", done.stderr)
        self.assert_holds(appliance, "2.0")
        self.assertEqual([], appliance.leftovers())

    def test_minimum_outlives_a_removal(self):
        appliance = self.with_new_pack()
        appliance.expect("remove", "--yes")
        self.assertFalse(appliance.pack.exists())
        appliance.use_server(self.old)
        self.assert_refused(appliance, "below_minimum", "update")
        self.assertFalse(appliance.pack.exists())
        appliance.use_server(self.new)
        appliance.expect("update")
        self.assert_holds(appliance, "2.0")

    def test_root_goes_back_on_purpose(self):
        appliance = self.with_new_pack()
        appliance.use_server(self.old)
        self.assertEqual(2, appliance.packctl("update").returncode)
        self.assert_refused(appliance, "older_version", "update", "--reinstall")
        done = appliance.packctl("update", "--allow-older")
        self.assertEqual(0, done.returncode, done.stdout + done.stderr)
        self.assert_holds(appliance, "1.0")
        self.assertEqual(2, appliance.packctl("update", "--allow-older").returncode)
        self.assertEqual("1.5", appliance.accepted()["minimum"])
        appliance.use_server(self.new)
        appliance.expect("update")
        self.assert_holds(appliance, "2.0")

    def test_same_version_is_installed_again(self):
        appliance = self.with_new_pack()
        appliance.expect("update", "--reinstall")
        self.assert_holds(appliance, "2.0")

    def test_interrupted_update_is_repeated_from_the_backup(self):
        appliance = self.lay_out()
        appliance.use_server(self.old)
        appliance.expect("update")
        appliance.pack.rename(appliance.backup)
        appliance.write_status(json.dumps({"status": "downloading_installing"}))
        appliance.use_server(self.new)
        appliance.expect("recover")
        appliance.expect("check")
        appliance.expect("update")
        self.assert_holds(appliance, "2.0")

    def test_codec_is_added_in_the_same_version(self):
        folder, address = self.publisher.folder, self.publisher.url
        payload, name = self.top / "payload-2.0", Paths(ARGUMENTS.build).hevc_aac_pack
        reply = folder / "reply-aac.json"
        make_pack(ARGUMENTS.build, payload, folder, "2.0", address, name=name, reply=reply, **self.publisher.signing)
        appliance = self.with_new_pack()
        appliance.use_server(f"{address}/{reply.name}")
        (appliance.state_folder / "codec-requirements.json").write_text('{"aac": ["player"]}')
        appliance.expect("check")
        appliance.expect("update")
        self.assertTrue((appliance.pack / "has_aac").exists())
        self.assertIn('version="2.0"', (appliance.pack / "INFO").read_text())

    def findings(self, appliance):
        report = json.loads(appliance.packctl("--json", "doctor").stdout)
        return [finding["problem"] for finding in report["findings"] if finding["check"] == "keyring"]

    def test_doctor_knows_what_was_accepted(self):
        appliance = self.with_new_pack()
        self.assertEqual([], [problem for problem in self.findings(appliance) if "expires" not in problem])
        appliance.accepted_file.write_text('minimum="2.1"\nnewest_signature="1"\n')
        self.assertIn(
            "the installed 2.0 is older than 2.1, the minimum that a newer package named", self.findings(appliance)
        )
        appliance.accepted_file.write_text("garbage")
        self.assertIn(
            f"{appliance.accepted_file} cannot be used, so an older pack may come back after a removal",
            self.findings(appliance),
        )
        tomorrow = int(time.time()) + DAY
        appliance.accepted_file.write_text(f'newest_signature="{tomorrow}"\n')
        days = [time.strftime("%Y-%m-%d", time.gmtime(seconds)) for seconds in (time.time(), tomorrow)]
        self.assertIn(
            f"the clock says {days[0]}, and it is {days[1]} at least, so signatures are judged as of that day",
            self.findings(appliance),
        )


if __name__ == "__main__":
    PARSER = argparse.ArgumentParser(description=__doc__)
    PARSER.add_argument("--build", type=pathlib.Path, required=True, help="build folder whose programs are used")
    ARGUMENTS = PARSER.parse_args()
    unittest.main(argv=sys.argv[:1])
