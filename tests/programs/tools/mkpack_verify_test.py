"""mkpack verify: a folder as mkpack makes it, with one fault planted in it, and the one finding that tells of it."""

import datetime
import errno
import gzip
import hashlib
import io
import itertools
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import subprocess
import sys
import tarfile
import time
import tracemalloc
import unittest
import unittest.mock

import words
from authority import LEAF, Authority
from verify_test_case import AAC, BASE, HANG, HEVC, MKPACK, PRODUCT, PublishedTest, VerifyTest, info_text, member, tar

sys.path.insert(0, str(MKPACK.parent))
sys.dont_write_bytecode = True
from orbamira_mkpack import archive, package, rules  # noqa: E402

ANY = ".+"


class VerifyWellTest(VerifyTest):
    def test_finds_nothing_in_what_mkpack_published(self):
        (self.payload / "lib/deep").mkdir(parents=True)
        (self.payload / "lib/link").symlink_to("../libdecoder.so.1")
        (self.payload / ("n" * 200)).write_bytes(os.urandom(100_000))
        (self.payload / os.fsdecode(b"not\xffutf8")).write_bytes(b"")
        file = self.publish_both()
        report = self.verify("--base-url", BASE + "/")
        self.assertEqual(([], []), (report["findings"], report["notes"]))
        self.assertEqual(
            {"version": "1.2", "package": file.name, "size": file.stat().st_size, "signed": False},
            report["packs"][HEVC],
        )
        self.assertEqual({HEVC, AAC}, report["packs"].keys())

    def test_says_so_in_a_line(self):
        self.publish_both()
        done = self.run_verify(self.folder)
        self.assertEqual(
            (0, f"{self.folder}: nothing wrong with {HEVC} 1.2, {AAC} 1.2\n", ""),
            (done.returncode, done.stdout, done.stderr),
        )

    def test_changes_nothing(self):
        self.publish_both()
        paths = [self.folder, *self.folder.iterdir()]
        before = [(path, path.stat().st_mtime_ns, path.stat().st_size) for path in paths]
        self.assert_well()
        self.assertEqual(before, [(path, path.stat().st_mtime_ns, path.stat().st_size) for path in paths])
        self.assertEqual(set(paths), {self.folder, *self.folder.iterdir()})

    def test_finds_nothing_in_archives_of_other_programs(self):
        self.publish_both()
        whole = tar(
            [
                ("has_hevc", b""),
                member("lib", tarfile.DIRTYPE),
                member("./lib/", tarfile.DIRTYPE),
                ("lib/a", b"a"),
                member("lib/b", tarfile.LNKTYPE, "lib/a"),
            ]
        )
        self.replace_payload(gzip.compress(whole[:700]) + gzip.compress(whole[700:]))
        self.assert_taken()

    def test_link_may_lead_to_a_folder_below(self):
        file = self.publish_both()
        (self.folder / "old stuff").mkdir()
        file.rename(self.folder / "old stuff" / file.name)
        self.change(link=f"{BASE}/old%20stuff/{file.name}")
        self.assert_well("--base-url", BASE)

    def test_checksum_may_be_sha512_and_in_capitals(self):
        file = self.publish_both()
        self.change(checksum=hashlib.sha512(file.read_bytes()).hexdigest().upper())
        self.assert_well()

    def test_link_that_stays_in_the_folder_is_followed(self):
        file = self.publish_both()
        file.rename(self.folder / "there.opk")
        file.symlink_to("there.opk")
        self.assert_well()

    def test_reply_may_lie_elsewhere(self):
        reply = self.top / "elsewhere.json"
        self.publish(HEVC, "1.2", "--reply", reply)
        self.assert_well("--reply", reply)
        self.assert_finding("reply.json", "reply.json is not there")


