#!/usr/bin/python3 -SE
"""Tells every plugin of one step of an installation or removal.

usage: notify_plugin.py --event EVENT --package NAME --timing TIMING --version VERSION --status STATUS

    EVENT    what is done: the updater says install or uninstall
    NAME     the package that the step is about
    TIMING   when: the updater says pre (the step is about to begin) or post (it is done)
    VERSION  the version of that package
    STATUS   what the step means for the pack as a whole: the updater says INSTALL, UNINSTALL or UPGRADE

Each of the five options is given once, in any order. Its text is not checked and may be empty: any text is handed on
as it is, and a plugin should pass over one that it does not know. The plugins are the executables in
<root>/usr/lib/orbamira/plugins (see orbamira_plugins.py). They are run one after the other in the order of their
names, each with exactly the arguments that this program was given; what they print goes to standard error, up to
64 KiB from each. One that fails does not keep the others from being told.

exit status: 0 all plugins were told (or there are none); 1 at least one failed, each of them named in a line on
standard error and in the system log; 64 wrong usage
"""

import sys

# The folder of this program is not the place for compiled copies of its module.
sys.dont_write_bytecode = True

import orbamira_plugins as plugins  # noqa: E402

PROGRAM = "notify_plugin"
OPTIONS = ("--event", "--package", "--status", "--timing", "--version")


def notify_all(arguments):
    """Runs every plugin with `arguments`; whether all of them succeeded."""
    try:
        paths = plugins.list_plugins()
    except plugins.PluginFailure as failure:
        plugins.report(PROGRAM, failure)
        return False
    if not paths:
        return True
    import orbamira_plugin_runner as runner  # not at the top: orbamira_plugins.py tells why

    runner.take_signals()
    seconds = runner.time_limit()
    succeeded = True
    for path in paths:
        try:
            runner.run(path, arguments, seconds)
        except plugins.PluginFailure as failure:
            plugins.report(PROGRAM, failure)
            succeeded = False
    return succeeded


def main(arguments):
    plugins.start(PROGRAM)
    if arguments == ["--help"]:
        print(__doc__.strip())
        return 0
    if len(arguments) != 2 * len(OPTIONS) or tuple(sorted(arguments[::2])) != OPTIONS:
        plugins.print_error(
            "usage: notify_plugin.py --event EVENT --package NAME --timing TIMING --version VERSION --status STATUS\n"
        )
        return plugins.EXIT_USAGE
    return 0 if notify_all(arguments) else 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
