"""The web interface as a technician uses it: the whole stand-in device and a real browser.

Runs inside the device's sandbox, with Debian's own Python:

    device/sandbox build --private-network --read-only . /source -- \\
        /usr/bin/python3 /source/tests/web/browser_journey.py

With "--screenshots FOLDER" it takes pictures of the pages instead. They outlive the sandbox in a state
folder of the host:

    mkdir -p pictures/app pictures/tmp
    device/sandbox build --state pictures --private-network --read-only . /source -- \\
        /usr/bin/python3 /source/tests/web/browser_journey.py --screenshots /tmp
"""

import argparse
import contextlib
import os
import pathlib
import re
import shutil
import socket
import subprocess
import tempfile
import time
import unittest
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.remote.remote_connection import RemoteConnection
from selenium.webdriver.support.ui import WebDriverWait

PORT = 8080
ROOT = f"http://localhost:{PORT}"
SETTINGS = pathlib.Path("/app/tarn-belox/runvex/obd.conf")
SHIPPED_SETTINGS = pathlib.Path("/source/device/obd.conf")
LIMIT = 20  # seconds for whatever is waited for

HOME = "/index.html"
FORM = "/channeldeviceconfig.cgi"
WARNING = "/setobdconf.cgi"
REBOOT = "/reboot.cgi"


def success(value):
    return "/setobdconf.cgi?" + urllib.parse.urlencode({"CanDetectTimeout": value})


PAGES = (HOME, FORM, success("500"), WARNING, REBOOT)

TITLES = {
    "Home": "VEMO Web Server",
    "Device Information": "VEMO Web Server - Device Information",
    "Set CanDetectTimeout": "VEMO Web Server - SetObdConf",
    "Reboot": "VEMO Web Server - Reboot",
}

# Width, height, whether it is a phone.
DESK = (1280, 800, False)
PHONE = (360, 740, True)


def wait_until(is_true, what):
    deadline = time.monotonic() + LIMIT
    while not is_true():
        if time.monotonic() > deadline:
            raise TimeoutError(what)
        time.sleep(0.02)


def is_listening():
    with socket.socket() as client:
        return client.connect_ex(("127.0.0.1", PORT)) == 0


@contextlib.contextmanager
def running_device():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)
    device = subprocess.Popen(["/srv/vemo/start"], env={**os.environ, "VEMO_PORT": str(PORT)})
    try:
        wait_until(is_listening, "the web server does not listen")
        yield
    finally:
        # What it started ends with the sandbox.
        device.kill()
        device.wait()


@contextlib.contextmanager
def running_browser():
    options = webdriver.ChromeOptions()
    options.binary_location = "/usr/bin/chromium"
    profile = tempfile.mkdtemp(prefix="profile-", dir="/tmp")
    for argument in (
        "--headless",
        "--no-sandbox",  # it is in one, in which it cannot build its own
        "--disable-gpu",
        "--disable-quic",
        "--no-first-run",
        "--disable-background-networking",
        "--disable-component-update",
        "--disable-sync",
        "--disable-dev-shm-usage",
        f"--user-data-dir={profile}",
    ):
        options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    RemoteConnection.set_timeout(2 * LIMIT)
    driver = webdriver.Chrome(
        service=Service("/usr/bin/chromedriver", log_path="/tmp/chromedriver.log"), options=options
    )
    try:
        driver.set_page_load_timeout(LIMIT)
        driver.set_script_timeout(LIMIT)
        yield driver
    finally:
        driver.quit()
        shutil.rmtree(profile, ignore_errors=True)


def set_screen(driver, screen, scale=1):
    """A window that fills the screen."""
    width, height, is_phone = screen
    driver.execute_cdp_cmd(
        "Emulation.setDeviceMetricsOverride",
        {
            "width": width,
            "height": height,
            "screenWidth": width,
            "screenHeight": height,
            "deviceScaleFactor": scale,
            "mobile": is_phone,
        },
    )


