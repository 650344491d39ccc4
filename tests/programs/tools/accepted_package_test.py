"""Where there is a keyring, nothing goes back: a signature says what it is for, and how old it may be."""

import datetime
import os
import re
import shutil
import tempfile
import time
import unittest
import unittest.mock

import words
from signed_test_case import BUILD, SignedTestCase, manifest, tar

from appliance import Appliance, Paths  # isort: skip

DAY = 86_400
PRODUCT = Paths(BUILD).package_id


class AcceptedPackageTest(SignedTestCase):
    def setUp(self):
        super().setUp()
        paths = Paths(BUILD)
        self.hevc, self.hevc_aac = paths.hevc_pack, paths.hevc_aac_pack
        self.pack_folder = self.root / paths.packs_folder / paths.pack_folder_name
        self.backup = self.pack_folder.with_name(f".{self.pack_folder.name}.backup")
        self.accepted = self.root / paths.state_folder / "accepted-packages"
        self.settings = self.keyring.with_name("updater.conf")
        # The updater's own, which is emptied before each package.
        self.folder = self.pack_folder.with_name(f".{self.pack_folder.name}.unpacked")
        self.folder.mkdir(parents=True, exist_ok=True)
        self.trust("ca")

    def make(self, version="2.0", pack=None, info=None, signer="signer", **facts):
        """Makes a signed package; facts that are None are left out."""
        pack = pack or self.hevc
        info = f'package="{pack}"\nversion="{version}"\n' if info is None else info
        self.members = {"INFO": info.encode(), "package.tgz": b"payload"}
        facts = {"format": "2", "product": PRODUCT, "pack": pack, "version": version, **facts}
        lines = "".join(f"# {key}: {value}\n" for key, value in facts.items() if value is not None)
        self.pack(text=lines.encode() + manifest(self.members), by=(signer,))

    def make_of_format_1(self, version):
        self.members = {"INFO": f'version="{version}"\n'.encode(), "package.tgz": b"payload"}
        self.pack()

    def install(self, version, folder=None):
        folder = folder or self.pack_folder
        folder.mkdir(parents=True)
        (folder / "INFO").write_text(f'package="{self.hevc}"\nversion="{version}"\n')

    def clear(self):
        for path in self.folder.iterdir():
            path.unlink()

    def assert_accepted(self, **environment):
        done = self.unpack(**environment)
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        self.assertEqual(sorted(["MANIFEST", "MANIFEST.sig", *self.members]), sorted(os.listdir(self.folder)))
        self.clear()
        verified = self.run_tool("orba-archive", "--verify", self.package, **environment)
        self.assertEqual((0, "", ""), (verified.returncode, verified.stdout, verified.stderr))

    def assert_told(self, code):
        """On another appliance in the same state, which recovery may put in order."""
        with tempfile.TemporaryDirectory(dir=self.top) as folder:
            shutil.copytree(self.root, f"{folder}/root", symlinks=True)
            appliance, self.appliance = self.appliance, Appliance(f"{folder}/root", BUILD)
            try:
                super().assert_told(code)
            finally:
                self.appliance = appliance

    def at(self, moment):
        """The environment of a program whose clock stands there."""
        if "STOPPED_CLOCK" not in os.environ:
            self.skipTest("a sanitizer keeps others from being preloaded")
        return {"LD_PRELOAD": os.environ["STOPPED_CLOCK"], "CLOCK_AT": str(int(moment))}

    def clock_at(self, moment):
        """Within it, the clock of every program stands there."""
        return unittest.mock.patch.dict(os.environ, self.at(moment))

    def remembered(self):
        return dict(re.findall(r'^(\w+)="(.*)"$', self.accepted.read_text(), flags=re.MULTILINE))

    # What the signature says.

    def test_signature_says_what_the_package_is(self):
        self.make(minimum="1.0", expires="9999-12-31", another="is for programs of later days")
        self.assert_accepted()

    def test_package_for_another_product_is_refused(self):
        self.make(product="other-nas")
        self.assert_refused(f"made for the product other-nas, and this is {PRODUCT}", "wrong_product")

    def test_info_that_says_something_else_is_refused(self):
        for info, words_of_it in (
            (f'package="{self.hevc}"\nversion="3.0"\n', 'version is "3.0", not 2.0'),
            (f'package="{self.hevc}"\n', 'version is "", not 2.0'),
            (f'package="{self.hevc_aac}"\nversion="2.0"\n', f'package is "{self.hevc_aac}", not {self.hevc}'),
            ("", f'package is "", not {self.hevc}'),
        ):
            with self.subTest(info):
                self.make(info=info)
                self.assert_refused(f"INFO: not what MANIFEST says: its {words_of_it}", "info_mismatch")

    def test_package_without_info_is_refused(self):
        self.make()
        del self.members["INFO"]
        facts = f"# format: 2\n# product: {PRODUCT}\n# pack: {self.hevc}\n# version: 2.0\n"
        self.pack(text=facts.encode() + manifest(self.members))
        self.assert_refused(f'INFO: not what MANIFEST says: its package is "", not {self.hevc}', "info_mismatch")

    def test_manifest_of_a_later_format_is_refused(self):
        self.make(format="3")
        self.assert_refused("MANIFEST: of format 3, which this updater does not know", "manifest_too_new")

    def test_damaged_facts_are_refused(self):
        for facts in (
            {"format": None},
            {"format": "1"},
            {"format": "two"},
            {"format": "4294967298"},
            {"product": None},
            {"product": ""},
            {"version": None},
            {"version": "2 0"},
            {"version": "2" * 129},
            {"minimum": ""},
            {"minimum": '1"'},
            {"expires": ""},
            {"expires": "2099-02-29"},
            {"expires": "2099-2-1"},
            {"expires": "2099-02-011"},
            {"expires": "+099-02-01"},
            {"expires": "-999-02-01"},
            {"version\n# version": "2.0"},
            {"noise\n#noise": "2.0"},
            {"noise\n# noise": None, "noise\n# of it\n# more": "2.0"},
        ):
            with self.subTest(facts):
                self.make(info=f'package="{self.hevc}"\nversion="2.0"\n', **facts)
                self.assert_refused("MANIFEST: damaged")

    def test_facts_below_the_digests_are_refused(self):
        self.make()
        text = manifest(self.members)
        self.pack(text=text + f"# format: 2\n# product: {PRODUCT}\n# pack: {self.hevc}\n# version: 2.0\n".encode())
        self.assert_refused("MANIFEST: damaged")

    def test_version_below_its_own_minimum_is_refused(self):
        self.make(version="2.0", minimum="2.1")
        self.assert_refused("MANIFEST: damaged: its version is older than its own minimum")

    def test_info_of_any_length_is_refused(self):
        self.package.write_bytes(tar([("INFO", bytes((1 << 20) + 1))]))
        self.assert_refused(f"INFO: longer than {1 << 20} bytes", "bad_package")

    # The older form.

    def test_manifest_of_format_1_is_accepted_until_the_settings_demand_more(self):
        self.make_of_format_1("2.0")
        self.assert_accepted()
        self.settings.write_text('minimum_manifest_format="1"\n')
        self.assert_accepted()
        self.settings.write_text('minimum_manifest_format="2"\n')
        self.assert_refused("MANIFEST: of format 1, and the settings demand 2", "manifest_too_old")
        self.make()
        self.assert_accepted()

    def test_setting_that_cannot_be_used_accepts_nothing(self):
        self.make()
        for value in ("3", "0", "two"):
            with self.subTest(value):
                self.settings.write_text(f'minimum_manifest_format="{value}"\n')
                self.assert_refused(
                    f"{self.settings}: minimum_manifest_format is neither 1 nor 2: {value}", "bad_setting"
                )

    def test_older_package_of_format_1_is_refused_by_its_info(self):
        self.install("2.0")
        self.make_of_format_1("1.9")
        self.assert_refused("its version 1.9 is older than the installed 2.0", "older_version")
        self.make_of_format_1("2.0")
        self.assert_accepted()

    # What is installed.

    def test_package_that_is_older_than_the_installed_pack_is_refused(self):
        self.install("2.0")
        self.make("1.0")
        self.assert_refused("its version 1.0 is older than the installed 2.0", "older_version")

    def test_package_that_is_older_than_the_backup_is_refused(self):
        """A host of the library sets the old pack aside before it unpacks, and an interrupted one leaves it there."""
        self.install("2.0", self.backup)
        self.make("1.0")
        self.assert_refused("its version 1.0 is older than the installed 2.0", "older_version")
        self.make("2.0")
        self.assert_accepted()

    def test_newer_of_pack_and_backup_counts(self):
        self.make("2.0")
        for pack, backup in (("1.0", "3.0"), ("3.0", "1.0")):
            with self.subTest(pack):
                self.install(pack)
                self.install(backup, self.backup)
                self.assert_refused("its version 2.0 is older than the installed 3.0", "older_version")
                shutil.rmtree(self.pack_folder)
                shutil.rmtree(self.backup)

    def test_same_version_is_accepted_again_also_with_another_codec(self):
        self.install("2.0")
        self.make("2.0")
        self.assert_accepted()
        self.make("2.0", pack=self.hevc_aac)
        self.assert_accepted()

    def test_nothing_is_asked_where_there_is_no_keyring(self):
        self.install("2.0")
        self.make("1.0", product="other-nas", expires="2000-01-01")
        self.keyring.unlink()
        self.assert_accepted()
        self.assertFalse(self.accepted.exists())

    def test_limit_that_cannot_be_used_accepts_nothing(self):
        self.make()
        self.settings.write_text('unpack_limit="16G"\n')
        self.assert_refused(f"{self.settings}: unpack_limit is not a number of bytes: 16G", "bad_setting")

    # What is on offer.

    def judge(self, *options, **environment):
        """What unpacking and verifying with these options say, which is the same."""
        done = self.run_tool("orba-archive", "-xf", self.package, "-C", self.folder, *options, **environment)
        self.assertEqual(done.returncode != 0, not os.listdir(self.folder))
        self.clear()
        verified = self.run_tool("orba-archive", "--verify", self.package, *options, **environment)
        self.assertEqual((done.returncode, done.stderr), (verified.returncode, verified.stderr))
        return done.stderr

    def test_package_is_that_of_the_offer(self):
        self.make("2.0")
        for version in ("2.0", "2", "2.0.0"):
            self.assertEqual("", self.judge("--offer", f"{self.hevc}={version}"))
        for offer in (f"{self.hevc}=2.5", f"{self.hevc}=1.9", f"{self.hevc_aac}=2.0"):
            with self.subTest(offer):
                name, version = offer.split("=")
                expected = f"not the pack on offer: it has {self.hevc} 2.0, and {name} {version} is on offer\n"
                self.assertTrue(self.judge("--offer", offer).endswith(f": {expected}"))
                self.assertTrue(self.judge("--offer", offer, ORBAMIRA_ALLOW_OLDER="1").endswith(f": {expected}"))

    def test_package_of_format_1_is_that_of_the_offer_by_its_info(self):
        self.make_of_format_1("2.0")
        self.assertEqual("", self.judge("--offer", f"{self.hevc_aac}=2.0"), "its INFO names no pack")
        self.assertIn("not the pack on offer", self.judge("--offer", f"{self.hevc}=2.5"))
        self.members = {"INFO": f'package="{self.hevc}"\nversion="2.0"\n'.encode()}
        self.pack()
        self.assertEqual("", self.judge("--offer", f"{self.hevc}=2.0"))
        self.assertIn("not the pack on offer", self.judge("--offer", f"{self.hevc_aac}=2.0"))
        self.members = {"package.tgz": b"payload"}
        self.pack()
        self.assertIn("it has a pack of no name without a version, and", self.judge("--offer", f"{self.hevc}=2.0"))

    def test_offer_is_not_compared_where_there_is_no_keyring(self):
        self.make("2.0")
        self.keyring.unlink()
        self.assertEqual("", self.judge("--offer", f"{self.hevc}=2.5"))

    def test_older_package_is_told_as_older_whatever_is_on_offer(self):
        self.install("2.0")
        self.make("1.0")
        self.assertIn("its version 1.0 is older", self.judge("--offer", f"{self.hevc}=3.0"))

    def test_offer_has_a_name_and_a_version(self):
        self.make("2.0")
        for words_of_it in (("--offer", "2.0"), ("--offer", "=2.0"), ("--offer", "a="), ("--offer", ""), ("--offer",)):
            done = self.run_tool("orba-archive", "--verify", self.package, *words_of_it)
            self.assertEqual(64, done.returncode, words_of_it)
        self.assertEqual(64, self.run_tool("orba-archive", "-tf", self.package, "--offer", "a=1").returncode)

    # The minimum.

    def test_minimum_outlives_the_pack_that_named_it(self):
        self.make("2.0", minimum="1.5")
        self.assert_accepted()
        self.assertEqual("1.5", self.remembered()["minimum"])
        self.assertEqual(0o644, self.accepted.stat().st_mode & 0o7777)
        self.make("1.4")
        self.assert_refused("its version 1.4 is older than the minimum 1.5", "below_minimum")
        self.make_of_format_1("1.4")
        self.assert_refused("its version 1.4 is older than the minimum 1.5", "below_minimum")
        self.make("1.5")
        self.assert_accepted()

    def test_minimum_only_rises(self):
        for minimum, highest in (("1.9", "1.9"), ("1.10", "1.10"), ("1.2", "1.10"), (None, "1.10")):
            with self.subTest(minimum):
                self.make("2.0", minimum=minimum)
                self.assert_accepted()
                self.assertEqual(highest, self.remembered()["minimum"])

    def test_only_what_is_unpacked_to_be_installed_is_remembered(self):
        self.make("2.0", minimum="1.5")
        self.run_tool("orba-archive", "--verify", self.package)
        elsewhere = self.top / "elsewhere"
        elsewhere.mkdir()
        done = self.run_tool("orba-archive", "-xf", self.package, "-C", elsewhere)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertFalse(self.accepted.exists())

    def test_refused_package_is_not_remembered(self):
        self.make("2.0", minimum="1.5", product="other-nas")
        self.unpack()
        self.assertFalse(self.accepted.exists())

    def test_nothing_is_written_that_is_known(self):
        self.make("2.0", minimum="1.5")
        self.assert_accepted()
        before = self.accepted.stat()
        self.assert_accepted()
        self.assertEqual(before.st_ino, self.accepted.stat().st_ino)
        self.assertEqual([self.accepted.name], [path.name for path in self.accepted.parent.glob("accepted*")])

    def test_package_that_cannot_be_remembered_is_refused(self):
        self.make("2.0", minimum="1.5")
        (self.accepted / "in the way").mkdir(parents=True)
        done = self.unpack()
        self.assertEqual(1, done.returncode)
        self.assertRegex(done.stderr, f"^orba-archive: .*{re.escape(f'cannot replace {self.accepted}')}: .+\n$")

    def test_damaged_memory_forbids_nothing(self):
        self.make("1.0")
        for text in ("", "garbage", 'minimum=""\nnewest_signature="soon"\n', 'newest_signature="-5"\n'):
            with self.subTest(text):
                self.accepted.write_text(text)
                self.assert_accepted()
                self.assertGreater(int(self.remembered()["newest_signature"]), 0)

    # Root with the package in hand.

    def test_older_package_is_accepted_by_who_asks_for_it(self):
        self.install("2.0")
        self.accepted.write_text('minimum="1.5"\n')
        self.make("1.0", expires="2000-01-01")
        for value in ("0", "", "yes"):
            self.assertEqual(1, self.unpack(ORBAMIRA_ALLOW_OLDER=value).returncode)
        self.assert_accepted(ORBAMIRA_ALLOW_OLDER="1")
        self.assertEqual("1.5", self.remembered()["minimum"])

    def test_whoever_asks_for_an_older_package_gets_no_foreign_one(self):
        self.make(product="other-nas")
        done = self.unpack(ORBAMIRA_ALLOW_OLDER="1")
        self.assertEqual(1, done.returncode)
        self.assertIn("made for the product other-nas", done.stderr)

    # Days and clocks.

    def test_package_is_accepted_until_the_end_of_its_last_day(self):
        last = datetime.datetime.now(datetime.timezone.utc).date() + datetime.timedelta(days=1)
        midnight = datetime.datetime(last.year, last.month, last.day, tzinfo=datetime.timezone.utc).timestamp()
        self.make(expires=last)
        self.assert_accepted(**self.at(midnight + DAY - 1))
        with self.clock_at(midnight + DAY):
            tomorrow = last + datetime.timedelta(days=1)
            self.assert_refused(f"was to be installed until {last}, and today is {tomorrow}", "package_expired")

    def test_clock_of_1970_is_not_believed(self):
        self.make()
        not_yet = "MANIFEST.sig: " + words.certificate_error(words.NOT_YET_VALID)
        with self.clock_at(5):
            self.assert_refused_for(
                not_yet + "; the clock says 1970-01-01, so it was judged as of 20[0-9]{2}-[0-9]{2}-[0-9]{2}",
                "clock_behind",
            )

    def test_clock_that_may_be_right_is_not_blamed(self):
        self.authority.issue_for_the_future("signer", "ca")
        self.make()
        self.assert_signer_refused(words.NOT_YET_VALID)

    def test_newest_signature_is_a_time_that_has_been(self):
        self.make()
        self.assert_accepted()
        self.assertLess(abs(int(self.remembered()["newest_signature"]) - time.time()), DAY)
        self.assert_accepted(**self.at(5))

    def test_time_that_has_been_ends_certificates_and_last_days(self):
        self.make(expires=datetime.date.today() + datetime.timedelta(days=1))
        self.assert_accepted()
        self.accepted.write_text(f'newest_signature="{int(time.time()) + 3 * DAY}"\n')
        self.assert_signer_refused(words.EXPIRED)
        self.authority.issue("signer", "ca", days=30)
        self.authority.openssl("x509", "-in", "signer.pem", "-out", "trusted.pem")
        self.trust("trusted")
        self.make(expires=datetime.date.today() + datetime.timedelta(days=1))
        self.assert_refused_for("was to be installed until .*", "package_expired")

    def test_signer_whose_clock_is_ahead_ends_no_certificate(self):
        for days, counts in ((2, False), (900, True)):
            with self.subTest(days):
                self.authority.issue("signer", None, days=days)
                self.trust("signer")
                ahead = int(time.time()) + 400 * DAY
                with self.clock_at(ahead):
                    self.make()
                self.assert_accepted()
                self.assertEqual(counts, self.accepted.exists() and self.remembered()["newest_signature"] == str(ahead))


if __name__ == "__main__":
    unittest.main()
