#!/usr/bin/env python3
"""Installs, upgrades, removes and purges the Debian packages of a folder, in a root of its own, with dpkg itself.

The root holds nothing but what the packages bring; what they depend on is the machine's, and has to be installed there
as the packages say. Maintainer scripts run outside the root and are told of it by DPKG_ROOT, so an ordinary user can
run this. It ends with 77 (skipped) where dpkg cannot.
"""

import argparse
import json
import os
import pathlib
import re
import shutil
import stat
import subprocess
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Paths  # noqa: E402
from nginx import WebServer  # noqa: E402

SKIPPED = 77
NEEDED = ("dpkg", "dpkg-deb", "dpkg-query", "systemd-sysusers", "systemd-tmpfiles", "systemctl")
OLD_VERSION = "0.9.0"
PAGE = pathlib.Path(__file__).resolve().parents[2] / "docs/installing.md"
DEFAULT_UNITS = ["orbamira-check.timer", "orbamira-recover.service", "orbamira-update.timer"]
CHOSEN_UNITS = ["orbamira-check.timer", "orbamira-metrics.timer", "orbamira-recover.service"]


class Root:
    """A root folder with a dpkg of its own."""

    def __init__(self, folder, packages, build):
        self.folder, self.paths = folder, Paths(build)
        self.database = folder / "var/lib/dpkg"
        (self.database / "info").mkdir(parents=True)
        (self.database / "updates").mkdir()
        (self.database / "status").write_text("".join(map(installed_elsewhere, sorted(needed_by(packages)))))

    def dpkg(self, *arguments):
        done = subprocess.run(
            [
                "dpkg",
                f"--root={self.folder}",
                "--force-not-root",
                "--force-script-chrootless",
                "--force-confold",
                *map(str, arguments),
            ],
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT,
            text=True,
            check=False,
        )
        if done.returncode != 0:
            raise RuntimeError(f"dpkg {' '.join(map(str, arguments))} ended with {done.returncode}:\n{done.stdout}")
        return done.stdout

    def status(self, package):
        done = subprocess.run(
            ["dpkg-query", f"--admindir={self.database}", "-W", "-f", "${db:Status-Status} ${Version}", package],
            capture_output=True,
            text=True,
            check=False,
        )
        return done.stdout or "unknown"

    def run(self, program, *arguments):
        done = subprocess.run(
            [self.folder / program, *arguments],
            env={**os.environ, "ORBAMIRA_ROOT": str(self.folder)},
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=600,
            check=False,
        )
        if done.returncode != 0:
            raise RuntimeError(f"{program} {arguments} ended with {done.returncode}:\n{done.stdout}{done.stderr}")
        return done.stdout

    def systemctl(self, *arguments):
        subprocess.run(["systemctl", f"--root={self.folder}", *arguments], check=True, stderr=subprocess.DEVNULL)

    def enabled_units(self):
        return sorted(path.name for path in (self.folder / "etc/systemd/system").glob("*.wants/*"))

    def files(self, *folders):
        """What lies below the folders and is not a folder itself."""
        return sorted(
            str(path.relative_to(self.folder))
            for name in folders
            for path in (self.folder / name).rglob("*")
            if path.is_symlink() or not path.is_dir()
        )


def field(package, name):
    return subprocess.run(["dpkg-deb", "-f", package, name], check=True, capture_output=True, text=True).stdout.strip()


def needed_by(packages):
    """The names of all that the packages depend on, but themselves."""
    own = {field(package, "Package") for package in packages}
    names = set()
    for package in packages:
        names.update(
            re.split(r"[ :(]", term.strip())[0] for term in re.split(r"[,|]", field(package, "Depends")) if term.strip()
        )
    return names - own


def installed_elsewhere(package):
    """What the machine's own dpkg knows of an installed package; without its own dependencies, which are met there."""
    done = subprocess.run(["dpkg-query", "-s", package], capture_output=True, text=True, check=False)
    if done.returncode != 0 or "\nStatus: install ok installed\n" not in done.stdout:
        return ""
    dropped = ("Depends", "Pre-Depends", "Conffiles", "Recommends", "Suggests", "Breaks", "Conflicts", "Replaces")
    kept = [part for part in re.split(r"\n(?! )", done.stdout.strip()) if part.split(":")[0] not in dropped]
    return "\n".join(kept) + "\n\n"


def as_previous_version(packages, folder):
    """The same packages as an older version."""
    previous = []
    for package in packages:
        tree = folder / package.stem
        subprocess.run(["dpkg-deb", "-R", package, tree], check=True)
        control = tree / "DEBIAN/control"
        version = field(package, "Version")
        control.write_text(
            control.read_text()
            .replace(f"Version: {version}", f"Version: {OLD_VERSION}")
            .replace(f"= {version})", f"= {OLD_VERSION})")
        )
        file = folder / package.name
        subprocess.run(["dpkg-deb", "--root-owner-group", "-b", tree, file], check=True, stdout=subprocess.DEVNULL)
        previous.append(file)
    return previous


