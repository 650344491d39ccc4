#!/usr/bin/env python3
"""Cuts the power of an appliance in every stage of a run of packctl, and looks at what the disk held.

The runs are a first update; an upgrade, from the server and from a file; an upgrade whose new pack a program of the
health check rejects, so that the old one comes back; and a rollback by hand.

The appliance lies on an ext4 image, and the image on a file system that shares blocks. A cut is a clone of the image at
one instant: what had been written to the disk by then, nothing else. The clone is mounted as after a boot; recovery,
and then what the timers do in two days against the healthy server, must end up to date with the right pack.

A stage lasts for as long as the same of pack, backup, previous pack, unpacked files, half-built pack, download and
rejected version are there. An
undisturbed run tells the stages and how long each takes; the cuts go through them by turns, each at a random instant of
its stage, so that the short ones are not left to chance.

Exits with 0 when nothing was lost and nothing was stuck, with 1 otherwise, and with 77 (skipped) where the machine
lacks the privilege or the programs that it takes.
"""

import argparse
import collections
import contextlib
import dataclasses
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from aftermath import BY_ITSELF, Aftermath

from fault_matrix import reject

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402
from enclosure import enclose  # noqa: E402

SKIPPED = 77
OLD, NEW = "1.0.0", "2.0.0"
MINIMUM = "1.5.0"
SIZES = (4_000_000, 1_500_000, 300_000, 20_000)
POLL = 0.0005
HANG = 600  # seconds, far more than an update takes
NEEDED = ("mkfs.ext4", "mkfs.xfs", "mount", "umount", "cp")


def run(*command):
    subprocess.run([str(word) for word in command], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


@contextlib.contextmanager
def mounted(image, folder):
    folder.mkdir(exist_ok=True)
    run("mount", "-o", "loop", image, folder)
    try:
        yield folder
    finally:
        # A family that was just killed may hold the mount a moment longer.
        end = time.monotonic() + 300
        while subprocess.run(["umount", str(folder)], check=False, capture_output=True).returncode != 0:
            if time.monotonic() > end:
                raise RuntimeError(f"{folder} stays busy")


def why_impossible():
    if os.geteuid() != 0:
        return "mounting images takes root"
    missing = [program for program in NEEDED if shutil.which(program) is None]
    if missing:
        return f"missing programs: {' '.join(missing)}"
    if not os.path.exists("/dev/loop-control"):
        return "the machine has no loop devices"
    return None


def while_running(process):
    """Comes round every POLL seconds until the process ends; one that does not end is an error."""
    deadline = time.monotonic() + HANG
    while process.poll() is None:
        if time.monotonic() > deadline:
            raise RuntimeError("an update does not end")
        yield
        time.sleep(POLL)


def skip(cuts, reason):
    print(f"power cuts: 0 tried, 0 lost, 0 stuck, {cuts} skipped: {reason}")
    sys.exit(SKIPPED)


@dataclasses.dataclass(frozen=True)
class Run:
    command: tuple  # of packctl
    old: str | None = OLD  # version of the pack that is there before
    is_updated: bool = False  # to the new pack before
    is_rejected: bool = False  # by the health check: the new pack
    ends: int = 0  # with this exit status
    finals: tuple = (NEW,)  # the versions of which one is installed at the end


def runs_of(file):
    """Everything whose power is cut, where a stick holds the file."""
    return {
        "update": Run(("update",), old=None),
        "upgrade": Run(("update",)),
        "upgrade from a file": Run(("install", "--file", str(file))),
        "unhealthy upgrade": Run(("update",), is_rejected=True, ends=1, finals=(OLD,)),
        "rollback": Run(("rollback", "--yes"), is_updated=True, finals=(OLD, NEW)),
    }


def slow_down(appliance):
    """Adds a plugin that takes its time. Without one nothing but a rename lies between the steps of a way back."""
    plugin = appliance.plugins / "10-slow"
    plugin.write_text("#!/bin/sh\nsleep 0.05\n")
    plugin.chmod(0o755)


class Bench:
    """The images and the states that the runs start from."""

    def __init__(self, folder, store, build, publisher, chosen):
        self.folder, self.store, self.build, self.publisher = folder, store, build, publisher
        self.signer = publisher.make_signer()
        self.offers = publisher.publish(OLD, 1, SIZES), publisher.publish(NEW, 2, SIZES, minimum=MINIMUM)
        runs = runs_of(next(publisher.folder.glob(f"*-{NEW}-*.opk")))
        self.runs = {name: runs[name] for name in chosen or runs}
        for name, run_of in self.runs.items():
            image = store / f"{name}.img"
            with image.open("wb") as file:
                file.truncate(128 * 2**20)
            run("mkfs.ext4", "-q", "-F", image)
            with mounted(image, folder / "mount") as mount:
                self.prepare(Appliance.lay_out(mount / "root", build), run_of)

    def prepare(self, appliance, run_of):
        old, new = self.offers
        appliance.trust(self.signer)
        if run_of.old:
            appliance.use_server(old, **BY_ITSELF)
            appliance.expect("check")
            appliance.expect("update")
        appliance.use_server(new, **BY_ITSELF)
        appliance.expect("check")
        if run_of.is_updated:
            appliance.expect("update")
        if run_of.is_rejected:
            reject(appliance)
        if run_of.is_updated or run_of.is_rejected:
            slow_down(appliance)

    def clone(self, image, name):
        copy = self.store / name
        # A new file: mounting the old one again may reuse its loop device, with what that holds in memory.
        copy.unlink(missing_ok=True)
        run("cp", "--reflink=always", image, copy)
        return copy

    def start(self, name, mount):
        appliance = Appliance(mount / "root", self.build)
        return subprocess.Popen(
            [str(appliance.program("packctl")), *self.runs[name].command],
            env=appliance.environment(),
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
            start_new_session=True,
        )

    def stages(self, name):
        """The stages of an undisturbed run with the seconds that each takes."""
        found = {}
        image = self.clone(self.store / f"{name}.img", "run.img")
        with mounted(image, self.folder / "mount") as mount:
            process = self.start(name, mount)
            last = time.monotonic()
            for _ in while_running(process):
                stage = held(Appliance(mount / "root", self.build))
                now = time.monotonic()
                found[stage] = found.get(stage, 0) + now - last
                last = now
            if process.returncode != self.runs[name].ends:
                raise RuntimeError(f"the undisturbed {name} ended with {process.returncode}")
            found.setdefault(held(Appliance(mount / "root", self.build)), 0)
        return found

    def cut(self, name, stage, delay):
        """One power cut so long after the stage began; what was there then and on the disk, lost and stuck."""
        image = self.clone(self.store / f"{name}.img", "run.img")
        with mounted(image, self.folder / "mount") as mount:
            process = self.start(name, mount)
            running = Appliance(mount / "root", self.build)
            for _ in while_running(process):
                if held(running) == stage:
                    break
            with contextlib.suppress(subprocess.TimeoutExpired):
                process.wait(timeout=delay)
            there = held(running)
            cut = self.clone(image, "cut.img")
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGKILL)
            process.wait()
        with mounted(cut, self.folder / "mount") as mount:
            appliance = Appliance(mount / "root", self.build)
            aftermath = Aftermath(self.publisher, appliance, self.runs[name].old, NEW)
            aftermath.end_as(self.runs[name].ends, self.runs[name].finals)
            aftermath.minimum = MINIMUM
            aftermath.look()
            on_disk = held(appliance)
            aftermath.recover()
            aftermath.go_on()
        return f"{there} | {on_disk}", aftermath.lost, aftermath.stuck


