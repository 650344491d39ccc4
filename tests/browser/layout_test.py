"""How the page of "packctl web" looks in each of its states, in windows of many widths, light and dark: all of it can
be read, nothing is cut, nothing lies over anything else, and nobody has to scroll sideways.

usage: layout_test.py --build BUILD
"""

import argparse
import itertools
import json
import pathlib
import sys
import tempfile
import unittest

from browser import await_that, open_browser, save_screenshot, set_color_scheme, show_whole
from page_states import STATES, PageStates, Web, endless_texts

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "support"))
from appliance import Appliance  # noqa: E402

WIDTHS = (320, 768, 1000, 1440, 1920)
SCHEMES = ("light", "dark")

# Each finding as a sentence. Texts that are hidden on purpose are for a screen reader alone.
FAULTS = """
const faults = [];
const page = document.documentElement;
if (page.scrollWidth > page.clientWidth) { faults.push(`scrolls sideways: ${page.scrollWidth}`); }

const name = (element) => `${element.tagName}#${element.id}.${element.className} "${element.textContent.slice(0, 30)}"`;
const ownTexts = (element) => [...element.childNodes].filter(
  (node) => node.nodeType === Node.TEXT_NODE && node.textContent.trim());
const shown = [...document.querySelectorAll("body *")].filter((element) => element.checkVisibility() &&
  !["OPTION", "DIALOG"].includes(element.tagName) && getComputedStyle(element).clipPath === "none");
const withText = shown.filter((element) => ownTexts(element).length > 0 || element.tagName === "INPUT");

// Cut: more in a box than it shows, or text beyond its card or the window.
for (const element of withText) {
  if (getComputedStyle(element).display !== "inline" &&
      (element.scrollWidth > element.clientWidth + 1 || element.scrollHeight > element.clientHeight + 3)) {
    faults.push(`cut: ${name(element)}`);
  }
  const range = document.createRange();
  range.selectNodeContents(element);
  const text = (element.tagName === "INPUT" ? element : range).getBoundingClientRect();
  const card = (element.closest("section") ?? page).getBoundingClientRect();
  if (text.left < card.left || text.right > card.right + 0.5 || text.bottom > card.bottom + 0.5) {
    faults.push(`outside: ${name(element)}`);
  }
}

// Overlap: two texts, or the boxes of two controls, that share a point.
const boxes = withText.flatMap((element) => ownTexts(element).flatMap((node) => {
  const range = document.createRange();
  range.selectNodeContents(node);
  return [...range.getClientRects()].map((box) => ({ element, box }));
})).concat(shown.filter((element) => element.matches("button, input, summary, .tile, .chip, .bar, #state"))
  .map((element) => ({ element, box: element.getBoundingClientRect() })));
boxes.sort((one, other) => one.box.top - other.box.top);
boxes.forEach(({ element, box }, index) => {
  for (let next = index + 1; next < boxes.length && boxes[next].box.top < box.bottom - 1; next += 1) {
    const { element: other, box: otherBox } = boxes[next];
    const isBeside = otherBox.left >= box.right - 1 || otherBox.right <= box.left + 1;
    if (!isBeside && !element.contains(other) && !other.contains(element)) {
      faults.push(`overlap: ${name(element)} and ${name(other)}`);
    }
  }
});

// Too faint: a contrast below that of WCAG's level AA.
const channels = (color) => color.match(/[\\d.]+/g).map(Number);
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
for (const element of withText) {
  const pair = [luminance(getComputedStyle(element).color), luminance(background(element))].sort((a, b) => a - b);
  const contrast = (pair[1] + 0.05) / (pair[0] + 0.05);
  if (contrast < 4.5) { faults.push(`faint: ${name(element)} ${contrast.toFixed(2)}`); }
}

// For hands and for screen readers: controls of at least 24 pixels, each with a name, no id twice, headings in order.
for (const control of shown.filter((element) => element.matches("button, input, summary"))) {
  const box = control.getBoundingClientRect();
  if (Math.min(box.width, box.height) < 24) { faults.push(`small: ${name(control)}`); }
  if (!control.textContent.trim() && !control.labels?.length) { faults.push(`nameless: ${name(control)}`); }
}
const ids = [...document.querySelectorAll("[id]")].map((element) => element.id);
ids.filter((id, index) => ids.indexOf(id) !== index).forEach((id) => faults.push(`twice: ${id}`));
const levels = shown.filter((element) => /^H[1-6]$/.test(element.tagName)).map((element) => Number(element.tagName[1]));
if (levels[0] !== 1 || levels.some((level, index) => level > (levels[index - 1] ?? 0) + 1)) {
  faults.push(`headings: ${levels}`);
}
return { faults, texts: withText.length };
"""


