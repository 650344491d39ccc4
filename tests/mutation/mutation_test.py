"""Mutates a small program, compiles it with all its mutants, and looks at what each of them does."""

import contextlib
import io
import os
import pathlib
import struct
import subprocess
import sys
import tempfile
import unittest
from unittest import mock

try:
    import mutate
    import sites
except ImportError as error:  # libclang's bindings come with the linters
    print(f"skipped: {error}")
    sys.exit(77)

WORD = 4
SOURCE = """\
#include <cstdio>
#define SAY(text) std::puts(text)
constexpr int kLeast = 2;
static_assert(kLeast == 2);
void Sync() { SAY("synced"); }
bool IsEnough(int count) { return count > kLeast; }
int main() {
  int count = 3;
  Sync();
  std::puts("counted");
  if (IsEnough(count)) {
    SAY("enough");
  }
  return 0;
}
"""
# Sends signals to the process that its argument names, to all processes, to a child and to a child's group.
SIGNALS = """\
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <sys/wait.h>
#include <unistd.h>
int Child() {
  const int child = fork();
  if (child == 0) {
    pause();
  }
  return child;
}
int main(int, char** arguments) {
  const int child = Child(), group = Child();
  setpgid(group, group);
  const bool others = kill(std::atoi(arguments[1]), 0) == 0, all = kill(-1, 0) == 0;
  const bool own = kill(child, SIGKILL) == 0, groups = kill(-group, SIGKILL) == 0;
  while (wait(nullptr) > 0) {
  }
  std::printf("%d %d %d %d", others, all, own, groups);
}
"""
PLAIN = "synced counted enough 0"
# What each mutant prints, and its status.
EXPECTED = {
    'Sync: statement: SAY("synced");': "counted enough 0",
    "IsEnough: result: count > kLeast": "synced counted 0",
    "IsEnough: operator: count > kLeast": PLAIN,
    "IsEnough: number: kLeast": "synced counted 0",
    "main: number: 3": PLAIN,
    'main: order: Sync(); std::puts("counted");': "counted synced enough 0",
    "main: statement: Sync();": "counted enough 0",
    'main: statement: std::puts("counted");': "synced enough 0",
    "main: condition: IsEnough(count)": "synced counted 0",
    'main: statement: SAY("enough");': "synced counted 0",
    "main: number: 0": "synced counted enough 1",
}


class SitesTest(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))

    def mutate(self, source):
        """The mutants of a source by number, and the source with all of them."""
        path = self.folder / "program.cpp"
        path.write_text(source)
        file = sites.File(path, "program.cpp", ["-std=c++20"])
        mutants = dict(enumerate(file.mutants(), 1))
        return mutants, file.rewritten({number - 1: number for number in mutants})

    def build(self, text):
        (self.folder / "mutated.cpp").write_text(text)
        command = ["g++", "-std=c++20", "-include", mutate.HERE / "switch.h", "-o", "program", "mutated.cpp"]
        subprocess.run(command, check=True, cwd=self.folder)

    def run_with(self, mutant, highest):
        """What the program prints with this mutant on, with its status, and the mutants that it reaches."""
        words = self.folder / "words"
        words.write_bytes(struct.pack("I", mutant) + bytes(highest * WORD))
        done = subprocess.run(
            [self.folder / "program"],
            env={"ORBAMIRA_MUTATION": str(words)},
            capture_output=True,
            text=True,
            timeout=60,
            check=False,
        )
        reached = struct.unpack(f"{highest + 1}I", words.read_bytes())[1:]
        return " ".join([*done.stdout.split(), str(done.returncode)]), {n for n, word in enumerate(reached, 1) if word}

    def test_each_mutant_changes_one_thing(self):
        mutants, text = self.mutate(SOURCE)
        self.build(text)
        self.assertEqual((PLAIN, set(mutants)), self.run_with(0, len(mutants)))
        did = {mutant.name: self.run_with(number, len(mutants))[0] for number, mutant in mutants.items()}
        self.assertEqual({f"program.cpp: {name}": output for name, output in EXPECTED.items()}, did)

    def test_reaches_only_what_runs(self):
        mutants, text = self.mutate(SOURCE)
        self.build(text)
        negated = next(number for number, mutant in mutants.items() if mutant.kind == "condition")
        _, reached = self.run_with(negated, len(mutants))
        self.assertEqual(
            ['program.cpp: main: statement: SAY("enough");'],
            [mutant.name for number, mutant in mutants.items() if number not in reached],
        )

    def test_signals_no_process_outside_its_test(self):
        self.build(SIGNALS)
        command = [self.folder / "program", str(os.getppid())]
        environment = {"ORBAMIRA_MUTATION_RUNNER": str(os.getpid())}
        done = subprocess.run(command, env=environment, capture_output=True, text=True, timeout=60, check=True)
        self.assertEqual("0 0 1 1", done.stdout)

    def test_is_a_plain_program_without_a_switch(self):
        _, text = self.mutate(SOURCE)
        self.build(text)
        done = subprocess.run([self.folder / "program"], env={}, capture_output=True, text=True, check=True)
        self.assertEqual("synced counted enough", " ".join(done.stdout.split()))

    def test_a_mutant_keeps_its_name_when_lines_move(self):
        before, _ = self.mutate(SOURCE)
        after, _ = self.mutate(SOURCE.replace("int main", "\n\nint main"))
        self.assertEqual([each.name for each in before.values()], [each.name for each in after.values()])
        self.assertNotEqual([each.line for each in before.values()], [each.line for each in after.values()])

    def test_knows_what_is_vital(self):
        mutants, _ = self.mutate(SOURCE)
        vital = {mutant.name.removeprefix("program.cpp: ") for mutant in mutants.values() if mutant.is_vital}
        self.assertEqual(
            {
                'Sync: statement: SAY("synced");',
                "main: statement: Sync();",
                'main: order: Sync(); std::puts("counted");',
            },
            vital,
        )

    def test_refuses_what_does_not_compile(self):
        with self.assertRaisesRegex(ValueError, "program.cpp"):
            self.mutate("int main() { return Nothing(); }\n")


