"""Manual pages."""

import re

from reference import GENERATED

MANUALS = {1: "User Commands", 5: "File Formats", 7: "Miscellanea"}

# The build puts the folders and names of platform/paths.h in.
SETTINGS = "@ORBAMIRA_SETTINGS_FOLDER@/updater.conf"
MAKERS_SETTINGS = "@ORBAMIRA_DATA_FOLDER@/updater.conf"
ROOT = ("ORBAMIRA_ROOT", "stands in front of every path, for example of a staged system")

PACKCTL_FILES = (
    (SETTINGS, f"The machine's settings, which win over those of the maker in {MAKERS_SETTINGS}; see updater.conf(5)."),
    ("@ORBAMIRA_SETTINGS_FOLDER@/account.json", "The account that is signed in, and its tokens; for root alone."),
    (
        "@ORBAMIRA_SETTINGS_FOLDER@/keyring.pem",
        "The certificates that packages must be signed by. Where there is none, unsigned packages are accepted.",
    ),
    ("@ORBAMIRA_PLUGINS_FOLDER@", "The programs that are told of installs; see orbamira-plugin(7)."),
    (
        "@ORBAMIRA_HEALTH_FOLDER@",
        "The programs that judge a new pack. Each is run with the pack's folder, and rejects it unless it ends with 0.",
    ),
    ("@ORBAMIRA_PACKS_FOLDER@/@ORBAMIRA_PACK_FOLDER_NAME@", "The installed pack."),
    ("@ORBAMIRA_STATE_FOLDER@/status.json", "The recorded status."),
    ("@ORBAMIRA_STATE_FOLDER@/health.json", "The versions that are rejected."),
    ("@ORBAMIRA_STATE_FOLDER@/history.jsonl", "The history, one JSON object a line; an older part in history.jsonl.1."),
    ("@ORBAMIRA_CACHE_FOLDER@/checked", "Its time is that of the update server's last answer to a check."),
    ("@ORBAMIRA_DATA_FOLDER@/packctl.schema.json", "The JSON Schema of what is printed with --json."),
    ("@ORBAMIRA_DATA_FOLDER@/web", 'The page of "packctl web".'),
    ("@ORBAMIRA_RUN_FOLDER@/lock", "The lock files. Whoever can open them can hold up an update."),
)


def roff(text):
    """`text` as it is, for the body of a page."""
    text = text.replace("\\", "\\e").replace("-", "\\-").replace("'", "\\(aq").replace("`", "\\(ga")
    return re.sub(r"^\.", r"\\&.", text, flags=re.MULTILINE)


def sentence(text):
    text = text[0].upper() + text[1:]
    return text if text.endswith((".", "?", "!")) else text + "."


def head(name, section, summary):
    return [
        f'.\\" {GENERATED}',
        f'.TH {name.upper()} {section} "" Orbamira "{MANUALS[section]}"',
        ".SH NAME",
        f"{roff(name)} \\- {roff(summary[0].lower() + summary[1:].rstrip('.'))}",
    ]


def entry(term, text):
    return [".TP", term, roff(text)]


def italic(text):
    return f"\\fI{roff(text)}\\fR"


def bold(text):
    return f"\\fB{roff(text)}\\fR"


def verbatim(rows):
    return [".PP", ".nf", *(roff(row) for row in rows), ".fi"]


def text(page):
    """The page's lines as its file has them. A heading begins a paragraph by itself."""
    kept = [line for before, line in zip(["", *page], page) if line != ".PP" or not before.startswith((".SH", ".SS"))]
    return "\n".join(kept) + "\n"


def see_also(*pages):
    return [
        ".SH SEE ALSO",
        ",\n".join(f".BR {roff(name)} ({section})" for name, section in pages).replace(",\n", " ,\n"),
    ]


def option_term(option):
    return ", ".join(map(bold, option["names"])) + (f" {italic(option['value'])}" if option["value"] else "")


def option_entries(options):
    return [
        line
        for option in options
        for line in entry(
            option_term(option),
            sentence(option["help"]) + (f" One of: {', '.join(option['choices'])}." if option.get("choices") else ""),
        )
    ]


def paragraphs(text):
    """Help text in lines, as paragraphs: a line that begins a sentence of its own kind begins a new one."""
    lines = []
    for line in text.splitlines():
        if lines and line and not re.match(r"(Exit status|Example|With --)", line):
            lines[-1] += " " + line
        else:
            lines.append(line)
    return [line.strip() for line in lines if line.strip()]


def prose(texts):
    return [line for text in texts for line in (".PP", roff(text))]


