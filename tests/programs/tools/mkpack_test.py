import contextlib
import errno
import fcntl
import hashlib
import importlib
import io
import json
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import sys
import tarfile
import tempfile
import time
import unittest
import unittest.mock

import words
from authority import INTERMEDIATE, Authority
from verify_test_case import AAC, HANG, HEVC, MKPACK, PRODUCT

sys.path.insert(0, str(MKPACK.parent))


class MkpackTest(unittest.TestCase):
    def setUp(self):
        self.top = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.top)
        self.output = self.top / "output"
        self.reply = self.output / "reply.json"
        self.payload = self.top / "payload"
        (self.payload / "lib").mkdir(parents=True)
        (self.payload / "lib/libdecoder.so.1").write_bytes(b"decoder")
        os.umask(0o022)

    def command(self, **options):
        values = {
            "payload": self.payload,
            "output": self.output,
            "name": HEVC,
            "version": "1.2",
            "title": "HEVC decoder",
            "base_url": "http://packs.example.com/packs/",
            **options,
        }
        command = [MKPACK]
        for key, value in values.items():
            for text in value if isinstance(value, list) else [value] if value is not None else []:
                command += ["--" + key.replace("_", "-"), *([] if text is True else [text])]
        return command

    def run_mkpack(self, environment=None, preexec_fn=None, **options):
        return subprocess.run(
            self.command(**options),
            env={**{k: v for k, v in os.environ.items() if k != "SOURCE_DATE_EPOCH"}, **(environment or {})},
            preexec_fn=preexec_fn,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            text=True,
            timeout=HANG,
            check=False,
        )

    def make(self, **options):
        """Publishes and returns the path of the package."""
        result = self.run_mkpack(**options)
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        return pathlib.Path(result.stdout.split("\n")[0].split(maxsplit=1)[1])

    def assert_fails(self, message, status=1, **options):
        """Nothing is published, nothing unfinished stays, and the error is the one line `message`."""
        before = self.reply.read_bytes() if self.reply.exists() else None
        result = self.run_mkpack(**options)
        self.assertEqual((status, "", message), (result.returncode, result.stdout, result.stderr))
        self.assertEqual(before, self.reply.read_bytes() if self.reply.exists() else None)
        self.assertEqual([], self.left_over())

    def assert_usage(self, message, **options):
        end = "" if message.endswith("?") else "."
        self.assert_fails(f'mkpack: {message}{end} Run "mkpack --help" for help.\n', 64, **options)

    def left_over(self):
        return [name for name in os.listdir(self.output) if name.startswith(".mkpack")] if self.output.exists() else []

    def wait_for(self, process, pattern):
        """Waits until the running process made a file of that name in the output folder."""
        deadline = time.monotonic() + HANG
        while not list(self.output.glob(pattern)):
            self.assertIsNone(process.poll())
            self.assertLess(time.monotonic(), deadline)
            time.sleep(0.01)

    def members(self, package):
        """The payload's members by name."""
        with tarfile.open(package, "r:") as outer:
            with tarfile.open(fileobj=outer.extractfile("package.tgz"), mode="r:gz") as inner:
                return {info.name: info for info in inner}

    def content(self, package, name):
        with tarfile.open(package, "r:") as outer:
            with tarfile.open(fileobj=outer.extractfile("package.tgz"), mode="r:gz") as inner:
                return inner.extractfile(name).read()


