"""The base of the tests of signed packages: keys, packages, and what unpacks them where there is a keyring."""

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

import words
from authority import Authority

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
from appliance import Appliance  # noqa: E402

BUILD = pathlib.Path(os.environ["ORBAMIRA_BUILD"])
TOOLS = BUILD / "tools/orba-archive"


def manifest(members):
    """The text that lists `members`, contents by name."""
    return "".join(f"{hashlib.sha256(members[name]).hexdigest()}  {name}\n" for name in sorted(members)).encode()


def tar(members):
    """A package of `members`: names with their contents, or TarInfo with contents, in this order."""
    file = io.BytesIO()
    with tarfile.open(fileobj=file, mode="w", format=tarfile.PAX_FORMAT) as archive:
        for name, content in members:
            info = name if isinstance(name, tarfile.TarInfo) else tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return file.getvalue()


class SignedTestCase(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.top)
        self.root = self.top / "root"
        self.appliance = Appliance.lay_out(self.root, BUILD)
        self.keyring = self.appliance.settings / "keyring.pem"
        self.package = self.top / "package.opk"
        self.folder = self.top / "unpacked"
        self.folder.mkdir()
        (self.top / "pki").mkdir()
        self.authority = Authority(self.top / "pki")
        self.authority.issue("signer", "ca")
        self.members = {"INFO": b'version="2"\n', "package.tgz": bytes(range(256)) * 3000}

    def trust(self, *names):
        self.keyring.write_bytes(b"".join((self.top / f"pki/{name}.pem").read_bytes() for name in names))

    def sign(self, text, signer="signer", *options):
        (self.top / "pki/text").write_bytes(text)
        certificates = ("-signer", f"{signer}.pem", "-inkey", f"{signer}.key")
        return self.authority.openssl(
            "cms", "-sign", "-binary", "-in", "text", *certificates, "-outform", "DER", *options
        ).stdout

    def pack(self, signature=None, text=None, members=None, **signing):
        """Makes the package of `members`, with the manifest `text` and its signature where they are not given."""
        members = self.members if members is None else members
        text = manifest(self.members) if text is None else text
        signature = self.sign(text, *signing.get("by", ())) if signature is None else signature
        self.package.write_bytes(tar([("MANIFEST", text), ("MANIFEST.sig", signature), *members.items()]))

    def unpack(self, program="orba-archive", **environment):
        return self.run_tool(program, "-xf", self.package, "-C", self.folder, **environment)

    def run_tool(self, program, *arguments, **environment):
        return subprocess.run(
            [TOOLS / program, *arguments],
            env={**os.environ, "ORBAMIRA_ROOT": str(self.root), **environment},
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            timeout=600,
            check=False,
        )

    def assert_unpacked(self, *more):
        done = self.unpack()
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        found = {path.name: path.read_bytes() for path in self.folder.iterdir()}
        self.assertEqual(self.members, {name: found[name] for name in self.members})
        self.assertEqual(sorted([*self.members, *more]), sorted(found))
        for name in found:
            (self.folder / name).unlink()

    def assert_refused(self, reason, code="bad_signature"):
        self.assert_refused_for(re.escape(reason), code)

    def assert_refused_for(self, pattern, code="bad_signature"):
        line = f"^{re.escape(f'orba-archive: {self.package}: ')}{pattern}\n$"
        for done in (self.unpack(), self.run_tool("orba-archive", "--verify", self.package)):
            self.assertEqual((1, ""), (done.returncode, done.stdout))
            self.assertRegex(done.stderr, line)
            self.assertEqual([], os.listdir(self.folder))
        self.assert_told(code)

    def assert_told(self, code):
        """The reason that packctl gives when it is to install the package."""
        self.appliance.download.mkdir(parents=True, exist_ok=True)
        shutil.copy(self.package, self.appliance.download / f"{self.appliance.pack.name}.opk")
        self.appliance.write_status(json.dumps({"status": "need_install", "new_version": "2"}))
        done = self.appliance.packctl("--json", "install")
        self.assertEqual((1, code), (done.returncode, json.loads(done.stdout)["error"]["code"]), done.stderr)

    def assert_signer_refused(self, number):
        self.assert_refused_for("MANIFEST.sig: " + words.certificate_error(number))
