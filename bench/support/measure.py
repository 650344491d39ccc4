"""One measured run of a command: what it took, and whether what it installed is what was published."""

import json
import os
import subprocess

# What packages bring besides the payload.
_MARKERS = {"INFO", "has_hevc"}
_PIECE = 1 << 20


class Watch:
    """Runs commands under the program `watch` of the build folder."""

    def __init__(self, build, folder):
        self.program, self.report = build.resolve() / "bench/watch", folder / "watch.json"
        if not self.program.exists():
            raise SystemExit(f"{self.program} is missing: build it with ORBAMIRA_BUILD_BENCH")

    def run(self, command, environment, folder):
        """The watcher's report. Everybody's unwritten data goes to the disk first, so that none pays for another's."""
        os.sync()
        done = subprocess.run(
            [self.program, "--report", self.report, "--", *command],
            env=environment,
            cwd=folder,
            stdin=subprocess.DEVNULL,
            capture_output=True,
            text=True,
            check=False,
        )
        if done.returncode != 0:
            raise RuntimeError(f"{command} ended with {done.returncode}: {done.stdout}{done.stderr}")
        return json.loads(self.report.read_text())


def peak_bytes(report):
    """Peak resident memory of the largest process."""
    return max(process["peak_kib"] for process in report["processes"]) * 1024


def _names(folder):
    return {path.relative_to(folder): path.is_dir() for path in folder.rglob("*")}


def _same(left, right):
    if left.stat().st_size != right.stat().st_size:
        return False
    with left.open("rb") as one, right.open("rb") as other:
        while piece := one.read(_PIECE):
            if piece != other.read(_PIECE):
                return False
    return True


def check_installed(folder, payload):
    """Raises RuntimeError unless the folder holds the payload, byte for byte, and nothing else."""
    expected, found = _names(payload), _names(folder)
    found = {name: is_folder for name, is_folder in found.items() if str(name) not in _MARKERS}
    if found != expected:
        raise RuntimeError(f"{folder} holds other names than {payload}")
    for name, is_folder in expected.items():
        if not is_folder and not _same(folder / name, payload / name):
            raise RuntimeError(f"{folder / name} differs from {payload / name}")
