#!/usr/bin/env python3
"""Records docs/update.svg: an update and a refused update, on a copy of the appliance that scripts/demo left.

The commands run in a terminal of their own; what they print is drawn as it came. Only long waits are shortened.
"""

import argparse
import fcntl
import os
import pathlib
import pty
import shutil
import struct
import subprocess
import sys
import tempfile
import termios
import time

SOURCE = pathlib.Path(__file__).resolve().parents[1]
DEMO = SOURCE / "build/demo"
PACK = "orbamira-hevc"
COLUMNS = 88
RATE = "45k"  # bytes a second, so that the bar is seen
LONGEST_WAIT = 1.0  # seconds
TYPING, READING = 0.7, 1.6  # seconds before a command's output, and after it

sys.path.insert(0, str(SOURCE / "tests/support"))
from appliance import make_pack  # noqa: E402
from nginx import WebServer  # noqa: E402
from terminal_svg import draw  # noqa: E402


class Recording:
    """Collects what a terminal shows, as (moment, text)."""

    def __init__(self, environment):
        self.environment, self.events, self.now = environment, [], 0.0

    def show(self, text, wait=0.0):
        self.events.append((self.now, text))
        self.now += wait

    def comment(self, text):
        self.show(f"\x1b[2m# {text}\x1b[0m\r\n", TYPING)

    def command(self, text, status=0):
        """Runs the command, which must end with this status."""
        self.show("\x1b[1m$ ")
        self.show(f"{text}\x1b[0m\r\n", TYPING)
        process, output = self._start(text.split())
        last = time.monotonic()
        while chunk := self._read(output):
            waited = time.monotonic() - last
            last += waited
            self.now += min(waited, LONGEST_WAIT)
            self.show(chunk.decode())
        os.close(output)
        seen = os.waitstatus_to_exitcode(os.waitpid(process, 0)[1])
        if seen != status:
            raise SystemExit(f"record: {text} ended with {seen}, expected {status}")
        self.now += READING
        self.show("\r\n")

    def _start(self, command):
        process, output = pty.fork()
        if process == 0:
            fcntl.ioctl(0, termios.TIOCSWINSZ, struct.pack("HHHH", 50, COLUMNS, 0, 0))
            os.execvpe(command[0], command, self.environment)
        return process, output

    @staticmethod
    def _read(output):
        try:
            return os.read(output, 65536)
        except OSError:  # what Linux answers when the last writer is gone
            return b""


def publish(web, version, signed):
    payload = DEMO / "payload" / PACK
    (payload / "share/release").write_text(f"HEVC decoder {version}\n")
    keys = {"sign-key": DEMO / "signer.key", "sign-cert": DEMO / "signer.pem"} if signed else {}
    make_pack(SOURCE / "build/release", payload, web.packs, version, web.url, **keys)


def record(folder):
    root = folder / "appliance"
    shutil.copytree(DEMO / "appliance", root, symlinks=True)
    shutil.rmtree(root / "var")
    (root / "var/lib/orbamira").mkdir(parents=True)
    environment = {
        **{name: value for name, value in os.environ.items() if name != "NO_COLOR"},
        "ORBAMIRA_ROOT": str(root),
        "DEMO_PLUGIN_LOG": "/dev/null",
        "PATH": f"{root}/usr/bin:{os.environ['PATH']}",
        "TERM": "xterm-256color",
        "LC_ALL": "C.UTF-8",
        "TZ": "UTC",
    }
    with WebServer(folder / "web", f"limit_rate {RATE};") as web:
        (root / "etc/orbamira/updater.conf").write_text(f'pack_update_server="{web.url}/reply.json"\n')
        publish(web, "1.4.0", signed=True)
        subprocess.run(["packctl", "update"], env=environment, check=True, capture_output=True)
        recording = Recording(environment)
        publish(web, "1.5.0", signed=True)
        recording.command("packctl check")
        recording.command("packctl update")
        publish(web, "1.6.0", signed=False)
        recording.comment("Somebody replaces the next package on the server.")
        recording.command("packctl update", status=1)
        recording.command("packctl status")
    return recording.events


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument(
        "--output", type=pathlib.Path, default=SOURCE / "docs/update.svg", help="default: docs/update.svg"
    )
    arguments = parser.parse_args()
    if not (DEMO / "signer.pem").exists():
        sys.exit("record: there is no appliance yet: run scripts/demo first")
    with tempfile.TemporaryDirectory() as name:
        seen = record(pathlib.Path(name))
    arguments.output.write_text(draw(seen, COLUMNS, "A terminal: packctl installs an update, and refuses the next."))
