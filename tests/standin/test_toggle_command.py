"""The maintainer's command: it toggles the allocation, prints the trace, and leaves the first reply in a file."""

import pathlib
import socket
import subprocess

import nvm
import pytest
from nvm import ADDRESS, ALLOCATE, ALLOCATED_REPLY, FREE_REPLY, PORT, RELEASE, STATUS
from program import LOG, Request, log_lines, read, run, start, write

TOGGLE = Request(["/build/device/bin/toggle-device-allocation"], {})
STATUS_FILE = pathlib.Path("/tmp/cgirep.txt")
MARKS = "332\n335\n337\n339\n341\n"
DECLARATION = "<?xml version='1.0'?>"
DONE, LAST = f"{DECLARATION}<done/>", f"{DECLARATION}<status/>"


@pytest.fixture(autouse=True)
def no_status_file():
    STATUS_FILE.unlink(missing_ok=True)
    yield
    STATUS_FILE.unlink(missing_ok=True)


def variable(content):
    return f'<var name="IsAllocated">{content}</var>'


def status(content):
    return f'{DECLARATION}{variable(content)}<var name="Next"></var>'


FREE = status("<string>0</string>")


def framed(*replies):
    return "".join(f"\n\n{reply}\n" for reply in replies)


def trace(reply, content, value):
    """Of a reply in which the variable has this content. The positions are those of the whole reply."""
    found = variable(content)
    begin = reply.index(found)
    return f"{framed(reply)}{MARKS}{begin} {begin + len(found)} {found}\n{value}\n"


# --- With the device's own service

def test_allocates_and_releases_again():
    with nvm.service():
        assert run(TOGGLE) == (
            trace(FREE_REPLY, "<string>0</string>", "0") + framed(ALLOCATED_REPLY, ALLOCATED_REPLY), "", 0)
        assert run(TOGGLE) == (
            trace(ALLOCATED_REPLY, "<string>1</string>", "1") + framed(FREE_REPLY, FREE_REPLY), "", 0)
    assert nvm.statements() == ["INFO nvmGetDeviceStatus: 0 ; owner now: nobody",
                                "INFO nvmAllocateDevice: 0 ; owner now: VEMO_WEB",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                                "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: nobody"]
    # With the header that the service writes.
    replies = [FREE_REPLY] + 3 * [ALLOCATED_REPLY] + 2 * [FREE_REPLY]
    logged = nvm.undated(read(LOG)).split("Receive:\n")[1:]
    assert all(text.startswith(f"{nvm.http_reply(reply)}\n2") for text, reply in zip(logged, replies, strict=True))


def test_ends_with_255_without_a_service():
    assert run(TOGGLE) == (f"\n\n\n{MARKS}Start 1 nicht gefunden!\n", "", 255)


def test_what_the_service_refuses_is_no_failure():
    with nvm.service():
        nvm.exchange(nvm.request(nvm.ALLOCATE, nvm.owner_packet("GARAGE")))
        result = run(TOGGLE)
    assert "Device is allocated by GARAGE" in result.page
    assert (result.error, result.status) == ("", 0)


# --- With any other

def toggle(*bodies):
    """The result with a service that gives these bodies, and the requests that it got."""
    with nvm.answering(*bodies) as requests:
        return run(TOGGLE), requests


def expect_exchanges(requests, *exchanges):
    """The requests were these functions, of a valid packet unless it asks for the status, and the log has both."""
    lines = []
    for request, (function, body) in zip(requests, exchanges, strict=True):
        head, packet = request.split("\r\n\r\n")
        assert head.startswith(f"GET /nVm?FunctionName={function} HTTP/1.1\r\n")
        # The service wants its packet's data empty.
        assert nvm.is_valid(packet) == (function != STATUS)
        lines += ["DEBUG src/NvmManipulator 148 SendToNvm",
                  f"DEBUG src/NvmManipulator 151 127.0.0.1 {function}",
                  "DEBUG src/NvmManipulator 185 Receive:", *nvm.short_http_reply(body).split("\n")]
        lines += [f"DEBUG src/NvmManipulator 191 ConLen: {len(body)}"] if body else []
    assert log_lines() == lines


