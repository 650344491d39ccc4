"""What packctl prints with --json, held against its schema: every command, well and ill, on an appliance with a server.

usage: json_schema_test.py --build BUILD
"""

import argparse
import contextlib
import copy
import fcntl
import json
import pathlib
import shutil
import signal
import subprocess
import sys
import tempfile
import unittest
import urllib.request

import jsonschema

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Publisher  # noqa: E402

FAILED, NOTHING, REFUSED, BUSY = 1, 2, 3, 75


class JsonSchemaTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        cls.schema = json.loads((SOURCE / "packaging/packctl.schema.json").read_text())
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.publisher = cls.enterClassContext(Publisher(pathlib.Path(cls.folder) / "served", cls.arguments.build))
        cls.addresses = {version: cls.publisher.publish(version, 1) for version in ("1.0", "2.0")}

    def setUp(self):
        root = self.enterContext(tempfile.TemporaryDirectory(dir=self.folder))
        self.appliance = Appliance.lay_out(root, self.arguments.build)
        self.appliance.use_server(self.addresses["1.0"])

    @staticmethod
    def definition(command):
        return command.replace(" ", "_").replace("-", "_")

    def validator(self, command):
        return jsonschema.Draft202012Validator(
            {"$ref": f"#/$defs/{self.definition(command)}", "$defs": self.schema["$defs"]}
        )

    def commands(self):
        def listed(*group):
            shown = self.appliance.packctl(*group, "--help").stdout.split("Subcommands:\n")[1].split("\n\n")[0]
            return [line.split()[0] for line in shown.splitlines()]

        without_json = ("account", "help")
        return [name for name in listed() if name not in without_json] + [
            f"account {name}" for name in listed("account")
        ]

    def check(self, command, expected_status, *arguments):
        """Runs the command; its answer must be as the schema says and be refused with any part taken out."""
        done = self.appliance.packctl(*command.split(), "--json", *arguments)
        self.assertEqual(done.returncode, expected_status, done.stdout + done.stderr)
        self.assertEqual(done.stdout.count("\n"), 1)
        return self.check_answer(command, done.stdout)

    def check_answer(self, command, line):
        answer = json.loads(line)
        self.validator(command).validate(answer)
        jsonschema.Draft202012Validator(self.schema).validate(answer)
        self.check_strict(command, answer)
        return answer

    def check_strict(self, command, answer):
        validator = self.validator(command)
        more = {**answer, "more": 1}
        self.assertFalse(validator.is_valid(more), "a member that the schema does not know")
        for name in answer:
            wrong = copy.deepcopy(answer)
            wrong[name] = 1.5
            self.assertFalse(validator.is_valid(wrong), f"{name} of another type")
        for name in answer:
            less = {key: value for key, value in answer.items() if key != name}
            if set(less) != {
                "command",
                "result",
                "error",
            }:  # which is a whole answer, of a run that did not come to another
                self.assertFalse(validator.is_valid(less), f"without {name}")

    def test_is_a_schema_of_the_commands_that_there_are(self):
        jsonschema.Draft202012Validator.check_schema(self.schema)
        commands = [self.definition(name) for name in self.commands()]
        parts = {
            "error",
            "refusal",
            "status_text",
            "step_text",
            "pack",
            "wait",
            "hold_state",
            "history_entry",
            "previous_version",
            "rejected",
            "web_state",
            "web_history",
        }
        self.assertEqual(set(self.schema["$defs"]) - parts, set(commands))
        self.assertEqual(
            [form["$ref"] for form in self.schema["anyOf"]],
            [f"#/$defs/{name}" for name in self.schema["$defs"] if name in commands],
        )

    def test_updates_from_the_first_to_the_last(self):
        self.check("status", 0)
        self.check("info", 0)
        self.check("history", 0)
        self.assertEqual(self.check("check", 0)["version"], "1.0")
        self.check("download", 0)
        self.check("status", 0)
        self.check("install", 0)
        self.check("check", NOTHING)
        self.check("install", REFUSED)
        self.check("info", 0)
        self.check("codecs", 0)
        self.appliance.use_server(self.addresses["2.0"])
        self.check("update", 0)
        self.assertEqual(self.check("update", NOTHING)["result"], "nothing_new")
        self.check("remove", 0)
        self.check("remove", NOTHING)
        self.check("recover", 0)
        self.assertEqual(self.check("doctor", 0)["result"], "well")
        self.assertEqual(len(self.check("history", 0)["entries"]), 5)
        self.check("history", 0, "--limit", "1")
        self.check("metrics", 0)

    def test_an_install_from_a_file(self):
        package = next(self.publisher.folder.glob("*-1.0-*.opk"))
        self.assertEqual(self.check("install", FAILED, "--file", package)["error"]["code"], "keyring_unusable")
        self.check("install", 0, "--trust", "--file", package)
        self.assertEqual(self.check("install", NOTHING, "--trust", "--file", package)["result"], "nothing_new")

    def test_a_pack_that_waits(self):
        self.check("update", NOTHING, "--automatic")
        self.check("check", 0)
        self.check("hold", 0)
        self.check("hold", NOTHING)
        self.check("hold", 0, "--until", "2199-12-24")
        self.assertEqual(self.check("update", NOTHING, "--automatic")["wait"]["code"], "held")
        self.check("update", REFUSED)
        self.check("status", 0)
        self.check("unhold", 0)
        self.check("unhold", NOTHING)
        self.check("hold", FAILED, "--until", "never")
        with (self.appliance.settings / "updater.conf").open("a") as settings:
            settings.write("update_policy=auto_download_manual_install\n")
        self.assertEqual(self.check("update", 0, "--automatic")["result"], "downloaded")
        self.assertEqual(self.check("update", NOTHING, "--automatic")["wait"]["code"], "waits_for_person")
        self.check("status", 0)

        self.check("history", 0)

    def test_a_rollback(self):
        self.check("rollback", NOTHING)
        self.check("update", 0)
        self.appliance.use_server(self.addresses["2.0"])
        self.check("update", 0)
        self.check("rollback", REFUSED)
        self.check("rollback", 0, "--yes")
        self.assertEqual(self.check("check", NOTHING)["result"], "rejected")
        self.assertEqual(self.check("update", NOTHING)["result"], "rejected")
        self.assertEqual([one["version"] for one in self.check("status", 0)["rejected"]], ["2.0"])
        self.check("history", 0)

    def test_a_check_without_an_address(self):
        self.appliance.use_server("")
        self.assertEqual(self.check("check", NOTHING)["result"], "no_address")

    def test_failures(self):
        self.appliance.use_server(self.publisher.url + "/none.json")
        for command in ("check", "update"):
            self.check(command, FAILED)
        self.assertEqual(self.check("doctor", FAILED)["result"], "faults")
        for entry in self.check("history", 0)["entries"]:
            self.assertTrue(entry["errors"])
        self.appliance.write_status('{"status": "dancing"}')
        for command in ("status", "update", "remove"):
            self.check(command, FAILED)
        self.check("recover", 0)
        (self.appliance.state_folder / "codec-requirements.json").write_text("{")
        self.check("codecs", FAILED)
        (self.appliance.helpers / "list-app-ids").unlink()
        self.check("plugins", FAILED)
        for history in self.appliance.history:
            history.unlink(missing_ok=True)
            history.mkdir()
        self.check("history", FAILED)
        self.check("metrics", FAILED)
        locks = self.appliance.run_folder / "lock"
        for lock in locks.iterdir():
            lock.unlink()
        locks.rmdir()
        locks.write_text("")
        for command in ("check", "download", "install", "update", "remove", "rollback", "recover", "plugins"):
            self.check(command, FAILED)
        self.check("status", 0)  # reads, and so does without a lock that nobody can take

    def test_plugins(self):
        plugin = self.appliance.plugins / "10-player"
        plugin.write_text("#!/bin/sh\necho player\n")
        plugin.chmod(0o755)
        self.assertEqual(self.check("plugins", 0)["app_ids"], ["player"])

    def test_account(self):
        provider = self.enterContext(
            subprocess.Popen(
                [self.arguments.build + "/tests/oidc_provider"],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                text=True,
            )
        )
        issuer = provider.stdout.readline().strip()
        self.check("account status", NOTHING)
        self.check("account sign-out", NOTHING)
        self.check("account sign-in", FAILED, "--issuer", "http://accounts.example")
        with subprocess.Popen(
            [self.appliance.program("packctl"), "account", "sign-in", "--json", "--issuer", issuer],
            env=self.appliance.environment(),
            stdout=subprocess.PIPE,
            text=True,
        ) as sign_in:
            waiting = self.check_answer("account sign-in", sign_in.stdout.readline())
            urllib.request.build_opener(urllib.request.ProxyHandler({})).open(waiting["address"]).close()
            done = self.check_answer("account sign-in", sign_in.stdout.readline())
        self.assertEqual((sign_in.returncode, done["issuer"]), (0, issuer))
        self.assertTrue(self.check("account status", 0)["valid"])
        self.assertTrue(self.check("account sign-out", 0)["revoked"])
        account = self.appliance.settings / "account.json"
        account.write_text("{}")
        self.check("account status", FAILED)
        account.unlink()
        account.mkdir()
        self.check("account sign-out", FAILED)

    def test_another_packctl_at_work(self):
        with open(self.appliance.run_folder / "lock/packctl.lock", "w", encoding="ascii") as lock:
            fcntl.flock(lock, fcntl.LOCK_EX)
            for command in ("check", "download", "install", "update", "remove", "rollback", "recover", "plugins"):
                self.assertEqual(self.check(command, BUSY)["result"], "busy")

    def test_watch(self):
        watch = subprocess.Popen(
            [self.appliance.program("packctl"), "status", "--watch", "--json"],
            env=self.appliance.environment(),
            stdout=subprocess.PIPE,
            text=True,
        )
        with watch:
            lines = [watch.stdout.readline()]
            self.appliance.expect("update")
            while json.loads(lines[-1])["status"] != "up_to_date":
                lines.append(watch.stdout.readline())
            watch.send_signal(signal.SIGTERM)
        self.assertEqual(watch.returncode, 0)
        for line in lines:
            self.validator("status").validate(json.loads(line))

    def test_web(self):
        with self.running_web() as address:
            first = self.check_state(address)
            self.assertEqual(first["status"], "lost")
            self.appliance.expect("update")
            done = self.check_state(address, after=first["tag"])
            while done["status"] != "up_to_date" or done["history_tag"] == first["history_tag"] or done["at_work"]:
                done = self.check_state(address, after=done["tag"])
            self.assertEqual(done["installed"]["version"], "1.0")
            with urllib.request.urlopen(f"{address}api/history", timeout=600) as answer:
                history = json.load(answer)
            self.validator("web_history").validate(history)
            self.check_strict("web_history", history)
            self.assertEqual(history["entries"][-1]["command"], "update")
            self.appliance.write_status('{"status": "dancing"}')
            while done["status"] is not None:
                done = self.check_state(address, after=done["tag"])

    def test_web_that_cannot_start(self):
        shutil.rmtree(self.appliance.root / self.appliance.paths.data_folder / "web")
        self.check("web", FAILED)

    @contextlib.contextmanager
    def running_web(self):
        web = subprocess.Popen(
            [self.appliance.program("packctl"), "web", "--json"],
            env=self.appliance.environment(),
            stdout=subprocess.PIPE,
            text=True,
        )
        with web:
            line = json.loads(web.stdout.readline())
            self.validator("web").validate(line)
            self.check_strict("web", line)
            try:
                yield line["address"]
            finally:
                web.terminate()

    def check_state(self, address, after=""):
        with urllib.request.urlopen(f"{address}api/state?after={after}", timeout=600) as answer:
            state = json.load(answer)
        self.validator("web_state").validate(state)
        self.check_strict("web_state", state)
        return state


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    JsonSchemaTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
