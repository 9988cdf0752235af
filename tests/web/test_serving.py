"""What a web server hands to the programs, and hands on from them."""

import contextlib
import os
import re
import urllib.parse

import pytest

import device
import logfile
from client import MULTIPART, part, post, request
from device import CHANGE, FIELD, SET_OPTION, SETTINGS, run_program, settings_with
from server import TEXT, Server, until
from table import row

ABORTS = post(SET_OPTION, part("X: y"), kind=MULTIPART)  # the program, within its page


def expect_stored(server, sent, value):
    answer = server.ask(sent)
    # Before the program runs again.
    settings, log = SETTINGS.read_text("latin-1"), logfile.lines(device.LOG.read_text())
    assert (answer.status, answer.headers["content-type"]) == (200, "text/html")
    assert answer.body == run_program(FIELD + urllib.parse.quote(value, encoding="latin-1"))
    assert f"<p>Set CanDetectTimeout to {value} ms.".encode("latin-1") in answer.body
    assert settings == settings_with(value)
    assert log == ["DEBUG src/SetObdConf 30 main", "DEBUG src/JavaVmWrapper 73 OpenJavaVM",
                   f"DEBUG src/JavaVmWrapper 81 JAVA_OPTIONS: -XX:VMOptionsFile={server.settings}/java.options",
                   f"DEBUG src/JavaVmWrapper 99 JAVA_CLASSPATH:{server.shared}/java",
                   "DEBUG src/JavaVmWrapper 155 ChangeStdErr"]


@pytest.mark.parametrize("sent, value", [
    pytest.param(request(CHANGE), "500", id="get"),
    pytest.param(request(f"{SET_OPTION}?{FIELD}%FC"), "\xfc", id="a letter of Latin-1, which is no UTF-8"),
    pytest.param(post(SET_OPTION, FIELD + "half+a%20second"), "half a second", id="post"),
    pytest.param(post(SET_OPTION, part(f'Content-Disposition: form-data; name="{FIELD[:-1]}"', "", "502"),
                      kind=MULTIPART), "502", id="multipart post"),
])
def test_stores_a_value(server, sent, value):
    expect_stored(server, sent, value)


def test_takes_exit_status_1_for_no_error(server):
    answer = server.get(SET_OPTION)
    assert (answer.status, answer.body) == (200, run_program())
    assert b"Option CanDetectTimeout not set" in answer.body
    assert SETTINGS.read_bytes() == device.SHIPPED_SETTINGS.read_bytes()


def test_hands_on_what_there_is_of_a_page_whose_program_aborts(server):
    answer = server.ask(ABORTS)
    page = run_program()
    assert (answer.status, answer.body) == (200, page[:page.index(b'<p class="warn"')])
    assert SETTINGS.read_bytes() == device.SHIPPED_SETTINGS.read_bytes()
    assert server.get(SET_OPTION).status == 200


def test_serves_with_the_real_java_vm(server):
    with Server(java=None) as real:
        device.reset()
        expect_stored(real, request(CHANGE), "500")
        # The VM makes a socket for debuggers and leaves it behind when the program aborts: its options forbid it.
        assert real.ask(ABORTS).status == 200
        assert "ChangeStdErr" in device.LOG.read_text()
        assert [name for name in os.listdir("/tmp") if name.startswith(".java_pid")] == []


def test_has_no_dead_link_and_names_the_type_of_each_file(server):
    """From page to page, by all that they name."""
    unseen, seen = {"/", CHANGE}, {}
    while unseen:
        path = unseen.pop()
        assert len(seen) < 50
        answer = server.get(path)
        assert answer.status == 200, path
        seen[path] = kind = answer.headers["content-type"].replace("; ", ";").removesuffix(";charset=utf-8")
        if kind.startswith("text/html"):
            # All pages stand at the top of the tree.
            names = re.findall(r'(?:href|src|action)="([^"]*)"', answer.body.decode("latin-1"))
            unseen |= {urllib.parse.urljoin("/", name) for name in names} - set(seen)
    assert seen.items() >= {
        "/index.html": "text/html;charset=iso-8859-1", "/css/all.css": "text/css", "/images/kesta.jpg": "image/jpeg",
        "/images/tarn.gif": "image/gif", **{f"/{page}": "text/html" for page in device.CGI_PAGES}}.items()
    assert b"<h2>VEMO Web Server</h2>" in server.get("/").body


@row("hands a page on as it comes")
def test_streams(server):
    go = server.root / "go"
    with server.own_program(f"{TEXT} echo first; {until(go)} echo last") as page, \
            contextlib.closing(server.connect()) as connection, connection.makefile("rb") as answer:
        connection.sendall(request(page))
        try:
            assert any(b"first" in line for line in answer)
        finally:
            go.touch()
        assert b"last" in answer.read()


# --- The programs' environment

@pytest.fixture
def environment(server):
    with server.own_program(f"{TEXT} exec /usr/bin/env") as page:
        lines = server.get(page).body.decode().splitlines()
    return dict(line.split("=", 1) for line in lines if "=" in line)


def test_gives_programs_nothing_of_the_gate(environment):
    assert [name for name in environment if name.startswith("CGI_GATE")] == []


@row("gives programs no PATH and no HOME")
def test_gives_no_path_and_no_home(environment):
    # The script's shell adds no PATH of its own.
    assert not {"PATH", "HOME"} & set(environment)


@row("hands on LD_LIBRARY_PATH, which may name the Java VM")
def test_hands_on_the_library_path(environment):
    assert environment.get("LD_LIBRARY_PATH") == "/nowhere"


# --- Another lighttpd, with the pages among its own

OF_OTHERS = """server.modules = ( "mod_access" )
server.compat-module-load = "disable"
server.document-root = "/tmp"
server.port = 8099
server.upload-dirs = ( "/tmp" )
"""


@pytest.mark.lighttpd
@pytest.mark.loopback
def test_serves_from_a_lighttpd_of_others():
    """It has none of the modules that the pages rely on."""
    server = Server()
    module = server.configured("web/lighttpd/50-vemo-web.conf.in").replace("/run/lighttpd", str(server.run))
    (server.shared / "lighttpd.conf").write_text(OF_OTHERS + module)
    with server:
        device.reset()
        assert b"<h2>VEMO Web Server</h2>" in server.get("/").body
        refused = server.get(CHANGE, "Origin: http://foreign.example")
        assert refused.status == 403
        assert "content-security-policy" in refused.headers
        assert device.is_untouched()
        assert server.get(CHANGE).status == 200
        assert SETTINGS.read_text() == settings_with("500")
