"""Completions for bash."""

from reference import GENERATED
from reference.programs import first_words, groups, names, names_with, second_words, takes_file, takes_folder


def _quoted(name):
    return f"'{name}'" if " " in name else name


def _case(patterns, action, depth="    "):
    return [f"{depth}{' | '.join(patterns)}) {action} ;;"] if patterns else []


def _values(program):
    """What may come after an option that takes a value."""
    chosen = {}
    for command in [program, *program["commands"]]:
        for option in command["options"]:
            if option.get("choices"):
                chosen.setdefault(" ".join(option["choices"]), set()).update(option["names"])
    offered = [
        line
        for words, options in chosen.items()
        for line in _case(sorted(options), f"_{program['name']}_offer -W '{words}'; return")
    ]
    files = names_with(program, takes_file)
    folders = names_with(program, takes_folder)
    others = names_with(program, lambda o: not (o.get("choices") or takes_file(o) or takes_folder(o)))
    return [
        *offered,
        *_case(files, f"_{program['name']}_offer -f; return"),
        *_case(folders, f"_{program['name']}_offer -d; return"),
        *_case(others, "return"),
    ]


def _after(command, program):
    """The case of a command, with what may come after it."""
    offer = f"_{program['name']}_offer"
    words = " ".join(names(command["options"]))
    if command.get("argument") == "COMMAND":
        words = " ".join([word for word, _ in first_words(program)] + [words])
    first = (command.get("arguments") or [{}])[0]
    words = " ".join([*first.get("choices", []), words])
    folders = f"; {offer} -d" if command.get("argument") == "FOLDER" else ""
    return f"    {_quoted(command['name'])}) {offer} -W '{words}'{folders} ;;"


def completion(program):
    name = program["name"]
    offer = f"_{name}_offer"
    families = [group for group, commands in groups(program) if second_words(commands)]
    helps = [command["name"] for command in program["commands"] if command.get("argument") == "COMMAND"]
    values = names_with(program, lambda option: True)
    lines = [
        "# shellcheck shell=bash",
        f"# Completes the command line of {name}. {GENERATED}",
        "",
        "# Offers what compgen makes of its arguments.",
        f"{offer}() {{",
        "  local found",
        '  case $1 in -f | -d) compopt -o filenames 2> /dev/null || : ;; esac',
        '  mapfile -t found < <(compgen "$@" -- "${COMP_WORDS[COMP_CWORD]}")',
        '  COMPREPLY+=("${found[@]}")',
        "}",
        "",
        f"_{name}() {{",
        "  local word value='' command=''",
        "  COMPREPLY=()",
        '  for word in "${COMP_WORDS[@]:1:COMP_CWORD-1}"; do',
        '    if [ -n "$value" ]; then',
        "      value=''",
        "      continue",
        "    fi",
        "    case $word in",
        f"      {' | '.join(values)})",
        "        value=yes",
        "        continue",
        "        ;;",
        "      -*) continue ;;",
        "    esac",
        "    command+=${command:+ }$word",
        "    case $command in",
        *_case(families + helps, ":", "      "),
        "      *) break ;;",
        "    esac",
        "  done",
        "  case ${COMP_WORDS[COMP_CWORD - 1]} in",
        *_values(program),
        "  esac",
        "  case $command in",
        f"    '') {offer} -W '{' '.join([word for word, _ in first_words(program)] + names(program['options']))}' ;;",
        *(
            f"    {group}) {offer} -W '{' '.join([word for word, _ in second_words(commands)] + ['-h', '--help'])}' ;;"
            for group, commands in groups(program)
            if second_words(commands)
        ),
        *(
            f"    '{asked} {group}') {offer} -W '{' '.join(word for word, _ in second_words(commands))}' ;;"
            for asked in helps
            for group, commands in groups(program)
            if second_words(commands)
        ),
        *(_after(command, program) for command in program["commands"]),
        "  esac",
        "}",
        f"complete -F _{name} {name}",
    ]
    return "\n".join(lines) + "\n"
