"""Completions for zsh."""

import re

from reference import GENERATED
from reference.programs import first_words, groups, second_words, takes_file, takes_folder


def _text(text):
    return re.sub(r"([\\\[\]:])", r"\\\1", text).replace("'", "'\\''")


def _value(option):
    """What the value of an option is, as _arguments has it."""
    if not option["value"]:
        return ""
    if option.get("choices"):
        return f":{option['value']}:({' '.join(option['choices'])})"
    if takes_file(option):
        return f":{option['value']}:_files"
    if takes_folder(option):
        return f":{option['value']}:_files -/"
    return f":{option['value']}: "


def _options(options):
    arguments = []
    for option in options:
        excluded = "(- *)" if option["help"].lower().endswith("exit") else ""
        arguments += [f"'{excluded}{name}[{_text(option['help'])}]{_value(option)}'" for name in option["names"]]
    return arguments


def _commands(entries, depth):
    """The words that may come next, as the array `commands`."""
    return [f"{depth}commands=(", *(f"{depth}  '{name}:{_text(summary)}'" for name, summary in entries), f"{depth})"]


def _argument(place, argument):
    """The value of an argument: one of its choices, a folder, or anything."""
    action = f"({' '.join(argument['choices'])})" if argument["choices"] else " "
    return f"'{place}:{argument['name']}:{'_files -/' if takes_folder({'value': argument['name']}) else action}'"


def _case(command, word):
    taken = _options(command["options"])
    if command.get("argument") == "COMMAND":
        taken.append("'1:command:{_describe command commands}'")
    elif "arguments" in command:
        taken += [_argument(place, each) for place, each in enumerate(command["arguments"], 1)]
    return f"{word}) _arguments {' '.join(taken)} ;;"


def _group(group, commands, depth):
    """The case of a first word that a second one follows."""
    return [
        f"{depth}{group})",
        *_commands(second_words(commands), depth + "  "),
        f"{depth}  _arguments -C '(- *)--help[Print this help message and exit]' '1:command:->command' "
        "'*::argument:->argument'",
        f"{depth}  case $state in",
        f"{depth}    command) _describe command commands ;;",
        f"{depth}    argument)",
        f"{depth}      case $words[1] in",
        *(f"{depth}        {_case(c, c['name'].split()[1])}" for c in commands),
        f"{depth}      esac",
        f"{depth}      ;;",
        f"{depth}  esac",
        f"{depth}  ;;",
    ]


def completion(program):
    name = program["name"]
    lines = [
        f"#compdef {name}",
        f"# Completes the command line of {name}. {GENERATED}",
        "",
        f"_{name}() {{",
        "  local -a commands",
        "  local state line context",
        *_commands(first_words(program), "  "),
        "  _arguments -C \\",
        *(f"    {option} \\" for option in _options(program["options"])),
        "    '1:command:->command' \\",
        "    '*::argument:->argument'",
        "  case $state in",
        "    command) _describe command commands ;;",
        "    argument)",
        "      case $words[1] in",
    ]
    for group, commands in groups(program):
        lines += _group(group, commands, " " * 8) if second_words(commands) else [" " * 8 + _case(commands[0], group)]
    lines += ["      esac", "      ;;", "  esac", "}", "", f'_{name} "$@"']
    return "\n".join(lines) + "\n"
