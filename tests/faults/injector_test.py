#!/usr/bin/env python3
"""Tests of the fault injector, on small scripts of the shell: injector_test.py FAULT_INJECTOR [unittest argument...]"""

import pathlib
import subprocess
import sys
import tempfile
import unittest

END = "mkdir end"  # where the scripts are struck
OVERWRITE = "dd of=file bs=4096 status=none conv=notrunc"


class InjectorTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orbamira-injector-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name) / "root"
        self.folder.mkdir()
        self.record = pathlib.Path(folder.name) / "calls"

    def inject(self, script, *options):
        """Runs the script in the folder; returns its exit status and its numbered calls."""
        done = subprocess.run(
            [injector, "--record", self.record, *map(str, options), "--", "/bin/sh", "-c", script],
            cwd=self.folder,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            check=False,
        )
        return done.returncode, [line.split(" ", 3) for line in self.record.read_text().splitlines()]

    def strike(self, fault, script, *options):
        """Runs the script and strikes at the call that makes "end"; returns the exit status."""
        script = f"{script}; {END}"
        _, calls = self.inject(script)
        at = next(int(number) for number, _, call, path in calls if call == "mkdir" and path == "end")
        for path in self.folder.iterdir():
            path.rmdir() if path.is_dir() else path.unlink()
        return self.inject(script, "--at", at, "--fault", fault, *options)[0]

    def cut_power(self, script, fault="power"):
        """Strikes by a power cut; returns what the files hold then."""
        self.assertEqual(self.strike(fault, script, "--below", self.folder), 137)
        self.assertFalse((self.folder / "end").exists())
        return {path.name: path.read_text() for path in self.folder.iterdir()}

    def test_every_changing_call_is_numbered(self):
        _, calls = self.inject("echo text > file; mv file other; rm other")
        self.assertEqual([int(number) for number, *_ in calls], list(range(1, len(calls) + 1)))
        self.assertIn(["sh", "openat", "file"], [call[1:] for call in calls])
        self.assertEqual([path for _, process, call, path in calls if call == "write"], [str(self.folder / "file")])
        self.assertEqual({process for _, process, *_ in calls}, {"sh", "mv", "rm"})

    def test_reading_is_numbered_for_the_file_that_is_named(self):
        for name in ("named", "other"):
            (self.folder / name).write_text("text")
        named = self.folder / "named"
        status, calls = self.inject("cat named other > /dev/null", "--reads", named)
        self.assertEqual((status, {(call, path) for _, _, call, path in calls}), (0, {("read", str(named))}))
        self.assertEqual(self.inject("cat named", "--reads", named, "--at", 1, "--fault", "EIO")[0], 1)
        self.assertEqual(self.inject("cat named other")[1], [])

    def test_output_to_devices_is_not_numbered(self):
        self.assertEqual(self.inject("echo text > /dev/null; cat < /dev/zero | head -c 1 > /dev/null"), (0, []))

    def test_a_failing_call_does_not_take_place(self):
        self.assertEqual(self.strike("ENOSPC", "echo text > file"), 1)
        self.assertFalse((self.folder / "end").exists())
        self.assertEqual((self.folder / "file").read_text(), "text\n")

    def test_a_kill_keeps_what_was_written(self):
        self.assertEqual(self.strike("kill", "echo text > file"), 137)
        self.assertEqual((self.folder / "file").read_text(), "text\n")

    def test_a_power_cut_loses_an_unsynced_file_and_keeps_a_synced_one(self):
        self.assertEqual(self.cut_power("echo a > kept; sync kept; echo b > lost"), {"kept": "a\n", "lost": ""})

    def test_a_power_cut_loses_what_was_written_after_the_sync(self):
        self.assertEqual(self.cut_power("echo text > file; sync file; echo more >> file"), {"file": ""})

    def test_a_power_cut_keeps_what_fdatasync_reached(self):
        self.assertEqual(self.cut_power("echo text > file; sync --data file"), {"file": "text\n"})

    def test_a_power_cut_keeps_what_syncfs_reached(self):
        self.assertEqual(
            self.cut_power("echo 1 > first; echo 2 > second; sync --file-system ."), {"first": "1\n", "second": "2\n"}
        )

    def test_a_power_cut_keeps_what_sync_reached(self):
        self.assertEqual(self.cut_power("echo text > file; sync"), {"file": "text\n"})

    def test_a_rename_and_a_link_do_not_save_unsynced_data(self):
        self.assertEqual(self.cut_power("echo text > file; ln file link; mv file moved"), {"link": "", "moved": ""})

    def test_syncing_the_folder_does_not_save_the_file(self):
        self.assertEqual(self.cut_power("echo text > file; sync ."), {"file": ""})

    def test_a_power_cut_in_place_of_the_sync_loses_the_file(self):
        _, calls = self.inject("echo text > file; sync file")
        at = next(number for number, _, call, _ in calls if call == "fsync")
        self.inject("echo text > file; sync file", "--at", at, "--fault", "power", "--below", self.folder)
        self.assertEqual((self.folder / "file").read_text(), "")

    def test_a_power_cut_takes_back_what_was_overwritten_in_place(self):
        script = f"echo text > file; sync file; printf new | {OVERWRITE}"
        self.assertEqual(self.cut_power(script), {"file": "text\n"})
        self.assertEqual(self.cut_power(f"{script},fdatasync"), {"file": "newt\n"})
        self.assertEqual(self.cut_power(f"{script}; echo more >> file"), {"file": ""})

    def test_a_file_that_was_emptied_was_not_overwritten_in_place(self):
        self.assertEqual(self.cut_power("echo text > file; sync file; echo 1234 > file"), {"file": ""})

    def test_a_torn_write_leaves_its_first_sector(self):
        script = f"printf %0600d 0 > file; sync file; printf %0600d 1 | tr 01 ab | {OVERWRITE}"
        self.assertEqual(self.cut_power(script, "tear"), {"file": 512 * "a" + 88 * "0"})
        self.assertEqual(self.cut_power(script), {"file": 600 * "0"})

    def test_a_torn_write_of_one_sector_is_whole(self):
        script = f"echo text > file; sync file; printf new | {OVERWRITE}"
        self.assertEqual(self.cut_power(script, "tear"), {"file": "newt\n"})

    def test_files_elsewhere_are_left_alone(self):
        outside = self.folder.with_name("outside")
        self.cut_power("echo text > ../outside; echo text > inside")
        self.assertEqual(outside.read_text(), "text\n")


if __name__ == "__main__":
    injector = sys.argv.pop(1)
    unittest.main()
