"""Each web server for which a configuration is installed, with the same requests: what it hands on, and what
it keeps off. The table of docs/web-servers.md is held against what is seen, cell by cell, both ways.

    standin/sandbox BUILD --private-network --read-only . /source -- \\
        python3 -B /source/tests/web/web_servers.py lighttpd|apache2|nginx [--address ADDRESS] [Table.test_...]

With an address the server listens there and not on loopback: one of this machine, 192.168.7.1. Works inside the
device's sandbox, with Debian's own Python. A fake Java VM costs nothing; one request has the real one."""

import argparse
import base64
import contextlib
import hashlib
import http.client
import os
import pathlib
import re
import shlex
import shutil
import signal
import socket
import ssl
import struct
import subprocess
import sys
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

SOURCE = pathlib.Path("/source")
sys.path.append(str(SOURCE / "tests/docs"))

import pages  # noqa: E402
from browser import LIMIT, SETTINGS, eventually, process_name, rebooting  # noqa: E402
from prepared import PASSWORD, TLS, with_parts  # noqa: E402

DEVICE = pathlib.Path("/srv/vemo")
UNPACKED = pathlib.Path("/build/web-servers")  # by tools/unpack-packages
SHIPPED_SETTINGS = (SOURCE / "standin/obd.conf").read_text(encoding="utf-8")
LOG = pathlib.Path("/tmp/cgi.log")
FAKE_VM = "/build/standin/libfake-vm.so"
BACKGROUND = {}  # what is under way
WANTED = []  # the tests named on the command line, all where none is
WHILE = 4  # seconds in which what is to happen does, shorter than the servers' own times
MOMENT = 0.7  # seconds in which what is not to happen would

PAGES = ("setobdconf.cgi", "channeldeviceconfig.cgi", "reboot.cgi")
SET_OPTION = "/setobdconf.cgi"
OWN_PROGRAM = "channeldeviceconfig.cgi"  # whose place a test's own program takes
FORM = "CanDetectTimeout="
CHANGE = f"{SET_OPTION}?{FORM}500"
MULTIPART = "multipart/form-data; boundary=frontier"
FOREIGN = "Origin: http://foreign.example"
NETWORK = "192.168.7.1"  # a name of each server, whether or not it listens there
SECOND = "192.168.7.2"  # of another client there
OF_ONE_CLIENT = 16  # connections, and requests to programs
USER, SECRET = "technician", 'a$1 "b":c\\'
HEADER = r"printf 'Content-Type: text/plain\n\n'"  # of a program that is a script


def settings_with(value):
    return re.sub(r"(?m)^(VEMODCanDetectTimeout=).*", lambda match: match[1] + value, SHIPPED_SETTINGS)


def is_program_running():
    for process in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{process}/exe").endswith(".cgi"):
                return True
    return False


def reset():
    # One whose client got its answer may not have ended.
    eventually(lambda: not is_program_running())
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    SETTINGS.write_text(SHIPPED_SETTINGS, encoding="utf-8")
    LOG.write_bytes(b"")


# --- Servers


def with_address(text):
    """A configuration's text, with the address and the names that are to be changed in it."""
    listens = r"(?m)^(Listen |\s*listen |<VirtualHost |var\.vemo_http = \"|server\.bind +=.*)127\.0\.0\.1"
    text = re.sub(listens, rf"\g<1>{ADDRESS}", text)
    return text.replace(r"127\.0\.0\.1", r"127\.0\.0\.1|" + re.escape(NETWORK))


class Installation:
    """What is installed, at other places: /tmp/NAME in the place of all folders. `edits` are made in the
    configuration, for tests alone; `parts` of it are turned on. With TLS http is on the next port."""

    def __init__(self, name, port, edits, parts=()):
        self.root = pathlib.Path("/tmp") / name
        self.programs = self.root / "libexec"
        self.run = self.root / "run"
        share = self.root / "share"
        self.port = port
        self.edits = edits
        self.parts = parts
        shutil.rmtree(self.root, ignore_errors=True)
        settings = self.root / "etc"
        for folder in (self.programs / "gated", self.run, settings / "web-servers"):
            folder.mkdir(parents=True)
        shutil.copy(DEVICE / "java.options", settings)
        self.places = {
            "PROGRAMS": self.programs, "SHARED": share, "SETTINGS": settings, "RUN": self.run,
            "ARCHIVE": "/app/class-archive", "CLASS_PATH": DEVICE / "java",
        }
        # An installed device's own lines, which lighttpd reads; key and certificate are made by them for all.
        own = (SOURCE / "web/lighttpd/web-server.conf.in").read_text(encoding="utf-8")
        self.own = self.configured(re.search(rf"(?ms)^# {TLS}.*", own)[0])
        (self.programs / "cgi-gate").symlink_to(DEVICE / "bin/cgi-gate")
        shutil.copytree(DEVICE / "htdocs", share / "htdocs", ignore=lambda _, names: set(names) & set(PAGES))
        gated = (SOURCE / "web/servers/gated.cgi.in").read_text(encoding="utf-8")
        for page in PAGES:
            (self.programs / page).symlink_to(DEVICE / "htdocs" / page)
            (share / "htdocs" / page).symlink_to(self.programs / page)
            file = self.programs / "gated" / page
            file.write_text(self.configured(gated).replace("@PAGE@", page), encoding="utf-8")
            file.chmod(0o755)

    def configured(self, text):
        for name, place in self.places.items():
            text = text.replace(f"@VEMO_{name}@", str(place))
        text, commands = with_parts(text, self.parts)
        # Here is no such group.
        commands = commands.replace(" -g vemo-web ", " ").replace("IP:127.0.0.1", f"IP:127.0.0.1,IP:{NETWORK}")
        if commands:
            subprocess.run(["/bin/bash", "-ec", commands], input=SECRET + "\n", stderr=subprocess.DEVNULL, text=True,
                           check=True)
        text = re.sub(r"\b8080\b", str(self.port + (TLS in self.parts)), with_address(text))
        return re.sub(r"\b8443\b", str(self.port), text)

    def edited(self, text):
        for before, after in self.edits:
            text = re.sub(before, after, text)
        return text

    def configure(self, *names):
        """The named templates, at their place; their text."""
        texts = []
        for name in names:
            text = (SOURCE / f"web/servers/{name}.in").read_text(encoding="utf-8")
            texts.append(self.edited(self.configured(text)))
            (self.places["SETTINGS"] / "web-servers" / name).write_text(texts[-1], encoding="utf-8")
        return "".join(texts)


DOCUMENTS = "share/htdocs"


def configure_lighttpd(installation):
    """The shipped files of the stand-in, at its own place for what tests change."""
    folder = installation.root / "lighttpd"
    folder.mkdir()
    text = installation.own.replace(str(installation.places["SHARED"]), str(folder))
    for file in (*DEVICE.glob("lighttpd*.conf"), SOURCE / "web/lighttpd/lighttpd-tls.conf"):
        part = file.read_text(encoding="utf-8")
        for before, after in (('"/srv/vemo"', folder), ('"/srv/vemo/htdocs"', DOCUMENTS),
                              ('"/srv/vemo/bin/cgi-gate"', "libexec/cgi-gate"),
                              ('"/tmp/cgi-gate.lock"', "run/gate"), ('"/tmp"', "run"),
                              ('"/tmp/lighttpd-error.log"', "run/error.log"),
                              ('"/tmp/lighttpd-access.log"', "run/access.log")):
            part = part.replace(before, f'"{installation.root / after}"')
        if file.name == "lighttpd-paths.conf":
            part += text
        part = installation.edited(with_address(part))
        (folder / file.name).write_text(part, encoding="utf-8")
        text += part
    return text, [["/usr/bin/env", f"VEMO_PORT={installation.port}", "/usr/sbin/lighttpd", "-D", "-f",
                   str(folder / "lighttpd.conf")]]


def unit_command(text):
    """What the unit's drop-in starts."""
    line = re.findall(r"(?m)^ExecStart=(.+)$", text.replace("\\\n", ""))[-1]
    return shlex.split(line.replace("$$", "$").replace("/usr/sbin/fcgiwrap", f"{UNPACKED}/usr/sbin/fcgiwrap")
                       .replace("/usr/sbin/nginx", f"{UNPACKED}/usr/sbin/nginx"))