class MkpackPackageTest(MkpackTest):
    def test_holds_info_and_payload(self):
        with tarfile.open(self.make(), "r:") as outer:
            self.assertEqual(["INFO", "package.tgz"], outer.getnames())
            self.assertEqual(f'package="{HEVC}"\nversion="1.2"\n'.encode(), outer.extractfile("INFO").read())

    def test_payload_begins_with_a_block_of_the_disk(self):
        package = self.make()
        with tarfile.open(package, "r:") as outer:
            self.assertEqual(0, outer.getmember("package.tgz").offset_data % 4096)

    def test_payload_begins_with_a_block_wherever_it_comes(self):
        packing = importlib.import_module("orbamira_mkpack.packing")
        for blocks in range(9):
            with self.subTest(blocks):
                members = {"INFO": io.BytesIO(bytes(512 * blocks)), "package.tgz": io.BytesIO(b"payload")}
                file = io.BytesIO()
                packing.write_package(members, 0, file)
                file.seek(0)
                with tarfile.open(fileobj=file, mode="r:") as archive:
                    payload = archive.getmember("package.tgz")
                    self.assertEqual(0, payload.offset_data % 4096)
                    self.assertEqual(b"payload", archive.extractfile(payload).read())

    def test_payload_keeps_its_tree(self):
        (self.payload / "empty").mkdir()
        (self.payload / "lib/libdecoder.so").symlink_to("libdecoder.so.1")
        package = self.make()
        self.assertEqual(
            ["has_hevc", "empty", "lib", "lib/libdecoder.so", "lib/libdecoder.so.1"], list(self.members(package))
        )
        self.assertEqual(b"decoder", self.content(package, "lib/libdecoder.so.1"))
        self.assertEqual("libdecoder.so.1", self.members(package)["lib/libdecoder.so"].linkname)
        self.assertTrue(self.members(package)["empty"].isdir())
        self.assertEqual(b"", self.content(package, "has_hevc"))

    def test_markers_follow_the_pack_name(self):
        package = self.make(name=AAC)
        self.assertEqual(["has_aac", "has_hevc"], list(self.members(package))[:2])

    def test_markers_follow_the_codecs_named(self):
        package = self.make(codec=["aac", "hevc", "aac"])
        self.assertEqual(["has_aac", "has_hevc", "lib"], list(self.members(package))[:3])

    def test_codecs_of_the_pack_name_must_be_among_those_named(self):
        self.assert_usage(f"argument --codec: a pack of the name {HEVC} carries hevc", codec="aac")
        self.assert_usage(f"argument --codec: a pack of the name {AAC} carries aac", name=AAC, codec="hevc")

    def test_modes_are_normalised_and_owners_and_times_dropped(self):
        for name, mode in (("run", 0o4711), ("read", 0o600), ("group", 0o664)):
            (self.payload / name).write_text(name)
            (self.payload / name).chmod(mode)
        (self.payload / "lib").chmod(0o700)
        (self.payload / "link").symlink_to("run")
        package = self.make()
        members = self.members(package)
        modes = {name: info.mode for name, info in members.items()}
        self.assertEqual(
            {
                "has_hevc": 0o644,
                "group": 0o644,
                "lib": 0o755,
                "lib/libdecoder.so.1": 0o644,
                "link": 0o777,
                "read": 0o644,
                "run": 0o755,
            },
            modes,
        )
        with tarfile.open(package, "r:") as outer:
            for info in [*members.values(), *outer]:
                self.assertEqual((0, 0, "", "", 0), (info.uid, info.gid, info.uname, info.gname, info.mtime))

    def test_same_payload_gives_the_same_bytes(self):
        for index in range(50):
            (self.payload / f"file{index}").write_text(str(index))
        first = self.make().read_bytes()
        copy = self.top / "copy"
        copy.mkdir()
        for index in reversed(range(50)):
            (copy / f"file{index}").write_text(str(index))
        shutil.copytree(self.payload / "lib", copy / "lib")
        os.utime(copy / "file1", (1, 1))
        self.assertEqual(first, self.make(payload=copy, output=self.top / "again").read_bytes())
        self.assertEqual(first, self.make().read_bytes())

    def test_gzip_header_has_no_name_and_no_time(self):
        with tarfile.open(self.make(), "r:") as outer:
            header = outer.extractfile("package.tgz").read(10)
        self.assertEqual(b"\x1f\x8b\x08\x00\x00\x00\x00\x00", header[:8])

    def test_source_date_is_every_members_time(self):
        package = self.make(environment={"SOURCE_DATE_EPOCH": "1700000000"})
        with tarfile.open(package, "r:") as outer:
            for info in [*self.members(package).values(), *outer]:
                self.assertEqual(1700000000, info.mtime)

    def test_source_date_must_be_a_number(self):
        for text in ("", "now", "-1", "1.5", "12345678901"):
            with self.subTest(text):
                self.assert_fails(
                    f"mkpack: SOURCE_DATE_EPOCH is {text!r}, which is not a number of seconds. Set it to seconds since "
                    "1970, or unset it.\n",
                    environment={"SOURCE_DATE_EPOCH": text},
                )

    def test_long_and_odd_names_are_kept(self):
        names = ["d" * 200 + "/" + "f" * 200, "b\u00fccher", "new\nline", os.fsdecode(b"not\xffutf8")]
        for name in names:
            (self.payload / name).parent.mkdir(exist_ok=True)
            (self.payload / name).write_text(name, errors="surrogateescape")
        package = self.make()
        for name in names:
            self.assertEqual(os.fsencode(name), self.content(package, name))

    def test_links_that_stay_inside_are_kept(self):
        targets = {"lib/a": "../lib/libdecoder.so.1", "b": "./missing", "lib/c": "..", "d": "lib", "e": "..data/x"}
        for name, target in targets.items():
            (self.payload / name).symlink_to(target)
        members = self.members(self.make())
        self.assertEqual(targets, {name: members[name].linkname for name in targets})

    def test_links_that_may_lead_outside_are_refused(self):
        for name, target in (
            ("a", "/etc/passwd"),
            ("a", ".."),
            ("a", "../payload/lib"),
            ("lib/a", "../../x"),
            ("lib/a", "./.././../x"),
            ("a", "lib/../../x"),
            ("a", "lib/../lib"),
        ):
            with self.subTest(f"{name} -> {target}"):
                (self.payload / name).symlink_to(target)
                self.assert_fails(
                    f"mkpack: {name} in the payload is a link to {target}, which may lead out of the payload. Link to "
                    "a file in the payload, by a relative path.\n"
                )
                (self.payload / name).unlink()

    def test_what_is_neither_file_nor_folder_nor_link_is_refused(self):
        os.mkfifo(self.payload / "lib/pipe")
        message = "in the payload is neither a regular file nor a folder nor a symbolic link. Remove it."
        self.assert_fails(f"mkpack: lib/pipe {message}\n")
        (self.payload / "lib/pipe").unlink()
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(str(self.payload / "socket"))
            self.assert_fails(f"mkpack: socket {message}\n")

    def test_names_of_the_packs_own_files_are_refused_at_the_top(self):
        for name in ("INFO", "package.tgz", "has_aac", "has_hevc", "MANIFEST", "MANIFEST.sig"):
            with self.subTest(name):
                (self.payload / name).write_text("")
                self.assert_fails(f"mkpack: {name} in the payload has a name that is reserved in packs. Rename it.\n")
                (self.payload / name).unlink()
                (self.payload / "lib" / name).write_text("")
        self.assertIn("lib/INFO", self.members(self.make()))

    def test_payload_without_a_file_is_refused(self):
        shutil.rmtree(self.payload / "lib")
        (self.payload / "empty").mkdir()
        self.assert_fails(
            "mkpack: the payload contains no file. Name the folder with the content of the pack by --payload.\n"
        )

    def make_deep(self, names):
        """Folders of these names in the payload, one in the other. Such a path may be too long for any call."""
        at = os.open(self.payload, os.O_RDONLY)
        for name in names:
            os.mkdir(name, dir_fd=at)
            at, parent = os.open(name, os.O_RDONLY, dir_fd=at), at
            os.close(parent)
        os.close(at)

    def test_folders_may_be_128_deep(self):
        self.make_deep(["d"] * 128)
        self.assertIn("/".join(["d"] * 128), self.members(self.make()))

    def test_deeper_folders_are_refused(self):
        self.make_deep(["d"] * 129)
        path = "/".join(["d"] * 129)
        self.assert_fails(f"mkpack: {path} in the payload is more than 128 names deep. Put it into fewer folders.\n")
        self.assertFalse(self.output.exists())

    def test_too_long_names_are_refused(self):
        names = ["\u00fc" * 120] * 16 + ["n" * 245]
        self.make_deep(names)
        self.assert_fails(
            f"mkpack: {'/'.join(names)} in the payload has a name of more than 4096 bytes. Give it a shorter one.\n"
        )

    def test_files_of_more_than_16_gib_are_refused(self):
        for name, size in (("a", 16 << 30), ("lib/b", 1)):
            with open(self.payload / name, "wb") as file:
                file.truncate(size)
        self.assert_fails(
            "mkpack: the payload's files have more than 17179869184 bytes. Leave out what the pack does not need.\n"
        )
        self.assertFalse(self.output.exists())

    def test_big_payload_is_not_held_in_memory(self):
        size = 300 << 20
        with open(self.payload / "big", "wb") as file:
            file.truncate(size)
        limit = 128 << 20
        package = self.make(preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit)))
        self.assertEqual(size, self.members(package)["big"].size)

    def make_on_terminal(self):
        """Publishes, and returns what a terminal shows of it. A terminal that is not read would hold mkpack up."""
        ours, theirs = os.openpty()
        with subprocess.Popen(self.command(), stdout=theirs, stderr=theirs) as process:
            os.close(theirs)
            shown = b""
            with contextlib.suppress(OSError):  # the end of a terminal that nobody has open any more
                while piece := os.read(ours, 4096):
                    shown += piece
            os.close(ours)
            self.assertEqual(0, process.wait(HANG))
        return shown.decode()

    def test_large_payload_gets_a_bar_on_a_terminal(self):
        with open(self.payload / "big", "wb") as file:
            file.truncate(200 << 20)
        shown = self.make_on_terminal()
        bars = re.findall(r"\rPacking \[(=*) *\] +(\d+)%  (\d+) of 210 MB", shown)
        self.assertGreater(len(bars), 1)
        self.assertEqual(sorted(bars, key=lambda bar: int(bar[2])), bars)
        self.assertRegex(shown, r"\r +\rpackage   ")

    def test_there_is_no_bar_for_a_small_payload_or_without_a_terminal(self):
        self.assertTrue(self.make_on_terminal().startswith("package   "))
        with open(self.payload / "big", "wb") as file:
            file.truncate(200 << 20)
        self.make()  # which says nothing on its standard error

    def test_full_disk_fails_and_leaves_nothing_behind(self):
        (self.payload / "big").write_bytes(os.urandom(1 << 20))
        self.assert_fails(
            f"mkpack: {self.output}: {os.strerror(errno.EFBIG)}. Fix that, and run mkpack again.\n",
            preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (1 << 19, 1 << 19)),
        )

    def test_stopped_run_leaves_nothing_behind(self):
        with open(self.payload / "big", "wb") as file:
            file.truncate(4 << 30)
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number.name), subprocess.Popen(self.command()) as process:
                self.wait_for(process, ".mkpack.*/package.tgz")
                process.send_signal(number)
                self.assertEqual(128 + number, process.wait(HANG))
                self.assertEqual([], os.listdir(self.output))


