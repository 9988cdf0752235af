"""How many requests at once, and for how long: clients that are slow, silent or many, programs that hang."""

import contextlib
import os
import signal
import socket
import subprocess
import time
from concurrent.futures import ThreadPoolExecutor

import psutil
import pytest

import client
import device
from client import post, request
from device import FIELD, SECOND, SET_OPTION, eventually
from server import NO_CLIENT_LIMIT, SHORT_TIMES, TEXT, Server, gate, refusal_page, until
from table import row

WHILE = 4  # seconds in which what is to happen does, shorter than the servers' own times
OF_ONE_CLIENT = 16  # connections, and requests to programs
waits = pytest.mark.waits
SLOW_HEADERS = b"GET / HTTP/1.1\r\nX: "
SLOW_POST = post(SET_OPTION, FIELD + "500").replace(b"Length: 20", b"Length: 99")


def begin_request(server, stack, sent=SLOW_HEADERS, source="", timeout=device.LIMIT):
    """A client that does not end its request before the stack does."""
    connection = stack.enter_context(contextlib.closing(server.connect(timeout, source)))
    connection.sendall(sent)
    time.sleep(0.003)  # else a short queue of the kernel's costs a second each
    return connection


def is_closed(connection):
    """By the server."""
    connection.setblocking(False)
    try:
        connection.recv(1000)
    except OSError as error:
        return not isinstance(error, BlockingIOError)
    return True


def has_tasks_left(server):
    """For four Java VMs, of a dozen and a half threads each."""
    tasks = 0
    for process in server.processes():
        with contextlib.suppress(psutil.NoSuchProcess):  # it has ended since
            tasks += process.num_threads()
    return tasks + 4 * 20 <= int(server.setting("TasksMax"))


# --- Clients

@waits
@pytest.mark.parametrize("count, sent, page", [
    pytest.param(60, SLOW_HEADERS, "/index.html", marks=row("serves others beside 60 slow clients")),
    pytest.param(130, SLOW_POST, "/reboot.cgi", marks=row("serves programs beside 130 slow posts")),
], ids=["headers", "posts"])
def test_serves_others_beside_slow_clients(count, sent, page):
    """While these are there, not once they are dropped; and four Java VMs could be started."""
    with Server(NO_CLIENT_LIMIT) as server, contextlib.ExitStack() as stack:
        slow = [begin_request(server, stack, sent) for _ in range(count)]
        assert server.get(page).status == 200
        assert not any(map(is_closed, slow))
        assert has_tasks_left(server)


@waits
@row("limits the number of connections")
def test_limits_the_number_of_connections():
    """Of more clients some are closed, or the last is not served while the others last."""
    fewer = (r"(worker_connections|max-connections =) \d+", r"\1 288")
    with Server(fewer) as server:
        with contextlib.ExitStack() as stack:
            slow, answer = [], b""
            with contextlib.suppress(ConnectionError, TimeoutError):
                for _ in range(300):
                    slow.append(begin_request(server, stack))
                answer = begin_request(server, stack, request("/index.html"), timeout=WHILE).recv(100)
            is_limited = b" 200 " not in answer or any(map(is_closed, slow))
        assert eventually(lambda: server.get("/index.html").status == 200)
    assert is_limited


@waits
@pytest.mark.parametrize("more", [
    pytest.param(b"", marks=row("drops a client that says nothing for seconds"), id="silent"),
    # A byte now and then is not enough.
    pytest.param(b"x", marks=row("drops a client whose headers take seconds"), id="slow headers"),
])
def test_drops_a_slow_client(more):
    with Server(*SHORT_TIMES) as server, contextlib.closing(server.connect()) as connection:
        connection.sendall(SLOW_HEADERS)

        def is_dropped():
            time.sleep(0.02)  # fewer bytes than a header may have
            with contextlib.suppress(OSError):
                connection.sendall(more)
            return is_closed(connection)

        assert eventually(is_dropped, 2 * WHILE)


@row("serves one request a connection")
def test_serves_one_request_a_connection(server):
    sent = request("/index.html").replace(b"Connection: close\r\n", b"")
    received = b""
    with contextlib.closing(server.connect(WHILE)) as connection, contextlib.suppress(OSError):
        connection.sendall(2 * sent)
        while more := connection.recv(65536):
            received += more
    assert received.count(b"HTTP/1.1 200") + received.count(b"HTTP/1.0 200") == 1