# The elements whose boxes, or what is in them, reach beyond the window's sides; or a word where there is none.
BEYOND = """
const found = [...document.querySelectorAll(arguments[0])].filter((element) => element.checkVisibility());
const isBeyond = (element) => element.getBoundingClientRect().left < 0 ||
  element.getBoundingClientRect().right > document.documentElement.clientWidth ||
  element.scrollWidth > element.clientWidth + 1;
return found.length > 0 ? found.filter(isBeyond).map((element) => element.textContent) : ["nothing is there"];
"""


class LayoutTest(unittest.TestCase):
    arguments = None

    def setUp(self):
        root = self.enterContext(tempfile.TemporaryDirectory())
        self.appliance = Appliance.lay_out(root, self.arguments.build)

    def look(self, browser, name):
        """At the page in each window."""
        for scheme, width in itertools.product(SCHEMES, WIDTHS):
            with self.subTest(name, scheme=scheme, width=width):
                set_color_scheme(browser, scheme)
                show_whole(browser, width)
                found = browser.execute_script(FAULTS)
                self.assertEqual(found["faults"], [])
                self.assertGreater(found["texts"], 15)
                save_screenshot(browser, f"web-{name}-{scheme}-{width}")

    def open_page(self, browser, address):
        browser.get(address)
        await_that(browser, "return document.getElementById('lines').dataset.shown")

    def test_every_state_in_every_window(self):
        with PageStates(self.appliance) as states, open_browser() as browser:
            for name in STATES:
                states.enter(name)
                web = Web(self.appliance)
                self.addCleanup(web.stop)
                self.open_page(browser, web.link)
                if name == "offline":
                    web.stop()
                await_that(browser, f"return document.getElementById('hero').dataset.state === '{name}'")
                self.look(browser, name)
                browser.get("about:blank")

    def test_what_is_folded_open_and_what_asks(self):
        with PageStates(self.appliance) as states, open_browser() as browser:
            states.enter("failed")
            web = Web(self.appliance)
            self.addCleanup(web.stop)
            self.open_page(browser, web.address)
            self.look(browser, "locked")
            browser.get("about:blank")
            self.open_page(browser, web.link)
            browser.execute_script(
                "document.getElementById('all').click();"
                "document.querySelectorAll('details:not(#menu)').forEach((each) => { each.open = true; });"
            )
            self.look(browser, "unfolded")

    def test_the_menu_and_its_question_stay_in_the_window(self):
        with PageStates(self.appliance) as states, open_browser() as browser:
            states.enter("current")
            self.appliance.previous.mkdir()
            (self.appliance.previous / "INFO").write_text("version=1.4.0-" + "9" * 80 + "\n")
            web = Web(self.appliance)
            self.addCleanup(web.stop)
            self.open_page(browser, web.link)
            for width in WIDTHS:
                with self.subTest(width=width):
                    show_whole(browser, width)
                    browser.execute_script("document.getElementById('menu').open = true;")
                    self.assertEqual(browser.execute_script(BEYOND, "#menu button:not([hidden])"), [])
                    browser.execute_script("document.querySelector('[data-action=rollback]').click();")
                    self.assertEqual(browser.execute_script(BEYOND, "#confirm, #confirm p, #confirm button"), [])
                    browser.execute_script("document.getElementById('cancel').click();")

    def test_a_year_of_endless_texts(self):
        with PageStates(self.appliance, endless_texts) as states, open_browser() as browser:
            states.enter("failed")
            states.write_history(list(endless_texts()))
            rejected = {"version": "2.0.0-" + "9" * 80, "reason": "r" * 500, "time": 1}
            self.appliance.health_file.write_text(json.dumps({"rejected": [rejected]}))
            web = Web(self.appliance)
            self.addCleanup(web.stop)
            self.open_page(browser, web.link)
            browser.execute_script(
                "document.querySelectorAll('details:not(#menu)').forEach((each) => { each.open = true; });"
            )
            self.look(browser, "endless")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--build", required=True)
    LayoutTest.arguments, rest = parser.parse_known_args()
    unittest.main(argv=[sys.argv[0], "--verbose", *rest])
