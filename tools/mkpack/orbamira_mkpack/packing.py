"""Makes the package file of a payload folder, signed where a key is given, and puts it in place whole."""

import contextlib
import gzip
import hashlib
import io
import os
import re
import shutil
import stat
import subprocess
import sys
import tarfile
import tempfile

from orbamira_mkpack import manifest, rules
from orbamira_mkpack.progress import Bar

RESERVED_NAMES = {rules.INFO_NAME, rules.PAYLOAD_NAME, *map(rules.marker_of, rules.CODECS)}
RESERVED_PREFIX = "MANIFEST"

GZIP_LEVEL = 9

# File systems that share blocks between files share whole ones. A payload that begins with a block is unpacked there
# without being written again.
BLOCK = 4096


class MkpackError(Exception):
    """What keeps the pack from being published, and what to do about it."""

    def __init__(self, problem, remedy):
        super().__init__(f"{problem}. {remedy}.")


class DigestingWriter:
    """Passes on what is written to a file and keeps its length and SHA-256."""

    def __init__(self, file):
        self._file = file
        self._sha256 = hashlib.sha256()
        self.size = 0

    def write(self, data):
        self._sha256.update(data)
        self.size += len(data)
        return self._file.write(data)

    def hexdigest(self):
        return self._sha256.hexdigest()


def source_date():
    text = os.environ.get("SOURCE_DATE_EPOCH", "0")
    if not re.fullmatch(r"[0-9]{1,10}", text):
        raise MkpackError(
            f"SOURCE_DATE_EPOCH is {text!r}, which is not a number of seconds",
            "Set it to seconds since 1970, or unset it",
        )
    return int(text)


def payload_members(folder, prefix=""):
    """The paths of everything below `folder`, relative to it, in a fixed order: a folder before what is in it."""
    with os.scandir(folder) as entries:
        for entry in sorted(entries, key=lambda found: os.fsencode(found.name)):
            path = prefix + entry.name
            yield path
            if entry.is_dir(follow_symlinks=False):
                yield from payload_members(entry.path, path + "/")


def check_bounds(payload, added):
    """Refuses a payload that no appliance would unpack with `added` more members; returns its files' size in bytes."""
    count, size = added, 0
    for path in payload_members(payload):
        if len(os.fsencode(path)) > rules.MAX_NAME_SIZE:
            raise MkpackError(
                f"{path} in the payload has a name of more than {rules.MAX_NAME_SIZE} bytes", "Give it a shorter one"
            )
        if path.count("/") >= rules.MAX_DEPTH:
            raise MkpackError(
                f"{path} in the payload is more than {rules.MAX_DEPTH} names deep", "Put it into fewer folders"
            )
        count += 1
        if count > rules.MAX_MEMBERS:
            raise MkpackError(
                f"the payload has more than {rules.MAX_MEMBERS} files, folders and links",
                "Leave out what the pack does not need",
            )
        status = os.lstat(os.path.join(payload, path))
        size += status.st_size if stat.S_ISREG(status.st_mode) else 0
        if size > rules.MAX_CONTENT_SIZE:
            raise MkpackError(
                f"the payload's files have more than {rules.MAX_CONTENT_SIZE} bytes",
                "Leave out what the pack does not need",
            )
    return size


def member_info(path, status, mtime):
    info = tarfile.TarInfo(path)
    info.mtime = mtime
    if stat.S_ISDIR(status.st_mode):
        info.type = tarfile.DIRTYPE
        info.mode = 0o755
    elif stat.S_ISLNK(status.st_mode):
        info.type = tarfile.SYMTYPE
        info.mode = 0o777
    elif stat.S_ISREG(status.st_mode):
        info.size = status.st_size
        info.mode = 0o755 if status.st_mode & 0o111 else 0o644
    else:
        raise MkpackError(
            f"{path} in the payload is neither a regular file nor a folder nor a symbolic link", "Remove it"
        )
    return info


def changed(name):
    return MkpackError(
        f"{name} in the payload changed while it was read", "Run mkpack again when nothing writes to the payload"
    )