def packctl(program):
    everywhere = [option["names"] for option in program["options"]]
    page = [
        *head("packctl", 1, program["summary"]),
        ".SH SYNOPSIS",
        ".B packctl",
        "[\\fIOPTION\\fR...] \\fICOMMAND\\fR [\\fIOPTION\\fR...]",
        ".SH DESCRIPTION",
        roff(program["summary"]),
        *prose(program["notes"].splitlines()),
        ".SH OPTIONS",
        *option_entries(program["options"]),
        ".SH COMMANDS",
    ]
    for command in program["commands"]:
        own = [option for option in command["options"] if option["names"] not in everywhere]
        takes = "".join(f" [{option_term(option)}]" for option in own)
        if "argument" in command:
            takes += f" [{italic(command['argument'])}]"
        page += [".SS", bold(command["name"]) + takes, roff(sentence(command["summary"]))]
        page += prose(paragraphs(command["details"])) + option_entries(own)
    page.append(".SH EXAMPLES")
    for example in program["examples"]:
        page += [*prose([example["meaning"]]), *verbatim(["    " + example["term"]])]
    for heading, terms in (("ENVIRONMENT", program["environment"]), ("EXIT STATUS", program["exit_statuses"])):
        page.append(f".SH {heading}")
        page += [line for term in terms for line in entry(bold(term["term"]), sentence(term["meaning"]))]
        if heading == "ENVIRONMENT":
            page.append(".SH FILES")
            page += [line for path, meaning in PACKCTL_FILES for line in entry(italic(path), meaning)]
    return page + see_also(("updater.conf", 5), ("orbamira-plugin", 7), ("mkpack", 1))


def block(rows):
    """A block of help text: two columns become entries, prose is filled, and what a reader would type stays."""
    depth = min(len(row) - len(row.lstrip()) for row in rows)
    rows = [row[depth:] for row in rows]
    begin = (
        r"openssl cms |mkpack -|mkpack (verify|rollout|withdraw|security|nginx) [/@o-]|location = |pack_update_server="
    )
    if any(re.match(begin, row) for row in rows):
        typed = [row for row in rows if re.match(begin + "|   ", row)]
        told = [row for row in rows if row not in typed]
        return [*([".PP", *map(roff, told)] if told else []), *verbatim(["    " + row for row in typed])]
    if all(re.match(r"\S.*?  |   ", row) for row in rows):
        entries = []
        for row in rows:
            term, text = re.match(r"(?:(\S.*?)  |) *(.*)", row).groups()
            if term:
                entries.append([term, text])
            else:
                entries[-1][1] += " " + text
        return [line for term, text in entries for line in entry(italic(term), sentence(text))]
    return [".PP", *map(roff, rows)]


def sections(epilog):
    """The sections of a help text after its options."""
    for section in re.split(r"\n(?=\S)", epilog.rstrip()):
        heading, *lines = section.splitlines()
        blocks = re.split(r"\n\s*\n", "\n".join(lines).strip("\n"))
        yield f".SH {heading.upper()}"
        yield from (line for rows in blocks for line in block(rows.splitlines()))


def argument_text(argument):
    return sentence(argument["help"]) + (f" One of: {', '.join(argument['choices'])}." if argument["choices"] else "")


def synopsis(command):
    """The options that must be given, and a word for the others."""
    taken = [option_term(option) for option in command["options"] if option["required"]]
    argument = [italic(command["argument"])] if "argument" in command else []
    return " ".join([*taken, "[\\fIOPTION\\fR...]", *argument])


def of_mkpack(name, command, *others):
    """The page of mkpack, or of a command of its own."""
    return [
        *head(name, 1, command["summary"]),
        ".SH SYNOPSIS",
        f".B {roff(name.replace('-', ' '))}",
        synopsis(command),
        ".SH DESCRIPTION",
        roff(command["description"].rstrip()),
        ".SH OPTIONS",
        *(line for each in command["arguments"] for line in entry(italic(each["name"]), argument_text(each))),
        *option_entries(command["options"]),
        *sections(command["epilog"]),
        *see_also(*others),
    ]


def updater_conf(settings):
    page = [
        *head("updater.conf", 5, "settings of the codec pack updater"),
        ".SH SYNOPSIS",
        italic(SETTINGS),
        ".br",
        italic(MAKERS_SETTINGS),
        ".SH DESCRIPTION",
        roff("The first file is the machine's own, and its owner changes it. The second is the maker's."),
        roff("A key that is missing or empty in the first is read from the second, and if it is missing there too,"),
        roff("its default holds. The updater reads both whenever it works, so nothing has to be restarted."),
        *prose(['A line is KEY="VALUE". Blanks around key and value and the quotes may be left out.']),
        roff("Of several lines with the same key the first counts. Lines that begin with # are comments."),
        roff("A file that others than root may write is ignored, and the log says why."),
        ".SH SETTINGS",
    ]
    for setting in settings:
        default = setting["default"] or "none"
        page += entry(bold(setting["key"]), f"{setting['meaning']} Value: {setting['value']}. Default: {default}.")
        page += [".IP", f"Example: {roff(setting['example'])}"]
    page += [".SH EXAMPLES", roff("Take packs from a server of your own, of at most a gibibyte:")]
    page += verbatim(["    # Ours, since the move."] + ["    " + setting["example"] for setting in settings[:2]])
    page += [roff("See whether all of it is understood:"), *verbatim(["    sudo packctl doctor"])]
    page += [".SH ENVIRONMENT", *entry(bold(ROOT[0]), sentence(ROOT[1])), ".SH FILES"]
    page += [*entry(italic(SETTINGS), "The machine's settings."), *entry(italic(MAKERS_SETTINGS), "The maker's.")]
    page += [
        ".SH EXIT STATUS",
        roff('A setting that cannot be used ends "packctl doctor" with 1; the doctor names the'),
    ]
    page += [roff("line and what to write there. It ends with 0 if nothing is wrong.")]
    return page + see_also(("packctl", 1), ("orbamira-plugin", 7))
