#!/usr/bin/env python3
"""Boots a machine where something is wrong that is not the updater's fault: nothing is held up, and a reason is given.

A read-only root, a full disk under /var, a clock at 1970, no network, and a network with IPv6 only. Each time the
machine reaches multi-user.target in the usual time, recovery among it, every command ends, the reason code says what is
wrong, and the doctor finds it. Where an update is possible, the timers bring it.
"""

import argparse
import dataclasses
import json
import sys
import typing

from machine import IPV6_ONLY, Hung
from trial import Trial, add_arguments, bench, disk

# A boot may take so many seconds longer than usual; a unit that waits in vain does so for 90 or more. And so many times
# as long: the machine outside may have got other work.
SLACK, FACTOR = 75, 3
LIMIT = 150  # seconds that a command may take
TIMED_OUT = 124
COMMANDS = ("status", "doctor", "check", "update")


def fill(root):
    """Until not a byte goes in any more."""
    for size in (1 << 20, 4096, 1):
        with (root / f"var/full-{size}").open("wb", buffering=0) as file:
            try:
                while file.write(b"x" * size):
                    pass
            except OSError:
                continue


def forget_signatures(root):
    """As on a machine that never accepted one."""
    (root / "var/lib/orbamira/accepted-packages").unlink()


@dataclasses.dataclass(frozen=True)
class Oddity:
    name: str
    code: str  # that tells of it; empty where the update succeeds all the same
    finding: str = ""  # what the doctor checks that tells of it, too
    machine: typing.Mapping = dataclasses.field(default_factory=dict)
    plant: typing.Callable = None


IN_1970 = {"more": ("-rtc", "base=1970-01-01T00:00:00")}
ODDITIES = (
    Oddity("read-only root", "disk_error", "permissions", {"mount": "ro"}),
    Oddity("full disk", "no_space", "space", plant=fill),
    Oddity("clock at 1970", "", "clock", IN_1970),
    Oddity("clock at 1970, no signature yet", "clock_behind", "clock", IN_1970, forget_signatures),
    Oddity("no network", "server_unreachable", "server", {"network": None}),
    Oddity("IPv6 only", "", machine={"network": IPV6_ONLY}),
)


def ask(machine, command):
    """What packctl answers; None when it hangs."""
    *output, status = machine.run(f"timeout {LIMIT} packctl {command} --json; echo $?").decode().splitlines()
    answers = [json.loads(line) for line in output if line.startswith("{")]
    return None if int(status) == TIMED_OUT else answers[0]


def problems_with_boot(trial, machine):
    seconds = machine.await_boot()
    problems = []
    if seconds > max(trial.boot_seconds + SLACK, FACTOR * trial.boot_seconds):
        problems.append(f"it took {seconds:.0f} s to boot, and {trial.boot_seconds:.0f} s usually")
    recovery = machine.run("systemctl show --property=ActiveState,Result --value orbamira-recover.service").decode()
    if set(recovery.split()) != {"active", "success"}:
        problems.append(f"recovery: {recovery.split()}")
    return problems, seconds


def problems_of(trial, oddity):
    """What is wrong with the boot and what follows, what was told, and the seconds that the boot took."""
    with trial.machine(**oddity.machine) as machine:
        problems, seconds = problems_with_boot(trial, machine)
        if not oddity.code:
            trial.await_update(machine)
        trial.settle(machine)
        answers = {command: ask(machine, command) for command in COMMANDS if oddity.code or command != "update"}
    problems += [f"packctl {command} hangs" for command, answer in answers.items() if answer is None]
    answers = {command: answer or {} for command, answer in answers.items()}
    errors = [answer["error"] for answer in answers.values() if answer.get("error")]
    code = errors[-1]["code"] if errors else ""
    if code != oddity.code:
        problems.append(f"the reason is {code or 'not told'}")
    found = [finding["check"] for finding in answers["doctor"].get("findings", ())]
    if oddity.finding and oddity.finding not in found:
        problems.append(f"the doctor finds {found}")
    return problems, f"{code or 'updated'}, doctor: {' '.join(sorted(set(found)))}", seconds


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    add_arguments(parser)
    parser.add_argument("--fs", default="ext4", choices=disk.MAKE, help="the file system of the root")
    parser.add_argument("--only", help="only this boot")
    arguments = parser.parse_args()
    stuck = 0
    with bench("odd boots", arguments) as prepared:
        trial = Trial(prepared, arguments.fs)
        trial.make()
        trial.version += 1
        prepared.server.offer(trial.text())
        disk.copy(trial.ran, trial.image)
        chosen = [oddity for oddity in ODDITIES if arguments.only in (None, oddity.name)]
        for oddity in chosen:
            disk.copy(trial.image, trial.ran)
            trial.plant(oddity.plant or (lambda root: None))
            try:
                problems, told, seconds = problems_of(trial, oddity)
            except Hung as error:
                problems, told, seconds = [str(error)], "", 0
            print(f"{oddity.name}: {seconds:.0f} s, {told}: {'; '.join(problems) or 'ok'}", flush=True)
            stuck += bool(problems)
    print(f"odd boots: {len(chosen)} tried, 0 lost, {stuck} stuck, 0 skipped")
    sys.exit(1 if stuck else 0)


if __name__ == "__main__":
    main()
