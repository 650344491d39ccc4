#!/usr/bin/env python3
"""Every benchmark runs through and gives the figures that it promises."""

import argparse
import json
import os
import pathlib
import subprocess
import sys
import tempfile

BENCH = pathlib.Path(__file__).resolve().parent
ROW = {"wall", "processor", "peak"}
STAGES = {
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
}


def run(build, folder, script, *options, wrapper=()):
    """The JSON that the benchmark writes, behind a wrapper command where one is given."""
    figures = folder / "figures.json"
    subprocess.run(
        [
            *wrapper,
            sys.executable,
            "-B",
            BENCH / script,
            "--build",
            build,
            "--folder",
            folder,
            "--json",
            figures,
            *options,
        ],
        check=True,
        stdout=subprocess.DEVNULL,
        stdin=subprocess.DEVNULL,
    )
    return json.loads(figures.read_text())


def expect(condition, what):
    if not condition:
        raise SystemExit(f"failed: {what}")


def test_update(build, folder):
    found = run(build, folder, "update", "--payload", "small", "--runs", "1")
    expect(found["payload_bytes"] == 2_000_000 and 0 < found["package_bytes"] < 2_000_000, "sizes of the payload")
    for side in ("packctl", "pipeline", "dpkg"):
        for row in (found["medians"][side], *found["runs"][side]):
            expect(row.keys() == ROW | {"dirtied", "dropped"}, f"figures of {side}")
            expect(all(row[figure] > 0 for figure in ROW), f"{side} took nothing")
        expect(found["medians"][side]["dirtied"] > 2_000_000, f"{side} wrote less than the payload")
    for side in ("pipeline", "dpkg"):
        expect(found["ratios"][side].keys() == {"wall", "processor"}, f"ratios to {side}")


def test_device(build, folder):
    own_mounts = ["unshare", "--mount"]  # which end with the last process that sees them, however that ends
    may_mount = subprocess.run([*own_mounts, "true"], check=False, stderr=subprocess.DEVNULL).returncode == 0
    if not may_mount or not os.access("/dev/loop-control", os.W_OK):
        print("skipped: a device of its own takes root")
        return
    options = ("--payload", "0.4", "--runs", "1", "--device", "--plugins", "1")
    found = run(build, folder, "update", *options, wrapper=own_mounts)
    for side in ("packctl", "pipeline", "dpkg"):
        expect(found["medians"][side]["device"] > 400_000, f"{side} brought less than the payload to the device")
    expect(0 < found["medians"]["record"]["device"] < 400_000, "what the record alone brings to the device")
    expect(0 < found["medians"]["record"]["flushes"] <= found["medians"]["packctl"]["flushes"], "flushes")


def test_interrupt(build, folder):
    found = run(build, folder, "interrupt", "--kills", "2", "--files", "4")
    expect(found.keys() == {"packctl", "pipeline", "dpkg"}, "sides")
    for side, row in found.items():
        expect(row["kills"] == 2 == row["whole"] + row["absent"] + row["part"], f"{side}: what was found")
        expect(row["repaired"] <= 2, f"{side}: more repaired than killed")
    expect(
        found["packctl"]["part"] == 0 and found["packctl"]["repaired"] == 2, "packctl left a part, or was not repaired"
    )


def test_stages(build, folder):
    found = run(build, folder, "update", "--payload", "small", "--runs", "1", "--stages", "--plugins", "1")
    expect(found["stages"].keys() == STAGES, "names of the stages")
    expect(all(time > 0 for time in found["stages"].values()), f"a stage took no time: {found['stages']}")
    for program in ("packctl", "orba-archive", "orba-tar", "orba-copy", "notify-plugins"):
        expect(found["programs"][program]["peak"] > 0, f"figures of {program}")


def test_growth(build, folder):
    found = run(build, folder, "growth", "--runs", "1", "--most-megabytes", "0.1", "--most-files", "10")
    for figures, size, names in (("by_size", "0.1", {"packctl", "pipeline", "dpkg"}), ("by_files", "10", {"packctl"})):
        row = found[figures][size]
        expect(row.keys() == names | {"package"}, f"who took part {figures}")
        expect(all(row[name].keys() == ROW for name in names), f"figures {figures}")


