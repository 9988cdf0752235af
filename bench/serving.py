"""Requests through lighttpd, as the device is served."""

import re
import statistics
import subprocess

from cost import reset, spread, told

PORT = "8080"
ADDRESS = f"http://localhost:{PORT}/setobdconf.cgi?CanDetectTimeout=500"


def one_request():
    """Seconds to the first byte, and to the page's end."""
    said = told("curl", "--silent", "--fail", "--retry", "60", "--retry-connrefused", "--retry-delay", "1",
                "--output", "/dev/null", "--write-out", "%{time_starttransfer} %{time_total}", ADDRESS)
    return [float(word) for word in said.split()]


def first_byte_row():
    # The first waits for the server.
    runs = [one_request() for _ in range(41)][1:]
    whole = statistics.median(end for _, end in runs) * 1000
    return ["first byte / whole request", spread([first / end for first, end in runs], 0.35), f"of {whole:.1f} ms", ""]


def under_load(clients, seconds=5):
    """What wrk measures with so many clients: requests in a second, the latencies of the half and of 99 %, failures."""
    said = told("wrk", "--threads", "1", "--connections", str(clients), "--duration", f"{seconds}s", "--timeout", "30s",
                "--latency", ADDRESS)
    rate = float(re.search(r"Requests/sec:\s+([\d.]+)", said)[1])
    half, most = (re.search(rf"^\s+{percent}%\s+(\S+)", said, re.M)[1] for percent in (50, 99))
    failures = re.findall(r"(?:connect|read|write|timeout|responses:) (\d+)", said)
    return rate, half, most, sum(map(int, failures))


def rows():
    reset()
    server = subprocess.Popen(["/usr/sbin/lighttpd", "-D", "-f", "/srv/vemo/lighttpd.conf"],
                              env={"VEMO_PORT": PORT}, stderr=subprocess.DEVNULL)
    try:
        yield first_byte_row()
        of_one = None
        for clients in (1, 2, 4, 8):
            rate, half, most, failures = under_load(clients)
            of_one = of_one or rate
            yield [f"{clients} at once", f"{rate:.1f} requests/s, {rate / of_one:.2f} of one",
                   f"half within {half}, 99% within {most}", f"{failures} failed"]
    finally:
        server.terminate()
        server.wait()