class ResultsTest(unittest.TestCase):
    def setUp(self):
        self.path = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "results.jsonl"

    def read(self, source, tested_by):
        mutants = {7: sites.Mutant("a.cpp: F: 1", "a.cpp", 1, "number", False)}
        mutants[8] = sites.Mutant("b.cpp: F: 1", "b.cpp", 1, "number", False)
        build = mock.Mock(mutants=mutants, sources={"a.cpp": source, "b.cpp": "other"})
        return mutate.Results(build, self.path, tested_by)

    def test_keeps_finds_until_their_source_changes(self):
        results = self.read("source", "tests")
        results.add(7, "ATest")
        results.add(8, "BTest")
        self.assertEqual({7: "ATest", 8: "BTest"}, self.read("source", "tests").found_by)
        self.assertEqual({7: "ATest", 8: "BTest"}, self.read("source", "other tests").found_by)
        self.assertEqual({8: "BTest"}, self.read("another source", "tests").found_by)

    def test_keeps_survivors_until_the_tests_change(self):
        results = self.read("source", "tests")
        results.add(7, "")
        results.add(8, None)
        self.assertEqual({7: "", 8: None}, self.read("source", "tests").found_by)
        self.assertEqual({}, self.read("source", "other tests").found_by)


class ReportTest(unittest.TestCase):
    def report(self, results, judged):
        mutants = {
            number: sites.Mutant(f"a.cpp: F: number: {number}", "a.cpp", number, "number", is_vital=number == 1)
            for number in range(1, 101)
        }
        output = io.StringIO()
        with contextlib.redirect_stdout(output):
            status = mutate.report(mutants, results, judged)
        return status, output.getvalue()

    def test_passes_when_every_survivor_is_judged(self):
        results = {number: "ATest" for number in range(1, 101)} | {7: "", 8: None}
        judged = {f"a.cpp: F: number: {number}": "it only costs time" for number in (7, 8)}
        status, output = self.report(results, judged)
        self.assertEqual(0, status, output)
        self.assertIn("| all | 100 | 0 | 98 | 2 | 0 | 98.0 |\n", output)
        self.assertTrue(output.endswith("mutants: 100 tried, 98 found, 0 survived unjudged\n"), output)

    def test_fails_for_a_survivor_that_nobody_judged(self):
        status, output = self.report({number: "ATest" for number in range(1, 101)} | {7: "", 8: None}, {})
        self.assertEqual(1, status)
        self.assertIn("a.cpp: F: number: 7 | line 7\na.cpp: F: number: 8 | no test reaches it, line 8\n", output)

    def test_fails_when_too_many_survive(self):
        results = {number: "ATest" if number > 6 else "" for number in range(1, 101)}
        status, _ = self.report(results, {f"a.cpp: F: number: {number}": "" for number in range(1, 101)})
        self.assertEqual(1, status)

    def test_fails_when_the_list_has_what_is_found_or_is_not_there(self):
        results = {number: "ATest" for number in range(1, 101)}
        for name in ("a.cpp: F: number: 7", "b.cpp: G: number: 1"):
            status, output = self.report(results, {name: "it only costs time"})
            self.assertEqual(1, status)
            self.assertIn(f"judged, but found or gone: {name}\n", output)

    def test_fails_for_a_vital_one_that_survives_judged(self):
        results = {number: "ATest" for number in range(1, 101)} | {1: ""}
        status, _ = self.report(results, {"a.cpp: F: number: 1": "it only costs time"})
        self.assertEqual(1, status)

    def test_does_not_count_what_nobody_can_tell_from_the_original(self):
        results = {number: "ATest" if 1 < number <= 90 else "" for number in range(1, 101)}
        judged = {f"a.cpp: F: number: {number}": "equal: a wider bound" for number in (1, *range(91, 101))}
        status, output = self.report(results, judged)
        self.assertEqual(0, status, output)
        self.assertIn("| all | 100 | 11 | 89 | 0 | 0 | 100.0 |\n", output)
        self.assertIn("| vital | 1 | 1 | 0 | 0 | 0 | 100.0 |\n", output)


if __name__ == "__main__":
    unittest.main()
