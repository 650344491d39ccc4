"""Makes the disk of a guest: a Debian with systemd, our packages installed as an owner does, and units of the tests."""

import pathlib
import shutil
import subprocess
import sys

import disk

TESTS = pathlib.Path(__file__).resolve().parent.parent
sys.path[:0] = [str(TESTS / "support")]
from appliance import Appliance  # noqa: E402
from server import ADDRESS, REPLY  # noqa: E402

OVERLAY = TESTS / "machine/guest"
SIZE = 1 << 30
BOOT_FILES = ("kernel", "initrd")
PACKAGES = ("orbamira-common", "liborbamira-updater1", "orbamira-tools")
UNITS = ("machine-agent.service", "systemd-networkd.service")
# Nothing here needs them, and they take most of a boot.
MASKED = (
    *("getty.target", "systemd-logind.service", "systemd-user-sessions.service", "systemd-update-utmp.service"),
    *("systemd-update-utmp-runlevel.service", "systemd-binfmt.service", "modprobe@.service", "dev-hugepages.mount"),
    *("dev-mqueue.mount", "sys-kernel-debug.mount", "sys-kernel-tracing.mount", "sys-kernel-config.mount"),
    *("sys-fs-fuse-connections.mount", "apt-daily.timer", "apt-daily-upgrade.timer", "dpkg-db-backup.timer"),
    *("fstrim.timer", "e2scrub_all.timer", "e2scrub_reap.service", "systemd-tmpfiles-clean.timer"),
    *("kmod-static-nodes.service", "systemd-modules-load.service", "systemd-machine-id-commit.service"),
    *("proc-sys-fs-binfmt_misc.automount", "systemd-pstore.service", "systemd-vconsole-setup.service"),
)


def run(*command, **more):
    done = subprocess.run([str(word) for word in command], capture_output=True, check=False, **more)
    if done.returncode != 0:
        raise RuntimeError(f"{command} ended with {done.returncode}: {done.stdout!r}{done.stderr!r}")
    return done.stdout.decode()


def packages_in(folder):
    """Those that the documentation installs on an appliance."""
    return [next(folder.glob(f"{name}_*.deb")) for name in PACKAGES]


def make(image, file_system, root, packages, certificate, mount_point, build):
    """A disk in a new file, and beside it what boots it; `root` is the Debian of scripts/setup, as a tar file, and
    `certificate` the publisher's."""
    disk.make(image, file_system, SIZE)
    with disk.mounted_image(image, mount_point, file_system):
        run("tar", "-x", "--numeric-owner", "-f", root, "-C", mount_point)
        for package in packages:
            shutil.copy(package, mount_point / "root")
        names = [f"/root/{package.name}" for package in packages]
        _inside(mount_point, "apt-get", "install", "-q", "-y", "--no-install-recommends", *names)
        shutil.copytree(OVERLAY, mount_point, symlinks=True, dirs_exist_ok=True)
        token = mount_point / "etc/orbamira/web-token"
        token.touch(mode=0o600)
        token.write_text("0123456789abcdef" * 4)
        _inside(mount_point, "systemctl", "enable", "orbamira-web.socket", *UNITS)
        _inside(mount_point, "systemctl", "mask", *MASKED)
        (mount_point / "etc/machine-id").write_text("0123456789abcdef" * 2 + "\n")
        appliance = Appliance(mount_point, build)
        appliance.identify()
        appliance.trust(certificate)
        appliance.use_server(f"{ADDRESS}/{REPLY}", update_policy="auto_download_auto_install")
        _inside(mount_point, "/usr/libexec/machine/make-initrd")
        for name in BOOT_FILES:
            shutil.copy(mount_point / "boot" / name, image.with_name(name))
        for updated in (mount_point / "etc/.updated", mount_point / "var/.updated"):
            updated.touch()


def _inside(root, *command):
    return run("chroot", root, "env", "DEBIAN_FRONTEND=noninteractive", "TMPDIR=/tmp", *command)
