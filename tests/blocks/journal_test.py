#!/usr/bin/env python3
"""A run goes on with what an earlier one wrote down, however that ended."""

import pathlib
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from journal import Journal  # noqa: E402

ONE, TWO = {"tried": 1}, {"tried": 2}


class JournalTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.path = pathlib.Path(folder.name) / "journal"

    def add(self, *entries):
        with Journal(self.path) as journal:
            for entry in entries:
                journal.add(**entry)

    def entries(self):
        with Journal(self.path) as journal:
            return journal.entries

    def test_a_second_run_finds_what_the_first_one_did(self):
        self.add(ONE)
        self.add(TWO)
        self.assertEqual(self.entries(), [ONE, TWO])

    def test_an_entry_is_in_the_file_at_once(self):
        with Journal(self.path) as journal:
            journal.add(**ONE)
            self.assertEqual(self.entries(), [ONE])

    def test_an_entry_that_was_cut_is_left_out_and_does_no_harm_to_the_next(self):
        for whole in ([], [ONE]):
            with self.subTest(whole):
                self.path.unlink(missing_ok=True)
                self.add(*whole, TWO)
                self.path.write_bytes(self.path.read_bytes()[:-3])
                self.assertEqual(self.entries(), whole)
                self.add(TWO)
                self.assertEqual(self.entries(), [*whole, TWO])

    def test_without_a_file_it_is_kept_in_memory(self):
        with Journal() as journal:
            journal.add(**ONE)
            self.assertEqual(journal.entries, [ONE])


if __name__ == "__main__":
    unittest.main()
