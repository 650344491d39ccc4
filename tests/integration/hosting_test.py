"""The nginx configurations of docs/hosting.md, with real appliances: the server of the files and the cache before it.

usage: hosting_test.py --build BUILD
"""

import argparse
import json
import os
import pathlib
import re
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Paths, make_pack, mkpack_of  # noqa: E402
from nginx import Nginx  # noqa: E402

# Far more than anything here takes.
PATIENCE = 600

LOG = """\
  include /etc/nginx/mime.types;
  log_format asked '$request_method $uri $status $http_range $upstream_cache_status';
  access_log access.log asked;
"""


class Server(Nginx):
    """nginx with a configuration of the page, whose places and names are replaced."""

    def __init__(self, folder, text, replaced):
        # The certificates are the machine's own.
        text = re.sub(r"^ *ssl_certificate.*\n", "", text, flags=re.MULTILINE)
        for there, here in {**replaced, "listen 443 ssl": "listen LISTEN"}.items():
            if there not in text:
                raise ValueError(f"{there} is not in the configuration")
            text = text.replace(there, here)
        super().__init__(folder, LOG + text)

    def asked(self, path):
        """The requests for the path that were answered, as "METHOD STATUS RANGE CACHE"."""
        lines = [line.split(" ") for line in self.log()]
        return [" ".join([method, *rest]) for method, uri, *rest in lines if uri == path]


def get(address, **headers):
    """Status, headers and body."""
    request = urllib.request.Request(address, headers={name.replace("_", "-"): text for name, text in headers.items()})
    try:
        with urllib.request.urlopen(request, timeout=PATIENCE) as answer:
            return answer.status, answer.headers, answer.read()
    except urllib.error.HTTPError as error:
        return error.code, error.headers, error.read()


