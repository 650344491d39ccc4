"""nginx over a folder, on a free port of the loopback."""

import pathlib

import project  # noqa: F401  pylint: disable=unused-import
from nginx import Nginx

CONFIGURATION = """\
  log_format bytes '$status $request_length $bytes_sent';
  access_log {log};
  sendfile on;
  server {{
    listen LISTEN;
    root {folder};
    {limit}
  }}
"""


class Server(Nginx):
    """Serves the folder for as long as it is entered; `work` takes nginx's own files, `rate` bytes per second.
    With `log`, what was answered can be asked for."""

    def __init__(self, folder, work, rate=None, log=False):
        limit = f"limit_rate {rate};" if rate else ""
        setting = "access.log bytes" if log else "off"
        super().__init__(work, CONFIGURATION.format(log=setting, folder=folder.resolve(), limit=limit))

    def processor(self):
        """Seconds of processor time that nginx, which is one thread here, has taken."""
        return int(pathlib.Path(f"/proc/{self.process.pid}/schedstat").read_text().split()[0]) / 1e9

    def answers(self):
        """Every request that was answered: its status, and the bytes of the request and of the answer."""
        return [dict(zip(("status", "request", "answer"), map(int, line.split()), strict=True)) for line in self.log()]
