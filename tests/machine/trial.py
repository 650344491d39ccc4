"""A guest that is killed again and again, and what is checked at each boot."""

import base64
import contextlib
import pathlib
import random
import shutil
import sys
import tempfile
import time

TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / name) for name in ("blocks", "faults", "support")]
import checks  # noqa: E402
import disk  # noqa: E402
import guest  # noqa: E402
import power_cut  # noqa: E402
from appliance import Paths  # noqa: E402
from enclosure import enclose  # noqa: E402
from journal import Journal  # noqa: E402
from machine import PATIENCE, Hung, Machine  # noqa: E402
from power_cuts import held  # noqa: E402
from server import REPLY, Server, bring_up_loopback  # noqa: E402

SKIPPED = 77
PROGRAMS = ("qemu-system-x86_64", "unshare", "nginx", "openssl", "tar", "chroot")
TIMERS = "orbamira-check.timer orbamira-update.timer"
# Of ten kills:
IN_DOWNLOAD_OR_INSTALL = 7  # the others between the check's request and the download
IN_BOOT = 2  # another one follows in the boot after it
WITHOUT_PACK = 2  # the pack was removed before
WITH_PAGE = 5


def one_of_ten(randomness, share):
    return randomness.random() < share / 10


class Trial:
    """One machine with one file system, killed again and again."""

    def __init__(self, bench, file_system):
        self.bench, self.file_system = bench, file_system
        self.folder = bench.folder / file_system
        self.folder.mkdir()
        self.image, self.base, self.ran = (self.folder / f"{name}.img" for name in ("image", "base", "ran"))
        self.pending = []  # kills whose aftermath is not known
        self.spans = {}  # with the page and without: seconds from the check's request to the download, and to the end

    def make(self):
        mount_point = self.folder / "mount"
        mount_point.mkdir()
        bench = self.bench
        source = bench.root, bench.packages, bench.server.certificate
        guest.make(self.image, self.file_system, *source, mount_point, bench.build)
        self.begin()

    def begin(self):
        """The machine as it comes from its maker, and its first update, which nothing disturbs."""
        for image in (self.base, self.ran):
            disk.copy(self.image, image)
        self.old, self.last, self.version = None, None, 1
        self.bench.server.offer(self.text())
        with self.machine() as machine:
            self.boot_seconds = machine.await_boot()
            self.await_update(machine)
            self.settle(machine)
        self.cut(random.Random(0))

    def plant(self, change):
        """Changes the disk behind the back of the machine: `change` gets its root."""
        with disk.mounted_image(self.ran, self.folder / "mount", self.file_system) as root:
            change(root)
        disk.copy(self.ran, self.base)

    def text(self):
        return f"{self.version}.0.0"

    @contextlib.contextmanager
    def machine(self, **more):
        recorder = self.bench.build / "tests/blocks/block_recorder"
        log, folder = self.folder / "log", self.folder / "device"
        self.since = 0
        with disk.recorded(recorder, self.ran, log, folder) as device:
            with Machine(self.folder, self.folder, device, self.file_system, **more) as machine:
                yield machine

    def cut(self, randomness):
        log = self.folder / "log"
        counts = power_cut.cut(log, self.base, self.ran, self.file_system, randomness, self.since)
        log.unlink()
        return counts

    def pack_is(self, version):
        state = self.bench.paths.state_folder
        info = f"{self.bench.paths.packs_folder}/{self.bench.paths.pack_folder_name}/INFO"
        return f"""grep -q up_to_date /{state}/status.json && grep -q 'version="{version}"' /{info}"""

    def await_update(self, machine):
        """Until the timers brought the version on offer. Where recovery did, the next check forgets the offer."""
        offer = f"/{self.bench.paths.state_folder}/offer.json"
        machine.run(f"until {self.pack_is(self.text())} && ! test -e {offer}; do sleep 0.3; done 2> /dev/null")
        self.old = self.last = self.text()

    def settle(self, machine):
        """Until nobody works on the pack any more, and nobody begins to."""
        lock = f"/{self.bench.paths.run_folder}/lock/packctl.lock"
        machine.run(f"systemctl stop {TIMERS}; systemctl stop machine-page.service; flock {lock} true; sync")
        self.since = (self.folder / "log").stat().st_size

    def ready(self, machine, without_pack, with_page):
        """All is at rest, and a new version on offer; then the timers go on."""
        self.settle(machine)
        if without_pack:
            machine.run("packctl remove --yes")
            self.old = None
        self.version += 1
        self.bench.server.offer(self.text())
        self.mark = len(self.bench.server.requests())
        page = "machine-page.service" if with_page else ""
        machine.run(f"systemctl start --no-block {TIMERS} {page}")

    def await_request(self, name):
        """Until somebody asks the server for what has this in its name."""
        end = time.monotonic() + PATIENCE
        while not any(name in line for line in self.bench.server.requests()[self.mark :]):
            if time.monotonic() > end:
                raise Hung(f"nobody asks for {name}")
            time.sleep(0.01)
        return time.monotonic()

    def measure(self, machine):
        """How long the parts of an undisturbed update take."""
        asked = self.await_request(REPLY)
        fetched = self.await_request(".opk")
        self.await_update(machine)
        return fetched - asked, time.monotonic() - fetched

    def session(self, randomness):
        """One boot: what the last kill left is looked at, and the next kill done."""
        began = time.monotonic()
        self.bench.server.offer(self.text())
        kill = {"file_system": self.file_system, "page": False, "without_pack": False, "during": "boot"}
        with self.machine() as machine:
            if self.pending and one_of_ten(randomness, IN_BOOT):
                time.sleep(randomness.uniform(0, self.boot_seconds))
            else:
                self.look(machine)
                self.strike(machine, randomness, kill)
            machine.cut()
        kill["in_flight"], kill["lost_writes"] = self.cut(randomness)
        kill["seconds"] = round(time.monotonic() - began, 1)
        self.pending.append(kill)

    def strike(self, machine, randomness, kill):
        kill["page"] = one_of_ten(randomness, WITH_PAGE)
        kill["without_pack"] = one_of_ten(randomness, WITHOUT_PACK)
        if kill["page"] not in self.spans:
            self.ready(machine, False, kill["page"])
            self.spans[kill["page"]] = self.measure(machine)
        self.ready(machine, kill["without_pack"], kill["page"])
        asked, fetched = self.spans[kill["page"]]
        if one_of_ten(randomness, IN_DOWNLOAD_OR_INSTALL):
            kill["during"] = "download or install"
            self.await_request(".opk")
            time.sleep(randomness.uniform(0, fetched))
        else:
            kill["during"] = "check"
            self.await_request(REPLY)
            time.sleep(randomness.uniform(0, asked))

    def look(self, machine):
        """Checks what the boot has come to; what was struck is written down."""
        lost, stuck, found = [], [], ""
        try:
            seconds = round(machine.await_boot(), 1)
            if self.pending:
                found = self.look_at_disk(machine, lost, stuck)
            self.await_update(machine)
            if self.pending:
                self.settle(machine)
                end = self.kept(machine, "end", self.last, self.text())
                end.look()
                end.look_at_end()
                lost += end.lost
                stuck += end.stuck
        except Hung as error:
            seconds = None
            stuck.append(str(error))
        for kill in self.pending:
            self.bench.write_down(
                **kill,
                **({"found": found, "lost": lost, "stuck": stuck} if kill is self.pending[-1] else {}),
                boot=seconds,
            )
        self.pending = []
        if lost or stuck:
            raise Broken

    def look_at_disk(self, machine, lost, stuck):
        """What the boot found, and what recovery made of it."""
        stuck += checks.order_problems(machine.run(checks.SHOW).decode(), machine.run(checks.FIRST).decode())
        found = self.kept(machine, "found", self.last, self.text())
        found.look()
        words = held(found.appliance)
        recovered = self.kept(machine, "recovered", self.last, self.text())
        recovered.look_after_recovery()
        for aftermath in (found, recovered):
            lost += aftermath.lost
            stuck += aftermath.stuck
        return words

    def kept(self, machine, name, last, new):
        """What was kept in the guest under this name, or is kept now."""
        machine.run(f"test -e /run/machine/{name}.tar && test {name} != end || /usr/libexec/machine/keep {name}")
        tar = base64.b64decode(machine.run(f"base64 /run/machine/{name}.tar"))
        appliance = checks.unpack(tar, self.folder / name, self.bench.build, self.bench.server, (last, new))
        return checks.aftermath(appliance, self.bench.server, self.old, new, last)


