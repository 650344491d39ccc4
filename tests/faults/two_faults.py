#!/usr/bin/env python3
"""Brings a second fault about in what follows a first one: in the recovery, the next check or the next update.

The first faults are those of fault_matrix.py. Each state of the disk that one of them leaves is taken once. From there
recovery, check and update (or the next start of a host) run undisturbed to number their calls, and then again with a
fault at some of them: every call that recovery makes in any state is struck, and else whatever was struck least. After
the second fault the same must hold as after the first: the pack is whole, recovery works, and two days of the timers
end up to date.

In a first round all first faults have their turn; further rounds strike the states again until there are enough pairs.
With --journal the pairs are written down as they are tried, and a second run with the same journal goes on where the
first one ended.

What the first run wrote without a sync counts as on the disk when a second run loses its power.

Exits with 0 when nothing was lost and nothing was stuck, else with 1.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import dataclasses
import itertools
import math
import os
import pathlib
import random
import re
import shutil
import sys
import tempfile
import threading
import time

from fault_matrix import ERRORS, FAULTS, INJECTOR_FAILED, NEW, OLD, POWER_CUTS, Case, Matrix, cases_of, chosen
from fault_matrix import read_record, with_torn_write
from aftermath import Aftermath
from appliance import Appliance, Publisher
from enclosure import enclose
from journal import Journal

PER_STATE = 8  # second faults for a state in one round
RECOVERY = "recovery"
PACKCTL_STAGES = (
    (RECOVERY, "orba-recover", ()),
    ("check", "packctl", ("check",)),
    ("update", "packctl", ("update", "--automatic")),
)
HOST_STAGES = (("next start", "host", ()),)


@dataclasses.dataclass(frozen=True)
class Second:
    stage: str
    call: int
    fault: str
    kind: tuple  # process, system call and path, without what differs from run to run


@dataclasses.dataclass
class Stage:
    """A program that runs after the first fault, and the appliance before and after it ran undisturbed."""

    name: str
    program: str
    arguments: tuple
    start: Appliance
    after: Appliance
    calls: list = dataclasses.field(default_factory=list)

    def run(self, appliance, *wrapper):
        folder = appliance.helpers if self.program.startswith("orba-") else appliance.root / "usr/bin"
        return appliance.run(folder / self.program, *self.arguments, wrapper=wrapper)


class TwoFaults:
    def __init__(self, matrix, journal, seed):
        self.matrix, self.journal = matrix, journal
        self.random = random.Random(seed)
        self.lock = threading.Lock()
        self.states = {}  # the scenario and first state, to the case that first led there
        self.struck = collections.Counter()  # how often a kind of call was struck, by kind and by kind and fault
        self.recovery_kinds = set()
        self.done = set()  # rounds and cases of an earlier run
        for entry in journal.entries:
            self.take(entry)

    def take(self, entry):
        """Counts an entry of the journal."""
        case = Case(*entry["first"])
        if "state" in entry:
            self.done.add((entry["round"], case))
            self.states.setdefault((case.scenario, entry["state"]), case)
        else:
            kind = tuple(entry["kind"])
            self.struck[kind] += 1
            self.struck[kind, entry["fault"]] += 1
            if entry["stage"] == RECOVERY:
                self.recovery_kinds.add(kind)

    def pairs(self):
        return [entry for entry in self.journal.entries if "state" not in entry]

    def strike_state(self, number, case):
        """Tries second faults on what the first fault leaves, if no other left the same in this round."""
        if (number, case) in self.done:
            return
        with self.matrix.appliance_for(case.scenario) as appliance:
            self.strike(self.matrix.scenarios[case.scenario], appliance, case)
            state = appliance.state()
            with self.lock:
                known = self.states.setdefault((case.scenario, state), case)
            if known == case:
                with contextlib.ExitStack() as stack:
                    stages = self.stages(case, appliance, stack)
                    for second in self.draw(stages):
                        self.try_second(case, next(stage for stage in stages if stage.name == second.stage), second)
        self.journal.add(round=number, first=dataclasses.astuple(case), state=state)

    def strike(self, runner, appliance, fault):
        """Runs a scenario or a stage with the fault; returns its calls."""
        record = appliance.root.with_name(f"{appliance.root.name}.calls")
        wrapper = [self.matrix.injector, "--record", record, "--at", fault.call, "--fault", fault.fault]
        if fault.fault in POWER_CUTS:
            wrapper += ["--below", appliance.root]
        if runner.run(appliance, *wrapper, "--").returncode == INJECTOR_FAILED:
            raise RuntimeError(f"the injector failed at {fault}")
        calls = read_record(record)
        record.unlink()
        return calls

    def stages(self, case, appliance, stack):
        """What runs after the first fault, undisturbed, with its calls."""
        stages = []
        for stage in PACKCTL_STAGES if self.matrix.scenarios[case.scenario].command else HOST_STAGES:
            start = stack.enter_context(self.copy(stages[-1].after if stages else appliance))
            after = stack.enter_context(self.copy(start))
            made = Stage(*stage, start, after)
            record = after.root.with_name(f"{after.root.name}.calls")
            status = made.run(after, self.matrix.injector, "--record", record, "--").returncode
            made.calls = read_record(record)
            record.unlink()
            stages.append(made)
            if status != 0:
                break  # a check that found nothing new
        return stages

    @contextlib.contextmanager
    def copy(self, appliance):
        root = self.matrix.folder / f"run-{next(self.matrix.numbers)}"
        copied = appliance.copy_to(root)
        try:
            yield copied
        finally:
            shutil.rmtree(root, ignore_errors=True)

    def draw(self, stages):
        """The second faults for a state: all calls of recovery that were never struck, and of the others the least."""
        every = []
        for stage in stages:
            torn = set(with_torn_write(stage.calls))
            for number, process, call, path in stage.calls:
                kind = (process, call, without_chance(path, stage.after.root))
                faults = [fault for fault in FAULTS if fault != "tear" or int(number) in torn]
                every += [Second(stage.name, int(number), fault, kind) for fault in faults]
        with self.lock:
            self.random.shuffle(every)
            drawn = {}
            for second in every:
                if second.stage == RECOVERY:
                    self.recovery_kinds.add(second.kind)
                    if not self.struck[second.kind]:
                        drawn.setdefault(second.kind, second)
            # Half of them in the first stage, which is recovery or what begins with it.
            least = sorted(every, key=lambda second: (self.struck[second.kind, second.fault], self.struck[second.kind]))
            first, rest = ([s for s in least if (s.stage == stages[0].name) == own] for own in (True, False))
            turns = itertools.chain.from_iterable(itertools.zip_longest(first, rest))
            for second in filter(None, turns):
                if len(drawn) >= PER_STATE:
                    break
                drawn.setdefault(second.kind, second)
            for second in drawn.values():
                self.struck[second.kind] += 1
                self.struck[second.kind, second.fault] += 1
            return list(drawn.values())

    def version_of(self, appliance):
        """The version of the pack that is there, in place or as its backup; None when there is none."""
        for folder, version in itertools.product((appliance.pack, appliance.backup), (OLD, NEW)):
            if self.matrix.publisher.is_whole(folder, version):
                return version
        return None

    def try_second(self, case, stage, second):
        scenario = self.matrix.scenarios[case.scenario]
        with self.copy(stage.start) as appliance:
            calls = self.strike(stage, appliance, second)
            state = appliance.state()
            by_error = case.fault in ERRORS or second.fault in ERRORS
            broken = scenario.broken if stage.name in (RECOVERY, *(name for name, *_ in HOST_STAGES)) else None
            old = self.version_of(stage.start)
            aftermath = scenario.aftermath(self.matrix.publisher, appliance, old, NEW, broken, by_error)
            aftermath.end_as(scenario.ends, scenario.finals)
            aftermath.had_store = stage.start.status_file.exists()
            if appliance.broken_status_file.exists():
                aftermath.may_be_left.add(str(appliance.broken_status_file))
            aftermath.look()
            if second.fault in ERRORS and stage.name != RECOVERY and not stage.start.half_built():
                aftermath.look_after_error(calls)
            aftermath.recover()
            lost, stuck = self.matrix.going_on(case.scenario, aftermath)
        self.journal.add(
            first=dataclasses.astuple(case),
            stage=second.stage,
            call=second.call,
            fault=second.fault,
            kind=second.kind,
            reached=len(calls) >= second.call,
            left=state,
            lost=[*aftermath.lost, *lost],
            stuck=[*aftermath.stuck, *stuck],
        )


def without_chance(path, root):
    """A path without the place of the appliance, numbers of processes and the random parts of names."""
    path = re.sub(rf"^{re.escape(str(root))}", "", path)
    return re.sub(r"\.(?!backup|broken)[A-Za-z0-9]{6}(?=/|$)|\d{4,}", ".X", path)


def report(trial):
    """The table: what was tried and what came of it; whether anything went wrong."""
    rows = collections.defaultdict(list)
    for pair in trial.pairs():
        rows[pair["first"][0], pair["stage"], pair["fault"]].append(pair)
    print("\n| first run | second fault in | second fault | pairs | not reached | states left | lost | stuck |")
    print("|---|---|---|---|---|---|---|---|")
    for (run, stage, fault), row in sorted(rows.items()):
        print(
            f"| {run} | {stage} | {fault} | {len(row)} | {sum(not pair['reached'] for pair in row)} "
            f"| {len({pair['left'] for pair in row})} "
            f"| {sum(bool(pair['lost']) for pair in row)} | {sum(bool(pair['stuck']) for pair in row)} |"
        )
    for pair in trial.pairs():
        for problem in (*pair["lost"], *pair["stuck"]):
            run, call, fault = pair["first"]
            print(
                f"{run}: {fault} at call {call}, then {pair['fault']} at call {pair['call']} of the {pair['stage']} "
                f"({' '.join(pair['kind'])}): {problem}"
            )
    struck = sum(bool(trial.struck[kind]) for kind in trial.recovery_kinds)
    print(f"first states: {len(trial.states)}; calls of recovery: {len(trial.recovery_kinds)} kinds, {struck} struck")
    pairs = trial.pairs()
    lost, stuck = (sum(bool(pair[name]) for pair in pairs) for name in ("lost", "stuck"))
    print(Aftermath.known.report())
    print(f"two faults: {len(pairs)} tried, {lost} lost, {stuck} stuck, 0 skipped")
    return lost or stuck or not pairs


def rounds(trial, cases, numbered, arguments, seed):
    """The cases to strike, with the number of their round."""
    for case in chosen(cases, numbered, arguments.seconds or math.inf, seed):
        yield 1, case
    if arguments.seconds is not None:
        return
    for number in itertools.count(2):
        states = list(trial.states.values())
        for case in states:
            if len(trial.pairs()) >= arguments.pairs:
                return
            yield number, case


def run_all(trial, cases, jobs):
    with concurrent.futures.ThreadPoolExecutor(jobs) as workers:
        waiting = set()
        for number, case in cases:
            if len(waiting) >= jobs:
                done, waiting = concurrent.futures.wait(waiting, return_when=concurrent.futures.FIRST_COMPLETED)
                for future in done:
                    future.result()
            waiting.add(workers.submit(trial.strike_state, number, case))
        for future in waiting:
            future.result()


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--seconds", type=float, help="try a spread of the pairs for about this long")
    parser.add_argument("--pairs", type=int, default=20_000, help="without --seconds: at least so many (default 20000)")
    parser.add_argument("--journal", type=pathlib.Path, help="file that keeps the pairs, to go on from later")
    parser.add_argument("--seed", type=int, default=None, help="what decides the draw; a new one by default")
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="appliances at work side by side")
    arguments = parser.parse_args()
    enclose(arguments.build)
    seed = random.randrange(2**32) if arguments.seed is None else arguments.seed
    with tempfile.TemporaryDirectory(prefix="orbamira-faults-") as folder, Publisher(
        pathlib.Path(folder) / "published", arguments.build
    ) as publisher:
        matrix = Matrix(arguments.build, folder)
        matrix.prepare(publisher)
        numbered = {scenario: matrix.calls(scenario) for scenario in matrix.scenarios}
        cases = [case for scenario, calls in numbered.items() for case in cases_of(scenario, calls)]
        print(f"second faults after {len(cases)} first ones, seed {seed}", flush=True)
        trial = TwoFaults(matrix, Journal(arguments.journal), seed)
        began = time.monotonic()
        run_all(trial, rounds(trial, cases, numbered, arguments, seed), arguments.jobs)
        failed = report(trial)
        print(f"in {time.monotonic() - began:.0f} s")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
