"""Soaks the device: hundreds of requests, with --long 5000, four at once, with clients that go away or dawdle and
programs that hang or abort among them. Meanwhile the settings file is read all the time and the log file is renamed
again and again. What each kind of request gives when it is alone is what it has to give here."""

import collections
import contextlib
import os
import pathlib
import random
import re
import threading
import time
from concurrent.futures import ThreadPoolExecutor

import psutil
import pytest

import client
import device
import logfile
from client import FOREIGN, MULTIPART, part, post, request
from device import FIELD, LOG, SET_OPTION, SETTINGS, SHIPPED_SETTINGS
from server import gate, running_device

AT_ONCE = 4
SEED = 1
LOGS = pathlib.Path("/tmp/soak")  # renamed
LEFT_IN_TMP = {"cgi.log", "nvm.log", "web_8080", LOGS.name}
# By which a server may grow from one half to the other: KiB for its buffers, and bytes a request.
# lighttpd 1.4.69 loses a block of 32 for most programs that it starts.
MOST_GROWTH = 128
LOST = {"lighttpd": 32, "nvm-service": 0}
HANG = "hang&"
HOLDING_CLASS = "/build/tests/java/holding"  # a configuration class that never gets ready


def with_hanging(environment):
    """A query that begins with HANG meets that class, and a gate that does not wait long."""
    hanging = environment[0].replace("var.vemo_class_path", f'"{HOLDING_CLASS}"')
    hanging = re.sub(*gate("RUN_TIMEOUT", 2), hanging)
    return f'{environment[0]}$HTTP["querystring"] =~ "^{HANG}" {{\n{hanging}}}\n'


# --- Clients

def ask(server, sent):
    return server.ask(sent, timeout=3 * device.LIMIT)


def ask_slowly(server, sent):
    connection = server.connect(3 * device.LIMIT)
    while len(sent) > 30:
        connection.sendall(sent[:30])
        sent = sent[30:]
        time.sleep(0.01)
    return client.ask(connection, sent)


def leave(server, sent):
    with server.connect() as connection:
        connection.sendall(sent)


def leave_within_the_page(server, sent):
    connection = server.connect()
    connection.sendall(sent)
    connection.recv(1)
    client.reset(connection)


# --- Kinds of requests

# What `request` makes of a value, `client` sends. `share` is of a thousand.
Kind = collections.namedtuple("Kind", "share request client")


def get_value(value):
    return request(f"{SET_OPTION}?{FIELD}{value}")


def post_value(value):
    return post(SET_OPTION, FIELD + value)


KINDS = {
    "store by GET": Kind(310, get_value, ask),
    "store by POST": Kind(260, post_value, ask),
    "warning": Kind(100, lambda _: request(SET_OPTION), ask),
    "abort": Kind(50, lambda _: post(SET_OPTION, part("X: y"), kind=MULTIPART), ask),
    "hang": Kind(10, lambda _: request(f"{SET_OPTION}?{HANG}{FIELD}never"), ask),
    "slow client": Kind(30, post_value, ask_slowly),
    "gone within the request": Kind(30, lambda value: post_value(value)[:-10], leave),
    "gone after the request": Kind(50, get_value, leave),
    "gone within the page": Kind(50, post_value, leave_within_the_page),
    "device information": Kind(60, lambda _: request("/channeldeviceconfig.cgi"), ask),
    "reboot": Kind(20, lambda _: request("/reboot.cgi"), ask),
    "home page": Kind(20, lambda _: request("/index.html"), ask),
    "refused": Kind(10, lambda value: request(f"{SET_OPTION}?{FIELD}{value}", FOREIGN), ask),
}
# Their value reaches no settings file.
UNHEARD = {"gone within the request", "hang", "refused", "abort", "warning"}
# Contains its own number and length, so that no part of one, and no mix of two, is one.
VALUE = re.compile(rb"v(\d+)-(\d+)-x*-\2-\1v")


def new_value(number, chance):
    length = chance.choice((0, 1, 10, 100, 1000, 3000))
    return f"v{number}-{length}-{'x' * length}-{length}-{number}v"


def values_of(text):
    return {match[0].decode() for match in VALUE.finditer(text)}


def without_values(answer):
    """Its status and body."""
    return answer and (answer.status, VALUE.sub(b"VALUE", answer.body))


def accounts(log):
    """What each process logs, from its "main" on, statement by statement; also what is no statement."""
    found, of_process = [], {}
    for process, statement in logfile.statements(log):
        if statement.endswith(" main\n") or process not in of_process:
            of_process[process] = []
            found.append(of_process[process])
        of_process[process].append(re.sub(r"\nDate: [^\r]*", "", statement))
    return collections.Counter(map(tuple, found))