def complaints(output):
    """What dpkg says of folders that it cannot remove."""
    return [line for line in output.splitlines() if re.search(r"directory '[^']*orbamira.*not empty", line)]


def named_on_page(packages):
    """The packages that the page's command installs, of this folder; the command is apt's."""
    command = re.search(r"^sudo apt install ((?:.*\\\n)*.*)$", PAGE.read_text(), re.MULTILINE)[1]
    patterns = [word.removeprefix("./build/packages/") for word in command.replace("\\\n", " ").split()]
    return [package for pattern in patterns for package in packages if package.match(pattern)]


def expect_page_installs(report, packages):
    """What the page names is all that apt has to be given. Nothing is installed."""
    named = named_on_page(packages)
    done = subprocess.run(
        ["apt-get", "--simulate", "-o", "Debug::NoLocking=true", "install", *(package.resolve() for package in named)],
        stdin=subprocess.DEVNULL,
        stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT,
        text=True,
        check=False,
    )
    expected = sorted(field(package, "Package") for package in named)
    seen = sorted(name for name in re.findall(r"^Inst (\S+)", done.stdout, re.MULTILINE) if name in expected)
    report.expect("the page's command installs", expected, seen or done.stdout)
    report.expect("the command line is among it", True, "orbamira-tools" in seen)


class BareRoot:
    """A copy of a root with nothing else but the libraries that its programs load, and a shell for a plugin."""

    def __init__(self, root, folder):
        self.folder = folder
        shutil.copytree(root.folder, folder, symlinks=True)
        shell = folder / "bin/sh"
        shell.parent.mkdir()
        shutil.copy("/bin/sh", shell)
        for program in (root.folder / "usr/bin/packctl", *(root.folder / root.paths.helpers_folder).iterdir(), shell):
            for library in needed_libraries(program):
                if not library.is_relative_to(root.folder) and not (folder / library.relative_to("/")).exists():
                    (folder / library.relative_to("/")).parent.mkdir(parents=True, exist_ok=True)
                    shutil.copy(library, folder / library.relative_to("/"))
        for name in ("dev", "proc"):
            (folder / name).mkdir()
        (folder / "dev/null").touch()

    def packctl(self, *arguments):
        """What it ends with, and says, when this root is all that there is."""
        script = (
            'mount --bind /dev/null "$0/dev/null" && mount --rbind /proc "$0/proc" && '
            'exec chroot "$0" /usr/bin/packctl "$@"'
        )
        done = subprocess.run(
            [*OWN_ROOT, "sh", "-c", script, self.folder, *arguments],
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=120,
            check=False,
        )
        return done.returncode, done.stderr


# An ordinary user is root in a namespace of his own, where the machine allows it.
OWN_ROOT = ["unshare", "--user", "--map-root-user", "--mount"]

RECORDING_PLUGIN = """#!/bin/sh
[ "$1" = --app-id ] || echo "$2 $6 $8" >> /told
"""


def libraries_of(program):
    """What the loader says of the libraries of the program; nothing of one that needs none."""
    return subprocess.run(["ldd", program], capture_output=True, text=True, check=False).stdout


def needed_libraries(program):
    """The libraries that the program loads, and its loader; none for one that needs neither."""
    return {pathlib.Path(path) for path in re.findall(r"(/\S+) \(0x", libraries_of(program))}


def is_python(path):
    if path.suffix in (".py", ".pyc"):
        return True
    # What only root may read is a file of the accounts, not a program.
    if not os.access(path, os.R_OK):
        return False
    with path.open("rb") as file:
        return file.read(2) == b"#!" and b"python" in file.readline()


