"""What a web server has browsers do with its responses."""

import base64
import hashlib
import os
import re

import pytest

import device
from client import FOREIGN, post, request
from device import CHANGE, FIELD, SET_OPTION
from table import row


def hash_of(text):
    """As a policy names what it lets through."""
    return base64.b64encode(hashlib.sha256(text).digest()).decode()


STYLE = hash_of(b"clear:both")  # which the page frame writes
POLICY = ("default-src 'none'; "
          f"style-src 'self' 'unsafe-hashes' 'sha256-{STYLE}'; img-src 'self'; base-uri 'none'; frame-ancestors 'none'")
FORMS = f"sandbox allow-same-origin allow-forms; form-action 'self'; {POLICY}"
# No form, and pictures and style sheets from no program: a page that may hold what it was sent.
ECHO = (f"sandbox allow-same-origin; form-action 'none'; {POLICY}, img-src *:*/images/kesta.jpg *:*/images/tarn.gif; "
        f"style-src *:*/css/all.css 'unsafe-hashes' 'sha256-{STYLE}'")

OTHERS = {"Referrer-Policy": "same-origin", "X-Content-Type-Options": "nosniff", "X-Frame-Options": "DENY"}


def others(answer):
    return {name: answer.headers.get(name.lower()) for name in OTHERS}


ANSWERS = [(200, request("/")), (200, request("/channeldeviceconfig.cgi")), (200, request(SET_OPTION)),
           (200, request("/css/all.css")), (200, request("/images/tarn.gif")), (404, request("/nowhere.html")),
           (403, post("/channeldeviceconfig.cgi", "", FOREIGN))]
ECHOES = [(200, request(CHANGE)), (200, post(SET_OPTION, FIELD + "500")), (200, request(f"{SET_OPTION}?x=500"))]
REFUSED_CHANGE = (403, request(CHANGE, FOREIGN))
if device.NAME == "lighttpd":
    # It alone runs the program for such an address, and judges its refusals by the address that was asked for.
    ECHOES += [(200, post(f"{SET_OPTION}/more", FIELD + "500")), REFUSED_CHANGE]
else:
    ANSWERS.append(REFUSED_CHANGE)


@pytest.mark.parametrize("name, value", [
    pytest.param(name, value, marks=row(f"sends {name}"), id=name) for name, value in (
        ("Content-Security-Policy", FORMS), *OTHERS.items())
])
@pytest.mark.parametrize("status, sent", ANSWERS)
def test_sends(server, status, sent, name, value):
    got = server.ask(sent)
    assert (got.status, got.headers.get(name.lower())) == (status, value)


@row("lets a page that echoes send no form and ask for no program")
@pytest.mark.parametrize("status, sent", ECHOES)
def test_lets_no_echo_give_orders(server, status, sent):
    got = server.ask(sent)
    assert (got.status, got.headers["content-security-policy"]) == (status, ECHO)
    assert others(got) == OTHERS


@row("lets a script run in the reboot page alone, and no other than its own")
def test_lets_the_reboot_page_run_its_script(server):
    """By the hash of what it holds where it may reboot the device."""
    with device.reading_orders() as orders:
        os.set_blocking(orders, False)
        answers = [server.ask(sent) for sent in (post("/reboot.cgi", ""), request("/reboot.cgi?before=x"))]
        assert os.read(orders, 100) == b"reboot\n"
    script = re.search(b"<script>(.*)</script>", answers[0].body, re.DOTALL)[1]
    policy = (f"form-action 'self'; script-src 'sha256-{hash_of(script)}'; connect-src 'self'; {POLICY}")
    for answer in answers:
        assert answer.headers["content-security-policy"] == policy
        assert others(answer) == OTHERS
    for target in ("/", "/css/all.css", SET_OPTION, CHANGE, "/channeldeviceconfig.cgi", f"{SET_OPTION}/reboot.cgi",
                   "/reboot.cgix", "/x/reboot.cgi"):
        assert "script-src" not in server.get(target).headers["content-security-policy"], target


@row("sends Cache-Control with pages of programs")
@pytest.mark.parametrize("page", device.CGI_PAGES)
def test_forbids_to_keep_pages_of_programs(server, page):
    """They show the settings of their moment. The style sheet may be kept."""
    assert server.get(f"/{page}").headers.get("cache-control") == "no-store"
    assert "cache-control" not in server.get("/css/all.css").headers
