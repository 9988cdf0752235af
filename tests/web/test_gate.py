"""The gate alone: what it does for web servers that leave more to it than lighttpd does, and for programs that do not
end well."""

import os
import pathlib
import resource
import signal
import subprocess
import time

import psutil
import pytest

import program
from device import LIMIT, eventually

ADDRESS = "192.168.7.2"


class Gate:
    """The gate in front of programs that are scripts. A folder is their own."""

    def __init__(self, folder):
        self.folder = folder
        self.slots = folder / "slots"
        self.started = []

    def start(self, script, prepare=None, **variables):
        """`prepare` is called in the process that becomes the gate."""
        file = self.folder / f"program{len(self.started)}"
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(0o755)
        environment = {"CGI_GATE_SLOT_FILE": self.slots, "CGI_GATE_SLOTS": 4, "CGI_GATE_QUEUE_TIMEOUT": 20,
                       "CGI_GATE_RUN_TIMEOUT": 20, **variables}
        self.started.append(subprocess.Popen(
            ["/srv/vemo/bin/cgi-gate", file], env={name: str(value) for name, value in environment.items()},
            cwd=self.folder, preexec_fn=prepare, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE))
        return self.started[-1]

    def run(self, script, prepare=None, **variables):
        """Exit status, or the signal as a negative number, output and error."""
        process = self.start(script, prepare, **variables)
        output, error = process.communicate(timeout=3 * LIMIT)
        return process.returncode, output.decode(), error.decode()

    # --- Programs that write down their name when they begin, and stay until they are let go

    def stay(self, name, slots=1, **variables):
        return self.start(f"echo {name} >>began; while [ ! -e go.{name} ]; do /bin/sleep 0.02; done",
                          CGI_GATE_SLOTS=slots, **variables)

    def run_in_a_slot(self, name, **how):
        process = self.stay(name, **how)
        assert eventually(lambda: self.began()[-1:] == [name]), name
        return process

    def wait(self, name, **how):
        """In the queue as soon as it is asleep."""
        process = self.stay(name, **how)
        assert eventually(lambda: is_asleep(process)), name
        return process

    def let_go(self, name):
        (self.folder / f"go.{name}").touch()

    def began(self):
        return [word for file in self.folder.glob("began") for word in file.read_text().split()]

    def expect_began(self, *names):
        assert eventually(lambda: len(self.began()) >= len(names))
        assert self.began() == list(names)


def is_asleep(process):
    return "(cgi-gate) S" in pathlib.Path(f"/proc/{process.pid}/stat").read_text()


@pytest.fixture
def gate(tmp_path):
    gate = Gate(tmp_path)
    yield gate
    for process in gate.started:
        program.end(process)


# --- The body, which the gate reads first

BODY = {"CGI_GATE_MAX_BODY": 65536}


@pytest.mark.parametrize("sizes", [[65536], [1, 65535], [*range(1, 361), 556]], ids=len)
def test_hands_a_body_on_however_it_comes_up_to_the_limit(gate, sizes):
    pieces = [bytes([ord("a") + size % 26]) * size for size in sizes]
    process = gate.start("cat", **BODY, CONTENT_LENGTH=65536)
    for piece in pieces:
        os.write(process.stdin.fileno(), piece)
        time.sleep(0.001)  # else they come together
    assert process.communicate(timeout=LIMIT)[0] == b"".join(pieces)


def test_a_body_leaves_the_program_no_more_descriptors(gate):
    descriptors = "ls /proc/$$/fd"
    assert gate.run(descriptors, **BODY, CONTENT_LENGTH="0")[1] == gate.run(descriptors)[1]


def test_a_body_may_be_empty(gate):
    for length, prepare in (("0", None), ("", None), ("0", lambda: os.close(0))):
        assert gate.run("wc -c", prepare, **BODY, CONTENT_LENGTH=length)[1] == "0\n"


