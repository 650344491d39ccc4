#!/usr/bin/env python3
"""What an update costs, by counts: processes, calls that change files, saves of the record, bytes written. And what
packctl costs that has nothing to do.

Counts do not depend on how busy the machine is, so they show what a benchmark would: a program started once more, a
body written in small pieces, a copy where a link would do, a record that is saved for every piece of the download.
"""

import argparse
import collections
import json
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher, install  # noqa: E402

KIB = 1024
MIB = 1024 * KIB
PAYLOAD = (8 * MIB, 8 * MIB)

# Of an upgrade without plugins: every program has a supervisor, a copy of packctl. orba-archive judges the package
# after the download, and unpacks it. What is removed packctl removes itself.
PROCESSES = {"packctl": 1, "supervisor": 4, "orba-archive": 2, "orba-tar": 1, "orba-copy": 1}

# A state is recorded by clearing the record and setting its six values, each of which is on the disk before the next.
# An upgrade goes through seven of them, and the progress of its download is one more at its first and its last byte and
# every tenth of a second at most.
SAVES_OF_STATE = ["pwrite64"] + 6 * ["pwrite64", "fdatasync"]
STATES = 7
OPENINGS = 2  # of the record for writing, each with one sync of its folder: by the update, and by the recovery before
RECORD = 512  # bytes, as many as a disk writes at once
# Every other flush of an upgrade, by the name of what is flushed: the folder of the record, the downloaded package, the
# unpacked pack before it gets its place, the folder in which it has it, and the history.
OTHER_FLUSHES = ["orbamira", "codec-pack.opk", ".codec-pack.partial", "packages", "history.jsonl"]
REPORT_INTERVAL = 0.1

BODY_PIECE = 256 * KIB
UNPACKED_PIECE = 64 * KIB
# Of packctl status when nothing is going on: half of them load the libraries.
STATUS_CALLS = 250

OTHER_CALLS = 150  # locks, folders, links, modes, and what is deleted
OTHER_BYTES = MIB


class Update:
    """One upgrade to a new pack, behind a wrapper that watches it and writes to the file `report`."""

    def __init__(self, arguments, folder, wrapper, report):
        with Publisher(folder / "published", arguments.build) as publisher:
            appliance = Appliance.lay_out(folder / "root", arguments.build)
            appliance.use_server(publisher.publish("1.0", 1))
            appliance.expect("update")
            appliance.use_server(publisher.publish("2.0", 2, PAYLOAD))
            begin = time.monotonic()
            done = appliance.packctl("update", wrapper=wrapper)
            self.seconds = time.monotonic() - begin
            if done.returncode != 0 or not publisher.is_whole(appliance.pack, "2.0"):
                raise RuntimeError(f"the update ended with {done.returncode}: {done.stdout}{done.stderr}")
            self.package_size = next((folder / "published").glob("*2.0*.opk")).stat().st_size
        self.record_size = appliance.status_file.stat().st_size
        self.payload_size = sum(path.lstat().st_size for path in (folder / "payload-2.0").rglob("*") if path.is_file())
        self.report = report.read_text()


def update(wrapper, *options):
    """An upgrade behind the program `wrapper` of the build folder, whose last option is the report's name."""
    # In the build folder, which is on a disk: files in memory are not counted as written.
    with tempfile.TemporaryDirectory(prefix="cost-", dir=ARGUMENTS.build) as name:
        report = pathlib.Path(name) / "report"
        return Update(ARGUMENTS, pathlib.Path(name), [ARGUMENTS.build / wrapper, *options, report, "--"], report)


