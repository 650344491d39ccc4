#!/usr/bin/env python3
"""Rebuilds what the disk below /var may hold after a power cut, from all writes and flushes that reached its device.

The runs are those of fault_matrix.py. Each is made on ext4, xfs and btrfs, on a loop device whose every write and flush
goes to a log: alone, and beside a program that syncs a file of its own all the time, so that the file system writes its
journal at any instant. From the log come the images that a cut may leave: at each flush, and between two flushes with
any choice of the writes in flight, the last of them torn at a sector. Each distinct image is mounted, which replays the
journal, and its tree is read: names, kinds, modes and contents. What a tree comes to is tried on the first image that
shows it: the pack is whole or absent, the status store is readable; then recovery runs, and two days of the timers,
which must end up to date with the right pack and nothing left behind.

With --journal each recording is written down when all its images were tried, and a second run with the same journal
goes on until there are as many images as wanted. Every recording is made on a new file system, whose images have an
identity of their own, so that those of two recordings are never the same.

Exits with 0 when nothing was lost and nothing was stuck, with 1 otherwise, and with 77 (skipped) where the machine
lacks the privilege or the programs that it takes.
"""

import argparse
import collections
import contextlib
import dataclasses
import hashlib
import itertools
import math
import multiprocessing
import multiprocessing.connection
import os
import pathlib
import random
import shutil
import stat
import subprocess
import sys
import tempfile
import time

import disk
from crash_images import CrashImages

TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / "faults"), str(TESTS / "support")]
from appliance import Appliance, Publisher  # noqa: E402
from fault_matrix import NEW, Matrix  # noqa: E402
from journal import Journal  # noqa: E402

SKIPPED = 77
LARGEST = 2500  # images of one recording
SPREAD = 40  # the same where a spread is tried
NEVER = math.inf


@dataclasses.dataclass(frozen=True)
class Recording:
    """What is recorded, and how many of its images are tried."""

    file_system: str
    run: str
    beside_another: bool  # program, which syncs
    images: int
    seed: int


def tree_of(folder):
    """A digest of what a folder shows: names, kinds, modes and contents."""
    entries = []
    for path, folders, files in os.walk(folder):
        for name in (*folders, *files):
            entry = os.path.join(path, name)
            status = os.lstat(entry)
            content = b""
            if stat.S_ISLNK(status.st_mode):
                content = os.fsencode(os.readlink(entry))
            elif stat.S_ISREG(status.st_mode):
                with open(entry, "rb", buffering=0) as file:
                    content = hashlib.sha256(file.read()).digest()
            entries.append((entry, status.st_mode, content))
    return hashlib.sha256(repr(sorted(entries)).encode()).digest()