def configure_apache2(installation):
    text = installation.configure("apache2.conf", "apache2.service.conf")
    return text, [unit_command(text)]


def configure_nginx(installation):
    text = installation.configure("nginx.conf", "nginx.service.conf")
    return text, [unit_command(text)]


SERVERS = {  # by the name on the command line: the column of the table, and the configuration
    "lighttpd": ("lighttpd", configure_lighttpd),
    "apache2": ("Apache", configure_apache2),
    "nginx": ("nginx", configure_nginx),
}

# The Java VM that costs nothing: preloaded into the programs; the gate is static.
WITH_FAKE_VM = (r"(?m)^(.*)\bJAVA_CLASSPATH\b(\"?[ =>]+)[^\s;,]+(.*)$",
                lambda match: f"{match[0]}\n{match[1]}LD_PRELOAD{match[2]}{FAKE_VM}{match[3]}"
                if "=>" not in match[2] else f'{match[0]}\n{match[1]}LD_PRELOAD{match[2]}"{FAKE_VM}",')


def gate(name, seconds):
    return rf"(CGI_GATE_{name}\"?[ =>]+\"?)60\b", rf"\g<1>{seconds}"


# For tests of times: a program ends, a client that says nothing goes.
SHORT_TIMES = (gate("LIMIT", 1), gate("PATIENCE", 20), (r"(max-read-idle += )5", r"\g<1>1"),
               (r"header=5 body=5", "header=1 body=1"), (r"(client_\w+_timeout) 5", r"\1 1"))


# For tests of what a server does by itself, with clients that have one address.
NO_CLIENT_LIMIT = (r"(CGI_GATE_CLIENT_SLOTS |client_requests = \")16", r"\g<1>0")

# Root without its rights, which proot gives: nginx cannot become another user.
AS_ROOT = (("daemon off;", "daemon off; user root;"),) if os.geteuid() == 0 else ()


class Server:
    """One, running."""

    def __init__(self, number, edits, parts=()):
        self.installation = Installation(f"web-{number}", 8080 + number, [*AS_ROOT, *edits], parts)
        self.text, self.commands = SERVERS[NAME][1](self.installation)
        self.errors = self.installation.root / "errors"
        self.start()

    def start(self):
        self.processes = []
        with open(self.errors, "wb") as errors:
            for command in self.commands:
                # Apache ends its whole process group.
                self.processes.append(subprocess.Popen(
                    command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors,
                    env={"PATH": os.environ["PATH"], "HOME": "/nowhere", "LD_LIBRARY_PATH": "/nowhere"},
                    start_new_session=True))
        if not eventually(lambda: self.is_ready() or any(p.poll() is not None for p in self.processes)) \
                or not self.is_ready():
            self.stop()
            raise RuntimeError(f"{NAME} does not start: {self.errors.read_text()}")

    def is_ready(self):
        try:
            # A page of a program: what starts them may listen later.
            with contextlib.closing(self.connect(2)) as client:
                client.sendall(request("/reboot.cgi"))
                return re.search(b" (200|401) ", client.recv(100)) is not None
        except OSError:
            return False

    def stop(self):
        for process in self.processes:
            with contextlib.suppress(ProcessLookupError):
                os.killpg(process.pid, signal.SIGTERM)
        for process in self.processes:
            try:
                process.wait(5)
            except subprocess.TimeoutExpired:
                os.killpg(process.pid, signal.SIGKILL)
                process.wait()

    def connect(self, timeout=LIMIT, source=""):
        client = socket.create_connection((ADDRESS, self.installation.port), timeout, (source, 0))
        if TLS not in self.installation.parts:
            return client
        trust = ssl.create_default_context(cafile=self.installation.places["SETTINGS"] / "certificate.pem")
        return trust.wrap_socket(client, server_hostname=HOST)

    def ask(self, sent, source=""):
        """Status, headers and body of the answer; status 0 when there is none."""
        try:
            with contextlib.closing(self.connect(source=source)) as client:
                try:
                    client.sendall(sent)
                except OSError:
                    pass  # who is refused early may still be told so
                response = http.client.HTTPResponse(client, method=sent.split(b" ")[0].decode())
                response.begin()
                try:
                    body = response.read()
                except http.client.IncompleteRead as cut:
                    body = cut.partial
                headers = {}
                for name, value in response.getheaders():
                    name = name.lower()
                    headers[name] = f"{headers[name]}, {value}" if name in headers else value
                return response.status, headers, body
        except (OSError, http.client.HTTPException) as error:
            return 0, {}, repr(error).encode()

    def get(self, target, *headers):
        return self.ask(request(target, *headers))

    @contextlib.contextmanager
    def own_program(self, script, mode=0o755, page=OWN_PROGRAM):
        """The script in the place of a page's program."""
        program = self.installation.programs / page
        program.unlink()
        program.write_text(f"#!/bin/sh\n{script}\n", encoding="utf-8")
        program.chmod(mode)
        try:
            yield "/" + page
        finally:
            program.unlink()
            program.symlink_to(DEVICE / "htdocs" / page)


def request(target, *headers, method="GET", host="", version="1.1", by_own_page=True):
    """By a page of ours, where that must be; as if somebody had typed it, on loopback."""
    host = HOST if host == "" else host
    lines = [f"{method} {target} HTTP/{version}", *([f"Host: {host}"] if host else []), "Connection: close"]
    if by_own_page and HOST == NETWORK and "Origin: " not in str(headers) and "Referer: " not in str(headers):
        lines.append(f"Referer: http://{HOST}/")
    return "".join(f"{line}\r\n" for line in (*lines, *headers, "")).encode("latin-1")


def post(target, body, kind="application/x-www-form-urlencoded", *headers):
    if isinstance(body, str):
        body = body.encode()
    return request(target, f"Content-Type: {kind}", f"Content-Length: {len(body)}", *headers,
                   method="POST") + body


def part(*lines):
    return "".join(f"{line}\r\n" for line in ("--frontier", *lines, "--frontier--"))


def run_program(query="", page=SET_OPTION):
    """What the program itself says, without a web server: the body of its page."""
    environment = {"REQUEST_METHOD": "GET", "QUERY_STRING": query, "LD_PRELOAD": FAKE_VM}
    said = subprocess.run([DEVICE / f"htdocs{page}"], env=environment, stdout=subprocess.PIPE, check=False)
    return said.stdout.split(b"\n\n", 1)[1]


# --- What is seen


def is_started(act):
    """Whether the set-option program was started by the act's request."""
    reset()
    act()
    return LOG.stat().st_size > 0 or SETTINGS.read_text(encoding="utf-8") != SHIPPED_SETTINGS


def expect_to_be_served():
    """Else nothing that is refused proves a thing. lighttpd remembers for a second what a file was."""
    if not eventually(lambda: SERVER.get(CHANGE)[0] == 200):
        raise AssertionError("an ordinary request is refused, too")


def refuses(*requests):
    """Whether each of the requests to the set-option page is answered with a refusal."""
    expect_to_be_served()
    seen = []
    for sent in requests:
        reset()
        status, _, body = SERVER.ask(sent)
        is_done = LOG.stat().st_size > 0
        if is_done == (400 <= status < 600 or status == 0):
            raise AssertionError(f"{sent[:200]}: status {status}, though the program was "
                                 f"{'' if is_done else 'not '}started: {body[:300]}")
        seen.append(not is_done)
    expect_to_be_served()  # one without an answer was refused, and ended no server
    return same(requests, seen)


def same(what, seen):
    if len(set(seen)) != 1:
        raise AssertionError(f"neither yes nor no: {list(zip(what, seen))}")
    return seen[0]


def refuses_header(*headers):
    """By GET and by POST."""
    return refuses(*(request(CHANGE, header) for header in headers),
                   *(post(SET_OPTION, FORM + "500", "application/x-www-form-urlencoded", header)
                     for header in headers))


def typed(header):
    """As a browser asks for an address that was typed, but for this header."""
    return "\r\n".join(("Sec-Fetch-Site: none", "Sec-Fetch-Mode: navigate", "Sec-Fetch-Dest: document",
                        header))