class MkpackModuleTest(MkpackTest):
    """The base of what needs a look inside."""

    def setUp(self):
        super().setUp()
        sys.dont_write_bytecode = True
        self.mkpack = importlib.import_module("orbamira_mkpack.packing")
        self.rules = importlib.import_module("orbamira_mkpack.rules")


class MkpackBoundsTest(MkpackModuleTest):
    """Bounds that a test cannot reach in a reasonable time, or only with more disk than it may have."""

    def test_are_those_of_the_appliances(self):
        self.assertEqual((20_000, 17179869184), (self.rules.MAX_MEMBERS, self.rules.MAX_CONTENT_SIZE))

    def test_members_up_to_the_bound_may_be_packed(self):
        self.enterContext(unittest.mock.patch.object(self.rules, "MAX_MEMBERS", 3))
        self.mkpack.check_bounds(str(self.payload), 1)
        with self.assertRaisesRegex(
            self.mkpack.MkpackError, "the payload has more than 3 files, folders and links. Leave"
        ):
            self.mkpack.check_bounds(str(self.payload), 2)

    def test_content_up_to_the_bound_may_be_packed(self):
        self.enterContext(unittest.mock.patch.object(self.rules, "MAX_CONTENT_SIZE", len(b"decoder")))
        self.assertEqual(len(b"decoder"), self.mkpack.check_bounds(str(self.payload), 1))


