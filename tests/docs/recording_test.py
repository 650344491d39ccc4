#!/usr/bin/env python3
"""The terminal that scripts/record.py draws, and the recording that is in the tree."""

import pathlib
import re
import sys
import unittest
import xml.etree.ElementTree

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path.insert(0, str(SOURCE / "scripts"))
from terminal_svg import Screen, draw, states  # noqa: E402

TEXT = "{http://www.w3.org/2000/svg}text"


class ScreenTest(unittest.TestCase):
    def rows(self, text, columns=20):
        screen = Screen(columns)
        screen.write(text)
        return screen.rows()

    def test_carriage_return_overwrites(self):
        self.assertEqual([((0, "40 % one", ""),)], self.rows("10 % one\r40"))

    def test_end_of_a_line_is_erased(self):
        self.assertEqual([((0, "done", ""),)], self.rows("downloading\rdone\x1b[K"))

    def test_long_line_wraps(self):
        self.assertEqual([((0, "abcd", ""),), ((0, "ef", ""),)], self.rows("abcdef", columns=4))

    def test_colours_make_runs(self):
        self.assertEqual(
            [((0, "Failed", "bold red"), (6, ": no space", ""))], self.rows("\x1b[1;31mFailed\x1b[0m: no space")
        )

    def test_blanks_at_the_end_of_a_line_are_not_drawn(self):
        self.assertEqual([((0, "a", ""),), ()], self.rows("a   \r\n   "))


class DrawTest(unittest.TestCase):
    EVENTS = [(0.0, "$ run\r\n"), (1.0, "\r10 %"), (2.0, "\r99 %"), (3.0, "\r\nDone\r\n")]

    def test_line_has_each_of_its_states(self):
        seen = [(row, runs[0][1], since, until) for row, runs, since, until in states(self.EVENTS, 20)]
        self.assertEqual(
            [(0, "$ run", 0.0, None), (1, "10 %", 1.0, 2.0), (1, "99 %", 2.0, None), (2, "Done", 3.0, None)], seen
        )

    def test_without_motion_the_end_is_seen(self):
        root = xml.etree.ElementTree.fromstring(draw(self.EVENTS, 20, "A <run>"))
        groups = [group for group in root if group.tag.endswith("}g")]
        self.assertEqual(
            ["$ run", "99 %", "Done"],
            ["".join(text.text for text in group.iter(TEXT)) for group in groups if group.get("class") != "past"],
        )


class RecordingTest(unittest.TestCase):
    def test_needs_nothing_from_outside(self):
        picture = (SOURCE / "docs/update.svg").read_text()
        self.assertEqual([], re.findall(r"(?:href|src|url|@import)\b", picture))
        self.assertTrue(list(xml.etree.ElementTree.fromstring(picture).iter(TEXT)))


if __name__ == "__main__":
    unittest.main(argv=sys.argv)
