"""The maintainer's command: it toggles the allocation, and prints the trace."""

import nvm
from nvm import ALLOCATED_REPLY, FREE_REPLY
from program import LOG, Request, read, run

TOGGLE = Request(["/build/device/bin/toggle-device-allocation"], {})
MARKS = "332\n335\n337\n339\n341\n"


def trace(before, value, after):
    """Of the replies before and after, with this value of IsAllocated before."""
    variable = f'<var name="IsAllocated"><string>{value}</string></var>'
    start = before.index(variable)
    found = f"{start} {start + len(variable)} {variable}\n{value}\n"
    return f"\n\n{before}\n{MARKS}{found}\n\n{after}\n\n\n{after}\n"


def test_allocates_and_releases_again():
    with nvm.service():
        assert run(TOGGLE) == (trace(FREE_REPLY, "0", ALLOCATED_REPLY), "", 0)
        assert run(TOGGLE) == (trace(ALLOCATED_REPLY, "1", FREE_REPLY), "", 0)
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
