"""The service's sockets, from one start to the next; the test takes systemd's part.

    python3 -B -m pytest tests/packaging/keep_listening.py --build BUILD
"""

import contextlib
import fcntl
import os
import signal
import socket
import subprocess

import pytest

LIGHTTPD = "/usr/sbin/lighttpd"
LOCAL = "127.0.0.1"
FIRST = 3  # of the descriptors that systemd hands on
SECONDS = 30
# Prints which sockets it has.
PAGE = """#!/bin/sh
printf 'Content-Type: text/plain\\r\\n\\r\\n'
ls -l /proc/self/fd | grep -c socket: || true
echo last
"""
CONFIGURATION = """
server.document-root = "{folder}"
server.modules += ( "mod_cgi" )
cgi.assign = ( ".cgi" => "" )
server.systemd-socket-activation = "enable"
{lines}
"""


def free_port():
    with socket.socket() as one:
        one.bind((LOCAL, 0))
        return one.getsockname()[1]


def connect(port, host=LOCAL):
    return socket.create_connection((host, port), SECONDS)


def expect_answer(client):
    with client, client.makefile("rwb") as file:
        file.write(b"GET /page.cgi HTTP/1.0\r\n\r\n")
        file.flush()
        page = file.read().decode()
    assert " 200 OK" in page and page.endswith("\n0\nlast\n"), page


def expect_refused(port):
    with pytest.raises(ConnectionRefusedError):
        connect(port)


class Service:
    """What systemd keeps of it: `kept`."""

    def __init__(self, build, folder, stack):
        self.program, self.folder, self.port, self.kept = build / "web/keep-listening", folder, free_port(), []
        (folder / "page.cgi").write_text(PAGE, encoding="utf-8")
        (folder / "page.cgi").chmod(0o755)
        self.systemd = stack.enter_context(socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM))
        self.systemd.bind(str(folder / "notify"))
        self.systemd.setblocking(False)
        stack.callback(lambda: [one.close() for one in self.kept])
        self.configure(self.port)

    def configure(self, port, *lines, host=LOCAL):
        lines = "\n".join((f'server.bind = "{host}"', f"server.port = {port}", *lines))
        (self.folder / "lighttpd.conf").write_text(CONFIGURATION.format(folder=self.folder, lines=lines))

    @contextlib.contextmanager
    def running(self, **more):
        """The server, given what is kept; ended as the service ends it."""
        high = [fcntl.fcntl(one, fcntl.F_DUPFD, 100) for one in self.kept]
        moves = " ".join(f"{FIRST + number}<&{one} {one}<&-" for number, one in enumerate(high))
        environment = {"PATH": "/usr/bin:/bin", "NOTIFY_SOCKET": str(self.folder / "notify"),
                       "LISTEN_FDS": str(len(high)), **more}
        server = subprocess.Popen(
            ["/bin/bash", "-c", f'export LISTEN_PID=$$; exec "$@" {moves}', "bash", self.program, LIGHTTPD,
             self.folder / "lighttpd.conf"], env={name: value for name, value in environment.items() if value},
            pass_fds=high, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        for one in high:
            os.close(one)
        try:
            assert any(b"server started" in line for line in server.stdout), f"it ended with {server.wait()}"
            with contextlib.suppress(BlockingIOError):
                while True:
                    text, files, _, _ = socket.recv_fds(self.systemd, 100, 1)
                    assert text == b"FDSTORE=1"
                    self.kept.append(socket.socket(fileno=files[0]))
            yield server
        finally:
            server.send_signal(signal.SIGINT)
            server.communicate(timeout=SECONDS)

    def run_once(self):
        with self.running():
            expect_answer(connect(self.port))

    def addresses(self):
        return [one.getsockname()[:2] for one in self.kept]


@pytest.fixture
def service(build, tmp_path):
    with contextlib.ExitStack() as stack:
        yield Service(build, tmp_path, stack)


def test_a_client_between_two_starts_is_served_by_the_second(service):
    service.run_once()
    for _ in range(2):
        waiting = connect(service.port)
        with service.running():
            expect_answer(waiting)
    assert service.addresses() == [(LOCAL, service.port)]


def test_an_address_that_is_not_named_any_more_refuses(service):
    service.run_once()
    other = free_port()
    service.configure(other)
    with service.running():
        expect_refused(service.port)
        expect_answer(connect(other))
    assert [one.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN) for one in service.kept] == [0, 1]
    # systemd may not have forgotten it yet.
    with service.running():
        expect_answer(connect(other))


def test_another_address_of_the_same_port_is_opened(service):
    service.run_once()
    service.configure(service.port, host="0.0.0.0")
    service.run_once()
    assert service.addresses()[-1] == ("0.0.0.0", service.port)


def test_the_addresses_of_conditions_are_kept_too(service):
    host, other = "::1" if os.path.exists("/proc/net/if_inet6") else LOCAL, free_port()
    text = f"[{host}]" if ":" in host else host
    service.configure(service.port, f'$SERVER["socket"] == "{text}:{other}" {{ }}')
    for _ in range(2):
        with service.running():
            expect_answer(connect(service.port))
            expect_answer(connect(other, host))
    assert sorted(service.addresses()) == sorted([(LOCAL, service.port), (host, other)])


def test_an_address_that_is_not_numeric_the_server_opens_itself(service):
    path = str(service.folder / "socket")
    service.configure(80, host=path)
    with service.running():
        client = socket.socket(socket.AF_UNIX)
        client.connect(path)
        expect_answer(client)
    assert service.kept == []


@pytest.mark.parametrize("environment", [{"NOTIFY_SOCKET": "/missing"}, {"NOTIFY_SOCKET": "", "LISTEN_FDS": ""}],
                         ids=["where systemd does not listen", "without systemd"])
def test_the_server_opens_all_itself(service, environment):
    with service.running(**environment):
        expect_answer(connect(service.port))
    expect_refused(service.port)
    assert service.kept == []


def test_a_wrong_configuration_refuses(service):
    service.run_once()
    service.configure(service.port, "nonsense =")
    with pytest.raises(AssertionError), service.running():
        pass
    expect_refused(service.port)