class DigestingReader:
    """Passes on what is read of a file and keeps its SHA-256."""

    def __init__(self, file):
        self._file = file
        self._sha256 = hashlib.sha256()

    def read(self, size):
        data = self._file.read(size)
        self._sha256.update(data)
        return data

    def hexdigest(self):
        return self._sha256.hexdigest()


def add_file(archive, info, source, bar):
    """Adds the regular file `source`, and returns its SHA-256.

    It must stay as it is meanwhile: a mixture of old and new is no use to anyone.
    """
    with open(os.open(source, os.O_RDONLY | os.O_NOFOLLOW | os.O_CLOEXEC), "rb") as file:
        before = os.fstat(file.fileno())
        info.size = before.st_size
        try:
            reader = DigestingReader(bar.counted(file))
            archive.addfile(info, reader)
        except OSError as error:
            # tarfile's own words for a file that became shorter carry no error number.
            if error.errno is not None:
                raise
            raise changed(info.name) from error
        after = os.fstat(file.fileno())
    if (before.st_size, before.st_mtime_ns) != (after.st_size, after.st_mtime_ns):
        raise changed(info.name)
    return reader.hexdigest()


def add_text(archive, name, text, mtime):
    info = tarfile.TarInfo(name)
    info.mtime = mtime
    info.size = len(text)
    archive.addfile(info, io.BytesIO(text))


def write_payload(payload, codecs, bill, mtime, file, bar):
    """Writes package.tgz: the payload folder's content, the marker of each codec, and the bill of materials if any.

    Returns the bill's text.
    """
    with (
        gzip.GzipFile(filename="", mode="wb", compresslevel=GZIP_LEVEL, fileobj=file, mtime=0) as compressed,
        tarfile.open(fileobj=compressed, mode="w|", format=tarfile.PAX_FORMAT) as archive,
    ):
        for codec in sorted(codecs):
            info = tarfile.TarInfo(rules.marker_of(codec))
            info.mtime = mtime
            archive.addfile(info)
        digests = {}
        for path in payload_members(payload):
            if path in RESERVED_NAMES or path.startswith(RESERVED_PREFIX):
                raise MkpackError(f"{path} in the payload has a name that is reserved in packs", "Rename it")
            source = os.path.join(payload, path)
            info = member_info(path, os.lstat(source), mtime)
            if info.isreg():
                digests[path] = add_file(archive, info, source, bar)
                continue
            if info.issym():
                info.linkname = os.readlink(source)
                if rules.leads_outside(info.linkname, path.count("/")):
                    raise MkpackError(
                        f"{path} in the payload is a link to {info.linkname}, which may lead out of the payload",
                        "Link to a file in the payload, by a relative path",
                    )
            archive.addfile(info)
        if not digests:
            raise MkpackError(
                "the payload contains no file", "Name the folder with the content of the pack by --payload"
            )
        if bill is None:
            return None
        text = bill.text(digests)
        add_text(archive, rules.BILL_NAME, text, mtime)
        return text


def sign(path, key, certificate):
    """The detached CMS signature of the file `path`, whose folder takes what else openssl needs."""
    with open(certificate, "rb") as file:
        certificates = rules.CERTIFICATE_PATTERN.findall(file.read())
    if not certificates:
        raise MkpackError(f"{certificate} contains no certificate", "Name a PEM file with one by --sign-cert")
    command = ["openssl", "cms", "-sign", "-binary", "-in", path, "-signer", certificate, "-inkey", key]
    command += ["-outform", "DER", "-nosmimecap", "-md", "sha256"]
    if certificates[1:]:
        # The signer's own would be there twice, which openssl refuses.
        others = path + ".others"
        with open(others, "wb") as file:
            file.write(b"\n".join(certificates[1:]) + b"\n")
        command += ["-certfile", others]
    try:
        result = subprocess.run(
            command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE, check=False
        )
    except FileNotFoundError:
        raise MkpackError("the program openssl, which signs packages, is not installed", "Install it") from None
    if result.returncode != 0:
        reason = "; ".join(result.stderr.decode("utf-8", "replace").split("\n")).strip("; ")
        raise MkpackError(
            f"cannot sign with the key {key} and the certificate {certificate} ({reason})",
            "See that the key can be read and belongs to the certificate",
        )
    return result.stdout


