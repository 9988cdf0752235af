"""The stand-in device's nVm service: in the background, what goes over its connections, and one that plays a reply."""

import contextlib
import http.server
import itertools
import pathlib
import re
import socket
import socketserver
import subprocess
import threading

import logfile
import program

SERVICE = "/srv/vemo/bin/nvm-service"
ADDRESS = "127.0.0.1"
PORT = 5302
LOG = pathlib.Path("/tmp/nvm.log")

ALLOCATE = "nvmAllocateDevice"
RELEASE = "nvmReleaseDevice"
STATUS = "nvmGetDeviceStatus"


# --- The service

@contextlib.contextmanager
def service(address=ADDRESS, **more):
    """In the background, with a new log; it serves when the context begins. `more` as for program.start."""
    LOG.unlink(missing_ok=True)
    with program.start(program.Request([SERVICE, address], {}), **more) as process:
        try:
            assert program.eventually(lambda: is_listening(address) and LOG.exists())
            yield process
        finally:
            process.kill()


def is_listening(address=ADDRESS):
    """Opens no connection: the kernel's table shows a listening socket as "LOCAL:PORT 00000000:0000 0A"."""
    local = bytes(reversed(socket.inet_aton(address))).hex().upper()
    return f": {local}:{PORT:04X} 00000000:0000 0A " in program.read("/proc/net/tcp")


def statements():
    """What the service logged, as in "INFO nvmGetDeviceStatus: 0 ; owner now: nobody"."""
    logged = [logfile.parse(line) for line in program.read(LOG).splitlines()]
    assert {(statement.handler, statement.source) for statement in logged} <= {("nvm", "standin/nvm/Service")}
    return [f"{statement.level} {statement.message}" for statement in logged]


# --- Packets

def packet(variables=""):
    return f"<wddxPacket version='1.0'><header/><data><struct>{variables}</struct></data></wddxPacket>"


def owner_packet(owner, client_address="0"):
    return packet(f"<var name='DeviceOwner'><string>{owner}</string></var>\n"
                  f"<var name='IfhClientIpAddr'><string>{client_address}</string></var>")


def reply(is_allocated="0", owner="", client_address="", code="0", message=""):
    """As the service writes it: the variables, and the status of the last request."""
    def variable(name, value):
        return f'<var name="{name}"><string>{value}</string></var>'

    return ("<?xml version='1.0'?>"
            "<!DOCTYPE wddxPacket SYSTEM 'http://www.openwddx.org/downloads/dtd/wddx_dtd_10.txt'>"
            '<wddxPacket version="1.0"><header/><data><struct>'
            + variable("IsAllocated", is_allocated) + variable("DeviceOwner", owner)
            + variable("IfhClientIpAddr", client_address)
            + f'<var name="Status"><struct>{variable("code", code)}{variable("msg", message)}</struct></var>'
            "</struct></data></wddxPacket>")


def is_valid(text):
    """Whether it is a packet by the definition that it names, which is on the network."""
    command = ["xmllint", "--nonet", "--noout", "--dtdvalid", "/source/tests/data/wddx_1_0.dtd", "-"]
    done = subprocess.run(command, input=text.encode("latin-1"), stderr=subprocess.PIPE, check=False)
    assert done.returncode in (0, 3), done.stderr  # 3: not valid
    return done.returncode == 0


FREE_REPLY = reply()
ALLOCATED_REPLY = reply("1", "VEMO_WEB", "0")  # the web interface holds the device


# --- Requests, and what comes over the connection

def request(function=STATUS, body=packet(), method="GET", target=None, host=ADDRESS, more=""):
    """As the program's client writes it; `more` is a further header with its line end."""
    target = f"/nVm?FunctionName={function}" if target is None else target
    return (f"{method} {target} HTTP/1.1\r\nHost: {host}\r\nAccept: */*\r\nUser-Agent: USER_AGENT\r\n"
            f"Content-type: text/xml\r\nContent-length: {len(body)}\r\n{more}\r\n{body}")


def http_reply(body):
    """A reply of the service with this body, but for its date."""
    return ("HTTP/1.1 200 OK\r\nConnection: close\r\ncontent-type: text/xml\r\n"
            f"content-length: {len(body)}\r\nContent-Length: {len(body)}\r\n\r\n{body}")


def undated(text):
    return re.sub(r"\r\nDate: [A-Z][a-z]{2}, \d\d [A-Z][a-z]{2} \d{4} \d\d:\d\d:\d\d GMT", "", text)


def connect(address=ADDRESS):
    """No operation of it waits longer than 20 seconds."""
    return socket.create_connection((address, PORT), 20)


def send(connection, text):
    """The other side may have ended the connection."""
    with contextlib.suppress(ConnectionError):
        connection.sendall(text.encode("latin-1"))


def receive(connection):
    """What comes until the other side closes, without its date header."""
    with connection.makefile("rb") as stream:
        return undated(stream.read().decode("latin-1"))


def exchange(text, address=ADDRESS):
    """The whole answer to this text."""
    with connect(address) as connection:
        send(connection, text)
        return receive(connection)


# --- Another service

def short_http_reply(body):
    """As the program's client needs it; without a body there is none."""
    return f"HTTP/1.1 200 OK\r\ncontent-length: {len(body)}\r\n\r\n{body}" if body else ""


@contextlib.contextmanager
def answering(*bodies):
    """In the service's place: answers each request with the next of these bodies, and closes the connection in place of
    an empty one. The context is a list of the requests."""
    requests = []
    left = itertools.cycle(bodies)

    class Handler(socketserver.StreamRequestHandler):
        def handle(self):
            requests.append(self.request.recv(4096).decode("latin-1"))
            self.wfile.write(short_http_reply(next(left)).encode("latin-1"))

    with http.server.HTTPServer((ADDRESS, PORT), Handler) as server:
        thread = threading.Thread(target=server.serve_forever, args=(0.01,))
        thread.start()
        try:
            yield requests
        finally:
            server.shutdown()
            thread.join()
