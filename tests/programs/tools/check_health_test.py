#!/usr/bin/env python3
"""check-health judges packs: with libraries that load and that do not, and with programs that agree and that do not."""

import ctypes
import os
import pathlib
import sys
import tempfile
import unittest

from plugin_test_case import BUILD, PATHS, PluginTestCase

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[2] / "support"))
from libraries import compile_library, of_another_machine  # noqa: E402

UNKNOWN, UNHEALTHY, USAGE = 1, 3, 64


class CheckHealthTest(PluginTestCase):
    @classmethod
    def setUpClass(cls):
        cls.made = tempfile.TemporaryDirectory()
        cls.addClassCleanup(cls.made.cleanup)
        cls.libraries = {}

    def setUp(self):
        super().setUp()
        self.folder = self.root / PATHS.health_folder
        helpers = self.root / PATHS.helpers_folder
        helpers.mkdir(parents=True)
        (helpers / "orba-load").symlink_to(BUILD / "tools/orba-load/orba-load")
        self.pack = self.root / "pack"
        (self.pack / "lib").mkdir(parents=True)

    def library(self, kind, *options, source=None):
        if kind not in self.libraries:
            self.libraries[kind] = compile_library(pathlib.Path(self.made.name), kind, *options, source=source)
        return self.libraries[kind]

    def add(self, name, content):
        path = self.pack / name
        path.write_bytes(content)
        return path

    def check(self, status, **options):
        done = self.run_program("check-health", self.pack, **options)
        self.assertEqual((done.returncode, done.stdout), (status, ""), done.stderr)
        return done.stderr

    def test_a_pack_without_libraries_is_healthy(self):
        self.add("table.bin", b"\x7fELF")
        self.add("lib/libcodec.so.1", b"no library")
        self.add("lib/libcodec.so.debug", b"\x7fELF")
        self.assertEqual(self.check(0), "")

    def test_libraries_that_load_are_healthy(self):
        self.add("lib/libcodec.so.1", self.library("good"))
        self.add("codec.so", self.library("good"))
        self.assertEqual(self.check(0), "")

    def test_a_library_finds_others_of_the_pack_by_their_names(self):
        name = "libneeded-by-another.so.1"
        base = self.library("base", f"-Wl,-soname,{name}", source="int base(void) { return 1; }")
        needed = pathlib.Path(self.made.name) / name
        needed.write_bytes(base)
        user = self.library("user", str(needed), source="int base(void); int user(void) { return base(); }")
        self.add("user.so", user)
        self.assertIn(name, self.check(UNHEALTHY))
        self.add(f"lib/{name}", base)
        self.check(0)

    def test_a_library_that_cannot_be_loaded_is_named_with_the_reason(self):
        for kind, reason in (
            ("unresolved", "undefined symbol: elsewhere"),
            ("crashing", "ended by signal"),
            ("ending", "it ended the process that loaded it"),
        ):
            with self.subTest(kind):
                library = self.add("lib/bad.so", self.library(kind))
                said = self.check(UNHEALTHY)
                self.assertIn(f"check-health: {library}: ", said)
                self.assertIn(reason, said)

    def test_no_more_than_4096_bytes_are_kept_of_what_a_library_says(self):
        source = """
            #include <stdio.h>
            #include <stdlib.h>
            __attribute__((constructor)) static void speak(void) {
              for (int i = 0; i < 10000; ++i) putchar('~');
              fflush(stdout);
              _Exit(1);
            }
        """
        self.add("bad.so", self.library("chatty", source=source))
        self.assertEqual(self.check(UNHEALTHY).count("~"), 4096)

    def test_a_library_of_another_machine_is_unhealthy(self):
        self.add("lib/bad.so", of_another_machine(self.library("good")))
        self.assertIn("bad.so", self.check(UNHEALTHY))

    def test_a_library_with_an_executable_stack_does_not_load_where_a_service_forbids_that(self):
        set_denial, get_denial = 65, 66  # prctl's numbers of what systemd calls MemoryDenyWriteExecute
        system = ctypes.CDLL(None)
        if system.prctl(get_denial, 0, 0, 0, 0) != 0:
            self.skipTest("this kernel does not know how to forbid it")
        source = "int codec(void) { return 1; }"
        self.add("lib/bad.so", self.library("executable-stack", "-Wl,-z,execstack", source=source))
        self.check(0)
        said = self.check(UNHEALTHY, preexec_fn=lambda: system.prctl(set_denial, 1, 0, 0, 0))
        self.assertIn("cannot enable executable stack", said)

    def test_a_library_that_hangs_meets_the_time_limit(self):
        self.write_setting("health_time_limit=0.3\n")
        self.add("lib/bad.so", self.library("hanging"))
        self.assertIn("it took longer than 0.3 s", self.check(UNHEALTHY))

    def test_a_library_can_write_nothing_and_start_nothing(self):
        target = self.root / "written"
        target.write_text("before")
        source = f"""
            #include <fcntl.h>
            #include <unistd.h>
            #include <stdlib.h>
            __attribute__((constructor)) static void act(void) {{
              int fd = open("{target}", O_WRONLY | O_TRUNC);
              if (fd >= 0 && write(fd, "after", 5) == 5) _exit(1);
              unlink("{target}");
              system("echo started > {self.root}/started");
            }}"""
        self.add("lib/acting.so", self.library("acting", source=source))
        self.check(0)
        self.assertFalse((self.root / "started").exists())
        if (
            pathlib.Path("/sys/kernel/security/lsm").exists()
            and "landlock" in pathlib.Path("/sys/kernel/security/lsm").read_text()
        ):
            self.assertEqual(target.read_text(), "before")

    def test_programs_judge_in_order_with_the_folder(self):
        self.add_plugin("20-second", 'echo "second $*" >> "$LOG"')
        self.add_plugin("10-first", 'echo "first $*" >> "$LOG"')
        self.check(0)
        self.assertEqual(self.log_lines(), [f"first {self.pack}", f"second {self.pack}"])

    def test_programs_do_not_use_the_libraries_of_the_pack(self):
        self.add("lib/libcodec.so.1", self.library("good"))
        self.add_plugin("10-program", 'echo "${LD_LIBRARY_PATH-none}" >> "$LOG"')
        self.check(0)
        self.assertEqual(self.log_lines(), ["none"])

    def test_a_program_that_says_no_rejects_the_pack(self):
        refusing = self.add_plugin("10-no", "echo no picture; exit 1")
        said = self.check(UNHEALTHY)
        self.assertIn("10-no: no picture\n", said)
        self.assertIn(f"check-health: {refusing}: exited with status 1\n", said)

    def test_a_program_that_others_may_write_gives_no_answer(self):
        self.add_plugin("10-open", "exit 1", mode=0o777)
        self.assertIn("not checked: refused", self.check(UNKNOWN))
        self.add_plugin("20-no", "exit 1")
        self.check(UNHEALTHY)

    def test_a_program_that_was_killed_gives_no_answer(self):
        self.add_plugin("10-killed", "kill -9 $$")
        self.check(UNKNOWN)

    def test_wrong_usage(self):
        for arguments in ((), ("relative",), ("--option",), ("/a", "/b")):
            self.assertEqual(self.run_program("check-health", *arguments).returncode, USAGE)


if __name__ == "__main__":
    os.umask(0o022)
    unittest.main()
