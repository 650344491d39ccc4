"""Looks into a package as an appliance does that unpacks it, without writing anything."""

import dataclasses
import hashlib

from orbamira_mkpack import archive, rules
from orbamira_mkpack.archive import Refused

# What is read into memory of a member; an honest text has a few hundred bytes.
MAX_TEXT = 1 << 20
# Of the outer archive; an honest package has four at most.
MAX_OUTER_MEMBERS = 100
_TEXTS = (rules.INFO_NAME, rules.MANIFEST_NAME, rules.SIGNATURE_NAME)


@dataclasses.dataclass
class Package:
    """What a package holds: its texts and the SHA-256 of each member by name, and the codecs of its payload."""

    texts: dict = dataclasses.field(default_factory=dict)
    digests: dict = dataclasses.field(default_factory=dict)
    codecs: list = dataclasses.field(default_factory=list)

    @property
    def signed(self):
        return rules.MANIFEST_NAME in self.digests or rules.SIGNATURE_NAME in self.digests

    def info(self, key):
        """The value that INFO gives the key; empty when it gives none."""
        for line in self.texts[rules.INFO_NAME].decode("utf-8", "surrogateescape").split("\n"):
            name, equals, value = line.removesuffix("\r").partition("=")
            if equals and not line.startswith("#") and name.strip(" \t") == key:
                value = value.strip(" \t")
                return value[1:-1] if len(value) > 1 and value[0] == value[-1] == '"' else value
        return ""


class _Folder:
    """What is where in the folder that a pack is unpacked into.

    Paths are kept by their hashes: a hostile archive may have a million names of 4096 bytes.
    """

    def __init__(self):
        self._types = {}
        self._parent = None  # the folder of the member before, which is looked at once

    def place(self, name, kind):
        """Takes in what has the kind "file", "folder" or "link"."""
        parts = _parts(name)
        if not parts:
            if kind == "folder":
                return
            raise Refused("not a name for a file")
        if parts[:-1] != self._parent:
            for count in range(1, len(parts)):
                if self._types.setdefault(_key(parts[:count]), "folder") != "folder":
                    raise Refused("it lies below what is not a folder")
            self._parent = parts[:-1]
        self.put(parts, kind)

    def put(self, parts, kind):
        there = self._types.get(_key(parts))
        # A folder may be named again; nothing else takes the place of anything.
        if there and (there, kind) != ("folder", "folder"):
            raise Refused("there is something of that name already")
        self._types[_key(parts)] = kind

    def is_file(self, name):
        return self._types.get(_key(_parts(name))) == "file"


def _parts(name):
    """What stands between the slashes. Refuses names that lead out of the folder and those that only do harm."""
    if not name or name.startswith("/"):
        raise Refused("not a relative name")
    if len(name.encode("utf-8", "surrogateescape")) > rules.MAX_NAME_SIZE:
        raise Refused(f"a name of more than {rules.MAX_NAME_SIZE} bytes")
    parts = [part for part in name.split("/") if part not in ("", ".")]
    if len(parts) > rules.MAX_DEPTH:
        raise Refused(f"more than {rules.MAX_DEPTH} names deep")
    if ".." in parts:
        raise Refused('a name with ".."')
    return parts


def _key(parts):
    return hash("/".join(parts))


def _place(folder, info):
    """What an appliance would do with this member."""
    if info.isreg():
        folder.place(info.name, "file")
    elif info.isdir():
        folder.place(info.name, "folder")
    elif info.issym():
        folder.place(info.name, "link")
        if rules.leads_outside(info.linkname, len(_parts(info.name)) - 1):
            raise Refused(f"a symbolic link to {info.linkname}, which may lead outside")
    elif info.islnk():
        if not folder.is_file(info.linkname):
            raise Refused(f"a link to {info.linkname}, which is not a file of this archive")
        folder.place(info.name, "file")
    else:
        raise Refused("neither a file, a folder nor a link")


def _place_named(folder, info):
    try:
        _place(folder, info)
    except Refused as error:
        raise Refused(f"{info.name}: {error}") from None


def _read_payload(pieces, folder):
    """The codecs of the payload, which is unpacked beside the package's own members."""
    try:
        for info, _ in archive.members(archive.inflated(pieces)):
            _place_named(folder, info)
    except Refused as error:
        raise Refused(f"{rules.PAYLOAD_NAME}: {error}") from None
    return [codec for codec in rules.CODECS if folder.is_file(rules.marker_of(codec))]


def _digested(pieces, digest):
    for piece in pieces:
        digest.update(piece)
        yield piece


def _read_member(name, pieces, package, folder):
    if name == rules.PAYLOAD_NAME:
        package.codecs = _read_payload(pieces, folder)
    elif name in _TEXTS:
        package.texts[name] = b"".join(pieces)
    else:
        for _ in pieces:
            pass


def read(file):
    """What the package in the open file holds. Raises Refused when an appliance would not unpack it."""
    package, folder = Package(), _Folder()
    for info, content in archive.members(archive.pieces_of(file)):
        if not content or "/" in info.name:
            raise Refused(f"{info.name}: a package contains only files at the top level")
        _place_named(folder, info)
        if info.name in _TEXTS and info.size > MAX_TEXT:
            raise Refused(f"{info.name}: longer than {MAX_TEXT} bytes")
        if len(package.digests) == MAX_OUTER_MEMBERS:
            raise Refused(f"more than {MAX_OUTER_MEMBERS} members")
        digest = hashlib.sha256()
        _read_member(info.name, _digested(archive.pieces_of(content), digest), package, folder)
        package.digests[info.name] = digest.hexdigest()
    for name in (rules.INFO_NAME, rules.PAYLOAD_NAME):
        if name not in package.digests:
            raise Refused(f"there is no {name} in it")
    return package
