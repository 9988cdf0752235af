"""Soaks the device: some thousand requests, four at once, with clients that go away or dawdle and
programs that hang or abort among them. Meanwhile the settings file is read all the time and the log file
is renamed again and again. What each kind of request gives when it is alone is what it has to give here.
Works inside the device's sandbox, with Debian's own Python."""

import argparse
import collections
import contextlib
import glob
import http.client
import os
import pathlib
import random
import re
import shutil
import socket
import struct
import subprocess
import sys
import threading
import time
import unittest
from concurrent.futures import ThreadPoolExecutor

from browser import ORDERS, PORT, SETTINGS, SHIPPED_SETTINGS, eventually, is_listening, process_name, wait_until

AT_ONCE = 4
SEED = 1
LIMIT = 60  # seconds for whatever is waited for
LOG = pathlib.Path("/tmp/cgi.log")
OWN = pathlib.Path("/tmp/soak")  # what is ours
LEFT_IN_TMP = {"cgi-gate.lock", "cgi.log", "lighttpd-access.log", "lighttpd-error.log", "nvm.log",
               OWN.name}
# By which a server may grow from one half to the other: KiB for its buffers, and bytes a request.
# lighttpd 1.4.69 loses a block of 32 for most programs that it starts.
MOST_GROWTH = 128
LOST = {"nvm-service": 0, "lighttpd": 32}

SET_OPTION = "/setobdconf.cgi"
DEVICE_INFORMATION = "/channeldeviceconfig.cgi"
FIELD = "CanDetectTimeout="
HANG = "hang&"


# --- The device

def start_device():
    """As it is shipped, but that a query that begins with HANG meets a configuration class that never
    gets ready, and a gate that does not wait long."""
    shipped = pathlib.Path("/srv/vemo/lighttpd.conf").read_text()
    site = pathlib.Path("/srv/vemo/lighttpd-site.conf").read_text()
    environment = re.search(r"setenv\.set-environment = \(.*?\n\)\n", site, re.DOTALL)[0]
    hanging = environment
    for before, after in (("var.vemo_class_path", '"/build/tests/java/holding"'),
                          ('LIMIT"    => "60', 'LIMIT" => "2')):
        assert before in hanging
        hanging = hanging.replace(before, after)
    OWN.mkdir()
    configuration = OWN / "lighttpd.conf"
    configuration.write_text(f'{shipped}\n$HTTP["querystring"] =~ "^{HANG}" {{\n{hanging}}}\n')
    for included in pathlib.Path("/srv/vemo").glob("lighttpd-*.conf"):
        shutil.copy(included, OWN)
    start = pathlib.Path("/srv/vemo/start").read_text()
    start = start.replace("/srv/vemo/lighttpd.conf", str(configuration))
    assert str(configuration) in start
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)
    with open(OWN / "errors", "wb") as errors:
        device = subprocess.Popen(["/bin/sh", "-c", start], stderr=errors,
                                  env={**os.environ, "VEMO_PORT": str(PORT)})
    wait_until(is_listening, "the web server does not listen")
    # Nothing reboots it.
    ORDERS.unlink()
    return device


def children(process):
    text = pathlib.Path(f"/proc/{process}/task/{process}/children").read_text()
    return [int(word) for word in text.split()]


class Server:
    """One of the two, seen from outside."""

    def __init__(self, device, name):
        self.process = next(child for child in children(device.pid) if process_name(child) == name)
        self.memory = []  # KiB of its own, over time

    def sample(self):
        text = pathlib.Path(f"/proc/{self.process}/smaps_rollup").read_text()
        self.memory.append(int(re.search(r"Anonymous: +(\d+)", text)[1]))

    def files(self):
        return len(os.listdir(f"/proc/{self.process}/fd"))


def programs():
    """The machine's processes that run a program of the web server's."""
    found = set()
    for link in glob.glob("/proc/[0-9]*/exe"):
        with contextlib.suppress(OSError):
            if os.readlink(link).endswith((".cgi", "/cgi-gate")):
                found.add(link)
    return found


# --- Clients