def check_without_python(report, root, packages, folder, publish):
    """Of the installed packages only the maker's needs Python: an update gets along without it."""
    needing = {field(package, "Package") for package in packages if "python" in field(package, "Depends")}
    report.expect("one package depends on Python", {"orbamira-mkpack"}, needing)
    of_mkpack = {
        str(path).lstrip("/") for path in (root.database / "info/orbamira-mkpack.list").read_text().split("\n")
    }
    report.expect(
        "of the other files none is for Python",
        [],
        [
            name
            for name in root.files("usr", "etc", "lib")
            if name not in of_mkpack and not (root.folder / name).is_symlink() and is_python(root.folder / name)
        ],
    )
    if subprocess.run([*OWN_ROOT, "true"], stderr=subprocess.DEVNULL, check=False).returncode != 0:
        print("skipped: no update in a root without Python: this machine gives its users no namespaces")
        return
    bare = BareRoot(root, folder / "bare")
    report.expect(
        "a root has no Python", [], [path for path in (bare.folder / "usr").rglob("python3*") if path.is_file()]
    )
    plugin = bare.folder / root.paths.plugins_folder / "10-recorder"
    plugin.parent.mkdir(parents=True, exist_ok=True)
    plugin.write_text(RECORDING_PLUGIN)
    plugin.chmod(0o755)
    publish("1.1.0")
    report.expect("a check succeeds there", (0, ""), bare.packctl("check"))
    report.expect("an update succeeds there", (0, ""), bare.packctl("update"))
    report.expect(
        "plugins were told there",
        ["uninstall pre 1.0.0", "uninstall post 1.0.0", "install pre 1.1.0", "install post 1.1.0"],
        (bare.folder / "told").read_text().splitlines() if (bare.folder / "told").exists() else [],
    )


class Report:
    failures = 0

    def expect(self, what, expected, seen):
        holds = expected == seen
        print(f"{'ok' if holds else 'FAILED'}: {what}")
        if not holds:
            print(f"  expected: {expected}\n  seen:     {seen}")
            self.failures += 1


