"""enclosed: whatever a test starts has ended when the test has."""

import argparse
import json
import os
import pathlib
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HANG = 600
# In a session of its own, with the standard output that it was given, and deaf to what ends a polite program.
DAEMON = "setsid sh -c 'trap \"\" TERM HUP INT; echo $$ > pid.new; mv pid.new pid; while :; do sleep 1000; done' &"
UNTIL_IT_IS_THERE = "while [ ! -e pid ]; do sleep 0.01; done"


def is_alive(process):
    """Whether there is such a process; one that ended, and that nobody has asked for yet, is none."""
    try:
        return pathlib.Path(f"/proc/{process}/stat").read_text().rpartition(")")[2].split()[0] != "Z"
    except OSError:
        return False


class EnclosedTest(unittest.TestCase):
    enclosed = None

    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def command(self, text, *options):
        return [self.enclosed, *options, "sh", "-c", text]

    def run_enclosed(self, text, *options):
        """Waits for the end of all who hold the output."""
        return subprocess.run(
            self.command(text, *options),
            cwd=self.folder,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=HANG,
            check=False,
        )

    def daemon(self):
        return int((self.folder / "pid").read_text())

    def wait_for(self, condition):
        deadline = time.monotonic() + HANG
        while not condition():
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def test_ends_as_the_command_does(self):
        for text, status in (("exit 0", 0), ("exit 77", 77), ("kill -SEGV $$", 128 + signal.SIGSEGV)):
            with self.subTest(text):
                self.assertEqual(status, self.run_enclosed(text).returncode)
        done = subprocess.run([self.enclosed, "/no/such/program"], capture_output=True, text=True, check=False)
        self.assertEqual((127, "enclosed: /no/such/program cannot be started\n"), (done.returncode, done.stderr))

    def test_failing_command_leaves_nothing_and_holds_nothing_up(self):
        done = self.run_enclosed(f"{DAEMON} {UNTIL_IT_IS_THERE}; exit 3", "--patience", str(10 * HANG))
        self.assertEqual(3, done.returncode)
        self.assertFalse(is_alive(self.daemon()))

    def test_command_that_succeeds_must_leave_nothing(self):
        done = self.run_enclosed(f"{DAEMON} {UNTIL_IT_IS_THERE}", "--patience", "0")
        self.assertEqual(1, done.returncode)
        self.assertRegex(done.stderr, rf"^enclosed: left behind: {self.daemon()} sh -c ")
        self.assertFalse(is_alive(self.daemon()))

    def test_waits_for_what_ends_by_itself(self):
        done = self.run_enclosed(
            "setsid sh -c 'while [ ! -e end ]; do sleep 0.01; done; echo ended' & : > end", "--patience", str(HANG)
        )
        self.assertEqual((0, "ended\n"), (done.returncode, done.stdout))

    def test_command_begins_with_no_signal_ignored_or_blocked(self):
        def start_badly():
            for ignored in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM, signal.SIGCHLD):
                signal.signal(ignored, signal.SIG_IGN)
            signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGUSR1})

        done = subprocess.run(
            [self.enclosed, "grep", "-E", "^Sig(Blk|Ign):", "/proc/self/status"],
            capture_output=True,
            text=True,
            timeout=HANG,
            check=False,
            preexec_fn=start_badly,
        )
        self.assertEqual(0, done.returncode, "it learns how the command ended")
        self.assertEqual(["0" * 16] * 2, [line.split()[1] for line in done.stdout.splitlines()], done.stdout)

    def test_leaves_no_temporary_file(self):
        text = 'mkdir -p "$TMPDIR/a/b" && touch "$TMPDIR/a/b/file" && chmod 500 "$TMPDIR/a/b" && chmod 0 "$TMPDIR/a"'
        for end, status in (("true", 0), ("kill -KILL $$", 128 + signal.SIGKILL)):
            with self.subTest(end):
                temporary = {**os.environ, "TMPDIR": str(self.folder)}
                done = subprocess.run(self.command(f"{text} && {end}"), env=temporary, timeout=HANG, check=False)
                self.assertEqual((status, []), (done.returncode, list(self.folder.iterdir())))

    def test_temporary_files_can_be_in_memory(self):
        memory = "/dev/shm"
        if not os.access(memory, os.W_OK | os.X_OK) or os.statvfs(memory).f_flag & os.ST_NOEXEC:
            self.skipTest(f"no programs can be run in {memory}")
        done = self.run_enclosed('echo "$TMPDIR"', "--memory", "--patience", "0")
        self.assertRegex(done.stdout, "^/dev/shm/enclosed-")
        self.assertFalse(pathlib.Path(done.stdout.strip()).exists())

    def test_signal_ends_all(self):
        with subprocess.Popen(self.command(f"{DAEMON} wait"), cwd=self.folder) as process:
            self.wait_for((self.folder / "pid").exists)
            process.terminate()
            self.assertEqual(128 + signal.SIGTERM, process.wait(HANG))
        self.assertFalse(is_alive(self.daemon()))

    def test_end_of_its_parent_ends_all(self):
        """As that of a test which is killed and had enclosed a part of what it does."""
        text = f"{self.enclosed} sh -c '{self.folder}/daemon; sleep 1000' & wait"
        (self.folder / "daemon").write_text(f"#!/bin/sh\n{DAEMON}\n")
        (self.folder / "daemon").chmod(0o755)
        with subprocess.Popen(["sh", "-c", text], cwd=self.folder) as process:
            self.wait_for((self.folder / "pid").exists)
            process.kill()
        self.wait_for(lambda: not is_alive(self.daemon()))


class EveryTest(unittest.TestCase):
    build = None

    def test_is_enclosed(self):
        done = subprocess.run(
            ["ctest", "--test-dir", self.build, "--show-only=json-v1"], check=True, capture_output=True, text=True
        )
        tests = json.loads(done.stdout)["tests"]
        self.assertGreater(len(tests), 10)
        self.assertEqual([], [test["name"] for test in tests if test["command"][0] != EnclosedTest.enclosed])


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build folder whose tests are looked at")
    arguments, rest = parser.parse_known_args()
    EveryTest.build = arguments.build
    EnclosedTest.enclosed = os.path.join(os.path.abspath(arguments.build), "tests/enclosed")
    unittest.main(argv=[sys.argv[0], *rest])
