"""The whole stand-in device and a real browser in front of it. Works inside the device's sandbox, with
Debian's own Python.

Scripts take "--address ADDRESS", which the sandbox has to have: the device then listens there and not on
loopback; "--server NAME", a web server as web_servers.py names it; "--tls" and "--password", which turn on what is
prepared in its configuration."""

import argparse
import contextlib
import os
import pathlib
import shutil
import socket
import subprocess
import sys
import tempfile
import threading
import time
import urllib.parse
import urllib.request

from selenium import webdriver
from selenium.webdriver.chrome.service import Service
from selenium.webdriver.common.by import By
from selenium.webdriver.remote.remote_connection import RemoteConnection
from selenium.webdriver.support.ui import WebDriverWait

PORT = 8080
# Changed by read_arguments.
ADDRESS = "127.0.0.1"
HOST = "localhost"
ROOT = f"http://{HOST}:{PORT}"
SERVER = "lighttpd"
HAS_TLS = HAS_PASSWORD = IS_LONG = False
SETTINGS = pathlib.Path("/app/tarn-belox/runvex/obd.conf")
ORDERS, BOOT = pathlib.Path("/run/vemo-web-reboot"), pathlib.Path("/run/vemo-web-boot")
SHIPPED_SETTINGS = pathlib.Path("/source/standin/obd.conf")
END = b"no more\n"
LIMIT = 20  # seconds for whatever is waited for

HOME = "/index.html"
FORM = "/channeldeviceconfig.cgi"
WARNING = "/setobdconf.cgi"
REBOOT = "/reboot.cgi"


def success(value):
    return "/setobdconf.cgi?" + urllib.parse.urlencode({"CanDetectTimeout": value})


REFUSALS = tuple(f"/errors/{status}.html" for status in (400, 403, 411, 413, 431, 500, 503))
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


def read_arguments(description):
    """Returns what is left of them, for unittest."""
    global ADDRESS, HOST, ROOT, SERVER, HAS_TLS, HAS_PASSWORD, IS_LONG
    parser = argparse.ArgumentParser(description=description)
    parser.add_argument("--address", default=ADDRESS)
    parser.add_argument("--server", default=SERVER)
    parser.add_argument("--tls", action="store_true")
    parser.add_argument("--password", action="store_true")
    parser.add_argument("--long", action="store_true", help="more of it")
    options, rest = parser.parse_known_args()
    if options.address != ADDRESS:
        ADDRESS = HOST = options.address
    ROOT = f"http{'s' * options.tls}://{HOST}:{PORT}"
    SERVER, HAS_TLS, HAS_PASSWORD, IS_LONG = options.server, options.tls, options.password, options.long
    return [sys.argv[0], *rest]


def is_on_loopback():
    return HOST == "localhost"


def eventually(is_true, limit=LIMIT):
    """Whether it became true."""
    deadline = time.monotonic() + limit
    while not is_true():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def wait_until(is_true, what, limit=None):
    if not eventually(is_true, limit or LIMIT):
        raise TimeoutError(what)


def process_name(process):
    """Empty when it has gone."""
    try:
        return pathlib.Path(f"/proc/{process}/comm").read_text().rstrip("\n")
    except OSError:
        return ""


def is_listening():
    with socket.socket() as client:
        return client.connect_ex((ADDRESS, PORT)) == 0


def write_shipped_settings():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)


def read_settings():
    return SETTINGS.read_text()


@contextlib.contextmanager
def running_device(edits=()):
    """The stand-in as it is; or its parts, with another web server, address, or with edits."""
    write_shipped_settings()
    if not is_on_loopback() or SERVER != "lighttpd" or HAS_TLS or HAS_PASSWORD or edits:
        with running_parts(edits):
            yield
        return
    device = subprocess.Popen(["/srv/vemo/start"], env={**os.environ, "VEMO_PORT": str(PORT)})
    try:
        wait_until(is_listening, "the web server does not listen")
        yield
    finally:
        # What it started ends with the sandbox.
        device.kill()
        device.wait()


