"""The device as tests start it: its files and processes. Works inside the device's sandbox, with Debian's Python."""

import contextlib
import os
import pathlib
import re
import socket
import threading
import time

import psutil

import program
from program import LOG, SETTINGS, eventually

SOURCE = pathlib.Path("/source")
SHIPPED = pathlib.Path("/srv/vemo")
SHIPPED_SETTINGS = SOURCE / "standin/obd.conf"
LIMIT = 20  # seconds for whatever is waited for
MOMENT = 0.7  # seconds in which what is not to happen would

SET_OPTION = "/setobdconf.cgi"
FIELD = "CanDetectTimeout="
CHANGE = f"{SET_OPTION}?{FIELD}500"
CGI_PAGES = ("setobdconf.cgi", "channeldeviceconfig.cgi", "reboot.cgi")
NETWORK = "192.168.7.1"  # a name of each server, whether or not it listens there
SECOND = "192.168.7.2"  # of another client there
USER, SECRET = "technician", 'a$1 "b":c\\'

# What is tested: the web server, its address, what of its configuration's prepared parts is turned on, and how much.
# conftest.py changes it by the options of the run, before test modules are imported.
NAME = "lighttpd"
ADDRESS = "127.0.0.1"
HOST = "localhost"
PARTS = ()
IS_LONG = False


def is_on_loopback():
    return HOST == "localhost"


# --- Settings, log, processes

def write_shipped_settings():
    program.write(SETTINGS, program.read(SHIPPED_SETTINGS))


def settings_with(value):
    return re.sub(r"(?m)^(VEMODCanDetectTimeout=).*", lambda key: key[1] + value, SHIPPED_SETTINGS.read_text())


def reset():
    """As it is before the first request."""
    # A program whose client has its answer may not have ended.
    eventually(lambda: not programs())
    write_shipped_settings()
    LOG.write_bytes(b"")


@contextlib.contextmanager
def pipe_for_the_log():
    """That nobody reads."""
    LOG.unlink(missing_ok=True)
    os.mkfifo(LOG, 0o600)
    try:
        yield
    finally:
        LOG.unlink()


def is_untouched():
    """Whether no program has run since the reset."""
    return LOG.stat().st_size == 0 and SETTINGS.read_bytes() == SHIPPED_SETTINGS.read_bytes()


def programs(names=(".cgi",)):
    """The machine's processes that run a file with such an end to its name."""
    return [process.pid for process in psutil.process_iter(["exe"]) if (process.info["exe"] or "").endswith(names)]


def run_program(query="", page="setobdconf.cgi"):
    """The page that the program writes without a web server and with a Java VM that costs nothing."""
    done = program.run(program.get(query, f"{SHIPPED}/htdocs/{page}").by("fake"))
    return done.page.partition("\n\n")[2].encode("latin-1")


# --- Reboots

ORDERS, BOOT = pathlib.Path("/run/vemo-web-reboot"), pathlib.Path("/run/vemo-web-boot")


@contextlib.contextmanager
def without_orders():
    """Meanwhile nobody reads orders to reboot."""
    aside = ORDERS.with_suffix(".aside")
    if is_read := ORDERS.exists():
        ORDERS.rename(aside)
    try:
        yield
    finally:
        if is_read:
            aside.rename(ORDERS)


@contextlib.contextmanager
def reading_orders():
    """The descriptor from which orders to reboot are read and not obeyed; it never ends."""
    with without_orders():
        ORDERS.parent.mkdir(exist_ok=True)
        os.mkfifo(ORDERS)
        orders = os.open(ORDERS, os.O_RDWR | os.O_CLOEXEC)
        try:
            yield orders
        finally:
            os.close(orders)
            ORDERS.unlink()


@contextlib.contextmanager
def rebooting(restart):
    """An order to reboot does so."""
    def obey():
        boot = 1
        while os.read(orders, 100) != b"no more\n":
            time.sleep(1)  # in which the browser gets the page's files
            boot += 1
            BOOT.write_text(f"{boot}\n")
            restart()

    with reading_orders() as orders:
        BOOT.write_text("1\n")
        reader = threading.Thread(target=obey)
        reader.start()
        try:
            yield
        finally:
            os.write(orders, b"no more\n")
            reader.join()


def can_connect(address):
    with socket.socket() as connection:
        return connection.connect_ex(address) == 0