@row("speaks no HTTP/2 in clear text")
def test_speaks_no_http2(server):
    """Its streams would be many requests on one connection."""
    no_settings = b"\0\0\0\4\0\0\0\0\0"  # a frame
    with contextlib.closing(server.connect()) as connection:
        connection.sendall(b"PRI * HTTP/2.0\r\n\r\nSM\r\n\r\n" + no_settings)
        answer = b""
        with contextlib.suppress(ConnectionError):
            answer = connection.recv(100)
    assert answer[3:4] != b"\4"
    assert server.get("/index.html", "Upgrade: h2c", "HTTP2-Settings: AAMAAABkAAQAAP__").status != 101


# --- One client beside another

@pytest.mark.network
@row("serves another address beside 400 slow clients")
def test_serves_another_address_beside_slow_clients(server):
    """More than any server takes. Some are there all the while: it is not that the others wait for their end."""
    with contextlib.ExitStack() as stack:
        slow = []
        with contextlib.suppress(TimeoutError):
            for number in range(400):
                with contextlib.suppress(ConnectionError):
                    slow.append(begin_request(server, stack, (SLOW_HEADERS, SLOW_POST)[number % 2], SECOND, WHILE))
        there = [connection for connection in slow if not is_closed(connection)]
        assert len(there) > OF_ONE_CLIENT / 2
        assert {server.get(page).status for page in ("/index.html", SET_OPTION)} == {200}
        assert not any(map(is_closed, there))


@pytest.mark.network
@row("serves another address beside requests given up")
def test_serves_another_address_beside_requests_given_up():
    """Before another client's program begin only as many of this one's as it may have at a time. At a port where the
    kernel limits nothing."""
    with Server(port=8082) as server:
        begun, go = server.root / "begun", server.root / "go"
        script = f'echo "$REMOTE_ADDR" >>{begun}; {until(go)} {TEXT}'
        with server.own_program(script) as page, ThreadPoolExecutor(1) as clients:
            with contextlib.ExitStack() as stack:
                for _ in range(6 * OF_ONE_CLIENT):
                    begin_request(server, stack, request(page), SECOND)
                time.sleep(device.MOMENT)
            other = clients.submit(server.get, page)
            time.sleep(device.MOMENT)
            go.touch()
            assert other.result().status == 200
        assert begun.read_text().splitlines().index(device.ADDRESS) <= OF_ONE_CLIENT


# --- Programs

def expect_to_come_again(answer):
    assert (answer.status, answer.body) == (503, refusal_page(503))
    assert answer.headers["retry-after"] == "10"
    assert "content-security-policy" in answer.headers


@waits
@row("runs four programs at a time")
def test_runs_four_at_a_time_and_has_who_gets_no_slot_come_again():
    """Who waits keeps nobody from the pages that need none. A slot is free however its program ends."""
    with Server(gate("QUEUE_TIMEOUT", 8)) as server:
        running = server.root / "running"
        running.mkdir()
        with server.held_requests(10, f": >{running}/$$;") as (answers, _):
            assert eventually(lambda: len(list(running.iterdir())) >= 4)
            time.sleep(device.MOMENT)
            first = list(running.iterdir())
            assert len(first) == 4
            assert server.get("/index.html").status == 200
            os.kill(int(first[0].name), signal.SIGKILL)
            assert eventually(lambda: len(list(running.iterdir())) == 5)
            assert eventually(lambda: [answer.done() for answer in answers].count(True) == 6)
        answers = sorted((answer.result() for answer in answers), key=lambda answer: answer.status)
    assert [answer.status for answer in answers if answer.status == 200] == 4 * [200]
    for answer in answers[-5:]:
        expect_to_come_again(answer)


HANGING = {
    "asleep": "exec /bin/sleep 1000",
    "busy, and not to be terminated": "trap '' TERM HUP INT; while :; do :; done",
    "speaking": f"{TEXT} while :; do echo more; /bin/sleep 0.1; done",
    "its output closed": f"{TEXT} exec >&- 2>&-; exec /bin/sleep 1000",
}


