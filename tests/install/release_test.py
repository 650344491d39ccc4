#!/usr/bin/env python3
"""scripts/release in a small tree of its own, where what takes long is a stub."""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
REAL = ("CMakeLists.txt", "CHANGELOG.md", "packaging/debian/changelog.in", "scripts/release", ".gitignore")
STUBS = ("scripts/setup", "scripts/lint", "scripts/test", "tests/abi/abi.sh")
MAKE_PACKAGES = """\
import pathlib, sys
packages = pathlib.Path(sys.argv[sys.argv.index("--output") + 1])
packages.mkdir()
(packages / "orbamira.deb").write_text("package")
"""
LIST_PACKAGES = """\
import pathlib, sys
print([pathlib.Path(package).name for package in sys.argv[1:]])
"""
STEPS = (*("What builds and checks need", "Lint", "Tests", "Binary interface", "Packages, built twice"), "Tag v1.0.0")
DEBIAN_DATE = r"^ -- @CPACK_PACKAGE_CONTACT@  [A-Z][a-z]{2}, \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d \+0000$"


class ReleaseTest(unittest.TestCase):
    def setUp(self):
        self.tree = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory())) / "tree"
        for name in REAL:
            (self.tree / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(SOURCE / name, self.tree / name)
        self.write("CMakeLists.txt", "project(orbamira VERSION 1.0.0 LANGUAGES CXX)\n")
        self.write("CHANGELOG.md", "# Changes\n\n## 1.0.0, not released yet\n\nThe first.\n")
        for name in STUBS:
            self.write(name, f"#!/bin/sh\necho {name} ran\n")
            (self.tree / name).chmod(0o755)
        self.write("tests/install/reproducible_test.py", MAKE_PACKAGES)
        self.write("packaging/sbom.py", LIST_PACKAGES)
        self.git("init", "-q")
        self.commit("Begin")
        (self.tree / "build/deps").mkdir(parents=True)

    def write(self, name, text):
        path = self.tree / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text)

    def run_in_tree(self, *command):
        person = {f"GIT_{who}_{what}": "tester" for who in ("AUTHOR", "COMMITTER") for what in ("NAME", "EMAIL")}
        alone = {"GIT_CONFIG_GLOBAL": "/dev/null", "GIT_CONFIG_NOSYSTEM": "1", "TZ": "Etc/GMT-14", "LC_ALL": "C.UTF-8"}
        environment = {**os.environ, **person, **alone}
        return subprocess.run(
            command, cwd=self.tree, env=environment, capture_output=True, text=True, timeout=600, check=False
        )

    def git(self, *arguments):
        done = self.run_in_tree("git", *arguments)
        self.assertEqual(0, done.returncode, done.stderr)
        return done.stdout

    def commit(self, subject):
        self.git("add", "-A")
        self.git("commit", "-q", "-m", subject)

    def release(self, *arguments):
        return self.run_in_tree("scripts/release", *arguments)

    def subjects(self):
        return self.git("log", "--format=%s").splitlines()

    def assert_refused(self, message):
        for arguments in ((), ("--dry-run",)):
            done = self.release(*arguments)
            self.assertEqual((1, "", f"release: {message}\n"), (done.returncode, done.stdout, done.stderr))

    def test_dry_run_lists_the_steps_and_leaves_no_trace(self):
        done = self.release("--dry-run")
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertEqual([f"{step} (not run)" for step in STEPS], re.findall(r"^=== (.*)", done.stdout, re.MULTILINE))
        self.assertIn("Release 1.0.0\n", done.stdout)
        for changed in ("CHANGELOG.md", "packaging/debian/changelog.in"):
            self.assertRegex(done.stdout, rf"(?m)^ {changed} +\| 2 \+-$")
        self.assertNotIn(" ran\n", done.stdout)
        self.assertEqual((["Begin"], "", ""), (self.subjects(), self.git("tag"), self.git("status", "--porcelain")))
        self.assertEqual(["deps"], os.listdir(self.tree / "build"))

    def test_release_ends_with_dates_packages_and_a_tag(self):
        done = self.release()
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assertEqual([f"{name} ran" for name in STUBS], re.findall(r"^.* ran$", done.stdout, re.MULTILINE))
        self.assertEqual(["Release 1.0.0", "Begin"], self.subjects())
        self.assertEqual("v1.0.0", self.git("describe", "HEAD").strip())
        self.assertRegex((self.tree / "CHANGELOG.md").read_text(), r"(?m)^## 1\.0\.0, \d{4}-\d\d-\d\d$")
        debian = (self.tree / "packaging/debian/changelog.in").read_text()
        self.assertRegex(debian, "(?m)" + DEBIAN_DATE)
        self.assertNotEqual((SOURCE / "packaging/debian/changelog.in").read_text(), debian)
        packages = self.tree / "build/release-1.0.0/packages"
        self.assertEqual(["SHA256SUMS", "orbamira-1.0.0.cdx.json", "orbamira.deb"], sorted(os.listdir(packages)))
        self.assertEqual("['orbamira.deb']\n", (packages / "orbamira-1.0.0.cdx.json").read_text())
        subprocess.run(["sha256sum", "--check", "--quiet", "SHA256SUMS"], cwd=packages, check=True)

    def test_a_step_that_fails_leaves_the_tree_as_it_was(self):
        for name in (*STUBS, "tests/install/reproducible_test.py", "packaging/sbom.py"):
            with self.subTest(name):
                kept = (self.tree / name).read_text()
                self.write(name, "exit(7)\n" if name.endswith(".py") else "#!/bin/sh\nexit 7\n")
                self.commit("Break a step")
                self.assertEqual(7, self.release().returncode)
                self.assertEqual(("Break a step", ""), (self.subjects()[0], self.git("tag")))
                self.write(name, kept)
                self.commit("Mend it")

    def test_uncommitted_change_is_refused(self):
        self.write("CHANGELOG.md", "other\n")
        self.assert_refused("the tree has changes that are not committed")
        self.git("checkout", "-q", ".")
        self.write("new.txt", "")
        self.assert_refused("the tree has changes that are not committed")

    def test_version_that_is_released_is_refused(self):
        self.git("tag", "v1.0.0")
        self.assert_refused("there is a v1.0.0 already: raise the version in CMakeLists.txt")

    def test_version_without_changes_is_refused(self):
        self.write("CHANGELOG.md", "# Changes\n\n## 0.9.0, 2026-01-01\n\n## 1.0.0, not released yet\n")
        self.commit("Change")
        self.assert_refused('CHANGELOG.md does not begin with "## 1.0.0, not released yet"')

    def test_version_without_an_entry_for_debian_is_refused(self):
        path = "packaging/debian/changelog.in"
        entry = (self.tree / path).read_text()
        for text in (entry.replace("@PROJECT_VERSION@", "0.9.0"), entry + "\n" + entry):
            self.write(path, text)
            self.commit("Change")
            self.assert_refused(f"{path} needs an entry for @PROJECT_VERSION@ at its top, and numbers in all others")

    def test_wrong_usage(self):
        for arguments in (("1.0.0",), ("--dry-run", "--dry-run")):
            done = self.release(*arguments)
            self.assertEqual((64, "usage: scripts/release [--dry-run]\n"), (done.returncode, done.stderr))


if __name__ == "__main__":
    unittest.main(argv=[sys.argv[0], "--verbose"])
