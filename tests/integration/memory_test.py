#!/usr/bin/env python3
"""An update takes little memory in each of its processes, and no more for a large pack than for a small one."""

import argparse
import pathlib
import sys
import tempfile

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "faults"))
from appliance import Appliance, Publisher  # pylint: disable=wrong-import-position

LIMIT_KIB = 24 * 1024
GROWTH_KIB = 2 * 1024
SIZES = {"small": (1_000_000, 1_000_000), "large": (31_000_000,) * 7}


def peak(appliance, report):
    """Resident memory in KiB, at its most, of the largest process of an update."""
    # Started from a small program: a process counts the memory of the one that it was forked from.
    done = appliance.packctl("update", wrapper=("/usr/bin/time", "--format=%M", f"--output={report}"))
    if done.returncode != 0:
        raise RuntimeError(f"the update failed: {done.stdout}{done.stderr}")
    return int(report.read_text())


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, help="build folder whose programs are put to the test")
    parser.add_argument("--source", required=True, help="the project's folder")
    arguments = parser.parse_args()
    peaks = {}
    with tempfile.TemporaryDirectory(prefix="orbamira-memory-") as name:
        folder = pathlib.Path(name)
        with Publisher(arguments.source, folder / "published") as publisher:
            appliance = Appliance.lay_out(folder / "root", arguments.build, arguments.source)
            for number, (size, payload) in enumerate(SIZES.items(), start=1):
                appliance.use_server(publisher.publish(f"{number}.0", number, payload))
                peaks[size] = peak(appliance, folder / "peak")
                if not publisher.is_whole(appliance.pack, f"{number}.0"):
                    raise RuntimeError("the pack is not in place")
    print(", ".join(f"{size} pack: {kib} KiB" for size, kib in peaks.items()))
    sys.exit(max(peaks.values()) > LIMIT_KIB or peaks["large"] - peaks["small"] > GROWTH_KIB)


if __name__ == "__main__":
    main()
