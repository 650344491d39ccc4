"""An installation staged in a folder, and a web server that publishes packs to it."""

import os
import pathlib
import socket
import subprocess
import time
import urllib.request


def install(build, root):
    """Installs the build folder below `root`."""
    subprocess.run(
        ["cmake", "--install", str(build)],
        env={**os.environ, "DESTDIR": str(root)},
        check=True,
        stdout=subprocess.DEVNULL,
    )


def unpack(packages, root):
    """Unpacks all Debian packages of the folder below `root`."""
    for package in sorted(pathlib.Path(packages).glob("*.deb")):
        subprocess.run(["dpkg-deb", "-x", package, root], check=True)


class Stage:
    """What is installed below `root`. It runs there, and hosts can be built against it."""

    def __init__(self, root):
        self.root = pathlib.Path(root)
        self.usr = self.root / "usr"
        self.libraries = next(self.usr.glob("lib/**/liborbamira_updater.so")).parent
        self.include_folders = [self.usr / "include/orbamira", self.libraries / "orbamira/include"]

    def environment(self):
        return {**os.environ, "ORBAMIRA_ROOT": str(self.root)}

    def set_up(self, server):
        """Gives the appliance an identity and the address of its update server."""
        settings = self.root / "etc/orbamira"
        settings.mkdir(parents=True, exist_ok=True)
        (settings / "updater.conf").write_text(f'pack_update_server="{server}/reply.json"\n')
        (settings / "system.conf").write_text('unique="staged"\n')
        (settings / "version.conf").write_text('major_version="7"\nminor_version="2"\nbuild_number="64570"\n')

    def publish(self, server, version, size):
        """Makes a pack whose content is random bytes and has the server offer it."""
        payload = self.root / f"payload-{version}"
        payload.mkdir()
        (payload / "codec").write_bytes(os.urandom(size))
        subprocess.run(
            [
                self.usr / "bin/mkpack",
                "--payload",
                payload,
                "--output",
                server.packs,
                "--name",
                "orbamira-hevc",
                "--version",
                version,
                "--title",
                "HEVC",
                "--base-url",
                server.url,
            ],
            check=True,
            stdout=subprocess.DEVNULL,
        )


class WebServer:
    """nginx on a free port of the loopback, for as long as it is entered."""

    CONFIGURATION = """
daemon off;
master_process off;
pid nginx.pid;
error_log error.log;
events {{}}
http {{
  log_format requests '$request_method $request_uri';
  access_log access.log requests;
  client_body_temp_path body;
  proxy_temp_path proxy;
  fastcgi_temp_path fastcgi;
  uwsgi_temp_path uwsgi;
  scgi_temp_path scgi;
  server {{ listen 127.0.0.1:{port}; root packs; }}
}}
"""

    def __init__(self, folder):
        self.folder = pathlib.Path(folder)
        self.packs = self.folder / "packs"
        self.packs.mkdir(parents=True)

    def __enter__(self):
        # The kernel names a free port; between here and nginx somebody else may take it.
        for _ in range(5):
            with socket.create_server(("127.0.0.1", 0)) as probe:
                port = probe.getsockname()[1]
            self.url = f"http://127.0.0.1:{port}"
            (self.folder / "nginx.conf").write_text(self.CONFIGURATION.format(port=port))
            command = ["nginx", "-e", "error.log", "-p", str(self.folder), "-c", "nginx.conf"]
            path = os.environ["PATH"] + ":/usr/sbin"
            self.process = subprocess.Popen(command, env={**os.environ, "PATH": path}, stderr=subprocess.DEVNULL)
            if self._answers():
                return self
            self.__exit__()
        raise RuntimeError(f"nginx does not start:\n{(self.folder / 'error.log').read_text()}")

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()

    def requests(self):
        """What was asked for, one "METHOD ADDRESS" a request."""
        return (self.folder / "access.log").read_text().splitlines()

    def _answers(self):
        token = os.urandom(8).hex()
        (self.packs / "ready").write_text(token)
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        deadline = time.monotonic() + 300
        while time.monotonic() < deadline and self.process.poll() is None:
            try:
                return opener.open(f"{self.url}/ready", timeout=5).read().decode() == token
            except OSError:
                time.sleep(0.05)
        return False
