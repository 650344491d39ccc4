#!/usr/bin/env python3
"""Brings every fault about at every file-changing system call of an update, and looks at what is left.

Fourteen runs of packctl are struck: a check that finds a new pack; a hold, and the end of one; a first update; an
upgrade, at once, where there is a keyring, as a download and an install, and from a file, where the calls that read the
file are struck too; an upgrade whose new pack is not healthy, and goes; a rollback by hand; the removal of a pack; the
check that finds a broken status store; and the recovery of an upgrade that was killed before its new pack was in place.
And five of a host of the library on an appliance without packctl: a first update; an upgrade, without a keyring and
with one; one whose new pack is not healthy; and its next start after an upgrade that was killed before its new pack was
in place.

Each is run once to number its calls. Then, for a call and a fault, the same is run again from the same state with
that fault: the whole family of processes is killed there, or killed with the loss of all data that was not synced (a
power cut; where a file was just overwritten in place also one that tears the write), or the call fails with EIO or
ENOSPC. After it the pack must be whole or absent with the means to go on, and the status store readable. Recovery,
and then what the timers do in two days against the healthy server, must end up to date with the right pack and
nothing left behind: a check, and an update where the check ended with 0. The host is started again and does all of
that by itself.

Recoveries that leave the disk in the same state share these days.

A run of packctl that ends with an error tells why by a reason code, and by a right one: what the disk does is neither
unexpected nor a damaged package.

Exits with 0 when nothing was lost, nothing was stuck and every error was told, else with 1.
"""

import argparse
import collections
import concurrent.futures
import contextlib
import dataclasses
import itertools
import json
import os
import pathlib
import random
import shutil
import sys
import tempfile
import time

from aftermath import BY_ITSELF, Aftermath, HostAftermath

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parent.parent / room) for room in ("support", "model")]
from appliance import Appliance, Publisher  # noqa: E402
from model import Known  # noqa: E402
from enclosure import enclose  # noqa: E402

ERRORS = ("EIO", "ENOSPC")
POWER_CUTS = ("power", "tear")
FAULTS = ("kill", *POWER_CUTS, *ERRORS)
OLD, NEW = "1.0.0", "2.0.0"
MINIMUM = "1.5.0"
INJECTOR_FAILED = 125
FAILED = 1
MISLEADING = ("unexpected", "bad_package")  # codes that do not tell of a failing or full disk
MOST_UNREACHED = 20  # one in so many


@dataclasses.dataclass(frozen=True)
class Scenario:
    start: Appliance  # copied for every run
    command: str  # of packctl, the one that is struck; empty for the host
    old: str | None  # version of the pack that is there before
    minimum: str | None = None  # that an appliance with a keyring remembers at the end
    broken: bytes | None = None  # text of the status store when it is unreadable before
    file: pathlib.Path | None = None  # that is read, and whose reading is struck too
    ends: int = 0  # with this exit status
    finals: tuple = (NEW,)  # the versions of which one is installed at the end
    unhold: bool = False  # a person ends a hold before the days

    @property
    def aftermath(self):
        return Aftermath if self.command else HostAftermath

    @property
    def arguments(self):
        return ["--json", *self.command.split()] if self.command else []

    def run(self, appliance, *wrapper):
        if wrapper and self.file:
            wrapper = (wrapper[0], "--reads", self.file, *wrapper[1:])
        return appliance.run(appliance.program(self.aftermath.PROGRAM), *self.arguments, wrapper=wrapper)


@dataclasses.dataclass(frozen=True)
class Case:
    scenario: str
    call: int
    fault: str


@dataclasses.dataclass(frozen=True)
class Outcome:
    reached: bool
    state: str
    lost: tuple
    stuck: tuple
    reason: str | None  # the code that packctl gave for a command that failed; None when it did not, or gave none
    untold: tuple  # how packctl did not say why it failed


def reject(appliance):
    """Adds a program to the health check that rejects the new version."""
    appliance.health.mkdir(parents=True, exist_ok=True)
    program = appliance.health / "10-reject"
    program.write_text(f'#!/bin/sh\n! grep -q "{NEW}" "$1/INFO"\n')
    program.chmod(0o755)


