"""The payloads: folders of files whose bytes are decided by a seed and pack about as well as real libraries do."""

import itertools
import random
import shutil

MEGABYTE = 1_000_000
# name: (number of files, bytes of each from, to)
KINDS = {"large": (14, 15_500_000, 15_500_000), "many": (5_000, 1 << 10, 64 << 10), "small": (2, MEGABYTE, MEGABYTE)}
_FILES_OF_A_SIZE = 2
_POOL = 4 << 20
_PIECE = 64 << 10


def shape(kind):
    """The shape of a payload by its name, or by its size in MB as a text."""
    if kind in KINDS:
        return KINDS[kind]
    each = round(float(kind) * MEGABYTE / _FILES_OF_A_SIZE)
    return _FILES_OF_A_SIZE, each, each


def code(seed, size):
    """Bytes like those of machine code and tables: phrases of common words, and now and then a value of their own.

    The seed decides the bytes, and nothing about lengths and repetitions: gzip makes 31 % of them whatever it is.
    """
    shape, source = random.Random(0), random.Random(seed)
    words = [source.randbytes(shape.choice((1, 2, 2, 3, 3, 4, 5, 7))) for _ in range(400)]
    often = list(itertools.accumulate(1 / (i + 2) for i in range(len(words))))
    phrases = [b"".join(shape.choices(words, cum_weights=often, k=shape.randint(1, 8))) for _ in range(8000)]
    often = list(itertools.accumulate(1 / (i + 8) for i in range(len(phrases))))
    made = bytearray()
    while len(made) < size:
        text = source.choices(phrases, cum_weights=often, k=4096)
        text[::4] = [source.randbytes(2) + b"\0\0" for _ in text[::4]]
        made += b"".join(text)
    return bytes(made[:size])


class Content:
    """Files of any size out of one pool of code, by pieces larger than the window in which gzip sees a repetition."""

    def __init__(self, seed):
        self.source = random.Random(seed)
        self.pool = code(seed, _POOL)

    def write(self, path, size):
        with path.open("wb") as file:
            while size > 0:
                begin = self.source.randrange(_POOL - _PIECE)
                size -= file.write(self.pool[begin : begin + min(_PIECE, size)])


def make(folder, files, smallest, largest, seed):
    """Fills the new folder with so many files of sizes in between; makes it whole or not at all."""
    unfinished = folder.with_name(folder.name + ".unfinished")
    shutil.rmtree(unfinished, ignore_errors=True)
    content = Content(seed)
    for number in range(files):
        directory = unfinished / "lib" / (f"{number // 100:04}" if files > 100 else "")
        directory.mkdir(parents=True, exist_ok=True)
        content.write(directory / f"libcodec{number:05}.so", content.source.randint(smallest, largest))
    unfinished.rename(folder)
