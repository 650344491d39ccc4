"""The base of the tests of mkpack verify: folders as mkpack publishes them, and packages as others may."""

import hashlib
import io
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tarfile
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
from appliance import Paths, mkpack_of  # noqa: E402

BUILD = os.environ["ORBAMIRA_BUILD"]
MKPACK = mkpack_of(BUILD)
HEVC, AAC = Paths(BUILD).hevc_pack, Paths(BUILD).hevc_aac_pack
PRODUCT = Paths(BUILD).package_id
BASE = "https://packs.example.com/packs"

# Far more than anything here takes; only a program that hangs meets it.
HANG = 600


def tar(members, mode="w"):
    """An archive of members: pairs of a name, or a TarInfo, and bytes."""
    out = io.BytesIO()
    with tarfile.open(fileobj=out, mode=mode, format=tarfile.PAX_FORMAT) as made:
        for member, content in members:
            info = member if isinstance(member, tarfile.TarInfo) else tarfile.TarInfo(member)
            if info.isreg():
                info.size = len(content)
            made.addfile(info, io.BytesIO(content))
    return out.getvalue()


def member(name, kind, target=""):
    info = tarfile.TarInfo(name)
    info.type, info.linkname = kind, target
    return info, b""


def info_text(name=HEVC, version="1.2"):
    return f'package="{name}"\nversion="{version}"\n'.encode()


class VerifyTest(unittest.TestCase):
    def setUp(self):
        os.umask(0o022)
        self.top = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.folder = self.top / "packs"
        self.reply = self.folder / "reply.json"
        self.payload = self.top / "payload"
        self.payload.mkdir()
        (self.payload / "libdecoder.so.1").write_bytes(b"decoder")

    def publish(self, name=HEVC, version="1.2", *options):
        """Publishes a pack; returns the path of its package."""
        done = subprocess.run(
            [
                MKPACK,
                "--payload",
                self.payload,
                "--output",
                self.folder,
                "--name",
                name,
                "--version",
                version,
                "--title",
                "Decoder",
                "--base-url",
                BASE,
                *options,
            ],
            check=True,
            stdout=subprocess.PIPE,
            text=True,
            timeout=HANG,
        )
        return pathlib.Path(done.stdout.split("\n")[0].split(maxsplit=1)[1])

    def publish_both(self, *options):
        self.publish(AAC, "1.2", *options)
        return self.publish(HEVC, "1.2", *options)

    def run_verify(self, *arguments, **more):
        return subprocess.run(
            [MKPACK, "verify", *arguments], capture_output=True, text=True, timeout=HANG, check=False, **more
        )

    def verify(self, *options, **more):
        """The object that is printed, which must agree with the exit status."""
        done = self.run_verify(self.folder, "--json", *options, **more)
        self.assertEqual("", done.stderr)
        report = json.loads(done.stdout)
        self.assertEqual({"folder", "result", "packs", "findings", "notes"}, report.keys())
        self.assertEqual((done.returncode, report["result"]), (1, "faults") if report["findings"] else (0, "well"))
        return report

    def assert_well(self, *options):
        self.assertEqual([], self.verify(*options)["findings"])

    def assert_finding(self, about, problem, *options, words=None, **more):
        """There is this one finding; returns its remedy. `words` is a pattern of what a library adds to the problem."""
        found = self.verify(*options, **more)["findings"]
        self.assertEqual([about], [each["about"] for each in found])
        seen = found[0]["problem"]
        if words is None:
            self.assertEqual(problem, seen)
        else:
            self.assertRegex(seen, f"^{re.escape(problem)}{words}$")
        return found[0]["remedy"]

    def members(self):
        return json.loads(self.reply.read_text())

    def change(self, name=HEVC, **values):
        """Changes members of the pack in the reply; None takes one out."""
        reply = self.members()
        reply[name].update(values)
        reply[name] = {key: value for key, value in reply[name].items() if value is not None}
        self.reply.write_text(json.dumps(reply))

    def replace(self, content, name=HEVC):
        """Publishes these bytes as the package, as somebody without mkpack may; returns the file's name."""
        digest = hashlib.sha256(content).hexdigest()
        path = self.folder / f"{name}-1.2-{digest[:12]}.opk"
        path.write_bytes(content)
        self.change(name, link=f"{BASE}/{path.name}", checksum=digest, size=len(content))
        return path.name

    def replace_payload(self, payload):
        return self.replace(tar([("INFO", info_text()), ("package.tgz", payload)]))

    def assert_refused(self, content, reason, by_appliances=True, words=None):
        """The finding has this reason, and what an appliance runs does refuse it."""
        file = self.replace(content)
        self.assert_finding(HEVC, f"appliances refuse {file}: {reason}", words=words)
        self.assertEqual(by_appliances, not self.unpacks(file))

    def assert_payload_refused(self, members, reason, **more):
        content = members if isinstance(members, bytes) else tar([("has_hevc", b""), *members], "w:gz")
        self.assert_refused(tar([("INFO", info_text()), ("package.tgz", content)]), reason, **more)

    def assert_taken(self):
        """Nothing is found, and what an appliance runs takes the package."""
        self.assert_well()
        self.assertTrue(self.unpacks(self.members()[HEVC]["link"].rpartition("/")[2]))

    def unpacks(self, file):
        """Whether the programs that an appliance runs unpack the package."""
        tools = pathlib.Path(os.environ["ORBA_TOOLS"])
        with tempfile.TemporaryDirectory(dir=self.top) as folder:
            return (
                all(
                    subprocess.run(
                        [tools / program, "-xf", archive, "-C", folder],
                        stderr=subprocess.DEVNULL,
                        env={"ORBAMIRA_ROOT": str(self.top)},
                        timeout=HANG,
                        check=False,
                    ).returncode
                    == 0
                    for program, archive in (
                        ("orba-archive", self.folder / file),
                        ("orba-tar", pathlib.Path(folder) / "package.tgz"),
                    )
                )
                and (pathlib.Path(folder) / "INFO").is_file()
            )


class PublishedTest(VerifyTest):
    """Begins with both packs published; each test has a copy of what was published once."""

    @classmethod
    def setUpClass(cls):
        cls.published = pathlib.Path(cls.enterClassContext(tempfile.TemporaryDirectory())) / "packs"

    def setUp(self):
        super().setUp()
        if not self.published.exists():
            self.publish_both()
            self.folder.rename(self.published)
        shutil.copytree(self.published, self.folder)
        self.file = self.folder / self.members()[HEVC]["link"].rpartition("/")[2]
