#!/usr/bin/env python3
"""Updates one appliance again and again, with faults among the updates, and looks at whether anything grows.

The versions rise; two payloads, with files of different names, take turns, so that a file which one leaves behind is
noticed. The updates are made by packctl and, through the library, by a host that runs all the time, in a random order.
One of ten meets a fault drawn at random:

- packctl is killed, loses its power, tears a write, or meets EIO or ENOSPC, at a random call of a check and an update;
- the host meets a server that answers 500, ends a body too soon, sends a wrong package, or says nothing until it hangs
  up; in the reply or in the package;
- the host has a plugin that fails, hangs, or leaves a process behind;
- packctl and the host update at the same instant; both take the update lock, or the host does not.

After a fault the pack is whole, and what the timers do in two days, or the host when it updates again, must end up to
date with the right pack and nothing left behind. At the end the host's memory and descriptors, the files and bytes of
the appliance, its processes and temporary files must be as after the first hundred updates, and the history within
its bound.

Exits with 0 when nothing was lost, nothing was stuck and nothing grew, else with 1.
"""

import argparse
import collections
import contextlib
import dataclasses
import functools
import http.server
import importlib
import os
import pathlib
import random
import re
import select
import subprocess
import sys
import tempfile
import threading
import time

from aftermath import BY_ITSELF, Aftermath
from fault_matrix import FAULTS, INJECTOR_FAILED, POWER_CUTS, read_record, with_torn_write

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher, mkpack_of, pack_options, tree  # noqa: E402
from enclosure import enclose  # noqa: E402

PAYLOADS = {"first": (8_000, 20_000), "second": (5_000, 3_000, 12_000)}
ONE_IN = 10  # updates meets a fault
STRETCH = 100  # updates from one look at what grows to the next
BY_HOST = 3  # updates without a fault that the host makes for one by packctl
LOOKS_A_ROW = 10  # of what is printed
PATIENCE = 300  # seconds, far more than it takes
KEPT = 6  # versions whose packs are known
FIRST = 1  # version of the pack that is there before the first update

# What the host's memory may grow by. It was seen to move by 30 KiB; 16 bytes that each of 10,000 updates keeps are 160.
MEMORY_KIB = 128
HISTORY = 256 * 1024 + 16 * 1024  # bytes of a file of the history: an entry may go beyond the size at which it ends

QUIET = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL, "stderr": subprocess.DEVNULL}
SERVER_FAULTS = ("500", "cut", "wrong", "silent")
PLUGINS = {"fails": "exit 1", "hangs": "exec sleep 1000", "leaves a process": "sleep 1000 & exit 0"}
PLUGIN_SECONDS = 0.1
HEAD_START = 0.05  # seconds that packctl has at most before the host begins
PLANTS = ("descriptor", "memory", "file", "process")


