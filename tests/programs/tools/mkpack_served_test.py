"""mkpack verify --url: a web server with one fault, and what is found of it."""

import http.server
import json
import os
import ssl
import threading
import unittest

import words
from authority import Authority
from verify_test_case import AAC, BASE, HEVC, PublishedTest


class Misbehaving(http.server.SimpleHTTPRequestHandler):
    """Serves files with all that appliances need, but for what its server's `faults` say."""

    protocol_version = "HTTP/1.1"

    def log_message(self, *_):
        pass

    def do_HEAD(self):
        self.send_error(405) if "no HEAD" in self.server.faults else self.answer(False)

    def do_GET(self):
        self.answer(True)

    def answer(self, with_body):
        faults = self.server.faults
        path, _, query = self.path.partition("?")
        file = self.server.folder / path.removeprefix("/packs/")
        package = path.endswith(".opk")
        if ("package away" in faults and package) or ("reply away" in faults and not package):
            self.send_error(404)
            return
        if "redirect" in faults and package and "/moved/" not in path:
            self.send_response(302)
            self.send_header("Location", path.replace("/packs/", "/packs/moved/"))
            self.send_header("Content-Length", "0")
            self.end_headers()
            return
        body = (self.server.folder / file.name).read_bytes()
        if "by query" in faults and not package:
            body += b" " * (1 + query.count("mkpack-2"))
        if "short" in faults and package:
            body = body[:-1]
        tag = self.headers.get("If-Range", '"tag"')
        part = (
            package
            and "Range" in self.headers
            and "no ranges" not in faults
            and (tag == '"tag"' or "no If-Range" in faults)
        )
        self.send_response(206 if part else 200)
        if part:
            self.send_header("Content-Range", f"bytes 0-0/{len(body)}")
            body = body[:1]
        if "compressed" in faults and package:
            self.send_header("Content-Encoding", "gzip")
        if "no validator" not in faults:
            self.send_header("ETag", 'W/"tag"' if "weak tag" in faults else '"tag"')
        if "no Cache-Control" not in faults:
            age = "31536000, immutable" if package else "100000" if "old" in faults else "300"
            self.send_header("Cache-Control", f"public, max-age={age}")
        self.send_header("Content-Type", "text/html" if "html" in faults else "application/json")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if with_body:
            self.wfile.write(body)


