#!/usr/bin/env python3
"""The example plugin that reports which release an appliance has, with a real server: what arrives there, byte for
byte, and what happens when it does not arrive."""

import argparse
import http.server
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import threading
import unittest

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import SOURCE, Appliance, Publisher  # noqa: E402
from nginx import Nginx  # noqa: E402

EXAMPLE = SOURCE / "examples/report-release"
PAGE = (SOURCE / "docs/reporting.md").read_text()


def block(kind):
    """The block of this kind on the page."""
    (text,) = re.findall(rf"^```{kind}\n(.*?)^```$", PAGE, re.MULTILINE | re.DOTALL)
    return text


class Receiver(http.server.ThreadingHTTPServer):
    """Keeps each request as its bytes came, and answers with the statuses that it is given, then with 204."""

    def __init__(self):
        class Handler(http.server.BaseHTTPRequestHandler):
            def log_message(self, *_):
                pass

            def do_POST(self):
                head = self.raw_requestline + b"".join(f"{k}: {v}\r\n".encode() for k, v in self.headers.items())
                body = self.rfile.read(int(self.headers["Content-Length"]))
                self.server.requests.append((head + b"\r\n" + body).decode())
                self.send_response(self.server.statuses.pop(0) if self.server.statuses else 204)
                self.end_headers()

        super().__init__(("127.0.0.1", 0), Handler)
        self.requests, self.statuses = [], []
        self.host = f"127.0.0.1:{self.server_address[1]}"
        threading.Thread(target=self.serve_forever, daemon=True).start()

    def __exit__(self, *_):
        self.shutdown()
        self.server_close()