class VerifyReplyTest(PublishedTest):
    def assert_reply_refused(self, text, reason):
        self.reply.write_bytes(text)
        self.assert_finding("reply.json", f"no appliance takes the reply, since {reason}")

    def test_that_is_missing(self):
        self.reply.unlink()
        remedy = self.assert_finding("reply.json", "reply.json is not there")
        self.assertEqual("publish a pack here, or name the reply with --reply", remedy)

    def test_that_is_no_json(self):
        self.assert_reply_refused(b"<html>", f"it is not valid JSON: {words.json_error('<html>')}")
        for text in (b"", b"{", b'{"a": NaN}', b"\xef\xbb\xbf{}", b'{"a": "\xff"}', b"[" * 100_000):
            with self.subTest(text[:9]):
                self.reply.write_bytes(text)
                found = self.verify()["findings"]
                self.assertEqual(1, len(found))
                self.assertIn("it is not valid JSON", found[0]["problem"])

    def test_that_is_no_object(self):
        self.assert_reply_refused(b"[]", "it is not a JSON object")

    def test_that_names_something_twice(self):
        self.assert_reply_refused(f'{{"{HEVC}": {{"size": 1, "size": 2}}}}'.encode(), "'size' is in it twice")

    def test_that_is_too_long(self):
        text = self.reply.read_bytes()
        self.reply.write_bytes(text.ljust(1 << 20))
        self.assert_well()
        self.assert_reply_refused(text.ljust((1 << 20) + 1), "it is longer than 1048576 bytes")

    def test_that_names_no_pack(self):
        self.reply.write_text('{"other": {}}')
        self.assert_finding("the reply", f"it names neither {HEVC} nor {AAC}")

    def test_with_members_of_other_types(self):
        digest = "is no SHA-256 or SHA-512, and without one no appliance installs it"
        for values, problem in (
            ({"version": 12}, "its version 12 is none that mkpack gives"),
            ({"version": None}, "its version None is none that mkpack gives"),
            ({"version": "1 2"}, "its version '1 2' is none that mkpack gives"),
            ({"title": ["x"]}, "its title is no text"),
            ({"size": "1"}, "its size '1' is no number of bytes"),
            ({"size": True}, "its size True is no number of bytes"),
            ({"size": -1}, "its size -1 is no number of bytes"),
            ({"size": 1.5}, "its size 1.5 is no number of bytes"),
            ({"checksum": None}, f"its checksum None {digest}"),
            ({"checksum": "abc"}, f"its checksum 'abc' {digest}"),
            ({"checksum": "g" * 64}, f"its checksum '{'g' * 64}' {digest}"),
            ({"link": None}, "its link None is no http or https address"),
            ({"link": 1}, "its link 1 is no http or https address"),
            ({"link": "ftp://h/x.opk"}, "its link 'ftp://h/x.opk' is no http or https address"),
            ({"link": "x.opk"}, "its link 'x.opk' is no http or https address"),
            ({"link": "http://h/a/"}, "its link http://h/a/ names no file"),
            ({"link": "http://h/a/.."}, "its link http://h/a/.. names no file"),
            ({"link": "http://h/a%00b"}, "its link http://h/a%00b names no file"),
        ):
            with self.subTest(values):
                before = self.reply.read_bytes()
                self.change(**values)
                self.assert_finding(HEVC, problem)
                self.reply.write_bytes(before)

    def test_with_a_pack_that_is_no_object(self):
        for value in ("text", [], None, 1):
            with self.subTest(value):
                self.reply.write_text(json.dumps({**self.members(), HEVC: value}))
                self.assert_finding(HEVC, "it is not a JSON object")

    def test_whose_links_lead_elsewhere(self):
        for link in ("https://other.example.com/packs/x.opk", BASE + "x/x.opk", BASE):
            with self.subTest(link):
                self.change(link=link)
                self.assert_finding(HEVC, f"its link {link} is not below {BASE}", "--base-url", BASE)

    def test_whose_links_climb(self):
        link = BASE + "/../secret.opk"
        self.change(link=link)
        self.assert_finding(HEVC, f"its link {link} names no file", "--base-url", BASE)


class VerifyFileTest(PublishedTest):
    def test_that_is_missing(self):
        self.file.unlink()
        remedy = self.assert_finding(HEVC, f"{self.file.name} is not there")
        self.assertEqual(f"put it back into {self.folder}, or publish the pack again", remedy)

    def test_whose_content_changed(self):
        content = bytearray(self.file.read_bytes())
        content[-1] ^= 1
        self.file.write_bytes(content)
        digest = hashlib.sha256(content).hexdigest()
        self.assert_finding(
            HEVC,
            f"{self.file.name} has the SHA256 {digest} and {len(content)} bytes, which is not " "what the reply says",
        )

    def test_that_was_cut(self):
        content = self.file.read_bytes()[:1000]
        self.file.write_bytes(content)
        self.assert_finding(
            HEVC,
            f"{self.file.name} has the SHA256 {hashlib.sha256(content).hexdigest()} and 1000 "
            "bytes, which is not what the reply says",
        )

    def test_whose_sha512_is_another(self):
        self.change(checksum="0" * 128)
        digest = hashlib.sha512(self.file.read_bytes()).hexdigest()
        self.assert_finding(
            HEVC,
            f"{self.file.name} has the SHA512 {digest} and {self.file.stat().st_size} bytes, "
            "which is not what the reply says",
        )

    def test_whose_size_is_another(self):
        size = self.file.stat().st_size
        self.change(size=size + 1)
        self.assert_finding(HEVC, f"{self.file.name} has {size} bytes, and the reply says {size + 1}")

    def test_whose_name_has_another_digest(self):
        other = self.folder / f"{HEVC}-1.2-000000000000.opk"
        self.file.rename(other)
        self.change(link=f"{BASE}/{other.name}")
        digest = self.members()[HEVC]["checksum"]
        self.assert_finding(
            HEVC,
            f"{other.name} says 000000000000 in its name, and its SHA-256 begins with "
            f"{digest[:12]}, so caches may hold other content under this name",
        )

    def test_that_only_some_may_read(self):
        for path, about in ((self.file, HEVC), (self.reply, "reply.json")):
            with self.subTest(about):
                path.chmod(0o640)
                remedy = self.assert_finding(about, f"only some may read {path.name}, so perhaps not the web server")
                self.assertEqual(f"chmod 644 {path}", remedy)
                path.chmod(0o644)

    def test_folder_that_only_some_may_enter(self):
        self.folder.chmod(0o750)
        self.assert_finding(str(self.folder), "only some may enter the folder, so perhaps not the web server")

    def test_link_out_of_the_folder(self):
        outside = self.top / "outside.opk"
        self.file.rename(outside)
        self.file.symlink_to(outside)
        self.assert_finding(HEVC, f"{self.file.name} is a symbolic link that leads out of the folder")

    def test_link_to_itself(self):
        self.file.unlink()
        self.file.symlink_to(self.file.name)
        self.assert_finding(HEVC, f"{self.file.name} is not there")

    def test_that_is_no_regular_file(self):
        for make in (os.mkfifo, os.mkdir):
            with self.subTest(make.__name__):
                self.file.unlink()
                make(self.file)
                self.assert_finding(HEVC, f"{self.file.name} is no regular file")
                self.file.rename(self.top / make.__name__)
                self.file.touch()


