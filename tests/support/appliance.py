"""An appliance in its own folder, installed or with the programs of a build, and a server that publishes packs.

What is not installed is a copy of tests/appliance in the build folder, as of the C++ tests: see appliance.cmake.
"""

import functools
import hashlib
import http.server
import json
import os
import pathlib
import random
import re
import shutil
import stat
import subprocess
import threading

SOURCE = pathlib.Path(__file__).resolve().parents[2]


def tree(folder):
    """What the folder holds: each path below it with its kind, mode and content; None when it does not exist."""
    folder = pathlib.Path(folder)
    if not folder.is_dir():
        return None
    entries = {}
    for path in sorted(folder.rglob("*")):
        status = path.lstat()
        if stat.S_ISLNK(status.st_mode):
            content = os.readlink(path)
        elif stat.S_ISREG(status.st_mode):
            content = hashlib.sha256(path.read_bytes()).hexdigest()
        else:
            content = ""
        entries[str(path.relative_to(folder))] = (status.st_mode, content)
    return entries


def mkpack_of(build):
    """The program of a build."""
    return pathlib.Path(build) / "tools/mkpack/mkpack"


def pack_options(build, payload, output, version, address, **more):
    """What mkpack takes to publish the payload in the folder `output`, which is served at the address."""
    name = Paths(build).hevc_pack
    options = {"name": name, "title": "HEVC", "payload": payload, "output": output, "version": version, **more}
    return [f"--base-url={address}", "--allow-older", *(f"--{name}={value}" for name, value in options.items())]


def make_pack(build, payload, output, version, address, mkpack=None, **more):
    """Publishes the payload in the folder `output`, which is served at the address."""
    subprocess.run(
        [mkpack or mkpack_of(build), *pack_options(build, payload, output, version, address, **more)],
        check=True,
        stdout=subprocess.DEVNULL,
    )


def install(build, root, *options):
    """Installs the build folder below `root`."""
    subprocess.run(
        ["cmake", "--install", build, *options],
        env={**os.environ, "DESTDIR": str(root)},
        check=True,
        stdout=subprocess.DEVNULL,
    )


def unpack(packages, root):
    """Unpacks all Debian packages of the folder below `root`."""
    for package in sorted(pathlib.Path(packages).glob("*.deb")):
        subprocess.run(["dpkg-deb", "-x", package, root], check=True)


# What a pack folder has besides its payload.
OF_THE_PACKAGE = {"INFO", "MANIFEST", "MANIFEST.sig", "has_hevc"}


class Publisher:
    """Makes packs and serves them over HTTP on a free loopback port for as long as it is entered."""

    def __init__(self, folder, build):
        self.folder, self.build = pathlib.Path(folder), build
        self.payloads = {}
        self.signing = {}
        self.fetched = 0  # packages that somebody began to fetch

    def __enter__(self):
        publisher = self

        class Quiet(http.server.SimpleHTTPRequestHandler):
            def do_GET(self):
                publisher.fetched += self.path.endswith(".opk")
                super().do_GET()

            def log_message(self, *_):
                pass

        class Server(http.server.ThreadingHTTPServer):
            def handle_error(self, *_):
                pass  # a client that was killed midway

        self.folder.mkdir(parents=True)
        handler = functools.partial(Quiet, directory=str(self.folder))
        self.server = Server(("127.0.0.1", 0), handler)
        self.url = f"http://127.0.0.1:{self.server.server_address[1]}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        return self

    def __exit__(self, *_):
        self.server.shutdown()
        self.server.server_close()

    def make_signer(self):
        """Makes a key that signs what is published from now on; returns its certificate."""
        certificate, key = (self.folder.parent / f"signer.{ending}" for ending in ("pem", "key"))
        subprocess.run(
            ["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes"]
            + ["-subj", "/CN=signer", "-days", "30", "-keyout", key, "-out", certificate],
            check=True,
            stdin=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL,
        )
        self.signing = {"sign-key": key, "sign-cert": certificate}
        return certificate

    def make_payload(self, name, seed, sizes):
        """Makes a payload of a few files, which have its name in theirs; returns its folder."""
        payload = self.folder.parent / f"payload-{name}"
        (payload / "lib/plugins").mkdir(parents=True)
        source = random.Random(seed)
        for number, size in enumerate(sizes):
            (payload / f"lib/libcodec{number}.so.{name}").write_bytes(source.randbytes(size))
        (payload / "lib/plugins/table.bin").write_bytes(source.randbytes(3_000))
        (payload / "lib/libcodec.so").symlink_to(f"libcodec0.so.{name}")
        return payload

    def publish(self, version, seed, sizes=(40_000, 150_000), more=None, **options):
        """Publishes a pack of a few files, and of more by their names, under its own reply; returns its address."""
        payload = self.make_payload(version, seed, sizes)
        for name, content in (more or {}).items():
            (payload / name).write_bytes(content)
        reply = self.folder / f"reply-{version}.json"
        make_pack(self.build, payload, self.folder, version, self.url, reply=reply, **self.signing, **options)
        self.payloads[version] = tree(payload)
        return f"{self.url}/{reply.name}"

    def is_whole(self, folder, version):
        """Whether the folder holds exactly the pack of this version, byte for byte."""
        found = tree(folder)
        if found is None:
            return False
        info = pathlib.Path(folder) / "INFO"
        return (
            info.is_file()
            and f'version="{version}"' in info.read_text(errors="replace").splitlines()
            and {name: entry for name, entry in found.items() if name not in OF_THE_PACKAGE} == self.payloads[version]
            and "has_hevc" in found
        )


