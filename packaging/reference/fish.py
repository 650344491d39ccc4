"""Completions for fish."""

from reference import GENERATED
from reference.programs import first_words, groups, names_with, second_words, takes_file, takes_folder


def _text(text):
    return "'" + text.replace("\\", "\\\\").replace("'", "\\'") + "'"


def _value(option):
    """Whether a value follows, and what may be one."""
    if not option["value"]:
        return ""
    if option.get("choices"):
        return f" -x -a {_text(' '.join(option['choices']))}"
    if takes_file(option):
        return " -r -F"
    if takes_folder(option):
        return " -x -a '(__fish_complete_directories)'"
    return " -x"


def _names(option):
    return "".join(f" -l {name[2:]}" if name.startswith("--") else f" -s {name[1:]}" for name in option["names"])


def _at(program, words):
    return f"complete -c {program['name']} -n '__fish_{program['name']}_at{words and ' ' + words}'"


def _words(program, words, entries):
    return [f"{_at(program, words)} -a {word} -d {_text(summary)}" for word, summary in entries]


def _options(program, words, options):
    return [f"{_at(program, words)}{_names(o)}{_value(o)} -d {_text(o['help'])}" for o in options]


def completion(program):
    name = program["name"]
    lines = [
        f"# Completes the command line of {name}. {GENERATED}",
        "",
        "# Whether the commands on the line so far are these.",
        f"function __fish_{name}_at",
        "    set -l commands",
        "    set -l value",
        "    for word in (commandline -opc)[2..]",
        '        if test -n "$value"',
        "            set value",
        f"        else if contains -- $word {' '.join(names_with(program, lambda option: True))}",
        "            set value yes",
        "        else if not string match -q -- '-*' $word",
        "            set -a commands $word",
        "        end",
        "    end",
        '    test "$commands" = "$argv"',
        "end",
        "",
        f"complete -c {name} -f",
        *_words(program, "", first_words(program)),
        *_options(program, "", program["options"]),
    ]
    for group, commands in groups(program):
        lines += _words(program, group, second_words(commands))
        for command in commands:
            words = command["name"]
            if command.get("argument") == "COMMAND":
                lines += _words(program, words, first_words(program))
                for family, members in groups(program):
                    lines += _words(program, f"{words} {family}", second_words(members))
            for argument in command.get("arguments", [])[:1]:
                offered = " ".join(argument["choices"]) or "(__fish_complete_directories)"
                lines.append(f"{_at(program, words)} -a {_text(offered)}")
            lines += _options(program, words, command["options"])
    return "\n".join(lines) + "\n"