class ReportingTest(unittest.TestCase):
    build = None

    def setUp(self):
        self.folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory(prefix="report-")))
        self.receiver = self.enterContext(Receiver())
        self.publisher = self.enterContext(Publisher(self.folder / "published", self.build))
        self.packs = {}
        self.appliance = self.lay_out("root")

    def lay_out(self, name):
        appliance = Appliance.lay_out(self.folder / name, self.build)
        plugin = appliance.plugins / "80-report-release"
        shutil.copy(EXAMPLE / "report-release", plugin)
        (appliance.settings / "report.conf").write_text(f'report_address="http://{self.receiver.host}/reports"\n')
        return appliance

    def install(self, version, appliance=None):
        appliance = appliance or self.appliance
        self.packs[version] = self.packs.get(version) or self.publisher.publish(version, 1)
        appliance.use_server(self.packs[version])
        appliance.expect("update")

    def send(self, appliance=None):
        appliance = appliance or self.appliance
        return appliance.run(appliance.plugins / "80-report-release", "--send")

    def expect_sent(self, appliance=None):
        done = self.send(appliance)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))

    def due(self, appliance=None):
        return sorted(path.name for path in (appliance or self.appliance).state_folder.glob("report-due*"))

    def versions(self):
        return re.findall(r"&version=(\S+) ", "".join(self.receiver.requests))

    def test_what_is_sent_is_what_the_page_says(self):
        self.install("1.0")
        self.assertEqual((self.receiver.requests, self.due()), ([], ["report-due"]))
        self.expect_sent()
        (request,) = self.receiver.requests
        identity = re.search(r"id=([0-9a-f]{32})&", request)[1]
        expected = block("http").rstrip("\n").replace("\n", "\r\n") + "\r\n\r\n"
        for there, here in (
            ("5f0c1e9a7b3d4826a1c0de55b7f49e02", identity),
            ("reports.example.com", self.receiver.host),
            ("orbamira-hevc", self.appliance.paths.hevc_pack),
            ("version=1.2.0", "version=1.0"),
        ):
            self.assertIn(there, expected)
            expected = expected.replace(there, here)
        self.assertEqual(request, expected)
        self.assertEqual(self.due(), [])
        self.expect_sent()
        self.assertEqual(len(self.receiver.requests), 1)

    def test_the_id_is_random_and_stays(self):
        other = self.lay_out("other")
        for appliance in (self.appliance, other):
            for version in ("1.0", "2.0"):
                self.install(version, appliance)
                self.expect_sent(appliance)
        ids = re.findall(r"id=(\w+)&", "".join(self.receiver.requests))
        self.assertEqual((ids[0], ids[2]), (ids[1], ids[3]))
        self.assertNotEqual(ids[0], ids[2])
        file = self.appliance.state_folder / "report-id"
        self.assertEqual(file.stat().st_mode & 0o777, 0o600)
        file.unlink()
        self.install("3.0")
        self.expect_sent()
        self.assertNotIn(f"id={ids[0]}&", self.receiver.requests[-1])

    def test_a_server_that_is_busy_is_asked_again(self):
        self.install("1.0")
        self.receiver.statuses = [503]
        self.assertEqual(self.send().returncode, 0)
        self.assertEqual(self.versions(), ["1.0", "1.0"])

    def test_what_did_not_arrive_waits_for_the_next_time(self):
        self.install("1.0")
        self.receiver.statuses = [404]
        done = self.send()
        self.assertNotEqual(done.returncode, 0)
        self.assertIn("404", done.stderr)
        self.assertEqual(self.due(), ["report-due.sending"])
        self.expect_sent()
        self.assertEqual((self.versions(), self.due()), (["1.0", "1.0"], []))

    def test_only_the_newest_is_reported(self):
        self.install("1.0")
        self.receiver.statuses = [404]
        self.send()
        self.install("2.0")
        self.expect_sent()
        self.assertEqual((self.versions(), self.due()), (["1.0", "2.0"], []))

    def test_after_a_week_it_gives_up(self):
        self.install("1.0")
        subprocess.run(["touch", "-d", "9 days ago", self.appliance.state_folder / "report-due"], check=True)
        self.expect_sent()
        self.assertEqual((self.receiver.requests, self.due()), ([], []))

    def test_without_an_address_nothing_is_noted(self):
        (self.appliance.settings / "report.conf").unlink()
        self.install("1.0")
        self.assertEqual(list(self.appliance.state_folder.glob("report*")), [])
        (self.appliance.state_folder / "report-due").write_text("pack=a&version=1\n")
        self.expect_sent()
        self.assertEqual((self.receiver.requests, self.due()), ([], []))

    def test_it_holds_up_no_update_and_has_no_application(self):
        self.receiver.shutdown()  # nobody answers
        self.install("1.0")
        self.assertEqual(self.due(), ["report-due"])
        plugins = self.appliance.packctl("plugins")
        self.assertEqual((plugins.returncode, plugins.stdout), (0, "No plugin is registered.\n"))
        threading.Thread(target=self.receiver.serve_forever, daemon=True).start()

    def test_names_that_do_not_belong_into_an_address(self):
        plugin = self.appliance.plugins / "80-report-release"
        for name in ("a&id=1 HTTP/1.1\r\nX: 1", "$(touch x)"):
            self.appliance.run(
                plugin, *("--event", "install", "--package", name, "--timing", "post", "--version", "1 0&x=%\n")
            )
            self.assertRegex((self.appliance.state_folder / "report-due").read_text(), r"^pack=[\w.+-]+&version=10x\n$")

    def test_nginx_counts_appliances(self):
        text = block("nginx").replace("listen 443 ssl", "listen LISTEN").replace("/var/log/nginx/", "")
        text = re.sub(r"^ *ssl_certificate.*\n", "", text, flags=re.MULTILINE)
        nginx = self.enterContext(Nginx(self.folder / "nginx", text))
        other = self.lay_out("other")
        for appliance, versions in ((self.appliance, ("1.0", "2.0")), (other, ("1.0",))):
            (appliance.settings / "report.conf").write_text(f'report_address="{nginx.url}/reports"\n')
            for version in versions:
                self.install(version, appliance)
                self.expect_sent(appliance)
        (count,) = re.findall(r"^(awk .*)$", PAGE, re.MULTILINE)
        done = subprocess.run(
            ["sh", "-c", count.replace("/var/log/nginx/", "")],
            cwd=nginx.folder,
            capture_output=True,
            text=True,
            check=True,
        )
        pack = self.appliance.paths.hevc_pack
        self.assertEqual([line.split() for line in done.stdout.splitlines()], [["1", pack, "1.0"], ["1", pack, "2.0"]])
        log = (nginx.folder / "reports.log").read_text()
        self.assertNotIn("127.0.0.1", log)

    @unittest.skipUnless(shutil.which("systemd-analyze"), "without systemd-analyze")
    def test_systemd_understands_its_units(self):
        for path in EXAMPLE.glob("orbamira-report.*"):
            text = path.read_text().replace("/usr/lib/orbamira/plugins/80-report-release", "/bin/true")
            (self.folder / path.name).write_text(text)
        done = subprocess.run(
            ["systemd-analyze", "verify", "--man=no", "--recursive-errors=no", *self.folder.glob("orbamira-report.*")],
            env={**os.environ, "SYSTEMD_UNIT_PATH": f"{self.folder}:"},
            capture_output=True,
            text=True,
            check=False,
        )
        self.assertEqual((done.returncode, done.stdout + done.stderr), (0, ""))


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True, type=pathlib.Path)
    own, rest = parser.parse_known_args()
    ReportingTest.build = own.build
    unittest.main(argv=[sys.argv[0], *rest])
