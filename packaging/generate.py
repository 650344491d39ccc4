#!/usr/bin/python3
"""Writes packctl's man page and completions, and mkpack's man pages, from what the programs themselves take.

usage: generate.py PACKCTL_DESCRIBE MKPACK FOLDER

PACKCTL_DESCRIBE is the program tools/packctl/packctl_describe of a build, MKPACK the one of the sources, in which names
of packs are still @VARIABLES@. FOLDER, which is packaging/ itself, gets man/packctl.1.in, man/mkpack.1.in,
man/mkpack-verify.1.in, completions/packctl.bash and completions/_packctl. They are kept in the tree, so that installing
takes no program to be run; a test fails as soon as they differ from what this writes.
"""

import json
import os
import pathlib
import re
import subprocess
import sys

GENERATED = "Made by packaging/generate.py: change what it is made from."

# The build puts the folders and names of platform/paths.h in.
PACKCTL_FILES = (
    (
        "@ORBAMIRA_SETTINGS_FOLDER@/updater.conf",
        "The machine's settings (KEY=VALUE), which win over those of the maker in "
        "@ORBAMIRA_DATA_FOLDER@/updater.conf: pack_update_server, download_limit, plugin_time_limit and unpack_limit.",
    ),
    ("@ORBAMIRA_SETTINGS_FOLDER@/account.json", "The account that is signed in, and its tokens; for root alone."),
    (
        "@ORBAMIRA_SETTINGS_FOLDER@/keyring.pem",
        "The certificates that packages must be signed by. Where there is none, unsigned " "packages are accepted.",
    ),
    ("@ORBAMIRA_PLUGINS_FOLDER@", "The programs that are told of installs."),
    ("@ORBAMIRA_PACKS_FOLDER@/@ORBAMIRA_PACK_FOLDER_NAME@", "The installed pack."),
    ("@ORBAMIRA_STATE_FOLDER@/status.json", "The recorded status."),
    ("@ORBAMIRA_STATE_FOLDER@/history.jsonl", "The history, one JSON object a line; an older part in history.jsonl.1."),
    ("@ORBAMIRA_CACHE_FOLDER@/checked", "Its time is that of the update server's last answer to a check."),
    ("@ORBAMIRA_DATA_FOLDER@/packctl.schema.json", "The JSON Schema of what is printed with --json."),
    ("@ORBAMIRA_DATA_FOLDER@/web", "The page of \"packctl web\"."),
    ("@ORBAMIRA_RUN_FOLDER@/lock", "The lock files. Whoever can open them can hold up an update."),
)