class Trial:
    """Records one run and tries its images, in a folder of its own."""

    def __init__(self, matrix, recording, folder):
        self.matrix, self.recording = matrix, recording
        self.scenario = matrix.scenarios[recording.run]
        self.appliance = Appliance(folder / "root", matrix.build)
        self.var = self.appliance.root / "var"
        recorder = matrix.build / "tests/blocks/block_recorder"
        self.images = CrashImages(recorder, recording.file_system, folder, self.var)
        self.tried = 0
        self.trees = {}  # to what came of it: lost, stuck
        self.found = {"lost": [], "stuck": []}  # the images where something was, with the problem

    def record(self):
        start = self.scenario.start.root
        shutil.copytree(start, self.appliance.root, symlinks=True)
        shutil.rmtree(self.var)
        self.var.mkdir()
        self.images.fill(start / "var")
        done = self.images.record(lambda: self.scenario.run(self.appliance), self.recording.beside_another)
        if done.returncode != self.scenario.ends:
            raise RuntimeError(f"the undisturbed {self.recording.run} failed: {done.stdout}{done.stderr}")

    def try_images(self, end):
        """Tries them all, or as many as there is time for."""
        for image in self.images.each(self.recording.images, self.recording.seed):
            if time.time() > end:
                break
            with contextlib.ExitStack() as stack:
                try:
                    stack.enter_context(self.images.mounted(self.images.image))
                    tree = tree_of(self.var)
                except OSError as error:
                    tree = error.errno  # of which there is nothing more to try
                    self.trees[tree] = [f"the disk cannot be read: {error}"], []
                if tree not in self.trees:
                    self.trees[tree] = self.aftermath()
            self.tried += 1
            for kind, problems in zip(self.found, self.trees[tree]):
                if problems:
                    self.found[kind].append((image, problems))

    def aftermath(self):
        """What is lost and stuck on the disk that is mounted, after a boot and two days."""
        start, appliance = self.scenario.start, self.appliance
        shutil.rmtree(appliance.run_folder)
        shutil.copytree(start.run_folder, appliance.run_folder)
        aftermath = self.scenario.aftermath(
            self.matrix.publisher, appliance, self.scenario.old, NEW, self.scenario.broken
        )
        aftermath.end_as(self.scenario.ends, self.scenario.finals)
        aftermath.had_store = start.status_file.exists()
        aftermath.minimum = self.scenario.minimum
        try:
            aftermath.look()
            aftermath.recover()
            aftermath.go_on(self.scenario.unhold)
        except subprocess.TimeoutExpired as error:
            aftermath.stuck.append(str(error))
        return aftermath.lost, aftermath.stuck


def try_recording(matrix, recording, end):
    """What the journal keeps of a recording."""
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="recording-", dir=matrix.folder) as folder:
        trial = Trial(matrix, recording, pathlib.Path(folder))
        trial.record()
        trial.try_images(end)
    return {
        **dataclasses.asdict(recording),
        "writes": sum(map(len, trial.images.log)),
        "flushes": len(trial.images.log) - 1,
        "tried": trial.tried,
        "trees": len(trial.trees),
        **{kind: len(images) for kind, images in trial.found.items()},
        "problems": [*trial.found["lost"][:3], *trial.found["stuck"][:3]],
        "seconds": round(time.monotonic() - began, 1),
    }


def recordings(file_systems, runs, images, randomness):
    """Without end: every run on every file system, alone and beside another program, by rounds."""
    kinds = list(itertools.product(file_systems, runs, (False, True)))
    while True:
        for kind in randomness.sample(kinds, len(kinds)):
            yield Recording(*kind, images, randomness.randrange(2**32))


class Workers:
    """Recordings at work side by side, each in a process of its own."""

    def __init__(self, matrix, end):
        self.matrix, self.end = matrix, end
        self.context = multiprocessing.get_context("fork")
        self.at_work = {}  # where the result comes from, to the process and the recording

    def __enter__(self):
        return self

    def __exit__(self, *_):
        for process, _ in self.at_work.values():
            process.kill()
            process.join()

    def start(self, recording):
        receiver, sender = self.context.Pipe(duplex=False)
        process = self.context.Process(target=self._work, args=(recording, sender))
        process.start()
        sender.close()
        self.at_work[receiver] = process, recording

    def _work(self, recording, sender):
        disk.end_with_parent()
        sender.send(try_recording(self.matrix, recording, self.end))

    def images(self):
        """How many are still to come, at most."""
        return sum(recording.images for _, recording in self.at_work.values())

    def results(self):
        """Those of the next ones that end."""
        for receiver in multiprocessing.connection.wait(list(self.at_work)):
            process, recording = self.at_work.pop(receiver)
            with receiver:
                try:
                    yield receiver.recv()
                except EOFError:
                    raise RuntimeError(f"{recording} could not be tried") from None
            process.join()