class VerifyPackageTest(PublishedTest):
    def setUp(self):
        super().setUp()
        self.good = gzip.compress(tar([("has_hevc", b"")]))

    def test_whose_info_says_another_version(self):
        file = self.replace(tar([("INFO", info_text(version="1.3")), ("package.tgz", self.good)]))
        self.assert_finding(HEVC, f"INFO in {file} says version '1.3', and the reply says '1.2'")

    def test_whose_info_says_another_name(self):
        file = self.replace(tar([("INFO", info_text(name=AAC)), ("package.tgz", self.good)]))
        self.assert_finding(HEVC, f"INFO in {file} says package '{AAC}', and the reply says '{HEVC}'")

    def test_info_is_read_as_appliances_read_it(self):
        text = f'#version="9"\n\nno\n package = "{HEVC}" \r\nversion=1.2\r\nversion="3"\n'.encode()
        self.replace(tar([("INFO", text), ("package.tgz", self.good)]))
        self.assert_well()

    def test_whose_info_is_empty(self):
        file = self.replace(tar([("INFO", b""), ("package.tgz", self.good)]))
        self.assertEqual(
            [
                f"INFO in {file} says package '', and the reply says '{HEVC}'",
                f"INFO in {file} says version '', and the reply says '1.2'",
            ],
            [found["problem"] for found in self.verify()["findings"]],
        )

    def test_without_a_codec_that_its_name_promises(self):
        file = self.replace(tar([("INFO", info_text(AAC)), ("package.tgz", self.good)]), AAC)
        self.assert_finding(AAC, f"the payload of {file} has no has_aac, so appliances do not know that it brings aac")

    def test_with_a_codec_more(self):
        self.replace_payload(tar([("has_hevc", b""), ("has_aac", b"")], "w:gz"))
        self.assert_taken()

    def test_marker_that_is_no_file(self):
        file = self.replace_payload(tar([member("has_hevc", tarfile.DIRTYPE)], "w:gz"))
        self.assert_finding(
            HEVC, f"the payload of {file} has no has_hevc, so appliances do not know that it brings " "hevc"
        )

    def test_without_its_members(self):
        self.assert_refused(tar([("INFO", info_text())]), "there is no package.tgz in it")
        self.assert_refused(tar([("package.tgz", self.good)]), "there is no INFO in it")
        self.assert_refused(b"", "damaged archive: ", words=ANY)
        self.assert_refused(b"\0" * 10240, "empty archive")

    def test_with_members_that_have_no_place(self):
        begin = [("INFO", info_text()), ("package.tgz", self.good)]
        only = "a package contains only files at the top level"
        self.assert_refused(tar([*begin, ("lib/a", b"")]), f"lib/a: {only}")
        self.assert_refused(tar([*begin, member("lib", tarfile.DIRTYPE)]), f"lib: {only}")
        self.assert_refused(tar([*begin, member("a", tarfile.SYMTYPE, "INFO")]), f"a: {only}")
        self.assert_refused(tar([*begin, ("INFO", b"")]), "INFO: there is something of that name already")
        self.assert_refused(
            tar([*begin, *((f"f{n}", b"") for n in range(99))]), "more than 100 members", by_appliances=False
        )
        self.assert_refused(tar([("INFO", b"x" * ((1 << 20) + 1))]), "INFO: longer than 1048576 bytes")

    def test_that_is_damaged(self):
        whole = tar([("INFO", info_text()), ("package.tgz", self.good)])
        end = len(whole.rstrip(b"\0")) + 511 & ~511
        self.assert_refused(whole[: end + 512], "truncated archive")
        self.assert_refused(whole[:1600], "package.tgz: damaged archive: ", words=ANY)
        self.assert_refused(whole + b"x", "damaged, or data after the end of the archive")
        self.assert_refused(whole[:1024] + b"x" + whole[1025:], "damaged, or data after the end of the archive")
        self.assert_refused(b"x" * 10240, "damaged archive: ", words=ANY)

    def test_whose_payload_is_damaged(self):
        whole = tar([("has_hevc", b"")])
        self.assert_payload_refused(b"", "package.tgz: damaged archive: ", words=ANY)
        self.assert_payload_refused(b"no gzip", "package.tgz: damaged gzip data")
        self.assert_payload_refused(self.good[:-1], "package.tgz: truncated gzip data")
        self.assert_payload_refused(self.good + b"\0" * 20, "package.tgz: damaged gzip data")
        self.assert_payload_refused(gzip.compress(whole[:512]), "package.tgz: truncated archive")

    def test_whose_payload_leads_out(self):
        slash = "package.tgz: {}: not a relative name"
        for name, kind, target, reason in (
            ("/etc/x", tarfile.REGTYPE, "", slash.format("/etc/x")),
            ("a/../../x", tarfile.REGTYPE, "", 'package.tgz: a/../../x: a name with ".."'),
            ("a", tarfile.SYMTYPE, "/etc", "package.tgz: a: a symbolic link to /etc, which may lead outside"),
            ("a", tarfile.SYMTYPE, "b/..", "package.tgz: a: a symbolic link to b/.., which may lead outside"),
            ("a/b", tarfile.SYMTYPE, "../..", "package.tgz: a/b: a symbolic link to ../.., which may lead outside"),
            ("a", tarfile.LNKTYPE, "/etc/passwd", slash.format("a")),
            ("a", tarfile.LNKTYPE, "b", "package.tgz: a: a link to b, which is not a file of this archive"),
            ("a", tarfile.CHRTYPE, "", "package.tgz: a: neither a file, a folder nor a link"),
            (".", tarfile.REGTYPE, "", "package.tgz: .: not a name for a file"),
        ):
            with self.subTest(f"{name} {target}"):
                self.assert_payload_refused([member(name, kind, target)], reason)

    def test_whose_payload_goes_through_a_link(self):
        link = member("a", tarfile.SYMTYPE, "b")
        self.assert_payload_refused([link, ("a/x", b"")], "package.tgz: a/x: it lies below what is not a folder")
        self.assert_payload_refused([link, ("a", b"")], "package.tgz: a: there is something of that name already")

    def test_whose_payload_replaces_the_packs_own_files(self):
        self.assert_payload_refused([("INFO", b"")], "package.tgz: INFO: there is something of that name already")

    def test_with_names_beyond_what_appliances_take(self):
        self.assert_payload_refused([("n" * 4097, b"")], f"package.tgz: {'n' * 4097}: a name of more than 4096 bytes")
        deep = "/".join("d" * 129)
        self.assert_payload_refused([(deep, b"")], f"package.tgz: {deep}: more than 128 names deep")

    def test_with_a_name_that_is_not_what_its_header_says(self):
        long = "n" * 150 + "\u00fc"
        payload = tar([("has_hevc", b""), (long, b"")])
        self.replace_payload(gzip.compress(payload))
        self.assert_taken()
        damaged = payload.replace(long.encode(), long.encode()[:-1] + b"\xff")
        self.assert_payload_refused(
            gzip.compress(damaged), f"package.tgz: {'n' * 150}\udcc3\udcff: a name that is not UTF-8"
        )

    def test_that_unpacks_to_too_much(self):
        big = tarfile.TarInfo("big")
        big.size = (16 << 30) + 1
        bomb = gzip.compress(big.tobuf() + b"\0" * 1024)
        self.assert_payload_refused(bomb, "package.tgz: big: unpacks to more than 17179869184 bytes")

    def test_bomb_is_not_held_in_memory(self):
        """256 MiB of zeros: as a file, as a header that says what it has not, behind the end of the archive."""
        zeros = gzip.compress(b"\0" * (16 << 20)) * 16
        limit = 128 << 20
        bound = {"preexec_fn": lambda: resource.setrlimit(resource.RLIMIT_AS, (limit, limit))}
        for name, size, kind, problem in (
            ("f", 1 << 28, tarfile.REGTYPE, "package.tgz: truncated archive"),
            ("f", 1 << 28, tarfile.XHDTYPE, "package.tgz: a member's header is too long"),
            ("f", 1 << 28, tarfile.GNUTYPE_LONGNAME, "package.tgz: a member's header is too long"),
        ):
            with self.subTest(kind):
                info = tarfile.TarInfo(name)
                info.size, info.type = size, kind
                marker = tarfile.TarInfo("has_hevc").tobuf()
                file = self.replace_payload(gzip.compress(marker + info.tobuf()) + zeros)
                self.assert_finding(HEVC, f"appliances refuse {file}: {problem}", **bound)
        self.replace_payload(gzip.compress(tarfile.TarInfo("has_hevc").tobuf()) + zeros)
        self.assertEqual([], self.verify(**bound)["findings"])

    def test_output_does_not_reach_the_terminal_raw(self):
        self.replace_payload(tar([("has_hevc", b""), ("\x1b[2J\n/..", b"")], "w:gz"))
        done = self.run_verify(self.folder)
        self.assertEqual(1, done.returncode)
        self.assertIn("package.tgz: \\x1b[2J\\n/..: a name with", done.stdout)
        self.assertNotIn("\x1b", done.stdout)


