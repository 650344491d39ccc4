"""Where there is a keyring, only a package that it vouches for is unpacked, and packctl says why another is not."""

import errno
import os
import shutil
import subprocess
import tarfile
import unittest

import words
from authority import INTERMEDIATE, LEAF
from signed_test_case import TOOLS, SignedTestCase, manifest, tar

LIMIT_OF_TEXTS = 1 << 20


class SignedPackageTest(SignedTestCase):
    def test_signed_package_is_unpacked(self):
        self.trust("ca")
        self.pack()
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_verifying_writes_nothing(self):
        self.trust("ca")
        self.pack()
        before = sorted(self.top.rglob("*"))
        done = self.run_tool("orba-archive", "--verify", self.package)
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        self.assertEqual(before, sorted(self.top.rglob("*")))

    def test_verifying_into_a_folder_leaves_the_information_of_an_accepted_package(self):
        self.trust("ca")
        verify = ("--verify", self.package, "-C", self.folder)
        self.package.write_bytes(tar(self.members.items()))
        self.assertEqual(1, self.run_tool("orba-archive", *verify).returncode)
        self.assertEqual([], list(self.folder.iterdir()))
        self.pack()
        done = self.run_tool("orba-archive", *verify)
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        self.assertEqual([self.folder / "INFO"], list(self.folder.iterdir()))
        self.assertEqual(self.members["INFO"], (self.folder / "INFO").read_bytes())
        self.assertEqual(0o644, (self.folder / "INFO").stat().st_mode & 0o777)
        done = self.run_tool("orba-archive", *verify)
        self.assertEqual((1, [self.folder / "INFO"]), (done.returncode, list(self.folder.iterdir())))

    def test_information_that_is_verified_is_bounded(self):
        self.package.write_bytes(tar([("INFO", bytes(LIMIT_OF_TEXTS + 1))]))
        done = self.run_tool("orba-archive", "--verify", self.package, "-C", self.folder)
        self.assertEqual((1, []), (done.returncode, list(self.folder.iterdir())))
        self.assertIn("INFO: longer than 1048576 bytes", done.stderr)

    def test_trust_takes_the_place_of_a_signature(self):
        self.trust("ca")
        self.package.write_bytes(tar(self.members.items()))
        for action in (("--verify", self.package), ("-xf", self.package, "-C", self.folder)):
            with self.subTest(action[0]):
                self.assertEqual(1, self.run_tool("orba-archive", *action).returncode)
                self.assertEqual(0, self.run_tool("orba-archive", *action, "--trust").returncode)

    @unittest.skipUnless("SWAPPED_PACKAGE" in os.environ, "a sanitizer keeps others from being preloaded")
    def test_what_is_unpacked_is_what_was_verified(self):
        """A local user who could write to the package used to change it between two passes over it."""
        self.trust("ca")
        planted = self.top / "planted.opk"
        self.pack(members={name: bytes(len(content)) for name, content in self.members.items()})
        shutil.move(self.package, planted)
        self.pack()
        self.assertEqual(planted.stat().st_size, self.package.stat().st_size)
        done = self.unpack(
            LD_PRELOAD=os.environ["SWAPPED_PACKAGE"], SWAP_PACKAGE=str(self.package), SWAP_WITH=str(planted)
        )
        self.assertEqual((0, "", ""), (done.returncode, done.stdout, done.stderr))
        self.assertTrue((self.top / "package.opk.swapped").exists(), "the package was never read to its end")
        self.assertEqual(planted.read_bytes(), self.package.read_bytes())
        for name, content in self.members.items():
            self.assertEqual(content, (self.folder / name).read_bytes())

    def test_hostile_package_takes_no_memory(self):
        """Each name was kept until the end of the package, where its signature was missed."""
        self.trust("ca")
        name = b"n" * 900_000 + b"\0"
        with self.package.open("wb") as file:
            for number in range(100):
                long_name = tarfile.TarInfo("././@LongLink")
                long_name.type, long_name.size = tarfile.GNUTYPE_LONGNAME, len(name)
                file.write(long_name.tobuf(tarfile.GNU_FORMAT) + name + bytes(-len(name) % 512))
                file.write(tarfile.TarInfo(str(number)).tobuf(tarfile.GNU_FORMAT))
            file.write(bytes(10240))
        for action in (("--verify", self.package), ("-xf", self.package, "-C", self.folder)):
            with self.subTest(action[0]):
                child = subprocess.Popen(
                    [TOOLS / "orba-archive", *action],
                    env={**os.environ, "ORBAMIRA_ROOT": str(self.root)},
                    stdin=subprocess.DEVNULL,
                    stderr=subprocess.PIPE,
                )
                with child:
                    words = child.stderr.read().decode()
                    _, status, usage = os.wait4(child.pid, 0)
                    child.returncode = os.waitstatus_to_exitcode(status)
                self.assertEqual(
                    (1, f"orba-archive: {self.package}: a member's header is too long\n"), (child.returncode, words)
                )
                self.assertLess(usage.ru_maxrss, 64 << 10)

    def test_unsigned_package_is_unpacked_where_there_is_no_keyring(self):
        self.package.write_bytes(tar(self.members.items()))
        self.assert_unpacked()

    def test_signature_counts_for_nothing_where_there_is_no_keyring(self):
        self.pack(signature=b"garbage")
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_unsigned_package_is_refused(self):
        self.trust("ca")
        for members in ([], [("MANIFEST", manifest(self.members))], [("MANIFEST.sig", b"signature")]):
            with self.subTest(members):
                self.package.write_bytes(tar([*members, *self.members.items()]))
                self.assert_refused("not signed", "not_signed")

    def test_order_of_the_members_does_not_matter(self):
        self.trust("ca")
        text = manifest(self.members)
        self.package.write_bytes(tar([*self.members.items(), ("MANIFEST.sig", self.sign(text)), ("MANIFEST", text)]))
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_any_certificate_of_the_keyring_will_do(self):
        self.authority.issue("older", None)
        self.pack()
        for keyring in (("older", "ca"), ("ca", "older"), ("signer",), ("older", "signer")):
            with self.subTest(keyring):
                self.trust(*keyring)
                self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_certificate_in_between_comes_with_the_signature_or_the_keyring(self):
        self.authority.issue("between", "ca", INTERMEDIATE)
        self.authority.issue("signer", "between")
        self.trust("ca")
        self.pack()
        self.assert_signer_refused(words.UNKNOWN_ISSUER)
        self.trust("ca", "between")
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")
        self.trust("ca")
        self.pack(by=("signer", "-certfile", "between.pem"))
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")
        self.trust("between")
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_package_signed_by_another_is_refused(self):
        self.pack()
        self.authority.issue("other", None)
        self.trust("other")
        self.assert_signer_refused(words.UNKNOWN_ISSUER)

    def test_package_signed_by_another_of_the_same_name_is_refused(self):
        self.pack()
        self.authority.issue("ca", None)
        self.trust("ca")
        self.assert_signer_refused(words.UNKNOWN_ISSUER)

    def test_leaf_cannot_sign_for_a_signer_of_its_own(self):
        self.authority.issue("child", "signer")
        self.pack(by=("child", "-certfile", "signer.pem"))
        self.trust("ca")
        self.assert_signer_refused(words.NO_AUTHORITY)

    def test_every_signer_must_be_trusted(self):
        self.authority.issue("other", None)
        self.pack(by=("signer", "-signer", "other.pem", "-inkey", "other.key"))
        self.trust("ca")
        self.assert_signer_refused(words.SELF_SIGNED)
        self.trust("ca", "other")
        self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_expired_certificate_is_refused(self):
        self.authority.issue("signer", "ca", days=-1)
        self.pack()
        self.trust("ca")
        self.assert_signer_refused(words.EXPIRED)

    def test_expired_certificate_is_refused_though_it_is_in_the_keyring(self):
        self.authority.issue("signer", "ca", days=-1)
        self.pack()
        self.trust("signer")
        self.assert_signer_refused(words.EXPIRED)

    def test_certificate_of_the_future_is_refused(self):
        self.authority.issue_for_the_future("signer", "ca")
        self.pack()
        self.trust("ca")
        self.assert_signer_refused(words.NOT_YET_VALID)

    def test_key_that_is_not_for_signatures_is_refused(self):
        self.trust("ca")
        for usage, accepted in (
            ("keyEncipherment", False),
            ("nonRepudiation,keyAgreement", False),
            ("digitalSignature", True),
            ("digitalSignature,keyEncipherment", True),
        ):
            with self.subTest(usage):
                self.authority.issue("signer", "ca", LEAF + f"\nkeyUsage=critical,{usage}")
                self.pack()
                if accepted:
                    self.assert_unpacked("MANIFEST", "MANIFEST.sig")
                else:
                    self.assert_refused(
                        "MANIFEST.sig: the key usage of the signer's certificate has no digitalSignature"
                    )

    def test_weak_key_is_refused(self):
        self.authority.issue("signer", "ca", key=("-newkey", "rsa:1024"))
        self.pack()
        self.trust("ca")
        self.assert_signer_refused(words.WEAK_KEY)

    def test_weak_digest_is_refused(self):
        self.trust("ca")
        for digest in ("sha1", "sha224"):
            with self.subTest(digest):
                self.pack(by=("signer", "-md", digest))
                self.assert_refused("MANIFEST.sig: signed with a weak digest")

    def test_strong_digests_and_keys_will_do(self):
        self.trust("ca")
        for key, digest in ((("-newkey", "rsa:2048"), "sha256"), (("-newkey", "rsa:3072"), "sha512")):
            with self.subTest(key):
                self.authority.issue("signer", "ca", key=key)
                self.pack(by=("signer", "-md", digest))
                self.assert_unpacked("MANIFEST", "MANIFEST.sig")

    def test_message_without_signer_is_refused(self):
        self.trust("ca")
        message = self.authority.openssl("crl2pkcs7", "-nocrl", "-certfile", "signer.pem", "-outform", "DER").stdout
        self.pack(signature=message)
        self.assert_refused("MANIFEST.sig: has no signer")

    def test_message_of_another_kind_is_refused(self):
        self.trust("ca")
        (self.top / "pki/text").write_bytes(manifest(self.members))
        self.pack(signature=self.authority.openssl("cms", "-data_create", "-in", "text", "-outform", "DER").stdout)
        self.assert_refused("MANIFEST.sig: has no signer")

    def test_garbage_for_a_signature_is_refused(self):
        self.trust("ca")
        good = self.sign(manifest(self.members))
        for signature in (b"", b"garbage", good[:-1], good[1:]):
            with self.subTest(signature[:8]):
                self.pack(signature=signature)
                done = self.unpack()
                self.assertEqual(1, done.returncode)
                self.assertIn(f"{self.package}: MANIFEST.sig: ", done.stderr)
                self.assertEqual([], os.listdir(self.folder))
                self.assert_told("bad_signature")

    def test_no_single_bit_of_the_signature_or_manifest_can_change_what_is_accepted(self):
        self.trust("ca")
        text = manifest(self.members)
        good = self.sign(text)
        for number in range(0, 8 * len(good), 97):
            changed = bytearray(good)
            changed[number // 8] ^= 1 << number % 8
            self.pack(signature=bytes(changed))
            # Some bits mean nothing, those of the certificate's own copy of what the store knows better for one.
            with self.subTest(f"bit {number} of the signature"):
                done = self.unpack()
                self.assertIn(done.returncode, (0, 1))
                self.assertEqual(done.returncode == 1, os.listdir(self.folder) == [], done.stderr)
                for path in self.folder.iterdir():
                    path.unlink()
        for number in range(0, 8 * len(text), 41):
            changed = bytearray(text)
            changed[number // 8] ^= 1 << number % 8
            self.pack(signature=good, text=bytes(changed))
            with self.subTest(f"bit {number} of the manifest"):
                self.assert_refused_for("MANIFEST.sig: .+")

    def test_signature_of_another_package_is_refused(self):
        self.trust("ca")
        self.pack(signature=self.sign(manifest({**self.members, "INFO": b'version="1"\n'})))
        self.assert_refused_for("MANIFEST.sig: .+")

    def test_signature_that_carries_another_text_is_refused(self):
        self.trust("ca")
        self.pack(signature=self.sign(manifest({"INFO": b""}), "signer", "-nodetach"))
        self.assert_refused_for("MANIFEST.sig: .+")

    def test_altered_member_is_refused(self):
        self.trust("ca")
        self.pack(members={**self.members, "INFO": b'version="3"\n'})
        self.assert_refused("INFO: does not match MANIFEST")

    def test_member_that_the_manifest_lacks_is_refused(self):
        self.trust("ca")
        for name in ("extra", "./INFO", "./MANIFEST", "MANIFEST.SIG"):
            with self.subTest(name):
                self.pack(members={**self.members, name: b"content"})
                self.assert_refused(f"{name}: not in MANIFEST")

    def test_missing_member_is_refused(self):
        self.trust("ca")
        self.pack(members={"INFO": self.members["INFO"]})
        self.assert_refused("package.tgz: in MANIFEST, but not in the package")

    def test_member_that_is_there_twice_is_refused(self):
        self.trust("ca")
        text = manifest(self.members)
        signed = [("MANIFEST", text), ("MANIFEST.sig", self.sign(text)), *self.members.items()]
        for name, content in dict(signed).items():
            with self.subTest(name):
                self.package.write_bytes(tar([*signed, (name, content)]))
                self.assert_refused(
                    f"{name}: in the package twice", "bad_signature" if name.startswith("MANIFEST") else "bad_package"
                )

    def test_anything_but_files_is_refused(self):
        self.trust("ca")
        text = manifest({**self.members, "link": b""})
        for kind in (tarfile.SYMTYPE, tarfile.LNKTYPE, tarfile.DIRTYPE, tarfile.FIFOTYPE, tarfile.CHRTYPE):
            with self.subTest(kind):
                link = tarfile.TarInfo("link")
                link.type, link.linkname = kind, "INFO"
                self.package.write_bytes(
                    tar([("MANIFEST", text), ("MANIFEST.sig", self.sign(text)), *self.members.items(), (link, b"")])
                )
                name = "link/" if kind == tarfile.DIRTYPE else "link"
                self.assert_refused(f"{name}: a package contains only files at the top level", "bad_package")

    def test_damaged_manifest_is_refused_though_it_is_signed(self):
        self.trust("ca")
        text = manifest(self.members)
        for damaged in (b"garbage\n", text[:-1], text + b"\n", text + text, text.replace(b"  ", b" *")):
            with self.subTest(damaged):
                self.pack(text=damaged)
                self.assert_refused("MANIFEST: damaged")

    def test_sparse_file_is_refused(self):
        self.trust("ca")
        folder = self.top / "sparse"
        folder.mkdir()
        with (folder / "INFO").open("wb") as file:
            file.truncate(1 << 20)
        text = manifest(self.members)
        (folder / "MANIFEST").write_bytes(text)
        (folder / "MANIFEST.sig").write_bytes(self.sign(text))
        for style in ("gnu", "pax"):
            with self.subTest(style):
                command = ["tar", f"--format={style}", "-S", "-cf", self.package, "-C", folder, *os.listdir(folder)]
                subprocess.run(command, check=True)
                self.assert_refused("INFO: a sparse file in a package", "bad_package")

    def test_texts_of_any_length_are_refused(self):
        self.trust("ca")
        for name in ("MANIFEST", "MANIFEST.sig"):
            with self.subTest(name):
                self.package.write_bytes(tar([(name, bytes(LIMIT_OF_TEXTS + 1))]))
                self.assert_refused(f"{name}: longer than {LIMIT_OF_TEXTS} bytes")

    def test_damaged_package_is_refused_before_anything_is_unpacked(self):
        self.trust("ca")
        self.pack()
        whole = self.package.read_bytes()
        self.package.write_bytes(whole[: len(whole) // 2])
        done = self.unpack()
        self.assertEqual(1, done.returncode, done.stderr)
        self.assertEqual([], os.listdir(self.folder))
        self.assert_told("bad_package")

    def test_payload_in_place_of_a_package_is_refused(self):
        self.trust("ca")
        inner = self.top / "inner"
        inner.mkdir()
        (inner / "library").write_bytes(b"planted")
        with tarfile.open(self.package, "w:gz") as archive:
            archive.add(inner / "library", "library")
        self.assert_refused_for(".+", "bad_package")

    def test_payload_needs_no_signature_of_its_own(self):
        self.trust("ca")
        with tarfile.open(self.package, "w:gz") as archive:
            archive.addfile(tarfile.TarInfo("library"))
        self.assertEqual(0, self.unpack("orba-tar").returncode)

    def test_keyring_that_cannot_be_used_accepts_nothing(self):
        self.pack()
        key = (self.top / "pki/ca.key").read_bytes()
        certificate = (self.top / "pki/ca.pem").read_bytes()
        for content, reason in (
            (b"", "contains no certificate"),
            (b"garbage\n", "contains no certificate"),
            (certificate + key, "contains something other than certificates"),
            (certificate[:-40], None),
        ):
            with self.subTest(reason):
                self.keyring.write_bytes(content)
                done = self.unpack()
                self.assertEqual(1, done.returncode)
                self.assertIn(f"orba-archive: {self.package}: {self.keyring}: {reason or ''}", done.stderr)
                self.assertEqual([], os.listdir(self.folder))
                self.assert_told("keyring_unusable")

    def test_keyring_that_everyone_may_write_accepts_nothing(self):
        self.trust("ca")
        self.pack()
        self.keyring.chmod(0o666)
        self.assert_refused(f"{self.keyring}: everyone may write it", "keyring_unusable")

    def test_keyring_that_is_no_file_accepts_nothing(self):
        self.pack()
        with self.subTest("a link to nowhere"):
            self.keyring.symlink_to("nowhere")
            self.assert_refused(f"{self.keyring}: {os.strerror(errno.ENOENT)}", "keyring_unusable")
        with self.subTest("a folder"):
            self.keyring.unlink()
            self.keyring.mkdir()
            done = self.unpack()
            self.assertEqual(1, done.returncode)
            self.assertEqual([], os.listdir(self.folder))
            self.assert_told("keyring_unusable")
        with self.subTest("settings that are a file"):
            shutil.rmtree(self.keyring.parent)
            self.keyring.parent.touch()
            self.assert_refused(f"{self.keyring}: {os.strerror(errno.ENOTDIR)}", "keyring_unusable")


if __name__ == "__main__":
    unittest.main()
