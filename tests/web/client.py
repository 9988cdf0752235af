"""An HTTP client that sends exactly what it is given: browsers and curl would set some of it right."""

import collections
import contextlib
import http.client
import socket
import struct

FORM = "application/x-www-form-urlencoded"
MULTIPART = "multipart/form-data; boundary=frontier"

# Header names are in lower case. The status is 0 where no answer came.
Answer = collections.namedtuple("Answer", "status headers body")


def request(target, *headers, host, method="GET", version="1.1"):
    lines = [f"{method} {target} HTTP/{version}", *([f"Host: {host}"] if host else []), "Connection: close", *headers,
             ""]
    return "".join(f"{line}\r\n" for line in lines).encode("latin-1")


def post(target, body, *headers, host, kind=FORM, **how):
    body = body.encode("latin-1")
    headers = (f"Content-Type: {kind}", f"Content-Length: {len(body)}", *headers)
    return request(target, *headers, host=host, method="POST", **how) + body


def part(*lines):
    """A multipart body with this part."""
    return "".join(f"{line}\r\n" for line in ("--frontier", *lines, "--frontier--"))


def read_answer(connection, method="GET"):
    """Raises OSError or HTTPException where there is none."""
    response = http.client.HTTPResponse(connection, method=method)
    response.begin()
    try:
        body = response.read()
    except http.client.IncompleteRead as cut:
        body = cut.partial
    headers = {}
    for name, value in response.getheaders():
        name = name.lower()
        headers[name] = f"{headers[name]}, {value}" if name in headers else value
    return Answer(response.status, headers, body)


def reset(connection):
    """Closed so, it is no orderly end."""
    connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    connection.close()


def ask(connection, sent):
    """Sends the request on the connection and closes it."""
    with contextlib.closing(connection):
        # Who is refused early may still get the answer.
        with contextlib.suppress(OSError):
            connection.sendall(sent)
        return read_answer(connection, sent.split(b" ")[0].decode())
