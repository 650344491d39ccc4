"""What a disk holds when its power is cut while it is written to."""

import itertools
import os

import write_log
from crash_images import is_whole, write_part


def cut(log, base, ran, file_system, randomness, since=None):
    """Makes both images what the cut leaves; returns how many writes were in flight, and how many of them it took.

    `base` is the disk as it was when the log began, `ran` has all that was written since. What was flushed stays; of
    what was written after the last flush any choice does, the last of it perhaps torn. Seldom is anything in flight
    when a machine is killed: if nothing is, and the last flush came after the log had the size `since`, the cut comes
    before that flush in half of the cases.
    """
    *flushed, in_flight = write_log.read_log(log)
    if not in_flight and since is not None and log.stat().st_size > since and randomness.random() < 0.5:
        in_flight = flushed.pop()
    parts = write_log.any_choice(in_flight, lambda write: is_whole(file_system, write), randomness)
    with base.open("r+b", buffering=0) as left, ran.open("r+b", buffering=0) as held:
        for write in itertools.chain.from_iterable(flushed):
            os.pwrite(left.fileno(), write.data, write.offset)
        for part in parts:
            write_part(left, in_flight[part.write], part)
        for write in in_flight:
            os.pwrite(held.fileno(), os.pread(left.fileno(), len(write.data), write.offset), write.offset)
    return len(in_flight), len(in_flight) - len(parts)
