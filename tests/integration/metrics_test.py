#!/usr/bin/env python3
"""What "packctl metrics" says of an appliance, and whether Prometheus' own checker takes it.

promtool comes with scripts/setup --lint; without it the checker's part is skipped.
"""

import argparse
import datetime
import json
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Publisher  # noqa: E402

PROMTOOL = shutil.which("promtool", path=SOURCE / "build/deps/promtool") or shutil.which("promtool")
DAY = 24 * 60 * 60
LINE = re.compile(r'(\w+)(?:\{((?:\w+="(?:[^"\\\n]|\\.)*",?)+)\})? (\d+)')
LABEL = re.compile(r'(\w+)="((?:[^"\\]|\\.)*)"')


class MetricsTest(unittest.TestCase):
    build = None

    def setUp(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="metrics-")))
        self.folder = folder
        self.appliance = Appliance.lay_out(folder / "root", self.build)
        self.publisher = self.enterContext(Publisher(folder / "published", self.build))

    def publish(self, version):
        self.appliance.use_server(self.publisher.publish(version, 1))

    def set(self, line):
        with (self.appliance.settings / "updater.conf").open("a") as file:
            file.write(line + "\n")

    def text(self):
        done = self.appliance.packctl("metrics")
        self.assertEqual((done.returncode, done.stderr), (0, ""))
        self.check(done.stdout)
        return done.stdout

    def check(self, text):
        """Whether Prometheus' checker finds nothing, not even a name that is bad style."""
        if PROMTOOL:
            done = subprocess.run(
                [PROMTOOL, "check", "metrics"], input=text, capture_output=True, text=True, check=False
            )
            self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""), text)

    def values(self):
        """The value of each metric, by its name and then its labels."""
        found = {}
        for line in self.text().splitlines():
            if line.startswith("#"):
                continue
            name, labels, value = LINE.fullmatch(line).groups()
            found.setdefault(name, {})[tuple(sorted(LABEL.findall(labels or "")))] = int(value)
        return found

    def only(self, found, name):
        (sample,) = found[name].items()
        return dict(sample[0]), sample[1]

    def test_an_appliance_without_a_pack(self):
        found = self.values()
        self.assertEqual(found["orbamira_pack_installed"], {(): 0})
        self.assertEqual(found["orbamira_pack_codec"], {(("codec", "aac"),): 0, (("codec", "hevc"),): 0})
        self.assertEqual(self.only(found, "orbamira_status"), ({"status": "lost"}, 1))
        for absent in ("pack_info", "pack_installed_timestamp_seconds", "offer_info", "last_check_failed"):
            self.assertNotIn("orbamira_" + absent, found)

    def test_the_pack_and_the_last_check(self):
        before = int(time.time())
        self.publish("1.0")
        self.appliance.expect("update")
        self.publish("2.0")
        self.appliance.expect("check")
        found = self.values()
        pack = {"package": self.appliance.paths.hevc_pack, "version": "1.0"}
        self.assertEqual(self.only(found, "orbamira_pack_info"), (pack, 1))
        self.assertEqual(found["orbamira_pack_codec"][(("codec", "hevc"),)], 1)
        self.assertEqual(self.only(found, "orbamira_offer_info"), ({"version": "2.0"}, 1))
        self.assertEqual(self.only(found, "orbamira_status"), ({"status": "need_download"}, 1))
        self.assertEqual(self.only(found, "orbamira_last_check_failed"), ({}, 0))
        self.assertEqual(self.only(found, "orbamira_update_interrupted"), ({}, 0))
        for name in ("pack_installed", "last_answer", "last_check"):
            _, value = self.only(found, f"orbamira_{name}_timestamp_seconds")
            self.assertTrue(before <= value <= time.time() + 1, name)
        version = (self.appliance.root / self.appliance.paths.data_folder / "INFO").read_text()
        self.assertIn(f'version="{self.only(found, "orbamira_updater_info")[0]["version"]}"', version)

    def test_releases_of_others_and_withdrawn_ones(self):
        self.publish("1.0")
        self.appliance.expect("update")
        note = self.appliance.cache / "checked"
        self.assertEqual(self.values()["orbamira_pack_withdrawn"], {(): 0})
        self.assertNotIn("orbamira_staged_info", self.values())
        told = json.loads(note.read_text())
        told |= {"staged": {"version": "2.0", "rollout": 5}, "withdrawn": "1.0"}
        note.write_text(json.dumps(told))
        found = self.values()
        self.assertEqual(found["orbamira_pack_withdrawn"], {(): 1})
        self.assertEqual(self.only(found, "orbamira_staged_info"), ({"version": "2.0"}, 1))
        info = self.appliance.pack / "INFO"
        info.write_text(info.read_text().replace('version="1.0"', 'version="1.1"'))
        self.assertEqual(self.values()["orbamira_pack_withdrawn"], {(): 0})

    def test_what_waits_and_why(self):
        self.assertNotIn("orbamira_offer_waits", self.values())
        self.publish("1.0")
        self.appliance.expect("check")
        self.assertEqual(self.only(self.values(), "orbamira_offer_waits"), ({"code": "waits_for_person"}, 1))
        self.appliance.expect("hold", "--until", "2037-01-01")
        found = self.values()
        self.assertEqual(self.only(found, "orbamira_offer_waits"), ({"code": "held"}, 1))
        _, until = self.only(found, "orbamira_offer_waits_until_timestamp_seconds")
        self.assertLess(abs(until - datetime.datetime(2037, 1, 1).timestamp()), 2 * DAY)
        self.appliance.expect("unhold")
        self.appliance.expect("update")
        self.assertNotIn("orbamira_offer_waits", self.values())

    def test_the_way_back_and_what_was_rejected(self):
        self.publish("1.0")
        self.appliance.expect("update")
        found = self.values()
        self.assertEqual(found["orbamira_previous_pack_kept"], {(): 0})
        self.assertNotIn("orbamira_previous_pack_info", found)
        self.assertNotIn("orbamira_rejected_info", found)
        self.publish("2.0")
        self.appliance.expect("update")
        found = self.values()
        self.assertEqual(found["orbamira_previous_pack_kept"], {(): 1})
        self.assertEqual(self.only(found, "orbamira_previous_pack_info"), ({"version": "1.0"}, 1))
        self.appliance.expect("rollback", "--yes")
        found = self.values()
        self.assertEqual(found["orbamira_previous_pack_kept"], {(): 0})
        self.assertEqual(self.only(found, "orbamira_rejected_info"), ({"version": "2.0", "code": "rolled_back"}, 1))

    def test_failures_by_their_codes(self):
        self.publish("1.0")
        self.appliance.expect("check")
        note = self.appliance.cache / "checked"
        answered = int(note.stat().st_mtime) - 60
        subprocess.run(["touch", "-d", f"@{answered}", note], check=True)
        self.appliance.use_server(self.publisher.url + "/none.json")
        self.assertEqual([self.appliance.packctl("check").returncode for _ in range(2)], [1, 1])
        found = self.values()
        self.assertEqual(self.only(found, "orbamira_last_check_failed"), ({"code": "server_refused"}, 1))
        self.assertEqual(self.only(found, "orbamira_last_answer_timestamp_seconds")[1], answered)
        self.assertGreater(self.only(found, "orbamira_last_check_timestamp_seconds")[1], answered)
        self.assertEqual(
            self.only(found, "orbamira_recent_failures"), ({"command": "check", "code": "server_refused"}, 2)
        )
        # An answer since then mends it, and what is older than 30 days is not counted.
        (history,) = (path for path in self.appliance.history if path.exists())
        entries = [json.loads(line) for line in history.read_text().splitlines()]
        for entry in entries[:2]:
            entry["time"] -= 31 * DAY
        history.write_text("".join(json.dumps(entry) + "\n" for entry in entries))
        note.touch()
        subprocess.run(["touch", "-d", "+1 minute", note], check=True)
        found = self.values()
        self.assertEqual(self.only(found, "orbamira_last_check_failed"), ({}, 0))
        self.assertEqual(found["orbamira_recent_failures"], {(("code", "server_refused"), ("command", "check")): 1})

    def test_a_record_that_is_damaged_or_tells_of_nobody(self):
        self.appliance.write_status('{"status": "dancing"}')
        found = self.values()
        self.assertEqual(found["orbamira_record_readable"], {(): 0})
        self.assertNotIn("orbamira_status", found)
        self.appliance.write_status('{"status": "downloading"}')
        found = self.values()
        self.assertEqual((found["orbamira_record_readable"], found["orbamira_update_interrupted"]), ({(): 1}, {(): 1}))

    def test_texts_that_a_label_cannot_hold_as_they_are(self):
        self.appliance.pack.mkdir()
        (self.appliance.pack / "INFO").write_bytes(b'package=a"b\\c\nversion=\xff\x1b1\n')
        line = next(line for line in self.text().splitlines() if line.startswith("orbamira_pack_info"))
        self.assertEqual(line, r'orbamira_pack_info{package="a\"b\\c",version="\\377\\0331"} 1')

    def test_end_of_support(self):
        self.assertNotIn("orbamira_support_end_timestamp_seconds", self.values())
        self.set('support_until="2031-12-31"')
        end = datetime.datetime(2032, 1, 1, tzinfo=datetime.timezone.utc)
        self.assertEqual(self.only(self.values(), "orbamira_support_end_timestamp_seconds")[1], int(end.timestamp()))

    def test_every_metric_is_on_the_page(self):
        page = (SOURCE / "docs/monitoring.md").read_text()
        source = (SOURCE / "tools/packctl/metrics/metrics.cpp").read_text()
        names = set(re.findall(r'"(orbamira_\w+)"', source))
        self.assertEqual(names, set(re.findall(r"^\| `(orbamira_\w+)`", page, re.MULTILINE)))

    @unittest.skipUnless(PROMTOOL, "without promtool")
    def test_the_rules_on_the_page(self):
        rules = re.search(r"^```yaml\n(.*?)^```", (SOURCE / "docs/monitoring.md").read_text(), re.MULTILINE | re.DOTALL)
        file = self.folder / "rules.yml"
        file.write_text(rules[1])
        done = subprocess.run([PROMTOOL, "check", "rules", file], capture_output=True, text=True, check=False)
        self.assertEqual(done.returncode, 0, done.stdout + done.stderr)
        self.assertIn("6 rules found", done.stdout)

    def test_a_file_is_replaced_whole(self):
        file = self.folder / "orbamira.prom"
        file.write_text("old\n")
        before = file.stat().st_ino
        done = self.appliance.packctl("metrics", "--output", str(file))
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.assertEqual(file.read_text(), self.text())
        self.assertNotEqual(file.stat().st_ino, before)
        self.assertEqual(file.stat().st_mode & 0o777, 0o644)
        self.assertEqual([path.name for path in self.folder.glob("orbamira.prom*")], ["orbamira.prom"])

    def test_a_file_that_cannot_be_written(self):
        done = self.appliance.packctl("metrics", "--output", str(self.folder / "none/orbamira.prom"))
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertIn("none/orbamira.prom", done.stderr)


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("--build", required=True, type=pathlib.Path)
    own, rest = parser.parse_known_args()
    MetricsTest.build = own.build
    unittest.main(argv=[sys.argv[0], *rest])
