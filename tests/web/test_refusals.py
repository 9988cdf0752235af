"""What a web server keeps off the programs for what is said of a request, and how it says so."""

import contextlib
import socket

import pytest

import device
from client import FOREIGN, post, request, typed
from device import CHANGE, FIELD, HOST, NETWORK, SET_OPTION, SETTINGS, settings_with
from server import refusal_page
from table import row


def cases(name, *headers, **how):
    """Of a row: a request for each, which has nothing else against it. A header, or more of them."""
    tuples = [(words,) if isinstance(words, str) else words for words in headers]
    return [pytest.param(words, how, marks=row(name), id=f"{name}: {words}{how}") for words in tuples]


def expect_refused(server, sent):
    answer = server.ask(sent)
    assert (answer.status, answer.body) == (403, b"" if sent.startswith(b"HEAD") else refusal_page(403))
    assert device.is_untouched()


# --- Changes

OWN = f"Referer: http://{HOST}/"
THERE = {"host": NETWORK, "by_own_page": False}
NOBODYS = "refuses a change by nobody's page, where the address is not loopback"


@pytest.mark.parametrize("headers, how", [
    *cases("refuses a foreign name in Host", OWN, host="foreign.example"),
    *cases("refuses a foreign name in Host", OWN, host="localhost.foreign.example"),
    *cases("refuses a foreign name in Host", OWN, host="foreign.example:8080"),
    *cases("refuses a foreign name in Host", OWN, host=f"{HOST}.example"),
    *cases("refuses a foreign name in Host", OWN, host="", version="1.0"),
    *cases("refuses a foreign Origin", FOREIGN, "Origin: null", "Origin: http://localhost.example",
           f"Origin: ftp://{HOST}", f"Origin: http://{HOST}@foreign.example"),
    *cases("refuses a foreign Referer", "Referer: http://foreign.example/", f"Referer: http://{HOST}@example/",
           f"Referer: http://{HOST}.example/"),
    *cases("refuses a foreign Sec-Fetch-Site", "Sec-Fetch-Site: cross-site", "Sec-Fetch-Site: same-site",
           "Sec-Fetch-Site: future"),
    *cases("refuses a Sec-Fetch-Mode that is no navigation", "Sec-Fetch-Mode: no-cors", "Sec-Fetch-Mode: future"),
    *cases("refuses a Sec-Fetch-Dest that is no document", "Sec-Fetch-Dest: image", "Sec-Fetch-Dest: future"),
    *cases("refuses a prefetch: Sec-Purpose, Purpose, X-Purpose, X-Moz", typed("Sec-Purpose: prefetch"),
           typed("Sec-Purpose: prefetch;prerender"), typed("Purpose: prefetch"), typed("X-Moz: prefetch"),
           typed("X-Purpose: preview")),
    *cases("refuses a WebSocket: Upgrade, Sec-WebSocket-Key", "Upgrade: websocket",
           "Sec-WebSocket-Key: dGhlIHNhbXBsZQ=="),
    *cases("looks at both when one of these comes twice", ("Sec-Fetch-Site: none", "Sec-Fetch-Site: cross-site"),
           (f"Origin: http://{HOST}", FOREIGN)),
    # There browsers do not say by which site a page was asked for.
    *cases(NOBODYS, (), "Origin: ", "Origin: null", "Origin: http://192.168.7.2", "Referer: ", **THERE),
    *cases("takes a change by an address that was typed, on loopback alone", typed("Sec-Fetch-User: ?1"), **THERE),
])
def test_refuses_a_change(server, headers, how):
    expect_refused(server, request(CHANGE, *headers, **how))
    expect_refused(server, post(SET_OPTION, FIELD + "500", *headers, **how))


