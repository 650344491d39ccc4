"""The page of "packctl web" in a real browser: what it shows, how it can be used, and what other sites cannot do.

usage: web_test.py --build BUILD
"""

import argparse
import contextlib
import fcntl
import functools
import http.client
import http.server
import json
import os
import pathlib
import shutil
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

from browser import PATIENCE, open_browser, open_tab
from page_states import OLD, PageStates, Web, entry, pack

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance, Publisher  # noqa: E402

WIDE, NARROW = 1000, 320

# Tells the page whether it is out of sight.
HIDE = (
    "Object.defineProperty(document, 'hidden', {value: arguments[0], configurable: true});"
    "document.dispatchEvent(new Event('visibilitychange'))"
)


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


class WebTest(unittest.TestCase):
    arguments = None

    @classmethod
    def setUpClass(cls):
        cls.folder = cls.enterClassContext(tempfile.TemporaryDirectory())
        cls.browser = cls.enterClassContext(open_browser())
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

    def click(self, browser, name):
        """As soon as the button can be used."""
        button = browser.find_element(By.ID, name)
        self.await_that(browser, lambda: button.get_attribute("aria-disabled") == "false")
        button.click()

    def open_tab(self, width=WIDE):
        return open_tab(self.browser, width)

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

    def versions(self, browser):
        """Those in the picture, from left to right."""
        return [tile.text for tile in browser.find_elements(By.CSS_SELECTOR, "#picture .version")]

    def lines(self, browser):
        """The history's, newest first."""
        return [line.text for line in browser.find_elements(By.CSS_SELECTOR, "#lines .sentence")]

    def await_state(self, browser, name):
        hero = browser.find_element(By.ID, "hero")
        self.await_that(browser, lambda: hero.get_attribute("data-state") == name)

    def test_begins_with_how_it_is(self):
        self.install("1.0")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "The codec pack is up to date.")
            self.assertEqual(self.text(browser, "name"), os.uname().nodename)
            self.assertEqual(browser.title, f"Up to date · {os.uname().nodename}")
            self.assertEqual(self.text(browser, "act"), "Check")
            self.appliance.expect("remove")
            self.await_text(browser, "headline", "No codec pack is installed.")
            self.assertEqual(self.text(browser, "act"), "Install")
            self.assertEqual(self.versions(browser), ["None"])

    def test_tells_of_releases_beside_the_one_on_offer(self):
        self.install("1.0")
        note = {"version": "0.9", "is_news": False, "withdrawn": "1.0", "staged": {"version": "1.1", "rollout": 5}}
        (self.appliance.cache / "checked").write_text(json.dumps(note))
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertIn(
                "The maker has withdrawn version 1.0; a newer one will replace it. "
                "Version 1.1 is on its way to 5 % of the appliances first.",
                self.text(browser, "detail"),
            )

    def test_says_how_long_the_maker_supports_the_appliance(self):
        self.install("1.0")
        settings = self.appliance.settings / "updater.conf"
        server = settings.read_text()
        for day, says in (
            ("2999-12-31", "Supported until 2999-12-31."),
            ("2020-12-31", "The maker's support ended on 2020-12-31: security holes may stay open."),
        ):
            settings.write_text(f'{server}support_until="{day}"\n')
            self.start_web()
            with self.open_tab() as browser:
                self.open_page(browser)
                self.assertTrue(self.text(browser, "detail").endswith(f" {says}"), self.text(browser, "detail"))
            self.stop_web()

    def test_shows_the_packs_the_codecs_and_the_history(self):
        self.install("1.0")
        self.offer("2.0")
        requirements = self.appliance.state_folder / "codec-requirements.json"
        requirements.write_text('{"hevc": ["Videos"]}')
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "A new codec pack is available: version 2.0.")
            self.assertRegex(self.text(browser, "detail"), r"Last check .+ ago\.|Last check now\.")
            self.assertEqual(self.versions(browser), ["1.0", "2.0"])
            self.assertEqual(self.text(browser, "act"), "Update")
            chips = [chip.text for chip in browser.find_elements(By.CSS_SELECTOR, "#codecs li")]
            self.assertEqual(chips, ["HEVC for Videos"])
            self.assertFalse(browser.find_element(By.ID, "work").is_displayed())
            self.await_that(browser, lambda: self.lines(browser) == ["Found version 2.0", "Installed version 1.0"])
            self.appliance.expect("update")
            self.await_that(browser, lambda: self.lines(browser)[0] == "Updated to version 2.0")
            self.await_that(browser, lambda: self.versions(browser) == ["2.0"])
            requirements.write_text('{"aac": ["Music", "Radio"]}')
            self.await_text(browser, "codecs", "AAC missing, for Music, Radio")
            self.check_quiet(browser)

    def test_a_running_update_moves_the_bar_and_the_steps(self):
        self.install("1.0")
        self.offer("2.0")
        go = self.hold_steps()
        self.start_web()
        self.publisher.pause = 0.2
        with self.open_tab() as browser:
            self.open_page(browser)
            self.click(browser, "act")
            bar = browser.find_element(By.ID, "progress")
            # The record is saved the more seldom the longer that takes on this disk.
            values = [0]
            while len(values) < 3:
                values.append(
                    self.await_that(
                        browser, lambda: bar.get_property("value") > values[-1] and bar.get_property("value")
                    )
                )
            self.assertRegex(self.text(browser, "progress-text"), r"iB of 3\.\d.MiB · .+iB/s · .+ left")
            self.assertRegex(browser.title, r"^\d+ % · ")
            self.assertFalse(browser.find_element(By.ID, "act").is_displayed(), "there is nothing to do but wait")
            self.assertEqual(self.stages(browser), ["now Download", "ahead", "ahead", "ahead"])
            self.publisher.pause = 0
            for words, stages in (
                (
                    "Telling applications that the old pack goes",
                    ["past", "now Set the old pack aside", "ahead", "ahead"],
                ),
                ("Moving the old pack aside", ["past", "now Set the old pack aside", "ahead", "ahead"]),
                ("The old pack is out of the way", ["past", "now Set the old pack aside", "ahead", "ahead"]),
                (
                    "Unpacking the new pack and putting it in place",
                    ["past", "past", "now Put the new pack in place", "ahead"],
                ),
            ):
                self.await_text(browser, "progress-text", words)
                self.assertEqual(self.stages(browser), stages)
                self.assertEqual(self.versions(browser), ["1.0", "2.0"], "also while neither is in place")
                self.assertEqual(self.text(browser, "headline"), "Installing version 2.0 …")
                go()
            self.await_text(browser, "outcome", "Done.")
            self.await_that(browser, lambda: self.versions(browser) == ["2.0"])
            self.await_that(browser, lambda: not browser.find_element(By.ID, "work").is_displayed())
            self.check_quiet(browser)

    def stages(self, browser):
        """How far each part of the update is, and the name of the one under way."""
        found = []
        for stage in browser.find_elements(By.CSS_SELECTOR, "#stages li"):
            is_now = stage.get_attribute("aria-current") == "step"
            found.append(stage.get_attribute("class") + (f" {stage.text}" if is_now else ""))
        return found

    def take_step(self, browser, go):
        go()
        self.await_that(browser, lambda: not (self.appliance.root / "go").exists())

    def focused(self, browser):
        return browser.switch_to.active_element.get_attribute("id")

    def press(self, browser, *keys):
        ActionChains(browser).send_keys(*keys).perform()

    def tab_to(self, browser, name):
        for _ in range(20):
            if self.focused(browser) == name:
                return
            self.press(browser, Keys.TAB)
        self.fail(f"Tab does not lead to {name}")

    def test_is_used_by_keyboard_alone(self):
        self.install("1.0")
        self.appliance.use_server(self.addresses["2.0"])
        requirements = self.appliance.state_folder / "codec-requirements.json"
        requirements.write_text('{"hevc": ["Videos"]}')
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser, self.web.address)
            self.tab_to(browser, "token")
            self.assertNotEqual(browser.switch_to.active_element.value_of_css_property("outline-style"), "none")
            self.press(browser, self.web.token, Keys.ENTER)
            self.await_that(browser, lambda: self.focused(browser) == "act")
            self.press(browser, Keys.ENTER)
            self.await_text(browser, "outcome", "Checked: a new codec pack is available.")
            self.await_text(browser, "act", "Update")
            self.assertEqual(self.focused(browser), "act", "the place is not lost")
            button = browser.find_element(By.ID, "act")
            self.await_that(browser, lambda: button.get_attribute("aria-disabled") == "false")
            self.press(browser, Keys.SPACE)
            self.await_that(browser, lambda: self.versions(browser) == ["2.0"])
            self.await_text(browser, "act", "Check")
            self.use_menu(browser, "Remove")
            self.assertEqual(
                self.text(browser, "question"), "Remove version 2.0? These applications need its codecs: Videos."
            )
            self.press(browser, Keys.ESCAPE)
            self.assertFalse(browser.find_element(By.ID, "confirm").is_displayed())
            self.assertEqual(self.versions(browser), ["2.0"])
            self.use_menu(browser, "Remove")
            self.tab_to(browser, "yes")
            self.press(browser, Keys.ENTER)
            self.await_text(browser, "headline", "No codec pack is installed.")
            self.check_quiet(browser)

    def use_menu(self, browser, item):
        """By keyboard: opens it and chooses."""
        browser.find_element(By.CSS_SELECTOR, "#menu summary").send_keys(Keys.ENTER)
        self.await_that(
            browser, lambda: item in [each.text for each in browser.find_elements(By.CSS_SELECTOR, "#menu button")]
        )
        for _ in range(5):
            self.press(browser, Keys.TAB)
            if browser.switch_to.active_element.text == item:
                self.press(browser, Keys.ENTER)
                return
        self.fail(f"Tab does not lead to {item}")

    def test_the_menu_has_what_is_seldom_wanted(self):
        self.install("1.0")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            menu = browser.find_element(By.ID, "menu")
            self.assertEqual(menu.text, "More")
            menu.click()
            self.assertEqual(menu.text.split("\n"), ["More", "Install again", "Remove", "Forget the token"])
            self.press(browser, Keys.ESCAPE)
            self.assertEqual(menu.text, "More")
            self.use_menu(browser, "Install again")
            browser.find_element(By.ID, "yes").click()
            self.await_text(browser, "outcome", "Done.")
            self.await_that(browser, lambda: len(self.lines(browser)) == 2 or "2×" in self.lines(browser)[0])

    def menu(self, browser):
        menu = browser.find_element(By.ID, "menu")
        menu.click()
        items = menu.text.split("\n")[1:]
        self.press(browser, Keys.ESCAPE)
        return items

    def test_goes_back_to_the_previous_pack(self):
        self.install("1.0")
        self.start_web()
        back = "Back to the previous version"
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertNotIn(back, self.menu(browser))
            self.install("2.0")
            self.await_that(browser, lambda: self.versions(browser) == ["2.0"])
            self.assertIn(back, self.menu(browser))
            self.use_menu(browser, back)
            self.assertEqual(
                self.text(browser, "question"),
                "Go back from version 2.0 to version 1.0?"
                " Version 2.0 is not installed again then, but a newer one is.",
            )
            browser.find_element(By.ID, "cancel").click()
            self.assertIsNone(self.state()["action"], "it only asked")
            self.use_menu(browser, back)
            browser.find_element(By.ID, "yes").click()
            self.await_that(browser, lambda: self.versions(browser) == ["1.0"])
            self.await_text(browser, "rejected", "Version 2.0 was rejected: somebody went back from it.")
            self.await_that(browser, lambda: self.lines(browser)[0] == "Went back to version 1.0")
            self.assertNotIn(back, self.menu(browser))
            self.click(browser, "act")
            self.await_text(browser, "outcome", "Checked: the pack on offer was rejected on this appliance.")
            self.check_quiet(browser)

    def test_asks_again_before_it_goes_back_a_second_time(self):
        self.install("1.0")
        self.install("2.0")
        error = {"code": "disk_error", "message": "the disk fails", "remedy": "Check the disk."}
        with PageStates(self.appliance) as states, self.open_tab() as browser:
            states.write_history([entry(-1, "rollback", pack("2.0"), pack("2.0"), error)])
            self.start_web()
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "The rollback failed.")
            self.assertEqual(self.text(browser, "act"), "Try again")
            self.click(browser, "act")
            self.assertIn("Go back from version 2.0", self.text(browser, "question"))
            browser.find_element(By.ID, "cancel").click()
            # Where the previous pack has gone meanwhile, it is no use to try.
            shutil.rmtree(self.appliance.previous)
            self.appliance.status_file.touch()
            button = browser.find_element(By.ID, "act")
            self.await_that(browser, lambda: button.get_attribute("data-action") == "check")
            self.check_quiet(browser)

    def test_tells_which_versions_were_rejected_and_why(self):
        self.install("1.0")
        reasons = {"2.0": "it failed its health check", "3.0": "it was rolled back by hand", "4.0": "it is <b>red</b>"}
        rejected = [{"version": version, "reason": reason, "time": 1} for version, reason in reasons.items()]
        (self.appliance.state_folder / "health.json").write_text(json.dumps({"rejected": rejected}))
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(
                self.text(browser, "rejected").split("\n"),
                [
                    "Version 2.0 was rejected: it failed its health check.",
                    "Version 3.0 was rejected: somebody went back from it.",
                    "Version 4.0 was rejected: it is <b>red</b>.",
                ],
            )
            self.check_quiet(browser)

    def test_tells_why_something_failed_and_what_mends_it(self):
        self.install("1.0")
        self.offer("2.0")
        self.start_web()
        (self.publisher.folder / "gone.json").unlink(missing_ok=True)
        with self.open_tab() as browser:
            self.open_page(browser)
            self.appliance.use_server(self.publisher.url + "/gone.json")
            self.click(browser, "act")
            self.await_text(browser, "headline", "The update failed.")
            self.assertEqual(self.text(browser, "detail"), "Version 1.0 stays installed.")
            # The record tells of the failure a little before the history has its cause.
            cause = "The update server refuses the request. Run the diagnosis."
            self.await_that(browser, lambda: self.text(browser, "failure").split("\n")[0] == cause)
            browser.find_element(By.CSS_SELECTOR, "#said summary").click()
            self.assertIn("404", self.text(browser, "failure"))
            self.assertEqual(self.text(browser, "outcome"), "", "it is told once")
            self.assertTrue(browser.title.startswith("Failed · "))
            self.await_that(
                browser, lambda: self.lines(browser)[0] == "Update failed The update server refuses the request."
            )
            self.appliance.use_server(self.addresses["2.0"])
            self.assertEqual(self.text(browser, "act"), "Try again")
            self.click(browser, "act")
            self.await_that(browser, lambda: self.versions(browser) == ["2.0"])
            # The record tells of the success a little before the history does.
            self.await_that(browser, lambda: not browser.find_element(By.ID, "failure").is_displayed())
            self.check_quiet(browser)

    def test_a_failed_check_is_tried_again(self):
        self.install("1.0")
        self.appliance.use_server(self.publisher.url + "/none.json")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.click(browser, "act")
            self.await_text(browser, "headline", "The check failed.")
            self.appliance.use_server(self.addresses["1.0"])
            self.click(browser, "act")
            self.await_text(browser, "outcome", "Checked: there is nothing new.")
            self.await_text(browser, "headline", "The codec pack is up to date.")

    def test_recovers_what_was_interrupted(self):
        self.install("1.0")
        self.appliance.write_status('{"status": "downloading_installing", "new_version": "2.0"}')
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "The update was interrupted.")
            self.assertEqual(self.text(browser, "act"), "Recover")
            self.click(browser, "act")
            self.await_text(browser, "headline", "The update failed.")
            self.assertEqual(self.text(browser, "act"), "Try again")

    def test_tells_what_was_cancelled_from_what_failed(self):
        with PageStates(self.appliance) as states, self.open_tab() as browser:
            states.enter("cancelled")
            self.start_web()
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "The update was cancelled.")
            self.assertEqual(self.text(browser, "detail"), f"Version {OLD} stays installed.")
            self.assertEqual(self.text(browser, "act"), "Try again")
            self.assertTrue(browser.title.startswith("Cancelled · "))
            self.assertFalse(browser.find_element(By.ID, "failure").is_displayed())
            self.await_that(browser, lambda: self.lines(browser)[:1] == ["Update cancelled"])
            days = browser.find_elements(By.CSS_SELECTOR, "#strip span")
            self.assertEqual(
                [day.get_attribute("class") for day in days[-2:] if "failed" in day.get_attribute("class")], []
            )

    def test_shows_what_the_doctor_found(self):
        self.appliance.use_server("nowhere")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertTrue(self.text(browser, "diagnosed").startswith("Checks settings"))
            self.click(browser, "doctor")
            self.await_text(browser, "diagnosed", "Found ")
            self.assertIn("Correct pack_update_server.", self.text(browser, "findings"))
            self.check_quiet(browser)

    def test_folds_what_repeats_in_the_history(self):
        with PageStates(self.appliance) as states:
            states.enter("failed")
            self.start_web()
            with self.open_tab() as browser:
                self.open_page(browser)
                self.await_that(browser, lambda: self.lines(browser))
                self.assertEqual(self.lines(browser)[0], "Update failed The package is not signed.")
                self.assertIn("Check failed 5× The update server cannot be reached.", self.lines(browser))
                self.assertEqual(len(self.lines(browser)), 12)
                browser.find_element(By.ID, "all").click()
                self.assertGreater(len(self.lines(browser)), 20)
                self.assertEqual(self.lines(browser)[-1], "Installed version 1.0.0")
                first = browser.find_element(By.CSS_SELECTOR, "#lines details")
                self.assertNotIn("not_signed", first.text)
                first.find_element(By.TAG_NAME, "summary").click()
                for part in (OLD, "not_signed", "Failed: the package is not signed"):
                    self.assertIn(part, first.text)
                days = browser.find_elements(By.CSS_SELECTOR, "#strip span")
                self.assertEqual(len(days), 90)
                # The day may have changed since, which adds an empty one.
                last = [day for day in days[-3:] if day.get_attribute("class") != "day"]
                self.assertEqual([day.get_attribute("class") for day in last], ["day done", "day failed"])
                self.assertTrue(last[-1].get_attribute("title").endswith(": 0 done, 1 failed"))
                self.assertEqual(
                    browser.find_element(By.ID, "strip").get_attribute("aria-label"),
                    "The last 90 days: failures on 6 of them.",
                )

    def test_asks_for_the_token_until_it_is_given(self):
        self.install("1.0")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser, self.web.address)
            shown = [button.text for button in browser.find_elements(By.TAG_NAME, "button") if button.is_displayed()]
            self.assertEqual(shown, ["Unlock"])
            field = browser.find_element(By.ID, "token")
            field.send_keys("wrong", Keys.ENTER)
            self.await_text(browser, "outcome", "This is not the page token.")
            self.assertTrue(field.is_displayed())
            self.assertEqual(field.get_attribute("value"), "")
            field.send_keys(self.web.token, Keys.ENTER)
            self.await_that(browser, lambda: not field.is_displayed())
            self.assertEqual(self.text(browser, "act"), "Check")
            self.assertEqual(field.get_attribute("value"), "")
            self.assertEqual(self.text(browser, "outcome"), "")
            self.use_menu(browser, "Forget the token")
            self.assertTrue(field.is_displayed())
            self.assertEqual(browser.execute_script("return sessionStorage.getItem('packctl-token')"), "")

    def test_asks_again_for_a_token_that_is_of_no_use_any_more(self):
        self.install("1.0")
        web = self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.stop_web()
            self.start_web("--port", web.port)
            self.await_state(browser, "current")
            self.click(browser, "act")
            self.await_text(browser, "outcome", "This is not the page token.")
            self.assertTrue(browser.find_element(By.ID, "token").is_displayed())

    def test_keeps_the_token_out_of_sight(self):
        self.install("1.0")
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(browser.current_url, self.web.address)
            self.assertFalse(browser.find_element(By.ID, "token").is_displayed())
            browser.refresh()
            self.await_text(browser, "act", "Check")
            self.assertEqual(browser.execute_script("return [localStorage.length, document.cookie]"), [0, ""])
            browser.switch_to.new_window("tab")
            self.open_page(browser, self.web.address)
            self.assertTrue(browser.find_element(By.ID, "token").is_displayed())

    def test_speaks_another_language_where_a_file_has_it(self):
        page = next(self.appliance.root.glob("usr/share/*/web"))
        shutil.copy(pathlib.Path(__file__).with_name("words.de.js"), page)
        with PageStates(self.appliance) as states, open_browser(width=NARROW, language="de-AT") as browser:
            states.enter("failed")
            self.start_web()
            self.open_page(browser)
            self.assertEqual(self.text(browser, "headline"), "Die Aktualisierung ist fehlgeschlagen.")
            self.assertEqual(
                self.text(browser, "failure").split("\n")[0],
                "Das Paket ist nicht unterschrieben. Der Herausgeber muss es unterschreiben.",
            )
            self.assertEqual(self.text(browser, "act"), "Noch einmal")
            self.assertEqual(browser.find_element(By.TAG_NAME, "html").get_attribute("lang"), "de")
            self.assertRegex(browser.find_element(By.CSS_SELECTOR, "#picture .label:last-child").text, r"^seit \d")
            # The translation has all that the page may ask for, and no more.
            names = (
                "const names = (of) => Object.keys(of).sort().flatMap((key) =>"
                " typeof of[key] === 'object' ? names(of[key]).map((name) => `${key}.${name}`) : [key]);"
                "const done = arguments[0];"
                "import('./words.js').then((module) => done(names(module.words)))"
            )
            german = browser.execute_async_script(names)
            self.check_quiet(browser)
            with open_browser(language="fr,en") as other:
                self.open_page(other)
                self.assertEqual(self.text(other, "headline"), "The update failed.")
                self.assertEqual(german, other.execute_async_script(names))
            with (self.appliance.run_folder / "lock/packctl.lock").open("w") as lock:
                fcntl.flock(lock, fcntl.LOCK_EX)
                self.click(browser, "act")
                self.await_text(browser, "outcome", "Nicht ausgeführt. Ein anderes Programm arbeitet.")

    def test_puts_in_what_comes_from_outside_as_text(self):
        markup = "<b id=planted>2.0</b><img src=x onerror=alert(1)>"
        self.appliance.write_status(
            json.dumps({"status": "need_install", "new_version": markup, "new_pack_name": markup})
        )
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.assertEqual(self.versions(browser), ["None", markup])
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
        with self.other_site(page) as elsewhere, self.open_tab() as browser:
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
            self.assertEqual(browser.find_elements(By.ID, "act"), [], "the page is framed")
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
        with self.open_tab(NARROW) as browser:
            self.open_page(browser)
            self.await_that(browser, lambda: self.lines(browser))
            with_button = [node for node in self.accessible_nodes(browser) if not node["ignored"]]
            self.click(browser, "act")
            self.await_text(browser, "progress-text", "Telling applications")
            nodes = [node for node in self.accessible_nodes(browser) if not node["ignored"]]
            for _ in range(4):
                self.take_step(browser, go)

        def of_role(*roles, nodes=nodes):
            return [
                (
                    node["name"].get("value", "").strip(),
                    {each["name"]: each["value"].get("value") for each in node.get("properties", [])},
                )
                for node in nodes
                if node["role"]["value"] in roles
            ]

        self.assertEqual([name for name, _ in of_role("button", nodes=with_button)], ["Update", "Run diagnosis"])
        (diagnosis,) = of_role("button")
        self.assertEqual(diagnosis[0], "Run diagnosis")
        self.assertTrue(diagnosis[1]["disabled"], "one thing at a time")
        self.assertEqual([name for name, _ in of_role("region")], ["Installing version 2.0 …", "History", "Diagnosis"])
        self.assertEqual(len(of_role("main")), 1)
        self.assertEqual([properties["live"] for _, properties in of_role("status")], ["polite"] * 3)
        self.assertEqual([properties["level"] for _, properties in of_role("heading")], [1, 2, 2, 2])
        (strip,) = of_role("image", "img")
        self.assertEqual(strip[0], "The last 90 days: no failure.")
        triangles = [name for name, _ in of_role("DisclosureTriangle")]
        self.assertEqual(len(triangles), 2)
        self.assertTrue(triangles[0].startswith("Found version 2.0"), triangles)

    def test_moves_nothing_for_who_does_not_want_it(self):
        self.start_web()
        with self.open_tab() as browser:
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
            self.assertEqual(set(moving), {"(prefers-reduced-motion: no-preference)"})

    def test_asks_for_nothing_while_nobody_sees_it(self):
        self.appliance.write_status('{"status": "need_download", "new_version": "1.0"}')
        self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            browser.execute_script(HIDE, True)
            # The first change answers what it had asked before; later it is given the time to ask again.
            shown = "setTimeout(() => arguments[0](document.getElementById('headline').textContent), 600)"
            for version in ("2.0", "3.0"):
                self.appliance.write_status(f'{{"status": "need_download", "new_version": "{version}"}}')
                self.await_that(browser, lambda version=version: self.state()["offer"]["version"] == version)
                text = browser.execute_async_script(shown)
            self.assertNotIn("3.0", text)
            browser.execute_script(HIDE, False)
            self.await_text(browser, "headline", "version 3.0")

    def test_follows_work_in_the_title_while_nobody_sees_it(self):
        with PageStates(self.appliance) as states, self.open_tab() as browser:
            states.enter("downloading")
            self.start_web()
            self.open_page(browser)
            self.await_that(browser, lambda: browser.title.startswith("43 % · "))
            browser.execute_script(HIDE, True)
            for name, title in (("installing", "Installing · "), ("failed", "Failed · ")):
                states.enter(name)
                self.await_that(browser, lambda title=title: browser.title.startswith(title))

    def test_comes_back_after_a_lost_connection(self):
        self.install("1.0")
        web = self.start_web()
        with self.open_tab() as browser:
            self.open_page(browser)
            self.stop_web()
            self.await_text(browser, "headline", f"{os.uname().nodename} cannot be reached.")
            self.assertRegex(
                self.text(browser, "detail"), r"^What you see is from (now|\d+ (second|minute)s? ago)\. Trying"
            )
            self.assertEqual(self.text(browser, "act"), "Try again")
            self.assertEqual(self.versions(browser), ["1.0"])
            self.offer("2.0")
            self.start_web("--port", web.port)
            self.click(browser, "act")
            self.await_text(browser, "headline", "version 2.0")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    WebTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