@waits
@row("ends a program that hangs")
@pytest.mark.parametrize("kind", HANGING)
def test_ends_a_program_that_hangs(kind, capfd):
    """More than may run at once: the limit has to hold while others wait. lighttpd logs it, but not of each, when it
    sees the answer's end before the program's."""
    with Server(*SHORT_TIMES) as server:
        with server.own_program(HANGING[kind]) as page, ThreadPoolExecutor(6) as clients:
            answers = list(clients.map(lambda _: server.get(page), range(6)))
            name = str(server.programs / page[1:])
            assert eventually(lambda: not any(name in (process.info["cmdline"] or ())
                                              for process in psutil.process_iter(["cmdline"])))
            if device.NAME == "lighttpd" and kind == "asleep":
                # Which of the ends it logs is chance, of six often one: more are tried.
                is_logged = "died with signal 14\n"
                assert eventually(lambda: is_logged in capfd.readouterr().err or not server.get(page))
        assert {answer.status for answer in answers} <= {0, 200, 500, 502, 504}


@row("ends a program that hangs")
@pytest.mark.parametrize("hanging, page", [
    # Where the Java side opens it, and waits for a reader.
    (device.pipe_for_the_log, SET_OPTION),
    (lambda: socket.create_server(("127.0.0.1", 5302)), "/channeldeviceconfig.cgi"),
], ids=["for the log", "for the nVm service"])
def test_ends_our_programs_when_they_hang(server, hanging, page):
    with Server(*SHORT_TIMES, java=None) as limited, hanging():
        answer = limited.get(page)
        assert eventually(lambda: not device.programs())
    assert answer.status in (0, 200, 500, 502, 504)
    assert b"</html>" not in answer.body or answer.status != 200
    assert server.get("/").status == 200


@waits
@row("lets a program finish when its client goes")
@pytest.mark.parametrize("first", ["", "echo line;"], ids=["before the page", "within the page"])
def test_lets_a_program_finish_when_its_client_goes(first):
    """Apache kills, some seconds later."""
    with Server() as server:
        began, finished = server.root / "began", server.root / "finished"
        script = f"{TEXT} {first} : >{began}; /bin/sleep 0.2\n" + 20 * "echo line; /bin/sleep 0.2\n" + f": >{finished}"
        with server.own_program(script) as page:
            connection = server.connect()
            connection.sendall(request(page))
            if first:
                connection.recv(1)
            assert eventually(began.exists)
            client.reset(connection)
            assert server.get("/index.html").status == 200
            assert eventually(finished.exists)


@waits
@row("waits for the requests under way when it is stopped")
def test_waits_for_the_requests_under_way_when_it_is_stopped():
    """As systemd stops it: a signal for the main process; with that, whatever is left ends."""
    with Server() as server:
        began = server.root / "began"
        with server.held_requests(1, f": >{began};") as ([answer], go):
            eventually(began.exists)
            os.kill(server.process.pid, getattr(signal, server.setting("KillSignal")))
            with contextlib.suppress(subprocess.TimeoutExpired):
                server.process.wait(device.MOMENT)
                os.killpg(server.process.pid, signal.SIGKILL)
            go.touch()
            assert (answer.result().status, answer.result().body) == (200, b"last\n")


# --- Two servers in one service

@waits
@pytest.mark.nginx
def test_ends_with_the_other_for_systemd_to_start_it_again():
    with Server() as server:
        # The first is the others' parent.
        next(process for process in server.processes() if process.name() == "fcgiwrap").kill()
        assert server.process.wait(device.LIMIT) == -signal.SIGKILL


@waits
@pytest.mark.nginx
@pytest.mark.loopback  # else it would need a crowd of addresses
def test_answers_a_crowd_or_has_it_come_again():
    with Server() as server, server.held_requests(200) as (answers, go):
        eventually(lambda: all(answer.done() for answer in answers), WHILE)
        assert has_tasks_left(server)
        go.touch()
        answers = [answer.result() for answer in answers]
    served = [answer for answer in answers if answer.status == 200]
    assert 100 <= len(served) < 200
    assert not any("retry-after" in answer.headers for answer in served)
    for answer in answers:
        if answer not in served:
            expect_to_come_again(answer)
