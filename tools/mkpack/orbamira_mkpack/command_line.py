"""What the command lines of publishing and of verifying have in common."""

import argparse
import signal
import sys

from orbamira_mkpack import rules

EXIT_FAILED = 1
EXIT_USAGE = 64


class ArgumentParser(argparse.ArgumentParser):
    """Takes no shortened options, and shows help texts as they are written."""

    def __init__(self, **arguments):
        super().__init__(formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False, **arguments)

    def error(self, message):
        self.exit(EXIT_USAGE, f"{self.prog}: {message}\nTry '{self.prog} --help'.\n")


def end_in_order():
    """Lets a stopped run, too, take its unfinished files along."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda received, frame: sys.exit(128 + received))


def base_url(text):
    if rules.http_address(text) is None or set("?#") & set(text):
        raise argparse.ArgumentTypeError(f"{text!r} is no http or https address of a folder")
    return text.rstrip("/")