@pytest.mark.parametrize("headers, how", [
    *(((header,), {}) for header in (
        f"Origin: http://{HOST}:8080", "Origin: http://127.0.0.1:8080", f"Origin: http://{HOST}:9090",
        f"Origin: https://{HOST}", f"Referer: http://{HOST}:8080/index.html", f"Referer: https://{HOST}/index.html",
        "Sec-Fetch-Site: same-origin")),
    (typed("Sec-Fetch-User: ?1"), {}),
    (("Sec-Fetch-Site: same-origin", "Sec-Fetch-Mode: navigate", "Sec-Fetch-Dest: document",
      f"Origin: http://{HOST}:8080", f"Referer: http://{HOST}:8080/channeldeviceconfig.cgi"), {}),
    # By another port of a tunnel.
    ((OWN,), {"host": f"{HOST}:9090"}),
    *cases(NOBODYS, f"Origin: http://{NETWORK}:8080", f"Origin: https://{NETWORK}", f"Referer: https://{NETWORK}/",
           f"Referer: http://{NETWORK}:8080/channeldeviceconfig.cgi", **THERE),
    *cases("takes a change by an address that was typed, on loopback alone", typed("Sec-Fetch-User: ?1"),
           host="localhost", by_own_page=False),
], ids=str)
def test_takes_a_change_by_an_own_page(server, headers, how):
    assert server.get(CHANGE, *headers, **how).status == 200
    assert SETTINGS.read_text() == settings_with("500")
    assert server.ask(post(SET_OPTION, FIELD + "501", *headers, **how)).status == 200
    assert SETTINGS.read_text() == settings_with("501")


@row(NOBODYS)
def test_refuses_nobodys_orders_and_shows_everybody_what_changes_nothing(server):
    for target in (SET_OPTION + "?x", "/channeldeviceconfig.cgi", "/reboot.cgi", "/index.html"):
        expect_refused(server, post(target, FIELD + "500", **THERE))
    expect_refused(server, request("/reboot.cgi", **THERE))
    for target in (SET_OPTION, SET_OPTION + "?", "/channeldeviceconfig.cgi", "/channeldeviceconfig.cgi?", "/index.html",
                   "/css/all.css"):
        assert server.get(target, **THERE).status == 200


# --- Other pages

@row("refuses foreign orders to the other pages")
@pytest.mark.parametrize("header", [FOREIGN, "Origin: null", "Referer: http://foreign.example/",
                                    "Sec-Fetch-Site: cross-site", "Sec-Fetch-Site: same-site", "Sec-Fetch-Dest: image",
                                    "Sec-Fetch-Mode: no-cors", "Sec-Purpose: prefetch", "Sec-WebSocket-Key: x"])
def test_refuses_foreign_orders_to_the_other_pages(server, header):
    """What is posted, and the reboot however it is asked for. What changes nothing may be linked from anywhere."""
    for page in ("/reboot.cgi", "/reboot.cgi?before=x", "/%72eboot.cgi/more"):
        expect_refused(server, request(page, header))
        expect_refused(server, post(page, "", header))
    for page in ("/channeldeviceconfig.cgi", "/channeldeviceconfig.cgi/more", "/index.html"):
        expect_refused(server, post(page, "allocation=allocate", header))
    shown = {server.get(page, header).status for page in ("/channeldeviceconfig.cgi", "/index.html")}
    assert shown == ({403, 200} if header == "Sec-Fetch-Dest: image" else {200})


@row("refuses a page of a program to what is no document, too")
def test_refuses_programs_to_what_is_no_document(server):
    """Those that change nothing, too: each costs a process, and a foreign page asks as often as it likes."""
    pages = SET_OPTION, "/channeldeviceconfig.cgi", "/channeldeviceconfig.cgi?x", "/reboot.cgi"
    for page in (*pages, "/index.html"):
        assert server.get(page, *typed("Sec-Fetch-User: ?1")).status == 200
    assert server.get("/css/all.css", "Sec-Fetch-Dest: style").status == 200
    device.reset()
    for page in (*pages, "/channeldeviceconfig.cgi/more"):
        for use in ("empty", "image", "iframe", "future"):
            expect_refused(server, request(page, f"Sec-Fetch-Dest: {use}"))


# --- Addresses