class VerifyServedTest(PublishedTest):
    def setUp(self):
        super().setUp()
        self.server = self.enterContext(http.server.ThreadingHTTPServer(("127.0.0.1", 0), Misbehaving))
        self.server.folder, self.server.faults = self.folder, ()
        threading.Thread(target=self.server.serve_forever, daemon=True).start()
        self.addCleanup(self.server.shutdown)
        self.base = f"http://127.0.0.1:{self.server.server_address[1]}/packs"
        self.reply.write_text(self.reply.read_text().replace(BASE, self.base))
        self.link = f"{self.base}/{self.file.name}"

    def ask(self, *faults, url=None, **environment):
        self.server.faults = faults
        url = url or self.base + "/reply.json"
        done = self.run_verify("--json", "--url", url, env={**os.environ, "no_proxy": "*", **environment})
        self.assertEqual("", done.stderr)
        report = json.loads(done.stdout)
        self.assertEqual(done.returncode, 1 if report["findings"] else 0)
        self.assertEqual(url, report["url"])
        return report

    def assert_served(self, fault, *problems):
        """With this fault these are the findings, for each of both packs where they are about packages."""
        found = self.ask(fault)["findings"]
        self.assertEqual(sorted(problems), sorted({each["problem"] for each in found}))

    def assert_packages(self, fault, problem):
        links = [self.members()[name]["link"] for name in (HEVC, AAC)]
        self.assert_served(fault, *(link + " " + problem for link in links))

    def test_finds_nothing_where_all_is_right(self):
        report = self.ask()
        self.assertEqual(([], []), (report["findings"], report["notes"]))
        self.assertEqual({"version": "1.2", "link": self.link}, report["packs"][HEVC])

    def test_follows_redirects(self):
        self.assertEqual([], self.ask("redirect")["findings"])

    def test_redirect_to_what_is_not_protected(self):
        class Redirecting(http.server.BaseHTTPRequestHandler):
            def do_GET(handler):
                handler.send_response(302)
                handler.send_header("Location", self.base + handler.path)
                handler.end_headers()

            def log_message(self, *_):
                pass

        certificate = Authority(self.top).issue("server", "ca", "subjectAltName=IP:127.0.0.1")
        context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
        context.load_cert_chain(certificate, self.top / "server.key")
        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Redirecting) as server:
            server.socket = context.wrap_socket(server.socket, server_side=True)
            threading.Thread(target=server.serve_forever, daemon=True).start()
            self.addCleanup(server.shutdown)
            url = f"https://127.0.0.1:{server.server_address[1]}/reply.json"
            found = self.ask(url=url, SSL_CERT_FILE=str(self.top / "ca.pem"))["findings"]
            self.assertEqual(1, len(found), found)
            self.assertRegex(found[0]["problem"], f"^{url} leads to {self.base}/reply.json.*, which is not protected$")
            found = self.ask(url=url, SSL_CERT_FILE=str(self.top / "none.pem"))["findings"]
            self.assertEqual(1, len(found), found)
            self.assertIn("certificate verify failed", found[0]["problem"])

    def test_reply_that_cannot_be_had(self):
        self.assert_served("reply away", f"{self.base}/reply.json answers with status 404, so each check fails")
        self.server.shutdown()
        self.server.server_close()
        found = self.ask()["findings"]
        self.assertEqual(1, len(found))
        self.assertIn("cannot be reached: ", found[0]["problem"])

    def test_reply_that_no_appliance_takes(self):
        self.reply.write_text("<html>")
        self.assert_served("", f"no appliance takes it, since it is not valid JSON: {words.json_error('<html>')}")

    def test_reply_that_caches_keep_too_long(self):
        self.assert_served("old", "caches may keep it for 100000 seconds, so long nobody sees a release")

    def test_reply_with_a_fault(self):
        self.change(checksum=None)
        self.assert_served("", "its checksum None is no SHA-256 or SHA-512, and without one no appliance installs it")

    def test_packages_that_cannot_be_had(self):
        self.assert_packages("package away", "answers with status 404")
        self.change(link="http://127.0.0.1:1/x.opk")
        found = self.ask()["findings"]
        self.assertEqual([HEVC], [each["about"] for each in found])
        self.assertIn("http://127.0.0.1:1/x.opk cannot be reached: ", found[0]["problem"])

    def test_packages_of_another_size(self):
        size = self.file.stat().st_size
        self.assert_packages("short", f"has {size - 1} bytes, and the reply says {size}")

    def test_packages_that_are_compressed(self):
        self.assert_packages("compressed", "is compressed on the way")

    def test_packages_that_cannot_be_resumed(self):
        self.assert_packages("no ranges", "is given without ranges, so a cut download begins anew")
        tag = "has neither a strong ETag nor Last-Modified, so a cut download begins anew"
        self.assert_packages("no validator", tag)
        self.assert_packages("weak tag", tag)
        self.assert_packages(
            "no If-Range", "is given in part although If-Range names another, so a download may become a mixture"
        )

    def test_notes(self):
        self.assertEqual(
            ["the reply depends on the query, so no cache can give it to all appliances"], self.ask("by query")["notes"]
        )
        self.assertEqual(
            ["the reply has the type text/html, which is application/json by right"], self.ask("html")["notes"]
        )
        notes = self.ask("no Cache-Control")["notes"]
        self.assertEqual("the reply has no Cache-Control: caches keep it for as long as they think fit", notes[0])
        self.assertIn(
            f"{self.link} may be kept for ever, and does not say so: Cache-Control: public, "
            "max-age=31536000, immutable",
            notes,
        )
        self.assertIn(
            f"{self.link} answers HEAD with status 405: packctl doctor learns no size from it",
            self.ask("no HEAD")["notes"],
        )


if __name__ == "__main__":
    unittest.main()
