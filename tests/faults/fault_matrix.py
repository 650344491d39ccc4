#!/usr/bin/env python3
"""Brings every fault about at every file-changing system call of an update, and looks at what is left.

An update and an upgrade are run once to number their calls. Then, for a call and a fault (the whole family of processes
killed there, or the call failing with EIO or ENOSPC), the same is run again from the same state with that fault; after
it the pack must be whole or absent with the means to go on, the status store readable, and recover, check and update
against the healthy server must end up to date with the right pack.

Exits with 0 when nothing was lost and nothing was stuck, else with 1.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import dataclasses
import itertools
import os
import pathlib
import random
import shutil
import sys
import tempfile
import time

from aftermath import Aftermath
from appliance import Appliance, Publisher

FAULTS = ("kill", "EIO", "ENOSPC")
OLD, NEW = "1.0.0", "2.0.0"


@dataclasses.dataclass(frozen=True)
class Case:
    scenario: str
    call: int
    fault: str


@dataclasses.dataclass(frozen=True)
class Outcome:
    reached: bool
    lost: tuple
    stuck: tuple


class Matrix:
    def __init__(self, build, source, folder):
        self.build, self.source, self.folder = pathlib.Path(build), pathlib.Path(source), pathlib.Path(folder)
        self.injector = self.build / "tests/faults/fault_injector"
        self.numbers = itertools.count()
        self.scenarios = {}

    def prepare(self, publisher):
        """Makes the state that each scenario starts from."""
        self.publisher = publisher
        old, new = publisher.publish(OLD, 1), publisher.publish(NEW, 2)
        fresh = Appliance.lay_out(self.folder / "fresh", self.build, self.source)
        fresh.use_server(new)
        fresh.expect("check")
        self.scenarios["update"] = fresh
        upgrade = Appliance.lay_out(self.folder / "upgrade", self.build, self.source)
        upgrade.use_server(old)
        upgrade.expect("check")
        upgrade.expect("update")
        upgrade.use_server(new)
        upgrade.expect("check")
        self.scenarios["upgrade"] = upgrade

    @contextlib.contextmanager
    def appliance_for(self, scenario):
        root = self.folder / f"run-{next(self.numbers)}"
        try:
            yield self.scenarios[scenario].copy_to(root)
        finally:
            shutil.rmtree(root, ignore_errors=True)

    def calls(self, scenario):
        """The numbered calls of an undisturbed run."""
        with self.appliance_for(scenario) as appliance:
            record = appliance.root / "calls"
            done = appliance.packctl("update", wrapper=(self.injector, "--record", record, "--"))
            if done.returncode != 0 or not self.publisher.is_whole(appliance.pack, NEW):
                raise RuntimeError(f"the undisturbed {scenario} failed: {done.stdout}{done.stderr}")
            return [line.split(" ", 3) for line in record.read_text().splitlines()]

    def run(self, case):
        with self.appliance_for(case.scenario) as appliance:
            record = appliance.root / "calls"
            wrapper = (self.injector, "--record", record, "--at", case.call, "--fault", case.fault, "--")
            appliance.packctl("update", wrapper=wrapper)
            reached = sum(1 for _ in record.open()) >= case.call
            aftermath = Aftermath(self.publisher, appliance, OLD if case.scenario == "upgrade" else None, NEW)
            aftermath.look()
            aftermath.go_on()
            return Outcome(reached, tuple(aftermath.lost), tuple(aftermath.stuck))


def report(outcomes, numbered):
    """The table: what was tried and what came of it."""
    rows = collections.defaultdict(collections.Counter)
    for case, outcome in outcomes:
        row = rows[case.scenario, case.fault]
        row["tried"] += 1
        row["not reached"] += not outcome.reached
        row["lost"] += bool(outcome.lost)
        row["stuck"] += bool(outcome.stuck)
    print("\n| run | fault | calls | faults tried | not reached | packs lost | states stuck |")
    print("|---|---|---|---|---|---|---|")
    for (scenario, fault), row in sorted(rows.items()):
        print(f"| {scenario} | {fault} | {len(numbered[scenario])} | {row['tried']} | {row['not reached']} "
              f"| {row['lost']} | {row['stuck']} |")
    for case, outcome in outcomes:
        for problem in (*outcome.lost, *outcome.stuck):
            _, process, call, path = numbered[case.scenario][case.call - 1]
            print(f"{case.scenario}: {case.fault} at call {case.call} ({process} {call} {path}): {problem}")
    return any(outcome.lost or outcome.stuck for _, outcome in outcomes)


def chosen(cases, seconds, seed):
    """All cases, or as many as the time allows in an order that the seed decides."""
    if seconds is None:
        yield from cases
        return
    end = time.monotonic() + seconds
    shuffled = random.Random(seed).sample(cases, len(cases))
    yield from itertools.takewhile(lambda _: time.monotonic() < end, shuffled)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--source", required=True, help="the project's folder")
    parser.add_argument("--seconds", type=float, help="try a spread of the cases for about this long; all when left out")
    parser.add_argument("--seed", type=int, default=None, help="what decides the spread; a new one each time by default")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="appliances at work side by side")
    arguments = parser.parse_args()
    seed = random.randrange(2**32) if arguments.seed is None else arguments.seed
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    with tempfile.TemporaryDirectory(prefix="orbamira-faults-", dir=memory) as folder, \
            Publisher(arguments.source, pathlib.Path(folder) / "published") as publisher:
        matrix = Matrix(arguments.build, arguments.source, folder)
        matrix.prepare(publisher)
        numbered = {scenario: matrix.calls(scenario) for scenario in matrix.scenarios}
        cases = [Case(scenario, call, fault) for scenario, calls in numbered.items()
                 for call in range(1, len(calls) + 1) for fault in FAULTS]
        if arguments.seconds is not None:
            print(f"a spread of {len(cases)} cases for {arguments.seconds:.0f} s, seed {seed}", flush=True)
        outcomes = []
        with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as workers:
            waiting = set()
            for case in chosen(cases, arguments.seconds, seed):
                if len(waiting) >= 2 * arguments.jobs:
                    done, waiting = concurrent.futures.wait(waiting, return_when=concurrent.futures.FIRST_COMPLETED)
                    outcomes.extend(future.result() for future in done)
                waiting.add(workers.submit(lambda chosen_case: (chosen_case, matrix.run(chosen_case)), case))
            outcomes.extend(future.result() for future in waiting)
        failed = report(sorted(outcomes, key=lambda pair: dataclasses.astuple(pair[0])), numbered)
    sys.exit(1 if failed or not outcomes else 0)


if __name__ == "__main__":
    main()
