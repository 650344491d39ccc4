"""Runs the plugins that orbamira_plugins.py finds, for the programs beside this module.

A plugin is run in a process group of its own with an empty standard input. What it prints goes to standard error, up to
64 KiB, or where the caller of run() wants it, and ends with it: what it leaves running in the background may go on but
should have an output of its own. Its time is limited to `plugin_time_limit` seconds of
<root>/etc/orbamira/updater.conf, else of <root>/usr/share/orbamira/updater.conf, else to 60. When the time is up the
whole group gets SIGTERM, and SIGKILL shortly after.
"""

import contextlib
import os
import selectors
import signal
import stat
import subprocess
import sys
import syslog
import time

from orbamira_plugins import ROOT, PluginFailure, check_trust, print_error, write_error

SETTINGS_FILES = (ROOT + "/etc/orbamira/updater.conf", ROOT + "/usr/share/orbamira/updater.conf")
TIME_LIMIT_KEY = "plugin_time_limit"
DEFAULT_TIME_LIMIT = 60.0
MAX_TIME_LIMIT = 24 * 60 * 60.0

_MAX_SETTINGS_SIZE = 1 << 20
_MAX_HANDED_ON = 64 * 1024
# All that the largest pipe of an ordinary user can hold.
_CHUNK = 1 << 20
# While a plugin holds its output open only its end is worth waiting for; this is how soon that is noticed.
_END_CHECK_INTERVAL = 0.1
_GRACE = 2.0
_STOP_SIGNALS = (signal.SIGHUP, signal.SIGINT, signal.SIGTERM)


def take_signals():
    """Readies the process for run(): a signal that ends this program ends the plugin too. Call it once, first."""
    # With SIGCHLD ignored, as it may have been inherited, the kernel would forget how a plugin ended.
    signal.signal(signal.SIGCHLD, signal.SIG_DFL)
    for number in _STOP_SIGNALS:
        signal.signal(number, _stop)


def time_limit():
    """How many seconds a plugin may take."""
    for path in SETTINGS_FILES:
        text = _setting(path, TIME_LIMIT_KEY)
        if text:
            with contextlib.suppress(ValueError):
                if 0 < (seconds := float(text)) <= MAX_TIME_LIMIT:
                    return seconds
            syslog.syslog(syslog.LOG_ERR, f"{path}: {TIME_LIMIT_KEY} is not a number of seconds up to a day")
            break
    return DEFAULT_TIME_LIMIT


def run(plugin, arguments, seconds, take_output=None):
    """Runs `plugin` with `arguments` and waits for its end, at most `seconds`.

    Every piece of its standard output is handed to `take_output` as bytes; a ValueError from there stops the plugin
    and is its failure. Its standard error, and without `take_output` its standard output too, goes to ours: 64 KiB in
    all, and then a line that says that the rest is dropped. Raises PluginFailure when the plugin is not to be trusted,
    cannot be started, takes too long or does not exit with 0.
    """
    process, ended = None, False
    hand_on = _HandOn(plugin)
    # Whatever happens here, a signal to this program included, the plugin does not outlive it. So such a signal has to
    # wait while the plugin is being started.
    signal.pthread_sigmask(signal.SIG_BLOCK, _STOP_SIGNALS)
    try:
        process = _start(plugin, arguments)
        _unblock_stop_signals()
        deadline = time.monotonic() + seconds
        ended = _follow(process, deadline, {process.stdout: take_output or hand_on, process.stderr: hand_on})
    except ValueError as error:
        raise PluginFailure(plugin, str(error)) from error
    finally:
        if process is not None:
            _finish(process, ended)
        _unblock_stop_signals()
    if not ended:
        raise PluginFailure(plugin, f"stopped: it took longer than {seconds:g} s")
    if process.returncode < 0:
        raise PluginFailure(plugin, f"ended by signal {-process.returncode}")
    if process.returncode > 0:
        raise PluginFailure(plugin, f"exited with status {process.returncode}")


