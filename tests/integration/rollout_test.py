"""Staged releases with the real nginx, configured as docs/staged-releases.md and mkpack nginx say.

usage: rollout_test.py --build BUILD
"""

import argparse
import json
import pathlib
import re
import socket
import subprocess
import sys
import tempfile
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Paths, make_pack, mkpack_of  # noqa: E402
from nginx import Nginx  # noqa: E402

MANY = 100_000
# Requests that are under way at a time.
PIPELINED = 500
INCLUDE = "include /etc/nginx/orbamira-rollout.conf;\n"


def answers(address, paths):
    """The body of the answer to each of the paths, asked on one connection."""
    with socket.create_connection(address) as connection, connection.makefile("rb") as file:
        for begin in range(0, len(paths), PIPELINED):
            part = paths[begin : begin + PIPELINED]
            connection.sendall(b"".join(f"GET {path} HTTP/1.1\r\nHost: packs\r\n\r\n".encode() for path in part))
            for _ in part:
                yield answer(file)


def answer(file):
    status = file.readline().split()[1]
    if status != b"200":
        raise AssertionError(f"status {status}")
    length = 0
    while (line := file.readline()) != b"\r\n":
        name, _, value = line.partition(b":")
        length = int(value) if name.lower() == b"content-length" else length
    return file.read(length)


def query(unique, folder="/packs/reply.json"):
    return f"{folder}?identify=orbamira&unique={unique}&version=1.0.0&kos_version=1.0-1"


