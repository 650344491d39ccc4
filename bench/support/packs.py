"""Published packs: a payload in two versions, as our package, and as a Debian package with the same files."""

import dataclasses
import hashlib
import json
import os
import pathlib
import shutil
import subprocess

import payload
import project
from appliance import Paths, make_pack

VERSIONS = ("1.0.0", "2.0.0")
# Where a Debian package puts the files.
INSTALLED = "opt/codec-pack"
_CONTROL = """\
Package: codec-pack
Version: {version}
Architecture: all
Maintainer: nobody <nobody@localhost>
Description: the payload of a benchmark
"""


@dataclasses.dataclass
class Pack:
    """One version; the files lie in the folder that is served."""

    version: str
    payload: pathlib.Path
    package: pathlib.Path
    checksum: str
    debian: pathlib.Path | None


def _mkpack_changed():
    """When mkpack was changed last: what an older one made may lie in the package in another way."""
    return max(path.stat().st_mtime for path in (project.SOURCE / "tools/mkpack").rglob("*.py"))


class Shelf:
    """Payloads and what was made of them. Making them takes long, so they are kept for the next run."""

    def __init__(self, folder, build):
        self.folder, self.build = folder, build
        self.pack_name = Paths(build).hevc_pack
        self.folder.mkdir(parents=True, exist_ok=True)
        self.served = folder / "served"

    def pack(self, name, shape, version, debian=False):
        """The payload of this shape (files, bytes of each from, to) in this version."""
        source = self.folder / "payloads" / f"{name}-{version}"
        if not source.exists():
            source.parent.mkdir(exist_ok=True)
            payload.make(source, *shape, f"{name} {version}")
        package, checksum = self._package(name, source, version)
        return Pack(version, source, package, checksum, self._debian(name, source, version) if debian else None)

    def offer(self, pack, url):
        """The address of a reply that offers this pack from the server at `url`."""
        reply = self.served / f"reply-{pack.package.stem}.json"
        member = {
            "title": "HEVC",
            "version": pack.version,
            "link": f"{url}/{pack.package.name}",
            "checksum": pack.checksum,
            "size": pack.package.stat().st_size,
        }
        reply.write_text(json.dumps({self.pack_name: member}))
        return f"{url}/{reply.name}"

    def _package(self, name, source, version):
        package = self.served / f"{name}-{version}.opk"
        if not package.exists() or package.stat().st_mtime < _mkpack_changed():
            made = self.folder / "made"
            make_pack(self.build, source, made, version, "http://localhost")
            self.served.mkdir(exist_ok=True)
            reply = json.loads((made / "reply.json").read_text())[self.pack_name]
            (made / pathlib.Path(reply["link"]).name).rename(package)
            shutil.rmtree(made)
        with package.open("rb") as file:
            return package, hashlib.file_digest(file, "sha256").hexdigest()

    def _debian(self, name, source, version):
        """The same files, compressed in the same way."""
        package = self.served / f"{name}-{version}.deb"
        if not package.exists():
            tree = self.folder / "made"
            shutil.rmtree(tree, ignore_errors=True)
            (tree / "DEBIAN").mkdir(parents=True)
            (tree / "DEBIAN").chmod(0o755)
            (tree / "DEBIAN/control").write_text(_CONTROL.format(version=version))
            shutil.copytree(source, tree / INSTALLED, symlinks=True, copy_function=os.link)
            subprocess.run(
                ["dpkg-deb", "--root-owner-group", "-Zgzip", "-z9", "--build", tree, tree / "made.deb"],
                check=True,
                stdout=subprocess.DEVNULL,
            )
            (tree / "made.deb").rename(package)
            shutil.rmtree(tree)
        return package