class HostingTest(unittest.TestCase):
    arguments = None

    def setUp(self):
        self.top = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.top.chmod(0o755)
        page = (SOURCE / "docs/hosting.md").read_text()
        self.origin_text, self.cache_text = re.findall(r"^```nginx\n(.*?)^```$", page, re.MULTILINE | re.DOTALL)
        self.packs = self.top / "srv/packs"
        self.origin = self.start_origin("origin", 300)

    def start_origin(self, name, max_age):
        return self.enterContext(
            Server(
                self.top / name,
                self.origin_text,
                {"root /srv;": f"root {self.top}/srv;", "max-age=300": f"max-age={max_age}"},
            )
        )

    def start_cache(self):
        return self.enterContext(
            Server(
                self.top / "cache",
                self.cache_text,
                {"/var/cache/nginx/packs": f"{self.top}/kept", "https://origin.example.com": self.origin.url},
            )
        )

    def publish(self, address, version):
        """Publishes for this address; returns the package's path on the server."""
        payload = self.top / f"payload-{version}"
        payload.mkdir()
        (payload / "libdecoder.so").write_text(version * 1000)
        make_pack(self.arguments.build, payload, self.packs, version, address + "/packs")
        reply = json.loads((self.packs / "reply.json").read_text())
        return reply[Paths(self.arguments.build).hevc_pack]["link"].removeprefix(address)

    def appliance(self, name, address):
        appliance = Appliance.lay_out(self.top / name, self.arguments.build)
        appliance.identify(name)
        appliance.use_server(address + "/packs/reply.json")
        return appliance

    def test_server_gives_what_appliances_need(self):
        path = self.publish(self.origin.url, "1.0")
        appliance = self.appliance("one", self.origin.url)
        appliance.expect("check")
        appliance.expect("update")
        self.assertEqual(["GET 200 - -"], self.origin.asked(path))
        self.assertEqual(["GET 200 - -"] * 2, self.origin.asked("/packs/reply.json"))

    def test_server_says_what_caches_may_keep(self):
        path = self.publish(self.origin.url, "1.0")
        status, headers, body = get(self.origin.url + "/packs/reply.json?unique=a", Accept_Encoding="gzip")
        self.assertEqual(
            (200, "public, max-age=300", "application/json"),
            (status, headers["Cache-Control"], headers["Content-Type"]),
        )
        self.assertEqual((self.packs / "reply.json").read_bytes(), body)
        self.assertEqual(304, get(self.origin.url + "/packs/reply.json", If_None_Match=headers["ETag"])[0])
        status, headers, _ = get(self.origin.url + path, Accept_Encoding="gzip")
        self.assertEqual(
            (200, "public, max-age=31536000, immutable", "application/octet-stream", None),
            (status, headers["Cache-Control"], headers["Content-Type"], headers["Content-Encoding"]),
        )

    def test_server_lets_cut_transfers_go_on(self):
        path = self.publish(self.origin.url, "1.0")
        whole = (self.packs / pathlib.Path(path).name).read_bytes()
        for address in (self.origin.url, self.start_cache().url):
            with self.subTest(address):
                tag = get(address + path)[1]["ETag"]
                status, headers, body = get(address + path, Range="bytes=100-", If_Range=tag)
                self.assertEqual((206, whole[100:]), (status, body))
                self.assertEqual(f"bytes 100-{len(whole) - 1}/{len(whole)}", headers["Content-Range"])
                self.assertEqual(200, get(address + path, Range="bytes=100-", If_Range='"other"')[0])

    def test_server_hides_unfinished_work(self):
        self.publish(self.origin.url, "1.0")
        (self.packs / ".mkpack.abc").mkdir()
        (self.packs / ".mkpack.abc/package.opk").write_text("")
        for name in (".reply.json.lock", ".mkpack.abc/package.opk", ""):
            self.assertIn(get(f"{self.origin.url}/packs/{name}")[0], (403, 404), name)

    def test_mkpack_finds_nothing_wrong_with_either(self):
        for server in (self.origin, self.start_cache()):
            self.publish(server.url, "1.0" if server is self.origin else "2.0")
            done = subprocess.run(
                [mkpack_of(self.arguments.build), "verify", "--json", "--url", server.url + "/packs/reply.json"],
                check=True,
                stdout=subprocess.PIPE,
                env={**os.environ, "no_proxy": "*"},
            )
            self.assertEqual(
                [
                    f"{Paths(self.arguments.build).hevc_aac_pack} is not offered: appliances that ask for it find "
                    "nothing new, and log a failed check"
                ],
                json.loads(done.stdout)["notes"],
            )

    def test_cache_asks_once_for_all_appliances(self):
        cache = self.start_cache()
        path = self.publish(cache.url, "1.0")
        for name in ("one", "two", "three"):
            appliance = self.appliance(name, cache.url)
            appliance.expect("check")
            appliance.expect("update")
        for asked in ("/packs/reply.json", path):
            self.assertEqual(1, len(self.origin.asked(asked)), asked)
        self.assertEqual(6, len(cache.asked("/packs/reply.json")))
        self.assertEqual(3, len(cache.asked(path)))

    def until(self, condition):
        end = time.monotonic() + PATIENCE
        while not condition():
            self.assertLess(time.monotonic(), end, "it takes too long")
            time.sleep(0.1)

    def test_cache_finds_a_release_when_the_reply_has_aged(self):
        self.origin = self.start_origin("hasty", 1)
        cache = self.start_cache()
        path = self.publish(cache.url, "1.0")
        # The entity tag has the time in seconds: a release within the same one would go unnoticed.
        os.utime(self.packs / "reply.json", (1_000_000_000, 1_000_000_000))
        appliance = self.appliance("one", cache.url)
        appliance.expect("update")
        self.publish(cache.url, "2.0")
        self.until(lambda: appliance.packctl("check").returncode == 0)
        appliance.expect("update")
        self.assertIn('version="2.0"', (appliance.pack / "INFO").read_text())
        self.assertEqual(200, get(cache.url + path)[0], "the old package is still there")

    def test_cache_gives_the_old_reply_while_the_server_is_down(self):
        self.origin = self.start_origin("hasty", 1)
        cache = self.start_cache()
        self.publish(cache.url, "1.0")
        appliance = self.appliance("one", cache.url)
        appliance.expect("check")
        self.origin.__exit__()

        def stale():
            appliance.expect("check")
            return cache.asked("/packs/reply.json")[-1] == "GET 200 - STALE"

        self.until(stale)


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    HostingTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
