"""A disk of our own: a file system on a loop device, whose counters say what reaches it."""

import os
import pathlib
import shutil
import subprocess

# Everything that mkfs leaves for the kernel to do later would be counted as ours.
_MAKE = {
    "ext4": ["mkfs.ext4", "-q", "-F", "-E", "lazy_itable_init=0,lazy_journal_init=0"],
    "xfs": ["mkfs.xfs", "-q", "-f"],
    "btrfs": ["mkfs.btrfs", "-q", "-f"],
}
FILE_SYSTEMS = tuple(_MAKE)
_SECTOR = 512
# Fields of /sys/class/block/*/stat, from 0.
_WRITTEN, _FLUSHES = 6, 15


class Device:
    """Mounted on `folder` for as long as it is entered; the image lies beside it. Needs root."""

    def __init__(self, folder, file_system, size):
        self.folder, self.image = folder, folder.with_name(folder.name + ".img")
        self.file_system, self.size = file_system, size

    def __enter__(self):
        path = os.environ["PATH"] + ":/usr/sbin:/sbin"
        make = _MAKE[self.file_system]
        if os.geteuid() != 0 or shutil.which(make[0], path=path) is None:
            raise SystemExit(f"a device of its own takes root and {make[0]}")
        self.folder.mkdir(parents=True, exist_ok=True)
        self.image.unlink(missing_ok=True)
        with self.image.open("wb") as file:
            file.truncate(self.size)
        subprocess.run([*make, self.image], env={**os.environ, "PATH": path}, check=True)
        subprocess.run(["mount", "-o", "loop", self.image, self.folder], check=True)
        source = subprocess.run(
            ["findmnt", "--noheadings", "--output=SOURCE", "--mountpoint", self.folder],
            check=True,
            capture_output=True,
            text=True,
        )
        self.statistics = pathlib.Path("/sys/class/block") / pathlib.PurePath(source.stdout.strip()).name / "stat"
        return self

    def __exit__(self, *_):
        subprocess.run(["umount", self.folder], check=True)
        self.folder.rmdir()
        self.image.unlink()

    def counters(self):
        """Bytes written and flushes since the device was made. What is still in memory is written out first."""
        subprocess.run(["sync", "--file-system", self.folder], check=True)
        fields = self.statistics.read_text().split()
        return {"device": int(fields[_WRITTEN]) * _SECTOR, "flushes": int(fields[_FLUSHES])}
