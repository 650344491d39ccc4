#!/usr/bin/env python3
"""The long run finds what grows, and leaves nothing behind when it is stopped."""

import argparse
import contextlib
import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest
import uuid

PROGRAM = pathlib.Path(__file__).resolve().with_name("long_run.py")
HANG = 600
MARK = "ORBAMIRA_TEST_MARK"


def environment_of(process):
    """The environment of a process; empty when it has ended."""
    with contextlib.suppress(OSError):
        lines = pathlib.Path(f"/proc/{process}/environ").read_bytes().split(b"\0")
        return dict(line.decode(errors="replace").split("=", 1) for line in lines if b"=" in line)
    return {}


class LongRunTest(unittest.TestCase):
    build = None

    def command(self, *options):
        return [sys.executable, "-B", PROGRAM, "--build", self.build, "--updates", *options]

    def test_finds_what_is_left_behind_with_each_update(self):
        for plant, name in (
            ("descriptor", "descriptors"),
            ("memory", "memory"),
            ("file", "files"),
            ("process", "processes"),
        ):
            with self.subTest(plant):
                done = subprocess.run(
                    self.command("16", "--plant", plant),
                    stdin=subprocess.DEVNULL,
                    capture_output=True,
                    text=True,
                    timeout=HANG,
                    check=False,
                )
                self.assertEqual(1, done.returncode, done.stdout + done.stderr)
                self.assertRegex(done.stdout, rf"(?m)^{name}: \d+ after \d+, allowed \d+$")

    def test_leaves_nothing_behind_when_it_is_stopped(self):
        for number in (signal.SIGTERM, signal.SIGKILL):
            with self.subTest(number):
                self.stop(number)

    def stop(self, number):
        """Stops a run that is at work, as if somebody had started it by hand."""
        mark = str(uuid.uuid4())
        folder = pathlib.Path(os.environ["TMPDIR"]) / f"stopped-{number.value}"
        folder.mkdir()
        environment = {**os.environ, MARK: mark, "TMPDIR": str(folder)}
        with subprocess.Popen(self.command("1000"), env=environment, stdout=subprocess.DEVNULL) as run:
            self.wait_for(lambda: any("ORBAMIRA_ROOT" in process for process in self.marked(mark)))
            places = {process["TMPDIR"] for process in self.marked(mark)} - {str(folder)}
            run.send_signal(number)
        self.wait_for(lambda: not self.marked(mark))
        self.assertTrue(places)
        self.assertEqual([], [place for place in places if pathlib.Path(place).exists()])
        self.assertEqual([], list(folder.iterdir()))

    def marked(self, mark):
        """The environments of the processes of a run."""
        processes = (path.name for path in pathlib.Path("/proc").glob("[0-9]*"))
        return [found for found in map(environment_of, processes) if found.get(MARK) == mark]

    def wait_for(self, condition):
        deadline = time.monotonic() + HANG
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    arguments, rest = parser.parse_known_args()
    LongRunTest.build = arguments.build
    unittest.main(argv=[sys.argv[0], *rest])
