"""What is ready to be turned on: a password, and TLS."""

import base64
import re
import subprocess

import pytest

import device
from client import FOREIGN, post, request, typed
from device import CHANGE, FIELD, HOST, LOG, NETWORK, SECRET, SET_OPTION, SETTINGS, USER, settings_with
from prepared import PASSWORD, TLS
from server import TEXT, Server, refusal_page
from table import row

RIGHT = f"{USER}:{SECRET}"
ASKS = "asks for a password, once its lines are in use"
REFUSES = "refuses all the same when the right one comes along"
SPEAKS = "speaks TLS, once its lines are in use, and leads http there"


@pytest.fixture(scope="module")
def locked():
    with Server(parts=(PASSWORD,)) as server:
        yield server


@pytest.fixture(autouse=True)
def reset():
    device.reset()


def ask_as(server, user, target, *headers, body=None, **how):
    """Status and page, for a client that sends name and password when it is asked."""
    lines = request(target, *headers, **how).decode("latin-1").split("\r\n")[1:-2]
    done = subprocess.run(
        ["/usr/bin/curl", "-sS", "-i", "--anyauth", "--path-as-is", "--max-time", str(device.LIMIT), "-u", user,
         *(["-d", body] if body else []), *(word for line in lines for word in ("-H", line)),
         f"http://{device.ADDRESS}:{server.port}{target}"], stdout=subprocess.PIPE, check=True)
    # The last of the answers.
    head, _, page = re.split(rb"(?m)^(?=HTTP/1\.[01] \d)", done.stdout)[-1].partition(b"\r\n\r\n")
    return int(head.split()[1]), page


# --- The password

@row(ASKS)
@pytest.mark.parametrize("sent", [
    *map(request, ("/", "/css/all.css", "/nowhere.html", CHANGE, "/channeldeviceconfig.cgi", "/reboot.cgi")),
    post(SET_OPTION, FIELD + "500"),
])
def test_asks_for_a_password(locked, sent):
    answer = locked.ask(sent)
    assert answer.status == 401
    assert 'realm="vemo-web"' in answer.headers["www-authenticate"]
    assert device.is_untouched()


@row(ASKS)
def test_takes_the_right_password_alone(locked):
    for user in (f"{USER}:wrong", f"nobody:{SECRET}", f"{USER}:", ":", f"{USER}:{SECRET}x"):
        assert ask_as(locked, user, CHANGE)[0] == 401, user
        assert device.is_untouched()
    status, page = ask_as(locked, RIGHT, CHANGE)
    assert status == 200 and b"was successful" in page
    assert SETTINGS.read_text() == settings_with("500")
    assert ask_as(locked, RIGHT, SET_OPTION, body=FIELD + "501")[0] == 200
    assert SETTINGS.read_text() == settings_with("501")


@row(REFUSES)
@pytest.mark.parametrize("headers, how", [
    ((FOREIGN,), {}), (("Referer: http://foreign.example/",), {}), (("Sec-Fetch-Site: cross-site",), {}),
    (typed("Sec-Purpose: prefetch"), {}), ((f"Referer: http://{HOST}/",), {"host": "foreign.example"}),
    ((), {"host": NETWORK, "by_own_page": False}),
])
def test_refuses_all_the_same_with_a_password(locked, headers, how):
    """Which browsers send along with orders of other sites. Who has none gets the page for people, too."""
    for target, body in ((CHANGE, None), (SET_OPTION, FIELD + "500")):
        assert ask_as(locked, RIGHT, target, *headers, body=body, **how)[0] == 403
        assert device.is_untouched()
    answer = locked.get(CHANGE, *headers, **how)
    assert (answer.status, answer.body) == (403, refusal_page(403))


@row(REFUSES)
def test_shows_no_program_as_text_with_a_password(locked):
    program = next(locked.root.glob("share/htdocs/css")) / "program.cgi"  # where none is looked for
    program.write_text("its text")
    assert b"its text" not in ask_as(locked, RIGHT, "/css/program.cgi")[1]


@row("keeps it from the programs and their log")
def test_keeps_the_password_from_programs(locked):
    ask_as(locked, RIGHT, CHANGE)
    logged = LOG.read_text(encoding="latin-1")
    with locked.own_program(f"{TEXT} exec /usr/bin/env") as page:
        variables = ask_as(locked, RIGHT, page)[1].decode()
    assert logged and "JAVA_OPTIONS=" in variables
    secrets = "AUTHORIZATION", SECRET, base64.b64encode(RIGHT.encode()).decode(), "vemo-web:", "response="
    assert [secret for secret in secrets if secret in logged + variables] == []


# --- TLS

@pytest.fixture(scope="module")
def secure():
    with Server(parts=(TLS,)) as server:
        yield server


@row(SPEAKS)
def test_serves_and_refuses_by_tls(secure):
    answer = secure.get(CHANGE, f"Origin: https://{HOST}:{secure.port}")
    assert answer.status == 200
    assert SETTINGS.read_text() == settings_with("500")
    assert "strict-transport-security" not in answer.headers
    assert secure.get(CHANGE, FOREIGN).status == 403
    assert (secure.settings / "key.pem").stat().st_mode & 0o777 == 0o640


@row(SPEAKS)
@pytest.mark.parametrize("version, is_taken", [("-tls1_1", False), ("-tls1_2", True), ("-tls1_3", True)])
def test_speaks_tls_1_2_at_least_and_no_http2(secure, version, is_taken):
    done = subprocess.run(
        ["/usr/bin/openssl", "s_client", "-connect", f"{device.ADDRESS}:{secure.port}", version,
         "-alpn", "h2,http/1.1", "-cipher", "ALL:@SECLEVEL=0"],
        stdin=subprocess.DEVNULL, capture_output=True, check=False)
    assert (done.returncode == 0) == is_taken
    assert b"ALPN protocol: h2" not in done.stdout


@row(SPEAKS)
@pytest.mark.parametrize("name", [HOST, "foreign.example"])
@pytest.mark.parametrize("target, body", [("/a%20b/?c=%FC&d", None), ("/", None), (CHANGE, "")])
def test_leads_http_to_tls_and_nowhere_else(secure, name, target, body):
    sent = request(target, host=name) if body is None else post(target, body, host=f"{name}:{secure.port + 1}")
    answer = secure.ask(sent, in_clear_text=True)
    if name == HOST:
        assert (answer.status, answer.headers["location"]) == (307, f"https://{HOST}:{secure.port}{target}")
    else:
        assert (answer.status, answer.body) == (403, refusal_page(403))
        assert "location" not in answer.headers
    assert device.is_untouched()