class PackagesLife:
    """The packages from a first installation to a purge, with work done meanwhile."""

    def __init__(self, packages, build, folder):
        self.packages, self.build, self.folder = packages, build, folder
        self.report = Report()
        self.names = sorted(field(package, "Package") for package in packages)
        self.root = Root(folder / "root", packages, build)
        self.paths = self.root.paths
        self.settings = self.root.folder / self.paths.settings_folder

    def live(self):
        if shutil.which("apt-get"):
            expect_page_installs(self.report, self.packages)
        self.install()
        self.choose_services()
        with WebServer(self.folder / "server") as server:
            self.work(server)
        self.before = self.root.files(self.paths.state_folder, self.paths.settings_folder)
        self.upgrade()
        self.remove_and_reinstall()
        self.purge()

    def expect_state(self, when, expected):
        self.report.expect(
            f"the packages {when}",
            {name: expected for name in self.names},
            {name: self.root.status(name) for name in self.names},
        )

    def install(self):
        root, report = self.root, self.report
        root.dpkg("-i", *as_previous_version(self.packages, self.folder))
        self.expect_state("are installed", f"installed {OLD_VERSION}")
        stage = self.folder / "stage"
        subprocess.run(
            ["cmake", "--install", self.build],
            env={**os.environ, "DESTDIR": str(stage)},
            check=True,
            stdout=subprocess.DEVNULL,
        )
        staged = {str(path.relative_to(stage)) for path in stage.rglob("*") if path.is_symlink() or path.is_file()}
        tops = {name.split("/")[0] for name in staged}
        report.expect("no installed file is without a package", set(), staged - set(root.files(*tops)))
        self.check_libraries()
        groups = [line.split(":") for line in (root.folder / "etc/group").read_text().splitlines()]
        numbers = [int(group[2]) for group in groups if group[0] == self.paths.group]
        report.expect("there is one group for the locks", 1, len(numbers))
        locks = (root.folder / self.paths.run_folder / "lock").stat()
        if os.geteuid() == 0:
            report.expect(
                "the locks' folder is the group's to enter",
                (numbers[0], stat.S_IXGRP),
                (locks.st_gid, locks.st_mode & (stat.S_IXGRP | stat.S_IXOTH)),
            )
        report.expect(
            "a first installation shows where settings go",
            True,
            "# pack_update_server=" in (self.settings / "updater.conf").read_text(),
        )

    def check_libraries(self):
        """Where the programs are installed, no folder of the build helps them to a library."""
        helpers = self.root.folder / self.paths.helpers_folder
        programs = [self.root.folder / "usr/bin/packctl", *sorted(helpers.iterdir())]
        self.report.expect(
            "each program finds its libraries",
            [],
            [program.name for program in programs if "not found" in libraries_of(program)],
        )
        needed = set(re.findall(r"lib(?:c|curl|cpr)(?=[-.])", libraries_of(helpers / "orba-recover")))
        self.report.expect("recovery at boot needs no library for the network", {"libc"}, needed)

    def choose_services(self):
        self.report.expect(
            "of the services those are enabled that the settings have the say about",
            DEFAULT_UNITS,
            self.root.enabled_units(),
        )
        self.root.systemctl("disable", "orbamira-update.timer")
        self.root.systemctl("enable", "orbamira-metrics.timer")

    def work(self, server):
        """Settings, a pack, an account, a keyring that the maker brought."""
        root, paths = self.root, self.paths
        self.address = f'pack_update_server="{server.url}/reply.json"\n'
        (self.settings / "updater.conf").write_text(self.address)
        (root.folder / paths.system_file).write_text(f'{paths.unique_key}="packaged"\n')
        (root.folder / paths.version_file).write_text(
            f'{paths.major_version_key}="7"\n{paths.minor_version_key}="2"\n{paths.build_number_key}="64570"\n'
        )
        (self.settings / "account.json").write_text("{}\n")
        payload = self.folder / "payload"
        payload.mkdir()
        (payload / "codec").write_text("decoder\n")

        def publish(pack_version):
            command = ["usr/bin/mkpack", "--payload", payload, "--output", server.packs, "--name", paths.hevc_pack]
            root.run(*command, "--version", pack_version, "--title", "HEVC", "--base-url", server.url)

        publish("1.0.0")
        root.run("usr/bin/packctl", "check")
        root.run("usr/bin/packctl", "update")
        check_without_python(self.report, root, self.packages, self.folder, publish)
        (self.settings / "keyring.pem").write_text("the maker's\n")

    def expect_kept(self, when):
        report, root, paths = self.report, self.root, self.paths
        pack = root.folder / paths.packs_folder / paths.pack_folder_name
        report.expect(f"{when} keeps the pack", "decoder\n", (pack / "codec").read_text())
        report.expect(
            f"{when} keeps the status",
            "up_to_date",
            json.loads((root.folder / paths.state_folder / "status.json").read_text())["status"],
        )
        report.expect(f"{when} keeps the settings", self.address, (self.settings / "updater.conf").read_text())
        now = root.files(paths.state_folder, paths.settings_folder)
        report.expect(f"{when} takes nothing", [], sorted(set(self.before) - set(now)))

    def expect_pack_is_seen(self, by):
        info = json.loads(self.root.run("usr/bin/packctl", "--json", "info"))
        self.report.expect(f"the {by} packctl sees the pack", "1.0.0", info["version"])

    def upgrade(self):
        self.root.dpkg("-i", *self.packages)
        self.expect_state("are upgraded", f"installed {field(self.packages[0], 'Version')}")
        self.expect_kept("an upgrade")
        self.expect_pack_is_seen("upgraded")
        self.report.expect("an upgrade leaves the owner's choice of services", CHOSEN_UNITS, self.root.enabled_units())

    def remove_and_reinstall(self):
        removal = self.root.dpkg("-r", *self.names)
        self.report.expect("a removal does not complain of what it keeps", [], complaints(removal))
        self.expect_kept("a removal")
        self.report.expect("a removal leaves no program", [], self.root.files("usr"))
        self.root.dpkg("-i", *self.packages)
        self.expect_kept("an installation after a removal")
        self.expect_pack_is_seen("reinstalled")

    def purge(self):
        report, root, paths = self.report, self.root, self.paths
        purge = root.dpkg("-P", *self.names)
        report.expect("a purge does not complain of what it keeps", [], complaints(purge))
        self.expect_state("are purged", "unknown")
        report.expect(
            "a purge leaves no state",
            (False, False, False),
            tuple((root.folder / name).exists() for name in (paths.state_folder, paths.cache_folder, paths.run_folder)),
        )
        report.expect(
            "a purge leaves of the settings those of others",
            sorted([f"{paths.settings_folder}/keyring.pem", paths.system_file, paths.version_file]),
            sorted(set(root.files(paths.settings_folder, str(pathlib.Path(paths.system_file).parent)))),
        )
        report.expect("a purge leaves no program", [], root.files("usr"))
        report.expect("a purge leaves no service", [], root.enabled_units())
        shutil.rmtree(self.settings)
        root.dpkg("-i", *self.packages)
        root.dpkg("-P", *self.names)
        report.expect("a purge leaves no folder of settings where there are no others", False, self.settings.exists())


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--packages", type=pathlib.Path, required=True)
    parser.add_argument("--build", type=pathlib.Path, required=True)
    options = parser.parse_args()

    os.environ["PATH"] += ":/usr/sbin:/sbin"
    missing = [program for program in NEEDED if shutil.which(program) is None]
    if missing:
        print(f"skipped: not installed here: {', '.join(missing)}")
        return SKIPPED
    if not options.packages.is_dir():
        print("skipped: no packages were made")
        return SKIPPED
    with tempfile.TemporaryDirectory(prefix="orbamira-packages-") as name:
        life = PackagesLife(sorted(options.packages.glob("*.deb")), options.build, pathlib.Path(name))
        life.live()
    return 1 if life.report.failures else 0


if __name__ == "__main__":
    sys.exit(main())
