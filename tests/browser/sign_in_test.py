"""A person signs an appliance in with a real browser, at a provider that has a page of its own for it.

usage: sign_in_test.py --build BUILD
"""

import argparse
import contextlib
import http.server
import json
import pathlib
import subprocess
import sys
import tempfile
import threading
import unittest
import urllib.parse

from selenium.webdriver.common.by import By
from selenium.webdriver.support import expected_conditions
from selenium.webdriver.support.wait import WebDriverWait

from browser import PATIENCE, open_browser, save_screenshot

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance  # noqa: E402


@contextlib.contextmanager
def serve(pages):
    """Serves pages, by their paths, on a port of loopback; gives the address."""

    class Handler(http.server.BaseHTTPRequestHandler):
        def do_GET(self):
            page = pages.get(self.path, "").encode()
            self.send_response(200 if page else 404)
            self.send_header("Content-Type", "text/html; charset=utf-8")
            self.send_header("Content-Length", str(len(page)))
            self.end_headers()
            self.wfile.write(page)

        def log_message(self, *_):
            pass

    with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
        threading.Thread(target=server.serve_forever, daemon=True).start()
        yield f"http://127.0.0.1:{server.server_address[1]}"
        server.shutdown()


class SignInTest(unittest.TestCase):
    arguments = None

    def setUp(self):
        folder = pathlib.Path(self.enterContext(tempfile.TemporaryDirectory()))
        self.appliance = Appliance.lay_out(folder / "root", self.arguments.build)
        self.account = self.appliance.settings / "account.json"
        provider = self.enterContext(
            subprocess.Popen(
                [pathlib.Path(self.arguments.build) / "tests/oidc_provider", "--login"],
                stdin=subprocess.PIPE,
                stdout=subprocess.PIPE,
                text=True,
            )
        )
        self.issuer = provider.stdout.readline().strip()

    @contextlib.contextmanager
    def sign_in(self):
        """A sign-in that waits; gives its process and the address."""
        command = [self.appliance.program("packctl"), "account", "sign-in", "--json", "--issuer", self.issuer]
        with subprocess.Popen(
            command, env=self.appliance.environment(), stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        ) as process:
            try:
                yield process, json.loads(process.stdout.readline())["address"]
            finally:
                process.terminate()

    @staticmethod
    def heading(browser, text):
        WebDriverWait(browser, PATIENCE).until(
            expected_conditions.text_to_be_present_in_element((By.TAG_NAME, "h1"), text)
        )

    def sign_in_at(self, browser, address):
        """Goes to the address and does what a person does there."""
        browser.get(address)
        self.heading(browser, "Example accounts")
        browser.find_element(By.ID, "user").send_keys("ada")
        browser.find_element(By.TAG_NAME, "button").click()

    def assert_no_complaints(self, browser):
        """The browser found nothing wrong with our page: its style is let in, and nothing else is asked for."""
        complaints = [entry for entry in browser.get_log("browser") if "favicon.ico" not in entry["message"]]
        self.assertEqual(complaints, [])

    def test_a_person_signs_in(self):
        for scheme in ("light", "dark"):
            with self.subTest(scheme), open_browser(color_scheme=scheme) as browser, self.sign_in() as (
                packctl,
                address,
            ):
                browser.get(address)
                self.heading(browser, "Example accounts")
                save_screenshot(browser, f"sign_in_{scheme}_1_provider")
                self.sign_in_at(browser, address)
                self.heading(browser, "You are signed in")
                save_screenshot(browser, f"sign_in_{scheme}_2_done")
                self.assertEqual(browser.find_element(By.TAG_NAME, "p").text, "This window may be closed.")
                self.assertLess(browser.find_element(By.TAG_NAME, "main").size["width"], 700, "the style is in force")
                self.assert_no_complaints(browser)
                self.assertEqual(packctl.wait(PATIENCE), 0, packctl.stderr.read())
                self.assertEqual(json.loads(packctl.stdout.read())["user_id"], "user")
                self.assertEqual(json.loads(self.account.read_text())["issuer"], self.issuer)
        self.appliance.expect("account", "status")

    def test_a_narrow_window_shows_the_whole_page(self):
        with open_browser(width=360, height=640) as browser, self.sign_in() as (_, address):
            self.sign_in_at(browser, address)
            self.heading(browser, "You are signed in")
            save_screenshot(browser, "sign_in_narrow")
            self.assertLessEqual(browser.execute_script("return document.documentElement.scrollWidth"), 360)

    def test_a_failure_is_told_in_the_browser(self):
        with open_browser() as browser, self.sign_in() as (packctl, address):
            self.account.write_text('{"user_id": "somebody else", "issuer": "%s"}' % self.issuer)
            self.account.chmod(0o600)
            self.sign_in_at(browser, address)
            self.heading(browser, "You are not signed in")
            save_screenshot(browser, "sign_in_failed")
            told = browser.find_element(By.TAG_NAME, "p").text
            self.assertTrue(told.startswith("Another account is signed in, somebody else of "), told)
            self.assertEqual(packctl.wait(PATIENCE), 1)
            said = packctl.stderr.read()
            self.assertTrue(said.startswith(f"packctl: {told}"), said)

    def test_the_page_of_an_attacker_changes_nothing(self):
        with open_browser() as browser, self.sign_in() as (packctl, address):
            callback = packctl_callback(address)
            attacks = "".join(
                f'<img src="{callback}{query}" alt="">'
                for query in ("", "?code=theirs&state=guessed", "?error=access_denied&state=guessed")
            )
            attacks += (
                f'<form id="form" method="post" target="frame" action="{callback}?code=theirs&state=guessed">'
                f'</form><iframe name="frame" src="{callback}?code=theirs&state=guessed"></iframe>'
                "<script>document.getElementById('form').submit()</script>"
            )
            with serve(
                {
                    "/": f"<!doctype html><title>Holidays</title><h1>Holidays</h1>{attacks}",
                    "/away": f'<!doctype html><meta http-equiv="refresh" content="0;url={callback}?code=a&state=b">',
                }
            ) as attacker:
                browser.get(attacker)
                self.heading(browser, "Holidays")
                browser.get(attacker + "/away")
                self.heading(browser, "Nothing for you here")
                save_screenshot(browser, "sign_in_attacked")
            self.assertIsNone(packctl.poll(), "it goes on waiting")
            self.assertFalse(self.account.exists())
            self.sign_in_at(browser, address)
            self.heading(browser, "You are signed in")
            self.assertEqual(packctl.wait(PATIENCE), 0)


def packctl_callback(address):
    """Where the answer is awaited; an attacker finds it by trying every port."""
    return urllib.parse.parse_qs(urllib.parse.urlsplit(address).query)["redirect_uri"][0]


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    SignInTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