class Paths:
    """A build's folders and files of the appliance, relative to the root, and its names: the list of platform/paths.h,
    in lower case and without the project's name."""

    def __init__(self, build):
        listed = json.loads((pathlib.Path(build) / "paths.json").read_text())
        for name, path in listed.items():
            setattr(self, name.removeprefix("ORBAMIRA_").lower(), path.lstrip("/"))


class Appliance:
    """One appliance, of a build; everything that it keeps lies below `root`."""

    def __init__(self, root, build):
        self.root, self.build, self.paths = pathlib.Path(root), build, Paths(build)
        self.settings = self.root / self.paths.settings_folder
        self.state_folder = self.root / self.paths.state_folder
        self.cache = self.root / self.paths.cache_folder
        self.run_folder = self.root / self.paths.run_folder
        self.helpers = self.root / self.paths.helpers_folder
        self.plugins = self.root / self.paths.plugins_folder
        self.health = self.root / self.paths.health_folder
        self.packages = self.root / self.paths.packs_folder
        self.pack = self.packages / self.paths.pack_folder_name
        self.backup = self.packages / f".{self.pack.name}.backup"
        self.previous = self.packages / f".{self.pack.name}.previous"
        self.unpacked = self.packages / f".{self.pack.name}.unpacked"
        self.download = self.cache / "download"
        self.status_file = self.state_folder / "status.json"
        self.history = {self.state_folder / name for name in ("history.jsonl", "history.jsonl.1")}
        self.accepted_file = self.state_folder / "accepted-packages"
        self.health_file = self.state_folder / "health.json"
        self.offer_file = self.state_folder / "offer.json"
        self.broken_status_file = self.state_folder / "status.json.broken"

    @classmethod
    def lay_out(cls, root, build, packctl=True):
        """A fresh appliance with the programs of the build folder: with packctl, or with a host of the library."""
        build = pathlib.Path(build).resolve()
        shutil.copytree(build / "tests/appliance", root, symlinks=True, dirs_exist_ok=True)
        appliance = cls(root, build)
        if not packctl:
            appliance.program("packctl").unlink()
            appliance.program("host").symlink_to(build / "tests/faults/update_host")
        return appliance

    @property
    def libraries(self):
        """Where the libraries are installed, with what hosts are built with."""
        return next((self.root / "usr/lib").glob("**/liborbamira_updater.so")).parent

    @property
    def include_folders(self):
        """Where the installed headers are."""
        return [self.root / "usr/include/orbamira", self.libraries / "orbamira/include"]

    def program(self, name):
        """Where the program is that a person or a timer starts."""
        return self.root / "usr/bin" / name

    def identify(self, name="test-appliance"):
        """Gives an installed appliance an identity, which it comes without."""
        system, version = self.root / self.paths.system_file, self.root / self.paths.version_file
        for file in (system, version, self.settings / "updater.conf"):
            file.parent.mkdir(parents=True, exist_ok=True)
        system.write_text(f'{self.paths.unique_key}="{name}"\n')
        version.write_text(
            f'{self.paths.major_version_key}="3"\n'
            f'{self.paths.minor_version_key}="1"\n'
            f'{self.paths.build_number_key}="1200"\n'
        )

    def use_server(self, address, **more):
        """Sets the update server, and more settings by their keys."""
        settings = {"pack_update_server": address, **more}
        text = "".join(f'{key}="{value}"\n' for key, value in settings.items())
        (self.settings / "updater.conf").write_text(text)

    def trust(self, certificate):
        """Accepts only what is signed by it."""
        shutil.copy(certificate, self.settings / "keyring.pem")

    def accepted(self):
        """What is remembered of accepted packages, by key; empty when there is nothing, or it is damaged."""
        text = self.accepted_file.read_text() if self.accepted_file.exists() else ""
        return dict(re.findall(r'^(\w+)="([^"\n]*)"$', text, flags=re.MULTILINE))

    def copy_to(self, root):
        """A second appliance in the same state."""
        shutil.copytree(self.root, root, symlinks=True)
        return Appliance(root, self.build)

    def environment(self):
        return {**os.environ, "ORBAMIRA_ROOT": str(self.root)}

    def packctl(self, *arguments, wrapper=(), timeout=600):
        """Runs packctl, behind a wrapper command where one is given; returns the completed process."""
        return self.run(self.program("packctl"), *arguments, wrapper=wrapper, timeout=timeout)

    def run(self, program, *arguments, wrapper=(), timeout=600):
        """As above, for any program of the appliance."""
        return subprocess.run(
            [*map(str, wrapper), str(program), *arguments],
            env=self.environment(),
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            timeout=timeout,
            check=False,
        )

    def expect(self, *arguments, program="packctl"):
        """Runs packctl or the host, which must end with 0."""
        done = self.run(self.program(program), *arguments)
        if done.returncode != 0:
            raise RuntimeError(
                f"{program} {' '.join(arguments)} ended with {done.returncode}: " f"{done.stdout}{done.stderr}"
            )

    def write_status(self, text):
        """Replaces the store in one step: a watcher would take a half-written file for a broken one."""
        new = self.state_folder / "status.new"
        new.write_text(text)
        new.replace(self.status_file)

    def status(self):
        """The recorded status; "lost" when the store has none. Raises ValueError when the store is no JSON object."""
        try:
            store = json.loads(self.status_file.read_bytes())
        except FileNotFoundError:
            return "lost"
        if not isinstance(store, dict):
            raise ValueError("the status store is no object")
        return store.get("status", "lost")

    def state(self):
        """A digest of what the disk holds below the root: times, locks, the history and the random parts of names do
        not count."""
        history = {str(path.relative_to(self.root)) for path in (*self.history, self.health_file)}
        health = self.health_file.read_text() if self.health_file.exists() else ""
        entries = sorted(
            (re.sub(r"\.(?!backup|broken)[A-Za-z0-9]{6}(?=/|$)", ".XXXXXX", name), *entry)
            for name, entry in tree(self.root).items()
            if not name.startswith(f"{self.paths.run_folder}/lock/") and name not in history
        )
        health = re.sub('"time":[0-9]+', "", health)
        return hashlib.sha256(repr((entries, health)).encode()).hexdigest()

    def half_built(self):
        """Files and folders that were not yet put in place, as paths."""
        found = [
            *self.packages.glob(f".{self.pack.name}.partial.*"),
            *self.state_folder.glob(f"{self.accepted_file.name}.??????"),
            *self.status_file.parent.glob("status.json.??????"),
            *self.state_folder.glob("*.json.new"),
        ]
        return sorted(str(path) for path in found if path != self.broken_status_file)

    def half_removed(self):
        """Folders that are being removed, as paths."""
        return sorted(
            str(path) for folder in (self.packages, self.download.parent) for path in folder.glob(".removed.??????")
        )

    def leftovers(self):
        """What an update should not leave behind, as paths."""
        kept = {
            self.pack,
            self.previous,
            self.status_file,
            self.accepted_file,
            self.health_file,
            self.state_folder / "healthy-pack",
            self.packages,
            self.state_folder / "codec-requirements.json",
            self.cache / "checked",
            *self.history,
        }
        found = [*self.packages.iterdir(), *self.state_folder.iterdir()]
        if self.download.parent.exists():
            found.extend(self.download.parent.iterdir())
        return sorted(str(path) for path in found if path not in kept)
