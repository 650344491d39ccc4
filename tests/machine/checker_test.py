#!/usr/bin/env python3
"""What looks at a machine after a kill finds what is planted: on its disk between the kill and the boot."""

import argparse
import os
import sys

from trial import Broken, Trial, add_arguments, bench, checks, disk

OLD = "1.0.0"
KILL = {"file_system": "ext4", "during": "planted", "page": False, "without_pack": False}


def disable_recovery(root, _):
    (root / "etc/systemd/system/basic.target.wants/orbamira-recover.service").unlink()


def delay_recovery(root, _):
    """Until after the ordinary services."""
    drop_in = root / "etc/systemd/system/orbamira-recover.service.d/late.conf"
    drop_in.write_text("[Service]\nExecStartPre=/bin/sleep 5\n")
    unit = root / "usr/lib/systemd/system/orbamira-recover.service"
    unit.write_text(unit.read_text().replace("Before=basic.target ", "Before="))


def break_pack(_, appliance):
    file = next(path for path in sorted(appliance.pack.rglob("*")) if path.is_file() and path.stat().st_size > 1000)
    with file.open("r+b") as content:
        content.truncate(1000)


def break_record(_, appliance):
    os.truncate(appliance.status_file, 100)


def leave_file(_, appliance):
    (appliance.state_folder / "left-behind").touch()


PLANTED = {  # with what is said of it
    disable_recovery: "recovery did not succeed",
    delay_recovery: "recovery ",  # is not over, or was too late
    break_pack: "the pack folder holds a part of a pack",
    break_record: "the status store cannot be read",
    leave_file: "left behind",
}


def is_found(trial, change, said):
    """Boots with the planted fault; whether it was found, and nothing without one. A new version is on offer."""
    trial.old = trial.last = OLD
    disk.copy(trial.image, trial.ran)
    trial.plant(lambda root: change and change(root, checks.Appliance(root, trial.bench.build)))
    trial.pending = [dict(KILL)]
    before = len(trial.bench.journal.entries)
    try:
        with trial.machine() as machine:
            trial.look(machine)
    except Broken:
        pass
    problems = [text for kill in trial.bench.journal.entries[before:] for text in (*kill["lost"], *kill["stuck"])]
    if not said:
        return not problems
    return any(said in problem for problem in problems)


def main():
    parser = argparse.ArgumentParser(description=__doc__)
    add_arguments(parser)
    with bench("machine checker", parser.parse_args()) as prepared:
        trial = Trial(prepared, "ext4")
        trial.make()
        disk.copy(trial.ran, trial.image)
        trial.version += 1
        prepared.server.offer(trial.text())
        failed = 0
        for change, said in {None: "", **PLANTED}.items():
            name = change.__name__ if change else "nothing"
            found = is_found(trial, change, said)
            print(f"{'ok' if found else 'FAILED'}: planted {name}", flush=True)
            failed += not found
    sys.exit(1 if failed else 0)


if __name__ == "__main__":
    main()
