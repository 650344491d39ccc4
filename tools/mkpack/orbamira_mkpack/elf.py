"""Reads what a shared library calls itself, and which others it needs, from its dynamic section."""

import dataclasses
import mmap
import struct

_MAGIC = b"\x7fELF"
_PROGRAM_HEADER_SIZES = {1: 32, 2: 56}  # by class: of 32 bits, of 64
_LOAD, _DYNAMIC = 1, 2
_END, _NEEDED, _STRINGS, _SONAME = 0, 1, 5, 14


@dataclasses.dataclass
class Names:
    """The library's own name, empty if it has none, and the names of those that it needs."""

    soname: str = ""
    needed: list = dataclasses.field(default_factory=list)


class _File:
    def __init__(self, data):
        self._data = data
        self.wide = data[4] == 2
        self._order = "<" if data[5] == 1 else ">"

    def read(self, form, at):
        return struct.unpack_from(self._order + form, self._data, at)

    def segments(self):
        """Type, offset, address and size of each segment."""
        begin = self.read("Q", 32)[0] if self.wide else self.read("I", 28)[0]
        size, count = self.read("HH", 54 if self.wide else 42)
        if count and size != _PROGRAM_HEADER_SIZES[2 if self.wide else 1]:
            raise ValueError("program headers of an unknown size")
        for at in range(begin, begin + size * count, size):
            if self.wide:
                kind, _, offset, address, _, length = self.read("IIQQQQ", at)
            else:
                kind, offset, address, _, length = self.read("IIIII", at)
            yield kind, offset, address, length

    def text(self, at):
        end = self._data.find(b"\0", at)
        if end < 0:
            raise ValueError("a text without an end")
        return self._data[at:end].decode("utf-8", "replace")


def _entries(file, offset, length):
    size = 16 if file.wide else 8
    for at in range(offset, offset + length - size + 1, size):
        tag, value = file.read("qQ" if file.wide else "iI", at)
        if tag == _END:
            return
        yield tag, value


def _read(data):
    file = _File(data)
    segments = list(file.segments())
    dynamic = [
        entry for kind, offset, _, length in segments if kind == _DYNAMIC for entry in _entries(file, offset, length)
    ]
    addresses = [value for tag, value in dynamic if tag == _STRINGS]
    if not addresses:
        return Names()
    (strings,) = (
        offset + addresses[0] - begin
        for kind, offset, begin, length in segments
        if kind == _LOAD and begin <= addresses[0] < begin + length
    )
    texts = [(tag, file.text(strings + value)) for tag, value in dynamic if tag in (_NEEDED, _SONAME)]
    sonames = [text for tag, text in texts if tag == _SONAME]
    return Names(sonames[0] if sonames else "", [text for tag, text in texts if tag == _NEEDED])


def names(file):
    """What the open file says. Empty for one that is no ELF file; raises ValueError for a damaged one."""
    if file.read(len(_MAGIC)) != _MAGIC:
        return Names()
    with mmap.mmap(file.fileno(), 0, access=mmap.ACCESS_READ) as data:
        try:
            return _read(data)
        except (ArithmeticError, IndexError, ValueError, struct.error):
            raise ValueError("damaged ELF file") from None
