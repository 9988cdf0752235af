"""The service's sockets, from one start to the next; the test takes systemd's part.

    python3 -B -m pytest tests/packaging/keep_listening.py --build BUILD
"""

import contextlib
import fcntl
import os
import signal
import socket
import subprocess
import time

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
"""


def free_port():
    with socket.socket() as one:
        one.bind((LOCAL, 0))
        return one.getsockname()[1]


def connect(port, host=LOCAL):
    return socket.create_connection((host, port), SECONDS)


def ask(client):
    with client, client.makefile("rwb") as file:
        file.write(b"GET /page.cgi HTTP/1.0\r\n\r\n")
        file.flush()
        return file.read().decode()


def expect_answer(port, host=LOCAL):
    page = ask(connect(port, host))
    assert " 200 OK" in page and page.endswith("\n0\nlast\n"), page


def expect_refused(port):
    with pytest.raises(ConnectionRefusedError):
        connect(port)


class Service:
    """What systemd keeps of it: `kept`."""

    def __init__(self, build, folder):
        self.program, self.folder = build / "web/keep-listening", folder
        self.configuration = folder / "lighttpd.conf"
        (folder / "page.cgi").write_text(PAGE, encoding="utf-8")
        (folder / "page.cgi").chmod(0o755)
        self.systemd = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.systemd.bind(str(folder / "notify"))
        self.systemd.setblocking(False)
        self.kept = []

    def close(self):
        for one in (self.systemd, *self.kept):
            one.close()

    def configure(self, *lines):
        self.configuration.write_text("\n".join((CONFIGURATION.format(folder=self.folder), *lines, "")),
                                      encoding="utf-8")

    def configure_port(self, port):
        self.configure(f'server.bind = "{LOCAL}"', f"server.port = {port}")

    @contextlib.contextmanager
    def running(self, **more):
        """The server, given what is kept; ended as the service ends it."""
        high = [fcntl.fcntl(one, fcntl.F_DUPFD, 100) for one in self.kept]
        moves = " ".join(f"{FIRST + number}<&{one} {one}<&-" for number, one in enumerate(high))
        environment = {"PATH": "/usr/bin:/bin", "NOTIFY_SOCKET": str(self.folder / "notify"),
                       "LISTEN_FDS": str(len(high)), **more}
        server = subprocess.Popen(
            ["/bin/bash", "-c", f'export LISTEN_PID=$$; exec "$@" {moves}', "bash", self.program, LIGHTTPD,
             self.configuration], env=environment, pass_fds=high, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
            stderr=subprocess.STDOUT)
        for one in high:
            os.close(one)
        with self.started(server):
            yield server

    @contextlib.contextmanager
    def started(self, server):
        try:
            assert any(b"server started" in line for line in server.stdout), f"it ended with {server.wait()}"
            with contextlib.suppress(BlockingIOError):
                while True:
                    text, files, _, _ = socket.recv_fds(self.systemd, 100, 1)
                    assert text == b"FDSTORE=1"
                    self.kept.append(socket.socket(fileno=files[0]))
            yield
        finally:
            server.send_signal(signal.SIGINT)
            server.communicate(timeout=SECONDS)

    def addresses(self):
        return [one.getsockname()[:2] for one in self.kept]


@pytest.fixture
def service(build, tmp_path):
    with contextlib.closing(Service(build, tmp_path)) as service:
        yield service


@pytest.fixture
def port(service):
    """At which the service is configured to listen."""
    port = free_port()
    service.configure_port(port)
    return port


def test_a_client_between_two_starts_is_served_by_the_second(service, port):
    with service.running():
        expect_answer(port)
    assert len(service.kept) == 1
    for _ in range(2):
        waiting = connect(port)
        with service.running():
            assert "last\n" in ask(waiting)
    assert len(service.kept) == 1


def test_a_client_that_is_connected_at_the_stop_is_served_by_the_first(service, port):
    with service.running() as server:
        client = connect(port)
        # Now it is accepted.
        expect_answer(port)
        server.send_signal(signal.SIGINT)
        time.sleep(0.2)
        assert "last\n" in ask(client)


def test_an_address_that_is_not_named_any_more_refuses(service, port):
    with service.running():
        pass
    other = free_port()
    service.configure_port(other)
    with service.running():
        expect_refused(port)
        expect_answer(other)
    assert [one.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN) for one in service.kept] == [0, 1]
    # systemd may not have forgotten it yet.
    with service.running():
        expect_answer(other)


def test_another_address_of_the_same_port_is_opened(service, port):
    with service.running():
        pass
    service.configure('server.bind = "0.0.0.0"', f"server.port = {port}")
    with service.running():
        expect_answer(port)
    assert service.addresses()[-1] == ("0.0.0.0", port)


def test_the_addresses_of_conditions_are_kept_too(service, port):
    host, other = "::1" if os.path.exists("/proc/net/if_inet6") else LOCAL, free_port()
    text = f"[{host}]" if ":" in host else host
    service.configure(f'server.bind = "{LOCAL}"', f"server.port = {port}",
                      f'$SERVER["socket"] == "{text}:{other}" {{ }}')
    for _ in range(2):
        with service.running():
            expect_answer(port)
            expect_answer(other, host)
    assert sorted(service.addresses()) == sorted([(LOCAL, port), (host, other)])


def test_an_address_that_is_not_numeric_the_server_opens_itself(service):
    path = str(service.folder / "socket")
    service.configure(f'server.bind = "{path}"')
    with service.running():
        client = socket.socket(socket.AF_UNIX)
        client.connect(path)
        assert "last\n" in ask(client)
    assert service.kept == []


def test_where_systemd_does_not_listen_the_server_opens_all_itself(service, port):
    with service.running(NOTIFY_SOCKET=str(service.folder / "missing")):
        expect_answer(port)
    assert service.kept == []


def test_without_systemd_the_server_opens_all_itself(service, port):
    environment = {name: value for name, value in os.environ.items() if name != "NOTIFY_SOCKET"}
    server = subprocess.Popen([service.program, LIGHTTPD, service.configuration], env=environment,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
    with service.started(server):
        expect_answer(port)
    expect_refused(port)


def test_a_wrong_configuration_refuses(service, port):
    with service.running():
        pass
    service.configure("nonsense =")
    with pytest.raises(AssertionError), service.running():
        pass
    expect_refused(port)
