#!/usr/bin/env python3
"""Runs every command that the documentation shows, and follows every link in it.

One shell runs the fenced blocks marked `sh` of one page in turn, with an appliance and a publisher for each page. The
lines of a block marked `text seen` must be among those that the block before it printed.
Places of a real machine are replaced by places where the test may write: see Page.here().
"""

import argparse
import functools
import http.server
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Paths, install  # noqa: E402

FOLDERS = ("", "docs", "examples", "packaging", "tests/abi")
PAGES = sorted(path for folder in FOLDERS for path in (SOURCE / folder).glob("*.md"))
BLOCK = re.compile(r"^ *```(sh|text seen)\n(.*?)^ *```$", re.MULTILINE | re.DOTALL)
LINK = re.compile(r"\]\(([^)\s]+)\)")
HEADING = re.compile(r"^#+ (.+)$", re.MULTILINE)

# .ci/run, which a test cannot start since it is part of it, and the tests of packages and of the binary interface run
# these.
RUN_ELSEWHERE = (
    *("scripts/setup", "scripts/demo", "scripts/test", "scripts/lint", ".ci/run"),
    *("cmake --preset", "cmake --build --preset", "cpack --config", "tests/abi/abi.sh"),
)

# What takes a real machine: that the page is right is seen from what the project has.
STUB = """#!/bin/sh
for word in "$@"; do
  case "$word" in
    *.service | *.timer)
      [ -e "{source}/packaging/systemd/$word" ] || [ -e "{source}/packaging/systemd/$word.in" ] || exit 1
      ;;
  esac
done
"""
# What the pages call the folder of settings and the pack, wherever this build has it and whatever its name.
DEFAULT_SETTINGS = "/etc/orbamira"
DEFAULT_PACK = "orbamira-hevc"
STUBBED = ("systemctl", "journalctl", "apt-get", "apt", "dpkg", "adduser")


def anchor(heading):
    """What a link calls the heading."""
    return re.sub(r"[^\w\- ]", "", heading.lower()).replace(" ", "-")


class Page:
    """One page with the machine that its commands are run on."""

    def __init__(self, path, build, folder):
        self.path, self.build, self.folder, self.paths = path, build, folder, Paths(build)
        self.root, self.packs, self.work = folder / "root", folder / "srv/packs", folder / "work"

    def here(self, text):
        """The commands with places and names of this test."""
        for there, here in (
            ("https://packs.example.com/packs", self.address),
            ("http://127.0.0.1:8080", self.address),
            ("/srv/packs", str(self.packs)),
            ("/usr/lib/orbamira/plugins", str(self.root / self.paths.plugins_folder)),
            ("/usr/lib/orbamira/health.d", str(self.root / self.paths.health_folder)),
            (DEFAULT_SETTINGS, str(self.root / self.paths.settings_folder)),
            (DEFAULT_PACK + "-aac", self.paths.hevc_aac_pack),
            (DEFAULT_PACK, self.paths.hevc_pack),
            ("sudo ", ""),
        ):
            text = text.replace(there, here)
        return "\n".join(line for line in text.split("\n") if not line.strip().startswith(RUN_ELSEWHERE))

    def prepare(self):
        install(self.build, self.root)
        appliance = Appliance(self.root, self.build)
        appliance.identify()
        appliance.use_server(f"{self.address}/reply.json")
        self.packs.mkdir(parents=True)
        self.work.mkdir()
        (self.work / "packs").symlink_to(self.packs)
        for library in ("decoder/libdecoder.so.1", "build/pack/lib/libdecoder.so.1"):
            (self.work / library).parent.mkdir(parents=True)
            (self.work / library).write_bytes(b"decoder")
        for name in ("examples", "docs", "scripts", "bench", "tests"):
            (self.work / name).symlink_to(SOURCE / name)
        (self.work / "build/release").symlink_to(self.build)
        for name in STUBBED:
            stub = self.folder / "stubs" / name
            stub.parent.mkdir(exist_ok=True)
            stub.write_text(STUB.format(source=SOURCE))
            stub.chmod(0o755)
        # Something is on offer, and then installed, before the page begins.
        self.shell(
            f"mkpack --payload build/pack --output /srv/packs --name {DEFAULT_PACK} --version 1.0.0 --title HEVC "
            "--base-url https://packs.example.com/packs"
        )

    def shell(self, text):
        environment = {
            **os.environ,
            "ORBAMIRA_ROOT": str(self.root),
            "PATH": f"{self.folder}/stubs:{self.root}/usr/bin:{os.environ['PATH']}:/usr/sbin",
        }
        done = subprocess.run(
            [self.build / "tests/enclosed", "bash", "-euo", "pipefail", "-c", self.here(text)],
            cwd=self.work,
            env=environment,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            check=False,
        )
        if done.returncode != 0:
            raise AssertionError(f"{self.path.name}: ended with {done.returncode}:\n{text}\n{done.stdout}")
        return done.stdout

    def run(self):
        class Quiet(http.server.SimpleHTTPRequestHandler):
            def log_message(self, *_):
                pass

        with http.server.ThreadingHTTPServer(
            ("127.0.0.1", 0), functools.partial(Quiet, directory=str(self.packs))
        ) as server:
            self.address = f"http://127.0.0.1:{server.server_address[1]}"
            threading.Thread(target=server.serve_forever, daemon=True).start()
            try:
                self.prepare()
                output = ""
                for kind, block in BLOCK.findall(self.path.read_text()):
                    if kind == "sh":
                        output = self.shell(block)
                    elif not set(block.splitlines()) <= set(output.splitlines()):
                        raise AssertionError(f"{self.path.name}: says\n{block}\nbut the program says\n{output}")
            finally:
                server.shutdown()


