#!/usr/bin/python3
"""The man pages and completions in packaging/: made from the programs as they are now, and right in the eyes of the
programs that read them."""

import argparse
import json
import pathlib
import shutil
import subprocess
import sys
import tempfile
import unittest

NAMES = (
    "man/packctl.1.in",
    "man/mkpack.1.in",
    "man/mkpack-verify.1.in",
    "completions/packctl.bash",
    "completions/_packctl",
)


def first_words(program):
    return list(dict.fromkeys(command["name"].split()[0] for command in program["commands"]))


def listed(help_text):
    """The commands that a help names."""
    return [line.split()[0] for line in help_text.split("Subcommands:\n")[1].split("\n\n")[0].splitlines()]


def output(*command):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=600).stdout


class PagesTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        cls.source = pathlib.Path(cls.arguments.source)
        cls.packaging = cls.source / "packaging"
        cls.program = json.loads(output(cls.arguments.describe))

    def complete(self, *words):
        """What bash offers for the last of the words."""
        script = """
            source "$1" && shift
            [ "$(complete -p packctl)" = 'complete -F _packctl packctl' ] || exit 1
            COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
            _packctl packctl "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
            [ "${#COMPREPLY[@]}" = 0 ] || printf '%s\\n' "${COMPREPLY[@]}"
        """
        file = self.packaging / "completions/packctl.bash"
        return output("bash", "--norc", "-euc", script, "bash", file, "packctl", *words).split()

    def test_the_tree_has_what_is_made_now(self):
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(
                [self.packaging / "generate.py", self.arguments.describe, self.source / "tools/mkpack/mkpack", folder],
                check=True,
            )
            for name in NAMES:
                self.assertEqual(
                    (self.packaging / name).read_text(),
                    (pathlib.Path(folder) / name).read_text(),
                    f"packaging/{name} is out of date: run packaging/generate.py",
                )

    def test_what_packctl_says_of_itself_is_what_it_takes(self):
        taken = listed(output(self.arguments.packctl, "--help"))
        self.assertEqual(first_words(self.program), taken)
        for group in self.program["groups"]:
            self.assertEqual(
                [c["name"] for c in self.program["commands"] if c["name"].split()[0] == group],
                [f"{group} {name}" for name in listed(output(self.arguments.packctl, group, "--help"))],
            )
        for command in [None, *self.program["commands"]]:
            arguments = command["name"].split() if command else []
            shown = output(self.arguments.packctl, *arguments, "--help").split("Options:\n")[1].split("\n\n")[0]
            taken = [line.split()[0].split(",") for line in shown.splitlines()]
            self.assertEqual(taken, [option["names"] for option in (command or self.program)["options"]])

    def test_the_pages_name_every_command_and_option(self):
        page = (self.packaging / "man/packctl.1.in").read_text().replace("\\-", "-")
        for command in self.program["commands"]:
            self.assertIn(f".SS\n\\fB{command['name']}\\fR", page)
            for option in command["options"]:
                self.assertIn(f"\\fB{option['names'][-1]}\\fR", page)

    def test_groff_finds_nothing_wrong_with_the_pages(self):
        for name in NAMES[:3]:
            done = subprocess.run(
                ["groff", "-man", "-ww", "-Tutf8", "-z", self.packaging / name],
                capture_output=True,
                text=True,
                check=False,
            )
            self.assertEqual((done.returncode, done.stderr), (0, ""), name)

    def test_bash_completes_commands_and_options(self):
        self.assertEqual(
            self.complete(""), first_words(self.program) + ["-h", "--help", "-V", "--version", "--json", "--color"]
        )
        self.assertEqual(self.complete("st"), ["status"])
        self.assertEqual(self.complete("--json", "re"), ["remove", "recover"])
        self.assertEqual(self.complete("--v"), ["--version"])
        for command in self.program["commands"]:
            names = [name for option in command["options"] for name in option["names"]]
            words = first_words(self.program) if command["name"] == "help" else []
            self.assertEqual(self.complete(*command["name"].split(), ""), words + names)
        self.assertEqual(self.complete("status", "--json", "--w"), ["--watch"])
        self.assertEqual(self.complete("history", "--limit", ""), [])
        self.assertEqual(self.complete("history", "--limit", "5", "--j"), ["--json"])
        self.assertEqual(self.complete("account", ""), ["sign-in", "sign-out", "status", "-h", "--help"])
        self.assertEqual(self.complete("account", "sign-o"), ["sign-out"])
        self.assertEqual(self.complete("account", "sign-in", "--issuer", ""), [])
        self.assertEqual(self.complete("account", "sign-in", "--issuer", "x", "--r"), ["--replace"])
        self.assertEqual(self.complete("help", "hi"), ["history"])
        self.assertEqual(self.complete("account", "dance", ""), [])
        self.assertEqual(self.complete("dance", ""), [])
        self.assertEqual(self.complete("none_such"), [])

    def test_zsh_understands_its_completion(self):
        zsh = shutil.which("zsh")
        if zsh is None:
            return  # there is nobody to ask
        file = self.packaging / "completions/_packctl"
        output(zsh, "-n", file)
        # With the helpers of zsh in place of themselves: what they would be asked to offer. The second time that
        # arguments are asked for, the first word is done with.
        script = """
            _arguments() { print -r -- "arguments $#"; state=$wanted; (( ++calls < 2 )) || words=($second) }
            _describe() { print -rl -- "${(@P)2}" }
            source "$0"
        """
        offered = output(zsh, "-fc", "wanted=command" + script, file).splitlines()
        summaries = {c["name"]: c["summary"] for c in self.program["commands"]} | self.program["groups"]
        self.assertEqual(offered[1:], [f"{word}:{summaries[word]}" for word in first_words(self.program)])
        for command in self.program["commands"]:
            count = sum(len(option["names"]) for option in command["options"]) + ("argument" in command)
            first, *second = command["name"].split()
            words = f"wanted=argument words=({first}) second={' '.join(second)}"
            offered = output(zsh, "-fc", words + script, file).splitlines()
            self.assertEqual(len(offered), 2 + len(second))
            self.assertEqual(offered[-1], f"arguments {count}")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("--source", "--describe", "--packctl"):
        parser.add_argument(name, required=True)
    PagesTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
