#!/usr/bin/env python3
"""The images of a device lose what was not synced, and keep what was."""

import argparse
import concurrent.futures
import os
import pathlib
import sys
import tempfile
import time
import unittest

import disk
from crash_images import CrashImages, OtherProgram

SKIPPED = 77
CONTENT = b"whole" * 4000
MANY = 8
IMAGES = 40  # more than there are flushes, so that there is an image at each


def put_in_place(folder, sync=lambda descriptor: None):
    """Puts a new file in place, as every program does that must not lose it, but for a sync."""
    with (folder / "new").open("wb") as file:
        file.write(CONTENT)
        file.flush()
        sync(file.fileno())
    (folder / "new").rename(folder / "name")
    descriptor = os.open(folder, os.O_RDONLY)
    os.fsync(descriptor)
    os.close(descriptor)


def sync_and_put_in_place(folder):
    put_in_place(folder, os.fsync)


def content(folder):
    """What the file holds; None where it is not there."""
    name = folder / "name"
    return name.read_bytes() if name.exists() else None


def make_many(folder):
    """Makes files, and after half of them waits until the other program has begun and ended a sync."""
    other = (folder / OtherProgram.NAME).stat
    for number in range(MANY):
        if number == MANY // 2:
            since, end = other().st_mtime_ns, time.monotonic() + disk.PATIENCE
            while other().st_mtime_ns < since + 2 and time.monotonic() < end:
                time.sleep(0.001)
        (folder / f"many-{number}").touch()


def count_many(folder):
    return len(list(folder.glob("many-*")))


class CrashImagesTest(unittest.TestCase):
    recorder = None

    def look(self, file_system, run, see, beside_another=False):
        """What `see` finds below the mounted folder, in each image of `run`."""
        with tempfile.TemporaryDirectory() as outside, disk.memory(outside):
            folder = pathlib.Path(outside)
            mount_point, source = folder / "mount", folder / "source"
            mount_point.mkdir()
            source.mkdir()
            images = CrashImages(self.recorder, file_system, folder, mount_point)
            images.fill(source)
            images.record(lambda: run(mount_point), beside_another)
            found = []
            for _ in images.each(IMAGES, seed=1):
                with images.mounted(images.image):
                    found.append(see(mount_point))
            return found

    def everywhere(self, *arguments):
        """The same for each file system, side by side: most of the time they wait."""
        with concurrent.futures.ThreadPoolExecutor() as workers:
            return zip(disk.MAKE, workers.map(lambda file_system: self.look(file_system, *arguments), disk.MAKE))

    def test_an_unsynced_file_is_lost_in_some_image(self):
        for file_system, found in self.everywhere(put_in_place, content):
            with self.subTest(file_system):
                self.assertTrue(set(found) - {None, CONTENT})

    def test_a_synced_file_is_absent_or_whole_and_stays(self):
        for file_system, found in self.everywhere(sync_and_put_in_place, content):
            with self.subTest(file_system):
                self.assertEqual(set(found), {None, CONTENT})
                self.assertEqual(found[-1], CONTENT)

    def test_beside_another_program_some_image_has_a_part_of_what_was_done(self):
        for file_system, found in self.everywhere(make_many, count_many, True):
            with self.subTest(file_system):
                self.assertTrue(set(found) - {0, MANY})


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("recorder", help="the program block_recorder")
    arguments = parser.parse_args()
    reason = disk.why_impossible()
    if reason:
        print(f"skipped: {reason}")
        sys.exit(SKIPPED)
    CrashImagesTest.recorder = arguments.recorder
    unittest.main(argv=sys.argv[:1])


if __name__ == "__main__":
    main()