def signed(members, options, work):
    """`members` with their manifest and its signature before them; `work` is a folder for temporary files."""
    text = manifest.make(members, manifest.facts_of(options))
    path = os.path.join(work, rules.MANIFEST_NAME)
    with open(path, "wb") as file:
        file.write(text)
    signature = sign(path, options.sign_key, options.sign_cert)
    return {rules.MANIFEST_NAME: io.BytesIO(text), rules.SIGNATURE_NAME: io.BytesIO(signature), **members}


def padding(position):
    """Extended headers for a member whose header would begin at `position`: its contents then begin with a block."""
    header = tarfile.BLOCKSIZE
    room = -(position + header) % BLOCK
    if room == 0:
        return {}
    if room == header:  # an extended header takes twice that at least
        room += BLOCK
    length_and_name = 64  # less than what rounds the header up to its size
    return {"comment": " " * (room - header - length_and_name)}


def write_package(members, mtime, file):
    """Writes the package of `members`, files by name, in their order; returns its size and SHA-256."""
    writer = DigestingWriter(file)
    with tarfile.open(fileobj=writer, mode="w|", format=tarfile.PAX_FORMAT) as archive:
        for member, content in members.items():
            info = tarfile.TarInfo(member)
            info.size = content.seek(0, os.SEEK_END)
            info.mtime = mtime
            if member == rules.PAYLOAD_NAME:
                info.pax_headers = padding(archive.offset)
            content.seek(0)
            archive.addfile(info, content)
    return writer.size, writer.hexdigest()


def put_in_place(file, temporary, path):
    """Makes the written `file` at `temporary` the file `path`: on disk, readable by the web server, in one step."""
    file.flush()
    os.fchmod(file.fileno(), 0o644)
    os.fsync(file.fileno())
    os.replace(temporary, path)
    folder = os.open(os.path.dirname(path) or ".", os.O_RDONLY | os.O_DIRECTORY)
    try:
        os.fsync(folder)
    finally:
        os.close(folder)


@contextlib.contextmanager
def work_folder(folder):
    """A folder for unfinished files beside the finished ones, removed with what is in it."""
    os.makedirs(folder, exist_ok=True)
    path = tempfile.mkdtemp(prefix=".mkpack.", dir=folder)
    try:
        yield path
    finally:
        shutil.rmtree(path, ignore_errors=True)


def bill_beside(package):
    """The name of the bill of materials that lies beside the package of this name."""
    return package.removesuffix(".opk") + ".cdx.json"


def put_bill(text, work, path):
    temporary = os.path.join(work, "bill")
    with open(temporary, "wb") as file:
        file.write(text)
        put_in_place(file, temporary, path)


def make_package(options, bill=None):
    """Makes the package file in the output folder, and beside it a copy of the bill of materials if there is one.

    Returns the package's name, its size and its SHA-256.
    """
    mtime = source_date()
    payload_size = check_bounds(options.payload, len(options.codec) + (bill is not None))
    with work_folder(options.output) as work:
        temporary = os.path.join(work, "package.opk")
        with open(os.path.join(work, rules.PAYLOAD_NAME), "w+b") as payload_file, open(temporary, "wb") as file:
            with Bar(payload_size, sys.stderr) as bar:
                bill_text = write_payload(options.payload, options.codec, bill, mtime, payload_file, bar)
            text = f'package="{options.name}"\nversion="{options.version}"\n'
            members = {rules.INFO_NAME: io.BytesIO(text.encode()), rules.PAYLOAD_NAME: payload_file}
            if options.sign_key is not None:
                members = signed(members, options, work)
            size, checksum = write_package(members, mtime, file)
            name = f"{options.name}-{options.version}-{checksum[:rules.DIGITS_IN_NAME]}.opk"
            if bill_text is not None:
                put_bill(bill_text, work, os.path.join(options.output, bill_beside(name)))
            put_in_place(file, temporary, os.path.join(options.output, name))
    return name, size, checksum
