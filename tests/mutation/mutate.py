"""Tests the tests: changes the sources in small ways and looks whether a test fails.

usage: mutate.py [--folder FOLDER] [--count N] [--seed N] [--jobs N] [--patience SECONDS] [--only TEXT]

Every mutant is compiled into one build, behind a switch, so nothing is compiled for a mutant alone. A first run of all
tests, with none switched on, learns which mutants each test reaches. Then each mutant is switched on and the tests that
reach it run, those that reach the fewest others first, until one fails or they have taken SECONDS. A mutant that no
test finds is a survivor. survivors.txt judges each survivor that may stay; another one fails the run, and so does a
share of mutants found that is too small.

Results are kept in FOLDER until the mutated sources change, so a run that was stopped goes on where it was. After a
change of the tests, survivors alone are tried again. Mutated programs may do anything that their user may: run this as
a user with nothing to lose, never as root. It reads sources with the Python bindings of libclang.
"""

import argparse
import collections
import concurrent.futures
import hashlib
import json
import mmap
import os
import pathlib
import random
import re
import shlex
import shutil
import signal
import struct
import subprocess
import sys
import tempfile
import time

import sites

TOP = pathlib.Path(__file__).resolve().parents[2]
HERE = pathlib.Path(__file__).resolve().parent
MUTATED = ("updater", "platform", "tools/orba-archive", "tools/orba-copy", "tools/orba-plugins", "tools/orba-recover")
MUTATED += ("tools/orba-remove", "tools/packctl/commands/remove_recover.cpp")
WANTED = 95  # per cent
SLOWEST = 60  # seconds: a test that takes longer is left to its own run
ALWAYS = 3  # tests that are run even if they take more time than a mutant is worth
WORD = 4
BLOCK = 1000  # numbers for one file, so that a change in one does not compile all others anew


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--folder", type=pathlib.Path, default=TOP / "build/mutation", help="for the build and results")
    parser.add_argument("--count", type=int, default=2000, help="mutants to draw besides the vital ones (2000)")
    parser.add_argument("--seed", type=int, default=1, help="of the draw (1)")
    parser.add_argument("--jobs", type=int, default=len(os.sched_getaffinity(0)), help="tests at a time")
    parser.add_argument("--patience", type=int, default=60, help="seconds of tests for one mutant (60)")
    parser.add_argument("--only", default="", help="draw only mutants with this text in their names")
    return parser.parse_args()


def run(*command, **options):
    subprocess.run([str(word) for word in command], check=True, **options)


