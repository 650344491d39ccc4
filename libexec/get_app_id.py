#!/usr/bin/python3 -SE
"""Asks the plugins for their application ids.

usage: get_app_id.py FILE

Every executable in <root>/usr/lib/orbamira/plugins (see orbamira_plugins.py) is run with the single argument
--app-id, one after the other in the order of their names. It prints its application id on a line of its own, several
ids on several lines, or nothing when it has none, as UTF-8 text and at most 64 KiB, and exits with 0. FILE becomes the
JSON array of all ids in the order they came; it is put in place whole, and its folder is made when missing.

A plugin that fails is named in a line on standard error and in the system log, and left out: the ids of the others are
still good. Without a plugin folder there are no ids; one that cannot be read or is not to be trusted is an error, since
nobody knows then what the ids are.

exit status: 0 FILE is written; 1 it is not, the reason is on standard error and in the system log; 64 wrong usage
"""

import json
import os
import sys
import tempfile

# The folder of this program is not the place for compiled copies of its module.
sys.dont_write_bytecode = True

import orbamira_plugin_runner as runner  # noqa: E402
import orbamira_plugins as plugins  # noqa: E402

PROGRAM = "get_app_id"
MAX_ANSWER_SIZE = 64 * 1024


def ask(path, seconds):
    """The ids of one plugin. Raises PluginFailure."""
    answer = bytearray()

    def take_output(data):
        answer.extend(data)
        if len(answer) > MAX_ANSWER_SIZE:
            raise ValueError(f"stopped: it printed more than {MAX_ANSWER_SIZE // 1024} KiB")

    runner.run(path, ["--app-id"], seconds, take_output)
    try:
        lines = answer.decode("utf-8").split("\n")
    except UnicodeDecodeError as error:
        raise plugins.PluginFailure(path, "printed what is not UTF-8") from error
    return [text for line in lines if (text := line.strip())]


def ask_all():
    """The ids of all plugins; those that fail are reported and left out. Raises PluginFailure for the folder."""
    paths = plugins.list_plugins()
    seconds = runner.time_limit()
    ids = []
    for path in paths:
        try:
            ids += ask(path, seconds)
        except plugins.PluginFailure as failure:
            plugins.report(PROGRAM, failure)
    return ids


def write_whole(path, text):
    """Puts `text` into the file `path` in one step. Raises OSError, and then leaves the file as it was."""
    folder = os.path.dirname(path) or "."
    os.umask(0o022)
    os.makedirs(folder, exist_ok=True)
    fd, temporary = tempfile.mkstemp(dir=folder, prefix=f".{os.path.basename(path)}.")
    try:
        with open(fd, "w", encoding="utf-8") as file:
            file.write(text)
            file.flush()
            os.fsync(fd)
        os.replace(temporary, path)
    except BaseException:
        os.unlink(temporary)
        raise


def main(arguments):
    plugins.start(PROGRAM)
    runner.take_signals()
    if arguments == ["--help"]:
        print(__doc__.strip())
        return 0
    if len(arguments) != 1 or not arguments[0] or arguments[0].startswith("-"):
        plugins.print_error("usage: get_app_id.py FILE\n")
        return plugins.EXIT_USAGE
    try:
        write_whole(arguments[0], json.dumps(ask_all()) + "\n")
    except plugins.PluginFailure as failure:
        plugins.report(PROGRAM, failure)
        return 1
    except OSError as error:
        plugins.report(PROGRAM, f"{arguments[0]}: cannot be written: {error.strerror}")
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