def run_all(matrix, arguments, journal):
    """Tries recordings until there are enough images or the time is up."""
    end = NEVER if arguments.seconds is None else time.time() + arguments.seconds
    images = SPREAD
    if arguments.seconds is None:
        kinds = 2 * len(arguments.file_systems) * len(arguments.runs)
        images = min(LARGEST, math.ceil(arguments.images / kinds))
    randomness = random.Random(f"{arguments.seed} {len(journal.entries)}")
    drawn = recordings(arguments.file_systems, arguments.runs, images, randomness)
    with Workers(matrix, end) as workers:
        while True:
            wanted = arguments.images - sum(entry["tried"] for entry in journal.entries)
            while time.time() < end and workers.images() < wanted and len(workers.at_work) < arguments.jobs:
                workers.start(next(drawn))
            if not workers.at_work:
                return
            for entry in workers.results():
                journal.add(**entry)


def report(entries):
    """The table: what was tried and what came of it; whether anything went wrong."""
    rows = collections.defaultdict(collections.Counter)
    rates = collections.defaultdict(collections.Counter)
    for entry in entries:
        numbers = {name: value for name, value in entry.items() if isinstance(value, (int, float))}
        rows[entry["file_system"], entry["run"]].update({**numbers, "recordings": 1})
        rates[entry["file_system"]].update(numbers)
    columns = ("recordings", "writes", "flushes", "tried", "trees", "lost", "stuck")
    print("\n| file system | run | recordings | writes | flushes | distinct images | trees | lost | stuck |")
    print("|---|---|---|---|---|---|---|---|---|")
    for (file_system, run), row in sorted(rows.items()):
        print(f"| {file_system} | {run} | {' | '.join(str(row[column]) for column in columns)} |")
    for entry in entries:
        for image, problems in entry["problems"]:
            print(f"{entry['file_system']}: {entry['run']} {image}: {'; '.join(problems)}")
    for file_system, total in sorted(rates.items()):
        print(f"{file_system}: {total['tried']} images, {total['tried'] / total['seconds']:.0f} per second and worker")
    tried, lost, stuck = (sum(entry[name] for entry in entries) for name in ("tried", "lost", "stuck"))
    print(f"crash states: {tried} tried, {lost} lost, {stuck} stuck, 0 skipped")
    return lost or stuck or not tried


def parse():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--seconds", type=float, help="try a spread of the images for about this long")
    parser.add_argument("--images", type=int, help="without --seconds: at least so many (default 100000)")
    parser.add_argument("--journal", type=pathlib.Path, help="file that keeps the recordings, to go on from later")
    parser.add_argument("--seed", type=int, help="what decides the draw; a new one by default")
    parser.add_argument("--jobs", type=int, default=3 * os.cpu_count(), help="recordings at work side by side")
    parser.add_argument("--file-system", dest="file_systems", action="append", choices=disk.MAKE, help="only this one")
    parser.add_argument("--run", dest="runs", action="append", metavar="RUN", help="only this run of the matrix")
    arguments = parser.parse_args()
    if arguments.images is None:
        arguments.images = 100_000 if arguments.seconds is None else NEVER
    if arguments.seed is None:
        arguments.seed = random.randrange(2**32)
    arguments.file_systems = arguments.file_systems or list(disk.MAKE)
    return arguments


def main():
    arguments = parse()
    reason = disk.why_impossible()
    if reason:
        print(f"crash states: 0 tried, 0 lost, 0 stuck, 1 skipped: {reason}")
        sys.exit(SKIPPED)
    began = time.monotonic()
    with contextlib.ExitStack() as stack:
        outside = stack.enter_context(tempfile.TemporaryDirectory(prefix="orbamira-blocks-"))
        folder = pathlib.Path(stack.enter_context(disk.memory(outside)))
        publisher = stack.enter_context(Publisher(folder / "published", arguments.build))
        journal = stack.enter_context(Journal(arguments.journal))
        matrix = Matrix(arguments.build, folder)
        matrix.prepare(publisher)
        arguments.runs = arguments.runs or list(matrix.scenarios)
        print(f"crash states of {len(arguments.runs)} runs, seed {arguments.seed}", flush=True)
        run_all(matrix, arguments, journal)
    failed = report(journal.entries)
    print(f"in {time.monotonic() - began:.0f} s")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
