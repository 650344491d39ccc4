#!/usr/bin/env python3
"""A bad pack goes away by itself, and a person can send one away."""

import argparse
import contextlib
import json
import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402
from libraries import compile_library  # noqa: E402

NOTHING, REFUSED, FAILED = 2, 3, 1


class RollbackTest(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.made = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.made.cleanup)
        folder = pathlib.Path(cls.made.name)
        cls.publisher = cls.enterClassContext(Publisher(folder / "published", ARGUMENTS.build))
        good = {"lib/codec.so": compile_library(folder, "good")}
        bad = {"lib/codec.so": compile_library(folder, "crashing")}
        cls.offers = {
            version: cls.publisher.publish(version, int(version[0]), more=files)
            for version, files in {"1.0": good, "2.0": bad, "3.0": good}.items()
        }

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.appliance = Appliance.lay_out(pathlib.Path(folder.name) / "root", ARGUMENTS.build)
        plugin = self.appliance.plugins / "10-journal"
        self.journal = self.appliance.root / "journal"
        plugin.write_text(f'#!/bin/sh\necho "$2 $6 $8 ${{10}}" >> {self.journal}\n')
        plugin.chmod(0o755)

    def offer(self, version):
        self.appliance.use_server(self.offers[version])

    def packctl(self, status, *arguments):
        done = self.appliance.packctl("--json", *arguments)
        self.assertEqual(done.returncode, status, done.stdout + done.stderr)
        return json.loads(done.stdout)

    def install(self, version):
        self.offer(version)
        self.packctl(0, "update")
        self.journal.unlink(missing_ok=True)

    def assert_installed(self, version):
        self.assertTrue(self.publisher.is_whole(self.appliance.pack, version))
        self.assertEqual(self.appliance.status(), "up_to_date")
        self.assertEqual(self.appliance.leftovers(), [])

    def test_a_pack_that_crashes_goes_and_is_not_taken_again(self):
        self.install("1.0")
        self.offer("2.0")
        self.packctl(0, "check")
        self.assertTrue((self.appliance.state_folder / "offer.json").exists())
        failed = self.packctl(FAILED, "update")
        self.assertEqual(failed["error"]["code"], "unhealthy")
        self.assertIn("ended by signal", failed["error"]["message"])
        self.assert_installed("1.0")
        self.assertEqual(
            self.journal.read_text().splitlines(),
            [
                *("uninstall pre 1.0 UPGRADE", "uninstall post 1.0 UPGRADE"),
                *("install pre 2.0 UPGRADE", "install post 2.0 UPGRADE"),
                *("uninstall pre 2.0 UPGRADE", "uninstall post 2.0 UPGRADE"),
                *("install pre 1.0 UPGRADE", "install post 1.0 UPGRADE"),
            ],
        )
        for command in ("check", "update"):
            self.assertEqual(self.packctl(NOTHING, command)["result"], "rejected")
        self.assertEqual(self.packctl(0, "status")["rejected"][0]["version"], "2.0")
        self.assertIn("Rejected:   2.0: it failed its health check", self.appliance.packctl("status").stdout)
        self.assertEqual(self.packctl(0, "history")["entries"][0]["error"]["code"], "unhealthy")
        self.offer("3.0")
        self.packctl(0, "check")
        self.packctl(0, "update")
        self.assert_installed("3.0")
        self.assertEqual(self.packctl(0, "status")["rejected"], [])

    def test_a_check_forgets_the_offer_of_a_rejected_version(self):
        self.install("1.0")
        self.offer("2.0")
        self.packctl(0, "check")
        offer = self.appliance.state_folder / "offer.json"
        noted = offer.read_text()
        self.packctl(FAILED, "update")
        offer.write_text(noted)  # as a power cut may leave it after the version was rejected
        self.assertEqual(self.packctl(NOTHING, "check")["result"], "rejected")
        self.assert_installed("1.0")

    def test_a_rejected_version_is_taken_by_reinstall_alone(self):
        self.install("1.0")
        self.offer("2.0")
        self.packctl(FAILED, "update")
        self.packctl(FAILED, "update", "--reinstall")
        self.assert_installed("1.0")

    @contextlib.contextmanager
    def no_health_check(self):
        """Without the program that checks a pack."""
        program = self.appliance.helpers / "check-health"
        target = program.readlink()
        program.unlink()
        yield
        program.symlink_to(target)

    def test_a_rejected_version_leaves_no_work_behind(self):
        """A kill between the rejection and the last record of the way back, or a package that was downloaded before."""
        self.install("1.0")
        self.offer("2.0")
        self.packctl(FAILED, "update")
        offered = {"new_version": "2.0", "new_pack_name": self.appliance.paths.hevc_pack}
        for status in ("download_install_failed", "need_download", "need_install"):
            with self.subTest(status):
                self.appliance.download.mkdir()
                (self.appliance.download / f"{self.appliance.pack.name}.opk").touch()
                self.appliance.write_status(json.dumps({"status": status, **offered}))
                self.assertEqual(self.packctl(NOTHING, "check")["result"], "rejected")
                self.assert_installed("1.0")

    def test_a_repeated_install_keeps_the_way_back(self):
        """Its pack was not checked yet, so that the one before it is all that is known to be good."""
        self.install("1.0")
        self.offer("2.0")
        with self.no_health_check():
            self.packctl(0, "update")
            self.appliance.write_status('{"status": "download_install_failed"}')
            self.packctl(0, "check")
            self.packctl(0, "update")
        self.packctl(NOTHING, "check")
        self.assert_installed("1.0")

    def test_a_first_pack_that_is_bad_is_removed(self):
        self.offer("2.0")
        self.assertEqual(self.packctl(FAILED, "update")["error"]["code"], "unhealthy")
        self.assertFalse(self.appliance.pack.exists())
        self.assertEqual(
            self.journal.read_text().splitlines()[-2:], ["uninstall pre 2.0 UNINSTALL", "uninstall post 2.0 UNINSTALL"]
        )
        self.assertEqual(self.packctl(NOTHING, "check")["result"], "rejected")
        self.assertEqual(self.packctl(NOTHING, "update")["result"], "rejected")
        self.offer("3.0")
        self.packctl(0, "update")
        self.assert_installed("3.0")

    def test_a_program_may_say_no(self):
        self.install("1.0")
        self.offer("3.0")
        self.appliance.health.mkdir(parents=True)
        program = self.appliance.health / "10-no"
        program.write_text("#!/bin/sh\necho no picture\nexit 1\n")
        program.chmod(0o755)
        self.packctl(FAILED, "update")
        self.assert_installed("1.0")

    def test_a_check_that_cannot_be_made_keeps_the_pack(self):
        self.install("1.0")
        self.offer("3.0")
        with self.no_health_check():
            self.packctl(0, "update")
            self.assert_installed("3.0")
            self.assertIn("not checked", self.appliance.packctl("doctor").stdout)
        self.packctl(NOTHING, "check")
        self.assertNotIn("was not checked", self.appliance.packctl("doctor").stdout)

    def test_a_bad_pack_that_was_left_unchecked_goes_with_the_next_command(self):
        self.install("1.0")
        self.offer("2.0")
        program = self.appliance.helpers / "check-health"
        target = program.readlink()
        program.unlink()
        self.packctl(0, "update")
        program.symlink_to(target)
        self.assertEqual(self.packctl(NOTHING, "check")["result"], "rejected")
        self.assert_installed("1.0")
        self.assertIn("2.0 failed its health check", self.packctl(0, "history")["entries"][0]["errors"][0])

    def test_by_hand(self):
        self.assertEqual(self.packctl(NOTHING, "rollback")["result"], "nothing_to_do")
        self.install("1.0")
        self.assertEqual(self.packctl(NOTHING, "rollback")["result"], "nothing_to_do")
        self.install("3.0")
        self.assertEqual(self.packctl(0, "status")["previous_version"], "1.0")
        self.assertEqual(self.packctl(REFUSED, "rollback")["error"]["code"], "not_confirmed")
        self.packctl(0, "rollback", "--yes")
        self.assert_installed("1.0")
        self.assertEqual(len(self.journal.read_text().splitlines()), 4)
        self.assertEqual(self.packctl(NOTHING, "check")["result"], "rejected")
        self.packctl(0, "update", "--reinstall")
        self.assert_installed("3.0")
        self.assertEqual(self.packctl(0, "history")["entries"][1]["command"], "rollback")

    def test_keeps_no_previous_pack_where_none_is_wanted(self):
        settings = self.appliance.settings / "updater.conf"
        self.install("1.0")
        self.offer("3.0")
        settings.write_text(settings.read_text() + 'keep_previous_pack="no"\n')
        self.packctl(0, "update")
        self.assertFalse(self.appliance.previous.exists())

    def test_a_removal_takes_the_previous_pack_along(self):
        self.install("1.0")
        self.install("3.0")
        self.assertTrue(self.appliance.previous.exists())
        self.packctl(0, "remove", "--yes")
        self.assertFalse(self.appliance.previous.exists())


if __name__ == "__main__":
    PARSER = argparse.ArgumentParser(description=__doc__)
    PARSER.add_argument("--build", type=pathlib.Path, required=True, help="build folder whose programs are tested")
    ARGUMENTS, REST = PARSER.parse_known_args()
    unittest.main(argv=[sys.argv[0], *REST])
