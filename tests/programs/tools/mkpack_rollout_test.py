"""mkpack publish --rollout, --channel and --security, mkpack rollout, withdraw and security: who is offered what."""

import fcntl
import itertools
import json
import os
import shutil
import subprocess
import sys
import unittest

from verify_test_case import AAC, BASE, HANG, HEVC, MKPACK, VerifyTest

sys.path.insert(0, str(MKPACK.parent))
sys.dont_write_bytecode = True
from orbamira_mkpack import reply, reply_file  # noqa: E402


class RolloutTest(VerifyTest):
    def run_mkpack(self, *words, **more):
        return subprocess.run([MKPACK, *words], capture_output=True, text=True, timeout=HANG, check=False, **more)

    def work(self, *words):
        """What a command that succeeds prints; what it leaves is well."""
        done = self.run_mkpack(*words, "--output", self.folder)
        self.assertEqual((0, ""), (done.returncode, done.stderr))
        self.assert_well("--base-url", BASE)
        return done.stdout

    def rollout(self, version, percent, *options, name=HEVC):
        return self.work("rollout", name, version, percent, *options)

    def withdraw(self, version, name=HEVC):
        return self.work("withdraw", name, version)

    def assert_fails(self, message, *words, status=1):
        """Nothing changes, and the error is the one line `message`."""
        before = self.files()
        done = self.run_mkpack(*words)
        self.assertEqual((status, "", message + "\n"), (done.returncode, done.stdout, done.stderr))
        self.assertEqual(before, self.files())

    def refuses_publishing(self, message, version, *options, name=HEVC):
        required = ["--payload", self.payload, "--output", self.folder, "--name", name, "--title", "Decoder"]
        self.assert_fails(
            f"mkpack: {message}", "publish", *required, "--base-url", BASE, "--version", version, *options
        )

    def refuses(self, message, command, *words, status=1):
        end = "" if status == 1 else f' Run "mkpack {command} --help" for help.'
        words = [command, *words, "--output", self.folder]
        self.assert_fails(f"mkpack {command}: {message}{end}", *words, status=status)

    def files(self):
        return {path.name: path.read_bytes() for path in self.folder.glob("*") if path.is_file()}

    def offers(self, file="reply.json", name=HEVC):
        """The releases in a reply: everyone's version, and with share and channel those that some are offered."""
        pack = json.loads((self.folder / file).read_text())[name]
        staged = [(each["version"], each.get("rollout"), each.get("channel")) for each in pack.get("staged", [])]
        return pack["version"], staged

    def kept(self):
        """The versions that withdrawing brings back, and those that were withdrawn."""
        pack = self.members()[HEVC]
        return [each["version"] for each in pack.get("former", [])], pack.get("withdrawn", [])

    def replies(self):
        return sorted(path.name for path in self.folder.glob("reply*"))