class MkpackFileChangesTest(MkpackModuleTest):
    """A file that changes while it is read: the moment cannot be met from outside."""

    def setUp(self):
        super().setUp()
        self.file = self.payload / "lib/libdecoder.so.1"

    def add(self, change):
        """Adds the file to an archive that calls `change` before it reads the file."""

        class Archive(tarfile.TarFile):
            def addfile(self, info, file):
                change()
                super().addfile(info, file)

        with Archive(fileobj=io.BytesIO(), mode="w") as archive:
            bar = importlib.import_module("orbamira_mkpack.progress").Bar(0, io.StringIO())
            self.mkpack.add_file(archive, tarfile.TarInfo("file"), str(self.file), bar)

    def test_unchanged_file_is_added(self):
        self.add(lambda: None)

    def test_changed_file_is_refused(self):
        for name, change in (
            ("shorter", lambda: self.file.write_bytes(b"")),
            ("longer", lambda: self.file.write_bytes(b"a decoder and more")),
            ("other", lambda: os.utime(self.file, (1, 1))),
        ):
            with self.subTest(name), self.assertRaisesRegex(
                self.mkpack.MkpackError, "file in the payload changed while it was read. Run mkpack again when"
            ):
                self.file.write_bytes(b"decoder")
                self.add(change)

    def test_link_that_took_the_place_of_a_file_is_refused(self):
        self.file.unlink()
        self.file.symlink_to("/etc/passwd")
        with self.assertRaises(OSError):
            self.add(lambda: None)