class VerifyBoundsTest(unittest.TestCase):
    """Bounds that a test cannot reach in a reasonable time, and damage of every kind."""

    def test_members_are_counted(self):
        content = tar([(f"f{n}", b"") for n in range(4)])
        with unittest.mock.patch.object(rules, "MAX_MEMBERS", 3):
            with self.assertRaisesRegex(archive.Refused, "^more than 3 members$"):
                list(archive.members(iter([content])))

    def test_whole_size_is_bounded(self):
        content = tar([("f", b"")]) + b"\0" * 10240
        with unittest.mock.patch.object(archive, "MAX_ARCHIVE_SIZE", 10240):
            with self.assertRaisesRegex(archive.Refused, "^unpacks to more than 10240 bytes$"):
                list(archive.members(archive.pieces_of(io.BytesIO(content))))

    def assert_little_memory(self, pieces):
        tracemalloc.start()
        self.addCleanup(tracemalloc.stop)
        for _ in archive.members(pieces):
            pass
        self.assertLess(tracemalloc.get_traced_memory()[1], 2 << 20)

    def test_members_are_not_kept(self):
        headers = (tarfile.TarInfo(f"file{number}").tobuf() for number in range(5_000))
        self.assert_little_memory(itertools.chain(headers, [b"\0" * 1024]))

    def test_global_headers_are_not_kept(self):
        def pieces():
            for number in range(300):
                text = f"key{number}=".encode().ljust(20_000, b"x") + b"\n"
                yield tarfile.TarInfo.create_pax_global_header({f"key{number}": text.decode()})
                yield tarfile.TarInfo(f"file{number}").tobuf()
            yield b"\0" * 1024

        self.assert_little_memory(pieces())

    def test_negative_size_is_refused(self):
        info = tarfile.TarInfo("f")
        info.size = -1024
        with self.assertRaisesRegex(archive.Refused, "^damaged (member$|archive: .)"):
            list(archive.members(iter([info.tobuf(tarfile.GNU_FORMAT), b"\0" * 1024])))

    def test_any_damage_is_told(self):
        """The reader ends with a Package or Refused, whatever bytes there are."""
        payload = gzip.compress(tar([("has_hevc", b""), ("n" * 150, b"x" * 600), member("l", tarfile.SYMTYPE, "a")]), 0)
        whole = tar([("INFO", info_text()), ("MANIFEST", b"m"), ("package.tgz", payload)])
        source = random.Random(1)
        refused = 0
        for _ in range(3000):
            content = bytearray(whole)
            for _ in range(source.choice((1, 1, 2, 8))):
                content[source.randrange(len(content))] = source.choice((0, 0x7F, 0x80, 0xFF, source.randrange(256)))
            try:
                package.read(io.BytesIO(content))
            except archive.Refused:
                refused += 1
        self.assertGreater(refused, 300)