class DocumentationTest(unittest.TestCase):
    build = None

    def test_every_command_runs(self):
        for path in PAGES:
            with self.subTest(path.name), tempfile.TemporaryDirectory() as folder:
                Page(path, self.build, pathlib.Path(folder)).run()

    def test_page_that_fails_leaves_no_process_and_holds_nothing_up(self):
        with tempfile.TemporaryDirectory() as name:
            folder = pathlib.Path(name)
            page = folder / "page.md"
            page.write_text(
                "```sh\nsh -c 'echo $$ > started; exec sleep 100000' &\n"
                "until [ -s started ]; do sleep 0.01; done\nfalse\n```\n"
            )
            with self.assertRaisesRegex(AssertionError, "page.md: ended with 1"):
                Page(page, self.build, folder).run()
            process = (folder / "work/started").read_text().strip()
            self.assertFalse(pathlib.Path("/proc", process).exists())

    def test_page_that_shows_what_nobody_says_is_found(self):
        with tempfile.TemporaryDirectory() as name:
            page = pathlib.Path(name, "page.md")
            page.write_text("```sh\necho one; echo two\n```\n\n```text seen\ntwo\nthree\n```\n")
            with self.assertRaisesRegex(AssertionError, "page.md: says\ntwo\nthree"):
                Page(page, self.build, pathlib.Path(name)).run()

    def test_every_link_leads_somewhere(self):
        for path in PAGES:
            for link in LINK.findall(path.read_text()):
                if re.match(r"https?:", link):
                    continue
                name, _, fragment = link.partition("#")
                target = path.parent / name if name else path
                with self.subTest(page=path.name, link=link):
                    self.assertTrue(target.exists())
                    if fragment:
                        self.assertIn(fragment, map(anchor, HEADING.findall(target.read_text())))

    def test_every_page_uses_the_words_of_the_glossary(self):
        glossary = (SOURCE / "docs/glossary.md").read_text()
        head, _, table = glossary.partition("\n| avoid | say |\n| --- | --- |\n")
        words = [word for row in table.splitlines() for word in row.split("|")[1].strip().split(", ")]
        self.assertTrue(words)
        for path in PAGES:
            text = head if path.name == "glossary.md" else path.read_text()
            for word in words:
                with self.subTest(page=path.name, word=word):
                    self.assertNotRegex(text, rf"(?i)\b{word}s?\b")

    def test_every_page_can_be_reached(self):
        """From the first page, in any number of steps."""
        reached, ahead = set(), [SOURCE / "README.md"]
        while ahead:
            path = ahead.pop()
            reached.add(path)
            links = [link.partition("#")[0] for link in LINK.findall(path.read_text())]
            pages = {(path.parent / link).resolve() for link in links if link.endswith(".md")}
            ahead.extend(page for page in pages - reached if page.exists())
        self.assertEqual([], sorted(str(page) for page in set(PAGES) - reached))

    def test_index_names_every_page_of_its_folder_once(self):
        index = SOURCE / "docs/README.md"
        named = [link for link in LINK.findall(index.read_text()) if "/" not in link]
        self.assertEqual(sorted(path.name for path in index.parent.glob("*.md") if path != index), sorted(named))

    def test_commands_are_those_of_packctl(self):
        described = json.loads(subprocess.check_output([self.build / "tools/packctl/packctl_describe"]))
        named = re.findall(r"^\| `packctl ([^`]+)` \|", (SOURCE / "docs/commands.md").read_text(), re.MULTILINE)
        self.assertEqual(sorted(command["name"] for command in described["commands"]), sorted(named))

    def test_picture_has_every_status(self):
        row = re.search(r"^\| `status` \|(.*)\|$", (SOURCE / "docs/status-store.md").read_text(), re.MULTILINE)[1]
        drawn = re.findall(r'class="code"[^>]*>([^<]+)<', (SOURCE / "docs/states.svg").read_text())
        self.assertEqual(sorted(re.findall(r"`(\w+)`", row)), sorted(drawn))

    def test_quoted_figures_are_those_of_their_page(self):
        readme, why, performance, faults = (
            (SOURCE / name).read_text()
            for name in ("README.md", "docs/why.md", "docs/performance.md", "docs/fault-tests.md")
        )
        large = performance.partition("bench/update --payload large")[2]
        ratios = {name: re.search(rf"\| packctl : {name} \| (\S+) \| (\S+) \|", large) for name in ("pipeline", "dpkg")}
        for name, row in (("pipeline", "shell pipeline"), ("dpkg", "dpkg")):
            self.assertIn(f"| packctl : {row} | {ratios[name][1]} | {ratios[name][2]} |", why)
        self.assertIn(f"{ratios['pipeline'][1]} of the time of a shell pipeline, and {ratios['dpkg'][1]} of", readme)
        tried = int(re.search(r"(\d+) faults tried, 0 lost, 0 stuck", faults)[1])
        for page in (readme, why):
            self.assertLessEqual(int(re.search(r"more than ([\d,]+)\s+faults", page)[1].replace(",", "")), tried)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, type=pathlib.Path, help="build folder that is installed")
    arguments, rest = parser.parse_known_args()
    DocumentationTest.build = arguments.build.resolve()
    unittest.main(argv=[sys.argv[0], *rest])