def get(target, *headers):
    lines = (f"GET {target} HTTP/1.1", "Host: localhost", "Connection: close", *headers)
    return "".join(f"{line}\r\n" for line in (*lines, "")).encode()


def post(target, body, kind="application/x-www-form-urlencoded"):
    headers = (f"Content-Type: {kind}", f"Content-Length: {len(body)}")
    return get(target, *headers).replace(b"GET", b"POST", 1) + body.encode()


def post_part(*lines):
    body = "".join(f"{line}\r\n" for line in ("--frontier", *lines, "--frontier--"))
    return post(SET_OPTION, body, "multipart/form-data; boundary=frontier")


def connect():
    return socket.create_connection(("127.0.0.1", PORT), timeout=LIMIT)


def ask(request, pieces=1, pause=0.0):
    """The status and the body of the answer."""
    with connect() as client:
        size = -(-len(request) // pieces)
        for begin in range(0, len(request), size):
            client.sendall(request[begin:begin + size])
            time.sleep(pause)
        response = http.client.HTTPResponse(client)
        response.begin()
        body = b""
        # The length that was announced is asked for: a shorter body is an exception.
        while not response.isclosed() and (more := response.read(64) if pause else response.read()):
            body += more
            time.sleep(pause)
        return response.status, body


def ask_slowly(request):
    return ask(request, 10, 0.01)


def leave_within_the_request(request):
    with connect() as client:
        client.sendall(request[:len(request) // 2])


def leave_after_the_request(request):
    with connect() as client:
        client.sendall(request)


def leave_within_the_page(request):
    with connect() as client:
        client.sendall(request)
        client.recv(1)
        # Closed so, the connection is reset.
        client.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))


# --- Kinds of requests

# What `request` makes of a value, `client` sends. `share` is of a thousand.
Kind = collections.namedtuple("Kind", "share request client")


def store_by_get(value):
    return get(f"{SET_OPTION}?{FIELD}{value}")


def store_by_post(value):
    return post(SET_OPTION, FIELD + value)


KINDS = {
    "store by GET": Kind(280, store_by_get, ask),
    "store by POST": Kind(220, store_by_post, ask),
    "store by multipart POST": Kind(60, lambda value: post_part(
        f'Content-Disposition: form-data; name="{FIELD[:-1]}"', "", value), ask),
    "warning": Kind(100, lambda _: get(SET_OPTION), ask),
    "abort": Kind(50, lambda _: post_part("X: y"), ask),
    "hang": Kind(10, lambda _: get(f"{SET_OPTION}?{HANG}{FIELD}never"), ask),
    "slow client": Kind(30, store_by_post, ask_slowly),
    "gone within the request": Kind(30, store_by_post, leave_within_the_request),
    "gone after the request": Kind(50, store_by_get, leave_after_the_request),
    "gone within the page": Kind(50, store_by_post, leave_within_the_page),
    "device information": Kind(60, lambda _: get(DEVICE_INFORMATION), ask),
    "reboot": Kind(20, lambda _: get("/reboot.cgi"), ask),
    "reboot, posted": Kind(10, lambda _: post("/reboot.cgi", ""), ask),
    "home page": Kind(20, lambda _: get("/index.html"), ask),
    "refused": Kind(10, lambda value: get(
        f"{SET_OPTION}?{FIELD}{value}", "Origin: http://foreign.example"), ask),
}
# Their value reaches no settings file.
UNHEARD = {"gone within the request", "hang", "refused", "abort", "warning"}


def read_by_library():
    """The settings file as PropertiesIni sees it: the device's own page, with a Java VM that costs
    nothing and without the web server."""
    environment = {"REQUEST_METHOD": "GET", "LD_PRELOAD": "/build/standin/libfake-vm.so"}
    page = subprocess.run(["/srv/vemo/htdocs" + DEVICE_INFORMATION], env=environment,
                          stdout=subprocess.PIPE, timeout=LIMIT, check=False)
    return page.returncode, page.stdout


# Tells its own number and length, so that no part of one, and no mix of two, is one.
VALUE = re.compile(rb"v(\d+)-(\d+)-x*-\2-\1v")


def new_value(number, chance):
    length = chance.choice((0, 1, 10, 100, 1000, 3000))
    return f"v{number}-{length}-{'x' * length}-{length}-{number}v"


def values_of(text):
    return {match[0].decode() for match in VALUE.finditer(text)}


def without_values(answer):
    return answer and (answer[0], VALUE.sub(b"VALUE", answer[1]))


# --- The log

EVENT = re.compile(
    r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  ([A-Z]+) +cgi +(\d+) *((?:src|device)/[A-Za-z/]+) *(\d+) +",
    re.MULTILINE)


def stories(text):
    """What each process tells, from its "main" on, statement by statement; also what is no statement."""
    told = []
    of_process = {}
    parts = EVENT.split(text)
    if parts[0]:
        told.append((parts[0],))
    for level, process, source, line, message in zip(*(parts[i::5] for i in range(1, 6))):
        message = re.sub(r"\nDate: [^\r]*", "", message)
        if message == "main\n" or process not in of_process:
            of_process[process] = []
            told.append(of_process[process])
        of_process[process].append(f"{level} {source} {line} {message}")
    return collections.Counter(map(tuple, told))


class Soak:
    """One run, and what was seen in it."""

    def __init__(self, count):
        self.device = start_device()
        self.servers = {name: Server(self.device, name) for name in ("nvm-service", "lighttpd")}
        self.lock = threading.Lock()
        self.bad_pages = []
        self.bad_settings = []
        self.counts = collections.Counter()
        self.is_over = threading.Event()
        self.answers = {}
        self.stories = {}
        self.expected = collections.Counter()  # stories
        chance = random.Random(SEED)
        self.sent = {new_value(0, chance)}
        names = [name for name, kind in KINDS.items() for _ in range(-(-kind.share * count // 1000))]
        chance.shuffle(names)
        self.plan = [(number, name, new_value(number, chance)) for number, name in enumerate(names, 1)]

    def run(self):
        for name, kind in KINDS.items():
            self.do_alone(name, lambda: kind.client(kind.request(*self.sent)))
        self.do_alone("library", read_by_library)
        self.files = {name: server.files() for name, server in self.servers.items()}
        with ThreadPoolExecutor() as others, ThreadPoolExecutor(AT_ONCE) as clients:
            watchers = [others.submit(self.repeat, *what) for what in (
                (self.read_settings, 0.001), (self.read_by_library, 0.05), (self.rename_log, 0.2))]
            try:
                list(clients.map(self.do, self.plan))
            finally:
                self.is_over.set()
            for watcher in watchers:
                watcher.result()
        self.is_quiet = self.calm_down()

    def calm_down(self):
        ask(get("/index.html"))  # who is answered now was heard after all others
        return eventually(lambda: not children(self.servers["lighttpd"].process) and not programs(), LIMIT)

    def do_alone(self, name, act):
        """The first of its kind tells what the others are held against."""
        LOG.write_bytes(b"")
        self.answers[name] = without_values(act())
        self.calm_down()
        self.stories[name] = stories(LOG.read_text())
        LOG.unlink()

    def repeat(self, act, pause):
        while not self.is_over.wait(pause):
            act()

    def do(self, planned):
        number, name, value = planned
        if number % (len(self.plan) // 40) == 0:
            for server in self.servers.values():
                server.sample()
        kind = KINDS[name]
        if name not in UNHEARD:
            self.sent.add(value)
        try:
            answer = kind.client(kind.request(value))
        except (OSError, http.client.HTTPException) as error:
            answer = 0, repr(error).encode()
        self.judge(name, answer, self.sent if name == "device information" else {value})

    def judge(self, name, answer, values):
        is_whole = without_values(answer) == self.answers[name] and (
            answer is None or values_of(answer[1]) <= values)
        # Ended early, on a busy machine, a program that hangs has said nothing yet.
        is_whole |= name == "hang" and answer[0] == 500
        with self.lock:
            self.counts[name] += 1
            self.expected.update(self.stories[name])
            if not is_whole:
                self.bad_pages.append(f"{name}: {answer}")

    def read_settings(self):
        text = SETTINGS.read_bytes() if SETTINGS.exists() else b"none"
        shipped = SHIPPED_SETTINGS.read_bytes().replace(b"Timeout=300", b"Timeout=VALUE")
        if VALUE.sub(b"VALUE", text) != shipped or not values_of(text) <= self.sent:
            self.bad_settings.append(text)
        self.counts["settings file read"] += 1

    def read_by_library(self):
        self.judge("library", read_by_library(), self.sent)

    def rename_log(self):
        with contextlib.suppress(FileNotFoundError):
            LOG.rename(OWN / f"cgi.log.{self.counts['log file renamed']:06}")
            self.counts["log file renamed"] += 1

    def told(self):
        """The stories of the log, all files of it together."""
        files = [*sorted(OWN.glob("cgi.log.*")), LOG]
        told = stories("".join(file.read_text() for file in files if file.exists()))
        # One that hangs may be ended before it has told all.
        hang = next(iter(self.stories["hang"]))
        for story in [story for story in told if story not in self.expected]:
            if story == hang[:len(story)]:
                told[hang] += told.pop(story)
        return told


def setUpModule():
    global SOAK
    SOAK = Soak(COUNT)
    unittest.addModuleCleanup(SOAK.device.wait)
    unittest.addModuleCleanup(SOAK.device.kill)  # what it started ends with the sandbox
    SOAK.run()
    for name, number in SOAK.counts.most_common():
        print(f"{number:7} {name}")


class UnderLoad(unittest.TestCase):
    def test_every_page_is_whole(self):
        self.assertEqual(SOAK.bad_pages[:5], [])

    def test_every_kind_was_asked_for(self):
        self.assertEqual([name for name in (*KINDS, "library") if not SOAK.counts[name]], [])

    def test_the_kinds_are_what_they_are_meant_to_be(self):
        page = SOAK.answers["store by GET"][1]
        for name in ("store by POST", "store by multipart POST", "slow client"):
            self.assertEqual(SOAK.answers[name], (200, page))
        for name in ("store by GET", "device information", "library"):
            self.assertIn(b"VALUE", SOAK.answers[name][1])
        for name, most in (("hang", b"<h2>"), ("abort", b"<p>Set")):
            status, cut = SOAK.answers[name]
            self.assertEqual((status, cut), (200, page[:len(cut)]))
            self.assertLessEqual(len(cut), page.index(most))
        self.assertEqual(SOAK.answers["refused"][0], 403)
        for name in KINDS:
            heard = name not in ("gone within the request", "home page", "refused")
            self.assertEqual(len(SOAK.stories[name]), heard, name)

    def test_no_log_line_is_lost_or_torn(self):
        told = SOAK.told()
        print(f"{sum(told.values()):7} processes told {sum(len(s) * n for s, n in told.items())} lines")
        self.assertEqual((told - SOAK.expected).most_common(5), [], "told, not expected")
        self.assertEqual((SOAK.expected - told).most_common(5), [], "expected, not told")

    def test_nobody_reads_a_torn_settings_file(self):
        self.assertEqual(SOAK.bad_settings[:5], [])

    def test_the_servers_do_not_grow(self):
        for name, server in SOAK.servers.items():
            middle = len(server.memory) // 2
            growth = max(server.memory[middle:]) - max(server.memory[:middle])
            print(f"{name}: {server.memory[0]} KiB, then {max(server.memory)} at most")
            with self.subTest(name):
                self.assertLessEqual(growth, MOST_GROWTH + LOST[name] * len(SOAK.plan) / 2 / 1024)
                self.assertTrue(eventually(lambda: server.files() <= SOAK.files[name], LIMIT), "open files")

    def test_nothing_is_left_behind(self):
        self.assertEqual(set(os.listdir("/tmp")) - LEFT_IN_TMP, set())
        self.assertEqual(os.listdir(SETTINGS.parent), [SETTINGS.name])

    def test_no_process_is_left(self):
        self.assertTrue(SOAK.is_quiet, programs())


if __name__ == "__main__":
    parser = argparse.ArgumentParser(description="Soaks the device with requests.")
    parser.add_argument("--long", action="store_true", help="5000 requests in place of 300")
    options, rest = parser.parse_known_args()
    COUNT = 5000 if options.long else 300
    unittest.main(argv=[sys.argv[0], *rest])