class VerifySignatureTest(VerifyTest):
    def setUp(self):
        super().setUp()
        self.authority = Authority(self.top)
        self.keyring = ("--keyring", self.top / "ca.pem")

    def sign(self, name, issuer="ca", **options):
        """The options that sign with a new key."""
        certificate = self.authority.issue(name, issuer, **options)
        return "--sign-key", self.top / f"{name}.key", "--sign-cert", certificate

    def refused(self, file, reason):
        return f"appliances with a keyring refuse {file.name}: {reason}"

    def repack(self, change):
        """Publishes the signed package with its members changed."""
        file = self.publish_both(*self.sign("signer"))
        with tarfile.open(file) as outer:
            members = {info.name: outer.extractfile(info).read() for info in outer}
        change(members)
        return pathlib.Path(self.replace(tar(members.items())))

    def test_finds_nothing_where_the_keyring_trusts_the_signer(self):
        self.publish_both(*self.sign("signer"))
        self.assertTrue(self.verify(*self.keyring)["packs"][HEVC]["signed"])
        self.assert_well(*self.keyring)
        self.assert_well("--keyring", self.top / "signer.pem")
        self.assert_well()

    def test_unsigned_where_a_keyring_is_given(self):
        options = self.sign("signer")
        self.publish(AAC, "1.2", *options)
        file = self.publish()
        remedy = self.assert_finding(
            HEVC, f"{file.name} is not signed, so appliances with a keyring refuse it", *self.keyring
        )
        self.assertEqual("publish the pack again with --sign-key and --sign-cert", remedy)

    def test_mixture_of_signed_and_unsigned(self):
        self.publish(AAC, "1.2", *self.sign("signer"))
        self.publish()
        self.assert_finding(HEVC, "its package is not signed, while another in the reply is")

    def test_expired_signer(self):
        options = self.sign("signer")
        self.publish(AAC, "1.2", *options)
        file = self.publish(HEVC, "1.2", *self.sign("old", days=-1))
        self.assert_finding(HEVC, self.refused(file, ""), *self.keyring, words=words.certificate_error(words.EXPIRED))
        self.assert_well()

    def test_foreign_signer(self):
        self.publish(AAC, "1.2", *self.sign("signer"))
        file = self.publish(HEVC, "1.2", *self.sign("stranger", None))
        self.assert_finding(
            HEVC, self.refused(file, ""), *self.keyring, words=words.certificate_error(words.SELF_SIGNED)
        )

    def test_altered_manifest(self):
        def change(members):
            members["MANIFEST"] = members["MANIFEST"].replace(b"  INFO", b"  INFQ")
            members["INFQ"] = members["INFO"]

        file = self.repack(change)
        problem = self.refused(file, "INFO does not match MANIFEST")
        self.assert_finding(HEVC, problem)

        def resign(members):
            members["MANIFEST"] += f"{hashlib.sha256(b'').hexdigest()}  more\n".encode()
            members["more"] = b""

        file = self.repack(resign)
        self.assert_well()
        self.assert_finding(HEVC, self.refused(file, ""), *self.keyring, words=ANY)

    def test_altered_member(self):
        file = self.repack(lambda members: members.update(INFO=info_text() + b"\n"))
        self.assert_finding(HEVC, self.refused(file, "INFO does not match MANIFEST"))

    def test_altered_payload(self):
        file = self.repack(lambda members: members.update({"package.tgz": gzip.compress(tar([("has_hevc", b"")]))}))
        self.assert_finding(HEVC, self.refused(file, "package.tgz does not match MANIFEST"))

    def test_member_that_is_not_listed(self):
        file = self.repack(lambda members: members.update(more=b""))
        self.assert_finding(HEVC, self.refused(file, "more does not match MANIFEST"))

    def test_listed_member_that_is_missing(self):
        line = f"{hashlib.sha256(b'').hexdigest()}  more\n".encode()
        file = self.repack(lambda members: members.update(MANIFEST=members["MANIFEST"] + line))
        self.assert_finding(HEVC, self.refused(file, "more is in MANIFEST, but not in the package"))

    def test_damaged_manifest(self):
        for text in (b"x\n", b"\n", b"no newline"):
            with self.subTest(text):
                file = self.repack(lambda members, text=text: members.update(MANIFEST=text))
                self.assert_finding(HEVC, self.refused(file, "MANIFEST is damaged"))
                shutil.rmtree(self.folder)

    def test_what_the_manifest_says_of_the_package(self):
        damaged = "MANIFEST is damaged"
        for old, new, reason in (
            (f"product: {PRODUCT}", "product: other-nas", f"it is made for the product other-nas, not for {PRODUCT}"),
            ("version: 1.2", "version: 1.3", "INFO says version '1.2', and MANIFEST '1.3'"),
            (f"pack: {HEVC}", f"pack: {AAC}", f"INFO says package '{HEVC}', and MANIFEST '{AAC}'"),
            ("format: 2", "format: 3", "MANIFEST has the format 3, which this mkpack does not know"),
            ("format: 2", "format: 1", damaged),
            ("format: 2", "no format: 2", damaged),
            ("format: 2", "format:2", damaged),
            ("version: 1.2", "version: 1.2\n# version: 1.2", damaged),
            ("version: 1.2", "version: 1.2\n# expires: 2020-01-01", "it was to be installed until 2020-01-01"),
            ("version: 1.2", "version: 1.2\n# expires: 2099-02-30", damaged),
            ("version: 1.2", "version: 1.2\n# minimum: 1 2", damaged),
            (
                "version: 1.2",
                "version: 1.2\n# minimum: 1.3",
                "MANIFEST names a version that is older than its own minimum",
            ),
        ):
            with self.subTest(new):
                file = self.repack(
                    lambda members, old=old, new=new: members.update(
                        MANIFEST=members["MANIFEST"].replace(f"# {old}\n".encode(), f"# {new}\n".encode())
                    )
                )
                self.assert_finding(HEVC, self.refused(file, reason))
                shutil.rmtree(self.folder)

    def test_last_day_that_is_near(self):
        last = datetime.datetime.now(datetime.timezone.utc).date() + datetime.timedelta(days=20)
        file = self.publish_both(*self.sign("signer"), "--expires", str(last))
        report = self.verify(*self.keyring)
        self.assertEqual([], report["findings"])
        self.assertIn(f"{HEVC}: appliances install {file.name} until {last} only", report["notes"])

    def test_manifest_of_the_older_form(self):
        file = self.publish_both(*self.sign("signer"), "--manifest-format", "1")
        report = self.verify(*self.keyring)
        self.assertEqual([], report["findings"])
        self.assertIn(
            f"{HEVC}: the manifest of {file.name} has format 1, so the signature does not say what the package is, "
            "and appliances that demand format 2 refuse it",
            report["notes"],
        )

    def test_half_a_signature(self):
        for name in ("MANIFEST", "MANIFEST.sig"):
            with self.subTest(name):
                file = self.repack(lambda members, name=name: members.pop(name))
                self.assert_finding(HEVC, self.refused(file, f"there is no {name} in it"))
                shutil.rmtree(self.folder)

    def test_damaged_signature(self):
        file = self.repack(lambda members: members.update({"MANIFEST.sig": members["MANIFEST.sig"][:100]}))
        self.assert_well()
        self.assert_finding(HEVC, self.refused(file, ""), *self.keyring, words=ANY)

    def resign(self, signer, digest):
        """Publishes a package whose signature this signer made with this digest; mkpack itself takes SHA-256."""

        def change(members):
            (self.top / "manifest").write_bytes(members["MANIFEST"])
            self.authority.openssl(
                "cms",
                "-sign",
                "-binary",
                "-in",
                "manifest",
                "-outform",
                "DER",
                "-nosmimecap",
                "-signer",
                f"{signer}.pem",
                "-inkey",
                f"{signer}.key",
                "-md",
                digest,
                "-out",
                "made",
            )
            members["MANIFEST.sig"] = (self.top / "made").read_bytes()

        return self.repack(change)

    def test_digest_of_the_signature(self):
        file = self.resign("signer", "sha1")
        self.assert_finding(HEVC, self.refused(file, "signed with sha1, a weak digest"), *self.keyring)
        shutil.rmtree(self.folder)
        self.sign("rsa", key=("-newkey", "rsa:2048"))
        self.resign("rsa", "sha3-256")
        self.assert_well(*self.keyring)

    def test_weak_key(self):
        self.sign("rsa", key=("-newkey", "rsa:1024"))
        file = self.resign("rsa", "sha256")
        self.assert_finding(HEVC, self.refused(file, ""), *self.keyring, words=words.certificate_error(words.WEAK_KEY))

    def test_key_that_is_not_for_signatures(self):
        self.publish(AAC, "1.2", *self.sign("signer", extension=LEAF + "\nkeyUsage=digitalSignature"))
        file = self.publish(HEVC, "1.2", *self.sign("other", extension=LEAF + "\nkeyUsage=keyEncipherment"))
        reason = "the key usage of the signer's certificate has no digitalSignature"
        self.assert_finding(HEVC, self.refused(file, reason), *self.keyring)

    def test_stopped_run_leaves_nothing_behind(self):
        self.publish_both(*self.sign("signer"))
        temporary, programs = self.top / "temporary", self.top / "programs"
        temporary.mkdir()
        programs.mkdir()
        (programs / "openssl").write_text("#!/bin/sh\nwhile kill -0 $PPID; do sleep 0.1; done\n")
        (programs / "openssl").chmod(0o755)
        environment = {"PATH": f"{programs}:{os.environ['PATH']}", "TMPDIR": str(temporary)}
        with subprocess.Popen([MKPACK, "verify", self.folder, *self.keyring], env=environment) as process:
            deadline = time.monotonic() + HANG
            while not list(temporary.glob("mkpack-*/MANIFEST.sig")):
                self.assertIsNone(process.poll())
                self.assertLess(time.monotonic(), deadline)
                time.sleep(0.01)
            process.send_signal(signal.SIGTERM)
            self.assertEqual(128 + signal.SIGTERM, process.wait(HANG))
        self.assertEqual([], os.listdir(temporary))

    def test_missing_openssl_is_told(self):
        file = self.publish_both(*self.sign("signer"))
        report = self.run_verify(self.folder, *self.keyring, env={"PATH": str(self.top)})
        self.assertEqual(1, report.returncode)
        self.assertIn(self.refused(file, "the signature cannot be checked without the program openssl"), report.stdout)


