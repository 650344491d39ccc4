#!/usr/bin/env python3
"""What a log of a device is read as, and which images are made of it."""

import pathlib
import random
import struct
import tempfile
import unittest

import write_log
from crash_images import is_whole
from write_log import SECTOR, Part, Write

EMPTY = bytes(SECTOR)


def entry(offset, data=b""):
    return struct.pack("=QQ", offset, len(data)) + data


def sectors(*letters):
    return b"".join(letter.encode() * SECTOR for letter in letters)


FLUSH = entry(2**64 - 1)


class ReadLogTest(unittest.TestCase):
    def read(self, data):
        with tempfile.TemporaryDirectory() as folder:
            log = pathlib.Path(folder) / "log"
            log.write_bytes(data)
            return write_log.read_log(log)

    def test_writes_are_parted_by_flushes(self):
        found = self.read(entry(0, sectors("a")) + entry(SECTOR, sectors("b", "c")) + FLUSH + entry(0, sectors("d")))
        self.assertEqual(found, [[Write(0, sectors("a")), Write(SECTOR, sectors("b", "c"))], [Write(0, sectors("d"))]])

    def test_a_log_that_was_cut_is_refused(self):
        with self.assertRaises(ValueError):
            self.read(entry(0, sectors("a", "b"))[:-1])

    def test_a_write_of_less_than_a_sector_is_refused(self):
        with self.assertRaises(ValueError):
            self.read(entry(100, sectors("a")))


class PlanTest(unittest.TestCase):
    def images(self, log, count=10_000, whole=lambda write: False):
        """The images themselves, of a device of eight empty sectors."""
        epochs = write_log.epochs_of(log, lambda number: EMPTY)
        owed, found = bytearray(8 * SECTOR), []
        for writes, planned in zip(log, write_log.plan(epochs, count, whole, random.Random(1))):
            for parts in planned:
                image = bytearray(owed)
                for part in parts:
                    self.put(image, writes[part.write], part)
                found.append(bytes(image))
            for write in writes:
                self.put(owed, write, Part(0, 0, 8))
        return found

    @staticmethod
    def put(image, write, part):
        data = write.data[part.begin * SECTOR : part.end * SECTOR]
        at = write.offset + part.begin * SECTOR
        image[at : at + len(data)] = data

    def image(self, letters):
        return b"".join(EMPTY if letter == "." else sectors(letter) for letter in letters.ljust(8, "."))

    def test_of_the_writes_in_flight_there_is_each_subset(self):
        log = [[Write(0, sectors("a")), Write(SECTOR, sectors("b")), Write(2 * SECTOR, sectors("c"))], []]
        wanted = {self.image(letters) for letters in ("...", "a..", ".b.", "..c", "ab.", "a.c", ".bc", "abc")}
        self.assertEqual(set(self.images(log)), wanted)

    def test_what_was_flushed_is_in_every_later_image(self):
        log = [[Write(0, sectors("a"))], [Write(SECTOR, sectors("b"))], []]
        self.assertEqual(set(self.images(log)), {self.image(letters) for letters in ("", "a", "ab")})

    def test_a_write_is_torn_between_any_two_sectors(self):
        log = [[Write(0, sectors("a", "b", "c"))], []]
        self.assertLessEqual({self.image(letters) for letters in ("", "a", "ab", "abc")}, set(self.images(log)))

    def test_a_block_that_is_taken_for_whole_is_never_torn(self):
        log = [[Write(0, sectors("a", "b"))], []]
        self.assertEqual(set(self.images(log, whole=lambda write: True)), {self.image(""), self.image("ab")})

    def test_of_two_writes_of_a_sector_the_later_one_is_newer(self):
        log = [[Write(0, sectors("a")), Write(0, sectors("b"))], []]
        self.assertEqual(set(self.images(log)), {self.image(letters) for letters in ("", "a", "b")})

    def test_no_image_comes_twice(self):
        log = [[Write(0, sectors("a", "a")), Write(0, sectors("a", "b"))], [Write(0, sectors("a", "a"))], []]
        found = self.images(log)
        self.assertEqual(len(found), len(set(found)))

    def test_of_many_images_there_are_as_many_as_wanted_from_all_flushes(self):
        log = [[Write(at * SECTOR, sectors(letter)) for at in range(8)] for letter in "abcd"]
        found = self.images(log, 40)
        self.assertEqual(len(found), 40)
        self.assertEqual(set("abcd"), {chr(byte) for image in found for byte in image if byte})


class IsWholeTest(unittest.TestCase):
    def test_the_superblock_is_whole(self):
        self.assertTrue(is_whole("ext4", Write(1024, sectors("a", "b"))))
        self.assertFalse(is_whole("ext4", Write(4096, sectors("a", "b"))))

    def test_a_commit_block_of_ext4_is_whole(self):
        commit, descriptor = (bytes.fromhex(f"c03b3998 0000000{kind}") + bytes(504) for kind in (2, 1))
        self.assertTrue(is_whole("ext4", Write(1 << 20, commit)))
        self.assertFalse(is_whole("ext4", Write(1 << 20, descriptor)))
        self.assertFalse(is_whole("xfs", Write(1 << 20, commit)))


if __name__ == "__main__":
    unittest.main()