class Broken(Exception):
    """Something was lost or stuck: the machine begins anew."""


class Bench:
    def __init__(self, arguments, folder, server, journal):
        self.build, self.folder, self.server, self.journal = arguments.build, folder, server, journal
        self.root = arguments.root
        self.packages = guest.packages_in(arguments.packages)
        self.paths = Paths(self.build)

    def write_down(self, **kill):
        self.journal.add(**kill)
        told = " ".join(f"{name} {value}" for name, value in kill.items() if value)
        print(f"kill {len(self.journal.entries)}: {told}", flush=True)


def add_arguments(parser):
    """What every program takes that uses guests."""
    parser.add_argument("--build", type=pathlib.Path, required=True, help="build folder with the programs of the tests")
    parser.add_argument("--packages", type=pathlib.Path, required=True, help="folder with the Debian packages")
    parser.add_argument("--root", type=pathlib.Path, required=True, help="the Debian of scripts/setup --machine")


@contextlib.contextmanager
def bench(name, arguments, journal=None):
    """All that guests need. The program starts again, so that nothing of it is left however it ends; where no guest can
    be made, it ends with 77."""
    reason = why_impossible(arguments)
    if reason:
        print(f"{name}: 0 tried, 0 lost, 0 stuck, 1 skipped: {reason}")
        sys.exit(SKIPPED)
    enclose(arguments.build, "unshare", "--mount", "--net")  # what is mounted goes, too
    bring_up_loopback()
    with contextlib.ExitStack() as stack:
        folder = pathlib.Path(stack.enter_context(tempfile.TemporaryDirectory(prefix="orbamira-machine-")))
        server = stack.enter_context(Server(folder / "published", arguments.build))
        yield Bench(arguments, folder, server, stack.enter_context(Journal(journal)))


def why_impossible(arguments):
    missing = [program for program in PROGRAMS if shutil.which(program, path=disk.PATH) is None]
    if missing:
        return f"missing: {' '.join(missing)}"
    if not arguments.root.exists():
        return "no Debian for a guest was made"
    return disk.why_impossible()