class Matrix:
    def __init__(self, build, folder):
        self.build, self.folder = pathlib.Path(build), pathlib.Path(folder)
        self.injector = self.build / "tests/faults/fault_injector"
        self.numbers = itertools.count()
        self.scenarios = {}
        self.known = {}

    def prepare(self, publisher):
        """Makes the state that each scenario starts from."""
        Aftermath.known = Known()
        self.publisher = publisher
        self.signer = publisher.make_signer()
        old, new = publisher.publish(OLD, 1), publisher.publish(NEW, 2, minimum=MINIMUM)
        fresh = Appliance.lay_out(self.folder / "fresh", self.build)
        fresh.use_server(new, **BY_ITSELF)
        fresh.expect("check")
        self.scenarios["update"] = Scenario(fresh, "update", None)

        upgrade = Appliance.lay_out(self.folder / "upgrade", self.build)
        upgrade.use_server(old, **BY_ITSELF)
        upgrade.expect("check")
        upgrade.expect("update")
        upgrade.use_server(new, **BY_ITSELF)
        self.scenarios["check"] = Scenario(upgrade.copy_to(self.folder / "unchecked"), "check", OLD)
        upgrade.expect("check")
        self.scenarios["upgrade"] = Scenario(upgrade, "update", OLD)
        self.scenarios["hold"] = Scenario(upgrade, "hold", OLD, unhold=True)
        held = upgrade.copy_to(self.folder / "held")
        held.expect("hold")
        self.scenarios["unhold"] = Scenario(held, "unhold", OLD, unhold=True)

        signed = upgrade.copy_to(self.folder / "signed-upgrade")
        signed.trust(self.signer)
        self.scenarios["signed upgrade"] = Scenario(signed, "update", OLD, MINIMUM)

        self.scenarios["download"] = Scenario(upgrade, "download", OLD)
        downloaded = upgrade.copy_to(self.folder / "downloaded")
        downloaded.expect("download")
        self.scenarios["install"] = Scenario(downloaded, "install", OLD)

        file = next(publisher.folder.glob(f"*-{NEW}-*.opk"))
        self.scenarios["install from a file"] = Scenario(upgrade, f"install --trust --file {file}", OLD, file=file)

        broken = upgrade.copy_to(self.folder / "broken")
        text = broken.status_file.read_bytes()
        text = text[: len(text.rstrip()) // 2]
        broken.status_file.write_bytes(text)
        self.scenarios["broken store"] = Scenario(broken, "check", OLD, broken=text)

        self.scenarios["recovery"] = Scenario(self.killed_while_placing("upgrade"), "recover", OLD)
        self.prepare_rollbacks()
        self.prepare_hosts(old, new)

    def prepare_rollbacks(self):
        """Upgrades whose new pack a program of the health check rejects, and a rollback by hand."""
        rejecting = self.scenarios["upgrade"].start.copy_to(self.folder / "rejecting")
        reject(rejecting)
        self.scenarios["unhealthy upgrade"] = Scenario(rejecting, "update", OLD, ends=1, finals=(OLD,))

        upgraded = self.scenarios["upgrade"].start.copy_to(self.folder / "upgraded")
        upgraded.expect("update")
        self.scenarios["rollback"] = Scenario(upgraded, "rollback --yes", OLD, finals=(OLD, NEW))
        self.scenarios["remove"] = Scenario(upgraded, "remove", None)

    def prepare_hosts(self, old, new):
        """The states of appliances without packctl."""
        fresh = Appliance.lay_out(self.folder / "host-fresh", self.build, packctl=False)
        fresh.use_server(new, **BY_ITSELF)
        self.scenarios["host's update"] = Scenario(fresh, "", None)

        upgrade = Appliance.lay_out(self.folder / "host-upgrade", self.build, packctl=False)
        upgrade.use_server(old, **BY_ITSELF)
        upgrade.expect(program="host")
        upgrade.use_server(new, **BY_ITSELF)
        self.scenarios["host's upgrade"] = Scenario(upgrade, "", OLD)

        signed = upgrade.copy_to(self.folder / "host-signed-upgrade")
        signed.trust(self.signer)
        self.scenarios["host's signed upgrade"] = Scenario(signed, "", OLD, MINIMUM)
        rejecting = upgrade.copy_to(self.folder / "host-rejecting")
        reject(rejecting)
        self.scenarios["host's unhealthy upgrade"] = Scenario(rejecting, "", OLD, ends=1, finals=(OLD,))

        self.scenarios["host's next start"] = Scenario(self.killed_while_placing("host's upgrade"), "", OLD)

    def killed_while_placing(self, name):
        """The appliance of an upgrade that was killed just before its new pack was in place."""
        scenario = self.scenarios[name]
        killed = scenario.start.copy_to(self.folder / f"killed-{next(self.numbers)}")
        placing = next(
            int(number)
            for number, process, call, _ in self.calls(name)
            if process == "orba-copy" and call.startswith("rename")
        )
        scenario.run(killed, self.injector, "--at", placing, "--fault", "kill", "--")
        if killed.pack.exists() or not killed.backup.exists() or not killed.half_built():
            raise RuntimeError("the killed upgrade did not end before its pack was in place")
        return killed

    @contextlib.contextmanager
    def appliance_for(self, scenario):
        root = self.folder / f"run-{next(self.numbers)}"
        try:
            yield self.scenarios[scenario].start.copy_to(root)
        finally:
            shutil.rmtree(root, ignore_errors=True)

    def calls(self, name):
        """The numbered calls of an undisturbed run."""
        scenario = self.scenarios[name]
        with self.appliance_for(name) as appliance:
            record = self.folder / f"calls-{next(self.numbers)}"
            done = scenario.run(appliance, self.injector, "--record", record, "--")
            if done.returncode != scenario.ends:
                raise RuntimeError(f"the undisturbed {name} failed: {done.stdout}{done.stderr}")
            return read_record(record)

    def run(self, case):
        scenario = self.scenarios[case.scenario]
        with self.appliance_for(case.scenario) as appliance:
            record = appliance.root.with_name(f"{appliance.root.name}.calls")
            wrapper = [self.injector, "--record", record, "--at", case.call, "--fault", case.fault]
            if case.fault in POWER_CUTS:
                wrapper += ["--below", appliance.root]
            done = scenario.run(appliance, *wrapper, "--")
            ended = done.returncode
            if ended == INJECTOR_FAILED:
                raise RuntimeError(f"the injector failed at {case}")
            calls = read_record(record)
            record.unlink()
            reason, untold = None, ()
            if scenario.command and case.fault in ERRORS and ended == FAILED:
                reason, untold = told_by(done)
            state = appliance.state()
            aftermath = scenario.aftermath(
                self.publisher, appliance, scenario.old, NEW, scenario.broken, case.fault in ERRORS
            )
            aftermath.end_as(scenario.ends, scenario.finals)
            aftermath.had_store = scenario.start.status_file.exists()
            aftermath.look()
            if aftermath.after_error and not scenario.start.half_built():
                aftermath.look_after_error(calls)
            aftermath.recover()
            lost, stuck = self.going_on(case.scenario, aftermath)
            return Outcome(
                len(calls) >= case.call, state, (*aftermath.lost, *lost), (*aftermath.stuck, *stuck), reason, untold
            )

    def going_on(self, name, recovered):
        """What check and update come to after recovery, lost and stuck; the same state of the disk is tried once."""
        key = name, recovered.appliance.state()
        if key not in self.known:
            scenario = self.scenarios[name]
            later = scenario.aftermath(self.publisher, recovered.appliance, scenario.old, NEW)
            later.end_as(scenario.ends, scenario.finals)
            later.may_be_left = recovered.may_be_left
            later.minimum = scenario.minimum
            later.go_on(scenario.unhold)
            self.known[key] = later.lost, later.stuck
        return self.known[key]


def told_by(done):
    """The reason code in the answer of a command that failed, and what is wrong with it."""
    try:
        reason = json.loads(done.stdout)["error"]["code"]
    except (ValueError, KeyError, TypeError):
        return None, (f"no reason code: {done.stdout}{done.stderr}",)
    return reason, (f"told as {reason}: {done.stdout}{done.stderr}",) if reason in MISLEADING else ()


def read_record(record):
    """The numbered calls that the injector wrote down."""
    return [line.split(" ", 3) for line in record.read_text(errors="replace").splitlines()]


def with_torn_write(calls):
    """The numbers of the calls before which something was written in place that no sync has reached."""
    waiting = set()
    for number, _, call, path in calls:
        if waiting:
            yield int(number)
        if call == "pwrite64" and not path.endswith(".lock"):  # locks do not outlive a boot
            waiting.add(path)
        elif call in ("fsync", "fdatasync"):
            waiting.discard(path)
        elif call in ("sync", "syncfs"):
            waiting.clear()


def cases_of(scenario, calls):
    torn = set(with_torn_write(calls))
    for call in range(1, len(calls) + 1):
        yield from (Case(scenario, call, fault) for fault in FAULTS if fault != "tear" or call in torn)


def report(outcomes, numbered):
    """The table: what was tried and what came of it; whether anything went wrong."""
    rows = collections.defaultdict(list)
    for case, outcome in outcomes:
        rows[case.scenario, case.fault].append(outcome)
    print("\n| run | fault | calls | faults tried | not reached | states of the disk | packs lost | states stuck |")
    print("|---|---|---|---|---|---|---|---|")
    for (scenario, fault), row in sorted(rows.items()):
        print(
            f"| {scenario} | {fault} | {len(numbered[scenario])} | {len(row)} "
            f"| {sum(not outcome.reached for outcome in row)} | {len({outcome.state for outcome in row})} "
            f"| {sum(bool(outcome.lost) for outcome in row)} | {sum(bool(outcome.stuck) for outcome in row)} |"
        )
    for case, outcome in outcomes:
        for problem in (*outcome.lost, *outcome.stuck, *outcome.untold):
            _, process, call, path = numbered[case.scenario][case.call - 1]
            print(f"{case.scenario}: {case.fault} at call {case.call} ({process} {call} {path}): {problem}")
    report_reasons(outcomes)
    lost = sum(bool(outcome.lost) for _, outcome in outcomes)
    stuck = sum(bool(outcome.stuck) for _, outcome in outcomes)
    untold = sum(bool(outcome.untold) for _, outcome in outcomes)
    print(Aftermath.known.report())
    print(f"faults: {len(outcomes)} tried, {lost} lost, {stuck} stuck, 0 skipped; {untold} errors untold")
    # How many calls a run takes depends a little on its pace.
    unreached = sum(not outcome.reached for _, outcome in outcomes)
    if unreached > len(outcomes) / MOST_UNREACHED:
        print(f"{unreached} faults never came about")
        return True
    return lost or stuck or untold


def report_reasons(outcomes):
    """The table of the reasons that packctl gave."""
    reasons = collections.Counter((case.fault, outcome.reason) for case, outcome in outcomes if outcome.reason)
    print("\n| fault | reason code | commands that failed |\n|---|---|---|")
    for (fault, reason), count in sorted(reasons.items()):
        print(f"| {fault} | `{reason}` | {count} |")
    print()


def chosen(cases, numbered, seconds, seed):
    """All cases, or as many as the time allows: by turns one of each scenario, fault and program, in a seeded order."""
    if seconds is None:
        yield from cases
        return
    end = time.monotonic() + seconds
    strata = collections.defaultdict(list)
    for case in random.Random(seed).sample(cases, len(cases)):
        program = numbered[case.scenario][case.call - 1][1]
        strata[case.scenario, case.fault, program].append(case)
    turns = itertools.chain.from_iterable(itertools.zip_longest(*strata.values()))
    yield from itertools.takewhile(lambda _: time.monotonic() < end, filter(None, turns))


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument(
        "--seconds", type=float, help="try a spread of the cases for about this long; all when left out"
    )
    parser.add_argument(
        "--seed", type=int, default=None, help="what decides the spread; a new one each time by default"
    )
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
        if arguments.seconds is not None:
            print(f"a spread of {len(cases)} cases for {arguments.seconds:.0f} s, seed {seed}", flush=True)
        outcomes = []
        with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as workers:
            waiting = set()
            for case in chosen(cases, numbered, arguments.seconds, seed):
                if len(waiting) >= 2 * arguments.jobs:
                    done, waiting = concurrent.futures.wait(waiting, return_when=concurrent.futures.FIRST_COMPLETED)
                    outcomes.extend(future.result() for future in done)
                waiting.add(workers.submit(lambda chosen_case: (chosen_case, matrix.run(chosen_case)), case))
            outcomes.extend(future.result() for future in waiting)
        failed = report(sorted(outcomes, key=lambda pair: dataclasses.astuple(pair[0])), numbered)
    sys.exit(1 if failed or not outcomes else 0)


if __name__ == "__main__":
    main()