class Build:
    """A copy of the sources with every mutant in it, and its tests."""

    def __init__(self, folder):
        self.folder = folder
        self.tree = folder / "tree"
        self.build = folder / "build"
        self.mutants = {}  # by number, from 1
        self.sources = {}  # the digest of each mutated file, by its name

    def make(self):
        self._copy()
        self._configure()
        files = self._files()
        dropped = self._read_dropped()
        while True:
            self._write(files, dropped)
            if self._compile(files, dropped):
                break
        (self.folder / "dropped.json").write_text(json.dumps(sorted(dropped)))

    def _copy(self):
        """The files that git knows, into the copy; those that are the same keep their dates."""
        listed = subprocess.run(["git", "-C", TOP, "ls-files", "-z"], check=True, capture_output=True, text=True).stdout
        known = {name for name in listed.split("\0") if name and (TOP / name).exists()}
        for name in known:
            source, copy = TOP / name, self.tree / name
            if copy.exists() and (self._is_mutated(name) or copy.read_bytes() == source.read_bytes()):
                continue
            copy.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy2(source, copy, follow_symlinks=False)
        for copy in self.tree.glob("**/*"):
            name = str(copy.relative_to(self.tree))
            if copy.is_file() and name not in known and not name.startswith("build/"):
                copy.unlink()
        deps = self.tree / "build/deps"
        if not deps.exists() and (TOP / "build/deps").exists():
            shutil.copytree(TOP / "build/deps", deps, symlinks=True)

    @staticmethod
    def _is_mutated(name):
        return name.startswith(MUTATED) and name.endswith(".cpp")

    def _configure(self):
        values = {
            "CMAKE_BUILD_TYPE": "None",
            "CMAKE_EXPORT_COMPILE_COMMANDS": "ON",
            "CMAKE_DISABLE_PRECOMPILE_HEADERS": "ON",
            "CMAKE_PREFIX_PATH": self.tree / "build/deps",
            "CMAKE_INSTALL_PREFIX": "/usr",
            "CMAKE_CXX_FLAGS": f"-include {HERE / 'switch.h'} -w",
        }
        options = (f"-D{name}={value}" for name, value in values.items())
        run("cmake", "-G", "Ninja", "-S", self.tree, "-B", self.build, *options, stdout=subprocess.DEVNULL)

    def _files(self):
        """The sites of each file that is mutated, by its name."""
        commands = json.loads((self.build / "compile_commands.json").read_text())
        files = {}
        for entry in commands:
            path = pathlib.Path(entry["file"])
            name = str(path.relative_to(self.tree)) if path.is_relative_to(self.tree) else ""
            if self._is_mutated(name) and name not in files:
                files[name] = sites.File(TOP / name, name, [*self._includes(entry["command"]), f"-I{TOP}", "-w"])
        return dict(sorted(files.items()))

    @staticmethod
    def _includes(command):
        """What of a compiler's command another reader of the file needs."""
        words = shlex.split(command)
        for word, following in zip(words, [*words[1:], ""]):
            if word == "-isystem":
                yield f"-isystem{following}"
            elif word.startswith(("-I", "-D", "-std")):
                yield word

    def _read_dropped(self):
        """The names of mutants that do not compile, as the last build found them."""
        path = self.folder / "dropped.json"
        return set(json.loads(path.read_text())) if path.exists() else set()

    def _write(self, files, dropped):
        self.mutants = {}
        for block, (name, file) in enumerate(files.items()):
            numbers = {}
            for place, mutant in enumerate(file.mutants()):
                if mutant.name not in dropped:
                    numbers[place] = block * BLOCK + place + 1
                    self.mutants[numbers[place]] = mutant
            text = file.rewritten(numbers)
            self.sources[name] = digest_of(text.encode())
            copy = self.tree / name
            if not copy.exists() or copy.read_text() != text:
                copy.write_text(text)

    def _compile(self, files, dropped):
        """Whether it compiles; adds to `dropped` what stands in the way."""
        made = subprocess.run(
            ["cmake", "--build", self.build, "--", "-k", "0"], capture_output=True, text=True, errors="replace"
        )
        if made.returncode == 0:
            return True
        found = set()
        for name, line in re.findall(r"([^\s:]+\.cpp):(\d+):\d+: error", made.stdout + made.stderr):
            path = pathlib.Path(name)
            if path.is_relative_to(self.tree):
                text = (self.tree / path.relative_to(self.tree)).read_text().split("\n")[int(line) - 1]
                found |= {self.mutants[int(number)].name for number in re.findall(r"On\((\d+)\)", text)}
        if not found:
            sys.exit(f"the mutated tree does not build:\n{made.stdout[-3000:]}")
        print(f"dropped, because they do not compile: {len(found)}", flush=True)
        dropped |= found
        return False

    def digest(self):
        """Of all that numbers the mutants."""
        return digest_of("".join(self.sources.values()).encode())

    def digest_of_tests(self):
        paths = (path for path in (self.tree / "tests").glob("**/*") if path.suffix in (".cpp", ".h", ".py"))
        return digest_of(*(path.read_bytes() for path in sorted(paths)))


def digest_of(*contents):
    """A short one, to tell versions apart."""
    digest = hashlib.sha256()
    for content in contents:
        digest.update(content)
    return digest.hexdigest()[:16]


