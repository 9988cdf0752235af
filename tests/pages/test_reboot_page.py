"""The page "Reboot", alone: what it asks, orders and shows, where something reads its orders and where nothing does."""

import contextlib
import os
import pathlib

import pytest
from page import REBOOT, expect_texts, show
from program import get, log_lines, post, write

PIPE = pathlib.Path("/run/vemo-web-reboot")
BOOT = pathlib.Path("/run/vemo-web-boot")
ORDER = post("", program=REBOOT)

STARTED = "DEBUG pages/Reboot 1 main"
BUTTON = '<input type="submit" value="Reboot"'
LINK = '<a id="back" href="reboot.cgi?before=first" >Is it back?</a>'
SCRIPT = "<script>"


@pytest.fixture(autouse=True)
def boot():
    write(BOOT, "first\n")
    yield
    BOOT.unlink(missing_ok=True)
    PIPE.unlink(missing_ok=True)


@pytest.fixture
def reader(boot):
    """What the maintainer's permission brings."""
    os.mkfifo(PIPE, 0o600)
    descriptor = os.open(PIPE, os.O_RDONLY | os.O_NONBLOCK)
    yield descriptor
    os.close(descriptor)


def orders(reader):
    """Those that came since the last call."""
    return os.read(reader, 100)


def ask(query=""):
    return show(get(query, REBOOT))


def expect_refusal(page):
    """The page refuses, and says how else the device is restarted."""
    expect_texts(page, '<p class="warn" >', "not allowed to reboot", "switch the device off and on again",
                 absent=["reboots now", BUTTON, SCRIPT])


def test_asks_first_and_orders_nothing_by_that(reader):
    for query in ("", "reboot", "before=", "before=first", "before=other"):
        expect_texts(ask(query), absent=["reboots now"])
        assert orders(reader) == b""
    expect_texts(ask(), "Reboot the device to activate new settings?", '<form action="reboot.cgi" method="post" >',
                 BUTTON)


def test_orders_when_it_is_posted(reader):
    expect_texts(show(ORDER), "<p>The device reboots now.", LINK, SCRIPT, absent=['class="warn"'])
    assert orders(reader) == b"reboot\n"
    assert log_lines() == [STARTED, "DEBUG pages/Reboot 2 Reboot ordered"]


# A file would take every order, and nothing would follow it.
@pytest.mark.parametrize("make, reason", ((lambda: None, "No such file or directory"),
                                          (lambda: os.mkfifo(PIPE, 0o600), "No such device or address"),
                                          (lambda: os.mkfifo(PIPE, 0), "Permission denied"),
                                          (PIPE.touch, "No such device or address")),
                         ids=("no_pipe", "no_reader", "no_permission", "file"))
def test_offers_and_orders_nothing_where_nothing_reads_it(make, reason):
    make()
    expect_refusal(ask())
    expect_refusal(show(ORDER))
    assert log_lines() == [STARTED, STARTED, f"ERROR pages/Reboot 3 Can't order the reboot: {reason}"]


def test_reports_that_it_ordered_nothing_where_the_pipe_is_full(reader):
    writer = os.open(PIPE, os.O_WRONLY | os.O_NONBLOCK)
    with contextlib.suppress(BlockingIOError):
        while True:
            os.write(writer, bytes(4096))
    os.close(writer)
    expect_refusal(show(ORDER))
    assert log_lines()[-1] == "ERROR pages/Reboot 3 Can't order the reboot: Resource temporarily unavailable"


UNKNOWN = "Whether it has rebooted is not known."
# The word of the latest start, if any, the query, texts that the page has, and texts that it does not have.
STATES = {
    "not_rebooted": ("first", "before=first",
                     ['<p class="warn" >The device has not rebooted yet.</p>', LINK, SCRIPT], []),
    "back": ("second", "before=first", ["<p>The device is back: it has rebooted.</p>"], [SCRIPT, "first"]),
    "unknown_before": ("first", "before=unknown", [UNKNOWN], []),
    "unknown_now": (None, "before=first", [UNKNOWN], []),
    "foreign_markup": ("<b>", "before=<i>", [], ["<i>", "<b>"]),
    "foreign_markup_encoded": ("<b>", "before=%3Ci%3E", [], ["<i>", "<b>"]),
    "own_markup": ("<b>", "before=<b>", [], ["<i>", "<b>"])}


@pytest.mark.parametrize("word, query, present, absent", STATES.values(), ids=STATES)
def test_shows_whether_it_is_back_and_echoes_nothing(word, query, present, absent):
    BOOT.unlink()
    if word:
        write(BOOT, word)
    expect_texts(ask(query), *present, absent=absent)
