#!/usr/bin/python3
"""Writes the manual pages and completions, from what the programs themselves take.

usage: generate.py PACKCTL_DESCRIBE MKPACK FOLDER

PACKCTL_DESCRIBE is the program tools/packctl/packctl_describe of a build, MKPACK the one of the sources, in which names
of packs are still @VARIABLES@. FOLDER, which is packaging/ itself, gets the pages in man/ and the completions in
completions/. They are kept in the tree, so that installing takes no program to be run; a test fails as
soon as they differ from what this writes. Only orbamira-plugin(7) is written by hand: no program has its contents.
"""

import pathlib
import sys

sys.dont_write_bytecode = True

from reference import bash, fish, pages, programs, zsh  # noqa: E402

SHELLS = ((bash, "{}.bash"), (zsh, "_{}"), (fish, "{}.fish"))


def pages_of(packctl, mkpack):
    commands = [command for command in mkpack["commands"] if command["name"] != "publish"]
    others = [(f"mkpack-{command['name']}", 1) for command in commands]
    return {
        "packctl.1": pages.packctl(packctl),
        "mkpack.1": pages.of_mkpack("mkpack", mkpack, *others, ("packctl", 1)),
        **{
            f"mkpack-{command['name']}.1": pages.of_mkpack(f"mkpack-{command['name']}", command, ("mkpack", 1))
            for command in commands
        },
        "updater.conf.5": pages.updater_conf(packctl["settings"]),
    }


def main(arguments):
    if len(arguments) != 3 or arguments[0].startswith("-"):
        print(__doc__.strip(), file=sys.stderr)
        return 64
    describe, mkpack, folder = arguments
    known = [programs.packctl(describe), programs.mkpack(mkpack)]
    files = {f"man/{name}.in": pages.text(page) for name, page in pages_of(*known).items()}
    for shell, name in SHELLS:
        files |= {f"completions/{name.format(p['name'])}.in": shell.completion(p) for p in known}
    for name, text in files.items():
        path = pathlib.Path(folder) / name
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_text(text, encoding="utf-8")
    return 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