@contextlib.contextmanager
def rebooting(restart):
    """An order to reboot does so."""
    ORDERS.parent.mkdir(exist_ok=True)
    ORDERS.unlink(missing_ok=True)
    os.mkfifo(ORDERS)
    orders = os.open(ORDERS, os.O_RDWR | os.O_CLOEXEC)

    def obey():
        boot = 1
        while os.read(orders, 100) != END:
            time.sleep(1)  # in which the browser gets the page's files
            boot += 1
            BOOT.write_text(f"{boot}\n")
            restart()

    BOOT.write_text("1\n")
    reader = threading.Thread(target=obey)
    reader.start()
    try:
        yield
    finally:
        os.write(orders, END)
        reader.join()
        os.close(orders)
        ORDERS.unlink()


@contextlib.contextmanager
def running_parts(edits):
    import web_servers  # which imports this one
    from prepared import PASSWORD, TLS

    subprocess.run(["/srv/vemo/make-class-archive", "/srv/vemo/htdocs/setobdconf.cgi", "/srv/vemo/java.options",
                    "/srv/vemo/java", "/app/class-archive"], check=True)
    service = subprocess.Popen(["/srv/vemo/bin/nvm-service"])
    web_servers.NAME, web_servers.ADDRESS, web_servers.HOST = SERVER, ADDRESS, HOST
    parts = [part for part, is_on in ((TLS, HAS_TLS), (PASSWORD, HAS_PASSWORD)) if is_on]
    server = web_servers.Server(0, edits, parts)

    def restart():
        server.stop()
        # It is gone with the service.
        shutil.rmtree(server.installation.run)
        server.installation.run.mkdir()
        time.sleep(2)  # as long as a page takes to see it
        server.start()

    try:
        with rebooting(restart):
            yield
    finally:
        server.stop()
        service.kill()
        service.wait()


def open_page(driver, path):
    """As a technician gets there: what changes something is taken from our own pages alone, but on loopback."""
    if is_on_loopback() or ("?" not in path and path != REBOOT):
        driver.get(ROOT + path)
        return
    driver.get(ROOT + FORM)
    leave(driver, lambda: driver.execute_script("location = arguments[0]", path))


def leave(driver, act):
    """Does what leads to another page, or to the same anew, and waits for that."""
    old = driver.find_element(By.TAG_NAME, "html")
    act()
    WebDriverWait(driver, LIMIT).until(
        lambda driver: driver.find_element(By.TAG_NAME, "html") != old
        and driver.execute_script("return document.readyState") == "complete",
        "no new page",
    )


def order_of(owner, function):
    """Another client of the nVm service's."""
    packet = ("<wddxPacket version='1.0'><header/><data><struct><var name='DeviceOwner'><string>" + owner +
              "</string></var><var name='IfhClientIpAddr'><string>0</string></var></struct></data></wddxPacket>")
    address = f"http://127.0.0.1:5302/nVm?FunctionName={function}"
    request = urllib.request.Request(address, packet.encode(), method="GET")
    urllib.request.urlopen(request, timeout=LIMIT).close()


def own_certificate():
    """For Chromium, which takes it in spite of who made it."""
    told = subprocess.run("openssl x509 -in /tmp/web-0/etc/certificate.pem -noout -pubkey | openssl pkey -pubin"
                          " -outform der | openssl dgst -sha256 -binary | base64", shell=True, check=True,
                          stdout=subprocess.PIPE, text=True)
    return f"--ignore-certificate-errors-spki-list={told.stdout.strip()}"


def log_in(driver):
    """The browser knows name and password from here on, and tells them unasked."""
    import web_servers

    secret = urllib.parse.quote(web_servers.SECRET)
    # A page that no browser keeps: it has to ask for it, and is asked.
    driver.get("{0}://{2}:{3}@{1}{4}".format(*ROOT.split("://"), web_servers.USER, secret, FORM))


@contextlib.contextmanager
def running_browser(without=(), page_load_strategy="normal", preferences=None, profile=None):
    """`without` names arguments of Chromium's that are left out; a profile stays."""
    options = webdriver.ChromeOptions()
    options.page_load_strategy = page_load_strategy
    options.add_experimental_option("prefs", preferences or {})
    options.binary_location = "/usr/bin/chromium"
    kept = profile
    profile = profile or tempfile.mkdtemp(prefix="profile-", dir="/tmp")
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
        *([own_certificate()] if HAS_TLS else []),
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
        if HAS_PASSWORD:
            log_in(driver)
        yield driver
    finally:
        driver.quit()
        if not kept:
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
