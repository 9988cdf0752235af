"""The whole stand-in device and a real browser in front of it. Works inside the device's sandbox, with
Debian's own Python."""

import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import tempfile
import time
import urllib.parse

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.remote.remote_connection import RemoteConnection

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


def eventually(is_true, limit=LIMIT):
    """Whether it became true."""
    deadline = time.monotonic() + limit
    while not is_true():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def wait_until(is_true, what):
    if not eventually(is_true):
        raise TimeoutError(what)


def process_name(process):
    """Empty when it has gone."""
    try:
        return pathlib.Path(f"/proc/{process}/comm").read_text().rstrip("\n")
    except OSError:
        return ""


def is_listening():
    with socket.socket() as client:
        return client.connect_ex(("127.0.0.1", PORT)) == 0


def write_shipped_settings():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)


def read_settings():
    return SETTINGS.read_text()


@contextlib.contextmanager
def running_device():
    write_shipped_settings()
    device = subprocess.Popen(["/srv/vemo/start"], env={**os.environ, "VEMO_PORT": str(PORT)})
    try:
        wait_until(is_listening, "the web server does not listen")
        yield
    finally:
        # What it started ends with the sandbox.
        device.kill()
        device.wait()


@contextlib.contextmanager
def running_browser(without=(), page_load_strategy="normal", preferences=None):
    """`without` names arguments of Chromium's that are left out."""
    options = webdriver.ChromeOptions()
    options.page_load_strategy = page_load_strategy
    options.add_experimental_option("prefs", preferences or {})
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
        if argument not in without:
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
