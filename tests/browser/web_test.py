"""The page of "packctl web" in a real browser: what it shows, how it can be used, and what other sites cannot do.

usage: web_test.py --build BUILD
"""

import argparse
import contextlib
import functools
import http.client
import http.server
import itertools
import json
import os
import pathlib
import subprocess
import sys
import tempfile
import threading
import time
import unittest

from selenium.common.exceptions import StaleElementReferenceException
from selenium.webdriver.common.action_chains import ActionChains
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

from browser import PATIENCE, open_browser, save_screenshot

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402

WIDE, NARROW = 1000, 320

# The least contrast of any text that is to be seen, as WCAG computes it, and whose it is.
CONTRAST = """
function channels(color) { return color.match(/[\\d.]+/g).map(Number); }
function luminance(color) {
  const linear = (c) => c <= 0.04045 ? c / 12.92 : ((c + 0.055) / 1.055) ** 2.4;
  const [r, g, b] = channels(color).map((c) => linear(c / 255));
  return 0.2126 * r + 0.7152 * g + 0.0722 * b;
}
function background(element) {
  for (let at = element; at; at = at.parentElement) {
    const color = getComputedStyle(at).backgroundColor;
    if (channels(color)[3] !== 0) { return color; }
  }
  return "rgb(255, 255, 255)";
}
function contrast(one, other) {
  const [low, high] = [luminance(one), luminance(other)].sort((a, b) => a - b);
  return (high + 0.05) / (low + 0.05);
}
const found = [];
for (const element of document.querySelectorAll("body *")) {
  const own = [...element.childNodes].some((node) => node.nodeType === Node.TEXT_NODE && node.textContent.trim());
  if ((own || element.tagName === "INPUT") && element.checkVisibility()) {
    const what = `${element.tagName} ${element.id} ${element.textContent.slice(0, 30)}`;
    found.push([contrast(getComputedStyle(element).color, background(element)), what]);
  }
}
return found.sort((a, b) => a[0] - b[0])[0].concat(found.length);
"""


# Whose text is not to be seen whole: its box ends beyond the window or its card, or hides some of what is in it.
CUT = """
const cut = [];
for (const element of document.querySelectorAll("main *, header *")) {
  if (!element.textContent.trim() || !element.checkVisibility() || element.closest("thead")?.offsetWidth === 1) {
    continue;
  }
  const range = document.createRange();
  range.selectNodeContents(element);
  const card = (element.closest("section") ?? document.body).getBoundingClientRect();
  const text = range.getBoundingClientRect();
  if (text.right > card.right || text.left < card.left || element.scrollWidth > element.clientWidth + 1 &&
      getComputedStyle(element).display !== "inline") {
    cut.push(`${element.tagName} ${element.id} ${element.textContent.slice(0, 30)}`);
  }
}
return cut;
"""

# The short words of the history's table that do not stand in one line.
BROKEN_WORDS = """
const broken = [];
for (const cell of document.querySelectorAll("#history th, #history td:nth-of-type(1), #history td:last-of-type")) {
  if (cell.closest("thead")?.offsetWidth === 1) { continue; }
  const text = document.createTreeWalker(cell, NodeFilter.SHOW_TEXT).nextNode();
  for (const word of text.textContent.matchAll(/\\S+/g)) {
    const range = document.createRange();
    range.setStart(text, word.index);
    range.setEnd(text, word.index + word[0].length);
    if (new Set([...range.getClientRects()].map((box) => box.top)).size > 1) { broken.push(word[0]); }
  }
}
return broken;
"""


def memory_folder():
    """Where saving the record takes no time, so that progress is told of often however busy the disk; None without."""
    shared = "/dev/shm"
    usable = os.access(shared, os.W_OK) and not os.statvfs(shared).f_flag & os.ST_NOEXEC
    return shared if usable else None


class SlowPublisher(Publisher):
    """Sends a package in pieces with a pause behind each, in seconds."""

    PIECE = 32_768

    def __enter__(self):
        super().__enter__()
        publisher = self
        self.pause = 0
        self.requests = []

        class Handler(http.server.SimpleHTTPRequestHandler):
            def log_message(self, *_):
                publisher.requests.append(self.path)

            def copyfile(self, source, outputfile):
                while piece := source.read(publisher.PIECE):
                    outputfile.write(piece)
                    time.sleep(publisher.pause)

        self.server.RequestHandlerClass = functools.partial(Handler, directory=str(self.folder))
        return self


