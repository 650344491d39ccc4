#!/usr/bin/env python3
"""Cuts the power of an appliance in every stage of an update, and looks at what the disk held.

The appliance lies on an ext4 image, and the image on a file system that shares blocks. A cut is a clone of the image at
one instant: what had been written to the disk by then, nothing else. The clone is mounted as after a boot; recovery,
and then what the timers do in two days against the healthy server, must end up to date with the right pack.

A stage lasts for as long as the same of pack, backup, unpacked files, half-built pack and download are there. An
undisturbed run tells the stages and how long each takes; the cuts go through them by turns, each at a random instant of
its stage, so that the short ones are not left to chance.

Exits with 0 when nothing was lost and nothing was stuck, with 1 otherwise, and with 77 (skipped) where the machine
lacks the privilege or the programs that it takes.
"""

import argparse
import collections
import contextlib
import os
import pathlib
import random
import shutil
import signal
import subprocess
import sys
import tempfile
import time

from aftermath import Aftermath

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402

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


class Bench:
    """The images and the states that the updates start from."""

    def __init__(self, folder, store, build, publisher):
        self.folder, self.store, self.build, self.publisher = folder, store, build, publisher
        signer = publisher.make_signer()
        old, new = publisher.publish(OLD, 1, SIZES), publisher.publish(NEW, 2, SIZES, minimum=MINIMUM)
        self.starts = {"update": None, "upgrade": OLD, "upgrade from a file": OLD}
        self.commands = {name: ["update"] for name in self.starts}
        file = next(publisher.folder.glob(f"*-{NEW}-*.opk"))
        self.commands["upgrade from a file"] = ["install", "--file", str(file)]
        for name, version in self.starts.items():
            image = store / f"{name}.img"
            with image.open("wb") as file:
                file.truncate(128 * 2**20)
            run("mkfs.ext4", "-q", "-F", image)
            with mounted(image, folder / "mount") as mount:
                appliance = Appliance.lay_out(mount / "root", build)
                appliance.trust(signer)
                if version:
                    appliance.use_server(old)
                    appliance.expect("check")
                    appliance.expect("update")
                appliance.use_server(new)
                appliance.expect("check")

    def clone(self, image, name):
        copy = self.store / name
        # A new file: mounting the old one again may reuse its loop device, with what that holds in memory.
        copy.unlink(missing_ok=True)
        run("cp", "--reflink=always", image, copy)
        return copy

    def start(self, name, mount):
        appliance = Appliance(mount / "root", self.build)
        return subprocess.Popen(
            [str(appliance.program("packctl")), *self.commands[name]],
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
            if process.returncode != 0:
                raise RuntimeError(f"the undisturbed {name} failed")
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
            aftermath = Aftermath(self.publisher, appliance, self.starts[name], NEW)
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
            ("unpacked", appliance.unpacked),
            ("download", appliance.download),
        )
        if path.exists()
    ]
    if any(appliance.packages.glob(f".{appliance.pack.name}.partial.*")):
        there.append("half-built")
    return ", ".join(there) or "nothing"


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--cuts", type=int, default=200, help="how many cuts")
    parser.add_argument(
        "--seed", type=int, default=None, help="what decides the instants; a new one each time by default"
    )
    arguments = parser.parse_args()
    reason = why_impossible()
    if reason:
        skip(arguments.cuts, reason)
    seed = random.randrange(2**32) if arguments.seed is None else arguments.seed
    instants = random.Random(seed)
    memory = "/dev/shm" if os.access("/dev/shm", os.W_OK) else None
    rows, lost, stuck = collections.Counter(), 0, 0
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="orbamira-power-", dir=memory)))
        publisher = stack.enter_context(Publisher(folder / "published", arguments.build))
        disk = folder / "disk.img"
        with disk.open("wb") as file:
            file.truncate(2 * 2**30)
        run("mkfs.xfs", "-q", "-m", "reflink=1", disk)
        try:
            store = stack.enter_context(mounted(disk, folder / "store"))
        except subprocess.CalledProcessError as error:
            skip(arguments.cuts, f"images cannot be mounted: {error.stderr.decode().strip()}")
        bench = Bench(folder, store, arguments.build, publisher)
        stages = [(name, stage, seconds) for name in bench.starts for stage, seconds in bench.stages(name).items()]
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