class MkpackSigningTest(MkpackTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.top)
        self.openssl = self.authority.openssl
        self.authority.issue("between", "ca", INTERMEDIATE)
        self.certificate = self.authority.issue("signer", "ca")
        self.key = self.top / "signer.key"

    def make_signed(self, **options):
        return self.make(**{"sign_key": self.key, "sign_cert": self.certificate, **options})

    def unpack(self, package):
        with tarfile.open(package, "r:") as outer:
            members = {info.name: outer.extractfile(info).read() for info in outer}
        for name, content in members.items():
            (self.top / name).write_bytes(content)
        return members

    def verify(self):
        """Checks the unpacked manifest as a user would; whether it is good."""
        command = "cms -verify -binary -inform DER -in MANIFEST.sig -content MANIFEST -CAfile ca.pem -purpose any"
        return self.openssl(*command.split(), "-out", os.devnull, check=False).returncode == 0

    def test_puts_manifest_and_signature_first(self):
        members = self.unpack(self.make_signed())
        self.assertEqual(["MANIFEST", "MANIFEST.sig", "INFO", "package.tgz"], list(members))
        self.assertEqual(self.facts() + self.digests(members), members["MANIFEST"].decode())

    def facts(self, *more):
        lines = ["format: 2", f"product: {PRODUCT}", f"pack: {HEVC}", "version: 1.2", *more]
        return "".join(f"# {line}\n" for line in lines)

    def digests(self, members):
        return "".join(f"{hashlib.sha256(members[name]).hexdigest()}  {name}\n" for name in ("INFO", "package.tgz"))

    def test_manifest_says_the_minimum_and_the_last_day(self):
        members = self.unpack(self.make_signed(minimum="1.1", expires="2099-12-31"))
        self.assertEqual(
            self.facts("minimum: 1.1", "expires: 2099-12-31") + self.digests(members), members["MANIFEST"].decode()
        )

    def test_manifest_of_format_1_is_the_digests_alone(self):
        members = self.unpack(self.make_signed(manifest_format="1"))
        self.assertEqual(self.digests(members), members["MANIFEST"].decode())

    def test_digests_can_be_checked_by_hand(self):
        self.unpack(self.make_signed())
        done = subprocess.run(
            ["sha256sum", "--strict", "-c", "MANIFEST"], cwd=self.top, capture_output=True, text=True, check=False
        )
        self.assertEqual((0, ""), (done.returncode, done.stderr))

    def test_minimum_and_last_day_must_make_sense(self):
        signing = {"sign_key": self.key, "sign_cert": self.certificate}
        for options, problem in (
            ({"minimum": "1.3"}, "--minimum: it is newer than --version"),
            ({"minimum": "x y"}, "--minimum: 'x y' is not a version"),
            ({"expires": "2020-01-01"}, "--expires: that day is over"),
            ({"expires": "2099-02-29"}, "--expires: '2099-02-29' is no day"),
            ({"expires": "20991231"}, "--expires: '20991231' is no day"),
        ):
            with self.subTest(options):
                result = self.run_mkpack(**signing, **options)
                self.assertEqual((64, ""), (result.returncode, result.stdout))
                self.assertIn(f"argument {problem}", result.stderr)

    def test_minimum_and_last_day_go_with_a_signature_that_can_say_them(self):
        signing = {"sign_key": self.key, "sign_cert": self.certificate, "manifest_format": "1"}
        for options in ({}, signing):
            for name, value in (("minimum", "1.0"), ("expires", "2099-12-31")):
                with self.subTest(name, **options):
                    message = f"argument --{name}: it goes with --sign-key and a manifest of format 2"
                    self.assert_usage(message, **options, **{name: value})

    def test_other_members_are_those_of_a_package_without_signature(self):
        plain = self.unpack(self.make())
        self.assertEqual(["INFO", "package.tgz"], list(plain))
        members = self.unpack(self.make_signed())
        self.assertEqual(plain, {name: members[name] for name in plain})

    def test_signature_is_good(self):
        self.unpack(self.make_signed())
        self.assertTrue(self.verify())

    def test_signature_is_of_exactly_these_bytes(self):
        members = self.unpack(self.make_signed())
        for changed in (members["MANIFEST"].replace(b"\n", b"\r\n"), members["MANIFEST"][:-1], b""):
            with self.subTest(changed):
                (self.top / "MANIFEST").write_bytes(changed)
                self.assertFalse(self.verify())

    def test_signature_does_not_hold_what_it_signs(self):
        members = self.unpack(self.make_signed())
        self.assertNotIn(b"package.tgz", members["MANIFEST.sig"])

    def test_signature_is_made_with_sha256_and_tells_the_time(self):
        self.unpack(self.make_signed())
        text = self.openssl(*"cms -cmsout -print -noout -inform DER -in MANIFEST.sig".split()).stdout.decode()
        self.assertRegex(text, r"digestAlgorithms:\s+algorithm: sha256 ")
        self.assertIn("signingTime", text)
        self.assertNotIn("S/MIME Capabilities", text)

    def test_key_with_a_passphrase_is_refused_where_nobody_can_be_asked(self):
        self.openssl("pkey", "-in", "signer.key", "-aes256", "-passout", "pass:secret", "-out", "locked.key")
        result = self.run_mkpack(sign_key=self.top / "locked.key", sign_cert=self.certificate, preexec_fn=os.setsid)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertTrue(result.stderr.startswith("mkpack: cannot sign with the key "), result.stderr)
        self.assertEqual([], os.listdir(self.output))

    def test_certificates_between_are_in_the_signature(self):
        self.authority.issue("signer", "between")
        self.unpack(self.make_signed())
        self.assertFalse(self.verify())
        chain = self.top / "chain.pem"
        chain.write_bytes(self.certificate.read_bytes() + (self.top / "between.pem").read_bytes())
        self.unpack(self.make_signed(sign_cert=chain))
        self.assertTrue(self.verify())

    def test_reply_names_the_signed_package(self):
        package = self.make_signed()
        member = json.loads(self.reply.read_text())[HEVC]
        self.assertEqual(hashlib.sha256(package.read_bytes()).hexdigest(), member["checksum"])
        self.assertEqual(package.stat().st_size, member["size"])

    def test_key_of_another_certificate_is_refused(self):
        other = self.top / "between.key"
        result = self.run_mkpack(sign_key=other, sign_cert=self.certificate)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertRegex(
            result.stderr,
            f"^mkpack: cannot sign with the key {other} and the certificate {self.certificate} "
            r"\(.*private key does not match certificate.*\). See that the key can be read and belongs to the "
            "certificate.",
        )
        self.assertEqual(1, result.stderr.count("\n"))
        self.assertEqual([], os.listdir(self.output))

    def test_file_without_certificate_is_refused(self):
        message = "contains no certificate. Name a PEM file with one by --sign-cert."
        self.assert_fails(f"mkpack: {self.key} {message}\n", sign_key=self.key, sign_cert=self.key)
        missing = self.top / "missing"
        message = f"{os.strerror(errno.ENOENT)}. Put it there, or correct the path."
        self.assert_fails(f"mkpack: {missing}: {message}\n", sign_key=self.key, sign_cert=missing)

    def test_missing_key_is_refused(self):
        missing = self.top / "missing"
        result = self.run_mkpack(sign_key=missing, sign_cert=self.certificate)
        self.assertEqual((1, ""), (result.returncode, result.stdout))
        self.assertIn(os.strerror(errno.ENOENT), result.stderr)
        self.assertEqual([], os.listdir(self.output))

    def test_missing_openssl_is_an_error(self):
        self.assert_fails(
            "mkpack: the program openssl, which signs packages, is not installed. Install it.\n",
            sign_key=self.key,
            sign_cert=self.certificate,
            environment={"PATH": str(self.top)},
        )

    def test_key_and_certificate_go_together(self):
        message = "arguments --sign-key and --sign-cert: one is no use without the other"
        self.assert_usage(message, sign_key=self.key)
        self.assert_usage(message, sign_cert=self.certificate)


