"""An HTTP client that sends exactly what it is given: browsers and curl would set some of it right."""

import collections
import contextlib
import http.client
import socket
import struct

import device

FORM = "application/x-www-form-urlencoded"
MULTIPART = "multipart/form-data; boundary=frontier"
FOREIGN = "Origin: http://foreign.example"

# Header names are in lower case. The status is 0 where no answer came.
Answer = collections.namedtuple("Answer", "status headers body")


def typed(*headers):
    """As a browser asks for an address that was typed."""
    return "Sec-Fetch-Site: none", "Sec-Fetch-Mode: navigate", "Sec-Fetch-Dest: document", *headers


def request(target, *headers, host=None, method="GET", version="1.1", by_own_page=True):
    """By a page of ours, which has to be said where the device is not on loopback; else as by an address that was
    typed."""
    if by_own_page and not device.is_on_loopback() and not any(
            header.startswith(("Origin: ", "Referer: ")) for header in headers):
        headers = (f"Referer: http://{device.HOST}/", *headers)
    host = device.HOST if host is None else host
    lines = [f"{method} {target} HTTP/{version}", *([f"Host: {host}"] if host else []), "Connection: close", *headers,
             ""]
    return "".join(f"{line}\r\n" for line in lines).encode("latin-1")


def post(target, body, *headers, kind=FORM, **how):
    body = body.encode("latin-1")
    headers = (f"Content-Type: {kind}", f"Content-Length: {len(body)}", *headers)
    return request(target, *headers, method="POST", **how) + body


def part(*lines):
    """A multipart body with this part."""
    return "".join(f"{line}\r\n" for line in ("--frontier", *lines, "--frontier--"))


def reset(connection):
    """Closed so, it is no orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def ask(connection, sent):
    """Sends the request on the connection and closes it. Raises OSError or HTTPException where no answer comes."""
    with contextlib.closing(connection):
        # Who is refused early may still get the answer.
        with contextlib.suppress(OSError):
            connection.sendall(sent)
        response = http.client.HTTPResponse(connection, method=sent.split(b" ")[0].decode())
        response.begin()
        try:
            body = response.read()
        except http.client.IncompleteRead as cut:
            body = cut.partial
        headers = {name.lower(): response.getheader(name) for name in response.headers}
        return Answer(response.status, headers, body)