def held(appliance):
    """What of an update is there, in words."""
    there = [
        name
        for name, path in (
            ("pack", appliance.pack),
            ("backup", appliance.backup),
            ("previous", appliance.previous),
            ("unpacked", appliance.unpacked),
            ("download", appliance.download),
            ("rejected", appliance.health_file),
        )
        if path.exists()
    ]
    if any(appliance.packages.glob(f".{appliance.pack.name}.partial.*")):
        there.append("half-built")
    return ", ".join(there) or "nothing"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--cuts", type=int, default=300, help="how many cuts")
    parser.add_argument("--run", action="append", choices=runs_of(""), help="only this run; may be given several times")
    parser.add_argument(
        "--seed", type=int, default=None, help="what decides the instants; a new one each time by default"
    )
    arguments = parser.parse_args()
    reason = why_impossible()
    if reason:
        skip(arguments.cuts, reason)
    enclose(arguments.build, "unshare", "--mount")  # what is mounted goes, too
    seed = random.randrange(2**32) if arguments.seed is None else arguments.seed
    instants = random.Random(seed)
    rows, lost, stuck = collections.Counter(), 0, 0
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="orbamira-power-")))
        publisher = stack.enter_context(Publisher(folder / "published", arguments.build))
        disk = folder / "disk.img"
        with disk.open("wb") as file:
            file.truncate(2 * 2**30)
        run("mkfs.xfs", "-q", "-m", "reflink=1", disk)
        try:
            store = stack.enter_context(mounted(disk, folder / "store"))
        except subprocess.CalledProcessError as error:
            skip(arguments.cuts, f"images cannot be mounted: {error.stderr.decode().strip()}")
        bench = Bench(folder, store, arguments.build, publisher, arguments.run)
        stages = [(name, stage, seconds) for name in bench.runs for stage, seconds in bench.stages(name).items()]
        print(f"power cuts by turns in {len(stages)} stages, seed {seed}", flush=True)
        for number in range(arguments.cuts):
            name, stage, seconds = stages[number % len(stages)]
            delay = instants.uniform(0, seconds)
            found, cut_lost, cut_stuck = bench.cut(name, stage, delay)
            rows[f"{name} | {found}"] += 1
            lost += bool(cut_lost)
            stuck += bool(cut_stuck)
            for problem in (*cut_lost, *cut_stuck):
                print(f"{name}: cut {delay:.4f} s after \"{stage}\" began ({found}): {problem}", flush=True)
    print("\n| run | there at the cut | on the disk | cuts |\n|---|---|---|---|")
    for row, count in sorted(rows.items()):
        print(f"| {row} | {count} |")
    print(f"power cuts: {arguments.cuts} tried, {lost} lost, {stuck} stuck, 0 skipped")
    sys.exit(1 if lost or stuck else 0)


if __name__ == "__main__":
    main()
