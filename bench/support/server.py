"""nginx over a folder, on a free port of the loopback."""

import os
import pathlib
import socket
import subprocess
import time
import urllib.error
import urllib.request

CONFIGURATION = """\
daemon off;
master_process off;
pid nginx.pid;
error_log error.log;
events {{}}
http {{
  log_format bytes '$status $request_length $bytes_sent';
  access_log {log};
  sendfile on;
  client_body_temp_path tmp;
  proxy_temp_path tmp;
  fastcgi_temp_path tmp;
  uwsgi_temp_path tmp;
  scgi_temp_path tmp;
  server {{
    listen 127.0.0.1:{port};
    root {folder};
    {limit}
  }}
}}
"""


def _free_port():
    with socket.create_server(("127.0.0.1", 0)) as server:
        return server.getsockname()[1]


class Server:
    """Serves the folder for as long as it is entered; `work` takes nginx's own files, `rate` bytes per second.
    With `log`, what was answered can be asked for."""

    def __init__(self, folder, work, rate=None, log=False):
        self.folder, self.work, self.rate = folder.resolve(), work.resolve(), rate
        self.log_setting = "access.log bytes" if log else "off"

    def __enter__(self):
        self.work.mkdir(parents=True, exist_ok=True)
        limit = f"limit_rate {self.rate};" if self.rate else ""
        for _ in range(5):
            # Between here and nginx somebody else may take the port: then another is tried.
            port = _free_port()
            (self.work / "nginx.conf").write_text(
                CONFIGURATION.format(port=port, folder=self.folder, limit=limit, log=self.log_setting)
            )
            # Where an ordinary user does not look for programs.
            environment = {**os.environ, "PATH": os.environ["PATH"] + ":/usr/sbin"}
            self.process = subprocess.Popen(
                ["nginx", "-e", "error.log", "-p", str(self.work), "-c", "nginx.conf"],
                env=environment,
                stdin=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
            )
            self.url = f"http://127.0.0.1:{port}"
            if self._answers():
                return self
            self._stop()
        raise RuntimeError(f"nginx does not start; see {self.work}/error.log")

    def __exit__(self, *_):
        self._stop()

    def processor(self):
        """Seconds of processor time that nginx, which is one thread here, has taken."""
        return int(pathlib.Path(f"/proc/{self.process.pid}/schedstat").read_text().split()[0]) / 1e9

    def log(self):
        """Every request that was answered: its status, and the bytes of the request and of the answer."""
        lines = (self.work / "access.log").read_text().splitlines()
        return [dict(zip(("status", "request", "answer"), map(int, line.split()), strict=True)) for line in lines]

    def _answers(self):
        fetch = urllib.request.build_opener(urllib.request.ProxyHandler({})).open
        end = time.monotonic() + 300
        while time.monotonic() < end and self.process.poll() is None:
            try:
                fetch(self.url, timeout=5).close()
                return True
            except urllib.error.HTTPError:
                return True  # it has no index to show
            except OSError:
                time.sleep(0.02)
        return False

    def _stop(self):
        self.process.terminate()
        self.process.wait()
