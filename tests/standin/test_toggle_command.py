"""The maintainer's command: it toggles the allocation, and prints the trace."""

import nvm
from nvm import ALLOCATED_REPLY, FREE_REPLY
from program import LOG, Request, read, run

import logfile

TOGGLE = Request(["/build/device/bin/toggle-device-allocation"], {})


def framed(reply):
    return f"\n\n{reply}\n"


def trace(before, value, after):
    """Of the replies before and after, with this value of IsAllocated before."""
    start = before.index("<var")
    end = before.index("<var", start + 1)
    return (f"{framed(before)}332\n335\n337\n339\n341\n{start} {end} {before[start:end]}\n{value}\n"
            f"{framed(after)}{framed(after)}")


def logged(function, reply):
    """The lines of an exchange: the whole reply, with the header that the service writes."""
    texts = {148: "SendToNvm", 151: f"127.0.0.1 {function}", 185: f"Receive:\n{nvm.http_reply(reply)}",
             191: f"ConLen: {len(reply)}"}
    return "\n".join(f"DEBUG src/NvmManipulator {number} {text}" for number, text in texts.items()).split("\n")


def test_allocates_and_releases_again():
    with nvm.service():
        assert run(TOGGLE) == (trace(FREE_REPLY, "0", ALLOCATED_REPLY), "", 0)
        assert logfile.lines(nvm.undated(read(LOG))) == [*logged(nvm.STATUS, FREE_REPLY),
                                                         *logged(nvm.ALLOCATE, ALLOCATED_REPLY),
                                                         *logged(nvm.STATUS, ALLOCATED_REPLY)]
        assert run(TOGGLE) == (trace(ALLOCATED_REPLY, "1", FREE_REPLY), "", 0)
    assert nvm.statements() == ["INFO nvmGetDeviceStatus: 0 ; owner now: nobody",
                                "INFO nvmAllocateDevice: 0 ; owner now: VEMO_WEB",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: VEMO_WEB",
                                "INFO nvmReleaseDevice: 0 ; owner now: nobody",
                                "INFO nvmGetDeviceStatus: 0 ; owner now: nobody"]


def test_ends_with_255_without_a_service():
    assert run(TOGGLE) == ("\n\n\n332\n335\n337\n339\n341\nStart 1 nicht gefunden!\n", "", 255)


def test_what_the_service_refuses_is_no_failure():
    with nvm.service():
        nvm.exchange(nvm.request(nvm.ALLOCATE, nvm.owner_packet("GARAGE")))
        result = run(TOGGLE)
    assert "Device is allocated by GARAGE" in result.page
    assert (result.error, result.status) == ("", 0)
