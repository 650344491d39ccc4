import errno
import fcntl
import os
import pathlib
import select
import shutil
import signal
import subprocess
import unittest

from plugin_test_case import HANG, PROGRAMS, PluginTestCase

STEP = "--event install --package orbamira-hevc --timing pre --version 1.2 --status UPGRADE".split()
RECORD = 'printf "%s" "${0##*/}" >> "$LOG"; for a in "$@"; do printf " [%s]" "$a" >> "$LOG"; done; echo >> "$LOG"'
STEP_TEXT = " ".join(f"[{argument}]" for argument in STEP)


DROPPED = "printed more than 64 KiB or 1000 lines, the rest is dropped\n"


class NotifyPluginsTest(PluginTestCase):
    def setUp(self):
        super().setUp()
        self.gate = self.root / "gate"
        os.mkfifo(self.gate)
        self.reader = os.open(self.gate, os.O_RDONLY | os.O_NONBLOCK)
        self.addCleanup(os.close, self.reader)

    def notify(self, *arguments, **options):
        return self.run_program("notify-plugins", *(arguments or STEP), **options)

    def start(self, **options):
        return subprocess.Popen(
            [PROGRAMS / "notify-plugins", *STEP], env=self.environment, stderr=subprocess.PIPE, text=True, **options
        )

    def spread(self, way):
        """A line of a plugin that starts a process in this way, which keeps the FIFO open for as long as it lives."""
        return f'exec 9> "{self.gate}"; {way}\nexec 9>&-'

    def assert_spread_ends(self):
        """All that had the FIFO open for writing ends."""
        poll = select.poll()
        poll.register(self.reader, 0)
        self.assertEqual([(self.reader, select.POLLHUP)], poll.poll(HANG * 1000))

    def assert_told(self, result, *lines):
        """The program said exactly these lines, each about a plugin or its folder."""
        self.assertEqual([f"notify-plugins: {self.folder}{line}" for line in lines], result.stderr.splitlines())
        self.assertEqual(1 if lines else 0, result.returncode)
        self.assertEqual("", result.stdout)

    def test_without_plugin_folder_succeeds(self):
        self.assert_told(self.notify())

    def test_with_empty_plugin_folder_succeeds(self):
        self.folder.mkdir(parents=True)
        self.assert_told(self.notify())

    def test_runs_plugins_in_name_order_with_the_arguments_given(self):
        for name in ("20-b", "B", "10-c", "a"):
            self.add_plugin(name, RECORD)
        self.assert_told(self.notify())
        self.assertEqual([f"{name} {STEP_TEXT}" for name in ("10-c", "20-b", "B", "a")], self.log_lines())

    def test_hands_on_empty_and_odd_texts_without_control_characters(self):
        self.add_plugin("a", RECORD)
        odd = ["--status", "", "--version", "-1 $(x)\n\"'", "--package", os.fsdecode(b"\xff"), "--event", "--event"]
        self.assert_told(self.notify(*odd, "--timing", "x"))
        expected = (
            b"a [--status] [] [--version] [-1 $(x)\\012\"'] [--package] [\\377] [--event] [--event] "
            b"[--timing] [x]\n"
        )
        self.assertEqual(expected, self.log.read_bytes())

    def test_wrong_usage_runs_no_plugin(self):
        self.add_plugin("a", RECORD)
        twice = [*STEP[:-2], "--event", "x"]
        for arguments in (["x"], STEP[:-1], STEP[:-2], [*STEP, "--event", "x"], twice, ["--help", "x"]):
            with self.subTest(arguments):
                result = self.notify(*arguments)
                self.assertEqual(64, result.returncode)
                self.assertTrue(result.stderr.startswith("Usage: notify-plugins --event"))
        self.assertEqual([], self.log_lines())

    def test_without_arguments_is_wrong_usage(self):
        self.assertEqual(64, self.run_program("notify-plugins").returncode)

    def test_help_is_printed(self):
        result = self.notify("--help")
        self.assertEqual((0, ""), (result.returncode, result.stderr))
        for text in ("exit status", "one after the other"):
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

    def move_away(self, *names):
        """Makes the plugin "a" a link to a program in the folder of that name, below the root; gives that folder."""
        away = self.root.joinpath(*names)
        away.mkdir(parents=True)
        shutil.move(self.add_plugin("a", RECORD), away / "program")
        (self.folder / "a").symlink_to(away / "program")
        return away

    def test_plugin_that_another_user_could_swap_is_refused(self):
        """Between the look at a file and its start, whoever may write a folder on the way puts another there."""
        away = self.move_away("home", "folder")
        for folder in (away, away.parent):
            folder.chmod(0o777)
            self.assert_told(self.notify(), f"/a: refused: everyone may write {folder}")
            folder.chmod(0o755)
        self.assertEqual([], self.log_lines())
        self.assert_told(self.notify())
        self.assertEqual([f"a {STEP_TEXT}"], self.log_lines())

    def test_every_link_on_the_way_is_followed(self):
        away = self.move_away("home")
        shared = self.root / "shared"
        shared.mkdir()
        shared.chmod(0o777)
        (shared / "link").symlink_to(away)
        for way in (
            shared / "link" / "program",
            "../../../../shared/link/program",
            "../../../../shared/../home/program",
        ):
            with self.subTest(way):
                (self.folder / "a").unlink()
                (self.folder / "a").symlink_to(way)
                result = self.notify()
                self.assertEqual(1, result.returncode)
                self.assertIn("/a: refused: everyone may write ", result.stderr)
                self.assertIn("shared\n", result.stderr)
        self.assertEqual([], self.log_lines())

    def test_sticky_folder_on_the_way_is_no_harm(self):
        self.move_away("tmp", "own").parent.chmod(0o1777)
        self.assert_told(self.notify())
        self.assertEqual([f"a {STEP_TEXT}"], self.log_lines())

    def test_links_in_a_circle_are_no_plugins(self):
        self.folder.mkdir(parents=True)
        (self.folder / "a").symlink_to("b")
        (self.folder / "b").symlink_to("a")
        self.assert_told(self.notify())

    def test_folder_of_plugins_that_another_user_could_swap_is_refused(self):
        self.add_plugin("a", RECORD)
        for folder in (self.folder.parent, self.folder.parent.parent, self.root):
            with self.subTest(folder):
                folder.chmod(0o777)
                self.assert_told(self.notify(), f": refused: everyone may write {folder}")
                folder.chmod(0o755)
        self.assertEqual([], self.log_lines())

    def test_world_writable_folder_is_refused(self):
        self.add_plugin("a", RECORD)
        self.folder.chmod(0o1777)
        self.assert_told(self.notify(), ": refused: everyone may write it")
        self.assertEqual([], self.log_lines())

    def test_folder_that_is_none_cannot_be_read(self):
        self.folder.parent.mkdir(parents=True)
        self.folder.write_text("")
        self.assert_told(self.notify(), f": cannot be read: {os.strerror(errno.ENOTDIR)}")

    def test_what_plugins_print_goes_to_standard_error(self):
        self.add_plugin("a", "echo one; echo two >&2; exit 1")
        result = self.notify()
        self.assertEqual("", result.stdout)
        self.assertCountEqual(
            ["a: one", "a: two", f"notify-plugins: {self.folder}/a: exited with status 1"], result.stderr.splitlines()
        )

    def test_output_of_the_full_size_is_handed_on_whole(self):
        self.add_plugin("a", f"yes {'x' * 1023} | head -n 64")
        self.assertEqual(f"a: {'x' * 1023}\n" * 64, self.notify().stderr)

    def test_more_output_is_taken_from_the_plugin_and_dropped(self):
        self.add_plugin("a", f"yes {'x' * 1023} | head -n 3000; echo done >> \"$LOG\"")
        self.add_plugin("b", "echo another")
        result = self.notify()
        self.assertEqual(
            (0, f"a: {'x' * 1023}\n" * 64 + "a: " + DROPPED + "b: another\n"), (result.returncode, result.stderr)
        )
        self.assertEqual(["done"], self.log_lines())

    def test_lines_have_a_bound(self):
        self.add_plugin("a", "yes | head -n 1001")
        self.assertEqual("a: y\n" * 1000 + "a: " + DROPPED, self.notify().stderr)

    def test_output_and_error_output_have_one_bound(self):
        self.add_plugin("a", f"yes {'x' * 999} | head -n 40; yes {'x' * 999} | head -n 40 >&2")
        self.assertEqual(f"a: {'x' * 999}\n" * 65 + "a: " + DROPPED, self.notify().stderr)

    def test_a_long_line_is_cut(self):
        self.add_plugin("a", "head -c 3000000 /dev/zero | tr '\\0' x; echo; echo after")
        self.assertEqual(f"a: {'x' * 1024} [cut]\na: after\n", self.notify().stderr)

    def test_control_characters_are_made_visible(self):
        self.add_plugin("a\x1b", "printf 'one\\033[2J\\rtwo\\r\\n\\n\\nno end'")
        self.assertEqual("a\\033: one\\033[2J\\015two\na\\033: no end\n", self.notify().stderr)

    def test_lines_come_as_they_are_printed(self):
        go_on = self.root / "go_on"
        os.mkfifo(go_on)
        self.add_plugin("a", f'echo one; read line < "{go_on}"; echo two >&2; read line < "{go_on}"')
        # Open for reading too: the plugin may come back before a writer of the first line has gone, or after.
        with self.start() as process, open(go_on, "r+b", buffering=0) as pipe:
            for line in ("a: one\n", "a: two\n"):
                self.assertEqual(line, process.stderr.readline())
                pipe.write(b"go on\n")
            self.assertEqual(0, process.wait(HANG))

    def test_output_that_nobody_takes_holds_up_nobody(self):
        self.add_plugin("a", "yes | head -n 100000; yes | head -n 100000 >&2")
        reader, writer = os.pipe()
        self.addCleanup(os.close, reader)
        with open(writer, "wb") as output:
            fcntl.fcntl(output, fcntl.F_SETPIPE_SZ, 4096)
            result = subprocess.run(
                [PROGRAMS / "notify-plugins", *STEP], env=self.environment, stderr=output, timeout=HANG, check=False
            )
        self.assertEqual(0, result.returncode)

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
        self.add_plugin("a", 'cat $HOLD & echo $$ >> "$LOG"; echo $! >> "$LOG"; wait')
        self.add_plugin("b", 'echo b >> "$LOG"')
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        plugin, child, last = self.log_lines()
        self.assertEqual("b", last)
        self.wait_for_process_end(plugin)
        self.wait_for_process_end(child)

    def test_plugin_that_ignores_the_request_to_end_is_killed_with_its_children(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "trap '' TERM; cat $HOLD & echo $$ >> \"$LOG\"; echo $! >> \"$LOG\"; cat $HOLD")
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        for process in self.log_lines():
            self.wait_for_process_end(process)

    def test_children_that_ignore_the_request_to_end_are_killed_too(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", "(trap '' TERM; exec cat $HOLD) & echo $! >> \"$LOG\"; wait")
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")
        self.wait_for_process_end(self.log_lines()[0])

    def test_plugin_is_asked_to_end_before_it_is_killed(self):
        self.write_setting("plugin_time_limit=0.5\n")
        self.add_plugin("a", 'trap \'echo asked >> "$LOG"; exit 0\' TERM; cat $HOLD & wait')
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
        self.add_plugin("a", "exec cat $HOLD > /dev/null 2>&1")
        self.assert_told(self.notify(), "/a: stopped: it took longer than 0.5 s")

    def test_plugin_that_closed_its_output_is_waited_for(self):
        self.add_plugin("a", 'exec > /dev/null 2>&1; while [ ! -e "$LOG.go" ]; do sleep 0.01; done; exit 5')
        with subprocess.Popen(
            [PROGRAMS / "notify-plugins", *STEP], env=self.environment, stderr=subprocess.PIPE, text=True
        ) as process:
            self.log.with_suffix(".go").write_text("")
            self.assertTrue(process.communicate(timeout=HANG)[1].endswith("/a: exited with status 5\n"))

    def test_what_a_plugin_leaves_behind_ends_with_it(self):
        for way in ("cat $HOLD &", "setsid cat $HOLD &", "(setsid sh -c 'cat $HOLD & wait' &)"):
            with self.subTest(way):
                self.add_plugin("a", f"{self.spread(way)}; echo told")
                result = self.notify()
                self.assertEqual((0, "a: told\n"), (result.returncode, result.stderr))
                self.assert_spread_ends()

    def test_what_ignores_the_request_to_end_is_killed_after_the_plugin(self):
        self.add_plugin("a", self.spread("(trap '' TERM; exec setsid cat $HOLD) &"))
        self.assert_told(self.notify())
        self.assert_spread_ends()

    def test_signal_to_the_program_stops_the_plugin(self):
        for number in (signal.SIGTERM, signal.SIGINT, signal.SIGHUP):
            with self.subTest(number.name):
                self.log.unlink(missing_ok=True)
                self.add_plugin("a", 'echo $$ >> "$LOG"; exec cat $HOLD')
                with subprocess.Popen([PROGRAMS / "notify-plugins", *STEP], env=self.environment) as process:
                    self.wait_until(lambda: len(self.log_lines()) == 1, "the start of the plugin")
                    process.send_signal(number)
                    self.assertEqual(128 + number, process.wait(HANG))
                self.wait_for_process_end(self.log_lines()[0])

    def test_signal_at_the_very_start_of_a_plugin_stops_the_plugin(self):
        self.add_plugin("a", 'kill -TERM $PPID; echo $$ >> "$LOG"; exec cat $HOLD')
        for _ in range(20):
            self.log.unlink(missing_ok=True)
            self.assertEqual(128 + signal.SIGTERM, self.notify().returncode)
            for process in self.log_lines():
                self.wait_for_process_end(process)

    def workers(self, process):
        """The process that runs the plugins for `process`, in a list."""
        return pathlib.Path(f"/proc/{process.pid}/task/{process.pid}/children").read_text().split()

    def test_nothing_outlives_a_program_that_is_killed(self):
        kills = {
            "the program": lambda process: process.kill(),
            "the process that works": lambda process: os.kill(int(self.workers(process)[0]), signal.SIGKILL),
            "its group": lambda process: os.killpg(process.pid, signal.SIGKILL),
        }
        for killed, kill in kills.items():
            for way in ("cat $HOLD &", "(setsid sh -c 'cat $HOLD & wait' &)"):
                with self.subTest(killed=killed, way=way):
                    self.add_plugin("a", self.spread(way) + '; echo $$ >> "$LOG"; echo ready; exec cat $HOLD')
                    with self.start(process_group=0) as process:
                        self.assertEqual("a: ready\n", process.stderr.readline())
                        plugin = self.log_lines()[0]
                        kill(process)
                        process.wait(HANG)
                    self.wait_for_process_end(plugin)
                    self.assert_spread_ends()

    def test_plugin_ends_when_who_asked_for_it_is_killed(self):
        self.add_plugin("a", 'echo $$ >> "$LOG"; echo ready; exec cat $HOLD')
        asking = ["sh", "-c", '"$0" "$@"; exit', PROGRAMS / "notify-plugins", *STEP]
        with subprocess.Popen(asking, env=self.environment, stderr=subprocess.PIPE, text=True) as process:
            self.assertEqual("a: ready\n", process.stderr.readline())
            process.kill()
        self.wait_for_process_end(self.log_lines()[0])

    def test_plugin_ends_when_all_that_watch_it_are_killed(self):
        self.add_plugin("a", 'echo $$ >> "$LOG"; echo ready; exec cat $HOLD')
        with self.start() as process:
            self.assertEqual("a: ready\n", process.stderr.readline())
            watchers = [process.pid, int(self.workers(process)[0])]
            for number in (signal.SIGSTOP, signal.SIGKILL):  # so that none sees the other's end
                for watcher in watchers:
                    os.kill(watcher, number)
            process.wait(HANG)
        self.wait_for_process_end(self.log_lines()[0])

    def test_killed_process_that_works_is_told_of(self):
        self.add_plugin("a", "kill -9 $PPID; exec cat $HOLD")
        result = self.notify()
        self.assertEqual(
            (1, "notify-plugins: the process that runs the plugins was killed\n"), (result.returncode, result.stderr)
        )

    def test_plugin_may_be_stopped_by_every_signal(self):
        # Not in the shell itself, which blocks signals for the moment in which it starts a program.
        self.add_plugin("a", 'exec grep -E "^Sig(Blk|Ign)" /proc/self/status >> "$LOG"')
        self.assert_told(self.notify())
        self.assertEqual([f"{name}:\t{'0' * 16}" for name in ("SigBlk", "SigIgn")], self.log_lines())

    def test_caller_that_ignores_child_signals_still_learns_of_failures(self):
        self.add_plugin("a", "exit 7")
        result = self.notify(preexec_fn=lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN))
        self.assert_told(result, "/a: exited with status 7")

    def test_runs_without_standard_descriptors(self):
        self.add_plugin("a", RECORD)
        command = 'exec "$0" "$@" 0<&- 1>&- 2>&-'
        result = subprocess.run(
            ["/bin/sh", "-c", command, PROGRAMS / "notify-plugins", *STEP],
            env=self.environment,
            timeout=HANG,
            check=False,
        )
        self.assertEqual(0, result.returncode)
        self.assertEqual([f"a {STEP_TEXT}"], self.log_lines())


if __name__ == "__main__":
    unittest.main()
