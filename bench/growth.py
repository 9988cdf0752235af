"""How the cost of a request grows with what it reads and writes. With the fake VM: the Java side does not grow."""

import math
import os
import pathlib
import socket
import statistics
import threading

from cost import LOG, SETTINGS, reset, spawn, verdict
from subjects import PROGRAM, WITH_FAKE_VM

REPEATS = 7


def with_settings(lines):
    SETTINGS.write_text("[SETTINGS]\n" + "".join(f"Key{i}=value {i}\n" for i in range(lines)))
    return spawn([PROGRAM], WITH_FAKE_VM)


def with_value(size):
    body = pathlib.Path("/tmp/body")
    body.write_bytes(b"CanDetectTimeout=" + b"5" * size)
    environment = {**WITH_FAKE_VM, "REQUEST_METHOD": "POST", "QUERY_STRING": "",
                   "CONTENT_TYPE": "application/x-www-form-urlencoded", "CONTENT_LENGTH": str(body.stat().st_size)}
    return spawn([PROGRAM], environment, body)


def with_log(size):
    os.truncate(LOG, size)
    return spawn([PROGRAM], WITH_FAKE_VM)


def serve(listener, reply):
    connection, _ = listener.accept()
    with connection:
        connection.recv(65536)
        connection.sendall(b"HTTP/1.1 200 OK\r\ncontent-length: %d\r\n\r\n" % len(reply) + reply)


def with_reply(size):
    """One exchange with an nVm service."""
    reply = b"<?xml version='1.0'?>".ljust(size, b"x")
    with socket.create_server(("127.0.0.1", 5302)) as listener:
        service = threading.Thread(target=serve, args=(listener, reply), daemon=True)
        service.start()
        cost = spawn(["/build/bench/bench-nvm"], {})
        service.join()
    return cost


CURVES = {
    "settings file, lines": (with_settings, (10, 100, 1_000, 10_000, 100_000, 300_000, 500_000, 700_000, 1_000_000)),
    "value, bytes": (with_value, (1, 1 << 10, 1 << 14, 1 << 18, 1 << 20, 1 << 21, 1 << 22)),
    "nVm reply, bytes": (with_reply, (1 << 10, 1 << 14, 1 << 18, 1 << 20, 1 << 22, 1 << 24, 1 << 26)),
    "log file, bytes": (with_log, (0, 1 << 20, 1 << 24, 1 << 27, 1 << 30)),
}


def lowest(run, size):
    """Of some runs the one least disturbed."""
    costs = []
    for _ in range(REPEATS):
        reset()
        costs.append(run(size))
    reset()
    return min(costs, key=lambda cost: cost.cpu)


def measure():
    """Sizes and costs of each curve."""
    return {name: [(size, lowest(run, size)) for size in sizes] for name, (run, sizes) in CURVES.items()}


def exponent(points):
    """The slope of cost against size on logarithmic scales, over the sizes where the cost stands out
    of what every request costs; None where it never does."""
    base = min(cost.cpu for _, cost in points)
    risen = [(math.log(size), math.log(cost.cpu - base)) for size, cost in points if cost.cpu > 2 * base]
    return statistics.linear_regression(*zip(*risen)).slope if len(risen) > 1 else None


def rows(measured):
    for name, points in measured.items():
        slope = exponent(points)
        (first, cheap), (last, dear) = points[0], points[-1]
        yield [name, f"{first:,} to {last:,}", f"{cheap.cpu / 1000:.1f} to {dear.cpu / 1000:.1f} ms",
               "flat" if slope is None else f"{slope:.2f}{verdict(slope, 1.05)}"]
    size, cost = measured["nVm reply, bytes"][-1]
    share = cost.peak * 1024 / size
    yield ["nVm reply, peak memory / its size", f"{size:,}", "", f"{share:.2f}{verdict(share, 3)}"]