def refuses_foreign_hosts():
    own = f"Referer: http://{HOST}/"  # which no other rule refuses
    return refuses(*(request(CHANGE, own, host=host) for host in
                     ("foreign.example", "localhost.foreign.example", "foreign.example:8080", f"{HOST}.example")),
                   request(CHANGE, own, host=None, version="1.0"))


def refuses_foreign_origins():
    return refuses_header(FOREIGN, "Origin: null", "Origin: http://localhost.example",
                          f"Origin: ftp://{HOST}", f"Origin: http://{HOST}@foreign.example")


def refuses_foreign_referers():
    return refuses_header("Referer: http://foreign.example/", f"Referer: http://{HOST}@example/",
                          f"Referer: http://{HOST}.example/")


def refuses_foreign_sites():
    return refuses_header(*(f"Sec-Fetch-Site: {word}" for word in ("cross-site", "same-site", "future")))


def refuses_what_is_no_navigation():
    return refuses_header(*(f"Sec-Fetch-Mode: {word}"
                            for word in ("no-cors", "cors", "websocket", "future")))


def refuses_what_is_no_document():
    return refuses_header(*(f"Sec-Fetch-Dest: {word}" for word in ("image", "iframe", "empty", "future")))


def refuses_programs_to_what_is_no_document():
    """Those that change nothing, too: each costs a process."""
    pages = ("/channeldeviceconfig.cgi", "/channeldeviceconfig.cgi?x", SET_OPTION, "/reboot.cgi")
    for page in (*pages, "/index.html"):
        if SERVER.get(page, typed("Sec-Fetch-User: ?1"))[0] != 200:
            raise AssertionError(f"{page} is refused")
    asked = [(page, f"Sec-Fetch-Dest: {word}") for page in (*pages, "/channeldeviceconfig.cgi/more")
             for word in ("empty", "image", "iframe", "future")]
    return same(asked, [SERVER.get(*words)[0] == 403 for words in asked])


def refuses_prefetches():
    return refuses_header(*map(typed, ("Sec-Purpose: prefetch", "Sec-Purpose: prefetch;prerender",
                                       "Purpose: prefetch", "X-Moz: prefetch", "X-Purpose: preview")))


def refuses_websockets():
    return refuses_header("Connection: Upgrade\r\nUpgrade: websocket", "Sec-WebSocket-Key: dGhlIHNhbXBsZQ==")


def looks_at_both_of_two_headers():
    return refuses(*(request(CHANGE, *headers) for headers in (
        ("Sec-Fetch-Site: none", "Sec-Fetch-Site: cross-site"), (f"Origin: http://{HOST}", FOREIGN))))


def tells_typed_addresses():
    """From what another page asks for. Only on loopback, where browsers say so."""
    expect_to_be_served()
    seen = []
    for host in ("localhost", NETWORK):
        reset()
        status = SERVER.ask(request(CHANGE, typed("Sec-Fetch-User: ?1"), host=host, by_own_page=False))[0]
        seen.append((status, LOG.stat().st_size > 0))
    return {((200, True), (403, False)): True, ((200, True), (200, True)): False}[tuple(seen)]


def refuses_nobodys_orders():
    """At an address that is not loopback, in every spelling, however it looks otherwise."""
    def nobodys(sent):
        return re.sub(rb"Host: [^\r]*", b"Host: " + NETWORK.encode(),
                      re.sub(rb"Referer: [^\r]*\r\n", b"", sent))

    seen = [refuses(*map(nobodys, (request(CHANGE), post(SET_OPTION, FORM + "500"), request(CHANGE, "Origin: "),
                                   post(SET_OPTION + "?x", FORM + "500"), request(CHANGE, "Referer: "),
                                   request(CHANGE, typed("Sec-Fetch-User: ?1")))))]
    seen += [not is_started(lambda: SERVER.ask(nobodys(request(f"{spelling}?{FORM}500"))))
             for spelling in SPELLINGS]
    seen += [SERVER.ask(nobodys(sent))[0] == 403
             for sent in (post("/channeldeviceconfig.cgi", "allocation=allocate"), post("/reboot.cgi", ""),
                          request("/reboot.cgi"))]
    for own in ("Origin", "Referer"):
        if SERVER.ask(request(CHANGE, f"{own}: http://{NETWORK}", host=NETWORK))[0] != 200:
            raise AssertionError(f"a request with an own {own} is refused")
    # What changes nothing is for everybody.
    for page in (SET_OPTION, SET_OPTION + "?", "/channeldeviceconfig.cgi", "/index.html"):
        if SERVER.ask(nobodys(request(page)))[0] != 200:
            raise AssertionError(f"{page} is refused")
    return same(range(len(seen)), seen)


def refuses_fragments():
    """No path is judged other than the one that the program gets."""
    expect_to_be_served()
    for target in ("/#/..", "/css/all.css#/../..", "/x?#/.."):
        if is_started(lambda: SERVER.get(f"{target}{CHANGE}")):
            return False
    # lighttpd cuts it off, with what follows, before anything can look at it.
    if SERVER.get(f"/#/..{CHANGE}")[0] != (200 if NAME == "lighttpd" else 400):
        return False
    return refuses(*map(request, (f"{SET_OPTION}#?{FORM}500", f"{CHANGE}#", f"{CHANGE}#/index.html",
                                  f"{SET_OPTION}#/../index.html")))


def refuses_foreign_orders_to_other_pages():
    """What is posted to them, and the reboot however it is asked for."""
    seen = []
    for header in (FOREIGN, "Sec-Fetch-Site: cross-site", "Sec-Fetch-Dest: image", "Sec-Purpose: prefetch"):
        for sent in (post("/channeldeviceconfig.cgi", "allocation=allocate", "text/plain", header),
                     post("/reboot.cgi", "", "text/plain", header), request("/reboot.cgi", header)):
            status = SERVER.ask(sent)[0]
            seen.append({200: False, 403: True}[status])
    return same(range(len(seen)), seen)


SPELLINGS = (
    "/setobdconf.cgi/", "/setobdconf.cgi//", "/setobdconf.cgi/more", "/setobdconf.cgi%2F",
    "/setobdconf.cgi%2fmore", "/setobdconf%2Ecgi", "/setobdconf%2ecgi/more", "/%73etobdconf.cgi",
    "//setobdconf.cgi", "/%2fsetobdconf.cgi", "/./setobdconf.cgi", "/%2e/setobdconf.cgi",
    "/css/../setobdconf.cgi", "/css/%2e%2e/setobdconf.cgi", "/css//../setobdconf.cgi",
    "/css/..%2fsetobdconf.cgi", "/setobdconf.cgi;x", "/setobdconf.cgi;x/", "/setobdconf.cgi%3bx",
    "/setobdconf.cgi%00", "/setobdconf.cgi%00.html", "/setobdconf.cgi%20", "/setobdconf.cgi.",
    "/setobdconf.cgi%0a", "/setobdconf.cgi~", "/setobdconf.CGI", "/SETOBDCONF.cgi", "/setobdconf.cgi%23",
    "/setobdconf.cgi%3f", "/setobdconf.cgi\\", "/\\setobdconf.cgi", "/gated/setobdconf.cgi",
    "/cgi-bin/setobdconf.cgi", "/cgi-bin/../setobdconf.cgi", "/htdocs/setobdconf.cgi",
    "/../libexec/setobdconf.cgi", "/%2e%2e/libexec/setobdconf.cgi", "/..%2flibexec%2fsetobdconf.cgi",
    f"http://{NETWORK}/setobdconf.cgi", f"http://{NETWORK}//setobdconf.cgi", "/setobdconf%252Ecgi",
    "/setobdconf.cgi%c0%80",
)


def refuses_other_spellings():
    """No other address of the page gets round the look at the origin."""
    expect_to_be_served()
    return not any(is_started(lambda: SERVER.get(f"{spelling}?{FORM}500", header))
                   for header in (FOREIGN, "Sec-Purpose: prefetch") for spelling in SPELLINGS)


