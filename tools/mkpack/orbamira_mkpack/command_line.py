"""What the command lines of publishing and of verifying have in common."""

import argparse
import difflib
import errno
import re
import signal
import sys

from orbamira_mkpack import rules

EXIT_FAILED = 1
EXIT_USAGE = 64

# What to do when the system refuses something.
_REMEDIES = {
    errno.ENOSPC: "Make room there, and run mkpack again",
    errno.EDQUOT: "Make room there, and run mkpack again",
    errno.ENOENT: "Put it there, or correct the path",
    errno.ENOTDIR: "Correct the path",
    errno.EACCES: "Run mkpack as a user who may use it",
    errno.EPERM: "Run mkpack as a user who may use it",
}


class ArgumentParser(argparse.ArgumentParser):
    """Takes no shortened options, and shows help texts as they are written."""

    def __init__(self, **arguments):
        super().__init__(formatter_class=argparse.RawDescriptionHelpFormatter, allow_abbrev=False, **arguments)

    def parse_args(self, arguments):
        # First, since a misspelt option is also a missing one.
        known = [name for action in self._actions for name in action.option_strings]
        for name in (argument.partition("=")[0] for argument in arguments):
            if re.fullmatch("--[a-z-]+", name) and name not in known:
                self.error(f'there is no option "{name}"' + did_you_mean(name, known))
        options, unknown = self.parse_known_args(arguments)
        if unknown:
            self.error(f'"{unknown[0]}" was not expected')
        return options

    def error(self, message):
        end = "" if message.endswith("?") else "."
        self.exit(EXIT_USAGE, printable(f'{self.prog}: {message}{end} Run "{self.prog} --help" for help.') + "\n")


def did_you_mean(word, known):
    """A question that names the nearest of the known words; empty if none is near."""
    nearest = difflib.get_close_matches(word, known, n=1)
    return f'. Did you mean "{nearest[0]}"?' if nearest else ""


def system_words(error, path):
    """An OSError in a sentence, with a remedy. It is about `path` where it names none itself."""
    return (
        f"{error.filename or path}: {error.strerror}. {_REMEDIES.get(error.errno, 'Fix that, and run mkpack again')}."
    )


def printable(text):
    """The text without anything that a terminal would act on."""
    return "".join(
        sign if sign.isprintable() else sign.encode("unicode_escape", "surrogatepass").decode() for sign in text
    )


def end_in_order():
    """Lets a stopped run, too, take its unfinished files along."""
    for number in (signal.SIGHUP, signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda received, frame: sys.exit(128 + received))


def failed(program, reason):
    """Says why the work failed; the exit status."""
    print(printable(f"{program}: {reason}"), file=sys.stderr)
    return EXIT_FAILED


def version(text):
    if not rules.VERSION_PATTERN.fullmatch(text):
        raise argparse.ArgumentTypeError(
            f"{text!r} is not a version: up to 64 letters, digits and . _ + -, beginning with a letter or digit"
        )
    return text


def share(text):
    """A percentage; whole ones as integers."""
    match = re.fullmatch(r"([0-9]{1,3}(?:\.[0-9]{1,2})?)%?", text)
    percent = float(match[1]) if match else 0
    if not 0 < percent <= 100:
        raise argparse.ArgumentTypeError(
            f"{text!r} is no share: a percentage from 0.01% to 100%, with two decimals at most, such as 5%"
        )
    return int(percent) if percent.is_integer() else percent


def channel(text):
    if not rules.CHANNEL_PATTERN.fullmatch(text):
        raise argparse.ArgumentTypeError(
            f"{text!r} is no channel: up to 32 small letters, digits and -, beginning with a letter or digit"
        )
    return text


def base_url(text):
    if rules.http_address(text) is None or set("?#") & set(text):
        raise argparse.ArgumentTypeError(f"{text!r} is no http or https address of a folder")
    return text.rstrip("/")