class RolloutTest(unittest.TestCase):
    arguments = None

    def setUp(self):
        self.top = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.top.chmod(0o755)
        self.packs = self.top / "srv/packs"
        (self.top / "payload").mkdir()
        (self.top / "payload/libdecoder.so").write_text("decoder")
        self.name, self.aac_name = Paths(self.arguments.build).hevc_pack, Paths(self.arguments.build).hevc_aac_pack
        page = (SOURCE / "docs/staged-releases.md").read_text()
        self.server_text, self.cache_text = re.findall(r"^```nginx\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)

    def publish(self, version, **more):
        make_pack(self.arguments.build, self.top / "payload", self.packs, version, "http://packs/packs", **more)

    def mkpack(self, *words):
        return subprocess.run(
            [mkpack_of(self.arguments.build), *words], check=True, stdout=subprocess.PIPE, text=True
        ).stdout

    def rollout(self, version, percent):
        self.mkpack("rollout", self.name, version, percent, "--output", self.packs)

    def configured(self, text, **replaced):
        """The configuration of the page with the one that mkpack makes now, and with this machine's places."""
        text = re.sub(r"^ *ssl_certificate.*\n", "", text, flags=re.MULTILINE)
        text = text.replace(INCLUDE, self.mkpack("nginx", self.packs))
        for there, here in {"listen 443 ssl": "listen LISTEN", **replaced}.items():
            self.assertIn(there, text)
            text = text.replace(there, here)
        return f"  keepalive_requests {2 * MANY}; access_log off;\n{text}"

    def start(self, name="nginx"):
        text = self.configured(self.server_text, **{"root /srv;": f"root {self.top}/srv;"})
        return self.enterContext(Nginx(self.top / name, text))

    def start_choosing(self, name, version):
        """nginx that answers "yes" to each appliance in the share; without a file to read for each of many."""
        server = 'server { listen LISTEN; location / { return 200 "$orbamira_staged_1"; } }'
        http = f"keepalive_requests {2 * MANY}; access_log off;\n{self.mkpack('nginx', self.packs)}{server}"
        server = self.enterContext(Nginx(self.top / name, http))
        chosen = f"+{self.name}-{version}".encode()
        return lambda ids: [body == chosen for body in answers(server.address, [query(unique) for unique in ids])]

    def offered(self, server, ids, path="/packs/reply.json", name=None):
        replies = map(json.loads, answers(server.address, [query(unique, path) for unique in ids]))
        return [reply[name or self.name]["version"] for reply in replies]

    def test_share_is_what_was_asked_for(self):
        """Of 100,000 appliances, within half a point; and it only grows."""
        ids = [f"NAS-{number:06d}" for number in range(MANY)]
        self.publish("1.1")
        self.publish("1.2", rollout="0.5%")
        before = [False] * MANY
        for percent in (0.5, 5, 25, 50, 99.5):
            self.rollout("1.2", f"{percent}%")
            inside = self.start_choosing(f"nginx-{percent}", "1.2")(ids)
            self.assertAlmostEqual(percent, 100 * sum(inside) / MANY, delta=0.5)
            self.assertFalse([one for one, was, now in zip(ids, before, inside) if was and not now])
            before = inside

    def test_each_release_begins_with_others(self):
        ids = [f"NAS-{number:06d}" for number in range(10_000)]
        self.publish("1.1")
        self.publish("1.2", rollout="10%")
        first = self.start_choosing("first", "1.2")(ids)
        self.rollout("1.2", "100%")
        self.publish("1.3", rollout="10%")
        second = self.start_choosing("second", "1.3")(ids)
        both = sum(map(all, zip(first, second)))
        self.assertAlmostEqual(1, 100 * both / len(ids), delta=0.5)

    def test_server_gives_each_appliance_its_reply(self):
        ids = [f"nas-{number}" for number in range(200)]
        self.publish("1.1")
        self.publish("1.2", rollout="50%")
        server = self.start()
        inside = self.start_choosing("choosing", "1.2")(ids)
        expected = ["1.2" if one else "1.1" for one in inside]
        self.assertEqual({"1.1", "1.2"}, set(expected))
        self.assertEqual(expected, self.offered(server, ids))
        # As long as nginx is not reloaded, the share is the former one; what was withdrawn is gone at once.
        self.rollout("1.2", "75%")
        self.assertEqual(expected, self.offered(server, ids))
        self.mkpack("withdraw", self.name, "1.2", "--output", self.packs)
        self.assertEqual({"1.1"}, set(self.offered(server, ids)))
        self.publish("1.3")
        self.assertEqual({"1.3"}, set(self.offered(server, ids)))

    def appliance(self, name, address, channel=None):
        appliance = Appliance.lay_out(self.top / f"appliance-{len(list(self.top.iterdir()))}", self.arguments.build)
        appliance.identify(name)
        appliance.use_server(address + "/packs/reply.json")
        if channel:
            with open(appliance.settings / "updater.conf", "a") as file:
                file.write(f'channel="{channel}"\n')
        return appliance

    def start_logging(self):
        """nginx that gives everyone the same reply, and logs what it would choose."""
        log = "  log_format chosen '$orbamira_staged_1';\n" + self.mkpack("nginx", self.packs)
        server = f"server {{ listen LISTEN; root {self.top}/srv; access_log access.log chosen; }}"
        return self.enterContext(Nginx(self.top / "logging", log + server))

    def check(self, appliance):
        """What a check answers."""
        return json.loads(appliance.packctl("check", "--json").stdout)

    def test_packctl_decides_as_nginx_does(self):
        self.publish("1.1")
        self.publish("1.2", rollout="50%")
        server = self.start_logging()
        appliance = self.appliance("x", server.url)
        odd = ("NAS 1", "a/b&c=d", "\u00fc+%41", "~._-", "A" * 3000, "\u4e2d\u6587", "#?")
        ids = [*odd, *(f"nas-{number}" for number in range(60))]
        found = []
        for unique in ids:
            appliance.identify(unique)
            found.append(self.check(appliance)["version"])
        self.assertEqual({"1.1", "1.2"}, set(found))
        chosen = ["1.2" if line else "1.1" for line in server.log()]
        self.assertEqual(dict(zip(ids, chosen)), dict(zip(ids, found)))

    def outside(self, server):
        """An appliance that is not in the share of 1.2."""
        for number in range(1000):
            appliance = self.appliance(f"nas-{number}", server.url)
            if self.check(appliance)["version"] == "1.1":
                return appliance
        raise AssertionError("all are in the share")

    def installed(self, appliance):
        return json.loads(appliance.packctl("info", "--json").stdout)["version"]

    def start_plain(self):
        """A server that only serves files, with packages whose links lead to it."""
        server = self.enterContext(
            Nginx(self.top / "plain", f"server {{ listen LISTEN; root {self.top}/srv; access_log off; }}")
        )
        self.publish = lambda version, **more: make_pack(
            self.arguments.build, self.top / "payload", self.packs, version, f"{server.url}/packs", **more
        )
        return server

    def test_appliance_outside_the_share_has_the_release_before(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2", rollout="50%")
        appliance = self.outside(server)
        appliance.expect("update")
        self.assertEqual("1.1", self.installed(appliance))
        check = self.check(appliance)
        self.assertEqual("nothing_new", check["result"])
        self.assertEqual({"version": "1.2", "rollout": 50, "code": "not_in_rollout"}, check["staged"])
        told = "1.2 is offered to 50 % of the appliances so far, and not to this one"
        self.assertIn(f"{told}. To install it now: sudo packctl update --now\n", appliance.packctl("check").stdout)
        done = appliance.packctl("update")
        self.assertEqual(2, done.returncode)
        self.assertIn(told, done.stdout)
        self.assertIn(f"Available:  {told}\n", appliance.packctl("status").stdout)
        self.assertEqual(
            {"version": "1.2", "rollout": 50},
            json.loads(appliance.packctl("status", "--json").stdout)["last_check"]["staged"],
        )
        # When the share takes it in, it is offered the release without having been asked again.
        self.rollout("1.2", "100%")
        self.assertEqual(("new_pack", "1.2"), (self.check(appliance)["result"], self.check(appliance)["version"]))
        appliance.expect("update")
        self.assertEqual("1.2", self.installed(appliance))

    def test_person_may_take_it_now(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2", rollout="50%")
        appliance = self.outside(server)
        appliance.expect("update", "--now")
        self.assertEqual("1.2", self.installed(appliance))
        check = self.check(appliance)
        self.assertEqual(("nothing_new", "1.1", None), (check["result"], check["version"], check["staged"]))
        self.assertEqual(2, appliance.packctl("update").returncode)
        self.assertEqual("1.2", self.installed(appliance), "it does not go back")

    def test_withdrawn_release_stays_until_a_newer_one_comes(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2")
        appliance = self.appliance("nas", server.url)
        appliance.expect("update")
        self.mkpack("withdraw", self.name, "1.2", "--output", self.packs)
        done = appliance.packctl("check")
        self.assertEqual(2, done.returncode)
        self.assertIn("The maker has withdrawn 1.2. It stays until a newer release comes.\n", done.stdout)
        self.assertIn("; the maker has withdrawn it\n", appliance.packctl("status").stdout)
        status = json.loads(appliance.packctl("status", "--json").stdout)
        self.assertEqual("1.2", status["last_check"]["withdrawn"])
        self.assertEqual(2, appliance.packctl("update").returncode)
        self.assertEqual("1.2", self.installed(appliance))
        fresh = self.appliance("other", server.url)
        fresh.expect("update")
        self.assertEqual("1.1", self.installed(fresh))
        self.publish("1.2.1")
        appliance.expect("update")
        self.assertEqual("1.2.1", self.installed(appliance))
        self.assertNotIn("withdrawn it", appliance.packctl("status").stdout)

    def test_withdrawal_of_the_installed_release_is_in_the_history_once(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2")
        appliance = self.appliance("nas", server.url)
        appliance.expect("update")
        self.mkpack("withdraw", self.name, "1.2", "--output", self.packs)
        for _ in range(3):
            self.assertEqual(2, appliance.packctl("check").returncode)
        entries = json.loads(appliance.packctl("history", "--json").stdout)["entries"]
        self.assertEqual(["check", "update"], [entry["command"] for entry in entries])
        self.assertEqual(["the maker has withdrawn 1.2"], entries[0]["errors"])
        self.assertIn("Nothing new: the maker has withdrawn 1.2. 1.2 stays", appliance.packctl("history").stdout)

    def with_offer(self):
        """An appliance that has 1.1 and has found 1.2."""
        server = self.start_plain()
        self.publish("1.1")
        appliance = self.appliance("nas", server.url)
        appliance.expect("update")
        self.publish("1.2")
        appliance.expect("check")
        return appliance

    def with_withdrawn_download(self):
        """An appliance that has 1.1 and has downloaded 1.2, which is withdrawn."""
        appliance = self.with_offer()
        appliance.expect("download")
        self.mkpack("withdraw", self.name, "1.2", "--output", self.packs)
        return appliance

    def assert_given_up(self, appliance):
        self.assertEqual("1.1", self.installed(appliance))
        self.assertEqual("up_to_date", appliance.status())
        self.assertEqual([], appliance.leftovers())
        self.assertEqual(3, appliance.packctl("install").returncode)
        self.publish("1.3")
        appliance.expect("check")
        appliance.expect("update")
        self.assertEqual("1.3", self.installed(appliance))

    def test_downloaded_release_that_was_withdrawn_is_not_installed(self):
        appliance = self.with_withdrawn_download()
        done = appliance.packctl("install", "--json")
        self.assertEqual(1, done.returncode)
        self.assertEqual("withdrawn", json.loads(done.stdout)["error"]["code"])
        self.assert_given_up(appliance)

    def test_check_gives_up_a_download_that_was_withdrawn(self):
        appliance = self.with_withdrawn_download()
        self.assertEqual("nothing_new", self.check(appliance)["result"])
        entry = json.loads(appliance.packctl("history", "--json").stdout)["entries"][0]
        self.assertEqual(["the maker has withdrawn 1.2, which was downloaded"], entry["errors"])
        self.assert_given_up(appliance)

    def test_downloaded_release_is_installed_without_a_network(self):
        appliance = self.with_withdrawn_download()
        with socket.create_server(("127.0.0.1", 0)) as closed:
            port = closed.getsockname()[1]
        appliance.use_server(f"http://127.0.0.1:{port}/reply.json")
        appliance.expect("install")
        self.assertEqual("1.2", self.installed(appliance))

    def test_recorded_offer_that_was_withdrawn_is_forgotten(self):
        appliance = self.with_offer()
        self.assertEqual("need_download", appliance.status())
        self.mkpack("withdraw", self.name, "1.2", "--output", self.packs)
        self.assertEqual("nothing_new", self.check(appliance)["result"])
        self.assertEqual("up_to_date", appliance.status())

    def test_failed_update_to_a_staged_release_is_repeated(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2", rollout="99.99%")
        appliance = self.appliance("nas", server.url)
        appliance.expect("update")
        self.assertEqual("1.2", self.installed(appliance))
        appliance.write_status(json.dumps({"status": "download_install_failed"}))
        self.assertEqual("new_pack", self.check(appliance)["result"])
        self.assertEqual("need_download", appliance.status())
        appliance.expect("update")
        self.assertEqual("1.2", self.installed(appliance))

    def test_channel_of_the_settings(self):
        server = self.start_plain()
        self.publish("1.1")
        self.publish("1.2", channel="beta")
        tester = self.appliance("nas", server.url, channel="beta")
        other = self.appliance("nas", server.url)
        for appliance, version in ((tester, "1.2"), (other, "1.1")):
            appliance.expect("update")
            self.assertEqual(version, self.installed(appliance))
        self.assertNotIn("1.2", other.packctl("check").stdout)

    def test_marked_release_is_installed_by_itself(self):
        server = self.start_plain()
        self.publish("1.1")
        for mark in ("off", "on"):
            self.mkpack("security", self.name, "1.1", mark, "--output", self.packs)
            appliance = self.appliance("nas", server.url)
            self.check(appliance)
            appliance.packctl("update", "--automatic")
            self.assertEqual(mark == "on", appliance.pack.exists())

    def test_packs_are_staged_by_themselves(self):
        ids = [f"nas-{number}" for number in range(200)]
        for name in (self.name, self.aac_name):
            self.publish("1.1", name=name)
        self.publish("1.2", rollout="50%")
        self.publish("1.3", rollout="50%", name=self.aac_name)
        server = self.start()
        pairs = set(zip(self.offered(server, ids), self.offered(server, ids, name=self.aac_name)))
        self.assertEqual({("1.1", "1.1"), ("1.1", "1.3"), ("1.2", "1.1"), ("1.2", "1.3")}, pairs)

    def test_without_a_staged_release_all_get_the_same(self):
        self.publish("1.1")
        server = self.start()
        self.assertEqual(["1.1"] * 20, self.offered(server, range(20)))

    def test_channel_has_its_own_reply_and_share(self):
        ids = [f"nas-{number}" for number in range(200)]
        self.publish("1.1")
        self.publish("1.2", channel="beta")
        self.publish("1.3", channel="beta", rollout="50%")
        channel = (
            "location = /packs/reply@beta.json { try_files /packs/$orbamira_reply_beta =404; }\n  location = /packs/r"
        )
        self.server_text = self.server_text.replace("location = /packs/r", channel)
        server = self.start()
        self.assertEqual({"1.1"}, set(self.offered(server, ids)))
        self.assertEqual({"1.2", "1.3"}, set(self.offered(server, ids, "/packs/reply@beta.json")))

    def test_cache_chooses_before_it_keeps(self):
        ids = [f"nas-{number}" for number in range(100)]
        self.publish("1.1")
        self.publish("1.2", rollout="50%")
        origin = self.enterContext(
            Nginx(
                self.top / "origin",
                "  log_format asked '$uri';\n"
                f"  server {{ listen LISTEN; root {self.top}/srv; access_log access.log asked; expires 1d; }}",
            )
        )
        replaced = {"/var/cache/nginx/packs": f"{self.top}/kept", "https://origin.example.com": origin.url}
        cache = self.enterContext(Nginx(self.top / "cache", self.configured(self.cache_text, **replaced)))
        expected = self.offered(self.start(), ids)
        self.assertEqual({"1.1", "1.2"}, set(expected))
        for _ in range(2):
            self.assertEqual(expected, self.offered(cache, ids))
        self.assertEqual(["/packs/reply.json", f"/packs/reply+{self.name}-1.2.json"], sorted(origin.log())[::-1])
        # Withdrawn before the cache has ever kept it: everyone is given the reply for all.
        self.publish("1.3")
        self.publish("1.4", rollout="50%")
        later = self.enterContext(
            Nginx(self.top / "later", self.configured(self.cache_text, **{**replaced, "/kept": "/kept-later"}))
        )
        self.mkpack("withdraw", self.name, "1.4", "--output", self.packs)
        self.assertEqual({"1.3"}, set(self.offered(later, ids)))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    RolloutTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