def shows_no_program():
    """Not by any address, and not when it is not executable."""
    def is_page(answer):
        return b"\x7fELF" not in answer[2] and b"secret" not in answer[2] and b"#!" not in answer[2]

    seen = [is_page(SERVER.get(spelling)) for spelling in (SET_OPTION, *SPELLINGS)]
    with SERVER.own_program("# secret", 0o644, "setobdconf.cgi"):
        seen += [is_page(SERVER.get(spelling)) for spelling in (SET_OPTION, *SPELLINGS)]
        gated = SERVER.installation.programs / "gated/setobdconf.cgi"
        gated.chmod(0o644)
        try:
            seen += [is_page(SERVER.get(spelling)) for spelling in (SET_OPTION, *SPELLINGS)]
        finally:
            gated.chmod(0o755)
    return all(seen)


def listens_on_loopback_alone():
    """Or on that address alone which it is told."""
    for address in {"127.0.0.1", "127.0.0.2", ADDRESS} - {ADDRESS}:
        try:
            socket.create_connection((address, SERVER.installation.port), timeout=LIMIT).close()
            return False
        except ConnectionRefusedError:
            pass
    return True


def refuses_other_methods():
    return refuses(*(request(CHANGE, method=method) for method in ("DELETE", "OPTIONS", "PATCH", "FOO")),
                   post(SET_OPTION, FORM + "500").replace(b"POST", b"PUT", 1))


def refuses_head_of_programs():
    return refuses(request(CHANGE, method="HEAD"))


def refuses_large_bodies():
    return refuses(post(SET_OPTION, FORM + 5000 * "5"))


def refuses_large_bodies_in_chunks():
    body = FORM + 5000 * "5"
    return refuses(request(SET_OPTION, "Content-Type: application/x-www-form-urlencoded",
                           "Transfer-Encoding: chunked", method="POST")
                   + f"{len(body):x}\r\n{body}\r\n0\r\n\r\n".encode())


def refuses_large_headers():
    return refuses(request(CHANGE, "Cookie: " + 5000 * "5"))


def refuses_long_request_lines():
    return refuses(request(CHANGE + 5000 * "5"))


def keeps_short_bodies_off():
    """A program is not started for a body that never comes."""
    expect_to_be_served()
    reset()
    with contextlib.closing(SERVER.connect()) as client:
        client.sendall(post(SET_OPTION, FORM + "500").replace(b"Length: 20", b"Length: 99"))
        is_kept = not eventually(lambda: LOG.stat().st_size > 0, MOMENT)
    # The program that was started is not to meet the next test.
    eventually(lambda: "ChangeStdErr" in LOG.read_text() or is_kept)
    return is_kept


SLOW_HEADERS = b"GET / HTTP/1.1\r\nX: "


def slow_post():
    return post(SET_OPTION, FORM + "500").replace(b"Length: 20", b"Length: 99")


def begin_request(server, stack, sent=SLOW_HEADERS, source="", timeout=LIMIT):
    """A client that does not end its request until the stack does."""
    client = stack.enter_context(contextlib.closing(server.connect(timeout, source)))
    client.sendall(sent)
    time.sleep(0.003)  # else a short queue of the kernel's costs a second each
    return client


def is_closed(client):
    """By the server."""
    client.setblocking(False)
    try:
        client.recv(1000)
    except BlockingIOError:
        return False
    except OSError:
        pass
    return True


def serves_others_beside_slow_clients():
    """While these are there, not once they are dropped."""
    with own_server() as server, contextlib.ExitStack() as stack:
        slow = [begin_request(server, stack) for _ in range(60)]
        return server.get("/index.html")[0] == 200 and not any(map(is_closed, slow))


def serves_programs_beside_slow_posts():
    """While these are there; and four Java VMs could be started."""
    with own_server(NO_CLIENT_LIMIT) as server, contextlib.ExitStack() as stack:
        slow = [begin_request(server, stack, slow_post()) for _ in range(130)]
        status = server.get(SET_OPTION)[0]
        return status == 200 and not any(map(is_closed, slow)) and has_place_for_java_vms(
            server, count_tasks(server))


def serves_others_beside_many_slow_clients_of_one_address():
    """More than any server takes. Some are there all the while: it is not that the others wait for their end."""
    with contextlib.ExitStack() as stack:
        slow = []
        for number in range(400):
            try:
                slow.append(begin_request(SERVER, stack, (SLOW_HEADERS, slow_post())[number % 2], SECOND, WHILE))
            except TimeoutError:
                break
            except ConnectionError:
                pass
        there = [client for client in slow if not is_closed(client)]
        statuses = {SERVER.get(page)[0] for page in ("/index.html", SET_OPTION)}
        return len(there) > OF_ONE_CLIENT / 2 and statuses == {200} and not any(map(is_closed, there))


def serves_others_in_turn_beside_requests_given_up():
    """Before another client's program begin only as many of this one's as it may have at a time, and some that
    come meanwhile. At a port where the kernel limits nothing."""
    given_up = []
    is_over = False

    def ask_and_go(server, page):
        while not is_over:
            with contextlib.suppress(OSError), contextlib.closing(server.connect(WHILE, SECOND)) as client:
                client.sendall(request(page))
                given_up.append(page)
                time.sleep(0.025)

    before_others = []
    with own_server() as server:
        begun = server.installation.root / "begun"
        script = f'echo "$REMOTE_ADDR" >>{begun}; /bin/sleep 0.05\n{HEADER}'
        with server.own_program(script) as page, ThreadPoolExecutor(OF_ONE_CLIENT) as clients:
            for _ in range(OF_ONE_CLIENT):
                clients.submit(ask_and_go, server, page)
            try:
                if not eventually(lambda: len(given_up) > 600):
                    raise AssertionError(f"only {len(given_up)} were given up")
                for _ in range(3):
                    earlier = len(begun.read_text().splitlines())
                    status = server.get(page)[0]
                    later = begun.read_text().splitlines()[earlier:]
                    before_others.append(later.index(ADDRESS) if status == 200 else len(given_up))
            finally:
                is_over = True
    return sorted(before_others)[1] < 3 * OF_ONE_CLIENT


def limits_connections(server):
    """Of 300 and one more, some are closed, or the last is not served while they last. Where nothing limits
    them, nothing closes them either, for a minute."""
    with contextlib.ExitStack() as stack:
        opened = []
        try:
            for _ in range(300):
                opened.append(begin_request(server, stack))
            last = stack.enter_context(contextlib.closing(server.connect()))
            last.sendall(request("/index.html"))
            is_limited = b" 200 " not in last.recv(100)
        except (ConnectionError, TimeoutError):
            is_limited = True
        is_limited |= any(map(is_closed, opened))
    if not eventually(lambda: server.get("/index.html")[0] == 200):
        raise AssertionError("nobody is served any more")
    return is_limited


def serves_one_request_a_connection():
    sent = request("/index.html").replace(b"Connection: close\r\n", b"")
    with contextlib.closing(SERVER.connect()) as client:
        client.sendall(sent)
        client.settimeout(WHILE)
        received = b""
        with contextlib.suppress(OSError):
            while more := client.recv(65536):
                received += more
        with contextlib.suppress(OSError):
            client.sendall(sent)
            received += client.recv(100)
    return received.count(b"HTTP/1.1 200") + received.count(b"HTTP/1.0 200") == 1


def speaks_no_http2():
    settings = struct.pack(">I", 0)[1:] + b"\4\0" + struct.pack(">I", 0)  # an empty frame SETTINGS
    with contextlib.closing(SERVER.connect()) as client:
        client.sendall(b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + settings)
        answer = b""
        with contextlib.suppress(ConnectionError):
            answer = client.recv(100)
    is_upgraded = SERVER.get("/index.html", "Upgrade: h2c", "HTTP2-Settings: AAMAAABkAAQAAP__")[0] == 101
    return not is_upgraded and answer[3:4] != b"\4"


def drops_silent_clients(server):
    """One that does not end its request. None that does not is told so before a minute."""
    with contextlib.closing(server.connect()) as client:
        client.sendall(b"GET / HTTP/1.1\r\nX: ")
        try:
            while client.recv(1000):
                pass
            return True
        except TimeoutError:
            return False
        except ConnectionError:
            return True


def limits_the_time_for_the_headers(server):
    """As a whole: a byte now and then is not enough."""
    with contextlib.closing(server.connect()) as client:
        client.sendall(SLOW_HEADERS)
        for _ in range(4 * WHILE):
            time.sleep(0.25)
            if is_closed(client):
                return True
            with contextlib.suppress(ConnectionError):
                client.sendall(b"x")
    return False


