"""nginx on a free port of the loopback, for as long as it is entered.

usage: nginx.py FOLDER RATE

As a program it serves FOLDER/packs at RATE bytes a second, prints its address, and ends with its standard input.
"""

import contextlib
import os
import pathlib
import socket
import subprocess
import sys
import time

CONFIGURATION = """\
daemon off;
master_process off;
pid nginx.pid;
error_log error.log;
events {{}}
http {{
  client_body_temp_path tmp;
  proxy_temp_path tmp;
  fastcgi_temp_path tmp;
  uwsgi_temp_path tmp;
  scgi_temp_path tmp;
{http}
}}
"""
PATIENCE = 300  # seconds, far more than it takes


class Nginx:
    """`http` is what the block of that name has, with LISTEN for the address; `folder` takes nginx's own files."""

    def __init__(self, folder, http):
        self.folder, self.http = pathlib.Path(folder).resolve(), http

    def __enter__(self):
        self.folder.mkdir(parents=True, exist_ok=True)
        # Held until nginx has the port too, which only who runs as the same user and asks to share it can have.
        with socket.socket() as port:
            port.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEPORT, 1)
            port.bind(("127.0.0.1", 0))
            self.address = port.getsockname()
            listen = f"{self.address[0]}:{self.address[1]} reuseport"
            http = self.http.replace("LISTEN", listen)
            (self.folder / "nginx.conf").write_text(CONFIGURATION.format(http=http))
            self.process = subprocess.Popen(
                ["nginx", "-e", "error.log", "-p", str(self.folder), "-c", "nginx.conf"],
                env={**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin:/sbin"},  # where users do not look
                stdin=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            self.url = f"http://{self.address[0]}:{self.address[1]}"
            self._await_start()
        return self

    def __exit__(self, *_):
        self.process.terminate()
        self.process.wait()

    def _await_start(self):
        end = time.monotonic() + PATIENCE
        while self.process.poll() is None and time.monotonic() < end:
            with contextlib.suppress(OSError):
                socket.create_connection(self.address).close()
                return
            time.sleep(0.02)
        self.__exit__()
        raise RuntimeError(f"nginx does not start:\n{(self.folder / 'error.log').read_text()}")

    def log(self):
        """The lines of the access log."""
        return (self.folder / "access.log").read_text().splitlines()


class WebServer(Nginx):
    """Serves the folder `packs` in its own."""

    def __init__(self, folder, more=""):
        super().__init__(
            folder,
            "  log_format requests '$request_method $request_uri';\n"
            f"  server {{ listen LISTEN; root packs; access_log access.log requests; {more} }}",
        )
        self.packs = self.folder / "packs"
        self.packs.mkdir(parents=True, exist_ok=True)

    def requests(self):
        """What was asked for, one "METHOD ADDRESS" a request."""
        return self.log()


if __name__ == "__main__":
    with WebServer(sys.argv[1], f"limit_rate {sys.argv[2]};") as server:
        print(server.url, flush=True)
        sys.stdin.read()
