"""Verifies a published folder: what appliances would meet, and what only its publisher sees."""

import datetime
import errno
import hashlib
import os
import re
import stat

from orbamira_mkpack import archive, manifest, package, reply, rules, signature
from orbamira_mkpack.reply import PUBLISH_AGAIN
from orbamira_mkpack.reply_file import replies_beside, text_of
from orbamira_mkpack.report import Report

REPLY_NAME = "reply.json"
_WRITE_ANEW = "run mkpack rollout for a release with the share that it has"
_WORK_PREFIX = ".mkpack."
_SOON = datetime.timedelta(days=30)
_PACK_PATTERN = "|".join(map(re.escape, rules.CODECS_OF_PACK))
_PACKAGE_PATTERN = re.compile(
    rf"({_PACK_PATTERN})-({rules.VERSION_PATTERN.pattern})-([0-9a-f]{{{rules.DIGITS_IN_NAME}}})\.opk"
)


class Folder:
    """A published folder, whose reply may lie elsewhere."""

    def __init__(self, path, reply_path=None, base_url=None, keyring=None):
        self._path = path
        self._reply_path = reply_path or os.path.join(path, REPLY_NAME)
        self._base_url = base_url
        self._keyring = keyring
        self._named = set()  # packages that the reply names, right or wrong
        self._report = Report()

    def verify(self):
        if not os.stat(self._path).st_mode & stat.S_IXOTH:
            self._report.found(
                self._path, "only some may enter the folder, so perhaps not the web server", f"chmod 755 {self._path}"
            )
        members = self._read_reply()
        if members is not None:
            self._named = reply.named_paths(members, self._base_url)
            for name, about, offer in reply.judge(members, self._base_url, self._report):
                self._verify_pack(name, about, offer)
            if not self._report.names_with_findings():
                self._verify_others(members)
            self._compare_signatures()
        self._note_others()
        return self._report

    def _open(self, path, about, missing):
        """Opens a regular file that the web server can read; None when there is none. `missing` is the remedy then."""
        try:
            descriptor = os.open(path, os.O_RDONLY | os.O_NONBLOCK | os.O_CLOEXEC)
        except OSError as error:
            absent = error.errno in (errno.ENOENT, errno.ENOTDIR, errno.ELOOP)
            problem = "is not there" if absent else f"cannot be read: {error.strerror}"
            remedy = missing if absent else f"chmod 644 {path}"
            self._report.found(about, f"{os.path.basename(path)} {problem}", remedy)
            return None
        mode = os.fstat(descriptor).st_mode
        if not stat.S_ISREG(mode):
            os.close(descriptor)
            self._report.found(about, f"{os.path.basename(path)} is no regular file", missing)
            return None
        if not mode & stat.S_IROTH:
            self._report.found(
                about,
                f"only some may read {os.path.basename(path)}, so perhaps not the web server",
                f"chmod 644 {path}",
            )
        return open(descriptor, "rb")

    def _read_reply(self):
        file = self._open(self._reply_path, REPLY_NAME, "publish a pack here, or name the reply with --reply")
        if not file:
            return None
        with file:
            text = file.read(reply.MAX_SIZE + 1)
        try:
            return reply.parse(text)
        except reply.ReplyError as error:
            self._report.found(
                REPLY_NAME, f"no appliance takes the reply, since {error}", "move it away and publish the packs again"
            )
            return None

    def _verify_pack(self, name, about, member):
        relative = reply.path_of(member["link"], self._base_url)
        path = os.path.join(self._path, relative)
        top = os.path.realpath(self._path)
        if os.path.commonpath([top, os.path.realpath(path)]) != top:
            self._report.found(
                about, f"{relative} is a symbolic link that leads out of the folder", "put the file itself there"
            )
            return
        file = self._open(path, about, f"put it back into {self._path}, or publish the pack again")
        if not file:
            return
        with file:
            if not self._verify_file(about, member, relative, file):
                return
            file.seek(0)
            self._verify_content(name, about, member, relative, file)

    def _verify_file(self, about, member, relative, file):
        """Whether the file is the one that the reply means."""
        sha256, size = hashlib.sha256(), 0
        checksum = sha256 if len(member["checksum"]) == 2 * sha256.digest_size else hashlib.sha512()
        for piece in archive.pieces_of(file):
            size += len(piece)
            sha256.update(piece)
            if checksum is not sha256:
                checksum.update(piece)
        if checksum.hexdigest() != member["checksum"].lower():
            self._report.found(
                about,
                f"{relative} has the {checksum.name.upper()} {checksum.hexdigest()} and {size} "
                "bytes, which is not what the reply says",
                "put the right file back, or " + PUBLISH_AGAIN,
            )
            return False
        if member.get("size", size) != size:
            self._report.found(
                about, f"{relative} has {size} bytes, and the reply says {member['size']}", PUBLISH_AGAIN
            )
        named = _PACKAGE_PATTERN.fullmatch(os.path.basename(relative))
        if named and not sha256.hexdigest().startswith(named[3]):
            self._report.found(
                about,
                f"{relative} says {named[3]} in its name, and its SHA-256 begins with "
                f"{sha256.hexdigest()[:rules.DIGITS_IN_NAME]}, so caches may hold other content under "
                "this name",
                PUBLISH_AGAIN,
            )
        self._report.packs[about] = {"version": member["version"], "package": relative, "size": size, "signed": False}
        self._report.packs[about] |= {key: member[key] for key in ("rollout", "channel") if key in member}
        return True

    def _verify_content(self, name, about, member, relative, file):
        try:
            content = package.read(file)
        except archive.Refused as error:
            self._report.found(
                about, f"appliances refuse {relative}: {error}", "make the package with mkpack, and publish it"
            )
            return
        self._report.packs[about]["signed"] = content.signed
        for key, value in (("package", name), ("version", member["version"])):
            if content.info(key) != value:
                self._report.found(
                    about,
                    f"INFO in {relative} says {key} {content.info(key)!r}, and the reply says " f"{value!r}",
                    PUBLISH_AGAIN,
                )
        for codec in rules.CODECS_OF_PACK[name]:
            if codec not in content.codecs:
                self._report.found(
                    about,
                    f"the payload of {relative} has no {rules.marker_of(codec)}, so appliances do "
                    f"not know that it brings {codec}",
                    PUBLISH_AGAIN,
                )
        self._verify_signature(about, relative, content)

    def _verify_signature(self, about, relative, content):
        if not content.signed:
            if self._keyring:
                self._report.found(
                    about,
                    f"{relative} is not signed, so appliances with a keyring refuse it",
                    "publish the pack again with --sign-key and --sign-cert",
                )
            return
        try:
            facts = signature.check_manifest(content)
            if self._keyring:
                signature.check_signature(content, self._keyring)
            self._note_facts(about, relative, facts)
        except archive.Refused as error:
            self._report.found(
                about,
                f"appliances with a keyring refuse {relative}: {error}",
                "sign the pack with a key whose certificate the keyring trusts now, and publish it",
            )

    def _verify_others(self, members):
        """The replies for some appliances, which mkpack writes beside the reply."""
        folder = os.path.dirname(self._reply_path) or "."
        for name, content in replies_beside(self._reply_path, members).items():
            path = os.path.join(folder, name)
            file = self._open(path, name, _WRITE_ANEW)
            if not file:
                continue
            with file:
                if file.read(reply.MAX_SIZE + 1) != text_of(content).encode():
                    self._report.found(name, "it does not go with the reply", _WRITE_ANEW)
        for name, member in members.items():
            for former in member.get("former", []) if name in rules.CODECS_OF_PACK else []:
                if not os.path.isfile(os.path.join(self._path, reply.path_of(former["link"], self._base_url))):
                    self._report.notes.append(
                        f"the package of {name} {former['version']} has gone, so mkpack withdraw cannot bring it back"
                    )

    def _note_facts(self, about, relative, facts):
        if not facts:
            self._report.notes.append(
                f"{about}: the manifest of {relative} has format 1, so the signature does not say what the package is, "
                "and appliances that demand format 2 refuse it"
            )
        last = manifest.last_day(facts)
        if last and last - manifest.today() < _SOON:
            self._report.notes.append(f"{about}: appliances install {relative} until {last} only")

    def _compare_signatures(self):
        """With a keyring each unsigned package has been found already."""
        unsigned = [name for name, pack in self._report.packs.items() if not pack["signed"]]
        if not self._keyring and len(unsigned) < len(self._report.packs):
            for name in unsigned:
                self._report.found(
                    name,
                    "its package is not signed, while another in the reply is",
                    "publish the pack again with --sign-key and --sign-cert",
                )

    def _note_others(self):
        with os.scandir(self._path) as entries:
            names = sorted(entry.name for entry in entries)
        for name in names:
            if name.startswith(_WORK_PREFIX):
                self._report.notes.append(f"{name} is unfinished work: remove it, unless mkpack is just at work")
            match = _PACKAGE_PATTERN.fullmatch(name)
            if match and name not in self._named:
                self._note_package(name, match)

    def _note_package(self, name, match):
        offered = self._report.packs.get(match[1])
        if offered and rules.is_newer(offered["version"], match[2]):
            self._report.notes.append(
                f"{name} is newer than {offered['version']}, which is offered: appliances that "
                "installed it stay with it"
            )
        else:
            self._report.notes.append(f"{name} is not in the reply: it may go when nobody fetches it any more")