def ends_programs_that_hang(server):
    """More than may run at once: the limit has to hold while others wait."""
    script = """case $QUERY_STRING in
        0) exec /bin/sleep 1000 ;;
        1) trap '' TERM HUP INT; while :; do :; done ;;
        *) printf 'Content-Type: text/plain\\n\\n'; exec >&- 2>&-; exec /bin/sleep 1000 ;;
    esac"""
    with server.own_program(script) as page, ThreadPoolExecutor(6) as clients:
        answers = list(clients.map(lambda i: server.get(f"{page}?{i % 3}"), range(6)))
        is_over = eventually(lambda: not command_lines(server))
    if not all(status in (0, 200, 500, 502, 504) for status, _, _ in answers):
        raise AssertionError(answers)
    return is_over


def command_lines(server):
    """Of all processes that the server's own program has started, and of that."""
    program = str(server.installation.programs / OWN_PROGRAM).encode()
    found = []
    for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        with contextlib.suppress(OSError):
            words = file.read_bytes()
            if program in words:
                found.append(words)
    return found


def lets_programs_finish(server):
    """Though the client goes within the page. Apache kills, some seconds later."""
    finished = server.installation.root / "finished"
    script = f"{HEADER}\n" + 21 * "echo line; /bin/sleep 0.2\n" + f": >{finished}"
    with server.own_program(script) as page:
        client = server.connect()
        client.sendall(request(page))
        client.recv(1)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        client.close()
        return eventually(finished.exists)


def runs_four_at_a_time(server):
    folder = server.installation.root / "running"
    folder.mkdir()
    go = server.installation.root / "go"
    script = f": >{folder}/$$\nwhile [ ! -e {go} ]; do /bin/sleep 0.05; done\n{HEADER}"
    with server.own_program(script) as page, ThreadPoolExecutor(10) as clients:
        answers = [clients.submit(server.get, page) for _ in range(10)]
        is_full = eventually(lambda: len(list(folder.iterdir())) >= 4)
        time.sleep(MOMENT)
        running = len(list(folder.iterdir()))
        is_served = server.get("/index.html")[0] == 200
        go.touch()
        statuses = [answer.result()[0] for answer in answers]
    if not is_full or statuses != 10 * [200]:
        raise AssertionError(f"{running} run, {statuses}")
    return running == 4 and is_served


def tells_who_gets_no_place(server):
    """The answers to five, when nobody waits long."""
    go = server.installation.root / "go"
    script = f"while [ ! -e {go} ]; do /bin/sleep 0.05; done\n{HEADER}"
    with server.own_program(script) as page, ThreadPoolExecutor(5) as clients:
        answers = [clients.submit(server.get, page) for _ in range(5)]
        eventually(lambda: any(answer.done() for answer in answers))
        go.touch()
        return sorted((answer.result() for answer in answers), key=lambda answer: answer[0])


def unit_setting(server, name):
    """The service's, or that of its drop-in for the server."""
    unit = (SOURCE / "packaging/systemd/vemo-web.service.in").read_text(encoding="utf-8")
    return re.findall(rf"(?m)^{name}=(.+)$", unit + server.text)[-1]


@contextlib.contextmanager
def own_server(*edits, parts=()):
    server = start_server(len(IN_THE_BACKGROUND) + 1, *edits, parts=parts)
    try:
        yield server
    finally:
        server.stop()


def descendants(server):
    """All processes that the server has started, and itself."""
    parents = {}
    for file in pathlib.Path("/proc").glob("[0-9]*/stat"):
        with contextlib.suppress(OSError):
            parents[int(file.parent.name)] = int(file.read_text().rsplit(")", 1)[1].split()[1])
    found = {process.pid for process in server.processes}
    while more := {child for child, parent in parents.items() if parent in found} - found:
        found |= more
    return found


def count_tasks(server):
    """Processes and their threads."""
    count = 0
    for process in descendants(server):
        with contextlib.suppress(OSError):
            count += len(os.listdir(f"/proc/{process}/task"))
    return count


def ask_as(server, user, target, *headers, body=None, **how):
    """As SERVER.get(), by a client that tells name and password when it is asked."""
    lines = request(target, *headers, **how).decode("latin-1").split("\r\n")[1:-2]
    scheme = "https" if TLS in server.installation.parts else "http"
    done = subprocess.run(
        ["/usr/bin/curl", "-sS", "-i", "--insecure", "--anyauth", "--path-as-is", "--max-time", str(LIMIT), "-u", user,
         *(["-d", body] if body is not None else []), *(word for line in lines for word in ("-H", line)),
         f"{scheme}://{ADDRESS}:{server.installation.port}{target}"], stdout=subprocess.PIPE, check=True)
    # The last of the answers.
    head, _, page = re.split(rb"(?m)^(?=HTTP/1\.[01] \d)", done.stdout)[-1].partition(b"\r\n\r\n")
    return int(head.split()[1]), head.decode("latin-1"), page


RIGHT = f"{USER}:{SECRET}"
WRONG = (f"{USER}:wrong", f"nobody:{SECRET}", f"{USER}:", ":", f"{USER}:{SECRET}x")


def asks_for_a_password():
    """Once its lines are in use, for everything, and takes that one alone. As shipped none is asked for."""
    if SERVER.get("/index.html")[0] != 200:
        raise AssertionError("one is asked for")
    with own_server(parts=(PASSWORD,)) as server:
        seen = []
        for target in ("/", "/css/all.css", "/nowhere.html", CHANGE, "/channeldeviceconfig.cgi", "/reboot.cgi"):
            reset()
            status, headers, _ = server.get(target)
            seen.append(status == 401 and 'realm="vemo-web"' in headers["www-authenticate"]
                        and SETTINGS.read_text() == SHIPPED_SETTINGS)
        seen.append(server.ask(post(SET_OPTION, FORM + "500"))[0] == 401)
        for user in WRONG:
            seen.append(ask_as(server, user, CHANGE)[0] == 401 and LOG.stat().st_size == 0)
        status, _, page = ask_as(server, RIGHT, CHANGE)
        seen.append(status == 200 and b"was successful" in page and SETTINGS.read_text() == settings_with("500"))
        seen.append(ask_as(server, RIGHT, SET_OPTION, body=FORM + "501")[0] == 200
                    and SETTINGS.read_text() == settings_with("501"))
        return same(range(len(seen)), seen)


def refuses_all_the_same_with_a_password():
    """Which browsers send along with orders of other sites."""
    with own_server(parts=(PASSWORD,)) as server:
        seen = []
        for headers, how in (((FOREIGN,), {}), (("Referer: http://foreign.example/",), {}),
                             (("Sec-Fetch-Site: cross-site",), {}), ((typed("Sec-Purpose: prefetch"),), {}),
                             ((f"Referer: http://{HOST}/",), {"host": "foreign.example"}),
                             ((), {"host": NETWORK, "by_own_page": False})):
            for body in (None, FORM + "500"):
                reset()
                status = ask_as(server, RIGHT, SET_OPTION if body else CHANGE, *headers, body=body, **how)[0]
                seen.append(status == 403 and LOG.stat().st_size == 0)
        # Who has none gets the page for people, too, and is not asked for one.
        status, _, page = server.get(CHANGE, FOREIGN)
        seen.append(status == 403 and b"own pages" in page)
        program = server.installation.root / DOCUMENTS / "css/program.cgi"  # where none is looked for
        program.write_text("its text", encoding="utf-8")
        seen.append(b"its text" not in ask_as(server, RIGHT, "/css/program.cgi")[2])
        return same(range(len(seen)), seen)


def keeps_passwords_from_programs():
    """And so from their log."""
    with own_server(parts=(PASSWORD,)) as server:
        reset()
        ask_as(server, RIGHT, CHANGE)
        logged = LOG.read_text(encoding="latin-1")
        with server.own_program(f"{HEADER}; exec /usr/bin/env") as page:
            _, _, told = ask_as(server, RIGHT, f"/{OWN_PROGRAM}")
        if not logged or b"JAVA_OPTIONS=" not in told:
            raise AssertionError(f"{page} does not run")
        secrets = ("AUTHORIZATION", SECRET, base64.b64encode(RIGHT.encode()).decode(), "vemo-web:", "response=")
        return not any(secret in logged + told.decode() for secret in secrets)