SPELLINGS = (
    "/setobdconf.cgi/", "/setobdconf.cgi//", "/setobdconf.cgi/more", "/setobdconf.cgi%2F", "/setobdconf.cgi%2fmore",
    "/setobdconf%2Ecgi", "/setobdconf%2ecgi/more", "/%73etobdconf.cgi", "//setobdconf.cgi", "/%2fsetobdconf.cgi",
    "/./setobdconf.cgi", "/%2e/setobdconf.cgi", "/css/../setobdconf.cgi", "/css/%2e%2e/setobdconf.cgi",
    "/css//../setobdconf.cgi", "/css/..%2fsetobdconf.cgi", "/setobdconf.cgi;x", "/setobdconf.cgi;x/",
    "/setobdconf.cgi%3bx", "/setobdconf.cgi%00", "/setobdconf.cgi%00.html", "/setobdconf.cgi%20", "/setobdconf.cgi.",
    "/setobdconf.cgi%0a", "/setobdconf.cgi~", "/setobdconf.CGI", "/SETOBDCONF.cgi", "/setobdconf.cgi%23",
    "/setobdconf.cgi%3f", "/setobdconf.cgi\\", "/\\setobdconf.cgi", "/gated/setobdconf.cgi", "/cgi-bin/setobdconf.cgi",
    "/cgi-bin/../setobdconf.cgi", "/htdocs/setobdconf.cgi", "/../libexec/setobdconf.cgi",
    "/%2e%2e/libexec/setobdconf.cgi", "/..%2flibexec%2fsetobdconf.cgi", f"http://{NETWORK}/setobdconf.cgi",
    f"http://{NETWORK}//setobdconf.cgi", "/setobdconf%252Ecgi", "/setobdconf.cgi%c0%80",
)


@row("is not got round by another spelling of the address")
@pytest.mark.parametrize("spelling", SPELLINGS)
def test_no_spelling_gets_round_the_refusal(server, spelling):
    for header in (FOREIGN, "Sec-Purpose: prefetch", "Sec-WebSocket-Key: x", "Sec-Fetch-Dest: image"):
        server.get(f"{spelling}?{FIELD}500", header)
        assert device.is_untouched(), header
    for sent in (request(f"{spelling}?{FIELD}500", **THERE), post(spelling, FIELD + "500", **THERE)):
        server.ask(sent)
        assert device.is_untouched(), sent


@row("refuses a # in a program's address")
def test_refuses_fragments(server):
    """No path is judged other than the one that the program gets."""
    for target in (f"{SET_OPTION}#?{FIELD}500", f"{CHANGE}#", f"{CHANGE}#/index.html", f"{SET_OPTION}#/../index.html",
                   "/channeldeviceconfig.cgi#"):
        answer = server.get(target)
        assert (answer.status, answer.body) == (400, refusal_page(400)), target
        assert device.is_untouched(), target
    for target in ("/#/..", "/css/all.css#/../..", "/x?#/.."):
        server.get(f"{target}{CHANGE}")
        assert device.is_untouched(), target
    # lighttpd cuts it off, with what follows, before anything can look at it.
    assert server.get(f"/#/..{CHANGE}").status == (200 if device.NAME == "lighttpd" else 400)


@row("never shows a program as text")
def test_never_shows_a_program_as_text(server):
    """Not by any address, and not when it is not executable."""
    def expect_no_text(status):
        # lighttpd remembers for a second what a file was.
        assert device.eventually(lambda: server.get(SET_OPTION).status == status)
        for target in (SET_OPTION, *SPELLINGS):
            body = server.get(target).body
            assert not any(text in body for text in (b"\x7fELF", b"secret", b"#!")), target

    with server.own_program("# secret", 0o644, "setobdconf.cgi"):
        # lighttpd refuses by itself, elsewhere the gate cannot start it.
        expect_no_text(403 if device.NAME == "lighttpd" else 500)
        gated = server.programs / "gated/setobdconf.cgi"
        gated.chmod(0o644)
        try:
            expect_no_text(500 if device.NAME == "apache2" else 403)
        finally:
            gated.chmod(0o755)
    expect_no_text(200)


@row("listens on 127.0.0.1 alone")
def test_listens_on_one_address_alone(server):
    for address in {"127.0.0.1", "127.0.0.2", device.ADDRESS} - {device.ADDRESS}:
        with pytest.raises(ConnectionRefusedError):
            socket.create_connection((address, server.port), device.LIMIT).close()


# --- Methods and sizes

LARGE = 5000 * "5"
IN_CHUNKS = request(SET_OPTION, "Content-Type: application/x-www-form-urlencoded", "Transfer-Encoding: chunked",
                    method="POST") + f"{len(FIELD + LARGE):x}\r\n{FIELD}{LARGE}\r\n0\r\n\r\n".encode()
