"""Loop devices with a file system, and the log of what reaches one. Takes root.

All mounts are made in a mount namespace of this process and its children, and a loop device goes with its last user: a
program that is killed leaves neither.
"""

import contextlib
import ctypes
import errno
import fcntl
import os
import shutil
import signal
import struct
import subprocess
import time

# Everything that mkfs leaves for the kernel to do later would be recorded as ours.
MAKE = {
    "ext4": "mkfs.ext4 -q -F -b 4096 -i 65536 -J size=4 -E nodiscard,lazy_itable_init=0,lazy_journal_init=0".split(),
    "xfs": "mkfs.xfs -q -f -K -d agcount=2".split(),
    "btrfs": "mkfs.btrfs -q -f -K".split(),
}
SIZES = {"ext4": 64 << 20, "xfs": 300 << 20, "btrfs": 128 << 20}  # about the smallest that mkfs makes
OPTIONS = {"btrfs": "nodiscard"}  # as the others have it by default
PROGRAMS = (*(command[0] for command in MAKE.values()), "cp")
DEVICES = ("/dev/fuse", "/dev/loop-control")
PATH = f"{os.environ.get('PATH', '')}:/usr/sbin:/sbin"

CHUNK = 1 << 20
PATIENCE = 60  # seconds until a device that should be there counts as missing

_LOOP_CONFIGURE, _LOOP_GET_FREE = 0x4C0A, 0x4C82
_LOOP_CONFIG = struct.Struct("=II40xIIII64x64x32x16x64x")  # struct loop_config of linux/loop.h
_AUTOCLEAR = 4
_PR_SET_PDEATHSIG = 1
_CLONE_NEWNS = 0x20000
_MS_REC, _MS_PRIVATE = 0x4000, 0x40000
_MNT_DETACH = 2

_libc = ctypes.CDLL(None, use_errno=True)


def _call(function, *arguments):
    if getattr(_libc, function)(*arguments) != 0:
        number = ctypes.get_errno()
        raise OSError(number, f"{function}: {os.strerror(number)}")


def why_impossible():
    """Why nothing can be recorded on this machine; None when it can."""
    if os.geteuid() != 0:
        return "mounting images takes root"
    missing = [program for program in PROGRAMS if shutil.which(program, path=PATH) is None]
    missing += [device for device in DEVICES if not os.path.exists(device)]
    if missing:
        return f"missing: {' '.join(missing)}"
    try:
        own_mounts()
    except OSError as error:
        return f"no mount namespace can be made: {error}"
    return None


def own_mounts():
    """Puts this process into a mount namespace of its own; to be called before it starts a thread."""
    _call("unshare", _CLONE_NEWNS)
    _call("mount", b"none", b"/", None, ctypes.c_ulong(_MS_REC | _MS_PRIVATE), None)


def sync_all(descriptor):
    """Syncs the file system that the descriptor is on."""
    _call("syncfs", descriptor)


def end_with_parent():
    """Has this process killed when the one that started it ends."""
    _call("prctl", _PR_SET_PDEATHSIG, signal.SIGKILL)


def unmount(folder):
    """What was just killed may hold the mount a moment longer."""
    end = time.monotonic() + PATIENCE
    while True:
        try:
            return _call("umount2", os.fsencode(folder), 0)
        except OSError as error:
            if error.errno != errno.EBUSY or time.monotonic() > end:
                raise
            time.sleep(0.001)


def detach(folder):
    """Whatever is still mounted on the folder, now or when nobody uses it any more."""
    with contextlib.suppress(OSError):
        _call("umount2", os.fsencode(folder), _MNT_DETACH)


@contextlib.contextmanager
def memory(folder):
    """A file system in memory on the folder, which is gone with the last process that has it mounted."""
    _call("mount", b"tmpfs", os.fsencode(folder), b"tmpfs", ctypes.c_ulong(0), b"mode=0700,size=75%")
    try:
        yield folder
    finally:
        detach(folder)


@contextlib.contextmanager
def mounted(source, folder, kind, options=""):
    """`source` mounted on the folder, for as long as it is entered."""
    _call("mount", os.fsencode(source), os.fsencode(folder), kind.encode(), ctypes.c_ulong(0), options.encode())
    try:
        yield folder
    finally:
        unmount(folder)


@contextlib.contextmanager
def loop_device(image):
    """The path of a loop device over the image; it holds nothing in memory of an earlier one."""
    with open("/dev/loop-control", "rb") as control, open(image, "r+b") as file:
        while True:
            path = f"/dev/loop{fcntl.ioctl(control, _LOOP_GET_FREE)}"
            device = open(path, "r+b", buffering=0)
            try:
                config = _LOOP_CONFIG.pack(file.fileno(), 0, 0, 0, 0, _AUTOCLEAR)
                fcntl.ioctl(device, _LOOP_CONFIGURE, config)
                break
            except OSError as error:
                device.close()
                if error.errno != errno.EBUSY:  # somebody else was faster
                    raise
    try:
        yield path
    finally:
        device.close()


@contextlib.contextmanager
def mounted_image(image, folder, file_system):
    with loop_device(image) as device, mounted(device, folder, file_system, OPTIONS.get(file_system, "")):
        yield folder


def make(image, file_system, size=None):
    """An empty file system in a new file, which takes no room where it has only zeros. By default it is small."""
    full = image.with_name(f"{image.name}.full")
    with full.open("wb") as file:
        file.truncate(size or SIZES[file_system])
    quiet = {"check": True, "stdout": subprocess.DEVNULL, "stderr": subprocess.PIPE}
    subprocess.run([*MAKE[file_system], full], env={**os.environ, "PATH": PATH}, **quiet)
    copy(full, image)
    full.unlink()


def copy(image, target):
    subprocess.run(["cp", "--sparse=always", image, target], check=True)


@contextlib.contextmanager
def recorded(recorder, image, log, folder):
    """A file with the bytes of the image, what is written to which is done there and goes to the log."""
    folder.mkdir()
    process = subprocess.Popen([recorder, image, log, folder], stdin=subprocess.DEVNULL)
    disk = folder / "disk"
    try:
        end = time.monotonic() + PATIENCE
        while not disk.exists():
            if process.poll() is not None or time.monotonic() > end:
                raise RuntimeError("the recorder does not serve its device")
            time.sleep(0.001)
        yield disk
        unmount(folder)
        if process.wait(PATIENCE) != 0:
            raise RuntimeError("the recorder failed")
    finally:
        process.kill()
        process.wait()
        detach(folder)
        folder.rmdir()


def _data(descriptor, size):
    """Where the file has been written to, in chunks: offset and length."""
    at = 0
    while at < size:
        try:
            at = os.lseek(descriptor, at, os.SEEK_DATA)
        except OSError as error:
            if error.errno == errno.ENXIO:
                return
            raise
        hole = os.lseek(descriptor, at, os.SEEK_HOLE)
        while at < hole:
            length = min(CHUNK, hole - at)
            yield at, length
            at += length


def make_equal(image, model):
    """Writes to the image what it takes to make it equal to the model; both are descriptors of files of one size."""
    size = os.fstat(model).st_size
    for written in (model, image):
        for offset, length in _data(written, size):
            wanted = os.pread(model, length, offset)
            if os.pread(image, length, offset) != wanted:
                os.pwrite(image, wanted, offset)