class Tests:
    """The tests of a build, run one by one with a mutant switched on."""

    def __init__(self, build):
        listed = subprocess.run(
            ["ctest", "--test-dir", build.build, "--show-only=json-v1"], check=True, capture_output=True, text=True
        ).stdout
        self.tests = {}
        for test in json.loads(listed)["tests"]:
            properties = {entry["name"]: entry["value"] for entry in test.get("properties", ())}
            if "FIXTURES_REQUIRED" not in properties and "DEPENDS" not in properties:
                # After two spaces some have a parameter's bytes, which differ each time.
                self.tests[test["name"].split("  ")[0]] = (test["command"], properties)
        self.size = WORD * (max(build.mutants) + 1)

    def run(self, name, mutant, limit):
        """Whether the test passed, the mutants that it reached, and its seconds."""
        command, properties = self.tests[name]
        with tempfile.TemporaryDirectory(prefix="mutation.") as scratch:
            words = pathlib.Path(scratch) / "words"
            words.write_bytes(struct.pack("I", mutant) + bytes(self.size - WORD))
            words.chmod(0o666)
            pathlib.Path(scratch).chmod(0o711)
            environment = os.environ | {"ORBAMIRA_MUTATION": str(words), "ORBAMIRA_MUTATION_RUNNER": str(os.getpid())}
            environment |= dict(entry.split("=", 1) for entry in properties.get("ENVIRONMENT", ()))
            began = time.monotonic()
            passed = self._passes(command, properties, environment, limit)
            seconds = time.monotonic() - began
            with words.open("r+b") as file, mmap.mmap(file.fileno(), 0) as map:
                reached = [number for number, word in enumerate(memoryview(map).cast("I").tolist()) if number and word]
        return passed, reached, seconds

    @staticmethod
    def _passes(command, properties, environment, limit):
        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen(
                command,
                cwd=properties.get("WORKING_DIRECTORY"),
                env=environment,
                stdin=subprocess.DEVNULL,
                stdout=output,
                stderr=output,
                start_new_session=True,
            )
            try:
                status = process.wait(limit)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGTERM)  # its wrapper ends what the test started
                try:
                    process.wait(10)
                except subprocess.TimeoutExpired:
                    os.killpg(process.pid, signal.SIGKILL)
                    process.wait()
                return False
            return status in (0, properties.get("SKIP_RETURN_CODE", 0))


class Reach:
    """Which tests reach each mutant, and what each takes; kept in a file. Those that reach the fewest others come
    first: they look more closely."""

    def __init__(self, tests, jobs, path):
        self.seconds, self.of = {}, collections.defaultdict(list)
        results = self._read(path)
        left = [name for name in tests.tests if name not in results]
        with path.open("a") as file, concurrent.futures.ThreadPoolExecutor(jobs) as pool:
            for name, result in zip(left, pool.map(lambda name: tests.run(name, 0, 120), left)):
                results[name] = result
                file.write(json.dumps([name, result]) + "\n")
                file.flush()
        for name, (passed, reached, seconds) in sorted(results.items(), key=lambda pair: (len(pair[1][1]), pair[1][2])):
            if name not in tests.tests:
                continue  # it has another name by now
            if not passed:
                print(f"left out, because it fails with no mutant: {name}", flush=True)
            elif seconds <= SLOWEST:
                self.seconds[name] = seconds
                for number in reached:
                    self.of[number].append(name)

    @staticmethod
    def _read(path):
        return dict(map(json.loads, path.read_text().splitlines())) if path.exists() else {}

    def find(self, tests, number, patience):
        """The test that finds the mutant; empty for a survivor, None for one that no test reaches."""
        for place, name in enumerate(self.of[number]):
            patience -= self.seconds[name]
            if patience < 0 and place >= ALWAYS:
                break
            if not tests.run(name, number, 10 + 5 * self.seconds[name])[0]:
                return name
        return "" if self.of[number] else None


def draw(mutants, arguments):
    """The numbers of the mutants to try: the vital ones first, and then so many others."""
    numbers = [number for number, mutant in mutants.items() if arguments.only in mutant.name]
    vital = [number for number in numbers if mutants[number].is_vital]
    others = [number for number in numbers if not mutants[number].is_vital]
    random.Random(arguments.seed).shuffle(others)
    return vital + others[: arguments.count]


def judged_survivors():
    """The reason why each survivor in survivors.txt may stay, by its name."""
    lines = (HERE / "survivors.txt").read_text().splitlines()
    return dict(line.rsplit(" | ", 1) for line in lines if line and not line.startswith("#"))