def test_load(build, folder):
    found = run(build, folder, "load", "--runs", "1")
    expect(all(found["load"][part] > 0 for part in ("dlopen", "create", "both")), "processor time of loading")
    expect(all(found["sizes"].values()), "sizes")
    expect(found["calls"]["the answer"] == 1 and "the record" in found["calls"], "system calls")


def test_progress(build, folder):
    found = run(build, folder, "progress", "--runs", "1", "--megabytes", "5")
    expect(found["nothing_recorded"]["saves"] == 0, "saves when nothing is recorded")
    expect(set(found["recorded"]) == {"0", "5", "50", "200"}, "latencies")
    expect(found["recorded"]["200"]["first"] >= 0.2, "what a slow save costs")


def test_fleet(build, folder):
    found = run(
        build, folder, "fleet/run", "--runs", "1", "--checks", "4", "--processes", "1", "2", "--appliances", "3000"
    )
    check = found["bytes"]
    expect(0 < check["request"] < check["to_server"] and 0 < check["answer"] < check["from_server"], "bytes of a check")
    for row in found["load"].values():
        expect(row["checks_per_second"] > 0 and row["nginx"] > 0, "figures of the load")
        expect((row["request"], row["answer"]) == (check["request"], check["answer"]), "bytes in the server's log")
    for place in ("time zones of the world", "one time zone"):
        delayed, bare = (found["fleets"][f"{delay}, {place}"] for delay in ("random delay", "no random delay"))
        expect(delayed["checks"]["peak_minute"] < bare["checks"]["peak_minute"] / 5, "what the delay is for")
        for row in (delayed, bare):
            checks, release = row["checks"], row["release"]
            expect(checks["checks"] == 3000, "everyone checks once")
            expect(0 < checks["mean"] < checks["peak_minute"] <= checks["peak_second"], "order of the rates")
            expect(release["bytes"] == 3000 * 68_000_000 < release["bytes_without_resumes"], "bytes of a release")
            sent = release["mean_bits_per_second"] * 86_400 / 8
            expect(abs(sent / release["bytes"] - 1) < 1e-6, "bytes over the day")
            expect(release["mean_bits_per_second"] < release["peak_bits_per_second"], "peak of a release")

    soon = found["missed"]["evening"]["with orbamira-missed@check.timer"]
    expect(soon["checks_a_day"] > 0.95 and soon["never"] == 0, "everyone who is on in the evening checks every day")
    expect(soon["most"] <= 20 * 60, "within some minutes of boot")
    outages = found["missed"]["outages"]
    expect(outages["19:00 to 20:00"]["checks"] == 0, "who checked at night does not check again")
    night = outages["01:00 to 07:00"]
    expect(night["checks"] == 3000 and night["peak_minute"] < 3000 / 600, "no crowd when power is back")


def test_status(build, folder):
    report = folder / "status.json"
    subprocess.run(
        [
            build.resolve() / "bench/status",
            "--folder",
            folder,
            f"--benchmark_out={report}",
            "--benchmark_min_time=0.01",
            "--benchmark_filter=-processes:16",
        ],
        check=True,
        capture_output=True,
    )
    found = {row["name"]: row for row in json.loads(report.read_text())["benchmarks"]}
    expect(found["Save/against_plain_writes/manual_time"]["ratio"] > 0, "ratio of a save")
    expect(found["Read/unchanged"]["cpu_time"] > 0, "processor time of a read")
    for count in (1, 4):
        expect(found[f"Saves/processes:{count}/manual_time"]["saves_per_s"] > 0, f"saves by {count} processes")


def main():
    tests = {name.removeprefix("test_"): test for name, test in globals().items() if name.startswith("test_")}
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", type=pathlib.Path, required=True, help="build folder whose programs are run")
    parser.add_argument("test", choices=tests)
    arguments = parser.parse_args()
    with tempfile.TemporaryDirectory(prefix="orbamira-bench-") as name:
        tests[arguments.test](arguments.build, pathlib.Path(name))


if __name__ == "__main__":
    main()
