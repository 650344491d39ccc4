"""Finds the plugins of this appliance, for the programs beside this module; orbamira_plugin_runner.py runs them.

A plugin is an executable file in <root>/usr/lib/orbamira/plugins, put there by the maker or by an application's
package; <root> is the environment variable ORBAMIRA_ROOT, empty by default. Plugins run in the order of their names
(a leading number such as 10- gives the place), symbolic links followed; hidden files and backups (a name that ends in
~) are not plugins. A plugin runs with all rights of the updater, so one that anybody else could have written is
refused: the folder and the file must belong to root or to the running user, must not be writable by everyone, and
may be writable by a group only when that is root's (0) or the one this program runs as, which on an appliance is
root's too.

Most appliances have no plugin. So what only running one takes stands in the other module: to load that takes longer
than all that is left to do here.
"""

import os
import stat
import syslog

ROOT = os.environ.get("ORBAMIRA_ROOT", "")
PLUGIN_FOLDER = ROOT + "/usr/lib/orbamira/plugins"

EXIT_USAGE = 64


class PluginFailure(Exception):
    """What went wrong with the plugin (or plugin folder) that the text names first."""

    def __init__(self, path, reason):
        super().__init__(f"{path}: {reason}")


def start(program):
    """Readies the process of the program called `program` for the functions below. Call it once, first."""
    # A descriptor from 0 to 2 that is closed would be given to the next file opened, and messages written into it.
    while (fd := os.open(os.devnull, os.O_RDWR)) <= 2:
        pass
    os.close(fd)
    syslog.openlog(program, 0, syslog.LOG_LOCAL1)


def write_error(data):
    """Writes the bytes to standard error; one that nobody reads any more is no failure."""
    try:
        while data:
            data = data[os.write(2, data) :]
    except OSError:
        pass


def print_error(text):
    """write_error() for a text."""
    write_error(os.fsencode(text))


def report(program, failure):
    """Tells standard error and the system log of `failure`, an exception or a text, in one line."""
    print_error(f"{program}: {failure}\n")
    syslog.syslog(syslog.LOG_ERR, os.fsencode(str(failure)).decode("utf-8", "replace"))


def list_plugins():
    """The paths of the plugins in the order in which to run them; empty when there is no plugin folder.

    Raises PluginFailure when the folder cannot be read or is not to be trusted.
    """
    try:
        check_trust(PLUGIN_FOLDER, os.stat(PLUGIN_FOLDER))
        names = sorted(os.listdir(PLUGIN_FOLDER), key=os.fsencode)
    except FileNotFoundError:
        return []
    except OSError as error:
        raise PluginFailure(PLUGIN_FOLDER, f"cannot be read: {error.strerror}") from error
    paths = [f"{PLUGIN_FOLDER}/{name}" for name in names if not name.startswith(".") and not name.endswith("~")]
    return [path for path in paths if os.path.isfile(path) and os.access(path, os.X_OK)]


def check_trust(path, status):
    """Raises PluginFailure when others than root and the running user may change the file of that os.stat()."""
    if status.st_mode & stat.S_IWOTH:
        raise PluginFailure(path, "refused: everyone may write it")
    if status.st_mode & stat.S_IWGRP and status.st_gid not in (0, os.getegid()):
        raise PluginFailure(path, f"refused: group {status.st_gid} may write it")
    if status.st_uid not in (0, os.geteuid()):
        raise PluginFailure(path, f"refused: it belongs to user {status.st_uid}")
