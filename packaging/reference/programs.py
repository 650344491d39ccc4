"""The programs as they describe themselves: packctl by packctl_describe, mkpack by its argument parsers.

A program is {"name", "summary", "options": [OPTION...], "groups", "commands": [COMMAND...]}. A command has a name of
one word, or of its group's and its own; "summary", "options", and perhaps an "argument". An option is {"names", "help",
"value"}, with None for the value of a flag, and perhaps "choices".
"""

import importlib
import json
import os
import pathlib
import subprocess
import sys

FILES = {"FILE", "KEY", "CERT"}
FOLDERS = {"DIR", "FOLDER"}
CHOICES = {"WHEN": ["auto", "always", "never"]}


def packctl(describe):
    """What the program packctl_describe tells."""
    program = json.loads(subprocess.run([describe], check=True, stdout=subprocess.PIPE, text=True).stdout)
    for command in [program, *program["commands"]]:
        for option in command["options"]:
            option["choices"] = CHOICES.get(option["value"])
    return program


def _option(action):
    value = None
    if action.nargs != 0:
        value = action.metavar or (action.dest.upper() if action.choices is None else "WORD")
    return {
        "names": action.option_strings,
        "help": (action.help[0].upper() + action.help[1:]).replace("%%", "%"),
        "value": value,
        "choices": list(action.choices) if action.choices else None,
        "required": action.required,
    }


def _command(name, summary, parser):
    arguments = [action for action in parser._actions if not action.option_strings]
    return {
        "name": name,
        "summary": summary,
        "description": parser.description,
        "epilog": parser.epilog,
        "options": [_option(action) for action in parser._actions if action.option_strings],
        **({"argument": " ".join(each.metavar for each in arguments)} if arguments else {}),
        "arguments": [_argument(action) for action in arguments],
    }


def _argument(action):
    return {"name": action.metavar, "help": action.help.replace("%%", "%"), "choices": list(action.choices or [])}


def mkpack(program):
    """What the parsers of the program say."""
    folder = pathlib.Path(os.path.realpath(program)).parent
    sys.dont_write_bytecode = True
    sys.path.insert(0, str(folder))
    publish, rollout, verify, nginx = (
        importlib.import_module(f"orbamira_mkpack.{name}") for name in ("publish", "rollout", "verify", "nginx")
    )
    whole = _command("mkpack", "Make a codec pack of a folder and publish it", publish.make_parser())
    return {
        **whole,
        "groups": {},
        "commands": [
            {**whole, "name": "publish"},
            _command("rollout", "Offer a release to a larger share of the appliances", rollout.make_parser()),
            _command("withdraw", "Take a release back", rollout.make_withdraw_parser()),
            _command("security", "Mark a release as a security release", rollout.make_security_parser()),
            _command("verify", "Verify a published folder", verify.make_parser()),
            _command("nginx", "Print the configuration of nginx for staged releases", nginx.make_parser()),
        ],
    }


def names(options):
    return [name for option in options for name in option["names"]]


def groups(program):
    """The commands as they follow each other on the line: (first word, its commands); a command with no second word is
    a group of itself."""
    grouped = {}
    for command in program["commands"]:
        grouped.setdefault(command["name"].split()[0], []).append(command)
    return grouped.items()


def first_words(program):
    """The words that may come first, each with its summary."""
    return [(group, program["groups"].get(group, commands[0]["summary"])) for group, commands in groups(program)]


def second_words(commands):
    """The words that may come after the first of these commands, each with its summary."""
    return [(c["name"].split()[1], c["summary"]) for c in commands if " " in c["name"]]


def all_options(program):
    return [option for command in [program, *program["commands"]] for option in command["options"]]


def names_with(program, wanted):
    """The names of all options that take a value of which `wanted` is true, sorted."""
    return sorted({name for o in all_options(program) if o["value"] and wanted(o) for name in o["names"]})


def takes_file(option):
    return option["value"] in FILES


def takes_folder(option):
    return option["value"] in FOLDERS
