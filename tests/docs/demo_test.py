#!/usr/bin/env python3
"""What scripts/demo says while it builds, after a build that fails, and with --page. Compiler and packctl are stubs.

That the demo passes is seen in .ci/run.
"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SETUP = "#!/bin/sh\n"
PACKCTL = """#!/bin/sh
echo "Address: of $1"
cat "$ORBAMIRA_ROOT/../web/packs/reply.json" "$ORBAMIRA_ROOT/etc/orbamira/updater.conf"
"""
CMAKE = "#!/bin/sh\nseq 1 1000 | sed 's/^/line /'\necho 'error: expected a semicolon'\nexit 1\n"


class DemoTest(unittest.TestCase):
    def run_demo(self, *arguments, with_appliance=False):
        with tempfile.TemporaryDirectory() as folder:
            scripts = pathlib.Path(folder, "scripts")
            scripts.mkdir()
            shutil.copy(SOURCE / "scripts/demo", scripts)
            if with_appliance:
                self.lay_out_appliance(pathlib.Path(folder))
            for name, text in (("setup", SETUP), ("cmake", CMAKE)):
                (scripts / name).write_text(text)
                (scripts / name).chmod(0o755)
            return subprocess.run(
                [scripts / "demo", *arguments],
                env={**os.environ, "PATH": f"{scripts}:{os.environ['PATH']}"},
                stdin=subprocess.DEVNULL,
                capture_output=True,
                text=True,
                check=False,
            )

    def lay_out_appliance(self, folder):
        """As a run of the demo leaves it."""
        packctl = folder / "build/demo/appliance/usr/bin/packctl"
        reply = folder / "build/demo/web/packs/reply.json"
        (folder / "build/demo/appliance/etc/orbamira").mkdir(parents=True)
        for file, text in ((packctl, PACKCTL), (reply, '{"link": "http://127.0.0.1:1/pack.opk"}\n')):
            file.parent.mkdir(parents=True)
            file.write_text(text)
        packctl.chmod(0o755)
        (folder / "tests/support").mkdir(parents=True)
        shutil.copy(SOURCE / "tests/support/nginx.py", folder / "tests/support")

    def test_page_is_served_with_a_pack_on_offer(self):
        done = self.run_demo("--page", with_appliance=True)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        said, address, link, settings = done.stdout.rstrip("\n").rsplit("\n", 3)
        self.assertIn("Open the second address in a browser.", said)
        self.assertEqual("Address: of web", address)
        server = re.fullmatch(r'pack_update_server="(http://127\.0\.0\.1:\d+)/reply.json"', settings).group(1)
        self.assertEqual(f'{{"link": "{server}/pack.opk"}}', link)

    def test_build_that_fails_shows_the_end_of_its_log(self):
        done = self.run_demo()
        self.assertEqual(1, done.returncode)
        self.assertIn("Building … (log: build/demo/build.log)\n", done.stdout)
        self.assertIn("error: expected a semicolon", done.stderr)
        self.assertTrue(done.stderr.endswith("demo: Building failed\n"), done.stderr)

    def test_log_is_not_on_the_screen(self):
        done = self.run_demo()
        self.assertNotIn("line 900\n", done.stdout + done.stderr)

    def test_page_before_the_first_run_is_refused(self):
        done = self.run_demo("--page")
        self.assertEqual(1, done.returncode)
        self.assertIn("run scripts/demo first", done.stderr)

    def test_wrong_usage(self):
        for arguments in (["--story"], ["--page", "--page"]):
            with self.subTest(arguments):
                done = self.run_demo(*arguments)
                self.assertEqual(64, done.returncode)
                self.assertEqual("usage: scripts/demo [--page]\n", done.stderr)


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
