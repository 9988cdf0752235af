"""The service's sockets, from one start to the next; the test takes systemd's part.

    python3 -B tests/packaging/keep_listening.py BUILD
"""

import contextlib
import fcntl
import os
import pathlib
import shutil
import signal
import socket
import subprocess
import sys
import tempfile
import time
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
PROGRAM = BUILD / "web/keep-listening"
LIGHTTPD = "/usr/sbin/lighttpd"
FIRST = 3  # of the descriptors that systemd hands on
SECONDS = 30
# Tells which sockets it has.
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
        one.bind(("127.0.0.1", 0))
        return one.getsockname()[1]


def is_listening(one):
    return one.getsockopt(socket.SOL_SOCKET, socket.SO_ACCEPTCONN) == 1


class KeepListening(unittest.TestCase):
    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemo-web."))
        self.addCleanup(shutil.rmtree, self.folder)
        self.configuration = self.folder / "lighttpd.conf"
        page = self.folder / "page.cgi"
        page.write_text(PAGE, encoding="utf-8")
        page.chmod(0o755)
        self.systemd = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.systemd.close)
        self.systemd.bind(str(self.folder / "notify"))
        self.systemd.setblocking(False)
        self.kept = []
        self.addCleanup(lambda: [one.close() for one in self.kept])
        self.port, self.other = free_port(), free_port()

    def configure(self, *lines):
        self.configuration.write_text("\n".join((CONFIGURATION.format(folder=self.folder), *lines, "")),
                                      encoding="utf-8")

    def configure_port(self, port):
        self.configure('server.bind = "127.0.0.1"', f"server.port = {port}")

    @contextlib.contextmanager
    def running(self, **more):
        """The server, given what is kept; ended as the service ends it."""
        high = [fcntl.fcntl(one, fcntl.F_DUPFD, 100) for one in self.kept]
        moves = " ".join(f"{FIRST + number}<&{one} {one}<&-" for number, one in enumerate(high))
        command = ["/bin/bash", "-c", f'export LISTEN_PID=$$; exec "$@" {moves}', "bash",
                   PROGRAM, LIGHTTPD, self.configuration]
        environment = {"PATH": "/usr/bin:/bin", "NOTIFY_SOCKET": str(self.folder / "notify"),
                       "LISTEN_FDS": str(len(high)), **more}
        server = subprocess.Popen(command, env=environment, pass_fds=high, stdin=subprocess.DEVNULL,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        for one in high:
            os.close(one)
        try:
            self.expect_started(server)
            yield server
        finally:
            server.send_signal(signal.SIGINT)
            server.communicate(timeout=SECONDS)

    def expect_started(self, server):
        for line in server.stdout:
            if b"server started" in line:
                break
        else:
            self.fail(f"it ended with {server.wait()}")
        with contextlib.suppress(BlockingIOError):
            while True:
                text, files, _, _ = socket.recv_fds(self.systemd, 100, 1)
                self.assertEqual(text, b"FDSTORE=1")
                self.kept.append(socket.socket(fileno=files[0]))

    def connect(self, port, host="127.0.0.1"):
        return socket.create_connection((host, port), SECONDS)

    def ask(self, client):
        with client, client.makefile("rwb") as file:
            file.write(b"GET /page.cgi HTTP/1.0\r\n\r\n")
            file.flush()
            return file.read().decode()

    def expect_answer(self, port, host="127.0.0.1"):
        self.assertRegex(self.ask(self.connect(port, host)), r"(?s) 200 OK.*\n0\nlast\n$")

    def expect_refused(self, port):
        with self.assertRaises(ConnectionRefusedError):
            self.connect(port)

    def test_who_comes_between_two_starts_is_served_by_the_second(self):
        self.configure_port(self.port)
        with self.running():
            self.expect_answer(self.port)
        self.assertEqual(len(self.kept), 1)
        for _ in range(2):
            waiting = self.connect(self.port)
            with self.running():
                self.assertIn("last\n", self.ask(waiting))
        self.assertEqual(len(self.kept), 1)

    def test_what_is_connected_when_it_is_stopped_is_served_by_the_first(self):
        self.configure_port(self.port)
        with self.running() as server:
            client = self.connect(self.port)
            # Now it is accepted.
            self.expect_answer(self.port)
            server.send_signal(signal.SIGINT)
            time.sleep(0.2)
            self.assertIn("last\n", self.ask(client))

    def test_an_address_that_is_not_named_any_more_refuses(self):
        self.configure_port(self.port)
        with self.running():
            pass
        self.configure_port(self.other)
        with self.running():
            self.expect_refused(self.port)
            self.expect_answer(self.other)
        self.assertEqual([is_listening(one) for one in self.kept], [False, True])
        # systemd may not have forgotten it yet.
        with self.running():
            self.expect_answer(self.other)

    def test_another_address_of_the_same_port_is_opened(self):
        self.configure_port(self.port)
        with self.running():
            pass
        self.configure('server.bind = "0.0.0.0"', f"server.port = {self.port}")
        with self.running():
            self.expect_answer(self.port)
        self.assertEqual(self.kept[-1].getsockname(), ("0.0.0.0", self.port))

    def test_the_addresses_of_conditions_are_kept_too(self):
        host = "::1" if os.path.exists("/proc/net/if_inet6") else "127.0.0.1"
        text = f"[{host}]" if ":" in host else host
        self.configure('server.bind = "127.0.0.1"', f"server.port = {self.port}",
                       f'$SERVER["socket"] == "{text}:{self.other}" {{ }}')
        for _ in range(2):
            with self.running():
                self.expect_answer(self.port)
                self.expect_answer(self.other, host)
        self.assertEqual({one.getsockname()[:2] for one in self.kept},
                         {("127.0.0.1", self.port), (host, self.other)})
        self.assertEqual(len(self.kept), 2)

    def test_what_is_not_numeric_the_server_opens_itself(self):
        path = self.folder / "socket"
        self.configure(f'server.bind = "{path}"')
        with self.running():
            client = socket.socket(socket.AF_UNIX)
            client.connect(str(path))
            self.assertIn("last\n", self.ask(client))
        self.assertEqual(self.kept, [])

    def test_without_systemd_the_server_opens_all_itself(self):
        self.configure_port(self.port)
        with self.running(NOTIFY_SOCKET=str(self.folder / "nobody")):
            self.expect_answer(self.port)
        self.assertEqual(self.kept, [])
        environment = dict(os.environ)
        environment.pop("NOTIFY_SOCKET", None)
        server = subprocess.Popen([PROGRAM, LIGHTTPD, self.configuration], env=environment,
                                  stdout=subprocess.PIPE, stderr=subprocess.STDOUT)
        self.expect_started(server)
        self.expect_answer(self.port)
        server.send_signal(signal.SIGINT)
        server.communicate(timeout=SECONDS)
        self.expect_refused(self.port)

    def test_a_wrong_configuration_refuses(self):
        self.configure_port(self.port)
        with self.running():
            pass
        self.configure("nonsense =")
        with self.assertRaises(AssertionError), self.running():
            pass
        self.expect_refused(self.port)


if __name__ == "__main__":
    unittest.main(verbosity=2)