# What stands before the variable, its content, what stands behind it, and its value.
@pytest.mark.parametrize("before, content, behind, value", (
    *(("", f"<string>{value}</string>", "", value) for value in ("0", "1", " 0", "0 ", "00", "", "false", "<string>0")),
    ('<var name="First"></var>', "\n<x/><string>0</string> ", "", "0"),
    ("", "<string>1</string>", variable("<string>0</string>"), "1")))
def test_allocates_where_the_value_is_zero_and_releases_elsewhere(before, content, behind, value):
    reply = f'{DECLARATION}{before}{variable(content)}{behind}<var name="Next"></var>'
    result, requests = toggle(reply, DONE, LAST)
    assert result == (trace(reply, content, value) + framed(DONE, LAST), "", 0)
    expect_exchanges(requests, (STATUS, reply), (ALLOCATE if value == "0" else RELEASE, DONE), (STATUS, LAST))
    assert read(STATUS_FILE) == f"{reply}\n"


UNFOUND = {
    "empty reply": ("", "Start 1 nicht gefunden!\n"),
    "no variable": (FREE.replace("Is", "is"), "Start 1 nicht gefunden!\n"),
    "variable in single quotes": (FREE.replace('"', "'"), "Start 1 nicht gefunden!\n"),
    "last variable": (f"{DECLARATION}{variable('<string>0</string>')}</struct>", "End 1 nicht gefunden!\n"),
    "number as value": (status("<number>0</number>"),
                        f"21 69 {variable('<number>0</number>')}\nStart 2 nicht gefunden!\n"),
    "value of the next variable": (status("") + "<string>0</string>",
                                   f"21 51 {variable('')}\nStart 2 nicht gefunden!\n"),
    "end before the start": (status("</string><string>0"),
                             f"21 69 {variable('</string><string>0')}\nEnd 2 nicht gefunden!\n")}


@pytest.mark.parametrize("reply, last_words", UNFOUND.values(), ids=UNFOUND)
def test_gives_up_with_its_reason(reply, last_words):
    result, requests = toggle(reply)
    assert result == (framed(reply) + MARKS + last_words, "", 255)
    expect_exchanges(requests, (STATUS, reply))
    assert read(STATUS_FILE) == f"{reply}\n"


@pytest.mark.parametrize("later", (("", DONE), (DONE, "")), ids=("allocation", "second status"))
def test_a_failing_later_exchange_is_an_empty_reply_and_not_reported(later):
    result, _ = toggle(FREE, *later)
    assert result == (trace(FREE, "<string>0</string>", "0") + framed(*later), "", 0)


def test_writes_the_status_file_anew_and_where_a_link_in_its_place_leads(tmp_path):
    write(tmp_path / "elsewhere", 1000 * "x")
    STATUS_FILE.symlink_to(tmp_path / "elsewhere")
    toggle(DONE)
    assert read(tmp_path / "elsewhere") == f"{DONE}\n"


@pytest.mark.parametrize("elsewhere", ("/tmp", "/dev/full"))
def test_ignores_a_status_file_that_cannot_be_opened_or_written(elsewhere):
    STATUS_FILE.symlink_to(elsewhere)
    result, _ = toggle(FREE, DONE, LAST)
    assert (result.page, result.status) == (trace(FREE, "<string>0</string>", "0") + framed(DONE, LAST), 0)


@pytest.mark.parametrize("begun", ("", f"HTTP/1.1 200 OK\r\ncontent-length: 25\r\n\r\n{DECLARATION}"),
                         ids=("silent", "hangs up within the body"))
def test_waits_without_a_timeout_for_a_service(begun):
    with socket.create_server((ADDRESS, PORT)) as service, start(TOGGLE, stdout=subprocess.DEVNULL) as process:
        connection, _ = service.accept()
        connection.recv(4096)
        if begun:
            nvm.send(connection, begun)
            connection.close()
        with pytest.raises(subprocess.TimeoutExpired):
            process.wait(1)
