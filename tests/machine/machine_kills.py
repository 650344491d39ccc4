#!/usr/bin/env python3
"""Kills a machine with systemd at random moments of its timers' updates, and looks at what it boots to.

The machine is a guest of QEMU without KVM: a Debian with systemd and our packages, installed as the documentation says,
whose root is on ext4, xfs or btrfs. Its timers fire every few seconds; otherwise the units are those of the packages.
QEMU ends by SIGKILL at a random moment of an update or of the boot after one, in part with the page open. Every write
and flush of its disk is recorded: what was not flushed when it was killed is lost, but for a random choice.

Then it boots again. Within a bound it reaches multi-user.target; recovery succeeded before basic.target and every other
unit of the updater; the pack is whole or absent before recovery and in order after it; and the timers' next update ends
up to date with the right pack and nothing left behind.

With --journal each kill is written down when its aftermath is known, and a second run with the same journal goes on
until there are as many kills as wanted. Exits with 0 when nothing was lost and nothing was stuck, with 1 otherwise, and
with 77 (skipped) where no guest can be made.
"""

import argparse
import collections
import itertools
import pathlib
import random
import sys
import time

from trial import Broken, Trial, add_arguments, bench, disk


def run_all(prepared, arguments):
    """Kills the machines by turns, until there are enough kills or the time is up."""
    end = time.monotonic() + arguments.seconds if arguments.seconds else float("inf")
    trials = {}
    for number, file_system in enumerate(itertools.cycle(arguments.file_systems), len(prepared.journal.entries)):
        if len(prepared.journal.entries) >= arguments.kills or time.monotonic() > end:
            return
        randomness = random.Random(f"{arguments.seed} {number}")
        if file_system not in trials:
            trials[file_system] = Trial(prepared, file_system)
            trials[file_system].make()
        trial = trials[file_system]
        try:
            trial.session(randomness)
        except Broken:
            trial.begin()


def report(entries):
    rows = collections.defaultdict(collections.Counter)
    for entry in entries:
        row = rows[entry["file_system"], entry["during"]]
        row["kills"] += 1
        for name in ("page", "without_pack", "in_flight", "lost_writes"):
            row[name] += entry[name]
        for name in ("lost", "stuck"):
            row[name] += bool(entry.get(name))
    titles = ("page open", "without a pack", "writes in flight", "of them lost", "lost", "stuck")
    print(f"\n| file system | killed during | kills | {' | '.join(titles)} |\n|{'---|' * 9}")
    columns = ("kills", "page", "without_pack", "in_flight", "lost_writes", "lost", "stuck")
    for (file_system, during), row in sorted(rows.items()):
        print(f"| {file_system} | {during} | {' | '.join(str(row[column]) for column in columns)} |")
    print("\n| what the boot found | kills |\n|---|---|")
    for found, count in sorted(collections.Counter(entry["found"] for entry in entries if "found" in entry).items()):
        print(f"| {found or 'nothing'} | {count} |")
    if entries:
        print(f"{sum(entry['seconds'] for entry in entries) / len(entries):.0f} s for each kill")
    lost, stuck = (sum(bool(entry.get(name)) for entry in entries) for name in ("lost", "stuck"))
    print(f"machine: {len(entries)} tried, {lost} lost, {stuck} stuck, 0 skipped")
    return lost or stuck or not entries


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_arguments(parser)
    parser.add_argument("--kills", type=int, default=100, help="how many, with those of the journal")
    parser.add_argument("--seconds", type=float, help="end after about this long")
    parser.add_argument("--journal", type=pathlib.Path, help="file that keeps the kills, to go on from later")
    parser.add_argument("--seed", type=int, default=random.randrange(2**32), help="what decides the kills")
    parser.add_argument("--fs", dest="file_systems", action="append", choices=disk.MAKE, help="only this file system")
    arguments = parser.parse_args()
    arguments.file_systems = arguments.file_systems or list(disk.MAKE)
    return arguments


def main():
    arguments = parse()
    with bench("machine", arguments, arguments.journal) as prepared:
        print(f"kills of a machine, seed {arguments.seed}", flush=True)
        run_all(prepared, arguments)
        failed = report(prepared.journal.entries)
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