def speaks_tls():
    """Once its lines are in use: 1.2 at least, and http leads there."""
    with own_server(parts=(TLS,)) as server:
        port = server.installation.port
        mode = (server.installation.places["SETTINGS"] / "key.pem").stat().st_mode & 0o777
        reset()
        status, headers, _ = server.get(CHANGE, f"Origin: https://{HOST}:{port}")
        seen = [mode == 0o640, status == 200, SETTINGS.read_text() == settings_with("500"),
                "strict-transport-security" not in headers, server.get(CHANGE, FOREIGN)[0] == 403]
        for version, is_taken in (("-tls1_1", False), ("-tls1_2", True), ("-tls1_3", True)):
            told = subprocess.run(
                ["/usr/bin/openssl", "s_client", "-connect", f"{ADDRESS}:{port}", version, "-alpn", "h2,http/1.1",
                 "-cipher", "ALL:@SECLEVEL=0"], stdin=subprocess.DEVNULL, capture_output=True, check=False)
            seen.append((told.returncode == 0) == is_taken and b"ALPN protocol: h2" not in told.stdout)
        # In clear text.
        server.installation.parts = ()
        server.installation.port += 1
        for name, there in ((HOST, f"https://{HOST}:{port}"), ("foreign.example", None)):
            for sent in (request("/a%20b/?c=%FC&d", host=f"{name}:{port + 1}"), request("/", host=name),
                         post(CHANGE, "").replace(HOST.encode(), name.encode())):
                reset()
                status, headers, page = server.ask(sent)
                target = sent.split()[1].decode()
                expected = (307, there + target) if there else (403, None)
                seen.append((status, headers.get("location")) == expected and LOG.stat().st_size == 0)
                seen.append(bool(there) or b"own pages" in page)
        return same(range(len(seen)), seen)


def has_place_for_java_vms(server, tasks):
    """Four, of a dozen and a half threads each."""
    return tasks + 4 * 20 <= int(unit_setting(server, "TasksMax"))


def waits_when_it_is_stopped():
    """As systemd stops it: a signal for the main process; with that, whatever is left ends."""
    with own_server() as server, ThreadPoolExecutor(1) as client:
        began, go = (server.installation.root / name for name in ("began", "go"))
        script = f": >{began}; {HEADER}; while [ ! -e {go} ]; do /bin/sleep 0.05; done; echo last"
        with server.own_program(script) as page:
            answer = client.submit(server.get, page)
            eventually(began.exists)
            main = server.processes[0]
            os.kill(main.pid, getattr(signal, unit_setting(server, "KillSignal")))
            with contextlib.suppress(subprocess.TimeoutExpired):
                main.wait(MOMENT)
                os.killpg(main.pid, signal.SIGKILL)
            go.touch()
            status, _, body = answer.result()
        return status == 200 and body == b"last\n"


def sends(name, value):
    """With every answer: of pages, programs, refusals."""
    seen = {target: SERVER.get(target)[1].get(name, "") == value
            for target in ("/index.html", SET_OPTION, "/css/all.css", "/nowhere.html")}
    refusal = SERVER.ask(post("/channeldeviceconfig.cgi", "", "text/plain", FOREIGN))
    seen["refusal"] = refusal[0] == 403 and refusal[1].get(name, "") == value
    return same(seen, list(seen.values()))


def lets_no_echo_give_orders():
    """Nor pictures and style sheets be asked for from programs: by a page that may hold what it was sent."""
    echo = POLICY.replace(" allow-forms", "").replace("form-action 'self'", "form-action 'none'") + (
        f", img-src *:*/images/kesta.jpg *:*/images/tarn.gif; style-src *:*/css/all.css 'unsafe-hashes' 'sha256-{STYLE}'")
    answers = [SERVER.ask(sent) for sent in (
        request(CHANGE), post(SET_OPTION, FORM), request(f"{SET_OPTION}/more?{FORM}500"))]
    seen = [headers["content-security-policy"] == echo for status, headers, _ in answers if status == 200]
    return same(answers, seen)


def lets_the_reboot_page_run_its_script():
    """By the hash of what the page holds, where it may reboot the device; no other page, and no other script."""
    with rebooting(lambda: None):
        answers = [SERVER.ask(sent) for sent in (post("/reboot.cgi", ""), request("/reboot.cgi?before=x"))]
    script = re.search(b"<script>(.*)</script>", answers[0][2], re.DOTALL)[1]
    hashed = base64.b64encode(hashlib.sha256(script).digest()).decode()
    policy = POLICY.replace("sandbox allow-same-origin allow-forms; ", "").replace(
        "; default-src", f"; script-src 'sha256-{hashed}'; connect-src 'self'; default-src")
    seen = [headers["content-security-policy"] == policy for _, headers, _ in answers]
    for target in ("/", "/css/all.css", SET_OPTION, CHANGE, "/channeldeviceconfig.cgi", f"{SET_OPTION}/reboot.cgi"):
        seen.append("script-src" not in SERVER.get(target)[1]["content-security-policy"])
    return same(range(len(seen)), seen)


REFUSALS = {status: (SOURCE / f"web/htdocs/errors/{status}.html").read_bytes()
            for status in (400, 403, 411, 413, 431, 500, 503)}


def told(sent):
    """An answer: one that comes while the request is still sent can be lost with the connection."""
    answers = (SERVER.ask(sent) for _ in range(10))
    return next((answer for answer in answers if answer[0]), (0, {}, b""))


def refused():
    """Answers of each status that the server gives by itself, or the gate."""
    sent = {
        403: (request(CHANGE, FOREIGN), post(SET_OPTION, FORM, "text/plain", FOREIGN),
              request("/", host="foreign.example"), request(CHANGE, method="PUT")),
        400: (b"GARBAGE\r\n\r\n", request("/", host="a b"), request(f"{CHANGE}#"), request("/", "Bad Header: x")),
        413: (post(SET_OPTION, FORM + 5000 * "5"), post("/index.html", FORM + 5000 * "5")),
    }
    answers = [(status, told(text)) for status, texts in sent.items() for text in texts]
    # Which of these a server refuses, and how, is its own.
    lengths = [told(text) for text in (
        request(CHANGE, "Cookie: " + 5000 * "5"), request(CHANGE + 5000 * "5"),
        request(SET_OPTION, "Transfer-Encoding: chunked", method="POST") + b"1\r\nx\r\n0\r\n\r\n",
        request(SET_OPTION, method="POST"))]
    answers += [(answer[0], answer) for answer in lengths if answer[0] != 200]
    answers += [(503, see(tells_who_gets_no_place)[-1])]
    with SERVER.own_program("") as page:
        # Nothing that can be executed.
        (SERVER.installation.programs / page[1:]).write_bytes(b"\0")
        answers.append((500, SERVER.get(page)))
    with SERVER.own_program("exit 1") as page:
        status, headers, body = SERVER.get(page)  # the server's own word; nginx's is 502
        answers.append((500, (500 if status == 502 else status, headers, body)))
    return answers


def shows_pages_for_people():
    """And nothing of the request: to the byte."""
    answers = refused()
    return same(answers, [
        status == expected and body == REFUSALS[431 if status == 414 else status]
        and headers["content-type"].replace("; ", ";") == "text/html;charset=iso-8859-1"
        for expected, (status, headers, body) in answers])


def sends_the_policy_with_every_refusal():
    """Of what it cannot read, too."""
    return all("content-security-policy" in headers for _, (_, headers, _) in refused())


def forbids_to_keep_pages_of_programs():
    return same(PAGES, [SERVER.get(f"/{page}")[1].get("cache-control") == "no-store" for page in PAGES])


def program_environment():
    with SERVER.own_program(f"{HEADER}; exec /usr/bin/env") as page:
        _, _, body = SERVER.get(page)
    return dict(line.split("=", 1) for line in body.decode().splitlines() if "=" in line)


def gives_no_path_and_no_home():
    # The script's shell adds no PATH of its own.
    return not {"PATH", "HOME"} & set(program_environment())


def hands_on_the_library_path():
    return program_environment().get("LD_LIBRARY_PATH") == "/nowhere"


