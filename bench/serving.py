"""Requests through lighttpd, as the device is served."""

import re
import socket
import statistics
import subprocess
import time

from cost import reset, spread

PORT = 8080
ADDRESS = f"http://localhost:{PORT}/setobdconf.cgi?CanDetectTimeout=500"


def wait_for_port():
    for _ in range(200):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", PORT)) == 0:
                return
        time.sleep(0.05)
    raise SystemExit("bench: the web server did not start")


def one_request():
    """Seconds to the first byte, and to the page's end."""
    said = subprocess.run(
        ["curl", "--silent", "--fail", "--output", "/dev/null", "--write-out", "%{time_starttransfer} %{time_total}",
         ADDRESS], stdout=subprocess.PIPE, text=True, check=True).stdout
    return [float(word) for word in said.split()]


def first_byte_row():
    runs = [one_request() for _ in range(41)][1:]
    whole = statistics.median(end for _, end in runs) * 1000
    return ["first byte / whole request", spread([first / end for first, end in runs], 0.35), f"of {whole:.1f} ms", ""]


def under_load(clients, seconds):
    """What wrk says of so many clients: requests in a second, the latencies of the half and of 99 %, failures."""
    said = subprocess.run(
        ["wrk", "--threads", "1", "--connections", str(clients), "--duration", f"{seconds}s", "--timeout", "30s",
         "--latency", ADDRESS], stdout=subprocess.PIPE, text=True, check=True).stdout
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", said)[1])
    half, most = (re.search(rf"^\s+{percent}%\s+(\S+)", said, re.M)[1] for percent in (50, 99))
    failures = re.findall(r"(?:connect|read|write|timeout|responses:) (\d+)", said)
    return rate, half, most, sum(map(int, failures))


def rows(seconds=5):
    reset()
    server = subprocess.Popen(["/usr/sbin/lighttpd", "-D", "-f", "/srv/vemo/lighttpd.conf"],
                              env={"VEMO_PORT": str(PORT)}, stderr=subprocess.DEVNULL)
    try:
        wait_for_port()
        yield first_byte_row()
        of_one = None
        for clients in (1, 2, 4, 8):
            rate, half, most, failures = under_load(clients, seconds)
            of_one = of_one or rate
            yield [f"{clients} at once", f"{rate:.1f} requests/s, {rate / of_one:.2f} of one",
                   f"half within {half}, 99% within {most}", f"{failures} failed"]
    finally:
        server.terminate()
        server.wait()