class VerifyNotesTest(VerifyTest):
    def notes(self):
        report = self.verify()
        self.assertEqual([], report["findings"])
        return report["notes"]

    def test_pack_that_is_not_offered(self):
        self.publish()
        self.assertEqual(
            [f"{AAC} is not offered: appliances that ask for it find nothing new, and log a failed check"], self.notes()
        )

    def test_name_that_nobody_asks_for(self):
        self.publish_both()
        self.reply.write_text(json.dumps({**self.members(), "vendor": {"x": 1}}))
        self.assertEqual(["vendor is in the reply, and no appliance asks for it"], self.notes())

    def test_packages_that_the_reply_names_no_more(self):
        older = self.publish(HEVC, "1.0")
        # The two before the one on offer can be brought back.
        self.publish(HEVC, "1.0.1")
        self.publish(HEVC, "1.1")
        newer = self.publish(HEVC, "1.10")
        self.publish_both("--allow-older")
        (self.folder / "other.opk").write_text("")
        self.assertEqual(
            [
                f"{older.name} is not in the reply: it may go when nobody fetches it any more",
                f"{newer.name} is newer than 1.2, which is offered: appliances that installed it stay with it",
            ],
            self.notes(),
        )

    def test_package_of_a_pack_with_a_fault_is_in_the_reply_all_the_same(self):
        self.publish_both()
        self.change(title=1)
        self.assertEqual([], self.verify()["notes"])

    def test_unfinished_work(self):
        self.publish_both()
        (self.folder / ".mkpack.abc").mkdir()
        self.assertEqual([".mkpack.abc is unfinished work: remove it, unless mkpack is just at work"], self.notes())

    def test_are_printed_as_notes(self):
        self.publish()
        done = self.run_verify(self.folder)
        self.assertEqual(0, done.returncode)
        self.assertTrue(done.stdout.startswith(f"note: {AAC} is not offered"), done.stdout)