def streams():
    go = SERVER.installation.root / "next"
    script = (f"{HEADER}; echo first\n"
              f"while [ ! -e {go} ]; do /bin/sleep 0.05; done\necho last")
    received = b""
    with SERVER.own_program(script) as page, contextlib.closing(SERVER.connect()) as client:
        client.sendall(request(page))
        with contextlib.suppress(TimeoutError):
            while b"first" not in received and (more := client.recv(1000)):
                received += more
        is_there = b"first" in received
        go.touch()
        while more := client.recv(1000):
            received += more
    if b"last" not in received:
        raise AssertionError(received)
    return is_there


STYLE = base64.b64encode(hashlib.sha256(b"clear:both").digest()).decode()  # which the page frame writes
POLICY = ("sandbox allow-same-origin allow-forms; form-action 'self'; default-src 'none'; "
          f"style-src 'self' 'unsafe-hashes' 'sha256-{STYLE}'; img-src 'self'; base-uri 'none'; "
          "frame-ancestors 'none'")

# By the row of the table.
PROTECTIONS = {
    "listens on 127.0.0.1 alone": listens_on_loopback_alone,
    "refuses a foreign name in Host": refuses_foreign_hosts,
    "refuses a foreign Origin": refuses_foreign_origins,
    "refuses a foreign Referer": refuses_foreign_referers,
    "refuses a foreign Sec-Fetch-Site": refuses_foreign_sites,
    "refuses a Sec-Fetch-Mode that is no navigation": refuses_what_is_no_navigation,
    "refuses a Sec-Fetch-Dest that is no document": refuses_what_is_no_document,
    "refuses a page of a program to what is no document, too": refuses_programs_to_what_is_no_document,
    "refuses a prefetch: Sec-Purpose, Purpose, X-Purpose, X-Moz": refuses_prefetches,
    "refuses a WebSocket: Upgrade, Sec-WebSocket-Key": refuses_websockets,
    "looks at both when one of these comes twice": looks_at_both_of_two_headers,
    "refuses a change by nobody's page, where the address is not loopback": refuses_nobodys_orders,
    "takes a change by an address that was typed, on loopback alone": tells_typed_addresses,
    "refuses foreign orders to the other pages": refuses_foreign_orders_to_other_pages,
    "is not got round by another spelling of the address": refuses_other_spellings,
    "refuses a # in a program's address": refuses_fragments,
    "never shows a program as text": shows_no_program,
    "refuses methods other than GET, HEAD, POST": refuses_other_methods,
    "refuses HEAD of a program": refuses_head_of_programs,
    "refuses with a page for people: 400, 403, 411, 413, 414, 431, 500, 503": shows_pages_for_people,
    "refuses a body of more than 4 kB": refuses_large_bodies,
    "refuses such a body in chunks": refuses_large_bodies_in_chunks,
    "refuses a header of more than 4 kB": refuses_large_headers,
    "refuses a request line of more than 4 kB": refuses_long_request_lines,
    "starts no program for a body that is cut": keeps_short_bodies_off,
    "serves others beside 60 slow clients": serves_others_beside_slow_clients,
    "limits the number of connections": limits_connections,
    "drops a client that says nothing for seconds": drops_silent_clients,
    "drops a client whose headers take seconds": limits_the_time_for_the_headers,
    "serves another address beside 400 slow clients": serves_others_beside_many_slow_clients_of_one_address,
    "serves another address beside requests given up": serves_others_in_turn_beside_requests_given_up,
    "serves one request a connection": serves_one_request_a_connection,
    "speaks no HTTP/2 in clear text": speaks_no_http2,
    "runs four programs at a time": runs_four_at_a_time,
    "ends a program that hangs": ends_programs_that_hang,
    "lets a program finish when its client goes": lets_programs_finish,
    "waits for the requests under way when it is stopped": waits_when_it_is_stopped,
    "serves programs beside 130 slow posts": serves_programs_beside_slow_posts,
    "hands a page on as it comes": streams,
    "gives programs no PATH and no HOME": gives_no_path_and_no_home,
    "hands on LD_LIBRARY_PATH, which may name the Java VM": hands_on_the_library_path,
    "asks for a password, once its lines are in use": asks_for_a_password,
    "refuses all the same when the right one comes along": refuses_all_the_same_with_a_password,
    "keeps it from the programs and their log": keeps_passwords_from_programs,
    "speaks TLS, once its lines are in use, and leads http there": speaks_tls,
    "sends Content-Security-Policy": lambda: sends("content-security-policy", POLICY),
    "sends it with its own refusals of what it cannot read or is too large, too": sends_the_policy_with_every_refusal,
    "lets a page that echoes send no form and ask for no program": lets_no_echo_give_orders,
    "lets a script run in the reboot page alone, and no other than its own": lets_the_reboot_page_run_its_script,
    "sends Referrer-Policy": lambda: sends("referrer-policy", "same-origin"),
    "sends X-Content-Type-Options": lambda: sends("x-content-type-options", "nosniff"),
    "sends X-Frame-Options": lambda: sends("x-frame-options", "DENY"),
    "sends Cache-Control with pages of programs": forbids_to_keep_pages_of_programs,
}
# On loopback addresses do not tell clients apart.
IN_A_NETWORK = (serves_others_beside_many_slow_clients_of_one_address,
                serves_others_in_turn_beside_requests_given_up)
# These wait: they begin first, each with a server of its own and these edits.
IN_THE_BACKGROUND = {
    limits_connections: ((r"(worker_connections|max-connections =) \d+", r"\1 288"),),  # fewer than come
    lets_programs_finish: (),
    runs_four_at_a_time: (),
    drops_silent_clients: SHORT_TIMES,
    limits_the_time_for_the_headers: SHORT_TIMES,
    ends_programs_that_hang: SHORT_TIMES,
    tells_who_gets_no_place: (gate("PATIENCE", 1),),
}


def setUpModule():
    global SERVER
    reset()
    SERVER = start_server(0)
    pool = ThreadPoolExecutor(len(IN_THE_BACKGROUND))
    for number, (act, edits) in enumerate(IN_THE_BACKGROUND.items(), 1):
        if WANTED and not any(test_name(row) in test for row in PROTECTIONS for test in WANTED
                              if PROTECTIONS[row] is act):
            continue
        BACKGROUND[act] = pool.submit(act, start_server(number, *edits))
    unittest.addModuleCleanup(pool.shutdown)  # before its servers end


def start_server(number, *edits, vm=WITH_FAKE_VM, parts=()):
    server = Server(number, [*([vm] if vm else []), *edits], parts)
    unittest.addModuleCleanup(server.stop)
    return server


def see(act):
    return BACKGROUND[act].result() if act in BACKGROUND else act()


class Telling(unittest.TestCase):
    """What the servers said, when a test fails."""

    def run(self, result=None):
        seen = len(result.failures + result.errors)
        super().run(result)
        if len(result.failures + result.errors) > seen:
            for file in sorted(pathlib.Path("/tmp").glob("web-*/**/error*")):
                if file.is_file() and (said := file.read_text(errors="replace")):
                    print(f"\n{file}: {said[-3000:]}", file=sys.stderr, flush=True)


class Table(Telling):
    """What docs/web-servers.md says of the server."""

    def test_has_a_row_for_every_protection_and_no_other(self):
        self.assertEqual(list(ROWS), list(PROTECTIONS))

    def test_names_nothing_that_the_configuration_does_not_have(self):
        for row, cell in ROWS.items():
            for word in re.findall(r"`([^`]*)`", cell):
                self.assertIn(word, SERVER.text, row)


def test_name(row):
    return "test_" + re.sub(r"\W+", "_", row.lower())


def add_cell(row, act):
    def test(self):
        if act in IN_A_NETWORK and HOST != NETWORK:
            self.skipTest("on loopback addresses do not tell clients apart")
        word = re.match(r"(yes|no)\b", ROWS.get(row, ""))
        self.assertIsNotNone(word, "the cell begins neither with yes nor with no")
        self.assertEqual("yes" if see(act) else "no", word[0], row)
    setattr(Table, test_name(row), test)


for item in PROTECTIONS.items():
    add_cell(*item)


