#!/usr/bin/env python3
"""An appliance with a keyring goes back to no older pack, whatever the update server says.

usage: nothing_back_test.py --build BUILD
"""

import argparse
import json
import pathlib
import shutil
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

    def offer_old_as(self, version, old="1.0", name=None):
        """A reply that offers the package of an old pack under another version or name, as its server may."""
        (member,) = json.loads((self.top / f"published/reply-{old}.json").read_text()).values()
        reply = {name or Paths(ARGUMENTS.build).hevc_pack: {**member, "version": version}}
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

    def test_package_of_another_version_is_not_the_one_on_offer(self):
        appliance = self.with_new_pack()
        self.publisher.publish("2.5", 3)
        appliance.use_server(self.offer_old_as("3.0", old="2.5"))
        appliance.expect("check")
        for command in ("update", "download"):
            error = self.assert_refused(appliance, "not_as_offered", command)
            self.assertIn(" 2.5, and ", error["message"])
            self.assert_holds(appliance, "2.0")
            appliance.expect("check")
        appliance.use_server(f"{self.publisher.url}/reply-2.5.json")
        appliance.expect("check")
        appliance.expect("update")
        self.assert_holds(appliance, "2.5")

    def with_automatic_install(self, address):
        """An appliance that installs by itself what this address offers, and has found it."""
        appliance = self.with_new_pack()
        appliance.use_server(address)
        with open(appliance.settings / "updater.conf", "a") as settings:
            settings.write("update_policy=auto_download_auto_install\n")
        appliance.expect("check")
        return appliance

    def automatic(self, appliance):
        """What a timer makes of it: the result, the code, and whether a package was fetched."""
        before = self.publisher.fetched
        answer = json.loads(appliance.packctl("--json", "update", "--automatic").stdout)
        return answer["result"], (answer.get("error") or {}).get("code"), self.publisher.fetched > before

    def test_refused_package_is_not_fetched_again_until_something_changes(self):
        self.publisher.publish("2.5", 3)
        address = self.offer_old_as("3.0", old="2.5")
        appliance = self.with_automatic_install(address)
        self.assertEqual(("failed", "not_as_offered", True), self.automatic(appliance))
        waits = "By itself it waits: its package was refused, and is fetched again once the maker changes the offer"
        for _ in range(2):
            self.assertIn(waits, appliance.packctl("check").stdout)
            self.assertEqual(("waits", "package_refused", False), self.automatic(appliance))
        self.assertIn("Waits:      its package was refused", appliance.packctl("status").stdout)
        history = json.loads(appliance.packctl("--json", "history").stdout)["entries"]
        self.assertEqual(1, [entry["result"] for entry in history].count("waits"))
        # A person tries again.
        self.assert_refused(appliance, "not_as_offered", "update")
        # Another package for the same version.
        appliance.expect("check")
        self.assertEqual(("waits", "package_refused", False), self.automatic(appliance))
        self.publisher.publish("3.0", 4)
        (self.top / "published/hostile.json").write_bytes((self.top / "published/reply-3.0.json").read_bytes())
        appliance.expect("check")
        self.assertEqual(("done", None, True), self.automatic(appliance))
        self.assert_holds(appliance, "3.0")

    def test_refused_package_is_fetched_again_with_another_keyring(self):
        signing, self.publisher.signing = self.publisher.signing, {}
        address = self.publisher.publish("3.0", 4)
        self.publisher.signing = signing
        appliance = self.with_automatic_install(address)
        self.assertEqual(("failed", "not_signed", True), self.automatic(appliance))
        appliance.expect("check")
        self.assertEqual(("waits", "package_refused", False), self.automatic(appliance))
        (appliance.settings / "keyring.pem").unlink()
        self.assertEqual(("done", None, True), self.automatic(appliance))

    def test_package_of_another_pack_is_not_the_one_on_offer(self):
        appliance = self.with_new_pack()
        (appliance.state_folder / "codec-requirements.json").write_text('{"aac": ["player"]}')
        appliance.use_server(self.offer_old_as("2.0", old="2.0", name=Paths(ARGUMENTS.build).hevc_aac_pack))
        appliance.expect("check")
        self.assert_refused(appliance, "not_as_offered", "update")
        self.assert_holds(appliance, "2.0")

    def test_downloaded_package_is_the_one_that_was_on_offer(self):
        appliance = self.with_new_pack()
        self.publisher.publish("2.5", 3)
        appliance.use_server(self.publisher.publish("3.0", 4))
        appliance.expect("check")
        appliance.expect("download")
        package = next(appliance.download.glob("*.opk"))
        whole = package.read_bytes()
        package.write_bytes(next((self.top / "published").glob("*-2.5-*.opk")).read_bytes())
        self.assert_refused(appliance, "not_as_offered", "install")
        self.assert_holds(appliance, "2.0")
        package.write_bytes(whole)
        appliance.expect("install")
        self.assert_holds(appliance, "3.0")

    def test_offer_that_became_older_since_the_check_is_not_taken(self):
        """Also without a keyring, where nothing but packctl is in the way."""
        for with_keyring in (True, False):
            for command in ("update", "download"):
                with self.subTest(with_keyring=with_keyring, command=command):
                    appliance = self.with_new_pack()
                    if not with_keyring:
                        (appliance.settings / "keyring.pem").unlink()
                    appliance.use_server(self.offer_old_as("3.0", old="2.0"))
                    appliance.expect("check")
                    appliance.use_server(self.old)
                    error = self.assert_refused(appliance, "older_version", command)
                    self.assertEqual("the version on offer, 1.0, is older than the installed 2.0", error["message"])
                    self.assert_holds(appliance, "2.0")
                    self.assertFalse(appliance.download.exists())
                    self.assertEqual(2, appliance.packctl("check").returncode)
                    self.assertEqual("up_to_date", appliance.status())
                    appliance.expect("update", "--allow-older")
                    self.assert_holds(appliance, "1.0")
                    shutil.rmtree(appliance.root)

    def test_older_pack_adds_a_codec_where_there_is_no_keyring(self):
        """A check offers the pack with the codec, whatever its version, so an update takes it."""
        folder, address = self.publisher.folder, self.publisher.url
        reply = folder / "reply-aac.json"
        name = Paths(ARGUMENTS.build).hevc_aac_pack
        make_pack(ARGUMENTS.build, self.top / "payload-1.0", folder, "1.0", address, name=name, reply=reply)
        appliance = self.with_new_pack()
        (appliance.settings / "keyring.pem").unlink()
        appliance.use_server(f"{address}/{reply.name}")
        (appliance.state_folder / "codec-requirements.json").write_text('{"aac": ["player"]}')
        appliance.expect("check")
        appliance.expect("update")
        self.assertTrue((appliance.pack / "has_aac").exists())

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
