#!/usr/bin/env python3
"""Fills the disk at each stage of an update, and makes room again.

Each place that an update writes to lies in turn on a small file system that is full when the update gets there. The old
pack must be in place and whole afterwards and the status a failed one; with room, the same update must succeed.

Mounts need a user namespace or root; without either it ends with 77 (skipped) and says so.
"""

import argparse
import contextlib
import dataclasses
import errno
import json
import os
import pathlib
import shutil
import subprocess
import sys
import tempfile

from aftermath import Aftermath

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402

SKIPPED = 77
OLD, NEW = "1.0.0", "2.0.0"
SIZES = (1_500_000, 300_000)
INSIDE = "ORBAMIRA_FULL_DISK_INSIDE"


def run(*command):
    subprocess.run([str(word) for word in command], check=True, stdout=subprocess.DEVNULL, stderr=subprocess.PIPE)


@contextlib.contextmanager
def small_file_system(folder, options):
    """The folder's content, moved onto a memory file system of a bounded size; ends with the content moved back."""
    aside = folder.with_name(folder.name + ".aside")
    folder.rename(aside)
    folder.mkdir()
    run("mount", "-t", "tmpfs", "-o", options, "tmpfs", folder)
    try:
        run("cp", "-a", f"{aside}/.", folder)
        yield
    finally:
        run("umount", folder)
        folder.rmdir()
        aside.rename(folder)


def fill(folder, keep=0):
    """Leaves `keep` bytes free on the file system of the folder; returns the file that takes the rest."""
    filler = folder / "filler"
    state = os.statvfs(folder)
    with filler.open("wb") as file:
        with contextlib.suppress(OSError):
            os.posix_fallocate(file.fileno(), 0, max(4096, state.f_bavail * state.f_frsize - keep))
    return filler


def take_entries(spare, keep):
    """Makes empty files until only `keep` more can be made."""
    spare.mkdir()
    for number in range(os.statvfs(spare).f_ffree - keep):
        (spare / str(number)).touch()


@dataclasses.dataclass(frozen=True)
class Stage:
    name: str
    folder: str  # below the appliance's root: what lies on the small file system
    options: str  # of that file system
    keep: int  # bytes left free at the start of the update
    status: str  # recorded afterwards
    reason: str  # part of what packctl says
    other_hand: bool = False  # the record was last written by another program, and is not yet overwritten in place


STAGES = (
    Stage("download", "cache", "size=4m", 600_000, "download_install_failed", "Failed to download pack: "),
    Stage("outer extraction", "packages", "size=8m", 600_000, "download_install_failed", "Failed to extract opk "),
    Stage("inner extraction", "packages", "size=8m", 2_500_000, "download_install_failed", "Failed to untar archive "),
    Stage(
        "copy",
        "packages",
        "size=16m,nr_inodes=500",
        8_000_000,
        "download_install_failed",
        "Failed to copy extracted pack.",
    ),
    # A status that is overwritten takes no room.
    Stage("status write", "state_folder", "size=16m", 0, "download_install_failed", "Failed to extract opk "),
    # With no room for a status, the one before is what stays.
    Stage("first status write", "state_folder", "size=16m", 0, "need_download", os.strerror(errno.ENOSPC), True),
)


