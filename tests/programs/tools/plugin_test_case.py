"""What the tests of the program that runs plugins share: a root folder with plugins, and the program run in it."""

import os
import pathlib
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
from appliance import Paths  # noqa: E402

BUILD = pathlib.Path(os.environ["ORBAMIRA_BUILD"])
PROGRAMS = BUILD / "tools/orba-plugins"
PATHS = Paths(BUILD)

# Far more than anything here takes; only a program that hangs meets it.
HANG = 600


class PluginTestCase(unittest.TestCase):
    def setUp(self):
        self.root = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.root)
        self.folder = self.root / PATHS.plugins_folder
        self.log = self.root / "log"
        # What a plugin reads from to go on for as long as the test does, and no longer.
        hold = self.root / "hold"
        os.mkfifo(hold)
        self.addCleanup(os.close, os.open(hold, os.O_RDWR))
        self.environment = dict(os.environ, ORBAMIRA_ROOT=str(self.root), LOG=str(self.log), HOLD=str(hold))
        os.umask(0o022)

    def add_plugin(self, name, body, mode=0o755):
        """Makes a plugin: a shell script of that body."""
        self.folder.mkdir(parents=True, exist_ok=True)
        path = self.folder / name
        path.write_text("#!/bin/sh\n" + body + "\n")
        path.chmod(mode)
        return path

    def write_setting(self, text, folder=PATHS.settings_folder):
        path = self.root / folder / "updater.conf"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(text.encode())

    def run_program(self, name, *arguments, **options):
        return subprocess.run(
            [PROGRAMS / name, *arguments],
            env=self.environment,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            timeout=HANG,
            check=False,
            **options,
        )

    def log_lines(self):
        return self.log.read_text().splitlines() if self.log.exists() else []

    def wait_until(self, condition, what):
        deadline = time.monotonic() + HANG
        while not condition():
            self.assertLess(time.monotonic(), deadline, f"never seen: {what}")
            time.sleep(0.01)

    def wait_for_process_end(self, pid):
        def ended():
            try:
                # A process that nobody has asked about yet is a zombie: it runs no more.
                return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
            except (FileNotFoundError, ProcessLookupError):
                return True

        self.wait_until(ended, f"the end of process {pid}")