class MkpackReplyTest(MkpackTest):
    def member(self, package, **others):
        data = package.read_bytes()
        return {
            "title": "HEVC decoder",
            "version": "1.2",
            "link": f"http://packs.example.com/packs/{package.name}",
            "checksum": hashlib.sha256(data).hexdigest(),
            "size": len(data),
            **others,
        }

    def test_names_the_package(self):
        package = self.make()
        checksum = hashlib.sha256(package.read_bytes()).hexdigest()
        self.assertEqual(self.output / f"{HEVC}-1.2-{checksum[:12]}.opk", package)
        self.assertEqual({HEVC: self.member(package)}, json.loads(self.reply.read_text()))

    def test_says_what_was_published(self):
        result = self.run_mkpack()
        member = json.loads(self.reply.read_text())[HEVC]
        package = self.output / member["link"].rpartition("/")[2]
        self.assertEqual(
            [
                f"package   {package}",
                f"size      {member['size']}",
                f"checksum  {member['checksum']}",
                f"reply     {self.reply}",
            ],
            result.stdout.splitlines(),
        )

    def test_folder_of_any_name_will_do(self):
        output = self.top / os.fsdecode(b"out\xff")
        result = subprocess.run(
            self.command(output=output),
            env=dict(os.environ, PYTHONIOENCODING="utf-8:strict"),
            stdout=subprocess.PIPE,
            timeout=HANG,
            check=False,
        )
        self.assertEqual(0, result.returncode)
        self.assertIn(b"/out\xff/reply.json\n", result.stdout)

    def test_is_written_in_a_fixed_form(self):
        checksum = hashlib.sha256(self.make(title='B\u00fccher "x"').read_bytes()).hexdigest()
        size = next(self.output.glob("*.opk")).stat().st_size
        self.assertEqual(
            "{\n"
            f'  "{HEVC}": {{\n'
            f'    "checksum": "{checksum}",\n'
            f'    "link": "http://packs.example.com/packs/{HEVC}-1.2-{checksum[:12]}.opk",\n'
            f'    "size": {size},\n'
            '    "title": "B\\u00fccher \\"x\\"",\n'
            '    "version": "1.2"\n'
            "  }\n"
            "}\n",
            self.reply.read_text(),
        )

    def test_other_members_stay(self):
        self.output.mkdir()
        other = {"note": {"a": [1, "b", None, True, 1.5]}, HEVC: "replaced"}
        self.reply.write_text(json.dumps(other))
        first = self.make()
        second = self.make(name=AAC, version="2")
        self.assertEqual(
            {"note": other["note"], HEVC: self.member(first), AAC: self.member(second, version="2")},
            json.loads(self.reply.read_text()),
        )

    def test_newer_pack_takes_the_place_of_the_older_whose_file_stays(self):
        first = self.make()
        second = self.make(version="1.3")
        self.assertTrue(first.exists())
        pack = json.loads(self.reply.read_text())[HEVC]
        self.assertEqual([self.member(first)], pack.pop("former"))
        self.assertEqual(self.member(second, version="1.3"), pack)

    def test_older_pack_is_refused(self):
        self.make(version="1.10")
        self.assert_fails(
            f"mkpack: {HEVC} 1.9 is older than the published 1.10, so appliances that have that one would not "
            "install it. Give a higher --version, or add --allow-older.\n",
            version="1.9",
        )
        self.assertEqual([], list(self.output.glob(f"{HEVC}-1.9-*")))
        self.make(version="1.9", name=AAC)
        self.make(version="1.10.0")
        package = self.make(version="1.9", allow_older=True)
        self.assertEqual(self.member(package, version="1.9"), json.loads(self.reply.read_text())[HEVC])

    def test_pack_older_than_what_another_mkpack_published_meanwhile_is_refused(self):
        self.make(version="1")
        with open(self.output / ".reply.json.lock", "r+") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with subprocess.Popen(self.command(version="2"), stderr=subprocess.PIPE, text=True) as process:
                self.wait_for(process, f"{HEVC}-2-*.opk")
                self.reply.write_text(json.dumps({HEVC: {"version": "3"}}))
                fcntl.flock(lock, fcntl.LOCK_UN)
                self.assertIn(f"{HEVC} 2 is older than the published 3,", process.communicate(timeout=HANG)[1])
                self.assertEqual(1, process.returncode)
        self.assertEqual({HEVC: {"version": "3"}}, json.loads(self.reply.read_text()))

    def test_published_version_that_is_none_refuses_nothing(self):
        for published in ({"version": 7}, {"version": "new!"}, {}, []):
            with self.subTest(published):
                self.output.mkdir(exist_ok=True)
                self.reply.write_text(json.dumps({HEVC: published}))
                self.make(version="0.1")

    def test_that_is_no_reply_is_an_error_and_stays(self):
        self.output.mkdir()
        for text, message in (
            ("{", f"is not valid JSON ({words.json_error('{')})"),
            ("", f"is not valid JSON ({words.json_error('')})"),
            ("[]", "is not a JSON object"),
            ("[" * 100000, "is not valid JSON ("),
        ):
            with self.subTest(text[:9]):
                self.reply.write_text(text)
                result = self.run_mkpack()
                self.assertEqual((1, ""), (result.returncode, result.stdout))
                self.assertTrue(result.stderr.startswith(f"mkpack: {self.reply} {message}"), result.stderr)
                end = ", and was left as it is. Move it away, or name another by --reply.\n"
                self.assertTrue(result.stderr.endswith(end), result.stderr)
                self.assertEqual(text, self.reply.read_text())
                self.assertEqual(["reply.json"], os.listdir(self.output))

    def test_that_is_not_text_is_an_error_and_stays(self):
        self.output.mkdir()
        self.reply.write_bytes(b'{"a": "\xff"}')
        self.assertEqual(1, self.run_mkpack().returncode)
        self.assertEqual(b'{"a": "\xff"}', self.reply.read_bytes())

    def test_may_lie_elsewhere(self):
        reply = self.top / "web/replies/packs.json"
        package = self.make(reply=reply)
        self.assertEqual({HEVC: self.member(package)}, json.loads(reply.read_text()))
        self.assertFalse(self.reply.exists())

    def test_may_lie_in_the_current_folder(self):
        result = subprocess.run(
            self.command(reply="r.json"), cwd=self.top, stdout=subprocess.DEVNULL, timeout=HANG, check=False
        )
        self.assertEqual(0, result.returncode)
        self.assertIn(HEVC, json.loads((self.top / "r.json").read_text()))

    def test_and_package_are_readable_for_the_web_server(self):
        package = self.make(preexec_fn=lambda: os.umask(0o077))
        for path in (package, self.reply):
            self.assertEqual(0o644, stat.S_IMODE(path.stat().st_mode))

    def test_waits_for_another_mkpack(self):
        self.make()
        with open(self.output / ".reply.json.lock", "r+") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            with subprocess.Popen(self.command(version="2"), stdout=subprocess.DEVNULL) as process:
                # The new package is there, and the reply does not name it as long as the lock is held.
                self.wait_for(process, f"{HEVC}-2-*.opk")
                with self.assertRaises(subprocess.TimeoutExpired):
                    process.wait(0.3)
                self.reply.write_text('{"other": 1}')
                fcntl.flock(lock, fcntl.LOCK_UN)
                self.assertEqual(0, process.wait(HANG))
        self.assertEqual([HEVC, "other"], sorted(json.loads(self.reply.read_text())))

    def test_loses_no_member_when_many_publish_at_once(self):
        names = [HEVC, AAC]
        for round_number in range(5):
            self.reply.unlink(missing_ok=True)
            processes = [
                subprocess.Popen(self.command(name=name, version=str(round_number)), stdout=subprocess.DEVNULL)
                for name in names
            ]
            self.assertEqual([0, 0], [process.wait(HANG) for process in processes])
            self.assertEqual(names, sorted(json.loads(self.reply.read_text())))
        self.assertEqual([], self.left_over())