class FullDisk:
    def __init__(self, folder, build, publisher):
        self.publisher = publisher
        self.old, self.new = publisher.publish(OLD, 1, SIZES), publisher.publish(NEW, 2, SIZES)
        self.appliance = Appliance.lay_out(folder / "root", build)
        self.appliance.cache.mkdir(parents=True, exist_ok=True)

    def begin(self):
        """The old pack in place, the new one on offer."""
        self.appliance.use_server(self.old)
        self.appliance.expect("update", "--reinstall", "--allow-older")
        shutil.rmtree(self.appliance.previous, ignore_errors=True)
        self.appliance.use_server(self.new)
        self.appliance.expect("check")

    def problems(self, stage):
        """What is wrong after the update ran into the full disk, and after it ran again with room."""
        appliance = self.appliance
        self.begin()
        folder = getattr(appliance, stage.folder)
        # The old pack, the folder that is unpacked and half of its copy: the copy runs out of directory entries.
        entries = sum(1 for _ in appliance.packages.rglob("*")) + 2
        if stage.other_hand:
            appliance.status_file.write_text(json.dumps(json.loads(appliance.status_file.read_text())))
        with small_file_system(folder, stage.options):
            filler = fill(folder, stage.keep)
            spare = folder / "spare"
            if "nr_inodes" in stage.options:
                take_entries(spare, keep=entries + entries // 2)
            found = []
            if (ended := appliance.packctl("update", "--verbose")).returncode != 1:
                found.append(f"update ended with {ended.returncode}")
            if not self.publisher.is_whole(appliance.pack, OLD):
                found.append("the old pack is not in place")
            if appliance.status() != stage.status:
                found.append(f"the status is {appliance.status()}")
            if stage.reason not in ended.stderr:
                found.append(f"packctl does not say {stage.reason!r} but {ended.stderr!r}")
            filler.unlink()
            shutil.rmtree(spare, ignore_errors=True)
            if (again := appliance.packctl("update")).returncode != 0:
                found.append(f"with room, update ended with {again.returncode}: {again.stderr}")
            after = Aftermath(self.publisher, appliance, OLD, NEW)
            after.look()
            if not self.publisher.is_whole(appliance.pack, NEW):
                found.append("the new pack is not in place at the end")
            return [*found, *after.lost]

    def removal_problems(self):
        """A full disk is the likeliest reason to remove the pack."""
        appliance = self.appliance
        self.begin()
        with small_file_system(appliance.packages, "size=8m"):
            fill(appliance.packages, 0)
            found = []
            if (ended := appliance.packctl("remove")).returncode != 0:
                found.append(f"remove ended with {ended.returncode}: {ended.stderr}")
            if left := [path.name for path in appliance.packages.iterdir() if path.name != "filler"]:
                found.append(f"left behind: {' '.join(left)}")
        return found

    def previous_problems(self):
        """Room for an update that only the previous pack takes: it is given up."""
        appliance = self.appliance
        self.begin()
        shutil.copytree(appliance.pack, appliance.previous, symlinks=True)
        with small_file_system(appliance.packages, "size=16m"):
            fill(appliance.packages, 4_500_000)
            found = []
            if (ended := appliance.packctl("update")).returncode != 0:
                found.append(f"update ended with {ended.returncode}: {ended.stderr}")
            if not self.publisher.is_whole(appliance.pack, NEW):
                found.append("the new pack is not in place")
        return found

    def plugin_answer_problems(self):
        """A full disk under the plugins' answer: the query says so, leaves no part of an answer, and works again."""
        appliance = self.appliance
        plugin = appliance.plugins / "10-id"
        plugin.write_text('#!/bin/sh\n[ "$1" = --app-id ] && echo com.example.player\nexit 0\n')
        plugin.chmod(0o755)
        folder = appliance.run_folder
        with small_file_system(folder, "size=1m"):
            filler = fill(folder)
            found = []
            full = appliance.packctl("--json", "plugins")
            if full.returncode == 0 and json.loads(full.stdout)["app_ids"]:
                found.append("the query claims to have had an answer")
            if [path.name for path in folder.iterdir() if path.name not in ("filler", "lock")]:
                found.append("a part of an answer was left behind")
            filler.unlink()
            ids = json.loads(appliance.packctl("--json", "plugins").stdout)["app_ids"]
            if ids != ["com.example.player"]:
                found.append(f"with room, the ids are {ids}")
        plugin.unlink()
        return found

    def doctor_problems(self):
        """A full disk under the record, the packs and the temporary files: the doctor goes on and says so."""
        appliance = self.appliance
        temporary = appliance.root / "tmp"
        temporary.mkdir()
        with small_file_system(appliance.state_folder, "size=16m"), small_file_system(temporary, "size=1m,nr_inodes=2"):
            fill(appliance.state_folder)
            fill(temporary)
            wrapper = ("env", f"TMPDIR={temporary}")
            ended = appliance.packctl("doctor", "--json", wrapper=wrapper)
        try:
            problems = {finding["check"]: finding["problem"] for finding in json.loads(ended.stdout)["findings"]}
        except (ValueError, KeyError):
            return [f"doctor died with {ended.returncode}: {ended.stderr}"]
        return [
            f"it does not say {part!r} of {check}: {problems}"
            for check, part in (("plugins", os.strerror(errno.ENOSPC)), ("space", "there is room for 0 B"))
            if part not in problems.get(check, "")
        ]


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    arguments = parser.parse_args()
    if INSIDE not in os.environ:
        namespace = ["unshare", "--mount", *([] if os.geteuid() == 0 else ["--user", "--map-root-user"])]
        if subprocess.run([*namespace, "true"], check=False, capture_output=True).returncode != 0:
            print("full disk: skipped: no mount namespace can be made")
            sys.exit(SKIPPED)
        os.environ[INSIDE] = "1"
        os.execvp("unshare", [*namespace, sys.executable, *sys.argv])
    failed = False
    with tempfile.TemporaryDirectory(prefix="orbamira-full-") as name:
        folder = pathlib.Path(name)
        with Publisher(folder / "published", arguments.build) as publisher:
            bench = FullDisk(folder, arguments.build, publisher)
            rows = [(stage.name, bench.problems(stage)) for stage in STAGES]
            rows.append(("previous pack", bench.previous_problems()))
            rows.append(("removal", bench.removal_problems()))
            rows.append(("plugin answer", bench.plugin_answer_problems()))
            rows.append(("doctor", bench.doctor_problems()))
    for name, problems in rows:
        failed = failed or bool(problems)
        print(f"full disk at {name}: {'; '.join(problems) or 'as promised'}")
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
