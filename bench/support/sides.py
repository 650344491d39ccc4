"""The ways to bring a pack up to date that are measured against each other.

Each side has a name, `go_to(pack)`, which brings it to a version outside the measurement, `command(pack)`, the command
that is measured and its environment, and `installed()`, the folder that must then be the payload, if there is one.
"""

import os
import shutil
import subprocess

from packs import INSTALLED
from project import install

_PIPELINE = """\
set -e
curl -fsS -o download.opk {url}
echo '{checksum}  download.opk' | sha256sum --check --quiet
mkdir unpacked
tar -xf download.opk -C unpacked
tar -xf unpacked/package.tgz -C unpacked
rm unpacked/package.tgz
if [ -e pack ]; then mv pack backup; fi
cp -a unpacked pack
rm -rf backup unpacked download.opk
"""

_DPKG = """\
set -e
curl -fsS -o download.deb {url}
dpkg {options} -i download.deb > /dev/null
rm download.deb
"""


class Side:
    """One of them, in its own folder."""

    def __init__(self, folder, shelf, url):
        self.folder, self.shelf, self.url = folder, shelf, url
        shutil.rmtree(folder, ignore_errors=True)

    def go_to(self, pack):
        command, environment = self.command(pack)
        subprocess.run(
            command, env=environment, cwd=self.folder, check=True, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL
        )


class Updater(Side):
    """packctl update, on its own appliance."""

    name = "packctl"

    def __init__(self, folder, shelf, url, build, plugins=0):
        super().__init__(folder, shelf, url)
        self.appliance = install(build, folder)
        self.appliance.plugins.mkdir(parents=True, exist_ok=True)
        for number in range(plugins):
            shutil.copy("/bin/true", self.appliance.plugins / f"plugin{number:03}")

    def command(self, pack):
        self.appliance.use_server(self.shelf.offer(pack, self.url))
        return [
            str(self.appliance.program("packctl")),
            "update",
            "--reinstall",
            "--allow-older",
        ], self.appliance.environment()

    def installed(self):
        return self.appliance.pack


class Former(Updater):
    """The same of another build."""

    name = "former packctl"


class Record(Side):
    """The record alone: saved as often as by one update, and nothing else."""

    name = "record"
    _SAVES = 9  # seven states, and the first and the last byte of the download

    def __init__(self, folder, shelf, url, build):
        super().__init__(folder, shelf, url)
        folder.mkdir(parents=True)
        self.program = build.resolve() / "bench/status"

    def command(self, pack):
        return [self.program, "--saves", str(self._SAVES)], {**os.environ, "ORBAMIRA_ROOT": str(self.folder)}

    def installed(self):
        return None


class Pipeline(Side):
    """The same steps by the system's own programs. Nothing of it is made durable."""

    name = "pipeline"

    def __init__(self, folder, shelf, url):
        super().__init__(folder, shelf, url)
        folder.mkdir(parents=True)

    def command(self, pack):
        script = _PIPELINE.format(url=f"{self.url}/{pack.package.name}", checksum=pack.checksum)
        return ["/bin/sh", "-c", script], dict(os.environ)

    def installed(self):
        return self.folder / "pack"


class Dpkg(Side):
    """curl and dpkg -i of a package with the same files, below its own root."""

    name = "dpkg"

    def __init__(self, folder, shelf, url):
        super().__init__(folder, shelf, url)
        self.root, admin = folder / "root", folder / "root/var/lib/dpkg"
        for name in ("info", "updates", "triggers"):
            (admin / name).mkdir(parents=True)
        (admin / "status").touch()
        self.options = f"--root={self.root} --admindir={admin} --log=/dev/null --force-not-root,bad-path,downgrade"

    def command(self, pack):
        script = _DPKG.format(url=f"{self.url}/{pack.debian.name}", options=self.options)
        path = os.environ["PATH"] + ":/usr/sbin:/sbin"
        return ["/bin/sh", "-c", script], {**os.environ, "PATH": path}

    def installed(self):
        return self.root / INSTALLED
