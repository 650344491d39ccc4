import errno
import os
import shutil
import signal
import subprocess
import time
import unittest
from unittest import mock

from plugin_test_case import HANG, LIBEXEC, PluginTestCase

import notify_plugin
import orbamira_plugin_runner
import orbamira_plugins

STEP = "--event install --package orbamira-hevc --timing pre --version 1.2 --status UPGRADE".split()
RECORD = 'printf "%s" "${0##*/}" >> "$LOG"; for a in "$@"; do printf " [%s]" "$a" >> "$LOG"; done; echo >> "$LOG"'
STEP_TEXT = " ".join(f"[{argument}]" for argument in STEP)


class NotifyPluginTest(PluginTestCase):
    def notify(self, *arguments, **options):
        return self.run_program("notify_plugin.py", *(arguments or STEP), **options)

    def assert_told(self, result, *lines):
        """The program said exactly these lines, each about a plugin or its folder."""
        self.assertEqual([f"notify_plugin: {self.folder}{line}" for line in lines], result.stderr.splitlines())
        self.assertEqual(1 if lines else 0, result.returncode)
        self.assertEqual("", result.stdout)

    def test_without_plugin_folder_succeeds(self):
        self.assert_told(self.notify())

    def test_with_empty_plugin_folder_succeeds(self):
        self.folder.mkdir(parents=True)
        self.assert_told(self.notify())

    def loaded_modules(self):
        command = ["/usr/bin/python3", "-SE", "-X", "importtime", LIBEXEC / "notify_plugin.py", *STEP]
        result = subprocess.run(command, env=self.environment, capture_output=True, text=True, timeout=HANG, check=True)
        return {line.rpartition("|")[2].strip() for line in result.stderr.splitlines()}

    def test_loads_what_runs_plugins_only_when_there_is_one(self):
        slow = {"orbamira_plugin_runner", "contextlib", "selectors", "signal", "subprocess"}
        self.assertEqual(set(), slow & self.loaded_modules())
        self.add_plugin("a", "")
        self.assertEqual(slow, slow & self.loaded_modules())

    def test_environment_does_not_change_which_modules_are_loaded(self):
        (self.root / "subprocess.py").write_text("raise SystemExit(9)")
        self.environment["PYTHONPATH"] = str(self.root)
        self.add_plugin("a", "")
        self.assert_told(self.notify())

    def test_runs_plugins_in_name_order_with_the_arguments_given(self):
        for name in ("20-b", "B", "10-c", "a"):
            self.add_plugin(name, RECORD)
        self.assert_told(self.notify())
        self.assertEqual([f"{name} {STEP_TEXT}" for name in ("10-c", "20-b", "B", "a")], self.log_lines())

    def test_hands_on_empty_odd_and_undecodable_texts(self):
        self.add_plugin("a", RECORD)
        odd = ["--status", "", "--version", "-1 $(x)\n\"'", "--package", os.fsdecode(b"\xff"), "--event", "--event"]
        self.assert_told(self.notify(*odd, "--timing", "x"))
        expected = b"a [--status] [] [--version] [-1 $(x)\n\"'] [--package] [\xff] [--event] [--event] [--timing] [x]\n"
        self.assertEqual(expected, self.log.read_bytes())

    def test_wrong_usage_runs_no_plugin(self):
        self.add_plugin("a", RECORD)
        twice = [*STEP[:-2], "--event", "x"]
        for arguments in (["x"], STEP[:-1], STEP[:-2], [*STEP, "--event", "x"], twice, ["--help", "x"]):
            with self.subTest(arguments):
                result = self.notify(*arguments)
                self.assertEqual(64, result.returncode)
                self.assertTrue(result.stderr.startswith("usage: notify_plugin.py --event"))
        self.assertEqual([], self.log_lines())

    def test_without_arguments_is_wrong_usage(self):
        self.assertEqual(64, self.run_program("notify_plugin.py").returncode)

    def test_help_is_printed(self):
        result = self.notify("--help")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        for text in ("exit status", "any text is handed on"):
            self.assertIn(text, result.stdout)

    def test_skips_what_is_no_plugin(self):
        self.add_plugin("a", RECORD)
        self.add_plugin(".hidden", RECORD)
        self.add_plugin("backup~", RECORD)
        self.add_plugin("document", RECORD, 0o644)
        (self.folder / "folder").mkdir()
        (self.folder / "dangling").symlink_to("missing")
        os.mkfifo(self.folder / "fifo", 0o755)
        self.assert_told(self.notify())
        self.assertEqual([f"a {STEP_TEXT}"], self.log_lines())

    def test_follows_links(self):
        target = self.root / "program"
        shutil.move(self.add_plugin("a", RECORD), target)
        (self.folder / "link").symlink_to(target)
        self.assert_told(self.notify())
        self.assertEqual([f"link {STEP_TEXT}"], self.log_lines())

    def test_failing_plugins_do_not_stop_the_others(self):
        self.add_plugin("a", RECORD + "; exit 3")
        self.add_plugin("b", RECORD + "; kill -9 $$")
        self.add_plugin("d", RECORD)
        (self.folder / "c").write_text("#!/missing/interpreter\n")
        (self.folder / "c").chmod(0o755)
        self.assert_told(
            self.notify(),
            "/a: exited with status 3",
            "/b: ended by signal 9",
            f"/c: cannot be started: {os.strerror(errno.ENOENT)}",
        )
        self.assertEqual([f"{name} {STEP_TEXT}" for name in "abd"], self.log_lines())

    def test_plugin_without_interpreter_line_cannot_be_started(self):
        self.add_plugin("a", "").write_text("echo\n")
        self.assert_told(self.notify(), "/a: cannot be started: Exec format error")

    def test_world_writable_plugin_is_refused(self):
        self.add_plugin("a", RECORD, 0o757)
        self.add_plugin("b", RECORD)
        self.assert_told(self.notify(), "/a: refused: everyone may write it")
        self.assertEqual([f"b {STEP_TEXT}"], self.log_lines())

    def test_link_to_world_writable_program_is_refused(self):
        target = self.root / "program"
        shutil.move(self.add_plugin("a", RECORD, 0o777), target)
        (self.folder / "link").symlink_to(target)
        self.assert_told(self.notify(), "/link: refused: everyone may write it")
        self.assertEqual([], self.log_lines())

    def test_world_writable_folder_is_refused(self):
        self.add_plugin("a", RECORD)
        self.folder.chmod(0o1777)
        self.assert_told(self.notify(), ": refused: everyone may write it")
        self.assertEqual([], self.log_lines())

    def test_folder_that_is_none_cannot_be_read(self):
        self.folder.parent.mkdir(parents=True)
        self.folder.write_text("")
        self.assert_told(self.notify(), ": cannot be read: Not a directory")

    def test_what_plugins_print_goes_to_standard_error(self):
        self.add_plugin("a", "echo one; echo two >&2; exit 1")
        result = self.notify()
        self.assertEqual("", result.stdout)
        self.assertCountEqual(
            ["one", "two", f"notify_plugin: {self.folder}/a: exited with status 1"], result.stderr.splitlines()
        )

    def test_output_of_the_full_size_is_handed_on_whole(self):
        self.add_plugin("a", "head -c 65536 /dev/zero | tr '\\0' x")
        self.assertEqual("x" * 65536, self.notify().stderr)

    def test_more_output_is_taken_from_the_plugin_and_dropped(self):
        said = f"\n{self.folder}/a: printed more than 64 KiB, the rest is dropped\n"
        self.add_plugin("a", "head -c 3000000 /dev/zero | tr '\\0' x; echo done >> \"$LOG\"")
        self.add_plugin("b", "echo another")
        result = self.notify()
        self.assertEqual((0, "x" * 65536 + said + "another\n"), (result.returncode, result.stderr))
        self.assertEqual(["done"], self.log_lines())

    def test_output_and_error_output_have_one_bound(self):
        self.add_plugin("a", "head -c 40000 /dev/zero | tr '\\0' x; head -c 40000 /dev/zero | tr '\\0' x >&2")
        said = f"\n{self.folder}/a: printed more than 64 KiB, the rest is dropped\n"
        self.assertEqual("x" * 65536 + said, self.notify().stderr)

    def test_standard_input_of_plugins_is_empty(self):
        self.add_plugin("a", 'readlink /proc/self/fd/0 >> "$LOG"; cat >> "$LOG"')
        self.assert_told(self.notify(input="not for plugins"))
        self.assertEqual(["/dev/null"], self.log_lines())

    def test_plugin_leads_a_process_group_and_inherits_the_environment(self):
        self.add_plugin("a", 'cut -d " " -f 1,5 /proc/$$/stat >> "$LOG"; echo "$MARK" >> "$LOG"')
        self.environment["MARK"] = "from the caller"
        self.assert_told(self.notify())
        process, group = self.log_lines()[0].split()
        self.assertEqual(process, group)
        self.assertEqual("from the caller", self.log_lines()[1])

    def test_plugin_over_the_time_limit_is_stopped_with_its_children(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", 'sleep 1000 & echo $$ >> "$LOG"; echo $! >> "$LOG"; wait')
        self.add_plugin("b", 'echo b >> "$LOG"')
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        plugin, child, last = self.log_lines()
        self.assertEqual("b", last)
        self.wait_for_process_end(plugin)
        self.wait_for_process_end(child)

    def test_plugin_that_ignores_the_request_to_end_is_killed_with_its_children(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin(
            "a",
            "trap '' TERM; sleep 1000 & echo $$ >> \"$LOG\"; echo $! >> \"$LOG\"; while :; do sleep 1000; done",
        )
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        for process in self.log_lines():
            self.wait_for_process_end(process)

    def test_children_that_ignore_the_request_to_end_are_killed_too(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "(trap '' TERM; exec sleep 1000) & echo $! >> \"$LOG\"; wait")
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        self.wait_for_process_end(self.log_lines()[0])

    def test_plugin_is_asked_to_end_before_it_is_killed(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", 'trap \'echo asked >> "$LOG"; exit 0\' TERM; sleep 1000 & wait')
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        self.assertEqual(["asked"], self.log_lines())

    def test_time_limit_holds_for_a_plugin_that_keeps_printing(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "exec yes")
        result = self.notify()
        self.assertEqual(1, result.returncode)
        self.assertTrue(result.stderr.endswith("/a: stopped: it took longer than 0.5 s\n"))
        self.assertLess(len(result.stderr), 66000)

    def test_time_limit_holds_for_a_plugin_that_closed_its_output(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "exec sleep 1000 > /dev/null 2>&1")
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")

    def test_plugin_that_closed_its_output_is_waited_for(self):
        self.add_plugin("a", 'exec > /dev/null 2>&1; while [ ! -e "$LOG.go" ]; do sleep 0.01; done; exit 5')
        with subprocess.Popen(
            [LIBEXEC / "notify_plugin.py", *STEP], env=self.environment, stderr=subprocess.PIPE, text=True
        ) as process:
            self.log.with_suffix(".go").write_text("")
            self.assertTrue(process.communicate(timeout=HANG)[1].endswith("/a: exited with status 5\n"))

    def test_background_process_that_holds_the_output_delays_nobody(self):
        self.add_plugin("a", 'sleep 1000 & echo $! >> "$LOG"; echo told')
        begin = time.monotonic()
        result = self.notify()
        self.assertLess(time.monotonic() - begin, 20)
        child = int(self.log_lines()[0])
        self.addCleanup(os.kill, child, signal.SIGKILL)
        self.assertEqual((0, "told\n"), (result.returncode, result.stderr))
        os.kill(child, 0)

    def test_signal_to_the_program_stops_the_plugin(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number.name):
                self.log.unlink(missing_ok=True)
                self.add_plugin("a", 'echo $$ >> "$LOG"; exec sleep 1000')
                with subprocess.Popen([LIBEXEC / "notify_plugin.py", *STEP], env=self.environment) as process:
                    self.wait_until(lambda: len(self.log_lines()) == 1, "the start of the plugin")
                    process.send_signal(number)
                    self.assertEqual(128 + number, process.wait(HANG))
                self.wait_for_process_end(self.log_lines()[0])

    def test_signal_at_the_very_start_of_a_plugin_stops_the_plugin(self):
        self.add_plugin("a", 'kill -TERM $PPID; echo $$ >> "$LOG"; exec sleep 1000')
        for _ in range(20):
            self.log.unlink(missing_ok=True)
            self.assertEqual(128 + signal.SIGTERM, self.notify().returncode)
            for process in self.log_lines():
                self.wait_for_process_end(process)

    def test_plugin_may_be_stopped_by_every_signal(self):
        self.add_plugin("a", 'grep -E "^Sig(Blk|Ign)" /proc/$$/status | grep -o "[0-9a-f]*$" >> "$LOG"')
        self.assert_told(self.notify())
        self.assertEqual(["0" * 16] * 2, self.log_lines())

    def test_caller_that_ignores_child_signals_still_learns_of_failures(self):
        self.add_plugin("a", "exit 7")
        result = self.notify(preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assert_told(result, "/a: exited with status 7")

    def test_missing_standard_descriptors_are_opened(self):
        program = (
            "import os, sys; os.closerange(0, 3); import orbamira_plugins; orbamira_plugins.start('x');"
            "sys.exit([os.readlink(f'/proc/self/fd/{fd}') for fd in range(3)] != 3 * ['/dev/null'])"
        )
        environment = dict(self.environment, PYTHONPATH=str(LIBEXEC))
        result = subprocess.run(["/usr/bin/python3", "-B", "-c", program], env=environment, timeout=HANG, check=False)
        self.assertEqual(0, result.returncode)

    def test_runs_without_standard_descriptors(self):
        self.add_plugin("a", RECORD)
        command = 'exec "$0" "$@" 0<&- 1>&- 2>&-'
        result = subprocess.run(
            ["/bin/sh", "-c", command, LIBEXEC / "notify_plugin.py", *STEP],
            env=self.environment,
            timeout=HANG,
            check=False,
        )
        self.assertEqual(0, result.returncode)
        self.assertEqual([f"a {STEP_TEXT}"], self.log_lines())

    def test_leaves_no_compiled_copies_beside_the_program(self):
        libexec = self.root / "usr/libexec/orbamira"
        shutil.copytree(LIBEXEC, libexec, ignore=shutil.ignore_patterns("__pycache__"))
        environment = {key: value for key, value in self.environment.items() if key != "PYTHONDONTWRITEBYTECODE"}
        subprocess.run([libexec / "notify_plugin.py", *STEP], env=environment, timeout=HANG, check=True)
        self.assertFalse((libexec / "__pycache__").exists())


class OrbamiraPluginsTest(PluginTestCase):
    """What needs a look inside, or another user than the one who runs the test."""

    def setUp(self):
        super().setUp()
        self.syslog = self.replace("orbamira_plugins.syslog.syslog")
        self.openlog = self.replace("orbamira_plugins.syslog.openlog")
        self.replace("orbamira_plugins.PLUGIN_FOLDER", str(self.folder))
        self.replace(
            "orbamira_plugin_runner.SETTINGS_FILES",
            (str(self.root / "etc/orbamira/updater.conf"), str(self.root / "usr/share/orbamira/updater.conf")),
        )

    def replace(self, name, *values):
        patch = mock.patch(name, *values)
        self.addCleanup(patch.stop)
        return patch.start()

    def test_program_logs_failures_at_local1(self):
        self.replace("orbamira_plugins.print_error")
        self.replace("orbamira_plugin_runner.signal.signal")
        path = self.add_plugin("a", "exit 3")
        self.assertEqual(1, notify_plugin.main(STEP))
        self.openlog.assert_called_once_with("notify_plugin", 0, orbamira_plugins.syslog.LOG_LOCAL1)
        self.syslog.assert_called_once_with(orbamira_plugins.syslog.LOG_ERR, f"{path}: exited with status 3")

    def test_undecodable_name_is_logged(self):
        self.replace("orbamira_plugins.print_error")
        orbamira_plugins.report("x", orbamira_plugins.PluginFailure(os.fsdecode(b"\xff"), "gone"))
        self.syslog.assert_called_once_with(orbamira_plugins.syslog.LOG_ERR, "\ufffd: gone")

    def status_of(self, uid, mode=0o100755, gid=4343):
        """Makes every file one of the user `uid` and the group `gid`; 4242 of group 4244 runs the program."""
        self.replace("os.geteuid", mock.Mock(return_value=4242))
        self.replace("os.getegid", mock.Mock(return_value=4244))
        self.replace("os.stat", mock.Mock(return_value=mock.Mock(st_mode=mode, st_uid=uid, st_gid=gid)))

    def test_plugin_of_another_user_is_refused(self):
        path = self.add_plugin("a", "exit 0")
        self.status_of(4243)
        with self.assertRaisesRegex(orbamira_plugins.PluginFailure, "a: refused: it belongs to user 4243"):
            orbamira_plugin_runner.run(str(path), [], 60)

    def test_plugins_of_root_and_of_the_running_user_are_run(self):
        path = self.add_plugin("a", 'echo ran >> "$LOG"')
        with mock.patch.dict(os.environ, self.environment):
            for uid in (0, 4242):
                self.status_of(uid)
                orbamira_plugin_runner.run(str(path), [], 60)
        self.assertEqual(["ran", "ran"], self.log_lines())

    def test_plugin_that_a_group_may_write_is_refused(self):
        path = self.add_plugin("a", "exit 0")
        self.status_of(0, 0o100775)
        with self.assertRaisesRegex(orbamira_plugins.PluginFailure, "a: refused: group 4343 may write it"):
            orbamira_plugin_runner.run(str(path), [], 60)

    def test_plugins_that_the_own_group_or_that_of_root_may_write_are_run(self):
        path = self.add_plugin("a", 'echo ran >> "$LOG"')
        with mock.patch.dict(os.environ, self.environment):
            for gid in (0, 4244):
                self.status_of(0, 0o100775, gid)
                orbamira_plugin_runner.run(str(path), [], 60)
        self.assertEqual(["ran", "ran"], self.log_lines())

    def test_folder_that_a_group_may_write_is_refused(self):
        self.add_plugin("a", "exit 0")
        self.status_of(0, 0o40775)
        with self.assertRaisesRegex(orbamira_plugins.PluginFailure, "plugins: refused: group 4343 may write it"):
            orbamira_plugins.list_plugins()

    def test_folder_of_another_user_is_refused(self):
        self.add_plugin("a", "exit 0")
        self.status_of(4243, 0o40755)
        with self.assertRaisesRegex(orbamira_plugins.PluginFailure, "plugins: refused: it belongs to user 4243"):
            orbamira_plugins.list_plugins()

    def test_plugin_gone_since_it_was_listed_cannot_be_started(self):
        self.folder.mkdir(parents=True)
        with self.assertRaisesRegex(orbamira_plugins.PluginFailure, "cannot be started: No such file or directory"):
            orbamira_plugin_runner.run(str(self.folder / "a"), [], 60)

    def test_time_limit_is_a_minute_by_default(self):
        self.assertEqual(60, orbamira_plugin_runner.time_limit())
        self.write_setting("other=1\n")
        self.assertEqual(60, orbamira_plugin_runner.time_limit())
        self.syslog.assert_not_called()

    def test_time_limit_of_this_system_wins_over_the_default_one(self):
        self.write_setting("plugin_time_limit=7\n", "usr/share/orbamira")
        self.assertEqual(7, orbamira_plugin_runner.time_limit())
        self.write_setting("plugin_time_limit=\n")
        self.assertEqual(7, orbamira_plugin_runner.time_limit())
        self.write_setting("plugin_time_limit=5\n")
        self.assertEqual(5, orbamira_plugin_runner.time_limit())

    def test_time_limit_is_read_like_every_setting(self):
        for text in (
            'plugin_time_limit="5"',
            "plugin_time_limit = 5 \r\n",
            "#plugin_time_limit=9\nplugin_time_limit=5\nplugin_time_limit=8\n",
            'a\n=\nb=plugin_time_limit=9\n\t plugin_time_limit\t=\t" 5"\n',
            "plugin_time_limits=9\nplugin_time_limit=5.0",
            "\vplugin_time_limit=9\n\u00a0plugin_time_limit=9\nplugin_time_limit\r=9\nplugin_time_limit=5\n",
            "plugin_time_limit=5\r\nplugin_time_limit=9\r\n",
            'plugin_time_limit=\t"5"\r',
            " #plugin_time_limit=9\nplugin_time_limit=5\n",
        ):
            with self.subTest(text):
                self.write_setting(text)
                self.assertEqual(5, orbamira_plugin_runner.time_limit())

    def test_only_blanks_and_one_pair_of_quotes_are_dropped_from_a_setting(self):
        for text, value in (
            ('\v"5"\f', '\v"5"\f'),
            ('\u00a0"5"', '\u00a0"5"'),
            ('""5""', '"5"'),
            ('"', '"'),
            ('""', ""),
            ('"5', '"5'),
            ('" 5 "', " 5 "),
            ("5\r\r", "5\r"),
            ("a=b", "a=b"),
        ):
            with self.subTest(text):
                self.write_setting(f"key={text}\n")
                self.assertEqual(value, orbamira_plugin_runner._setting(orbamira_plugin_runner.SETTINGS_FILES[0], "key"))

    def test_first_mebibyte_of_the_settings_is_looked_at(self):
        line = "plugin_time_limit=50\n"
        self.write_setting("#" * ((1 << 20) - len(line) - 1) + "\n" + line)
        self.assertEqual(50, orbamira_plugin_runner.time_limit())
        self.write_setting("#" * ((1 << 20) - len(line) + 1) + "\n" + line)
        self.assertEqual(60, orbamira_plugin_runner.time_limit())

    def test_settings_that_are_no_regular_file_are_passed_over(self):
        path = self.root / "etc/orbamira/updater.conf"
        path.parent.mkdir(parents=True)
        self.write_setting("plugin_time_limit=7\n", "usr/share/orbamira")
        os.mkfifo(path)
        script = "import orbamira_plugin_runner; print(orbamira_plugin_runner.time_limit())"
        result = subprocess.run(
            ["/usr/bin/python3", "-B", "-c", script],
            env=dict(self.environment, PYTHONPATH=str(LIBEXEC)),
            stdout=subprocess.PIPE,
            text=True,
            timeout=HANG,
            check=True,
        )
        self.assertEqual("7.0\n", result.stdout)
        path.unlink()
        path.mkdir()
        self.assertEqual(7, orbamira_plugin_runner.time_limit())

    def test_time_limit_that_is_none_is_logged_and_the_default_taken(self):
        self.write_setting("plugin_time_limit=7\n", "usr/share/orbamira")
        path = self.root / "etc/orbamira/updater.conf"
        for text in ("soon", "0", "-1", "nan", "inf", "86401", '"'):
            with self.subTest(text):
                self.syslog.reset_mock()
                self.write_setting(f"plugin_time_limit={text}\n")
                self.assertEqual(60, orbamira_plugin_runner.time_limit())
                self.syslog.assert_called_once_with(
                    orbamira_plugins.syslog.LOG_ERR, f"{path}: plugin_time_limit is not a number of seconds up to a day"
                )


if __name__ == "__main__":
    unittest.main()
