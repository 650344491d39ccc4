"""Where files can share blocks, a package's payload is unpacked without being written again.

On a file system of its own, as root; elsewhere there is nothing to test.
"""

import os
import pathlib
import random
import shutil
import subprocess
import sys
import tempfile
import unittest

from authority import Authority

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
from appliance import Paths, mkpack_of  # noqa: E402
from device import Device  # noqa: E402

BUILD = pathlib.Path(os.environ["ORBAMIRA_BUILD"])
ARCHIVE = BUILD / "tools/orba-archive/orba-archive"
SIZE = 8 << 20
OWN_MOUNTS = ["unshare", "--mount"]  # which end with the last process that sees them, however that ends


def may_mount():
    return (
        os.access("/dev/loop-control", os.W_OK)
        and shutil.which("mkfs.xfs", path=os.environ["PATH"] + ":/usr/sbin") is not None
        and subprocess.run([*OWN_MOUNTS, "true"], stderr=subprocess.DEVNULL, check=False).returncode == 0
    )


class SharedBlocksTest(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.top)
        (self.top / "pki").mkdir()
        self.payload = self.top / "payload"
        self.payload.mkdir()
        (self.payload / "libcodec.so").write_bytes(random.Random(1).randbytes(SIZE))
        self.device = Device(self.top / "device", "xfs", 1 << 30)
        self.enterContext(self.device)
        self.package = self.device.folder / "package.opk"
        self.folder = self.device.folder / "unpacked"
        self.folder.mkdir()
        self.root = self.top / "root"

    def make(self, *options):
        """The package lies on the device; returns its payload."""
        output = self.top / "output"
        command = [
            mkpack_of(BUILD),
            f"--name={Paths(BUILD).hevc_pack}",
            "--version=1",
            "--title=HEVC",
            "--base-url=http://localhost",
        ]
        subprocess.run(
            [*command, f"--payload={self.payload}", f"--output={output}", *options], check=True, capture_output=True
        )
        shutil.copy(next(output.glob("*.opk")), self.package)
        subprocess.run(["tar", "-xf", self.package, "-C", output, "package.tgz"], check=True)
        return (output / "package.tgz").read_bytes()

    def make_signed(self):
        authority = Authority(self.top / "pki")
        authority.issue("signer", "ca")
        keyring = self.root / Paths(BUILD).settings_folder / "keyring.pem"
        keyring.parent.mkdir(parents=True)
        shutil.copy(self.top / "pki/ca.pem", keyring)
        return self.make(f"--sign-key={self.top}/pki/signer.key", f"--sign-cert={self.top}/pki/signer.pem")

    def unpack(self):
        """How many bytes reached the device meanwhile."""
        before = self.device.counters()["device"]
        done = subprocess.run(
            [ARCHIVE, "-xf", self.package, "-C", self.folder],
            env={**os.environ, "ORBAMIRA_ROOT": str(self.root)},
            capture_output=True,
            text=True,
            check=False,
        )
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        return self.device.counters()["device"] - before

    def test_payload_is_not_written_again(self):
        payload = self.make()
        self.assertLess(self.unpack(), SIZE // 4)
        self.assertEqual(payload, (self.folder / "package.tgz").read_bytes())

    def test_nor_is_that_of_a_signed_package(self):
        payload = self.make_signed()
        self.assertLess(self.unpack(), SIZE // 4)
        self.assertEqual(payload, (self.folder / "package.tgz").read_bytes())

    def test_a_later_change_of_the_package_does_not_reach_it(self):
        payload = self.make()
        self.unpack()
        self.package.write_bytes(bytes(self.package.stat().st_size))
        self.assertEqual(payload, (self.folder / "package.tgz").read_bytes())

    def test_a_payload_between_two_blocks_is_copied(self):
        payload = self.make()
        work = self.top / "work"
        work.mkdir()
        subprocess.run(["tar", "-xf", self.package, "-C", work], check=True)
        subprocess.run(["tar", "-cf", self.package, "-C", work, "INFO", "package.tgz"], check=True)
        self.assertGreater(self.unpack(), SIZE)
        self.assertEqual(payload, (self.folder / "package.tgz").read_bytes())


if __name__ == "__main__":
    if not may_mount():
        print("skipped: it takes root and mkfs.xfs")
    elif os.environ.get("OWN_MOUNTS") != "yes":
        os.environ["OWN_MOUNTS"] = "yes"
        os.execvp(OWN_MOUNTS[0], [*OWN_MOUNTS, sys.executable, "-B", *sys.argv])
    else:
        unittest.main()