def verdict_of(mutant, found_by, judged):
    """Found, or equal (nobody can tell it from the original), or judged, or survived."""
    if found_by:
        return "found"
    reason = judged.get(mutant.name)
    return "survived" if reason is None else "equal" if reason.startswith("equal: ") else "judged"


class Results:
    """What found each mutant, kept in a file: a find as long as its source file does not change, a survivor as long as
    neither that nor the tests do, nor the time that they get."""

    def __init__(self, build, path, tested_by):
        self.build, self.path, self.tested_by = build, path, tested_by
        entries = map(json.loads, path.read_text().splitlines()) if path.exists() else ()
        kept = {(name, source): found_by for name, source, found_by, by in entries if found_by or by == tested_by}
        keys = {number: (mutant.name, build.sources[mutant.file]) for number, mutant in build.mutants.items()}
        self.found_by = {number: kept[key] for number, key in keys.items() if key in kept}

    def add(self, number, found_by):
        self.found_by[number] = found_by
        mutant = self.build.mutants[number]
        with self.path.open("a") as file:
            entry = [mutant.name, self.build.sources[mutant.file], found_by, self.tested_by]
            file.write(json.dumps(entry) + "\n")


def report(mutants, results, judged):
    """Prints what was found, and gives the status of the run; the list must have its survivors and no others."""
    kinds = collections.defaultdict(collections.Counter)
    new, gone = [], set(judged) - {mutant.name for mutant in mutants.values()}
    for number, found_by in results.items():
        mutant = mutants[number]
        verdict = verdict_of(mutant, found_by, judged)
        for kind in (mutant.kind, *(["vital"] if mutant.is_vital else []), "all"):
            kinds[kind][verdict] += 1
        if verdict == "survived":
            new.append(f"{mutant.name} | {'' if found_by is not None else 'no test reaches it, '}line {mutant.line}")
        elif verdict == "found" and mutant.name in judged:
            gone.add(mutant.name)
    lines = [*sorted(new), *(f"judged, but found or gone: {name}" for name in sorted(gone))]
    columns = ("equal", "found", "judged", "survived")
    lines += [f"| mutants | tried | {' | '.join(columns)} | found, % |", f"| --- |{' ---: |' * (len(columns) + 2)}"]
    for kind, of in sorted(kinds.items()):
        counts = " | ".join(str(of[column]) for column in columns)
        lines.append(f"| {kind} | {of.total()} | {counts} | {share(of):.1f} |")
    lines.append(f"mutants: {len(results)} tried, {kinds['all']['found']} found, {len(new)} survived unjudged")
    print("\n".join(lines))
    is_enough = share(kinds["all"]) >= WANTED and share(kinds["vital"]) == 100
    return 0 if is_enough and not new and not gone else 1


def share(verdicts):
    """Per cent that tests found, of those that can be."""
    can_be = verdicts.total() - verdicts["equal"]
    return 100 * verdicts["found"] / can_be if can_be else 100


def main():
    arguments = parse_arguments()
    if os.geteuid() == 0:
        sys.exit("mutate: not as root: a mutated program may remove anything")
    arguments.folder.mkdir(parents=True, exist_ok=True)
    build = Build(arguments.folder.resolve())
    build.make()
    tests = Tests(build)
    print(f"mutants: {len(build.mutants)}, learning which of {len(tests.tests)} tests reach them", flush=True)
    reach = Reach(tests, arguments.jobs, arguments.folder / f"reach-{build.digest()}.jsonl")
    results = Results(build, arguments.folder / "results.jsonl", f"{build.digest_of_tests()}, {arguments.patience} s")
    wanted = draw(build.mutants, arguments)
    judged = judged_survivors()
    pool = concurrent.futures.ThreadPoolExecutor(arguments.jobs)
    try:
        left = [number for number in wanted if number not in results.found_by]
        left.sort(key=lambda number: build.mutants[number].name in judged)  # what may fail the run comes first
        tried = {pool.submit(reach.find, tests, number, arguments.patience): number for number in left}
        for future in concurrent.futures.as_completed(tried):
            results.add(tried[future], future.result())
    finally:
        pool.shutdown(cancel_futures=True)
    return report(build.mutants, {number: results.found_by[number] for number in wanted}, judged)


if __name__ == "__main__":
    sys.exit(main())