class VersionsTest(unittest.TestCase):
    def test_are_ordered_as_appliances_order_them(self):
        ordered = ["0.99.1", "1", "1.0-rc1", "1.9", "1.10", "1.10a", "2-3_4+5", "10000000000000000000000000"]
        for index, left in enumerate(ordered):
            for right in ordered[: index + 1]:
                self.assertFalse(rules.is_newer(left, right), f"{left} {right}")
            for right in ordered[index + 1 :]:
                self.assertTrue(rules.is_newer(left, right), f"{left} {right}")
        for left, right in (("1.0", "1"), ("1.0.0", "1"), ("01.2", "1.02"), ("1-0", "1.0")):
            self.assertFalse(rules.is_newer(left, right) or rules.is_newer(right, left))


class VerifyUsageTest(VerifyTest):
    def assert_usage(self, message, *arguments):
        done = self.run_verify(*arguments)
        self.assertEqual(
            (64, "", f'mkpack verify: {message}. Run "mkpack verify --help" for help.\n'),
            (done.returncode, done.stdout, done.stderr),
        )

    def test_folder_must_be_there(self):
        self.assert_usage("one of FOLDER and --url is needed, and not both")
        self.assert_usage("one of FOLDER and --url is needed, and not both", self.top, "--url", BASE)
        self.assert_usage("argument FOLDER: /no/such is not a folder", "/no/such")

    def test_keyring_must_hold_certificates(self):
        keyring = self.top / "keyring"
        option = self.top, "--keyring", keyring
        self.assert_usage(f"argument --keyring: {keyring}: {os.strerror(errno.ENOENT)}", *option)
        keyring.write_text("")
        self.assert_usage(f"argument --keyring: {keyring}: it contains no certificate", *option)
        authority = Authority(self.top)
        keyring.write_bytes((authority.folder / "ca.pem").read_bytes() + (authority.folder / "ca.key").read_bytes())
        self.assert_usage(f"argument --keyring: {keyring}: it contains something other than certificates", *option)

    def test_address_must_be_one(self):
        message = "argument --base-url: 'x' is no http or https address of a folder"
        self.assert_usage(message, self.top, "--base-url", "x")

    def test_url_must_be_one_and_stands_by_itself(self):
        self.assert_usage("argument --url: 'x' is no http or https address", "--url", "x")
        self.assert_usage(f"argument --url: '{BASE}?a' is no http or https address", "--url", BASE + "?a")
        for option in ("--keyring", "--reply"):
            self.assert_usage("arguments --reply and --keyring: they go with FOLDER", "--url", BASE, option, "x")

    def test_help_teaches(self):
        done = self.run_verify("--help")
        self.assertEqual(0, done.returncode)
        for text in ("--keyring FILE", "what is verified", "what is printed", "example", "exit status"):
            self.assertIn(text, done.stdout)

    def test_program_may_be_called_by_a_link_and_copied_with_its_folder(self):
        self.publish_both()
        copy = self.top / "copy"
        shutil.copytree(MKPACK.parent, copy)
        link = self.top / "mkpack"
        link.symlink_to("copy/mkpack")
        done = subprocess.run([link, "verify", self.folder], cwd="/", capture_output=True, text=True, check=False)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertEqual([], list(copy.rglob("__pycache__")))


if __name__ == "__main__":
    unittest.main()