def setUpModule():
    unittest.enterModuleContext(running_device())
    Browser.driver = unittest.enterModuleContext(running_browser())


class Browser(unittest.TestCase):
    """A browser on a desk, at the device's home page; the device as it was shipped."""

    def setUp(self):
        shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)
        set_screen(self.driver, DESK)
        self.open(HOME)

    # --- What the technician does

    def open(self, path):
        self.driver.get(ROOT + path)

    def links(self):
        """The page's links to other pages, by their text."""
        return {a.text: a for a in self.driver.find_elements(By.TAG_NAME, "a")}

    def leave(self, act):
        """Does what leads to another page, or to the same anew, and waits for that."""
        old = self.driver.find_element(By.TAG_NAME, "html")
        act()
        WebDriverWait(self.driver, LIMIT).until(
            lambda driver: driver.find_element(By.TAG_NAME, "html") != old
            and driver.execute_script("return document.readyState") == "complete",
            "no new page",
        )

    def follow(self, text):
        self.leave(self.links()[text].click)

    def press(self, text):
        buttons = self.driver.find_elements(By.CSS_SELECTOR, "input[type=submit]")
        self.leave(next(b for b in buttons if b.get_attribute("value").strip() == text).click)

    def post(self, value):
        """Sends the value with the page's own form."""
        self.open(FORM)
        # The browser's own means: typing would be slow and cannot enter everything.
        self.driver.execute_script("arguments[0].value = arguments[1]", self.field(), value)
        self.press("Set")

    # --- What the technician sees

    def field(self):
        return self.driver.find_element(By.NAME, "CanDetectTimeout")

    def heading(self):
        return self.driver.find_element(By.TAG_NAME, "h2").text

    def text(self):
        return self.driver.find_element(By.TAG_NAME, "body").text

    def style(self, selector, name):
        element = self.driver.find_element(By.CSS_SELECTOR, selector)
        return element.value_of_css_property(name)


class Journey(Browser):
    def test_home_leads_to_device_information(self):
        self.assertEqual(self.driver.title, TITLES["Home"])
        self.follow("Device Information")
        self.assertEqual(self.driver.title, TITLES["Device Information"])
        self.assertEqual(self.field().get_attribute("value"), "300")

    def test_the_keyboard_alone_sets_the_timeout(self):
        self.open(FORM)
        for _ in range(20):
            if self.driver.switch_to.active_element == self.field():
                break
            self.driver.switch_to.active_element.send_keys(Keys.TAB)
        self.assertEqual(self.driver.switch_to.active_element, self.field())
        self.field().send_keys(Keys.CONTROL, "a")
        self.field().send_keys("500")
        self.leave(lambda: self.field().send_keys(Keys.ENTER))

        self.assertIn("Set CanDetectTimeout to 500 ms.", self.text())
        self.open(FORM)
        self.assertEqual(self.field().get_attribute("value"), "500")
        self.assertIn("\nVEMODCanDetectTimeout=500\n", SETTINGS.read_text())

    def test_a_click_on_the_label_leads_into_the_field(self):
        self.open(FORM)
        label = self.driver.find_element(By.XPATH, "//label[contains(., 'CanDetectTimeout')]")
        label.click()
        self.assertEqual(self.driver.switch_to.active_element, self.field())

    def test_success_is_told_and_leads_to_the_reboot(self):
        self.post("500")
        self.assertEqual(self.driver.title, TITLES["Set CanDetectTimeout"])
        self.assertEqual(self.heading(), "Set CanDetectTimeout")
        self.assertRegex(
            self.text(),
            r"Set CanDetectTimeout to 500 ms\.\s+"
            r"Set new option was successful\.\n"
            r"To activate the new setting reboot the device\.",
        )
        self.follow("reboot")
        self.assertEqual(self.driver.title, TITLES["Reboot"])

    def test_the_reboot_asks_first(self):
        self.open(REBOOT)
        self.assertIn("Reboot the device to activate new settings?", self.text())
        self.press("Reboot")
        self.assertEqual(self.driver.title, TITLES["Reboot"])
        self.assertIn("This stand-in for the device cannot reboot", self.text())

    def test_every_link_of_the_navigation_leads_to_its_page(self):
        for path in PAGES:
            self.open(path)
            navigation = [a.text for a in self.driver.find_elements(By.CSS_SELECTOR, ".navi a")]
            self.assertEqual(navigation[0], "Home", path)
            for text in navigation:
                with self.subTest(page=path, link=text):
                    self.open(path)
                    self.follow(text)
                    self.assertEqual(self.driver.title, TITLES[text])

    def test_the_warning_leads_back_to_the_form(self):
        self.open(WARNING)
        self.assertEqual(self.driver.title, TITLES["Set CanDetectTimeout"])
        self.assertIn("Option CanDetectTimeout not set", self.text())
        self.press("Back")
        self.assertEqual(self.driver.title, TITLES["Device Information"])
        self.assertEqual(self.field().get_attribute("value"), "300")

    def test_a_value_with_umlauts_comes_back_as_it_was_typed(self):
        self.post("fünfhundert")
        self.assertIn("Set CanDetectTimeout to fünfhundert ms.", self.text())
        self.open(FORM)
        self.assertEqual(self.field().get_attribute("value"), "fünfhundert")

    def test_the_interface_is_allocated_and_released(self):
        self.open(FORM)
        self.press("Allocate")
        self.assertRegex(self.text(), r"Owner\s+VEMO_WEB")
        self.press("Release")
        self.assertRegex(self.text(), r"Owner\s+None")


