#!/usr/bin/env python3
"""Strikes at every file-changing system call of writes to a status store: store_test.py FAULT_INJECTOR STORE_WRITER

After a kill, a power cut, a power cut that tears a write, and a call that fails, the file must hold a value that was
set before or is being set, or nothing where the store was being cleared, and never an older one than the last that was
set for good.
"""

import itertools
import json
import pathlib
import subprocess
import sys
import tempfile
import unittest

# Into a sector of the disk go 495 bytes at most. There and back, with a value that fits just, or just not.
LENGTHS = (5, 8, 495, 496, 480, 600, 20, 5000, 30, 490, 3)
EMPTY = ""


class StoreTest(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory(prefix="orbamira-store-")
        self.addCleanup(folder.cleanup)
        self.folder = pathlib.Path(folder.name)

    def run_writer(self, name, *options):
        """Writes into a store of its own behind the injector; returns exit status, numbered calls and the folder."""
        root = self.folder / name
        (root / "marks").mkdir(parents=True)
        record = self.folder / f"{name}.calls"
        done = subprocess.run(
            [injector, "--record", record, *map(str, options), "--", writer, root / "store", root / "marks"]
            + [str(length) for length in LENGTHS],
            capture_output=True,
            check=False,
        )
        return done.returncode, [line.split(" ", 3)[2] for line in record.read_text().splitlines()], root

    def strike(self, number, fault):
        name = f"{fault}-{number}"
        options = ["--at", number, "--fault", fault]
        if fault in ("power", "tear"):
            (self.folder / name).mkdir()
            options += ["--below", self.folder / name]
        return self.run_writer(name, *options)

    def look(self, root, calls):
        """Asserts that the store holds what it may, after these calls took place."""
        values = [length * chr(ord("a") + place) for place, length in enumerate(LENGTHS)]
        done = sum(1 for _ in (root / "marks").iterdir())
        allowed = values[max(done - 1, 0) : done + 1]
        since = list(itertools.takewhile(lambda call: call != "mkdir", reversed(calls)))
        if done == 0 or "pwrite64" in since or "rename" in since:
            allowed.append(EMPTY)
        store = root / "store"
        self.assertIn(json.loads(store.read_text()).get("key", EMPTY) if store.exists() else EMPTY, allowed)

    def test_every_fault_at_every_call(self):
        status, calls, root = self.run_writer("whole")
        self.assertEqual(status, 0)
        self.look(root, calls)
        self.assertIn("pwrite64", calls)
        for number in range(1, len(calls) + 1):
            for fault in ("kill", "power", "tear", "EIO", "ENOSPC"):
                with self.subTest(call=calls[number - 1], fault=fault):
                    _, made, root = self.strike(number, fault)
                    self.look(root, made[: number - 1] + made[number:])


if __name__ == "__main__":
    injector, writer = map(pathlib.Path, sys.argv[1:3])
    unittest.main(argv=sys.argv[:1])