class ShareTest(RolloutTest):
    def test_staged_release_stands_beside_the_one_for_everyone(self):
        self.publish(HEVC, "1.1")
        before = self.members()[HEVC]
        package = self.publish(HEVC, "1.2", "--rollout", "5%")
        pack = self.members()[HEVC]
        (staged,) = pack.pop("staged")
        self.assertEqual(before, pack)
        self.assertEqual(("1.2", 5, f"{BASE}/{package.name}"), (staged["version"], staged["rollout"], staged["link"]))
        self.assert_well("--base-url", BASE)

    def test_share_grows_until_the_release_is_for_everyone(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        words = self.rollout("1.2", "12.5%")
        self.assertEqual(
            f"release   {HEVC} 1.2\nshare     12.5%\nothers    1.1\nreply     {self.folder}/reply.json\n", words
        )
        self.assertEqual(("1.1", [("1.2", 12.5, None)]), self.offers())
        self.rollout("1.2", "100")
        self.assertEqual(("1.2", []), self.offers())
        self.assertEqual((["1.1"], []), self.kept())
        self.assertEqual(["reply.json"], self.replies())

    def test_share_that_shrinks_is_refused(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "25%")
        self.refuses(
            f"{HEVC} 1.2 is offered to 25 % already, and appliances that have it keep it. Give a higher share, or add "
            "--allow-smaller.",
            *("rollout", HEVC, "1.2", "24.99%"),
        )
        self.rollout("1.2", "25%")
        self.rollout("1.2", "1%", "--allow-smaller")
        self.assertEqual(("1.1", [("1.2", 1, None)]), self.offers())
        self.rollout("1.2", "100%")
        self.refuses(
            f"{HEVC} 1.2 is offered to 100 % already, and appliances that have it keep it. Give a higher share, or add "
            "--allow-smaller.",
            *("rollout", HEVC, "1.2", "50%"),
        )
        self.rollout("1.2", "50%", "--allow-smaller")
        self.assertEqual(("1.1", [("1.2", 50, None)]), self.offers())

    def test_same_release_may_be_published_again_for_no_smaller_share(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "25%")
        (self.payload / "more").write_bytes(b"more")
        self.refuses_publishing(
            f"{HEVC} 1.2 is offered to 25 % already, and appliances that have it keep it. Give that --rollout or a "
            "higher one.",
            *("1.2", "--rollout", "5%"),
        )
        package = self.publish(HEVC, "1.2", "--rollout", "30%")
        self.assertEqual(f"{BASE}/{package.name}", self.members()[HEVC]["staged"][0]["link"])
        self.publish(HEVC, "1.2")
        self.assertEqual(("1.2", []), self.offers())

    def test_first_release_is_for_everyone(self):
        for option in (("--rollout", "5%"), ("--channel", "beta")):
            self.refuses_publishing(
                f"there is no {HEVC} for the appliances that are not to get 1.2. Publish one for everyone first, "
                "without --rollout and --channel.",
                *("1.2", *option),
            )
        self.publish(HEVC, "1.2", "--rollout", "100%")
        self.assertEqual(("1.2", []), self.offers())

    def test_second_staged_release_is_refused(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        self.refuses_publishing(
            f"{HEVC} 1.2 is still offered to 5 % of the appliances. Raise that to 100% with mkpack rollout, or take "
            "1.2 back with mkpack withdraw.",
            *("1.3", "--rollout", "5%"),
        )
        self.publish(HEVC, "1.1.1")
        self.assertEqual(("1.1.1", [("1.2", 5, None)]), self.offers())
        self.publish(HEVC, "1.3")
        self.assertEqual(("1.3", []), self.offers())

    def test_release_that_is_not_newer_cannot_be_staged(self):
        self.publish(HEVC, "1.10")
        for version in ("1.10", "1.10.0"):
            self.refuses_publishing(
                f"{HEVC} 1.10 is offered to all these appliances already. Give a higher --version.",
                *(version, "--rollout", "5%", "--allow-older"),
            )
        self.refuses_publishing(
            f"{HEVC} 1.9 is older than the published 1.10, so appliances that have that one would not install it. "
            "Give a higher --version.",
            *("1.9", "--rollout", "5%", "--allow-older"),
        )

    def test_share_must_be_a_percentage(self):
        self.publish(HEVC, "1.1")
        for text in ("0", "0%", "0.00%", "101%", "100.01%", "-5%", "five", "", "%", "5.125%", "1e1", "5 %", "\u0665%"):
            with self.subTest(text):
                problem = (
                    f"{text!r} is no share: a percentage from 0.01% to 100%, with two decimals at most, such as 5%"
                )
                for argument, words in (
                    ("PERCENT", ["rollout", "--output", self.folder, "--", HEVC, "1.1", text]),
                    ("--rollout", ["publish", f"--rollout={text}"]),
                ):
                    done = self.run_mkpack(*words)
                    self.assertEqual(64, done.returncode)
                    self.assertIn(f"argument {argument}: {problem}", done.stderr)

    def test_unknown_names_and_versions_are_refused(self):
        self.refuses(f"argument --output: {self.folder} is not a folder.", "rollout", HEVC, "1.2", "5%", status=64)
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        known = f"{HEVC} 1.3 is not published, but 1.1 and 1.2. Name a published version."
        self.refuses(known, "rollout", HEVC, "1.3", "5%")
        self.refuses(known, "withdraw", HEVC, "1.3")
        self.refuses(f"{AAC} 1.2 is not published, but none. Name a published version.", "withdraw", AAC, "1.2")
        for command, rest in (("rollout", ["5%"]), ("withdraw", [])):
            self.refuses(
                f"argument NAME: invalid choice: 'pack' (choose from '{HEVC}', '{AAC}').",
                *(command, "pack", "1.2", *rest),
                status=64,
            )

    def test_each_pack_has_its_own_share(self):
        self.publish_both()
        self.publish(HEVC, "1.3", "--rollout", "5%")
        self.publish(AAC, "1.4", "--rollout", "10%")
        self.rollout("1.4", "20%", name=AAC)
        self.assertEqual(("1.2", [("1.3", 5, None)]), self.offers())
        self.assertEqual(("1.2", [("1.4", 20, None)]), self.offers(name=AAC))


class WithdrawTest(RolloutTest):
    def test_staged_release_is_offered_to_nobody_any_more(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        self.assertEqual(
            f"withdrawn {HEVC} 1.2\noffered   1.1\nreply     {self.folder}/reply.json\n", self.withdraw("1.2")
        )
        self.assertEqual(("1.1", []), self.offers())
        self.assertEqual(([], ["1.2"]), self.kept())
        self.assertEqual(["reply.json"], self.replies())

    def test_release_for_everyone_gives_way_to_the_one_before(self):
        self.publish(HEVC, "1.1")
        before = self.members()[HEVC]
        self.publish(HEVC, "1.2")
        self.withdraw("1.2")
        self.assertEqual({**before, "withdrawn": ["1.2"]}, self.members()[HEVC])

    def test_two_in_a_row_can_be_withdrawn(self):
        for version in ("1.0", "1.1", "1.2", "1.3"):
            self.publish(HEVC, version)
        self.assertEqual((["1.2", "1.1"], []), self.kept())
        self.withdraw("1.3")
        self.withdraw("1.2")
        self.assertEqual(("1.1", []), self.offers())
        self.assertEqual(([], ["1.3", "1.2"]), self.kept())
        self.refuses(
            f"there is no release before {HEVC} 1.1 to offer in its place. Publish another one with mkpack publish.",
            *("withdraw", HEVC, "1.1"),
        )

    def test_former_release_can_be_withdrawn_too(self):
        for version in ("1.0", "1.1", "1.2"):
            self.publish(HEVC, version)
        self.withdraw("1.1")
        self.assertEqual((["1.0"], ["1.1"]), self.kept())
        self.assertEqual(("1.2", []), self.offers())

    def test_is_refused_a_second_time(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2")
        self.withdraw("1.2")
        self.refuses(f"{HEVC} 1.2 has been withdrawn already. There is nothing to do.", "withdraw", HEVC, "1.2")
        self.refuses(f"{HEVC} 1.2 is not published, but 1.1. Name a published version.", "rollout", HEVC, "1.2", "5%")

    def test_same_version_is_not_published_again(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2")
        self.withdraw("1.2")
        self.refuses_publishing(
            f"{HEVC} 1.2 was withdrawn, and appliances that have it would not install it again. Give a higher "
            "--version, or add --allow-older.",
            "1.2",
        )
        self.publish(HEVC, "1.2", "--allow-older")
        self.assertEqual((["1.1"], []), self.kept())

    def test_release_whose_package_has_gone_is_not_offered(self):
        self.publish(HEVC, "1.1").unlink()
        self.publish(HEVC, "1.2")
        self.assertEqual(
            [f"the package of {HEVC} 1.1 has gone, so mkpack withdraw cannot bring it back"], self.verify()["notes"][1:]
        )
        self.refuses(
            f"the package of {HEVC} 1.1, which would be offered, is not in {self.folder}. Put it back there, or "
            "publish another release.",
            *("withdraw", HEVC, "1.2"),
        )


class ChannelTest(RolloutTest):
    def test_only_its_appliances_are_offered_the_release(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.assertEqual(("1.1", [("1.2", None, "beta")]), self.offers())
        self.assertEqual(("1.2", []), self.offers("reply@beta.json"))

    def test_newer_release_of_the_channel_takes_the_place_of_the_older(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.publish(HEVC, "1.3", "--channel", "beta")
        self.publish(HEVC, "1.2.1", "--channel", "alpha")
        self.assertEqual(("1.1", [("1.3", None, "beta"), ("1.2.1", None, "alpha")]), self.offers())

    def test_channel_may_have_a_share_of_its_own(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.publish(HEVC, "1.3", "--channel", "beta", "--rollout", "50%")
        self.assertEqual(("1.2", [("1.3", 50, "beta")]), self.offers("reply@beta.json"))
        self.assertEqual(("1.3", []), self.offers(f"reply@beta+{HEVC}-1.3.json"))
        self.assertEqual(
            f"release   {HEVC} 1.3\nchannel   beta\nshare     75%\nothers    1.2\n"
            f"reply     {self.folder}/reply.json\n",
            self.rollout("1.3", "75%"),
        )
        self.rollout("1.3", "100%")
        self.assertEqual(("1.1", [("1.3", None, "beta")]), self.offers())

    def test_release_is_promoted_as_it_was_tested(self):
        self.publish(HEVC, "1.1")
        package = self.publish(HEVC, "1.2", "--channel", "beta")
        self.rollout("1.2", "5%", "--promote")
        self.assertEqual(("1.1", [("1.2", 5, None)]), self.offers())
        self.rollout("1.2", "100%")
        self.assertEqual(("1.2", []), self.offers())
        self.assertEqual(f"{BASE}/{package.name}", self.members()[HEVC]["link"])

    def test_promotion_makes_no_second_staged_release(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        self.publish(HEVC, "1.3", "--channel", "beta")
        self.refuses(
            f"{HEVC} 1.2 is still offered to 5 % of the appliances. Raise that to 100% with mkpack rollout, or take "
            "1.2 back with mkpack withdraw.",
            *("rollout", HEVC, "1.3", "5%", "--promote"),
        )

    def test_channel_that_has_no_release_of_its_own_follows_the_others(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.publish(HEVC, "1.3")
        self.publish(HEVC, "1.4")
        self.assertEqual(("1.4", []), self.offers())
        self.assertEqual(("1.4", []), self.offers("reply@beta.json"))

    def test_name_must_fit_file_names(self):
        for text in ("", "Beta", "a/b", "-a", "a_b", "\u00e4", "a" * 33, "a\n"):
            with self.subTest(text):
                done = self.run_mkpack("publish", f"--channel={text}")
                self.assertEqual(64, done.returncode)
                problem = "is no channel: up to 32 small letters, digits and -, beginning with a letter or digit"
                self.assertIn(f"argument --channel: {text!r} {problem}", done.stderr)


class SecurityTest(RolloutTest):
    def security(self, version, mark, name=HEVC):
        return self.work("security", name, version, mark)

    def marks(self, file="reply.json"):
        """Of each release in a reply, what it says of security."""
        pack = json.loads((self.folder / file).read_text())[HEVC]
        return {each["version"]: each.get("security") for each in (pack, *pack.get("staged", []))}

    def test_release_is_published_with_the_mark(self):
        words = self.run_mkpack(
            *("publish", "--payload", self.payload, "--output", self.folder, "--name", HEVC, "--title", "Decoder"),
            *("--base-url", BASE, "--version", "1.1", "--security"),
        ).stdout
        self.assertIn("\nsecurity  yes\n", words)
        self.assertEqual({"1.1": True}, self.marks())
        self.publish(HEVC, "1.2")
        self.assertEqual({"1.2": None}, self.marks())

    def test_mark_is_set_and_taken_back(self):
        self.publish(HEVC, "1.1")
        before = self.members()
        for mark, found, word in (("on", True, "yes"), ("on", True, "yes"), ("off", None, "no"), ("off", None, "no")):
            self.assertEqual(
                f"release   {HEVC} 1.1\nsecurity  {word}\nreply     {self.folder}/reply.json\n",
                self.security("1.1", mark),
            )
            self.assertEqual({"1.1": found}, self.marks())
        self.assertEqual(before, self.members())

    def test_staged_release_and_the_replies_beside_have_the_mark(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta", "--security")
        self.publish(HEVC, "1.3", "--rollout", "5%")
        self.security("1.3", "on")
        self.assertEqual({"1.1": None, "1.2": True, "1.3": True}, self.marks())
        self.assertEqual({"1.2": True, "1.3": True}, self.marks("reply@beta.json"))
        self.assertEqual({"1.3": True}, self.marks(f"reply+{HEVC}-1.3.json"))
        self.security("1.2", "off")
        self.assertEqual({"1.2": None, "1.3": True}, self.marks("reply@beta.json"))

    def test_mark_goes_with_the_release_to_everyone(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%", "--security")
        self.rollout("1.2", "100%")
        self.assertEqual({"1.2": True}, self.marks())
        self.withdraw("1.2")
        self.assertEqual({"1.1": None}, self.marks())

    def test_what_cannot_be_marked_is_refused(self):
        self.publish(HEVC, "1.1")
        self.refuses(f"{HEVC} 1.2 is not published, but 1.1. Name a published version.", "security", HEVC, "1.2", "on")
        self.refuses(
            "argument MARK: invalid choice: 'yes' (choose from 'on', 'off').",
            *("security", HEVC, "1.1", "yes"),
            status=64,
        )

    def test_verify_finds_a_mark_that_is_none(self):
        self.publish_both()
        self.change(security="yes")
        problem = "its security mark 'yes' is neither true nor false"
        self.assertEqual("run mkpack security for the release", self.assert_finding(HEVC, problem))
        self.security("1.2", "on")


class RepliesBesideTest(RolloutTest):
    def test_each_choice_of_staged_releases_has_its_reply(self):
        self.publish_both()
        self.publish(HEVC, "1.3", "--rollout", "5%")
        self.publish(AAC, "1.4", "--rollout", "5%")
        hevc, aac = f"+{HEVC}-1.3", f"+{AAC}-1.4"
        for file, versions in {"": ("1.2", "1.2"), hevc: ("1.3", "1.2"), aac: ("1.2", "1.4")}.items():
            file = f"reply{file}.json"
            self.assertEqual(versions, (self.offers(file)[0], self.offers(file, AAC)[0]), file)
        both = json.loads((self.folder / f"reply{hevc}{aac}.json").read_text())
        self.assertEqual(("1.3", "1.4"), (both[HEVC]["version"], both[AAC]["version"]))
        self.assertNotIn("rollout", both[HEVC])
        self.assertNotIn("staged", both[HEVC])

    def test_other_members_are_in_all(self):
        self.folder.mkdir()
        self.reply.write_text('{"note": 1}')
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.assertEqual(1, json.loads((self.folder / "reply@beta.json").read_text())["note"])

    def test_lie_beside_a_reply_elsewhere(self):
        elsewhere = self.top / "web/packs.json"
        self.publish(HEVC, "1.1", "--reply", elsewhere)
        self.publish(HEVC, "1.2", "--rollout", "5%", "--reply", elsewhere)
        self.assertEqual(
            {"packs.json", f"packs+{HEVC}-1.2.json", ".packs.json.lock"}, set(os.listdir(elsewhere.parent))
        )
        done = self.run_mkpack("rollout", HEVC, "1.2", "100%", "--output", self.folder, "--reply", elsewhere)
        self.assertEqual(0, done.returncode, done.stderr)
        self.assertEqual({"packs.json", ".packs.json.lock"}, set(os.listdir(elsewhere.parent)))

    def test_files_of_others_stay(self):
        self.publish(HEVC, "1.1")
        others = ("reply-old.json", "reply+old.json", "reply.beta.json", "reply@Beta.json", "myreply+x.json")
        for name in others:
            (self.folder / name).write_text("mine")
        self.publish(HEVC, "1.2")
        self.assertEqual({*others[:4], "reply.json"}, set(self.replies()))

    def test_what_a_killed_mkpack_leaves_goes_with_the_next(self):
        self.publish(HEVC, "1.1")
        (self.folder / f"reply+{HEVC}-1.0.json").write_text("{}")
        self.publish(HEVC, "1.2", "--channel", "beta")
        self.assertEqual(["reply.json", "reply@beta.json"], self.replies())

    def test_verify_finds_one_that_does_not_fit(self):
        self.publish_both()
        self.publish(HEVC, "1.3", "--rollout", "5%")
        beside = self.folder / f"reply+{HEVC}-1.3.json"
        remedy = "run mkpack rollout for a release with the share that it has"
        beside.write_text("{}")
        self.assertEqual(remedy, self.assert_finding(beside.name, "it does not go with the reply"))
        beside.unlink()
        self.assertEqual(remedy, self.assert_finding(beside.name, f"{beside.name} is not there"))
        self.rollout("1.3", "5%")

    def test_reader_never_sees_half(self):
        """While the reply goes from release to release, each file is whole whenever it is there."""
        self.publish(HEVC, "1.0")
        process = subprocess.Popen(
            [sys.executable, "-c", _MANY_CHANGES, MKPACK, self.payload, self.folder, HEVC], stdout=subprocess.DEVNULL
        )
        reads = 0
        while process.poll() is None or not reads:
            for path in self.folder.glob("reply*.json"):
                try:
                    members = reply.parse(path.read_bytes())
                except FileNotFoundError:
                    continue
                self.assertEqual([], reply.findings(members, BASE))
                for about, offer in reply.offers(HEVC, members[HEVC]):
                    self.assertTrue((self.folder / reply.path_of(offer["link"], BASE)).exists(), about)
                reads += 1
        self.assertEqual(0, process.returncode)
        self.assertLess(10, reads)


_MANY_CHANGES = f"""
import subprocess, sys
mkpack, payload, folder, name = sys.argv[1:]
for number in range(1, 6):
    version = f"1.{{number}}"
    for words in (
        ["publish", "--payload", payload, "--name", name, "--title", "T", "--base-url", {BASE!r},
         "--version", version, "--rollout", "5%"],
        ["rollout", name, version, "50%"],
        ["rollout", name, version, "100%"],
    ):
        subprocess.run([mkpack, *words, "--output", folder], check=True)
subprocess.run([mkpack, "withdraw", name, version, "--output", folder], check=True)
"""


class KilledTest(RolloutTest):
    def test_each_step_leaves_a_folder_that_serves(self):
        """Ends the work after each file that it writes or removes, as a kill would, and looks at what is there."""
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "5%")
        before, served = self.files(), set()
        for steps in itertools.count():
            shutil.rmtree(self.folder)
            self.folder.mkdir()
            for name, content in before.items():
                (self.folder / name).write_bytes(content)
            done = self.run_interrupted(steps)
            members = reply.parse(self.reply.read_bytes())
            self.assertEqual([], reply.findings(members, BASE))
            served.add(self.offers()[0])
            self.assertEqual(0, self.run_mkpack("rollout", HEVC, "1.2", "100%", "--output", self.folder).returncode)
            self.assertEqual(("1.2", []), self.offers())
            self.assertEqual(["reply.json"], self.replies())
            if done:
                break
        self.assertEqual({"1.1", "1.2"}, served)
        self.assertLessEqual(2, steps)

    def run_interrupted(self, steps):
        """Whether the rollout to everyone comes to its end before it has made so many changes."""
        child = os.fork()
        if child == 0:
            count = itertools.count()

            def ended(call):
                def counted(*arguments):
                    if next(count) == steps:
                        os._exit(7)
                    return call(*arguments)

                return counted

            os.replace, os.unlink = ended(os.replace), ended(os.unlink)
            reply_file.change_reply(str(self.reply), HEVC, lambda found: found.set_share("1.2", 100, False, False))
            os._exit(0)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1]) == 0


class FaultTest(RolloutTest):
    def test_reply_that_was_changed_by_hand_is_refused_and_stays(self):
        self.publish(HEVC, "1.1")
        pack = self.members()[HEVC]
        for key, value in (
            *(("staged", value) for value in (1, {}, [1], [{"rollout": 5}], [{"version": 2}])),
            *(("former", value) for value in ("1.0", [None])),
            *(("withdrawn", value) for value in ("1.0", [1])),
        ):
            with self.subTest((key, value)):
                self.reply.write_text(json.dumps({HEVC: {**pack, key: value}}))
                problem = f'"{key}" of {HEVC} in the reply is nothing that mkpack writes, and was left as it is'
                self.refuses(f"{problem}. Correct it, or take it out.", "withdraw", HEVC, "1.1")
                self.assertTrue(self.verify()["findings"])

    def test_wrong_staged_release_is_found(self):
        self.publish_both()
        self.publish(HEVC, "1.3", "--rollout", "5%")
        whole = self.members()
        for values, problem in (
            ({"rollout": "5%"}, "its rollout '5%' is no percentage"),
            ({"rollout": 0}, "its rollout 0 is no percentage"),
            ({"channel": "../x"}, "its channel '../x' is none that mkpack gives"),
            ({"rollout": None}, "it has neither a rollout nor a channel, so nobody is offered it"),
            ({"checksum": "0" * 64}, None),
            ({"link": "ftp://x/y"}, "its link 'ftp://x/y' is no http or https address"),
        ):
            with self.subTest(values):
                staged = {**whole[HEVC]["staged"][0], **values}
                staged = {key: value for key, value in staged.items() if value is not None}
                self.reply.write_text(json.dumps({**whole, HEVC: {**whole[HEVC], "staged": [staged]}}))
                (found,) = self.verify()["findings"]
                self.assertEqual(f"{HEVC} 1.3", found["about"])
                if problem:
                    self.assertEqual(problem, found["problem"])

    def test_verify_shows_share_and_channel(self):
        self.publish_both()
        self.publish(HEVC, "1.3", "--rollout", "5%")
        self.publish(AAC, "1.4", "--channel", "beta")
        self.assertEqual(
            f"{self.folder}: nothing wrong with {HEVC} 1.2, {HEVC} 1.3 (5 %), {AAC} 1.2, {AAC} 1.4 (beta)\n",
            self.run_verify(self.folder).stdout,
        )

    def test_waits_for_another_mkpack(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2")
        with open(self.folder / ".reply.json.lock", "r+") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            words = [MKPACK, "withdraw", HEVC, "1.2", "--output", self.folder]
            with subprocess.Popen(words, stdout=subprocess.DEVNULL) as process:
                with self.assertRaises(subprocess.TimeoutExpired):
                    process.wait(0.3)
                self.assertEqual("1.2", self.offers()[0])
                fcntl.flock(lock, fcntl.LOCK_UN)
                self.assertEqual(0, process.wait(HANG))
        self.assertEqual("1.1", self.offers()[0])


class NginxTest(RolloutTest):
    def test_configuration_is_written_in_one_step(self):
        self.publish(HEVC, "1.1")
        self.publish(HEVC, "1.2", "--rollout", "12.5%")
        target = self.top / "rollout.conf"
        printed = self.run_mkpack("nginx", self.folder)
        self.assertEqual((0, ""), (printed.returncode, printed.stderr))
        self.assertIn('split_clients "$arg_unique:1.2" $orbamira_staged_1 {\n  12.50% ', printed.stdout)
        self.assertEqual("", self.run_mkpack("nginx", self.folder, "--to", target).stdout)
        self.assertEqual(printed.stdout, target.read_text())
        self.reply.write_text("{")
        self.assertEqual(1, self.run_mkpack("nginx", self.folder, "--to", target).returncode)
        self.assertEqual(printed.stdout, target.read_text())

    def test_folder_without_packs_is_an_error(self):
        self.folder.mkdir()
        self.assert_fails(
            f"mkpack nginx: {self.folder}/reply.json names no pack. Publish one first.", "nginx", self.folder
        )
        missing = self.top / "missing"
        self.assert_fails(
            f'mkpack nginx: argument FOLDER: {missing} is not a folder. Run "mkpack nginx --help" for help.',
            *("nginx", missing),
            status=64,
        )


if __name__ == "__main__":
    unittest.main()