class Releases(Publisher):
    """Publishes one of two payloads under a new version, and serves it well or badly."""

    def __enter__(self):
        super().__enter__()
        releases = self
        self.fault, self.part = None, None  # what the server does wrong, and with which of "reply" and "package"
        self.asked, self.hang_up = threading.Event(), threading.Event()

        class Handler(http.server.SimpleHTTPRequestHandler):
            def do_GET(self):
                if releases.fault and releases.part == ("package" if self.path.endswith(".opk") else "reply"):
                    releases.misbehave(self)
                else:
                    super().do_GET()

            def log_message(self, *_):
                pass

        self.server.RequestHandlerClass = functools.partial(Handler, directory=str(self.folder))
        made = [self.make_payload(name, number, sizes) for number, (name, sizes) in enumerate(PAYLOADS.items())]
        sys.path.insert(0, str(mkpack_of(self.build).parent))
        self.mkpack = importlib.import_module("orbamira_mkpack.publish")
        self.kinds = [(payload, tree(payload)) for payload in made]
        return self

    def release(self, version, kind):
        """Publishes the payload of that number, and takes back all others; returns the reply's address. In this
        process: another one for each version would take longer than the update."""
        payload, held = self.kinds[kind]
        for old in (*self.folder.glob("*.opk"), *self.folder.glob("*.json")):
            old.unlink()
        reply = self.folder / "reply.json"
        with open(os.devnull, "w", encoding="utf-8") as nowhere, contextlib.redirect_stdout(nowhere):
            self.mkpack.main(pack_options(self.build, payload, self.folder, version, self.url, reply=reply))
        self.payloads[version] = held
        for gone in list(self.payloads)[:-KEPT]:
            del self.payloads[gone]
        return f"{self.url}/{reply.name}"

    @contextlib.contextmanager
    def misbehaving(self, fault, part):
        self.asked.clear()
        self.hang_up.clear()
        self.fault, self.part = fault, part
        try:
            yield
        finally:
            self.fault = None
            self.hang_up.set()

    def misbehave(self, handler):
        self.asked.set()
        handler.close_connection = True
        body = pathlib.Path(handler.translate_path(handler.path)).read_bytes()
        if self.fault == "500":
            handler.send_error(500)
            return
        if self.fault == "silent" and self.part == "reply":
            self.hang_up.wait(PATIENCE)
            return
        handler.send_response(200)
        handler.send_header("Content-Length", str(len(body)))
        handler.end_headers()
        if self.fault == "wrong":
            handler.wfile.write(bytes(byte ^ 1 for byte in body))
            return
        handler.wfile.write(body[: len(body) // 2])
        if self.fault == "silent":
            self.hang_up.wait(PATIENCE)


class ResidentHost:
    """The host that runs as long as this is entered."""

    def __init__(self, appliance, build, leak):
        self.appliance = appliance
        self.command = [str(build / "tests/faults/resident_host"), *(["--leak", leak] if leak else [])]

    def __enter__(self):
        self.process = subprocess.Popen(
            self.command,
            env=self.appliance.environment(),
            stdin=subprocess.PIPE,
            stdout=subprocess.PIPE,
            stderr=subprocess.DEVNULL,
            text=True,
        )
        return self

    def __exit__(self, *_):
        self.process.stdin.close()
        self.process.wait(PATIENCE)

    def begin(self, word="update"):
        self.process.stdin.write(word + "\n")
        self.process.stdin.flush()

    def end(self):
        """What it answers."""
        ready, _, _ = select.select([self.process.stdout], [], [], PATIENCE)
        answer = self.process.stdout.readline().strip() if ready else ""
        if not answer:
            raise RuntimeError("the host does not answer")
        return answer

    def do(self, word="update"):
        self.begin(word)
        return self.end()


class HostAftermath(Aftermath):
    """What must come of it when the host updates again. What packctl notes of an offer stays until it checks again."""

    host = None

    def recover(self):
        """Done by each update of the host."""

    def _one_day(self):
        if (answer := self.host.do()) not in ("updated", "nothing"):
            self.stuck.append(f"the next update of the host {answer}")


@dataclasses.dataclass(frozen=True)
class Amounts:
    """What could grow."""

    memory: int  # of the host, in KiB: what is its own, not what it has of files
    descriptors: int  # of the host
    files: int  # files and folders of the appliance, without the history
    bytes: int  # in them
    history: int  # bytes of the larger file of the history
    temporary: int  # temporary files
    processes: int  # of the appliance

    def growth(self, first):
        """What is more than it was at first by more than it may be, in words."""
        limits = dataclasses.asdict(first)
        limits["memory"] += MEMORY_KIB
        limits["history"] = HISTORY
        return [
            f"{name}: {now} after {getattr(first, name)}, allowed {limits[name]}"
            for name, now in dataclasses.asdict(self).items()
            if now > limits[name]
        ]


def processes_of(appliance):
    """The processes whose appliance it is, as numbers."""
    root = f"ORBAMIRA_ROOT={appliance.root}".encode()
    found = []
    for path in pathlib.Path("/proc").glob("[0-9]*/environ"):
        with contextlib.suppress(OSError):
            if root in path.read_bytes().split(b"\0"):
                found.append(int(path.parent.name))
    return found


class LongRun:
    def __init__(self, build, folder, releases, draw, plant=None):
        self.build, self.releases, self.draw, self.plant = build, releases, draw, plant
        self.appliance = Appliance.lay_out(folder / "appliance", build)
        self.temporary = folder / "temporary"
        self.temporary.mkdir()
        os.environ["TMPDIR"] = str(self.temporary)
        self.record = folder / "calls"
        self.version = None
        self.host = None
        self.calls = {}
        self.faults = collections.Counter()
        self.unreached = collections.Counter()
        self.programs = collections.Counter()
        self.races = collections.Counter()
        self.lost, self.stuck = [], []
        self.planted = []

    def offer(self, number):
        """Publishes the version of that number; all of them are of one length."""
        self.old, self.version = self.version, f"1.{10_000 + number}"
        address = self.releases.release(self.version, number % len(PAYLOADS))
        self.appliance.use_server(address, plugin_time_limit=PLUGIN_SECONDS, **BY_ITSELF)

    def prepare(self):
        """Installs the first pack, and numbers the calls of the next update by packctl, which are those of each."""
        self.offer(0)
        self.appliance.expect("check")
        self.appliance.expect("update")
        self.offer(1)
        for command in ("check", "update"):
            self.inject(command, expected=(0,))
            self.calls[command] = read_record(self.record)

    def inject(self, command, *options, expected):
        injector = self.build / "tests/faults/fault_injector"
        done = self.appliance.packctl(command, wrapper=(injector, "--record", self.record, *options, "--"))
        if done.returncode == INJECTOR_FAILED or (expected and done.returncode not in expected):
            raise RuntimeError(f"{command} {options} ended with {done.returncode}: {done.stdout}{done.stderr}")

    def run(self, updates):
        """All updates, unless one cannot even be begun; the amounts after each stretch, by the number of updates."""
        stretch = max(2, min(STRETCH, updates // 2) // 2 * 2)  # ends with the same payload each time
        looks = {}
        names = [field.name for field in dataclasses.fields(Amounts)]
        print(f"\n| updates | faults | {' | '.join(names)} |\n|{'---|' * (len(names) + 2)}")
        try:
            for number in range(1, updates // stretch * stretch + 1):
                self.offer(FIRST + number)
                self.grow()
                if number % stretch == 0:
                    # It leaves the other pack as the previous one, and no note of packctl's.
                    self.go_on(self.by_timer(), "update")
                    looks[number] = self.amounts()
                    if len(looks) % LOOKS_A_ROW == 1 or number + stretch > updates:
                        row = (number, self.faults.total(), *dataclasses.astuple(looks[number]))
                        print(f"| {' | '.join(map(str, row))} |", flush=True)
                elif self.draw.randrange(ONE_IN) == 0:
                    self.disturb()
                else:
                    self.go_on(self.draw.choice((self.by_timer, *[self.by_host] * BY_HOST))(), "update")
        except (RuntimeError, subprocess.TimeoutExpired) as error:
            self.tell(self.stuck, "given up", error)
        return looks

    def disturb(self):
        """An update that meets a fault, and what comes of it."""
        fault = self.draw.choice((self.strike, self.serve_badly, self.plug_badly, self.race))
        kind, finals = fault()
        self.faults[kind] += 1
        aftermath = self.draw.choice((self.by_timer, self.by_host))()
        if finals:
            aftermath.old = None
            aftermath.end_as(0, finals)
        aftermath.look()
        aftermath.recover()
        aftermath.end_as(0, (self.version,))
        self.go_on(aftermath, kind)
        if len(left := self.await_end()) > 1:
            self.tell(self.stuck, kind, f"processes left behind: {left}")

    def grow(self):
        """Leaves something behind, if this run is to find that."""
        if self.plant == "file":
            (self.appliance.run_folder / f"left-{self.version}").touch()
        elif self.plant == "process":
            self.planted.append(subprocess.Popen(["sleep", "1000"], env=self.appliance.environment(), **QUIET))

    def end_planted(self):
        for process in self.planted:
            process.kill()
            process.wait()

    def by_timer(self):
        self.programs["packctl"] += 1
        return Aftermath(self.releases, self.appliance, self.old, self.version)

    def by_host(self):
        self.programs["host"] += 1
        aftermath = HostAftermath(self.releases, self.appliance, self.old, self.version)
        aftermath.host = self.host
        aftermath.may_be_left |= {str(self.appliance.offer_file), f"{self.appliance.offer_file}.new"}
        return aftermath

    def go_on(self, aftermath, what):
        aftermath.go_on()
        for problem in aftermath.lost:
            self.tell(self.lost, what, problem)
        for problem in aftermath.stuck:
            self.tell(self.stuck, what, problem)

    def tell(self, problems, what, problem):
        problems.append(f"{self.version}: {what}: {problem}")
        print(problems[-1], flush=True)

    def await_end(self):
        """Until only the host is there, but not for ever; what is there then."""
        end = time.monotonic() + (10 if not self.stuck else 0)
        while len(there := processes_of(self.appliance)) > 1 and time.monotonic() < end:
            time.sleep(0.01)
        return there

    def strike(self):
        """Strikes packctl."""
        fault, command = self.draw.choice(FAULTS), self.draw.choice(("check", "update", "update", "update"))
        calls = (
            list(with_torn_write(self.calls[command])) if fault == "tear" else range(1, len(self.calls[command]) + 1)
        )
        call = self.draw.choice(calls)
        if command == "update":
            self.appliance.expect("check")
        below = ("--below", self.appliance.root) if fault in POWER_CUTS else ()
        self.inject(command, "--at", call, "--fault", fault, *below, expected=None)
        kind = f"packctl: {fault}"
        self.unreached[kind] += len(read_record(self.record)) < call
        return kind, None

    def serve_badly(self):
        """Lets the host meet a server that does something wrong."""
        fault, part = self.draw.choice(SERVER_FAULTS), self.draw.choice(("reply", "package"))
        kind = f"server: {fault} {part}"
        with self.releases.misbehaving(fault, part):
            self.host.begin()
            self.unreached[kind] += not self.releases.asked.wait(PATIENCE)
            self.releases.hang_up.set()
            answer = self.host.end()
        if answer == "updated":
            self.tell(self.stuck, kind, f"the host {answer}")
        return kind, None

    def plug_badly(self):
        """Lets the host have a bad plugin, which must not keep it from updating."""
        what = self.draw.choice(list(PLUGINS))
        kind = f"plugin: {what}"
        plugin = self.appliance.plugins / "10-bad"
        plugin.write_text(f"#!/bin/sh\n{PLUGINS[what]}\n")
        plugin.chmod(0o755)
        answer = self.host.do()
        plugin.unlink()
        if answer != "updated":
            self.tell(self.stuck, kind, f"the host {answer}")
        return kind, None

    def race(self):
        """Lets packctl and the host update at once."""
        locked = self.draw.choice((True, False))
        self.appliance.expect("check")
        command = [self.appliance.program("packctl"), "update"]
        with subprocess.Popen(command, env=self.appliance.environment(), **QUIET) as packctl:
            with contextlib.suppress(subprocess.TimeoutExpired):
                packctl.wait(self.draw.uniform(0, HEAD_START))
            self.host.begin("update" if locked else "unlocked")
            ended = packctl.wait(PATIENCE)
        answer = self.host.end()
        if locked:
            self.races[f"packctl {ended}, host {answer}"] += 1
            return "race: both with the lock", None
        # What one has put in place the other may take away, but never a part of it.
        return "race: the host without the lock", tuple(filter(None, (self.version, self.old)))

    def amounts(self):
        status = pathlib.Path(f"/proc/{self.host.process.pid}/status").read_text()
        found = [path for path in self.appliance.root.rglob("*") if path not in self.appliance.history]
        locks = self.appliance.run_folder / "lock"  # which hold the number of a process, short or long
        return Amounts(
            memory=int(re.search(r"^RssAnon:\s*(\d+) kB$", status, re.MULTILINE)[1]),
            descriptors=len(os.listdir(f"/proc/{self.host.process.pid}/fd")),
            files=len(found),
            bytes=sum(path.lstat().st_size for path in found if path.is_file() and path.parent != locks),
            history=max((path.stat().st_size for path in self.appliance.history if path.exists()), default=0),
            temporary=sum(1 for _ in self.temporary.rglob("*")),
            processes=len(self.await_end()),
        )


def report(run, looks):
    """The tables of the faults and of what came of them; whether anything went wrong."""
    grown = looks[max(looks)].growth(looks[min(looks)]) if looks else ["no stretch was completed"]
    print("\n| fault | updates | not reached |\n|---|---|---|")
    for kind, count in sorted(run.faults.items()):
        print(f"| {kind} | {count} | {run.unreached[kind]} |")
    print("\n| the two at once, with the lock | times |\n|---|---|")
    for outcome, count in sorted(run.races.items()):
        print(f"| {outcome} | {count} |")
    print()
    for problem in grown:
        print(problem)
    faults, unreached = run.faults.total(), run.unreached.total()
    print(f"brought up to date by packctl {run.programs['packctl']} times, by the host {run.programs['host']} times")
    lost, stuck, updates = len(run.lost), len(run.stuck), max(looks, default=0)
    print(f"long run: {faults} tried, {lost} lost, {stuck} stuck, 0 skipped; {updates} updates")
    # How many calls a run takes depends a little on its pace.
    return run.lost or run.stuck or grown or unreached > max(1, faults / 4)


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--updates", type=int, default=10_000, help="how many updates, 4 at least (default 10000)")
    parser.add_argument(
        "--seed", type=int, default=None, help="what decides the faults; a new one each time by default"
    )
    parser.add_argument("--plant", choices=PLANTS, help="leave one with each update, to see that it is found")
    arguments = parser.parse_args()
    enclose(arguments.build)
    seed = random.randrange(2**32) if arguments.seed is None else arguments.seed
    print(f"{arguments.updates} updates, one of {ONE_IN} with a fault, seed {seed}", flush=True)
    build = pathlib.Path(arguments.build).resolve()
    began = time.monotonic()
    with tempfile.TemporaryDirectory(prefix="orbamira-long-") as name:
        folder = pathlib.Path(name)
        with Releases(folder / "published", build) as releases:
            run = LongRun(build, folder, releases, random.Random(seed), arguments.plant)
            run.prepare()
            leak = arguments.plant if arguments.plant in ("descriptor", "memory") else None
            with ResidentHost(run.appliance, build, leak) as run.host:
                looks = run.run(arguments.updates)
        run.end_planted()
        failed = report(run, looks)
    print(f"in {time.monotonic() - began:.0f} s")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
