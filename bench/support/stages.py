"""Where the time of packctl update goes, from the system calls at the borders of its stages."""

import os
import pathlib
import re
import shutil
import subprocess
import tempfile

CHILDREN = {
    "notify-plugins": "plugin calls",
    "orba-archive": "unpack, outer",
    "orba-tar": "unpack, inner",
    "orba-copy": "place",
}
STAGES = (
    "check",
    "download",
    "download, made durable",
    "digest",
    "unpack, outer",
    "unpack, inner",
    "place",
    "clean up",
    "status writes",
    "plugin calls",
    "other",
)
_CALLS = "execve,connect,fadvise64,flock,fsync,fdatasync,clone,wait4,renameat2,unlinkat"
_LINE = re.compile(r"(?P<begin>\d+\.\d+) (?P<call>\w+)\((?P<rest>.*?)(?:<(?P<length>\d+\.\d+)>)?$")


class _Call:
    def __init__(self, match):
        self.begin, self.name, self.text = float(match["begin"]), match["call"], match["rest"]
        self.end = self.begin + float(match["length"] or 0)


def _calls(path):
    matches = map(_LINE.match, path.read_text(errors="replace").splitlines())
    return [_Call(match) for match in matches if match]


def _worker(threads):
    """The calls of the thread that does the work: it connects to the server."""
    return next(calls for calls in threads if any(call.name == "connect" for call in calls))


def _programs(threads):
    """The names of the programs run, in their order; packctl itself is the first, plugins' own children are none."""
    runs = [call for calls in threads for call in calls if call.name == "execve" and " = 0" in call.text]
    names = [pathlib.PurePath(call.text.split('"')[1]).name for call in sorted(runs, key=lambda call: call.begin)]
    return [name for name in names[1:] if name in CHILDREN]


def _durations(threads, wall):
    worker = _worker(threads)
    spent = dict.fromkeys(STAGES, 0.0)
    to_server = [call for call in worker if call.name == "connect" and "AF_INET" in call.text]
    body = next(call for call in worker if call.name == "fsync" and ".opk" in call.text)
    digest = next(call for call in worker if call.name == "fadvise64" and ".opk" in call.text)
    saved = 0.0  # during the download
    lock = written = aside = None
    for call in worker:
        if call.name == "flock" and "status.lock" in call.text:
            if "LOCK_EX" in call.text:
                lock, written = call.begin, False
            elif written:
                spent["status writes"] += call.end - lock
                saved += call.end - lock if to_server[1].begin < lock < body.begin else 0
        elif call.name in ("fsync", "fdatasync") and "/status.json" in call.text:
            written = True
        elif '".removed.' in call.text and call.name == "renameat2":
            aside = call.begin
        elif '".removed.' in call.text and "AT_REMOVEDIR" in call.text:
            spent["clean up"] += call.end - aside
    spent["check"] = to_server[1].begin - to_server[0].begin
    spent["download"] = body.begin - to_server[1].begin - saved
    spent["download, made durable"] = body.end - body.begin
    spent["digest"] = next(call for call in worker if call.begin > digest.begin).begin - digest.begin
    starts = [call for call in worker if call.name == "clone"]
    waits = [call for call in worker if call.name == "wait4"]
    for start, wait, program in zip(starts, waits, _programs(threads), strict=True):
        spent[CHILDREN[program]] += wait.end - start.begin
    spent["other"] = wall - sum(spent.values())
    return spent


def measure(command, environment, folder):
    """Seconds of each stage in one run of the command. The calls that are watched make it a little slower."""
    if not shutil.which("strace"):
        raise SystemExit("strace is missing")
    os.sync()
    with tempfile.TemporaryDirectory(prefix="stages-", dir=folder) as name:
        trace = pathlib.Path(name) / "trace"
        subprocess.run(
            ["strace", "-ff", "--seccomp-bpf", "-ttt", "-T", "-y", "-e", f"trace={_CALLS}", "-o", trace, *command],
            env=environment,
            check=True,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.DEVNULL,
        )
        threads = [_calls(path) for path in trace.parent.iterdir()]
    begin = min(calls[0].begin for calls in threads if calls)
    end = max(calls[-1].end for calls in threads if calls)
    return _durations(threads, end - begin)