def roff(text):
    """`text` as it is, for the body of a page."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return re.sub(r"^\.", r"\\&.", text, flags=re.MULTILINE)


def paragraphs(text):
    """Help text in lines, as paragraphs: a line that begins a sentence of its own kind begins a new one."""
    lines = []
    for line in text.splitlines():
        if lines and line and not re.match(r"(Exit status|Example|With --)", line):
            lines[-1] += " " + line
        else:
            lines.append(line)
    return [line.strip() for line in lines if line.strip()]


def option_term(option):
    names = ", ".join(f"\\fB{roff(name)}\\fR" for name in option["names"])
    return names + (f" \\fI{roff(option['value'])}\\fR" if option["value"] else "")


def option_entries(options):
    return [part for option in options for part in (".TP", option_term(option), roff(option["help"]) + ".")]


def packctl_page(program):
    statuses = re.findall(r"^  (\d+) +(.+)$", program["footer"], flags=re.MULTILINE)
    rest = program["footer"].split("\n\n", 1)[1]
    page = [
        f'.\\" {GENERATED}',
        '.TH PACKCTL 1 "" Orbamira "User Commands"',
        ".SH NAME",
        f"packctl \\- {roff(program['summary'][0].lower() + program['summary'][1:].rstrip('.'))}",
        ".SH SYNOPSIS",
        ".B packctl",
        "[\\fB\\-\\-json\\fR] \\fICOMMAND\\fR [\\fIOPTION\\fR...]",
        ".SH DESCRIPTION",
        roff(program["summary"]),
        *(line for text in rest.splitlines() for line in (".PP", roff(text))),
        ".SH OPTIONS",
        *option_entries(program["options"]),
        ".SH COMMANDS",
    ]
    for command in program["commands"]:
        own = [option for option in command["options"] if option["names"][-1] not in ("--help", "--json")]
        takes = "".join(f" [{option_term(option)}]" for option in own)
        if "argument" in command:
            takes += f" [\\fI{roff(command['argument'])}\\fR]"
        page += [".SS", f"\\fB{roff(command['name'])}\\fR{takes}", roff(command["summary"]) + "."]
        page += [line for text in paragraphs(command["details"]) for line in (".PP", roff(text))]
        page += option_entries(own)
    page.append(".SH EXIT STATUS")
    page += [part for number, meaning in statuses for part in (".TP", f"\\fB{number}\\fR", roff(meaning) + ".")]
    page.append(".SH FILES")
    page += [part for path, meaning in PACKCTL_FILES for part in (".TP", f"\\fI{roff(path)}\\fR", roff(meaning))]
    page += [".SH SEE ALSO", "\\fBmkpack\\fR(1)"]
    return "\n".join(page) + "\n"


def verbatim(rows):
    return [".PP", ".nf", *(roff(row) for row in rows), ".fi"]


def block(rows):
    """A block of help text: two columns become entries, prose is filled, and what a reader would type stays."""
    depth = min(len(row) - len(row.lstrip()) for row in rows)
    rows = [row[depth:] for row in rows]
    if all(re.match(r"(\S+  |   ) *\S", row) for row in rows):
        page = []
        for row in rows:
            term, text = re.match(r"(\S*) +(.*)", row).groups()
            page += [".TP", f"\\fI{roff(term)}\\fR", roff(text)] if term else [roff(text)]
        return page
    if any(row.endswith("\\") for row in rows):
        return verbatim(rows)
    typed = [row for row in rows if re.match(r"openssl |mkpack |pack_update_server=", row)]
    return [".PP", *(roff(row) for row in rows if row not in typed), *(verbatim(typed) if typed else [])]


def blocks(lines):
    return [line for rows in re.split(r"\n\s*\n", "\n".join(lines).strip("\n")) for line in block(rows.splitlines())]


def mkpack_page(command, summary, see_also, text):
    """The page of the command whose help is `text`, as argparse lays it out."""
    usage, description, rest = text.split("\n\n", 2)
    sections = re.split(r"\n(?=\S)", rest)
    taken = [section for section in sections if section.startswith(("positional arguments:", "options:"))]
    page = [
        f'.\\" {GENERATED}',
        f'.TH {command.upper().replace(" ", "-")} 1 "" Orbamira "User Commands"',
        ".SH NAME",
        f"{roff(command.replace(' ', '-'))} \\- {summary}",
        ".SH SYNOPSIS",
        f".B {command}",
        roff(" ".join(usage.split()[1 + len(command.split()) :])),
        ".SH DESCRIPTION",
        roff(description),
        ".SH OPTIONS",
    ]
    for entry in (entry for section in taken for entry in re.split(r"\n(?=  \S)", section.rstrip())[1:]):
        term, help_text = re.match(r"  (.+?)(?:  +|\n)(.*)", entry, flags=re.DOTALL).groups()
        page += [".TP", f"\\fB{roff(term)}\\fR", roff(" ".join(help_text.split()))]
    for section in sections[len(taken) :]:
        heading, *lines = section.splitlines()
        page += [f".SH {heading.upper()}", *blocks(lines)]
    page += [".SH SEE ALSO", ", ".join(f"\\fB{roff(page_name)}\\fR(1)" for page_name in see_also)]
    return "\n".join(page) + "\n"


def names(options):
    return [name for option in options for name in option["names"]]


def groups(program):
    """The commands as they follow each other on the line: (first word, its commands); a command with no second word is
    a group of itself."""
    grouped = {}
    for command in program["commands"]:
        grouped.setdefault(command["name"].split()[0], []).append(command)
    return grouped.items()


def second_words(commands):
    return [command["name"].split()[1] for command in commands if " " in command["name"]]


def after(command, program):
    """The words that may come after a command: its options, and commands if it takes one."""
    return ([group for group, _ in groups(program)] if "argument" in command else []) + names(command["options"])


def bash_completion(program):
    takes_value = [
        name
        for options in [program["options"], *(c["options"] for c in program["commands"])]
        for option in options
        if option["value"]
        for name in option["names"]
    ]
    families = [group for group, commands in groups(program) if second_words(commands)]
    lines = [
        "# shellcheck shell=bash",
        f"# Completes the command line of packctl. {GENERATED}",
        "",
        "_packctl() {",
        "  local word command='' words",
        "  COMPREPLY=()",
        '  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do',
        "    case $word in",
        "      -*) continue ;;",
        "    esac",
        "    command+=${command:+ }$word",
        "    case $command in",
        f"      {' | '.join(families)}) ;;",
        "      *) break ;;",
        "    esac",
        "  done",
        '  case ${COMP_WORDS[COMP_CWORD - 1]} in',
        f"    {' | '.join(sorted(set(takes_value)))}) return ;;",
        "  esac",
        "  case $command in",
        f"    '') words='{' '.join([group for group, _ in groups(program)] + names(program['options']))}' ;;",
        *(
            f"    {group}) words='{' '.join(second_words(commands) + ['-h', '--help'])}' ;;"
            for group, commands in groups(program)
            if second_words(commands)
        ),
        *(f"    {quoted(c['name'])}) words='{' '.join(after(c, program))}' ;;" for c in program["commands"]),
        "    *) return ;;",
        "  esac",
        '  mapfile -t COMPREPLY < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")',
        "}",
        "complete -F _packctl packctl",
    ]
    return "\n".join(lines) + "\n"


def quoted(name):
    return f"'{name}'" if " " in name else name


def zsh_text(text):
    return re.sub(r"([\\\[\]:])", r"\\\1", text).replace("'", "'\\''")


def zsh_options(options):
    arguments = []
    for option in options:
        value = f":{option['value']}: " if option["value"] else ""
        excluded = "(- *)" if option["names"][-1] in ("--help", "--version") else ""
        arguments += [f"'{excluded}{name}[{zsh_text(option['help'])}]{value}'" for name in option["names"]]
    return arguments


def zsh_commands(entries, depth):
    """The words that may come next, as the array `commands`."""
    return [f"{depth}commands=(", *(f"{depth}  '{name}:{zsh_text(summary)}'" for name, summary in entries), f"{depth})"]


def zsh_case(command, word):
    taken = zsh_options(command["options"])
    if "argument" in command:
        taken.append("'1:command:{_describe command commands}'")
    return f"{word}) _arguments {' '.join(taken)} ;;"


def zsh_group(group, commands, depth):
    """The case of a first word that a second one follows."""
    return [
        f"{depth}{group})",
        *zsh_commands([(c["name"].split()[1], c["summary"]) for c in commands], depth + "  "),
        f"{depth}  _arguments -C '(- *)--help[Print this help message and exit]' '1:command:->command' "
        "'*::argument:->argument'",
        f"{depth}  case $state in",
        f"{depth}    command) _describe command commands ;;",
        f"{depth}    argument)",
        f"{depth}      case $words[1] in",
        *(f"{depth}        {zsh_case(c, c['name'].split()[1])}" for c in commands),
        f"{depth}      esac",
        f"{depth}      ;;",
        f"{depth}  esac",
        f"{depth}  ;;",
    ]


def zsh_completion(program):
    entries = [(group, program["groups"].get(group, commands[0]["summary"])) for group, commands in groups(program)]
    lines = [
        "#compdef packctl",
        f"# Completes the command line of packctl. {GENERATED}",
        "",
        "_packctl() {",
        "  local -a commands",
        "  local state line context",
        *zsh_commands(entries, "  "),
        "  _arguments -C \\",
        *(f"    {option} \\" for option in zsh_options(program["options"])),
        "    '1:command:->command' \\",
        "    '*::argument:->argument'",
        "  case $state in",
        "    command) _describe command commands ;;",
        "    argument)",
        "      case $words[1] in",
    ]
    for group, commands in groups(program):
        lines += (
            zsh_group(group, commands, " " * 8) if second_words(commands) else [" " * 8 + zsh_case(commands[0], group)]
        )
    lines += ["      esac", "      ;;", "  esac", "}", "", '_packctl "$@"']
    return "\n".join(lines) + "\n"


def run(*command):
    environment = {**os.environ, "COLUMNS": "120", "LC_ALL": "C.UTF-8"}
    return subprocess.run(command, check=True, stdout=subprocess.PIPE, text=True, env=environment).stdout


def main(arguments):
    if len(arguments) != 3 or arguments[0].startswith("-"):
        print(__doc__.strip(), file=sys.stderr)
        return 64
    describe, mkpack, folder = arguments
    program = json.loads(run(describe))
    files = {
        "man/packctl.1.in": packctl_page(program),
        "man/mkpack.1.in": mkpack_page(
            "mkpack",
            "make a codec pack of a folder and publish it",
            ("mkpack-verify", "packctl"),
            run(mkpack, "--help"),
        ),
        "man/mkpack-verify.1.in": mkpack_page(
            "mkpack verify", "verify a published folder", ("mkpack",), run(mkpack, "verify", "--help")
        ),
        "completions/packctl.bash": bash_completion(program),
        "completions/_packctl": zsh_completion(program),
    }
    for name, text in files.items():
        path = pathlib.Path(folder) / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