class MkpackUsageTest(MkpackTest):
    def test_help_teaches(self):
        result = subprocess.run([MKPACK, "--help"], stdout=subprocess.PIPE, text=True, timeout=HANG, check=False)
        self.assertEqual(0, result.returncode)
        for text in (
            *("--base-url URL", "--sign-key KEY", "exit status", "examples", "SOURCE_DATE_EPOCH"),
            *("mkpack verify /srv/packs", "common problems"),
            *("1.0-rc1 is NEWER than 1.0", "Python and zlib are the same", "contains the time when it was made"),
        ):
            self.assertIn(text, result.stdout)

    def test_options_of_what_is_published_and_where_are_required(self):
        for name in ("payload", "output", "name", "version", "title", "base_url"):
            with self.subTest(name):
                option = "--" + name.replace("_", "-")
                self.assert_usage(f"the following arguments are required: {option}", **{name: None})

    def test_unknown_and_shortened_options_are_refused(self):
        self.assert_usage('there is no option "--sign". Did you mean "--sign-key"?', sign="x")
        self.assert_usage('there is no option "--rep". Did you mean "--reply"?', rep="x")
        self.assert_usage('there is no option "--xylophone"', xylophone="x")

    def test_misspelt_option_is_no_missing_one(self):
        self.assert_usage('there is no option "--paylod". Did you mean "--payload"?', payload=None, paylod="x")
        self.assert_usage('there is no option "--titel". Did you mean "--title"?', **{"title": None, "titel=x": True})

    def test_title_may_begin_like_an_option(self):
        self.make(title="--a new decoder")

    def test_wrong_command_is_answered_with_the_nearest(self):
        for words_given, message in (
            (["verfiy", "/srv"], 'there is no command "verfiy". Did you mean "verify"?'),
            (["dance"], 'there is no command "dance".'),
            (["a\nb"], 'there is no command "a\\nb".'),
        ):
            result = subprocess.run([MKPACK, *words_given], capture_output=True, text=True, timeout=HANG, check=False)
            self.assertEqual(
                (64, "", f'mkpack: {message} Run "mkpack --help" for help.\n'),
                (result.returncode, result.stdout, result.stderr),
            )

    def test_name_and_codec_must_be_known(self):
        for option, known in (("name", f"'{HEVC}', '{AAC}'"), ("codec", "'hevc', 'aac'")):
            with self.subTest(option):
                self.assert_usage(
                    f"argument --{option}: invalid choice: 'vp9' (choose from {known})", **{option: "vp9"}
                )

    def test_version_must_fit_file_names_and_settings_files(self):
        for text in ("", "1/2", "1\n2", "1\n", '1"', "1'", "_1", ".1", "1 2", "\u0661", "1~rc1", "1" * 65):
            with self.subTest(text):
                self.assert_usage(
                    f"argument --version: {text!r} is not a version: up to 64 letters, digits and . _ + -, beginning "
                    "with a letter or digit",
                    version=text,
                )

    def test_version_may_have_all_its_signs(self):
        package = self.make(version="1.2-3_4+deb5")
        with tarfile.open(package, "r:") as outer:
            self.assertIn(b'version="1.2-3_4+deb5"\n', outer.extractfile("INFO").read())
        link = json.loads(self.reply.read_text())[HEVC]["link"]
        self.assertIn(f"/{HEVC}-1.2-3_4%2Bdeb5-", link)

    def test_title_must_be_printable(self):
        for text in ("", "  ", "a\nb", "\x1b[1m"):
            with self.subTest(text):
                self.assert_usage(
                    f"argument --title: {text!r} is no title: it is empty or holds unprintable characters", title=text
                )

    def test_base_url_must_be_http(self):
        for text in (
            *("", "x", "ftp://h/", "file:///x", "http://", "http:///x", "http://h:99999/", "http://h:x/", "http://[x/"),
            *("http://h/?a", "http://h/#a", "http://h/a b", "http://h/\n", "http://h/\u00fc"),
        ):
            with self.subTest(text):
                self.assert_usage(
                    f"argument --base-url: {text!r} is no http or https address of a folder", base_url=text
                )

    def test_base_url_may_have_a_port_and_a_folder(self):
        for text in ("https://h", "http://[::1]:8080/a/b/"):
            package = self.make(base_url=text)
            link = json.loads(self.reply.read_text())[HEVC]["link"]
            self.assertEqual(f"{text.rstrip('/')}/{package.name}", link)

    def test_payload_must_be_a_folder(self):
        missing = self.top / "missing"
        self.assert_usage(f"argument --payload: {missing} is not a folder", payload=missing)

    def test_output_must_not_be_inside_the_payload(self):
        (self.top / "link").symlink_to("payload")
        for output in (self.payload, self.payload / "lib/out", self.top / "link/out"):
            with self.subTest(output):
                self.assert_usage("argument --output: it must not be inside the payload", output=output)
        self.assert_usage(
            "argument --output: it must not be inside the payload",
            payload=self.top / "link",
            output=self.payload / "out",
        )
        self.make(output=self.top / "payload2")

    def test_output_that_cannot_be_made_is_an_error(self):
        self.output.write_text("")
        result = self.run_mkpack()
        self.assertEqual(
            (1, f"mkpack: {self.reply}: {os.strerror(errno.ENOTDIR)}. Correct the path.\n"),
            (result.returncode, result.stderr),
        )


if __name__ == "__main__":
    unittest.main()
