#!/usr/bin/env python3
"""Counts the lines of ours that tests run, in the build of the preset "coverage".

  coverage.py begin                        forgets what was counted
  coverage.py report FOLDER=PERCENT ...    prints each uncovered line and each folder's share; fails if one is too small

Each process counts in files that it maps, so what a process did before it was killed counts as well.
"""

import collections
import os
import pathlib
import shutil
import subprocess
import sys

TOP = pathlib.Path(__file__).resolve().parent.parent
BUILD = TOP / "build" / "coverage"
COUNTS = BUILD / "counts"


def is_instrumented(path):
    """Whether it is a program or a shared library."""
    if path.is_symlink() or not path.is_file() or not os.access(path, os.X_OK):
        return False
    with path.open("rb") as file:
        return file.read(4) == b"\x7fELF"


def objects(folders):
    return [path for folder in folders for path in sorted((BUILD / folder).rglob("*")) if is_instrumented(path)]


def begin():
    shutil.rmtree(COUNTS, ignore_errors=True)
    COUNTS.mkdir()
    COUNTS.chmod(0o1777)
    # Makes the files of the programs, so that a process of a test may write into them as another user, too.
    nowhere = BUILD / "no-appliance"
    for program in objects(["tools"]):
        environment = os.environ | {"ORBAMIRA_ROOT": str(nowhere)}
        subprocess.run([program, "--version"], env=environment, umask=0, capture_output=True, stdin=subprocess.DEVNULL)


def counts_of_lines():
    """For each file of ours, how often each of its lines ran."""
    merged = BUILD / "counts.profdata"
    subprocess.run(["llvm-profdata", "merge", "-o", merged, *COUNTS.glob("*.profraw")], check=True)
    first, *others = objects(["updater", "platform", "tools", "tests"])
    command = ["llvm-cov", "export", "-format=lcov", "-instr-profile", merged, first]
    command += [word for other in others for word in ("-object", other)]
    lines = collections.defaultdict(dict)
    with subprocess.Popen(command, stdout=subprocess.PIPE, text=True) as export:
        for key, _, value in (line.strip().partition(":") for line in export.stdout):
            if key == "SF":
                source = pathlib.Path(os.path.normpath(BUILD / value))
            elif key == "DA" and source.is_relative_to(TOP):
                number, count = map(int, value.split(","))
                file = lines[source.relative_to(TOP)]
                file[number] = max(count, file.get(number, 0))
    if export.returncode != 0:
        sys.exit("llvm-cov failed")
    return lines


def report(bounds):
    covered, total = collections.Counter(), collections.Counter()
    for file, lines in sorted(counts_of_lines().items()):
        folder = file.parts[0]
        if folder not in bounds:
            continue
        missed = [str(number) for number, count in sorted(lines.items()) if count == 0]
        covered[folder] += len(lines) - len(missed)
        total[folder] += len(lines)
        if missed:
            print(f"{file}: {', '.join(missed)}")
    enough = True
    for folder, bound in bounds.items():
        share = 100 * covered[folder] / total[folder] if total[folder] else 0
        enough = enough and share >= bound
        print(f"coverage of {folder}: {share:.1f} % ({covered[folder]} of {total[folder]} lines), {bound:g} % wanted")
    return enough


def main(arguments):
    match arguments:
        case ["begin"]:
            begin()
        case ["report", *bounds] if bounds:
            folders = (bound.split("=") for bound in bounds)
            sys.exit(0 if report({folder: float(percent) for folder, percent in folders}) else 1)
        case _:
            sys.exit(__doc__)


if __name__ == "__main__":
    main(sys.argv[1:])