PUT = post(SET_OPTION, FIELD + "500").replace(b"POST", b"PUT", 1)
METHODS = "refuses methods other than GET, HEAD, POST"


@pytest.mark.parametrize("sent, statuses", [
    *(pytest.param(request(CHANGE, method=method), {403}, marks=row(METHODS)) for method in ("DELETE", "OPTIONS")),
    pytest.param(PUT, {403}, marks=row(METHODS)),
    pytest.param(request(CHANGE, method="FOO"), {403, 501}, marks=row(METHODS)),
    pytest.param(request(CHANGE, method="HEAD"), {403}, marks=row("refuses HEAD of a program")),
    # The answer can be lost with the connection when it comes while the request is still sent.
    pytest.param(post(SET_OPTION, FIELD + LARGE), {0, 413}, marks=row("refuses a body of more than 4 kB")),
    pytest.param(IN_CHUNKS, {0, 411, 413}, marks=row("refuses such a body in chunks")),
    pytest.param(request(CHANGE, f"Cookie: {LARGE}"), {0, 400, 431}, marks=row("refuses a header of more than 4 kB")),
    pytest.param(request(CHANGE + LARGE), {0, 414, 431}, marks=row("refuses a request line of more than 4 kB")),
], ids=["DELETE", "OPTIONS", "PUT", "FOO", "HEAD", "body", "chunks", "header", "request line"])
def test_refuses_a_method_and_what_is_too_large(server, sent, statuses):
    assert server.ask(sent).status in statuses
    assert device.is_untouched()
    assert server.get(CHANGE).status == 200


@row("starts no program for a body that is cut")
def test_starts_no_program_for_a_body_that_is_cut(server):
    with contextlib.closing(server.connect()) as connection:
        connection.sendall(post(SET_OPTION, FIELD + "500").replace(b"Length: 20", b"Length: 99"))
        assert not device.eventually(lambda: not device.is_untouched(), device.MOMENT)


# --- Pages for people

def answer_to(server, sent):
    """The first: one that comes while the request is still sent can be lost with the connection."""
    return next((answer for answer in (server.ask(sent) for _ in range(10)) if answer.status), None)


# What is too long, each server names as it likes; a length that is missing not all mind.
OWN_STATUSES = {"lighttpd": (431, 431, 200, 411), "apache2": (400, 414, 411, 200), "nginx": (431, 414, 200, 200)}
REFUSED = [
    (403, request("/", host="foreign.example")), (400, b"GARBAGE\r\n\r\n"), (400, request("/", host="a b")),
    (400, request(f"{CHANGE}#")), (400, request("/", "Bad Header: x")), (413, post(SET_OPTION, FIELD + LARGE)),
    (413, post("/index.html", FIELD + LARGE)), *zip(OWN_STATUSES[device.NAME], (
        request(CHANGE, f"Cookie: {LARGE}"), request(CHANGE + LARGE),
        request(SET_OPTION, "Transfer-Encoding: chunked", method="POST") + b"1\r\nx\r\n0\r\n\r\n",
        request(SET_OPTION, method="POST"))),
]
BY_A_PAGE = "refuses with a page for people: 400, 403, 411, 413, 414, 431, 500, 503"


@row(BY_A_PAGE)
@pytest.mark.parametrize("status, sent", REFUSED)
def test_refuses_with_a_page_for_people(server, status, sent):
    """Which says nothing of the request, to the byte."""
    answer = answer_to(server, sent)
    assert answer.status == status
    if status != 200:
        assert answer.body == refusal_page(431 if status == 414 else status)
        assert answer.headers["content-type"].replace("; ", ";") == "text/html;charset=iso-8859-1"


@row("sends it with its own refusals of what it cannot read or is too large, too")
def test_sends_the_policy_with_every_refusal(server):
    without = [sent for _, sent in REFUSED if "content-security-policy" not in answer_to(server, sent).headers]
    assert without == []


@row(BY_A_PAGE)
@pytest.mark.parametrize("program", [b"\0", b"#!/bin/sh\nexit 1\n"], ids=["cannot run", "fails"])
def test_shows_a_page_for_people_when_a_program_fails(server, program):
    with server.own_program("") as page:
        (server.programs / page[1:]).write_bytes(program)
        answer = server.get(page)
    assert (answer.status, answer.body) == (500, refusal_page(500))