@pytest.mark.parametrize("length, status", [("-1", 400), ("x", 400), ("5x", 400), ("1e1", 400), ("65537", 413)])
def test_refuses_a_body_for_its_length(gate, length, status):
    page = gate.run("wc -c", **BODY, CONTENT_LENGTH=length)[1]
    assert page.startswith(f"Status: {status} ")
    assert "Retry-After" not in page


# --- The end of a program that is forked

FORK = {"CGI_GATE_FORK": 1}


def ignore_alarms():
    """The run timeout's signal, which the program does not inherit like that."""
    signal.signal(signal.SIGALRM, signal.SIG_IGN)
    signal.pthread_sigmask(signal.SIG_BLOCK, [signal.SIGALRM])


@pytest.mark.parametrize("end, prepare, status", [
    ("exit 3", lambda: signal.signal(signal.SIGCHLD, signal.SIG_IGN), 3),
    ("kill -KILL $$", None, -signal.SIGKILL), ("kill -ALRM $$", ignore_alarms, -signal.SIGALRM),
], ids=["status, though nobody waits for it", "killed", "a signal inherited ignored and blocked"])
def test_ends_as_the_program_does(gate, end, prepare, status):
    assert gate.run(end, prepare, **FORK)[0] == status


def test_ends_by_the_programs_signal_and_dumps_no_memory_of_its_own(gate):
    most = resource.getrlimit(resource.RLIMIT_CORE)[1]
    assert most != 0, "nobody could dump anything"
    process = gate.start("ulimit -c 0; kill -SEGV $$", lambda: resource.setrlimit(resource.RLIMIT_CORE, (most, most)),
                         **FORK)
    end = os.waitid(os.P_PID, process.pid, os.WEXITED | os.WNOWAIT)
    assert (end.si_code, end.si_status) == (os.CLD_KILLED, signal.SIGSEGV)


def test_reports_a_program_that_cannot_start(gate):
    file = gate.folder / "program0"
    status, page, error = gate.run("echo", file.unlink)
    assert page.startswith("Status: 500 ")
    assert f"{file}: No such file" in error
    assert status != 0


# --- The standard descriptors

@pytest.mark.parametrize("closed", [(0,), (1,), (2,), (0, 2), (0, 1, 2)], ids=str)
def test_a_closed_descriptor_does_not_become_the_slot_file(gate, closed):
    status, output, error = gate.run("(cd /proc/$$/fd && readlink 0 1 2) >seen; echo page; echo words >&2",
                                     lambda: [os.close(descriptor) for descriptor in closed])
    assert status == 0
    assert output == ("" if 1 in closed else "page\n")
    assert error == ("" if 2 in closed else "words\n")
    assert gate.slots.read_text() == ""
    seen = [file.partition(":")[0] for file in (gate.folder / "seen").read_text().splitlines()]
    assert seen == ["/dev/null" if descriptor in closed else "pipe" for descriptor in range(3)]


# --- The queue

def watched(process):
    """The processes whose end it waits for."""
    texts = [file.read_text() for file in pathlib.Path(f"/proc/{process.pid}/fdinfo").iterdir()]
    return {int(line.split()[1]) for text in texts for line in text.splitlines() if line.startswith("Pid:")}


def sleeps(process, most=5):
    """It sleeps by itself, and so is woken, at most so often in half a second."""
    before = psutil.Process(process.pid).num_ctx_switches().voluntary
    time.sleep(0.5)
    return psutil.Process(process.pid).num_ctx_switches().voluntary - before <= most


@pytest.fixture
def queue(gate):
    if os.environ.get("VEMO_SANDBOX") == "proot":
        pytest.skip("Where namespaces are refused, a process seems to sleep whenever it is stopped")
    return gate


def test_the_queue_keeps_its_order(queue):
    queue.run_in_a_slot("first")
    names = [str(number) for number in range(40)]
    for name in names:
        queue.let_go(name)
        queue.wait(name)
    queue.let_go("first")
    queue.expect_began("first", *names)


def test_the_queue_goes_on_whichever_program_is_killed(queue):
    running = [queue.run_in_a_slot(name, slots=3) for name in "abc"]
    head = queue.wait("head", slots=3)
    assert watched(head) == {process.pid for process in running}
    program.end(running[1])
    queue.expect_began("a", "b", "c", "head")


