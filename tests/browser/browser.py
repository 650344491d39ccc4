"""A headless browser for tests, with a profile of its own that ends with it."""

import contextlib
import os
import pathlib

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.support.ui import WebDriverWait

# How long a test waits for what a page is to show, in seconds.
PATIENCE = 600


@contextlib.contextmanager
def open_browser(*, width=1000, height=800, color_scheme="light", language="en-US"):
    """Gives a webdriver.Chrome whose window has this size, in pixels, and whose user prefers this color scheme and
    these languages, the best first."""
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    # The browser's own sandbox needs rights that neither root nor a container gives; it sees our pages only.
    for argument in (
        "--headless=new",
        "--no-sandbox",
        "--disable-dev-shm-usage",
        "--no-first-run",
        "--no-proxy-server",
        "--disable-background-networking",
        f"--window-size={width},{height}",
        f"--accept-lang={language}",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    with webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options) as browser:
        resize(browser, width, height)
        set_color_scheme(browser, color_scheme)
        yield browser


@contextlib.contextmanager
def open_tab(browser, width, height=800):
    """Gives the browser in a new tab of this size, in pixels, without the tokens and messages of those before it."""
    first = browser.current_window_handle
    browser.switch_to.new_window("tab")
    try:
        resize(browser, width, height)
        browser.get_log("browser")
        yield browser
    finally:
        for handle in set(browser.window_handles) - {first}:
            browser.switch_to.window(handle)
            browser.close()
        browser.switch_to.window(first)


def await_that(browser, script):
    """Waits until the script returns something true."""
    WebDriverWait(browser, PATIENCE, poll_frequency=0.05).until(lambda _: browser.execute_script(script))


def set_color_scheme(browser, color_scheme):
    browser.execute_cdp_cmd(
        "Emulation.setEmulatedMedia", {"features": [{"name": "prefers-color-scheme", "value": color_scheme}]}
    )


def resize(browser, width, height):
    browser.execute_cdp_cmd(
        "Emulation.setDeviceMetricsOverride",
        {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False},
    )


def show_whole(browser, width):
    """Gives the window this width and the height of the page in it."""
    height = 800
    for _ in range(2):  # the second time without the scroll bar of the first
        resize(browser, width, height)
        height = browser.execute_script("return Math.ceil(document.body.getBoundingClientRect().bottom)")
    resize(browser, width, height)


def save_screenshot(browser, name):
    """Keeps a picture of the window where the environment's ORBAMIRA_SCREENSHOTS says; without that, nowhere."""
    if folder := os.environ.get("ORBAMIRA_SCREENSHOTS"):
        pathlib.Path(folder).mkdir(parents=True, exist_ok=True)
        browser.save_screenshot(str(pathlib.Path(folder) / f"{name}.png"))
