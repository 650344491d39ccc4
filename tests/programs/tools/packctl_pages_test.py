#!/usr/bin/python3
"""The man pages and completions in packaging/: made from the programs as they are now, and right in the eyes of the
programs that read them."""

import argparse
import json
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

MKPACK_PAGES = (
    "mkpack.1",
    *(f"mkpack-{command}.1" for command in ("nginx", "rollout", "security", "verify", "withdraw")),
)
PAGES = ("packctl.1", *MKPACK_PAGES, "updater.conf.5", "orbamira-plugin.7")
NO_ENVIRONMENT = ("mkpack-nginx.1", "mkpack-rollout.1", "mkpack-security.1", "mkpack-withdraw.1")
COMPLETIONS = ("packctl.bash", "_packctl", "packctl.fish", "mkpack.bash", "_mkpack", "mkpack.fish")
BY_HAND = {"orbamira-plugin.7"}
HEADINGS = ["NAME", "SYNOPSIS", "DESCRIPTION", "EXAMPLES", "ENVIRONMENT", "FILES", "EXIT STATUS", "SEE ALSO"]


def first_words(program):
    return list(dict.fromkeys(command["name"].split()[0] for command in program["commands"]))


def listed(help_text):
    """The commands that a help names."""
    return [line.split()[0] for line in help_text.split("Subcommands:\n")[1].split("\n\n")[0].splitlines()]


def output(*command, env=None):
    return subprocess.run(command, check=True, capture_output=True, text=True, timeout=600, env=env).stdout


class PagesTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        cls.source = pathlib.Path(cls.arguments.source)
        cls.packaging = cls.source / "packaging"
        cls.program = json.loads(output(cls.arguments.describe))

    def page(self, name):
        return (self.packaging / f"man/{name}.in").read_text()

    def complete(self, *words, program="packctl"):
        """What bash offers for the last of the words."""
        script = """
            source "$1" && shift
            [ "$(complete -p "$1")" = "complete -F _$1 $1" ] || exit 1
            COMP_WORDS=("$@") COMP_CWORD=$(($# - 1))
            "_$1" "$1" "${COMP_WORDS[COMP_CWORD]}" "${COMP_WORDS[COMP_CWORD - 1]}"
            [ "${#COMPREPLY[@]}" = 0 ] || printf '%s\\n' "${COMPREPLY[@]}"
        """
        file = self.packaging / f"completions/{program}.bash.in"
        return output("bash", "--norc", "-euc", script, "bash", file, program, *words).split()

    def test_the_tree_has_what_is_made_now(self):
        names = {f"man/{page}.in" for page in set(PAGES) - BY_HAND} | {f"completions/{name}.in" for name in COMPLETIONS}
        with tempfile.TemporaryDirectory() as folder:
            subprocess.run(
                [self.packaging / "generate.py", self.arguments.describe, self.source / "tools/mkpack/mkpack", folder],
                check=True,
            )
            made = {str(path.relative_to(folder)) for path in pathlib.Path(folder).rglob("*.in")}
            self.assertEqual(names, made)
            for name in names:
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
        page = self.page("packctl.1").replace("\\-", "-")
        for command in self.program["commands"]:
            self.assertIn(f".SS\n\\fB{command['name']}\\fR", page)
            for option in command["options"]:
                self.assertIn(f"\\fB{option['names'][-1]}\\fR", page)

    def test_every_page_has_what_a_reader_looks_for(self):
        for name in PAGES:
            headings = re.findall(r"^\.SH (.+)$", self.page(name), flags=re.MULTILINE)
            wanted = [heading for heading in HEADINGS if name not in NO_ENVIRONMENT or heading != "ENVIRONMENT"]
            self.assertEqual(wanted, [heading for heading in headings if heading in HEADINGS], name)
            for heading in headings:
                self.assertRegex(self.page(name), rf"\.SH {heading}\n[^\n]*\n", name)

    def test_pages_refer_to_pages_that_there_are(self):
        ours = {tuple(page.rsplit(".", 1)) for page in PAGES}
        for name in PAGES:
            found = set(re.findall(r"^\.BR (\S+) \((\d)\)", self.page(name).replace("\\-", "-"), flags=re.MULTILINE))
            self.assertTrue(found)
            self.assertEqual(set(), found - ours, name)

    def test_the_settings_page_and_the_makers_file_have_every_key_and_default(self):
        makers = dict(
            re.findall(r'^(\w+)="(.*)"$', (self.packaging / "updater.conf.in").read_text(), flags=re.MULTILINE)
        )
        self.assertEqual({setting["key"]: setting["default"] for setting in self.program["settings"]}, makers)
        page = self.page("updater.conf.5")
        for setting in self.program["settings"]:
            self.assertRegex(
                page, rf"\.TP\n\\fB{setting['key']}\\fR\n.*Value: .*Default: {setting['default'] or 'none'}\."
            )
            self.assertIn(setting["example"].replace("-", r"\-"), page)
            self.assertTrue(setting["example"].startswith(f'{setting["key"]}="'))

    def test_the_plugin_of_the_page_does_what_the_page_says(self):
        script = self.page("orbamira-plugin.7").split("#!/bin/sh\n")[1].split(".fi\n")[0].replace("\\-", "-")
        step = ["--event", "uninstall", "--package", "p", "--timing", "pre", "--version", "1", "--status", "UPGRADE"]
        self.assertEqual("com.example.player\n", output("sh", "-euc", script, "plugin", "--app-id"))
        self.assertEqual("closing the decoder\n", output("sh", "-euc", script, "plugin", *step))
        step[5] = "post"
        self.assertEqual("", output("sh", "-euc", script, "plugin", *step))
        step[1] = "install"
        self.assertEqual("opening the decoder\n", output("sh", "-euc", script, "plugin", *step))
        step[5] = "pre"
        self.assertEqual("", output("sh", "-euc", script, "plugin", *step))

    def test_groff_and_mandoc_find_nothing_wrong_with_the_pages(self):
        for name in PAGES:
            for command in (["groff", "-man", "-ww", "-Tutf8", "-z"], ["mandoc", "-Tlint", "-W", "warning"]):
                if shutil.which(command[0]) is None:
                    continue  # there is nobody to ask
                done = subprocess.run(
                    [*command, self.packaging / f"man/{name}.in"], capture_output=True, text=True, check=False
                )
                # The same sources give the same page on every day.
                faults = [line for line in (done.stdout + done.stderr).splitlines() if "missing date" not in line]
                self.assertEqual([], faults)

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
        self.assertEqual(self.complete("help", "account", "sign-o"), ["sign-out"])
        self.assertEqual(self.complete("help", "history", ""), [])
        self.assertEqual(self.complete("account", "dance", ""), [])
        self.assertEqual(self.complete("dance", ""), [])
        self.assertEqual(self.complete("none_such"), [])

    def test_bash_completes_what_options_take(self):
        folder = self.enterContext(tempfile.TemporaryDirectory())
        (pathlib.Path(folder) / "key.pem").touch()
        (pathlib.Path(folder) / "packs").mkdir()
        self.assertEqual(self.complete("web", "--token-file", f"{folder}/k"), [f"{folder}/key.pem"])
        self.assertEqual(self.complete("check", "--color", "a"), ["auto", "always"])
        for when in self.complete("--color", ""):
            output(self.arguments.packctl, "--color", when, "help")

        def mkpack(*words):
            return self.complete(*words, program="mkpack")

        self.assertEqual(mkpack("v"), ["verify"])
        self.assertEqual(mkpack("--o"), ["--output"])
        self.assertEqual(mkpack("--payload", "verify", "--allow"), ["--allow-older"])
        self.assertEqual(mkpack("--codec", ""), ["hevc", "aac"])
        self.assertEqual(mkpack("--output", f"{folder}/"), [f"{folder}/packs"])
        self.assertEqual(mkpack("--sign-key", f"{folder}/k"), [f"{folder}/key.pem"])
        self.assertEqual(mkpack("--title", ""), [])
        self.assertEqual(mkpack("verify", "--k"), ["--keyring"])
        self.assertEqual(mkpack("verify", f"{folder}/"), [f"{folder}/packs"])

    def zsh(self, file, setting):
        """What zsh is asked to offer, with its helpers in place of themselves. The second time that arguments are asked
        for, the first word is done with."""
        script = """
            _arguments() { print -rl -- arguments "$@"; state=$wanted; (( ++calls < 2 )) || words=($second) }
            _describe() { print -rl -- commands "${(@P)2}" }
            source "$0"
        """
        shown = output("zsh", "-fc", setting + script, self.packaging / f"completions/{file}.in")
        return [part.splitlines() for part in re.split(r"^(?:arguments|commands)\n", shown, flags=re.MULTILINE)[1:]]

    def test_zsh_understands_its_completions(self):
        if shutil.which("zsh") is None:
            return  # there is nobody to ask
        summaries = {c["name"]: c["summary"] for c in self.program["commands"]} | self.program["groups"]
        offered = self.zsh("_packctl", "wanted=command")
        self.assertEqual(offered[1], [f"{word}:{summaries[word]}" for word in first_words(self.program)])
        for command in self.program["commands"]:
            count = sum(len(option["names"]) for option in command["options"]) + ("argument" in command)
            first, *second = command["name"].split()
            offered = self.zsh("_packctl", f"wanted=argument words=({first}) second={' '.join(second)}")
            self.assertEqual(len(offered), 2 + len(second))
            self.assertEqual(len(offered[-1]), count)
        commands = self.zsh("_mkpack", "wanted=command")[1]
        self.assertEqual(
            [line.partition(":")[0] for line in commands], "publish rollout withdraw security verify nginx".split()
        )
        takes = dict(
            re.match(r"(?:\(.*\))?([^[]*)\[.*\](.*)", line).groups() for line in self.zsh("_mkpack", "")[0][1:-2]
        )
        self.assertEqual((takes["--codec"], takes["--output"]), (":WORD:(hevc aac)", ":DIR:_files -/"))
        self.assertEqual((takes["--sign-key"], takes["--allow-older"]), (":KEY:_files", ""))
        self.assertIn("1:FOLDER:_files -/", self.zsh("_mkpack", "wanted=argument words=(verify)")[1])
        rollout = self.zsh("_mkpack", "wanted=argument words=(rollout)")[1]
        self.assertEqual([line[0] for line in rollout[-3:]], ["1", "2", "3"])

    def fish(self, *lines):
        """What fish offers for each of the lines, the explanations left out."""
        script = "source $argv[1]; for line in $argv[2..]; echo :; complete -C $line; end"
        file = self.packaging / f"completions/{lines[0].split()[0]}.fish.in"
        environment = {**os.environ, "HOME": self.enterContext(tempfile.TemporaryDirectory())}
        shown = output("fish", "--no-config", "-c", script, file, *lines, env=environment)
        return [[line.split("\t")[0] for line in part.splitlines()] for part in shown.split(":\n")[1:]]

    def test_fish_understands_its_completions(self):
        if shutil.which("fish") is None:
            return  # there is nobody to ask
        words = sorted(first_words(self.program))
        offered = self.fish("packctl ", "packctl help ", "packctl --json history --l", "packctl --color n")
        self.assertEqual([sorted(offered[0]), sorted(offered[1]), *offered[2:]], [words, words, ["--limit"], ["never"]])
        for line in ("packctl account ", "packctl help account "):
            self.assertEqual(self.fish(line)[0], ["sign-in", "sign-out", "status"])
        for command in self.program["commands"]:
            names = sorted(option["names"][-1] for option in command["options"])
            self.assertEqual(self.fish(f"packctl {command['name']} --")[0], names, command["name"])
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        (folder / "key.pem").touch()
        self.assertEqual(self.fish(f"mkpack --sign-key {folder}/k"), [[f"{folder}/key.pem"]])
        self.assertEqual(self.fish(f"mkpack --output {folder}/k"), [[]])
        self.assertEqual(
            self.fish("mkpack v", "mkpack --payload verify --allow", "mkpack --codec h", "mkpack verify --k"),
            [["verify"], ["--allow-older"], ["hevc"], ["--keyring"]],
        )


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    for name in ("--source", "--describe", "--packctl"):
        parser.add_argument(name, required=True)
    PagesTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
