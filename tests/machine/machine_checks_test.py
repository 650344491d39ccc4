#!/usr/bin/env python3
"""How a boot is judged by what systemd reports, and what a cut leaves of a recorded disk; without a guest."""

import pathlib
import random
import struct
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "blocks"))
from checks import TIMES, order_problems  # noqa: E402
from power_cut import cut  # noqa: E402
from write_log import SECTOR  # noqa: E402

FLUSH = struct.pack("=QQ", 2**64 - 1, 0)


def shown(recovered="2000000", basic="3000000", result="success"):
    state = "active" if result == "success" else "failed"
    return (
        f"ActiveState={state}\nResult={result}\n{TIMES}={recovered}\n\nActiveState=active\nResult=\n{TIMES}={basic}\n"
    )


class OrderTest(unittest.TestCase):
    def test_recovery_before_all_is_in_order(self):
        self.assertEqual(order_problems(shown(), "2.5\n"), [])
        self.assertEqual(order_problems(shown(), ""), [])

    def test_recovery_that_failed_or_never_ran_is_told(self):
        self.assertIn("did not succeed", order_problems(shown(result="exit-code"), "")[0])
        self.assertIn("did not succeed", order_problems(shown().replace("=active", "=inactive", 1), "")[0])

    def test_recovery_after_basic_target_is_told(self):
        self.assertIn("basic.target", order_problems(shown(basic="1000000"), "")[0])

    def test_another_unit_before_recovery_is_told(self):
        self.assertIn("another unit", order_problems(shown(), "1.9\n")[0])


class CutTest(unittest.TestCase):
    """A disk of four sectors, of which the first is written and flushed, and then two others."""

    def cut(self, seed, end=b"", since=None):
        with tempfile.TemporaryDirectory() as name:
            base, ran, log = (pathlib.Path(name) / file for file in ("base", "ran", "log"))
            base.write_bytes(bytes(4 * SECTOR))
            writes = [(number, bytes([number + 1]) * SECTOR) for number in range(3)]
            entries = [struct.pack("=QQ", number * SECTOR, SECTOR) + data for number, data in writes]
            log.write_bytes(entries[0] + FLUSH + entries[1] + entries[2] + end)
            ran.write_bytes(b"".join(data for _, data in writes) + bytes(SECTOR))
            in_flight, lost = cut(log, base, ran, "ext4", random.Random(seed), since)
            self.assertEqual(base.read_bytes(), ran.read_bytes())
            left = base.read_bytes()[::SECTOR]
            self.assertEqual(lost, 3 - sum(map(bool, left)))
            return in_flight, left

    def test_what_was_flushed_stays_and_of_the_rest_there_is_any_choice(self):
        found = {self.cut(seed) for seed in range(50)}
        self.assertEqual(found, {(2, left) for left in (b"\1\0\0\0", b"\1\2\0\0", b"\1\0\3\0", b"\1\2\3\0")})

    def test_a_cut_may_come_before_the_last_flush_unless_that_is_older_than_it_may_be(self):
        size = 2 * len(FLUSH) + 3 * (16 + SECTOR)
        self.assertEqual({self.cut(seed, FLUSH, size) for seed in range(50)}, {(0, b"\1\2\3\0")})
        found = {self.cut(seed, FLUSH, size - 1) for seed in range(200)}
        self.assertEqual({in_flight for in_flight, _ in found}, {0, 2})
        self.assertIn((2, b"\1\0\0\0"), found)


if __name__ == "__main__":
    unittest.main()