class Every(Telling):
    """What every server does."""

    def setUp(self):
        reset()

    def assert_stored(self, sent, value):
        status, headers, body = SERVER.ask(sent)
        stored = SETTINGS.read_text()  # before the program runs again
        self.assertEqual(status, 200)
        self.assertEqual(headers["content-type"], "text/html")
        self.assertEqual(body.decode("latin-1"), run_program(FORM + value).decode("latin-1"))
        self.assertEqual(stored, settings_with(value))

    def test_serves_a_get_request(self):
        self.assert_stored(request(CHANGE), "500")

    def test_serves_a_posted_form(self):
        self.assert_stored(post(SET_OPTION, FORM + "501"), "501")

    def test_serves_a_posted_multipart_form(self):
        body = part(f'Content-Disposition: form-data; name="{FORM[:-1]}"', "", "502")
        self.assert_stored(post(SET_OPTION, body, MULTIPART), "502")

    def test_serves_the_page_of_exit_status_1(self):
        status, _, body = SERVER.get(SET_OPTION)
        self.assertEqual((status, body), (200, run_program()))
        self.assertIn(b"Option CanDetectTimeout not set", body)
        self.assertEqual(SETTINGS.read_text(), SHIPPED_SETTINGS)

    def test_hands_on_what_there_is_of_a_page_whose_program_aborts(self):
        status, _, body = SERVER.ask(post(SET_OPTION, part("X: y"), MULTIPART))
        whole = run_program()
        self.assertEqual((status, body), (200, whole[:whole.index(b'<p class="warn"')]))
        self.assertEqual(SERVER.get(SET_OPTION)[0], 200)

    def test_serves_the_other_pages(self):
        for page, mark in (("/", b"<h2>VEMO Web Server</h2>"), ("/index.html", b"<h2>VEMO Web Server</h2>"),
                           ("/reboot.cgi", b"</html>"), ("/channeldeviceconfig.cgi", b"</html>"),
                           ("/css/all.css", b"{")):
            status, _, body = SERVER.get(page)
            self.assertEqual(status, 200, page)
            self.assertIn(mark, body)

    def test_says_what_a_file_is(self):
        for file, kind in (("/index.html", "text/html;charset=iso-8859-1"), ("/css/all.css", "text/css"),
                           ("/images/kesta.jpg", "image/jpeg"), ("/images/tarn.gif", "image/gif")):
            self.assertTrue(SERVER.get(file)[1]["content-type"].replace("; ", ";").startswith(kind), file)

    def test_serves_twenty_at_once(self):
        values = [str(value) for value in range(100, 120)]
        with ThreadPoolExecutor(20) as clients:
            # Of two clients, each of which may have some.
            answers = list(clients.map(
                lambda value: SERVER.ask(request(CHANGE[:-3] + value), SECOND if HOST == NETWORK and int(value) % 2
                                         else ""), values))
        log = LOG.read_text().splitlines()
        stored = SETTINGS.read_text()
        for value, (status, _, body) in zip(values, answers):
            self.assertEqual((status, body), (200, run_program(FORM + value)))
        self.assertEqual(len([line for line in log if line.endswith(" main")]), 20)
        self.assertIn(stored, map(settings_with, values))

    def test_takes_the_orders_of_its_own_pages(self):
        port = SERVER.installation.port
        for headers in ((f"Origin: http://{HOST}:{port}",), (f"Origin: http://127.0.0.1:{port}",),
                        (f"Referer: http://{HOST}:{port}/index.html",), ("Sec-Fetch-Site: same-origin",),
                        (typed("Sec-Fetch-User: ?1"),), (f"Origin: http://{HOST}:9090",),
                        (f"Origin: https://{HOST}",), (f"Referer: https://{HOST}/index.html",)):
            reset()
            self.assertEqual(SERVER.get(CHANGE, *headers)[0], 200, headers)
            self.assertEqual(SETTINGS.read_text(), settings_with("500"), headers)
        self.assertEqual(SERVER.ask(request(CHANGE, host=f"{HOST}:9090"))[0], 200)

    def test_lets_foreign_pages_link_to_what_changes_nothing(self):
        for page in ("/index.html", "/channeldeviceconfig.cgi"):
            self.assertEqual(SERVER.get(page, "Referer: http://foreign.example/",
                                        "Sec-Fetch-Site: cross-site")[0], 200)

    def test_tells_who_gets_no_place_to_come_again(self):
        answers = see(tells_who_gets_no_place)
        self.assertEqual([status for status, _, _ in answers], [200, 200, 200, 200, 503])
        self.assertIn("retry-after", answers[-1][1])

    def test_gives_the_java_vm_its_variables_and_nothing_of_the_gate(self):
        environment = program_environment()
        self.assertEqual(environment["JAVA_CLASSPATH"], "/srv/vemo/java")
        self.assertRegex(environment["JAVA_OPTIONS"], r"^-XX:VMOptionsFile=/.*/java\.options$")
        self.assertEqual([name for name in environment if name.startswith("CGI_GATE")], [])

    def test_serves_a_request_with_the_real_java_vm(self):
        server = start_server(len(IN_THE_BACKGROUND) + 1, vm=None)
        self.addCleanup(server.stop)
        status, _, body = server.get(CHANGE)
        stored = SETTINGS.read_text()
        self.assertEqual((status, body), (200, run_program(FORM + "500")))
        self.assertEqual(stored, settings_with("500"))


class Together(Telling):
    """Two servers in one service."""

    def test_ends_with_the_other_for_systemd_to_start_it_again(self):
        with own_server() as server:
            found = [process for process in descendants(server) if process_name(process) == "fcgiwrap"]
            os.kill(min(found), signal.SIGKILL)  # the first is the others' parent
            self.assertEqual(server.processes[0].wait(LIMIT), -signal.SIGKILL)

    def test_answers_a_crowd_or_tells_to_come_again(self):
        if HOST == NETWORK:
            self.skipTest("it would need a crowd of addresses")
        go = SERVER.installation.root / "crowd"
        script = f"while [ ! -e {go} ]; do /bin/sleep 0.05; done\n{HEADER}"
        with SERVER.own_program(script) as page, ThreadPoolExecutor(200) as clients:
            answers = [clients.submit(SERVER.get, page) for _ in range(200)]
            eventually(lambda: all(answer.done() for answer in answers), WHILE)
            tasks = count_tasks(SERVER)
            go.touch()
            answers = [answer.result() for answer in answers]
        self.assertEqual({status for status, _, _ in answers}, {200, 503})
        self.assertGreaterEqual([status for status, _, _ in answers].count(200), 100)
        self.assertTrue(has_place_for_java_vms(SERVER, tasks), tasks)
        for status, headers, body in answers:
            self.assertEqual(headers.get("retry-after"), "10" if status == 503 else None)
            if status == 503:
                self.assertEqual(body, REFUSALS[503])


def load_tests(loader, *_):
    """All that concerns the server; what waits last."""
    cases = (Every, Table) + {"nginx": (Together,)}.get(NAME, ())
    tests = [test for case in cases for test in loader.loadTestsFromTestCase(case)]
    late = {test_name(row) for row, act in PROTECTIONS.items() if act in IN_THE_BACKGROUND}
    return unittest.TestSuite(sorted(tests, key=lambda test: test.id().rsplit(".", 1)[1] in late))


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="Holds a web server against its column of the table.")
    parser.add_argument("name", choices=SERVERS)
    parser.add_argument("--address", default="127.0.0.1")
    parser.add_argument("--see", action="store_true", help="print what is seen, test nothing")
    options, rest = parser.parse_known_args()
    WANTED = rest
    NAME, ADDRESS = options.name, options.address
    HOST = "localhost" if ADDRESS == "127.0.0.1" else NETWORK
    if options.see:
        setUpModule()
        for row, act in PROTECTIONS.items():
            if act in IN_A_NETWORK and HOST != NETWORK:
                continue
            try:
                print(f"{row:55} {'yes' if see(act) else 'no'}", flush=True)
            except AssertionError as error:
                print(f"{row:55} ??? {error}", flush=True)
        unittest.doModuleCleanups()
        sys.exit()
    # What the page says of the server, by row.
    ROWS = {row["it"]: row[SERVERS[NAME][0]] for row in pages.rows("docs/web-servers.md") if "it" in row}
    unittest.main(argv=[sys.argv[0], *rest], verbosity=2)
