#!/usr/bin/env python3
"""The install of a package from a file: install_file_test.py --build FOLDER [unittest argument...]"""

import argparse
import io
import json
import os
import pathlib
import shutil
import signal
import subprocess
import sys
import tarfile
import tempfile
import unittest

TESTS = pathlib.Path(__file__).resolve().parents[1]
sys.path[:0] = [str(TESTS / "support"), str(TESTS / "programs/tools")]
from appliance import Appliance, make_pack, tree  # noqa: E402
from authority import Authority  # noqa: E402

OLD, NEW = "1.0", "2.0"


def tar(members):
    """The text of a package that holds these members."""
    file = io.BytesIO()
    with tarfile.open(fileobj=file, mode="w", format=tarfile.PAX_FORMAT) as archive:
        for name, content in members.items():
            info = tarfile.TarInfo(name)
            info.size = len(content)
            archive.addfile(info, io.BytesIO(content))
    return file.getvalue()


class InstallFileTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orbamira-stick-")
        self.addCleanup(folder.cleanup)
        self.top = pathlib.Path(folder.name)
        self.appliance = Appliance.lay_out(self.top / "root", build)
        self.stick = self.top / "my stick"
        self.stick.mkdir()
        (self.top / "pki").mkdir()
        self.authority = Authority(self.top / "pki")
        self.authority.issue("signer", "ca")

    def demand_signatures(self):
        shutil.copy(self.top / "pki/ca.pem", self.appliance.settings / "keyring.pem")

    def package(self, version, signed=True, payload=b"codec", **more):
        """Makes a package on the stick; returns its path."""
        source, published = self.top / "payload", self.top / f"published-{version}-{signed}-{len(more)}"
        (source / "lib").mkdir(parents=True, exist_ok=True)
        (source / "lib/codec").write_bytes(payload + version.encode())
        if signed:
            more |= {"sign-key": self.top / "pki/signer.key", "sign-cert": self.top / "pki/signer.pem"}
        make_pack(build, source, published, version, "http://127.0.0.1", **more)
        return shutil.copy(next(published.glob("*.opk")), self.stick / f"{published.name}.opk")

    def made_by_hand(self, members):
        path = self.stick / "by-hand.opk"
        path.write_bytes(tar(members))
        return path

    def run_packctl(self, *arguments, wrapper=()):
        done = self.appliance.packctl(*map(str, arguments), wrapper=wrapper)
        return done.returncode, done.stdout + done.stderr

    def install(self, file, *options, wrapper=()):
        """Runs the command; returns its exit status and its answer."""
        done = self.appliance.packctl("--json", "install", "--file", str(file), *options, wrapper=wrapper)
        return done.returncode, json.loads(done.stdout)

    def expect_installed(self, version):
        self.assertEqual((self.appliance.pack / "lib/codec").read_bytes(), b"codec" + version.encode())
        self.assertFalse(self.appliance.download.exists())
        self.assertEqual(self.appliance.leftovers(), [])
        self.assertEqual(self.appliance.status(), "up_to_date")

    def expect_refused(self, code, file, *options, wrapper=()):
        """The install fails for this reason, and all that it leaves is an entry in the history; returns the error."""
        before = self.kept()
        status, answer = self.install(file, *options, wrapper=wrapper)
        self.assertEqual((status, answer["result"]), (1, "failed"), answer)
        self.assertEqual(answer["error"]["code"], code, answer)
        self.assertEqual(self.kept(), before)
        entry = self.newest_entry()
        self.assertEqual((entry["command"], entry["error"]["code"]), ("install", code))
        return answer["error"]

    def kept(self):
        """What the appliance and the stick hold, but for the history, locks, times and forms of the store."""
        record = json.loads(self.appliance.status_file.read_bytes()) if self.appliance.status_file.exists() else {}
        appliance = {
            name: entry
            for name, entry in tree(self.appliance.root).items()
            if not name.startswith(self.appliance.paths.state_folder + "/")
            and not name.startswith(self.appliance.paths.run_folder)
            and name != self.appliance.paths.cache_folder
        }
        return record, appliance, tree(self.appliance.packages), tree(self.stick)

    def newest_entry(self):
        return json.loads(self.run_packctl("--json", "history", "--limit", "1")[1])["entries"][0]

    def install_old(self):
        self.demand_signatures()
        self.assertEqual(self.install(self.package(OLD))[0], 0)

    def test_a_signed_package_is_installed_and_told_of(self):
        self.demand_signatures()
        package = self.package(NEW)
        before = package.read_bytes()
        status, output = self.run_packctl("install", "--file", package)
        self.assertEqual(status, 0, output)
        self.assertRegex(output, r"Installed 2\.0 in ")
        self.expect_installed(NEW)
        self.assertEqual(package.read_bytes(), before)
        entry = self.newest_entry()
        self.assertEqual(entry["to"], {"package": self.appliance.paths.hevc_pack, "version": NEW})
        self.assertEqual((entry["from"], entry["result"]), (None, "done"))

    def test_plugins_are_told_the_name_and_version_of_the_package(self):
        self.install_old()
        plugin, journal = self.appliance.plugins / "journal", self.top / "journal"
        plugin.parent.mkdir(parents=True, exist_ok=True)
        plugin.write_text(f"#!/bin/sh\necho \"$*\" >> '{journal}'\n")
        plugin.chmod(0o755)
        status, answer = self.install(self.package(NEW))
        self.assertEqual((status, answer), (0, {"command": "install", "result": "done", "status": "up_to_date"}))
        told = journal.read_text().splitlines()
        self.assertEqual([OLD in line for line in told], [True, True, False, False])
        self.assertEqual([NEW in line for line in told], [False, False, True, True])
        self.assertTrue(all(self.appliance.paths.hevc_pack in line and "UPGRADE" in line for line in told), told)

    def test_a_signature_is_demanded(self):
        package = self.package(NEW, signed=False)
        self.expect_refused("keyring_unusable", package)
        self.install_old()
        self.expect_refused("not_signed", package)
        signed = self.package(NEW)
        text = bytearray(signed.read_bytes())
        text[text.index(b"\x1f\x8b") + 20] ^= 1  # in the payload
        signed.write_bytes(text)
        self.expect_refused("bad_signature", signed)

    def test_trust_takes_the_place_of_a_signature(self):
        self.assertEqual(self.install(self.package(OLD, signed=False), "--trust")[0], 0)
        self.expect_installed(OLD)
        self.demand_signatures()
        self.assertEqual(self.install(self.package(NEW, signed=False), "--trust")[0], 0)
        self.expect_installed(NEW)

    def test_what_is_no_file_is_refused(self):
        self.install_old()
        fifo, folder = self.stick / "fifo", self.stick / "folder"
        os.mkfifo(fifo)
        folder.mkdir()
        for file in (fifo, folder, "/dev/zero", self.stick / "missing"):
            with self.subTest(file):
                self.assertIn(str(file), self.expect_refused("file_unusable", file)["message"])

    def test_a_download_that_waits_outlives_a_refusal(self):
        self.install_old()
        self.appliance.download.mkdir()
        waiting = self.appliance.download / "codec-pack.opk"
        shutil.copy(self.package(NEW), waiting)
        self.appliance.write_status(json.dumps({"status": "need_install", "new_version": NEW}))
        self.expect_refused("file_unusable", self.stick / "missing")
        self.expect_refused("file_unusable", waiting)

    def test_a_package_without_a_usable_name_and_version_is_refused(self):
        self.install_old()
        payload = tarfile_of_nothing()
        hevc = self.appliance.paths.hevc_pack.encode()
        for info in (
            None,
            b"",
            b'package="' + hevc + b'"\n',
            b'package="' + hevc + b'\x1b[2J"\nversion="2.0"\n',
            b'package="' + hevc + b'"\nversion="' + b"2" * 200 + b'"\n',
        ):
            with self.subTest(info):
                package = self.made_by_hand(({} if info is None else {"INFO": info}) | {"package.tgz": payload})
                self.assertNotIn("\x1b", self.expect_refused("bad_package", package, "--trust")["message"])

    def test_a_damaged_package_is_refused(self):
        self.install_old()
        package = self.package(NEW)
        package.write_bytes(package.read_bytes()[:5000])
        self.expect_refused("bad_package", package)
        package.write_bytes(b"")
        self.expect_refused("bad_package", package)

    def test_no_older_version_is_installed(self):
        self.demand_signatures()
        older = self.package(OLD)
        self.assertEqual(self.install(self.package(NEW))[0], 0)
        self.assertIn(NEW, self.expect_refused("older_version", older)["message"])
        self.expect_refused("older_version", older, "--reinstall")
        self.assertEqual(self.install(older, "--allow-older")[0], 0)
        self.assertEqual((self.appliance.pack / "lib/codec").read_bytes(), b"codec1.0")

    def test_the_same_version_is_installed_again_only_when_asked(self):
        self.install_old()
        package = self.package(OLD)
        status, answer = self.install(package)
        self.assertEqual(status, 2)
        self.assertEqual(
            answer,
            {
                "command": "install",
                "installed_version": OLD,
                "result": "nothing_new",
                "status": "up_to_date",
                "version": OLD,
            },
        )
        status, output = self.run_packctl("install", "--file", package)
        self.assertEqual((status, output.splitlines()[-1]), (2, f"Already up to date ({OLD})."))
        self.expect_installed(OLD)
        number = (self.appliance.pack / "INFO").stat().st_ino
        self.assertEqual(self.install(package, "--reinstall")[0], 0)
        self.expect_installed(OLD)
        self.assertNotEqual((self.appliance.pack / "INFO").stat().st_ino, number)

    def test_only_the_pack_that_a_check_would_ask_for_is_installed(self):
        self.install_old()
        with_aac = self.package(OLD, name=self.appliance.paths.hevc_aac_pack)
        hevc = self.package(NEW)
        self.expect_refused("wrong_pack", with_aac)
        (self.appliance.state_folder / "codec-requirements.json").write_text('{"aac": ["player"]}')
        self.expect_refused("wrong_pack", hevc)
        self.assertEqual(self.install(with_aac)[0], 0)
        self.expect_installed(OLD)
        self.expect_refused("wrong_pack", hevc)

    def test_a_file_without_room_is_refused_before_it_is_copied(self):
        self.install_old()
        self.appliance.use_server("")
        with (self.appliance.settings / "updater.conf").open("a") as settings:
            settings.write('download_limit="9000000000000000"\n')
        large = self.stick / "large.opk"
        with large.open("wb") as file:
            file.truncate(1 << 43)
        status, answer = self.install(large)
        self.assertEqual((status, answer["error"]["code"]), (1, "no_space"))
        self.assertIn(f"packctl install --file '{large}'", answer["error"]["remedy"])
        self.expect_installed(OLD)

    def test_work_in_progress_is_not_disturbed(self):
        self.install_old()
        self.appliance.write_status('{"status": "downloading"}')
        before = self.kept()
        status, answer = self.install(self.package(NEW))
        self.assertEqual((status, answer["error"]["code"]), (3, "interrupted"))
        self.assertEqual(self.kept()[0], before[0])

    def test_trust_and_reinstall_take_a_file(self):
        for option in ("--trust", "--reinstall"):
            self.assertEqual(self.run_packctl("install", option)[0], 64)

    def test_cancelling_brings_the_old_pack_back(self):
        self.install_old()
        fifo, plugin = self.top / "fifo", self.appliance.plugins / "waits"
        os.mkfifo(fifo)
        plugin.parent.mkdir(parents=True, exist_ok=True)
        plugin.write_text(f"#!/bin/sh\necho told > '{fifo}'\n")
        plugin.chmod(0o755)
        process = subprocess.Popen(
            [self.appliance.program("packctl"), "install", "--file", self.package(NEW)],
            env=self.appliance.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
        )
        fifo.open("rb").close()  # plugins are being told, so that the install has begun
        process.send_signal(signal.SIGINT)
        output, _ = process.communicate(timeout=600)
        self.assertEqual(process.returncode, 130, output)
        plugin.unlink()
        self.assertEqual((self.appliance.pack / "lib/codec").read_bytes(), b"codec1.0")
        self.assertEqual(self.install(self.package(NEW))[0], 0)
        self.expect_installed(NEW)

    def test_a_stick_that_fails_midway_harms_nothing(self):
        self.install_old()
        package = self.package(NEW, payload=os.urandom(500_000))
        for number in self.reads_of(package):
            with self.subTest(number):
                error = self.expect_refused(
                    "file_unusable", package, wrapper=self.injector(package, "--at", number, "--fault", "EIO")
                )
                self.assertIn("Input/output error", error["message"])
                self.assertIn(f"sudo packctl install --file '{package}'", error["remedy"])

    def test_copying_is_recorded_as_a_download_is(self):
        self.install_old()
        package = self.package(NEW, payload=os.urandom(500_000))
        copying = self.reads_of(package)[1]
        done = self.appliance.packctl(
            "install", "--file", str(package), wrapper=self.injector(package, "--at", copying, "--fault", "kill")
        )
        self.assertEqual(done.returncode, 137)
        record = json.loads(self.appliance.status_file.read_bytes())
        self.assertEqual(record["status"], "downloading_installing")
        self.assertEqual(record["download_size_total"], str(package.stat().st_size))
        self.assertGreater(int(record["download_size_now"]), 0)
        copied = next(self.appliance.download.iterdir())
        self.assertEqual((copied.stat().st_mode & 0o777, copied.parent.stat().st_mode & 0o777), (0o600, 0o700))

    def injector(self, package, *arguments):
        program = pathlib.Path(build) / "tests/faults/fault_injector"
        if not program.exists():
            self.skipTest("faults are brought about on x86-64 only, and not in a build with a sanitizer")
        return [program, "--reads", package, *arguments, "--"]

    def reads_of(self, package):
        """The numbers of the calls that read the package, in an undisturbed run on a copy of the appliance."""
        copy, record = self.appliance.copy_to(self.top / "copy"), self.top / "calls"
        wrapper = self.injector(package, "--record", record)
        done = copy.packctl("install", "--file", str(package), wrapper=wrapper)
        self.assertEqual(done.returncode, 0, done.stderr)
        shutil.rmtree(copy.root)
        calls = [line.split(" ", 3) for line in record.read_text().splitlines()]
        found = [int(number) for number, _, call, path in calls if call == "read" and path == str(package)]
        self.assertGreater(len(found), 2)
        return found


def tarfile_of_nothing():
    file = io.BytesIO()
    with tarfile.open(fileobj=file, mode="w:gz"):
        pass
    return file.getvalue()


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    arguments, rest = parser.parse_known_args()
    build = arguments.build
    unittest.main(argv=[sys.argv[0], *rest])
