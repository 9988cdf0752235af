"""A real browser in front of the device, and what a technician does and sees in it. Works inside the device's sandbox,
with Debian's own Python."""

import contextlib
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.remote_connection import RemoteConnection
from selenium.webdriver.support.ui import WebDriverWait

import device
from prepared import PASSWORD, TLS

PORT = 8080
HOME = "/index.html"
FORM = "/channeldeviceconfig.cgi"
WARNING = "/setobdconf.cgi"
REBOOT = "/reboot.cgi"
REFUSALS = tuple(f"/errors/{status}.html" for status in (400, 403, 411, 413, 431, 500, 503))


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


def root():
    """Of all addresses."""
    return f"http{'s' * (TLS in device.PARTS)}://{device.HOST}:{PORT}"


@contextlib.contextmanager
def running_browser(without=(), page_load_strategy="normal", preferences=None, limit=device.LIMIT):
    """`without` names arguments of Chromium's that are left out."""
    options = webdriver.ChromeOptions()
    options.page_load_strategy = page_load_strategy
    options.add_experimental_option("prefs", preferences or {})
    options.binary_location = "/usr/bin/chromium"
    for argument in (
        # It is in a sandbox, in which it cannot build its own; who made the certificate matters elsewhere.
        "--headless", "--no-sandbox", *(["--ignore-certificate-errors"] if TLS in device.PARTS else []),
        "--disable-gpu", "--disable-quic", "--disable-sync", "--disable-dev-shm-usage", "--no-first-run",
        "--disable-background-networking", "--disable-component-update",
    ):
        if argument not in without:
            options.add_argument(argument)
    options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
    RemoteConnection.set_timeout(2 * limit)
    service = Service("/usr/bin/chromedriver", log_path="/tmp/chromedriver.log")
    driver = webdriver.Chrome(service=service, options=options)
    try:
        driver.set_page_load_timeout(limit)
        driver.set_script_timeout(limit)
        if PASSWORD in device.PARTS:
            # A page that no browser keeps: it is asked for name and password here, and sends them unasked from then on.
            secret = urllib.parse.quote(device.SECRET)
            driver.get("{0}://{2}:{3}@{1}{4}".format(*root().split("://"), device.USER, secret, FORM))
        yield driver
    finally:
        driver.quit()


class Technician:
    """Somebody at the browser; `root` begins the device's addresses."""

    def __init__(self, driver, root, limit=device.LIMIT):
        self.driver = driver
        self.root = root
        self.limit = limit

    # --- What he does

    def start(self):
        """At a desk, at the home page; the device as it is shipped."""
        self.write_shipped_settings()
        self.set_screen(DESK)
        self.open(HOME)

    def open(self, path):
        """As he gets there: what changes something is taken from our own pages alone, but on loopback."""
        if device.is_on_loopback() or ("?" not in path and path != REBOOT):
            self.driver.get(self.root + path)
            return
        self.driver.get(self.root + FORM)
        self.leave(lambda: self.driver.execute_script("location = arguments[0]", path))

    def leave(self, act):
        """Does what leads to another page, or to the same anew, and waits for that."""
        old = self.driver.find_element(By.TAG_NAME, "html")
        act()
        WebDriverWait(self.driver, self.limit).until(
            lambda driver: driver.find_element(By.TAG_NAME, "html") != old
            and driver.execute_script("return document.readyState") == "complete",
            "no new page",
        )

    def links(self):
        """The page's links to other pages, by their text."""
        return {a.text: a for a in self.driver.find_elements(By.TAG_NAME, "a")}

    def follow(self, text):
        self.leave(self.links()[text].click)

    def wait_until(self, is_true, what, limit=None):
        WebDriverWait(self.driver, limit or self.limit).until(lambda _: is_true(), what)

    def press(self, text):
        buttons = self.driver.find_elements(By.CSS_SELECTOR, "input[type=submit]")
        self.leave(next(b for b in buttons if b.get_attribute("value").strip() == text).click)

    def enter(self, value):
        """The browser's own means: typing would be slow and cannot enter everything."""
        self.driver.execute_script("arguments[0].value = arguments[1]", self.field(), value)

    def post(self, value):
        """Sends the value with the page's own form, whatever its field asks for."""
        self.open(FORM)
        self.driver.execute_script("arguments[0].form.noValidate = true", self.field())
        self.enter(value)
        self.press("Set")

    def set_screen(self, screen, scale=1):
        """A window that fills the screen."""
        width, height, is_phone = screen
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "screenWidth": width, "screenHeight": height,
            "deviceScaleFactor": scale, "mobile": is_phone,
        })

    # --- What he sees

    @property
    def title(self):
        return self.driver.title

    def field(self):
        return self.driver.find_element(By.NAME, "CanDetectTimeout")

    def heading(self):
        return self.driver.find_element(By.TAG_NAME, "h2").text

    def text(self):
        return self.driver.find_element(By.TAG_NAME, "body").text

    def style(self, selector, name):
        return self.driver.find_element(By.CSS_SELECTOR, selector).value_of_css_property(name)

    # --- What the device has of it

    def settings(self):
        return device.SETTINGS.read_text()

    def write_shipped_settings(self):
        device.write_shipped_settings()