class Soak:
    """One run, and what was seen in it."""

    def __init__(self, server, service, count):
        self.server = server
        self.processes = dict(zip(LOST, (psutil.Process(process.pid) for process in (server.process, service))))
        self.memory = {name: [] for name in LOST}  # of its own, over time
        self.bad_pages, self.bad_settings = [], []
        self.answers, self.accounts = {}, {}  # of each kind, alone
        self.is_over = threading.Event()
        self.renamed = 0
        chance = random.Random(SEED)
        names = [name for name, kind in KINDS.items() for _ in range(-(-kind.share * count // 1000))]
        chance.shuffle(names)
        self.plan = [(number, name, new_value(number, chance)) for number, name in enumerate(["", *names])]
        self.sent = {value for _, name, value in self.plan if name not in UNHEARD}

    def run(self):
        _, _, value = self.plan.pop(0)
        for name, kind in KINDS.items():
            # The others are compared with this first of its kind.
            LOG.write_bytes(b"")
            self.answers[name] = without_values(kind.client(self.server, kind.request(value)))
            self.calm_down()
            self.accounts[name] = accounts(LOG.read_text())
            LOG.unlink()
        self.files = {name: process.num_fds() for name, process in self.processes.items()}
        with ThreadPoolExecutor() as others, ThreadPoolExecutor(AT_ONCE) as clients:
            watchers = [others.submit(self.repeat, self.read_settings, 0.001),
                        others.submit(self.repeat, self.rename_log, 0.2)]
            try:
                list(clients.map(self.do, self.plan))
            finally:
                self.is_over.set()
            for watcher in watchers:
                watcher.result()
        self.is_quiet = self.calm_down()

    def calm_down(self):
        self.server.get("/index.html")  # who is answered now was heard after all others
        return device.eventually(lambda: not self.processes["lighttpd"].children()
                                 and not device.programs((".cgi", "/cgi-gate")), 3 * device.LIMIT)

    def repeat(self, act, pause):
        while not self.is_over.wait(pause):
            act()

    def do(self, planned):
        number, name, value = planned
        if number % (len(self.plan) // 40) == 0:
            for memory, process in zip(self.memory.values(), self.processes.values()):
                memory.append(sum(part.anonymous for part in process.memory_maps()))
        kind = KINDS[name]
        answer = kind.client(self.server, kind.request(value))
        is_whole = without_values(answer) == self.answers[name] and (
            answer is None or values_of(answer.body) <= (self.sent if name == "device information" else {value}))
        # Ended early, on a busy machine, a program that hangs has said nothing yet.
        is_whole |= name == "hang" and answer.status == 500
        if not is_whole:
            self.bad_pages.append(f"{name}: {answer}")

    def read_settings(self):
        text = SETTINGS.read_bytes() if SETTINGS.exists() else b"none"
        shipped = SHIPPED_SETTINGS.read_bytes().replace(b"Timeout=300", b"Timeout=VALUE")
        if VALUE.sub(b"VALUE", text) != shipped or not values_of(text) <= self.sent:
            self.bad_settings.append(text)

    def rename_log(self):
        with contextlib.suppress(FileNotFoundError):
            LOG.rename(LOGS / f"cgi.log.{self.renamed:06}")
            self.renamed += 1

    def accounts_of_all(self):
        """Those that all requests should have left, and those of the log, all files of it together."""
        expected = sum((self.accounts[name] for _, name, _ in self.plan), collections.Counter())
        files = [*sorted(LOGS.glob("cgi.log.*")), LOG]
        logged = accounts("".join(file.read_text() for file in files if file.exists()))
        # One that hangs may be ended before it has logged all.
        hang = next(iter(self.accounts["hang"]))
        for account in set(logged) - set(expected):
            if account == hang[:len(account)]:
                logged[hang] += logged.pop(account)
        return expected, logged


@pytest.fixture(scope="module")
def soak():
    LOGS.mkdir()
    edit = r"(?s)setenv\.set-environment = \(.*?\n\)\n", with_hanging
    with running_device(edit) as (server, service):
        run = Soak(server, service, 5000 if device.IS_LONG else 300)
        run.run()
        yield run


def test_every_page_is_whole(soak):
    assert soak.bad_pages[:5] == []


def test_the_kinds_are_what_they_are_meant_to_be(soak):
    page = soak.answers["store by GET"][1]
    assert soak.answers["store by POST"] == soak.answers["slow client"] == (200, page)
    for name in ("store by GET", "device information"):
        assert b"VALUE" in soak.answers[name][1]
    for name, most in (("hang", b"<h2>"), ("abort", b"<p>Set")):
        status, cut = soak.answers[name]
        assert (status, cut) == (200, page[:len(cut)])
        assert len(cut) <= page.index(most)
    assert soak.answers["refused"][0] == 403
    unheard = {name for name in KINDS if not soak.accounts[name]}
    assert unheard == {"gone within the request", "home page", "refused"}
    assert all(len(soak.accounts[name]) == 1 for name in KINDS if name not in unheard)


def test_no_log_line_is_lost_or_torn(soak):
    expected, logged = soak.accounts_of_all()
    assert (logged - expected).most_common(5) == [], "logged, not expected"
    assert (expected - logged).most_common(5) == [], "expected, not logged"
    assert soak.renamed > 3


def test_nobody_reads_a_torn_settings_file(soak):
    assert soak.bad_settings[:5] == []


@pytest.mark.parametrize("name", LOST)
def test_the_servers_do_not_grow(soak, name):
    memory = soak.memory[name]
    middle = len(memory) // 2
    growth = max(memory[middle:]) - max(memory[:middle])
    assert growth <= 1024 * MOST_GROWTH + LOST[name] * len(soak.plan) / 2
    assert device.eventually(lambda: soak.processes[name].num_fds() <= soak.files[name]), "open files"


def test_nothing_is_left_behind(soak):
    assert set(os.listdir("/tmp")) - LEFT_IN_TMP == set()
    assert os.listdir(SETTINGS.parent) == [SETTINGS.name]
    assert soak.is_quiet, device.programs((".cgi", "/cgi-gate"))