class InjectedMarkup(Browser):
    """The page echoes the value as it is; the server's headers keep it inert."""

    HARM = "document.title='harm'"

    def assert_harmless(self, value):
        self.post(value)
        # Everything of the page is there, pictures that cannot be had have failed.
        WebDriverWait(self.driver, LIMIT).until(
            lambda driver: driver.execute_script(
                "return [...document.images].every(image => image.complete)"
            )
        )
        self.assertEqual(self.driver.title, TITLES["Set CanDetectTimeout"])
        self.assertEqual(self.heading(), "Set CanDetectTimeout")
        self.assertIn("Set new option was successful.", self.text())

    def test_a_script_does_not_run(self):
        self.assert_harmless(f"<script>{self.HARM}</script>")

    def test_an_event_handler_does_not_run(self):
        self.assert_harmless(f'<img src="/images/nowhere.gif" onerror="{self.HARM}">')

    def test_a_link_runs_no_script(self):
        self.assert_harmless(f'<a href="javascript:void({self.HARM})">500</a>')
        self.links()["500"].click()
        self.assertEqual(self.driver.title, TITLES["Set CanDetectTimeout"])

    def test_a_style_sheet_is_not_applied(self):
        self.assert_harmless("<style>h2 { display: none }</style>")

    def test_no_foreign_page_is_framed(self):
        self.assert_harmless(f'<iframe name="frame" src="{HOME}"></iframe>')
        self.driver.switch_to.frame("frame")
        self.assertEqual(self.driver.find_elements(By.TAG_NAME, "h2"), [])

    def test_no_form_goes_to_a_foreign_site(self):
        self.assert_harmless(
            f'<form action="http://127.0.0.1:{PORT}{HOME}"><input type="submit" value="Win"></form>'
        )
        button = self.driver.find_element(By.CSS_SELECTOR, "input[value=Win]")
        button.click()
        # Had it been sent, the browser would have left before it answers the next order.
        self.assertEqual(self.driver.title, TITLES["Set CanDetectTimeout"])


