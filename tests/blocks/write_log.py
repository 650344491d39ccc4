"""The log of a recorded device, and the images that a power cut may leave of it.

A device owes the bytes of what was written before a flush, and of what was written after it any choice: between two
flushes the writes are in flight. An order in which they reach the disk, and the instant of the cut, come to a subset
of them; where two of them overlap, the later one is newer in every order that a device may choose. The last one to
reach the disk may be torn: only some of its sectors are new.
"""

import dataclasses
import functools
import hashlib
import operator
import struct

SECTOR = 512
TEARS = 24  # of a write that is long enough, at most
FRUITLESS = 200  # choices in a row that give no new image; an epoch that has so many has no more to give
_ENTRY = struct.Struct("=QQ")
_FLUSH = 2**64 - 1


@dataclasses.dataclass(frozen=True)
class Write:
    offset: int
    data: bytes

    @functools.cached_property
    def sectors(self):
        """The digest of each sector, with its place."""
        found = []
        for at in range(0, len(self.data), SECTOR):
            number = (self.offset + at) // SECTOR
            found.append((number, digest(number, self.data[at : at + SECTOR])))
        return found


def digest(number, data):
    """What a sector contributes to the digest of an image, which is the XOR of all of them."""
    return int.from_bytes(hashlib.blake2b(data, digest_size=16, salt=number.to_bytes(8, "little")).digest(), "little")


@dataclasses.dataclass(frozen=True)
class Part:
    """Of a write in flight, the sectors from `begin` to `end` reached the disk."""

    write: int
    begin: int
    end: int


def read_log(path):
    """The writes, in lists that end with a flush (the last one with the end of the log)."""
    epochs, data, at = [[]], path.read_bytes(), 0
    while at < len(data):
        offset, length = _ENTRY.unpack_from(data, at)
        at += _ENTRY.size
        if offset == _FLUSH:
            epochs.append([])
            continue
        if offset % SECTOR or length % SECTOR:
            raise ValueError("the device was not written in sectors")
        epochs[-1].append(Write(offset, data[at : at + length]))
        at += length
    if at != len(data):
        raise ValueError("the log ends in the middle of an entry")
    return epochs


def choices(writes, whole, randomness):
    """Without end, what of the writes in flight reaches the disk, as lists of parts.

    First nothing at all; then, by turns, what reaches it in the order of the log, each torn in turn; all but one, or
    only one; and any number of them in any order. `whole` tells of a write whether it is never torn.
    """
    yield []
    full = _full(writes)
    if not full:
        return
    kinds = [_in_order(writes, full, whole, randomness), _one(full, randomness)]
    while True:
        for kind in kinds:
            part = next(kind, None)
            if part is not None:
                yield part
        yield _in_any_order(writes, full, whole, randomness)


def _full(writes):
    return [Part(number, 0, len(write.sectors)) for number, write in enumerate(writes)]


def _tears(write, part, randomness):
    """The part torn at each of its sectors, or at as many of them as are enough."""
    cuts = range(1, part.end)
    for cut in sorted(randomness.sample(cuts, min(TEARS, len(cuts)))):
        yield Part(part.write, 0, cut)


def _in_order(writes, full, whole, randomness):
    for number, part in enumerate(full):
        if number > 0:
            yield full[:number]
        if not whole(writes[number]):
            for torn in _tears(writes[number], part, randomness):
                yield [*full[:number], torn]


def _one(full, randomness):
    for number in randomness.sample(range(len(full)), len(full)):
        yield full[:number] + full[number + 1 :]
        yield [full[number]]


def _in_any_order(writes, full, whole, randomness):
    chosen = randomness.sample(full, randomness.randint(1, len(full)))
    last = chosen[-1]
    if last.end > 1 and not whole(writes[last.write]) and randomness.random() < 0.5:
        cut = randomness.randrange(1, last.end)
        chosen[-1] = Part(last.write, 0, cut) if randomness.random() < 0.5 else Part(last.write, cut, last.end)
    return sorted(chosen, key=operator.attrgetter("write"))


def any_choice(writes, whole, randomness):
    """Some of the writes in flight, or nothing."""
    return _in_any_order(writes, _full(writes), whole, randomness) if writes and randomness.random() < 0.9 else []


class Epoch:
    """The writes between two flushes, and of the sectors that they write the digests before."""

    def __init__(self, writes, image, sectors):
        self.writes, self.image = writes, image
        self.before = {number: sectors[number] for write in writes for number, _ in write.sectors}

    def digest(self, parts):
        """The digest of the image that has these parts."""
        new = {}
        for part in parts:
            new.update(self.writes[part.write].sectors[part.begin : part.end])
        return functools.reduce(
            operator.xor, (self.before[number] ^ value for number, value in new.items()), self.image
        )


def epochs_of(log, read):
    """The epochs; `read` gives a sector as it was before the log began."""
    epochs, sectors, image = [], {}, 0
    for writes in log:
        for number in {number for write in writes for number, _ in write.sectors} - sectors.keys():
            sectors[number] = digest(number, read(number))
        epochs.append(Epoch(writes, image, sectors))
        image = epochs[-1].digest(_full(writes))
        sectors.update(pair for write in writes for pair in write.sectors)
    return epochs


def plan(epochs, count, whole, randomness):
    """Up to `count` distinct images, taken from the epochs by turns: for each epoch a list of lists of parts."""
    seen = set()
    planned = [[] for _ in epochs]
    turns = [(into, _distinct(epoch, whole, randomness, seen)) for epoch, into in zip(epochs, planned)]
    randomness.shuffle(turns)
    while turns and len(seen) < count:
        left = []
        for into, images in turns:
            parts = next(images, None) if len(seen) < count else None
            if parts is not None:
                into.append(parts)
                left.append((into, images))
        turns = left
    return planned


def _distinct(epoch, whole, randomness, seen):
    """Choices whose images were not seen, until one after the other was."""
    fruitless = 0
    for parts in choices(epoch.writes, whole, randomness):
        image = epoch.digest(parts)
        if image not in seen:
            seen.add(image)
            fruitless = 0
            yield parts
        else:
            fruitless += 1
        if fruitless > FRUITLESS or not epoch.writes:
            return