class CallsOfAnUpdate(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.update = update("tests/faults/fault_injector", "--record")
        lines = (line.split(" ", 3) for line in cls.update.report.splitlines())
        cls.calls = [(program, call, pathlib.PurePath(path)) for _, program, call, path in lines]

    def test_a_save_of_the_record_is_a_write_and_a_flush(self):
        calls = [call for _, call, path in self.calls if path.name.startswith("status.json")]
        saves = [call for call in calls if call != "openat"]
        self.assertGreaterEqual(len(saves), STATES * len(SAVES_OF_STATE))
        self.assertTrue(saves == len(saves) // len(SAVES_OF_STATE) * SAVES_OF_STATE, saves)
        self.assertLessEqual(len(calls) - len(saves), OPENINGS)
        self.assertEqual(self.update.record_size, RECORD)

    def test_a_download_is_recorded_ten_times_a_second_at_most(self):
        flushes = sum(path.name == "status.json" and call == "fdatasync" for _, call, path in self.calls)
        reports = 2 + int(self.update.seconds / REPORT_INTERVAL)
        self.assertLessEqual(flushes, SAVES_OF_STATE.count("fdatasync") * (STATES + reports))

    def test_nothing_is_flushed_without_need(self):
        flushed = [path for _, call, path in self.calls if call in ("fsync", "fdatasync", "syncfs", "sync")]
        others = [
            ".codec-pack.partial" if path.name.startswith(".codec-pack.partial.") else path.name
            for path in flushed
            if path.name != "status.json"
        ]
        self.assertEqual(OTHER_FLUSHES, others)

    def count_writes(self, program, pattern):
        return sum(
            called == program and call in ("write", "writev", "pwrite64") and bool(re.search(pattern, str(path)))
            for called, call, path in self.calls
        )

    def test_files_are_written_in_large_pieces(self):
        package, payload = self.update.package_size, self.update.payload_size
        for program, pattern, bound in (
            ("packctl", r"/download/", package // BODY_PIECE + 2),
            ("orba-archive", r"/\.orba-archive\.[0-9.]+$", package // UNPACKED_PIECE + 2),
            # A piece ends where the compressed data that was read does, or the member.
            ("orba-tar", r"\.so", payload // UNPACKED_PIECE + 2 * len(PAYLOAD) + 2),
        ):
            with self.subTest(program):
                writes = self.count_writes(program, pattern)
                self.assertGreater(writes, 0)
                self.assertLessEqual(writes, bound)

    def test_little_else_changes_files(self):
        others = [
            call
            for _, call, path in self.calls
            if not path.name.startswith("status.json") and not call.startswith(("write", "pwrite", "fsync"))
        ]
        self.assertLessEqual(len(others), OTHER_CALLS)


class ProcessesOfAnUpdate(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.update = update("bench/watch", "--report")
        cls.watched = json.loads(cls.update.report)

    def test_every_program_is_started_as_often_as_it_takes(self):
        def name_of(process):
            words = [pathlib.PurePath(word).name for word in process["command"]]
            return next(word for word in words if word in PROCESSES)

        found = collections.Counter(
            "supervisor" if process["forked"] else name_of(process) for process in self.watched["processes"]
        )
        self.assertEqual(PROCESSES, dict(found))

    def test_every_program_is_one_of_ours(self):
        first_words = {pathlib.PurePath(process["command"][0]).name for process in self.watched["processes"]}
        self.assertEqual(set(), first_words - PROCESSES.keys(), "an interpreter was started")

    def test_package_is_written_twice_and_payload_once(self):
        if self.watched["dirtied"] == 0:
            self.skipTest("the build folder is in memory")
        size = 2 * self.update.package_size + self.update.payload_size
        self.assertGreaterEqual(self.watched["dirtied"], self.update.payload_size)
        self.assertLessEqual(self.watched["dirtied"], size + OTHER_BYTES)


class CallsOfAnIdleStatus(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with tempfile.TemporaryDirectory(prefix="cost-", dir=ARGUMENTS.build) as name:
            install(ARGUMENTS.build, name, "--strip")
            appliance = Appliance(name, ARGUMENTS.build)
            appliance.identify()
            appliance.expect("status")  # makes the lock file
            trace = pathlib.Path(name) / "trace"
            subprocess.run(
                ["strace", "-f", "-o", trace, appliance.program("packctl"), "status"],
                check=True,
                env=appliance.environment(),
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
            )
            cls.calls = [line for line in trace.read_text().splitlines() if re.match(r"\d+ +\w+\(", line)]

    def test_it_takes_few_calls(self):
        self.assertLessEqual(len(self.calls), STATUS_CALLS)

    def test_it_loads_nothing_that_only_a_transfer_needs(self):
        opened = [re.search(r'"([^"]*\.so[.0-9]*)", .* = \d', call) for call in self.calls if " openat(" in call]
        loaded = {pathlib.PurePath(found[1]).name.split(".so")[0] for found in opened if found}
        self.assertIn("liborbamira_updater", loaded)
        self.assertEqual(set(), loaded & {"network", "libcpr", "libcurl", "libssl"})


if __name__ == "__main__":
    PARSER = argparse.ArgumentParser(description=__doc__)
    PARSER.add_argument("--build", type=pathlib.Path, required=True, help="build folder whose programs are counted")
    ARGUMENTS = PARSER.parse_args()
    unittest.main(argv=sys.argv[:1])