class Web:
    """A "packctl web" of the appliance."""

    def __init__(self, appliance, *arguments):
        self.process = subprocess.Popen(
            [appliance.program("packctl"), "web", "--json", *arguments],
            env=appliance.environment(),
            stdout=subprocess.PIPE,
            text=True,
        )
        started = json.loads(self.process.stdout.readline())
        self.address, self.token = started["address"], started["token"]
        self.link = f"{self.address}#token={self.token}"
        self.port = self.address.rsplit(":", 1)[1].rstrip("/")

    def stop(self):
        self.process.terminate()
        self.process.wait(PATIENCE)
        self.process.stdout.close()


class WebTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.publisher = cls.enterClassContext(SlowPublisher(pathlib.Path(cls.folder) / "served", cls.arguments.build))
        cls.addresses = {
            version: cls.publisher.publish(version, seed, (3_000_000, 500_000))
            for seed, version in enumerate(("1.0", "2.0"))
        }

    def setUp(self):
        root = self.enterContext(tempfile.TemporaryDirectory(dir=memory_folder() or self.folder))
        self.appliance = Appliance.lay_out(root, self.arguments.build)
        self.publisher.pause = 0
        self.publisher.requests.clear()
        self.web = None
        self.addCleanup(self.stop_web)

    def start_web(self, *arguments):
        self.web = Web(self.appliance, *arguments)
        return self.web

    def stop_web(self):
        if self.web is not None:
            self.web.stop()
            self.web = None

    def install(self, version):
        self.appliance.use_server(self.addresses[version])
        self.appliance.expect("update")

    def offer(self, version):
        self.appliance.use_server(self.addresses[version])
        self.appliance.expect("check")

    def hold_steps(self):
        """From now on each notification of an update waits for one call of the function that this gives."""
        go = self.appliance.root / "go"
        plugin = self.appliance.plugins / "10-wait"
        plugin.write_text(f"#!/bin/sh\nwhile ! rm '{go}' 2> /dev/null; do sleep 0.02; done\n")
        plugin.chmod(0o755)
        return lambda: go.write_text("")

    def await_that(self, browser, condition):
        """Waits until the condition gives something, and gives that."""
        # The page may put another element in place of one that is being looked at.
        wait = WebDriverWait(
            browser, PATIENCE, poll_frequency=0.05, ignored_exceptions=[StaleElementReferenceException]
        )
        return wait.until(lambda _: condition())

    def text(self, browser, name):
        return browser.find_element(By.ID, name).text

    def await_text(self, browser, name, part):
        self.await_that(browser, lambda: part in self.text(browser, name))

    def open_page(self, browser, address=None):
        browser.get(address or self.web.link)
        self.await_that(browser, lambda: browser.find_element(By.ID, "content").is_displayed())

    def state(self):
        with contextlib.closing(
            http.client.HTTPConnection("127.0.0.1", int(self.web.port), timeout=PATIENCE)
        ) as client:
            client.request("GET", "/api/state")
            return json.load(client.getresponse())

    def check_quiet(self, browser):
        """Nothing went wrong in the page, and it asked nobody but its own server."""
        loud = [entry for entry in browser.get_log("browser") if entry["level"] in ("WARNING", "SEVERE")]
        self.assertEqual(loud, [])
        asked = browser.execute_script("return performance.getEntriesByType('resource').map((entry) => entry.name)")
        self.assertTrue(asked)
        self.assertEqual([name for name in asked if not name.startswith((self.web.address, "data:"))], [])

    def test_begins_with_what_is_installed(self):
        self.install("1.0")
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.await_text(
                browser, "headline", f"Installed: {self.appliance.paths.hevc_pack} 1.0. The last update succeeded."
            )
            self.appliance.expect("remove")
            self.await_text(browser, "headline", "No codec pack is installed.")

    def test_shows_the_pack_the_offer_and_the_history(self):
        self.install("1.0")
        self.offer("2.0")
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "A new pack waits to be downloaded: version 2.0.")
            self.assertEqual(self.text(browser, "installed"), f"{self.appliance.paths.hevc_pack} 1.0")
            self.assertEqual(self.text(browser, "codecs"), "hevc")
            self.assertEqual(self.text(browser, "offer"), "version 2.0")
            self.assertFalse(browser.find_element(By.ID, "work").is_displayed())
            rows = browser.find_elements(By.CSS_SELECTOR, "#history tbody tr")
            self.assertEqual([row.find_elements(By.TAG_NAME, "td")[0].text for row in rows], ["check", "update"])
            self.appliance.expect("update")
            self.await_text(browser, "installed", f"{self.appliance.paths.hevc_pack} 2.0")
            self.await_that(browser, lambda: len(browser.find_elements(By.CSS_SELECTOR, "#history tbody tr")) == 3)
            self.assertEqual(self.text(browser, "offer"), "Nothing")
            self.check_quiet(browser)

    def test_a_running_update_moves_the_bar_and_the_steps(self):
        self.install("1.0")
        self.offer("2.0")
        go = self.hold_steps()
        self.start_web()
        self.publisher.pause = 0.2
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            browser.find_element(By.ID, "update").click()
            bar = browser.find_element(By.ID, "progress")
            # The record is saved the more seldom the longer that takes on this disk.
            values = [0]
            while len(values) < 3:
                values.append(
                    self.await_that(
                        browser, lambda: bar.get_property("value") > values[-1] and bar.get_property("value")
                    )
                )
            self.assertRegex(self.text(browser, "progress-text"), r"iB of 3\.\d MiB \(\d+ %\)")
            self.assertEqual(browser.find_elements(By.CSS_SELECTOR, "[aria-current]"), [])
            self.publisher.pause = 0
            for words in (
                "Telling applications that the old pack goes",
                "Moving the old pack aside",
                "The old pack is out of the way",
                "Unpacking the new pack and putting it in place",
            ):
                self.await_that(
                    browser,
                    lambda words=words: [
                        item.text for item in browser.find_elements(By.CSS_SELECTOR, "#steps [aria-current=step]")
                    ]
                    == [words],
                )
                self.assertIn(words.lower(), self.text(browser, "headline").lower())
                go()
            self.await_text(browser, "outcome", "Update: done.")
            self.await_text(browser, "installed", "2.0")
            self.await_that(browser, lambda: not browser.find_element(By.ID, "work").is_displayed())
            self.check_quiet(browser)

    def take_step(self, browser, go):
        go()
        self.await_that(browser, lambda: not (self.appliance.root / "go").exists())

    def focused(self, browser):
        return browser.switch_to.active_element.get_attribute("id")

    def tab_to(self, browser, name):
        for _ in range(10):
            if self.focused(browser) == name:
                return
            ActionChains(browser).send_keys(Keys.TAB).perform()
        self.fail(f"Tab does not lead to {name}")

    def test_checks_and_updates_by_keyboard_alone(self):
        self.install("1.0")
        self.appliance.use_server(self.addresses["2.0"])
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser, self.web.address)
            self.tab_to(browser, "check")
            self.assertNotEqual(browser.switch_to.active_element.value_of_css_property("outline-style"), "none")
            ActionChains(browser).send_keys(Keys.ENTER).perform()
            self.assertEqual(self.text(browser, "outcome"), "Not now: this takes the token.")
            self.assertIsNone(self.state()["action"])
            self.tab_to(browser, "token")
            ActionChains(browser).send_keys(self.web.token).key_down(Keys.SHIFT).send_keys(Keys.TAB, Keys.TAB).key_up(
                Keys.SHIFT
            ).perform()
            self.assertEqual(self.focused(browser), "check")
            ActionChains(browser).send_keys(Keys.ENTER).perform()
            self.await_text(browser, "outcome", "Check: a new pack is available.")
            self.await_text(browser, "update-why", "Fetches version 2.0")
            self.tab_to(browser, "update")
            ActionChains(browser).send_keys(Keys.SPACE).perform()
            self.await_text(browser, "outcome", "Update: done.")
            self.await_text(browser, "installed", "2.0")
            self.assertEqual(self.focused(browser), "update", "the place is not lost")
            self.check_quiet(browser)

    def test_tells_why_something_failed_or_is_refused(self):
        self.install("1.0")
        self.appliance.use_server(self.publisher.url + "/none.json")
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            browser.find_element(By.ID, "check").click()
            self.await_text(browser, "outcome", "Check: failed.")
            self.assertIn("404", self.text(browser, "outcome"))
            self.assertIn("The update server refuses the request.", self.text(browser, "outcome"))
            self.await_text(browser, "history", "The update server refuses the request.")
            self.await_text(browser, "history", "404")
            self.appliance.write_status('{"status": "install_failed"}')
            self.await_text(browser, "update-why", "Not now: the update is not permitted while the recorded status is")
            self.assertEqual(browser.find_element(By.ID, "update").get_attribute("aria-disabled"), "true")
            self.check_quiet(browser)
            token = browser.find_element(By.ID, "token")
            token.clear()
            token.send_keys("wrong")
            browser.find_element(By.ID, "check").click()
            self.await_text(browser, "outcome", "Refused: the token is wrong.")

    def test_keeps_the_token_out_of_sight(self):
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.assertEqual(browser.current_url, self.web.address)
            self.assertEqual(browser.find_element(By.ID, "token").get_attribute("value"), self.web.token)
            browser.refresh()
            self.await_that(
                browser, lambda: browser.find_element(By.ID, "token").get_attribute("value") == self.web.token
            )
            self.assertEqual(browser.execute_script("return [localStorage.length, document.cookie]"), [0, ""])
            browser.switch_to.new_window("tab")
            self.open_page(browser, self.web.address)
            self.assertEqual(browser.find_element(By.ID, "token").get_attribute("value"), "")

    def test_puts_in_what_comes_from_outside_as_text(self):
        markup = "<b id=planted>2.0</b><img src=x onerror=alert(1)>"
        self.appliance.write_status(
            json.dumps({"status": "need_install", "new_version": markup, "new_pack_name": markup})
        )
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.assertEqual(self.text(browser, "offer"), f"{markup} {markup}")
            self.assertEqual(browser.find_elements(By.ID, "planted"), [])
            self.check_quiet(browser)

    @contextlib.contextmanager
    def other_site(self, page):
        """A site that is not ours; gives its address."""

        class Handler(http.server.BaseHTTPRequestHandler):
            def do_GET(self):
                self.send_response(200)
                self.send_header("Content-Type", "text/html")
                self.end_headers()
                self.wfile.write(page.encode())

            def log_message(self, *_):
                pass

        with http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler) as server:
            threading.Thread(target=server.serve_forever, daemon=True).start()
            yield f"http://localhost:{server.server_address[1]}/"
            server.shutdown()

    def test_other_sites_can_do_nothing(self):
        self.install("1.0")
        self.appliance.use_server(self.addresses["2.0"])
        self.start_web()
        self.publisher.requests.clear()
        before = self.state()
        ours = self.web.address
        page = f"""<!DOCTYPE html><title>other</title>
            <iframe id="frame" src="{ours}"></iframe><iframe name="sink"></iframe>
            <form id="quiet" method="post" target="sink" action="{ours}api/update"></form>
            <form id="loud" method="post" enctype="text/plain" action="{ours}api/check"><input name="{{}}"></form>"""
        with self.other_site(page) as elsewhere, open_browser(width=WIDE) as browser:
            browser.get(elsewhere)
            attempts = {
                "simple": ["api/check", {"method": "POST", "mode": "no-cors", "body": "{}"}],
                "simple with cors": ["api/check", {"method": "POST", "body": "{}"}],
                "preflight": [
                    "api/update",
                    {
                        "method": "POST",
                        "body": "{}",
                        "headers": {"Content-Type": "application/json", "Authorization": f"Bearer {self.web.token}"},
                    },
                ],
                "read": ["api/state", {}],
                "read without cors": ["api/state", {"mode": "no-cors"}],
                "read the page": ["", {}],
            }
            for name, (path, options) in attempts.items():
                with self.subTest(name):
                    result = browser.execute_async_script(
                        "const done = arguments[2];"
                        "fetch(arguments[0], arguments[1]).then((r) => r.text()).then(done, (e) => done(e.name))",
                        ours + path,
                        options,
                    )
                    self.assertIn(result, ("TypeError", ""))
            browser.execute_script("document.getElementById('quiet').submit()")
            browser.switch_to.frame("frame")
            self.assertEqual(browser.find_elements(By.ID, "check"), [], "the page is framed")
            browser.switch_to.default_content()
            browser.execute_script("document.getElementById('loud').submit()")
            self.await_that(
                browser,
                lambda: "requests from other sites are refused" in browser.find_element(By.TAG_NAME, "body").text,
            )
            self.assertEqual(browser.current_url, f"{ours}api/check")
        self.assertEqual(self.state(), before)
        self.assertEqual(self.publisher.requests, [])

    def accessible_nodes(self, browser):
        """What a screen reader finds, in the order of the page."""
        nodes = {node["nodeId"]: node for node in browser.execute_cdp_cmd("Accessibility.getFullAXTree", {})["nodes"]}

        def walk(node):
            yield node
            for child in node.get("childIds", []):
                if child in nodes:
                    yield from walk(nodes[child])

        return list(walk(next(node for node in nodes.values() if "parentId" not in node)))

    def test_is_understood_without_being_seen(self):
        self.install("1.0")
        self.offer("2.0")
        go = self.hold_steps()
        self.start_web()
        with open_browser(width=NARROW) as browser:
            self.open_page(browser)
            browser.find_element(By.ID, "update").click()
            self.await_that(browser, lambda: browser.find_elements(By.CSS_SELECTOR, "#steps [aria-current=step]"))
            nodes = [node for node in self.accessible_nodes(browser) if not node["ignored"]]
            for _ in range(4):
                self.take_step(browser, go)

        def of_role(*roles):
            return [
                (
                    node["name"].get("value", "").strip(),
                    {each["name"]: each["value"].get("value") for each in node.get("properties", [])},
                )
                for node in nodes
                if node["role"]["value"] in roles
            ]

        self.assertEqual([name for name, _ in of_role("button")], ["Check for a new pack", "Download and install"])
        self.assertTrue(all(properties["disabled"] for _, properties in of_role("button")))
        self.assertEqual([name for name, _ in of_role("textbox")], ["Token"])
        self.assertEqual([name for name, _ in of_role("progressbar", "progressIndicator")], ["Download"])
        self.assertEqual([name for name, _ in of_role("table")], ["What was done, the newest first"])
        self.assertEqual(
            [name for name, _ in of_role("columnheader")],
            ["Time", "Command", "Result", "Pack before", "Pack after", "Took"],
        )
        self.assertEqual(len(of_role("rowheader")), 2)
        self.assertEqual([name for name, _ in of_role("region")], ["Under way", "Pack", "Actions", "History"])
        self.assertEqual(len(of_role("main")), 1)
        self.assertEqual([properties["live"] for _, properties in of_role("status")], ["polite", "polite"])
        levels = [properties["level"] for _, properties in of_role("heading")]
        self.assertEqual(levels, [1, 2, 3, 2, 2, 2])
        descriptions = [
            node.get("description", {}).get("value", "") for node in nodes if node["role"]["value"] == "button"
        ]
        self.assertEqual(descriptions, ["Not now: packctl update is at work."] * 2)

    def resize(self, browser, width, scale=1):
        """Gives the window this width and the height of what is in it."""
        metrics = {"width": width, "height": 800, "deviceScaleFactor": scale, "mobile": False}
        for _ in range(2):  # the second time without the scroll bar of the first
            browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)
            metrics["height"] = browser.execute_script("return Math.ceil(document.body.getBoundingClientRect().bottom)")
        browser.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", metrics)

    def check_looks(self, browser, name):
        for scheme in ("light", "dark"):
            browser.execute_cdp_cmd(
                "Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]}
            )
            for kind, width, scale in (("wide", WIDE, 1), ("narrow", NARROW, 1), ("zoomed", WIDE // 2, 2)):
                with self.subTest(name, scheme=scheme, kind=kind):
                    self.resize(browser, width, scale)
                    self.assertLessEqual(browser.execute_script("return document.documentElement.scrollWidth"), width)
                    least, whose, count = browser.execute_script(CONTRAST)
                    self.assertGreater(count, 20)
                    self.assertGreaterEqual(least, 4.5, whose)
                    if kind != "zoomed":
                        save_screenshot(browser, f"web-{name}-{scheme}-{kind}")

    def test_can_be_read_in_every_state_light_and_dark_wide_and_narrow(self):
        self.install("1.0")
        self.offer("2.0")
        go = self.hold_steps()
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.check_looks(browser, "idle")
            self.publisher.pause = 0.2
            browser.find_element(By.ID, "update").click()
            self.await_that(browser, lambda: browser.find_element(By.ID, "progress").get_property("value") > 5)
            self.check_looks(browser, "downloading")
            self.publisher.pause = 0
            for _ in range(2):
                self.take_step(browser, go)
            self.await_that(browser, lambda: browser.find_elements(By.CSS_SELECTOR, "#steps .past ~ .past"))
            self.check_looks(browser, "installing")
            for _ in range(2):
                self.take_step(browser, go)
            self.await_text(browser, "outcome", "Update: done.")
            self.appliance.use_server(self.publisher.url + "/none.json")
            browser.find_element(By.ID, "update").click()
            self.await_text(browser, "outcome", "Update: failed.")
            self.await_text(browser, "headline", "The last update failed.")
            self.check_looks(browser, "failed")
            self.check_quiet(browser)
            self.stop_web()
            self.await_text(browser, "connection", "lost")
            self.check_looks(browser, "lost")

    def write_long_history(self):
        """A year of daily updates that failed, with texts as long as the history keeps them, in endless words."""
        sentence = "The server was asked for http://192.0.2.1/" + "x" * 200 + " and answered with: "
        pack = {"package": "orbamira-hevc-aac", "version": "1.0.0-" + "9" * 80}
        entry = {
            "duration_ms": 3_599_000,
            "command": "update",
            "from": pack,
            "to": pack,
            "result": "not_permitted",
            "status": "download_install_failed",
            "exit": 1,
            "errors": [sentence + "<b>no</b> " * 25, "y" * 500, "a short one"],
        }
        now = int(time.time())
        path = self.appliance.state_folder / "history.jsonl"
        path.write_text("".join(json.dumps(entry | {"time": now - day * 86_400}) + "\n" for day in range(365, 0, -1)))

    def test_a_year_of_long_failures_fits_every_width(self):
        self.install("1.0")
        self.write_long_history()
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.await_that(browser, lambda: browser.find_elements(By.CSS_SELECTOR, "#history tbody tr"))
            for scheme, width in itertools.product(("light", "dark"), (320, 480, 768, 895, 897, 1000, 1440, 1920)):
                with self.subTest(scheme=scheme, width=width):
                    browser.execute_cdp_cmd(
                        "Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": scheme}]}
                    )
                    self.resize(browser, width)
                    visible, needed = browser.execute_script(
                        "const page = document.documentElement; return [page.clientWidth, page.scrollWidth];"
                    )
                    self.assertLessEqual(needed, visible)
                    self.assertEqual(browser.execute_script(CUT), [])
                    self.assertEqual(browser.execute_script(BROKEN_WORDS), [])
                    self.assertGreaterEqual(browser.execute_script(CONTRAST)[0], 4.5)
                    save_screenshot(browser, f"web-history-{scheme}-{width}")

    def test_moves_nothing_for_who_does_not_want_it(self):
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            moving = browser.execute_script(
                """
                const found = [];
                const look = (rules, media) => [...rules].forEach((rule) => {
                  if (/transition|animation|scroll-behavior/.test(rule.style?.cssText ?? "")) { found.push(media); }
                  if (rule.cssRules?.length) { look(rule.cssRules, rule.conditionText ?? media); }
                });
                [...document.styleSheets].forEach((sheet) => look(sheet.cssRules, "any"));
                return found;"""
            )
            self.assertEqual(moving, ["(prefers-reduced-motion: no-preference)"])

    def test_asks_for_nothing_while_nobody_sees_it(self):
        self.appliance.write_status('{"status": "need_download", "new_version": "1.0"}')
        self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            hide = (
                "Object.defineProperty(document, 'hidden', {value: arguments[0], configurable: true});"
                "document.dispatchEvent(new Event('visibilitychange'))"
            )
            browser.execute_script(hide, True)
            # The first change answers what it had asked before; later it is given the time to ask again.
            shown = "setTimeout(() => arguments[0](document.getElementById('offer').textContent), 600)"
            for version in ("2.0", "3.0"):
                self.appliance.write_status(f'{{"status": "need_download", "new_version": "{version}"}}')
                self.await_that(browser, lambda version=version: self.state()["offer"]["version"] == version)
                text = browser.execute_async_script(shown)
            self.assertNotEqual(text, "version 3.0")
            browser.execute_script(hide, False)
            self.await_text(browser, "offer", "version 3.0")

    def test_comes_back_after_a_lost_connection(self):
        self.install("1.0")
        web = self.start_web()
        with open_browser(width=WIDE) as browser:
            self.open_page(browser)
            self.stop_web()
            self.await_text(browser, "connection", "The connection to the appliance is lost. What is shown is of ")
            self.assertEqual(self.text(browser, "check-why"), "Not now: the connection is lost.")
            self.offer("2.0")
            self.start_web("--port", web.port)
            self.await_text(browser, "offer", "version 2.0")
            self.assertFalse(browser.find_element(By.ID, "connection").is_displayed())


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    WebTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
