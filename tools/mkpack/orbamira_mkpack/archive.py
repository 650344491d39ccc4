"""Reads tar archives that nobody vouches for: strictly, within bounds, in little memory."""

import tarfile
import zlib

from orbamira_mkpack import rules

PIECE = 16 << 10

# Long names and extended headers fit many times over. What does not fit is made to fill the memory.
MAX_HEADER = 2 << 20
# Files, and a header for each of the members.
MAX_ARCHIVE_SIZE = 2 * rules.MAX_CONTENT_SIZE
END_MARK = 2 * tarfile.BLOCKSIZE

# tarfile says by many an exception that an archive is damaged.
_DAMAGED = (tarfile.TarError, ArithmeticError, LookupError, ValueError, RecursionError, EOFError)


class Refused(Exception):
    """What keeps an appliance from taking a package, in words."""


def pieces_of(file):
    """What is left of the file."""
    return iter(lambda: file.read(PIECE), b"")


def inflated(pieces):
    """What the gzip members in a row hold. Nothing else may follow them."""
    decoder = None
    try:
        for piece in pieces:
            while piece:
                decoder = decoder or zlib.decompressobj(wbits=16 + zlib.MAX_WBITS)
                data = decoder.decompress(piece, PIECE)
                if data:
                    yield data
                piece = decoder.unused_data if decoder.eof else decoder.unconsumed_tail
                decoder = None if decoder.eof else decoder
        if decoder and (data := decoder.flush()):
            yield data
    except zlib.error:
        raise Refused("damaged gzip data") from None
    if decoder and not decoder.eof:
        raise Refused("truncated gzip data")


class _Source:
    """The file that tarfile reads. It keeps what tarfile does not: how long headers are, and what is at the end."""

    def __init__(self, pieces):
        self._pieces = pieces
        self._fed = 0
        self._end_of_data = 0  # where the last byte that is not zero ended
        self._header_end = MAX_HEADER

    def read(self, _size=None):
        """The next bytes, as many as there happen to be; none at the end."""
        if self._fed >= self._header_end:
            raise Refused("a member's header is too long")
        piece = next(self._pieces, b"")
        data = piece.rstrip(b"\0")
        if data:
            self._end_of_data = self._fed + len(data)
        self._fed += len(piece)
        if self._fed > MAX_ARCHIVE_SIZE:
            raise Refused(f"unpacks to more than {MAX_ARCHIVE_SIZE} bytes")
        return piece

    def expect_header(self):
        self._header_end = self._fed + MAX_HEADER

    def expect_content(self):
        self._header_end = MAX_ARCHIVE_SIZE + 1

    def check_end(self, end):
        """Reads the rest; `end` is where the members ended. tarfile takes a damaged header for the archive's end."""
        self.expect_content()
        while self.read():
            pass
        if self._end_of_data > end:
            raise Refused("damaged, or data after the end of the archive")
        if self._fed < end + END_MARK:
            raise Refused("truncated archive")


def _check_names(info):
    """Refuses names in an extended header that are not UTF-8 and do not say so."""
    for key, text in (("path", info.name), ("linkpath", info.linkname)):
        if key in info.pax_headers and info.pax_headers.get("hdrcharset") != "BINARY" and not _is_utf8(text):
            raise Refused(f"{text}: a name that is not UTF-8")


def _is_utf8(text):
    """Whether the text, as tarfile has it, came from UTF-8."""
    return not any("\ud800" <= sign <= "\udfff" for sign in text)


def members(pieces):
    """Yields each member of the archive and its content, a file for those that have some, to be read at once.

    Raises Refused when the archive is damaged, cut or beyond the bounds.
    """
    source = _Source(pieces)
    count = size = 0
    try:
        with tarfile.open(fileobj=source, mode="r|", bufsize=PIECE, encoding="utf-8") as archive:
            while (info := archive.next()) is not None:
                # tarfile would keep them all.
                archive.members.clear()
                archive.pax_headers.clear()
                if info.size < 0:
                    raise Refused("damaged member")
                count += 1
                size += info.size
                if count > rules.MAX_MEMBERS:
                    raise Refused(f"more than {rules.MAX_MEMBERS} members")
                if size > rules.MAX_CONTENT_SIZE:
                    raise Refused(f"{info.name}: unpacks to more than {rules.MAX_CONTENT_SIZE} bytes")
                _check_names(info)
                source.expect_content()
                content = archive.extractfile(info) if info.isreg() else None
                yield info, content
                while content and content.read(PIECE):
                    pass
                source.expect_header()
            source.check_end(archive.offset)
            if count == 0:
                raise Refused("empty archive")
    except _DAMAGED as error:
        raise Refused(f"damaged archive: {error}") from error
