"""An appliance in each state that the page of "packctl web" knows, with a year of history behind it."""

import contextlib
import datetime
import fcntl
import json
import os
import random
import shutil
import subprocess
import time

from browser import PATIENCE

DAY = 86_400
OLD, NEW = "1.5.0", "1.6.0"
SINCE = 64  # days that the old pack is installed
TOTAL = 71_600_000  # bytes of the package

FULL = {"code": "no_space", "message": "the disk is full", "remedy": "Make room, then run: sudo packctl update"}
UNREACHABLE = {
    "code": "server_unreachable",
    "message": "cannot reach the update server (127.0.0.1:8123: connection refused)",
    "remedy": "Check the network, then run: sudo packctl doctor",
}
UNSIGNED = {
    "code": "not_signed",
    "message": "the package is not signed",
    "remedy": "Get a signed package from its publisher.",
}

CANCELLED = {"code": "cancelled", "message": "cancelled", "remedy": ""}

# What is recorded in each state, and whether a program is at work. The page calls them the same in words.js.
STATES = {
    "absent": ({}, False),
    "current": ({"status": "up_to_date"}, False),
    "offered": ({"status": "need_download", "new_version": NEW}, False),
    "downloading": (
        {
            "status": "downloading_installing",
            "download_size_now": str(TOTAL * 43 // 100),
            "download_size_total": str(TOTAL),
        },
        True,
    ),
    "installing": ({"status": "downloading_installing", "install_step": "install"}, True),
    "failed": ({"status": "download_install_failed"}, False),
    "cancelled": ({"status": "download_install_failed"}, False),
    "interrupted": ({"status": "downloading_installing"}, False),
    "offline": ({"status": "up_to_date"}, False),
}


def pack(version):
    return {"package": "orbamira-hevc", "version": version}


def entry(days_ago, command, before, after, error=None, **more):
    """One line of the history; the time of day, for today now, and the duration follow from the day."""
    chance = random.Random(days_ago)
    then = datetime.datetime.now()
    if days_ago:
        then += datetime.timedelta(days=-days_ago)
        then = then.replace(hour=chance.randrange(9, 15), minute=chance.randrange(60))
    return {
        "time": int(then.timestamp()),
        "duration_ms": chance.randrange(900, 90_000),
        "command": command,
        "from": before,
        "to": after,
        "result": "failed" if error else "new_pack" if command == "check" else "done",
        "status": "download_install_failed" if error else "up_to_date",
        "exit": 1 if error else 0,
        "errors": [f"Failed: {error['message']}", f"the {command} failed"] if error else [],
        "error": error,
        **more,
    }


def year():
    """A year of an appliance: updates now and then, a month with a full disk, a server that is away for days."""
    first = SINCE + 300
    yield entry(first, "update", None, pack("1.0.0"))
    for number in range(1, 6):
        day = first - 60 * number
        before, after = pack(f"1.{number - 1}.0"), pack(f"1.{number}.0")
        yield entry(day + 2, "check", before, after)
        if number == 4:
            yield from (entry(day + 1 + each, "update", before, before, FULL) for each in range(30))
        yield entry(day, "update", before, after)
        yield from (entry(day - 4 - each, "check", after, after, UNREACHABLE) for each in range(number))
        yield entry(day - 20, "recover", after, after)


def endless_texts():
    """A year of daily failures with texts as long as the history keeps them, in endless words."""
    version = {"package": "orbamira-hevc-aac", "version": "1.0.0-" + "9" * 80}
    sentence = "The server was asked for http://192.0.2.1/" + "x" * 200 + " and answered with: <b>no</b> " * 9
    for day in range(365, 0, -1):
        error = {"code": f"code_{day}", "message": "w" * 500, "remedy": "r" * 200}
        yield entry(
            day, "update", version, version, error, errors=[sentence, "y" * 500, "short"], duration_ms=3_599_000
        )


class PageStates:
    """Brings one appliance into the states; as a context manager it is at work in none at the end."""

    def __init__(self, appliance, history=year):
        self.appliance, self.history = appliance, history
        self.work = contextlib.ExitStack()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.work.close()

    def install(self):
        self.appliance.pack.mkdir(parents=True, exist_ok=True)
        (self.appliance.pack / "has_hevc").touch()
        info = self.appliance.pack / "INFO"
        info.write_text(f'package="{self.appliance.paths.hevc_pack}"\nversion="{OLD}"\n')
        os.utime(info, (time.time() - SINCE * DAY,) * 2)

    def enter(self, name):
        """For "offline" end the server, or the network, after this."""
        self.work.close()
        record, is_at_work = STATES[name]
        requirements = self.appliance.state_folder / "codec-requirements.json"
        requirements.write_text('{"hevc": ["Videos", "TV server"], "aac": ["Music"]}')
        if name == "absent":
            shutil.rmtree(self.appliance.pack, ignore_errors=True)
            self.appliance.status_file.unlink(missing_ok=True)
            self.write_history([])
        else:
            self.install()
            found = [] if name in ("current", "offline") else [entry(1, "check", pack(OLD), pack(NEW))]
            ends = {
                "failed": [entry(0, "update", pack(OLD), pack(OLD), UNSIGNED)],
                "cancelled": [entry(0, "update", pack(OLD), pack(OLD), CANCELLED, result="cancelled", exit=130)],
            }
            self.write_history([*self.history(), *found, *ends.get(name, [])])
        if is_at_work:
            lock = self.appliance.run_folder / "lock/packctl.lock"
            lock.parent.mkdir(parents=True, exist_ok=True)
            fcntl.flock(self.work.enter_context(lock.open("w")), fcntl.LOCK_EX)
        self.appliance.cache.mkdir(parents=True, exist_ok=True)
        checked = self.appliance.cache / "checked"
        checked.write_text(json.dumps({"version": NEW, "is_news": name not in ("current", "offline")}))
        os.utime(checked, (time.time() - 2 * 3600,) * 2)
        if record:
            self.appliance.write_status(json.dumps(record))

    def write_history(self, entries):
        entries.sort(key=lambda entry: entry["time"])
        path = self.appliance.state_folder / "history.jsonl"
        path.write_text("".join(json.dumps(entry) + "\n" for entry in entries))


class Web:
    """A "packctl web" of the appliance."""

    def __init__(self, appliance, *arguments, wrapper=()):
        self.process = subprocess.Popen(
            [*wrapper, appliance.program("packctl"), "web", "--json", *arguments],
            env=appliance.environment(),
            stdout=subprocess.PIPE,
            text=True,
        )
        started = json.loads(self.process.stdout.readline())
        self.address, self.token = started["address"], started["token"]
        self.link = f"{self.address}#token={self.token}"
        self.port = self.address.rsplit(":", 1)[1].rstrip("/")

    def stop(self):
        self.process.terminate()
        self.process.wait(PATIENCE)
        self.process.stdout.close()