def test_the_queue_closes_up_when_its_head_and_others_in_it_are_killed(queue):
    queue.run_in_a_slot("first")
    head, second, third, last = [queue.wait(name) for name in ("head", "second", "third", "last")]
    program.end(head)
    program.end(third)
    assert sleeps(second) and sleeps(last)
    queue.let_go("first")
    queue.expect_began("first", "second")
    # It runs on: nobody else gets its slot.
    assert sleeps(last)
    queue.expect_began("first", "second")
    queue.let_go("second")
    queue.expect_began("first", "second", "last")


def test_the_queue_takes_the_slot_of_a_program_that_closes_what_it_did_not_open(queue):
    """Another maker's program may. It goes on, as its end would wake the queue."""
    queue.start("echo closing >>began; while [ ! -e go.closing ]; do /bin/sleep 0.02; done\n"
                "for file in /proc/$$/fd/*; do\n"
                '  [ $(readlink $file) != $PWD/slots ] || eval "exec ${file##*/}>&-"\n'
                "done\nexec /bin/sleep 100", CGI_GATE_SLOTS=1, CGI_GATE_RUN_TIMEOUT=100)
    queue.expect_began("closing")
    queue.wait("head", CGI_GATE_QUEUE_TIMEOUT=100)  # its end would wake it
    queue.let_go("closing")
    queue.expect_began("closing", "head")


def test_the_queue_looks_now_and_then_where_the_kernel_watches_no_program(queue):
    queue.run_in_a_slot("first")
    head = queue.wait("blind")
    descriptors = head.pid, resource.RLIMIT_NOFILE
    soft, hard = resource.prlimit(*descriptors)
    resource.prlimit(*descriptors, (4, hard))  # used up
    assert eventually(lambda: not watched(head) and is_asleep(head))
    assert sleeps(head, most=60)
    resource.prlimit(*descriptors, (soft, hard))  # the program needs some
    queue.let_go("first")
    queue.expect_began("first", "blind")


# --- The requests of one client

@pytest.mark.parametrize("address, other, most, is_let_in", [
    *((address, other, 1, False) for address, other in (
        (ADDRESS, ADDRESS), (ADDRESS, f"::ffff:{ADDRESS}"), ("255.255.255.255", "255.255.255.255"),
        ("fd00::7:2", "fd00:0::7:2"), ("fe80::1%eth0", "fe80::1"))),
    *((address, other, 1, True) for address, other in (
        (ADDRESS, "192.168.7.3"), (ADDRESS, "192.168.8.2"), ("255.255.255.255", "0.0.0.0"),
        ("fd00::7:2", "fd00::7:3"), ("fe80::1", "fe80::2"), ("fd00:1::1", "fd00:2::1"), (ADDRESS, "fd00::7:2"))),
    (ADDRESS, "192.168.7.3", 2, True), (ADDRESS, ADDRESS, 0, True),
    # Requests of this machine are not counted.
    *((address, address, 1, True) for address in ("127.0.0.1", "127.1.2.3", "::1", "::ffff:127.0.0.1", "", "unix:")),
])
def test_counts_the_requests_of_each_client(gate, address, other, most, is_let_in):
    first = {"slots": 4, "CGI_GATE_CLIENT_SLOTS": most, "REMOTE_ADDR": address}
    running = [gate.run_in_a_slot(str(number), **first) for number in range(most)]
    status, page, _ = gate.run("echo in", CGI_GATE_CLIENT_SLOTS=min(most, 1), REMOTE_ADDR=other)
    if is_let_in:
        assert (status, page) == (0, "in\n")
    else:
        assert status == 1
        assert page.startswith("Status: 503 ") and "Retry-After" in page
    for process in running:
        program.end(process)
    assert gate.run("echo in", CGI_GATE_CLIENT_SLOTS=1, REMOTE_ADDR=other)[1] == "in\n"