class _HandOn:
    """Writes the output of one run of a plugin to standard error, up to the bound: whoever reads us may keep it all."""

    def __init__(self, plugin):
        self._plugin = plugin
        self._left = _MAX_HANDED_ON
        self._dropping = False

    def __call__(self, data):
        if self._dropping:
            return
        write_error(data[: self._left])
        if len(data) > self._left:
            self._dropping = True
            print_error(f"\n{self._plugin}: printed more than {_MAX_HANDED_ON // 1024} KiB, the rest is dropped\n")
        self._left -= len(data)


def _stop(received, frame):
    # One is enough: a second must not interrupt what is done about the first.
    for number in _STOP_SIGNALS:
        signal.signal(number, signal.SIG_IGN)
    sys.exit(128 + received)


def _unblock_stop_signals():
    signal.pthread_sigmask(signal.SIG_UNBLOCK, _STOP_SIGNALS)


def _start(plugin, arguments):
    try:
        check_trust(plugin, os.stat(plugin))
        return subprocess.Popen(
            [plugin, *arguments],
            bufsize=0,
            stdin=subprocess.DEVNULL,
            stdout=subprocess.PIPE,
            stderr=subprocess.PIPE,
            process_group=0,
            preexec_fn=_unblock_stop_signals,
        )
    except OSError as error:
        raise PluginFailure(plugin, f"cannot be started: {error.strerror}") from error


def _finish(process, ended):
    if not ended:
        _end_group(process)
    process.stdout.close()
    process.stderr.close()
    # Not even SIGKILL ends a process that hangs in a system call.
    with contextlib.suppress(subprocess.TimeoutExpired):
        process.wait(_GRACE)


def _setting(path, key):
    """The value of `key` in the settings file `path`, read as the updater reads it; empty when there is none.

    The first line whose key matches counts. Blanks are spaces and tabs.
    """
    for line in _settings_text(path).split("\n"):
        name, separator, value = line.removesuffix("\r").partition("=")
        if separator and not line.startswith("#") and name.strip(" \t") == key:
            value = value.strip(" \t")
            return value[1:-1] if len(value) >= 2 and value[0] == value[-1] == '"' else value
    return ""


def _settings_text(path):
    """The whole lines in the part of the file `path` that is looked at; empty when it is no file that can be read."""
    try:
        with open(path, "rb", opener=_open_without_waiting) as file:
            if not stat.S_ISREG(os.fstat(file.fileno()).st_mode):
                return ""
            data = file.read(_MAX_SETTINGS_SIZE)
    except OSError:
        return ""
    if len(data) == _MAX_SETTINGS_SIZE:
        data = data[: data.rfind(b"\n") + 1]  # half a value is worse than none
    return data.decode("utf-8", "replace")


def _open_without_waiting(path, flags):
    # A pipe would keep us waiting for its writer.
    return os.open(path, flags | os.O_NONBLOCK | os.O_NOCTTY)


def _follow(process, deadline, outputs):
    """Hands on what comes from `outputs` until the process ends (True) or the deadline passes (False).

    The end of the process counts, not that of its output, which something left in the background may keep open.
    """
    with selectors.DefaultSelector() as selector:
        for output in outputs:
            os.set_blocking(output.fileno(), False)
            selector.register(output, selectors.EVENT_READ)
        while (left := deadline - time.monotonic()) > 0:
            if not selector.get_map():
                return _wait_for_end(process, left)
            ended = _has_ended(process)
            # Once the process has ended all it wrote is there already: one look more takes it.
            for ready, _ in selector.select(0 if ended else min(left, _END_CHECK_INTERVAL)):
                data = ready.fileobj.read(_CHUNK)
                if data:
                    outputs[ready.fileobj](data)
                elif data is not None:
                    selector.unregister(ready.fileobj)
            if ended:
                return True
    return False


def _has_ended(process):
    # The process is looked at and not yet reaped: as long as it is not, its number names it and its group for sure.
    return os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None


def _wait_for_end(process, seconds):
    deadline = time.monotonic() + seconds
    pause = 0.001
    while not _has_ended(process):
        if (left := deadline - time.monotonic()) <= 0:
            return False
        time.sleep(min(pause, left))
        pause = min(2 * pause, _END_CHECK_INTERVAL)
    return True


def _end_group(process):
    for number in (signal.SIGTERM, signal.SIGKILL):
        with contextlib.suppress(ProcessLookupError, PermissionError):
            os.killpg(process.pid, number)
        _wait_for_end(process, _GRACE)