class Looks(Browser):
    # The frame's style attribute, in which it asks for what the style sheet does anyway.
    KNOWN_REFUSAL = "inline style .* 'style-src 'self''"
    # Browsers ask for it unasked.
    KNOWN_MISS = r"/favicon\.ico .* 404"
    # The browser's own start page.
    FOREIGN = "^chrome://"

    def on_every_page(self, check):
        """On a desk and on a phone. `check` is given the size of a page's pixel on the screen."""
        for screen in (DESK, PHONE):
            set_screen(self.driver, screen)
            for path in (*PAGES, success("5" * 300)):
                with self.subTest(screen=screen, page=path):
                    self.open(path)
                    # A phone shrinks pages that are laid out wider than its screen.
                    layout = self.driver.execute_script(
                        "return document.scrollingElement.clientWidth"
                    )
                    check(screen[0] / layout)

    def test_the_console_tells_of_nothing_unknown(self):
        known = re.compile("|".join((self.KNOWN_REFUSAL, self.KNOWN_MISS, self.FOREIGN)))
        self.driver.get_log("browser")  # what was said before
        for path in PAGES:
            with self.subTest(page=path):
                self.open(path)
                messages = [entry["message"] for entry in self.driver.get_log("browser")]
                self.assertEqual([m for m in messages if not known.search(m)], [])

    def test_the_style_sheet_is_applied(self):
        transparent = "rgba(0, 0, 0, 0)"
        self.open(WARNING)
        self.assertNotEqual(self.style(".warn", "background-color"), transparent)
        self.assertEqual(self.style(".mybutton", "appearance"), "none")
        for path in PAGES:
            with self.subTest(page=path):
                self.open(path)
                self.assertNotEqual(self.style(".navi", "background-color"), transparent)
                self.assertNotEqual(self.style(".content", "background-color"), transparent)

    def test_both_logos_are_shown_side_by_side_above_the_rest(self):
        def check(_):
            logos = self.driver.find_elements(By.TAG_NAME, "img")
            self.assertEqual([logo.accessible_name for logo in logos], ["KESTA AG", "TARN BELOX"])
            for logo in logos:
                self.assertGreater(int(logo.get_property("naturalWidth")), 0)
            left, right = (logo.rect for logo in logos)
            self.assertLess(left["x"] + left["width"], right["x"])
            self.assertAlmostEqual(left["y"], right["y"], delta=1)
            navigation = self.driver.find_element(By.CSS_SELECTOR, ".navi").rect
            self.assertLessEqual(left["y"] + left["height"], navigation["y"])

        self.on_every_page(check)

    def test_nothing_scrolls_sideways(self):
        def check(_):
            content, window = self.driver.execute_script(
                "const area = document.scrollingElement;"
                "return [area.scrollWidth, area.clientWidth]"
            )
            self.assertLessEqual(content, window)

        self.on_every_page(check)

    def test_text_and_buttons_are_large_enough(self):
        def check(pixel):
            for element in self.driver.find_elements(By.CSS_SELECTOR, ".content, .navi a, input"):
                size = float(element.value_of_css_property("font-size").removesuffix("px"))
                self.assertGreaterEqual(size * pixel, 14, element.tag_name)
            for button in self.driver.find_elements(By.CSS_SELECTOR, "input[type=submit]"):
                self.assertGreaterEqual(button.rect["height"] * pixel, 40)

        self.on_every_page(check)


def take_screenshots(folder):
    names = ("index", "form", "success", "warning", "reboot")
    with running_device(), running_browser() as driver:
        for name, path in zip(names, PAGES):
            for screen, scale in ((DESK, 1), (PHONE, 2)):
                set_screen(driver, screen, scale)
                driver.get(ROOT + path)
                width, height, _ = screen
                driver.save_screenshot(f"{folder}/{name}-{width}x{height}.png")


if __name__ == "__main__":
    parser = argparse.ArgumentParser()
    parser.add_argument("--screenshots", metavar="FOLDER")
    options, rest = parser.parse_known_args()
    if options.screenshots:
        take_screenshots(options.screenshots)
    else:
        unittest.main(argv=[__file__, *rest])
