import errno
import json
import os
import stat
import subprocess
import unittest

from plugin_test_case import HANG, PATHS, PROGRAMS, PluginTestCase

# What the library reads of an answer.
MOST_READ = 1 << 20


class ListAppIdsTest(PluginTestCase):
    def setUp(self):
        super().setUp()
        self.file = self.root / PATHS.run_folder / "plugin-app-ids.json"

    def ask(self, *arguments, **options):
        return self.run_program("list-app-ids", *(arguments or [self.file]), **options)

    def assert_answer(self, result, ids, *lines):
        """The program wrote these ids and said exactly these lines, each about a plugin or its folder."""
        self.assertEqual([f"list-app-ids: {self.folder}{line}" for line in lines], result.stderr.splitlines())
        self.assertEqual((0, ""), (result.returncode, result.stdout))
        self.assertEqual(ids, json.loads(self.file.read_text()))
        self.assertEqual([self.file.name], os.listdir(self.file.parent))

    def test_without_plugin_folder_writes_an_empty_array(self):
        self.assert_answer(self.ask(), [])

    def test_lists_ids_in_plugin_order(self):
        self.add_plugin("20", "echo com.example.b")
        self.add_plugin("10", "echo com.example.c; echo com.example.a")
        self.add_plugin("30", "")
        self.add_plugin("40", "echo com.example.b")
        self.assert_answer(self.ask(), ["com.example.c", "com.example.a", "com.example.b", "com.example.b"])

    def test_asks_with_one_argument_and_empty_input(self):
        self.add_plugin("a", 'echo "$# $1" >> "$LOG"; cat >> "$LOG"')
        self.assert_answer(self.ask(input="not for plugins"), [])
        self.assertEqual(["1 --app-id"], self.log_lines())

    def test_blanks_and_empty_lines_are_dropped(self):
        self.add_plugin("a", "printf '\\n com.example.a \\r\\n\\ncom.example.b'")
        self.assert_answer(self.ask(), ["com.example.a", "com.example.b"])

    def test_ids_need_not_be_ascii(self):
        self.add_plugin("a", "printf 'b\\303\\274cher \"x\"\\342\\200\\250y\\n'")
        self.assert_answer(self.ask(), ['b\u00fccher "x"\u2028y'])

    def test_failing_plugins_are_left_out(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "echo com.example.a; exit 2")
        self.add_plugin("b", "echo com.example.b; exec cat $HOLD")
        self.add_plugin("c", "printf 'com.example.\\377\\n'")
        self.add_plugin("d", "echo com.example.d", 0o777)
        self.add_plugin("e", "echo com.example.e")
        self.assert_answer(
            self.ask(),
            ["com.example.e"],
            "/a: exited with status 2",
            "/b: stopped: it took longer than 0.5 s",
            "/c: printed what is not UTF-8",
            "/d: refused: everyone may write it",
        )

    def assert_no_answer(self, result, line):
        self.assertEqual(
            (1, "", f"list-app-ids: {self.folder}{line}\n"), (result.returncode, result.stdout, result.stderr)
        )

    def test_untrusted_folder_fails_and_writes_no_file(self):
        self.add_plugin("a", 'echo asked >> "$LOG"')
        self.folder.chmod(0o777)
        self.assert_no_answer(self.ask(), ": refused: everyone may write it")
        self.assertEqual([], self.log_lines())
        self.assertFalse(self.file.parent.exists())

    def test_folder_that_cannot_be_read_fails_and_leaves_the_file_as_it_was(self):
        self.folder.parent.mkdir(parents=True)
        self.folder.write_text("a file")
        self.file.parent.mkdir(parents=True)
        self.file.write_text("as it was")
        self.assert_no_answer(self.ask(), f": cannot be read: {os.strerror(errno.ENOTDIR)}")
        self.assertEqual("as it was", self.file.read_text())
        self.assertEqual([self.file.name], os.listdir(self.file.parent))

    def test_answer_of_the_full_size_is_taken(self):
        self.add_plugin("a", "head -c 65535 /dev/zero | tr '\\0' x; echo")
        self.assert_answer(self.ask(), ["x" * 65535])

    def test_longer_answer_is_refused(self):
        self.add_plugin("a", "head -c 65536 /dev/zero | tr '\\0' x; echo")
        self.add_plugin("b", "exec yes com.example.b")
        self.assert_answer(
            self.ask(), [], "/a: stopped: it printed more than 64 KiB", "/b: stopped: it printed more than 64 KiB"
        )

    def test_chatty_plugins_do_not_lose_the_ids_of_the_others(self):
        many = [f"{number:02}" for number in range(20)]
        for name in many:
            self.add_plugin(name, f"head -c 65000 /dev/zero | tr '\\0' x; echo {name}")
        self.add_plugin("zz", "echo com.example.z")
        result = self.ask()
        self.assertEqual(0, result.returncode)
        ids = json.loads(self.file.read_text())
        self.assertLessEqual(self.file.stat().st_size, MOST_READ)
        left_out = many[MOST_READ // 65000 :]
        self.assertEqual([*("x" * 65000 + name for name in many[: -len(left_out)]), "com.example.z"], ids)
        self.assertEqual(
            [
                f"list-app-ids: {self.folder}/{name}: left out: with its ids the answer would be larger " "than 1 MiB"
                for name in left_out
            ],
            result.stderr.splitlines(),
        )

    def test_control_characters_are_kept_in_the_answer(self):
        self.add_plugin("a", "printf 'a\\001\\033\\177\\\\b\\n'")
        self.assert_answer(self.ask(), ["a\x01\x1b\x7f\\b"])

    def test_what_is_not_quite_utf8_is_refused(self):
        for name, octal in (
            ("a", "\\300\\200"),
            ("b", "\\355\\240\\200"),
            ("c", "\\364\\220\\200\\200"),
            ("d", "\\342\\202"),
            ("e", "\\200"),
            ("f", "\\360\\200\\200\\200"),
        ):
            self.add_plugin(name, f"printf '{octal}\\n'")
        self.add_plugin("g", "printf '\\357\\277\\277\\364\\217\\277\\277\\n'")
        self.assert_answer(
            self.ask(), ["\uffff\U0010ffff"], *(f"/{name}: printed what is not UTF-8" for name in "abcdef")
        )

    def test_error_output_of_plugins_is_no_answer(self):
        self.add_plugin("a", "echo com.example.a; echo a word >&2")
        result = self.ask()
        self.assertEqual((0, "a: a word\n"), (result.returncode, result.stderr))
        self.assertEqual(["com.example.a"], json.loads(self.file.read_text()))

    def test_makes_the_folder_readable_for_all(self):
        self.ask(preexec_fn=lambda: os.umask(0o077))
        for folder in (self.file.parent, self.file.parent.parent):
            self.assertEqual(0o755, stat.S_IMODE(folder.stat().st_mode))

    def test_replaces_an_earlier_answer_and_not_what_it_links_to(self):
        other = self.root / "other"
        other.write_text("precious")
        self.file.parent.mkdir(parents=True)
        self.file.symlink_to(other)
        self.assert_answer(self.ask(), [])
        self.assertFalse(self.file.is_symlink())
        self.assertEqual("precious", other.read_text())

    def test_file_in_the_current_folder_needs_no_folder_name(self):
        self.file.parent.mkdir(parents=True)
        self.assert_answer(self.ask(self.file.name, cwd=self.file.parent), [])

    def test_file_that_cannot_be_written_fails_and_leaves_nothing_behind(self):
        self.file.mkdir(parents=True)
        result = self.ask()
        self.assertEqual(1, result.returncode)
        self.assertEqual(f"list-app-ids: {self.file}: cannot be written: {os.strerror(errno.EISDIR)}\n", result.stderr)
        self.assertEqual([self.file.name], os.listdir(self.file.parent))

    def test_folder_that_cannot_be_made_fails(self):
        in_the_way = self.file.parent.parent
        in_the_way.parent.mkdir(parents=True, exist_ok=True)
        in_the_way.write_text("")
        result = self.ask()
        self.assertEqual(1, result.returncode)
        self.assertEqual(f"list-app-ids: {self.file}: cannot be written: {os.strerror(errno.ENOTDIR)}\n", result.stderr)

    def test_folder_that_is_a_link_to_nowhere_fails_with_its_own_reason(self):
        self.file.parent.parent.mkdir(parents=True)
        self.file.parent.symlink_to("nowhere")
        result = self.ask()
        self.assertEqual(1, result.returncode)
        self.assertEqual(f"list-app-ids: {self.file}: cannot be written: {os.strerror(errno.EEXIST)}\n", result.stderr)

    def test_wrong_usage_asks_no_plugin(self):
        self.add_plugin("a", 'echo asked >> "$LOG"')
        for arguments in ([""], [self.file, self.file], ["--file"], ["--help", "x"]):
            with self.subTest(arguments):
                result = self.ask(*arguments)
                self.assertEqual(64, result.returncode)
                self.assertTrue(result.stderr.startswith("Usage: list-app-ids FILE\n"))
        self.assertEqual(64, self.run_program("list-app-ids").returncode)
        self.assertEqual([], self.log_lines())

    def test_help_is_printed(self):
        result = self.ask("--help")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        self.assertIn("exit status", result.stdout)

    def test_without_standard_descriptors_nothing_strays_into_the_file(self):
        self.add_plugin("a", "echo stray >&2; echo com.example.a")
        self.add_plugin("b", "exit 1")
        result = subprocess.run(
            ["/bin/sh", "-c", 'exec "$0" "$@" 0<&- 1>&- 2>&-', PROGRAMS / "list-app-ids", self.file],
            env=self.environment,
            timeout=HANG,
            check=False,
        )
        self.assertEqual(0, result.returncode)
        self.assertEqual(["com.example.a"], json.loads(self.file.read_text()))


if __name__ == "__main__":
    unittest.main()
