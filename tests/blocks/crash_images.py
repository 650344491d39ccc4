"""Images of a disk as a power cut may leave it, from the log of what a program did to it."""

import contextlib
import functools
import itertools
import os
import random
import shutil
import struct
import threading

import disk
import write_log

# Blocks that the file system itself takes for whole: no kernel mounts one that was torn. The superblocks are written in
# place; a commit block of ext4's journal is written over an older block, and its checksum is of all of it.
_SUPERBLOCKS = {"ext4": (0,), "xfs": (), "btrfs": (64 << 10, 64 << 20)}
_BLOCK = 4096
_COMMIT = struct.pack(">II", 0xC03B3998, 2)  # JBD2_MAGIC_NUMBER and JBD2_COMMIT_BLOCK of the kernel


class OtherProgram:
    """A program that syncs a file of its own again and again, while it is entered.

    So the file system writes what others changed at any instant: ext4 and xfs the journal with all earlier changes, but
    not the contents of other files. btrfs does so when all is synced.
    """

    NAME = "of-another-program"

    def __init__(self, folder, file_system):
        self.sync = disk.sync_all if file_system == "btrfs" else os.fsync
        self.file = folder / self.NAME
        self.ended = threading.Event()
        self.thread = threading.Thread(target=self._run)

    def __enter__(self):
        self.thread.start()

    def __exit__(self, *_):
        self.ended.set()
        self.thread.join()

    def _run(self):
        with self.file.open("r+b") as file:
            for number in itertools.takewhile(lambda _: not self.ended.is_set(), itertools.count(1)):
                os.utime(file.fileno(), ns=(number, number))  # something to sync, that no tree shows
                self.sync(file.fileno())


def is_whole(file_system, write):
    """Whether the write is of a block that is never torn."""
    if file_system == "ext4" and write.data.startswith(_COMMIT):
        return True
    return any(write.offset < at + _BLOCK and at < write.offset + len(write.data) for at in _SUPERBLOCKS[file_system])


class CrashImages:
    """A file system in a file of its own below `folder`, which is mounted on `mount_point` whenever it is used."""

    def __init__(self, recorder, file_system, folder, mount_point):
        self.recorder, self.file_system, self.folder, self.mount_point = recorder, file_system, folder, mount_point
        self.base, self.model, self.image = (folder / f"{name}.img" for name in ("base", "model", "image"))
        self.log = []

    def mounted(self, image):
        return disk.mounted_image(image, self.mount_point, self.file_system)

    def fill(self, source):
        """Makes the file system anew, with a copy of the folder `source`; the log begins here."""
        disk.make(self.base, self.file_system)
        with self.mounted(self.base):
            shutil.copytree(source, self.mount_point, symlinks=True, dirs_exist_ok=True)
            (self.mount_point / OtherProgram.NAME).touch()

    def record(self, run, beside_another=False):
        """Calls `run` with the file system mounted on a recorded device, on demand beside another program that syncs a
        file there; returns what it returns."""
        ran, log = self.folder / "ran.img", self.folder / "log"
        disk.copy(self.base, ran)
        with disk.recorded(self.recorder, ran, log, self.folder / "device") as device, self.mounted(device):
            other = OtherProgram(self.mount_point, self.file_system) if beside_another else contextlib.nullcontext()
            with other:
                result = run()
        self.log = write_log.read_log(log)
        if len(self.log) < 2:
            raise RuntimeError("no flush reached the device")
        self._check_log(ran)
        ran.unlink()
        log.unlink()
        return result

    def _check_log(self, ran):
        """The log must give, byte for byte, what the device held at the end."""
        disk.copy(self.base, self.model)
        with self.model.open("r+b") as model, ran.open("rb") as wanted:
            for write in itertools.chain.from_iterable(self.log):
                os.pwrite(model.fileno(), write.data, write.offset)
            while chunk := wanted.read(disk.CHUNK):
                if model.read(disk.CHUNK) != chunk:
                    raise RuntimeError("the log does not give what the device holds")

    def each(self, count, seed):
        """Makes up to `count` distinct images, one after the other; gives in words what each has."""
        with self.base.open("rb") as base:
            epochs = write_log.epochs_of(
                self.log, lambda number: os.pread(base.fileno(), write_log.SECTOR, number * write_log.SECTOR)
            )
        whole = functools.partial(is_whole, self.file_system)
        planned = write_log.plan(epochs, count, whole, random.Random(seed))
        disk.copy(self.base, self.model)
        disk.copy(self.base, self.image)
        # The model holds what the device owes since the last flush.
        with self.model.open("r+b", buffering=0) as model, self.image.open("r+b", buffering=0) as image:
            for number, (epoch, images) in enumerate(zip(epochs, planned)):
                for parts in images:
                    disk.make_equal(image.fileno(), model.fileno())
                    for part in parts:
                        write_part(image, epoch.writes[part.write], part)
                    yield f"after flush {number} with {_words(parts, epoch.writes)}"
                for write in epoch.writes:
                    os.pwrite(model.fileno(), write.data, write.offset)


def write_part(image, write, part):
    """Only the sectors of the part."""
    begin, end = (sector * write_log.SECTOR for sector in (part.begin, part.end))
    os.pwrite(image.fileno(), write.data[begin:end], write.offset + begin)


def _words(parts, writes):
    torn = [part for part in parts if part.end - part.begin < len(writes[part.write].sectors)]
    words = f"{len(parts)} of {len(writes)} writes"
    for part in torn:
        words += f", write {part.write} only from sector {part.begin} to {part.end}"
    return words
