"""Measures what a request costs, side by side in one run. Started by ./bench/run inside the device's
sandbox; writes its results below the folder given as its argument."""

import json
import math
import os
import re
import socket
import statistics
import subprocess
import sys
import threading
import time
from pathlib import Path

PROGRAM = "/build/setobdconf.cgi"
SPAWN = "/build/bench/bench-spawn"
FAKE_VM = "/build/bench/libbench-fake-vm.so"
SETTINGS = Path("/app/tarn-belox/runvex/obd.conf")
LOG = Path("/tmp/cgi.log")
DEVICE_OPTIONS = Path("/srv/vemo/java.options")
INSTRUCTIONS = Path("/source/bench/instructions.json")

REQUEST = {"REQUEST_METHOD": "GET", "QUERY_STRING": "CanDetectTimeout=500"}
DIRECTORY = {"JAVA_CLASSPATH": "/srv/vemo/java"}
JAR = {"JAVA_CLASSPATH": "/build/bench/vemo.jar"}
SHIPPED = {"JAVA_OPTIONS": f"-XX:VMOptionsFile={DEVICE_OPTIONS}"}
if not Path(FAKE_VM).exists():
    raise SystemExit(f"bench: there is no {FAKE_VM}")
WITH_FAKE_VM = {**REQUEST, **DIRECTORY, "LD_PRELOAD": FAKE_VM}


class Cost:
    """What the kernel accounted for one finished process; microseconds and KiB."""

    def __init__(self, line):
        words = [int(word) for word in line.split()]
        self.wall, self.first_byte, self.cpu, self.peak, self.status, self.output = words


def spawn(command, environment, body=None, cpu=None, expected=0):
    words = [SPAWN]
    if body is not None:
        words += ["--input", body]
    affinity = (lambda: os.sched_setaffinity(0, {cpu})) if cpu is not None else None
    result = subprocess.run(words + ["--"] + command, env=environment, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, text=True, check=True, preexec_fn=affinity)
    cost = Cost(result.stdout)
    if cost.status != expected:
        raise SystemExit(f"bench: {command} ended with status {cost.status}")
    return cost


def reset():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    SETTINGS.write_bytes(Path("/source/device/obd.conf").read_bytes())
    LOG.write_bytes(b"")


def options_file(name, *more):
    """The shipped options and some more, as an options file of their own."""
    path = Path(f"/tmp/{name}.options")
    path.write_text(DEVICE_OPTIONS.read_text() + "".join(f"{option}\n" for option in more))
    return {"JAVA_OPTIONS": f"-XX:VMOptionsFile={path}"}


def realistic_class_path():
    """The class that reads some hundred properties, with its properties; in a folder."""
    folder = Path("/tmp/realistic")
    subprocess.run(["cp", "-r", "/build/bench/realistic", folder], check=True)
    lines = ["lan.address=192.0.2.1", "wlan.address=198.51.100.1"]
    lines += [f"vemo.bus{i % 7}.parameter{i}.{'limit' if i % 2 else 'name'}="
              f"{i * 37 if i % 2 else f'Value of parameter {i}'}" for i in range(600)]
    (folder / "vemo.properties").write_text("\n".join(lines) + "\n")
    return {"JAVA_CLASSPATH": str(folder)}


# --- Ratios


def subjects():
    realistic = realistic_class_path()
    compiler = options_file("compiler", "-Xmixed", "-XX:TieredStopAtLevel=1",
                            "-XX:CompileThresholdScaling=10")
    shipped = {**REQUEST, **DIRECTORY, **SHIPPED}
    plain = {**REQUEST, **JAR}
    return {
        "program, shipped options": ([PROGRAM], shipped, None),
        "program, no options, jar": ([PROGRAM], plain, None),
        "program, shipped options, one core": ([PROGRAM], shipped, 0),
        "program, no options, jar, one core": ([PROGRAM], plain, 0),
        "bare embedder, shipped options": (["/build/bench/bench-embedder"], shipped, None),
        "program with fake VM": ([PROGRAM], WITH_FAKE_VM, None),
        "bare C++ program": (["/build/bench/bench-bare"], REQUEST, None),
        "java launcher script": (["/source/bench/launcher.cgi"], {**REQUEST, "PATH": java_path()},
                                 None),
        "Python, no Java": (["/source/bench/set_option.py"], REQUEST, None),
        "realistic class, interpreter": ([PROGRAM], {**REQUEST, **realistic, **SHIPPED}, None),
        "realistic class, compiler C1": ([PROGRAM], {**REQUEST, **realistic, **compiler}, None),
    }


def java_path():
    """The launcher of the very VM that the program is linked to."""
    linked = subprocess.run(["ldd", PROGRAM], stdout=subprocess.PIPE, text=True, check=True).stdout
    library = re.search(r"libjvm\.so => (\S+)/lib/server/", linked)
    return f"{library[1]}/bin:/usr/bin:/bin"


# Numerator, denominator, and the most that CPU, wall and peak may be of it.
COMPARISONS = [
    ("program, shipped options", "program, no options, jar", 0.65, None, 0.85),
    ("program, shipped options, one core", "program, no options, jar, one core", 0.45, None, None),
    ("program, shipped options", "bare embedder, shipped options", 1.07, None, None),
    ("program with fake VM", "bare C++ program", 1.3, None, None),
    ("program, shipped options", "java launcher script", 0.40, 0.45, None),
    ("program, shipped options", "Python, no Java", None, None, None),
    ("program with fake VM", "Python, no Java", None, None, None),
    ("realistic class, interpreter", "realistic class, compiler C1", None, None, None),
]


def measure_costs(rounds):
    compared = subjects()
    costs = {name: [] for name in compared}
    for number in range(rounds + 1):
        for name, (command, environment, cpu) in compared.items():
            reset()
            cost = spawn(command, environment, cpu=cpu)
            if number > 0:  # the first round warms the page cache
                costs[name].append(cost)
    return costs


def spread(values):
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:.2f} [{low:.2f}-{high:.2f}]", middle


def verdict(value, limit):
    return "" if limit is None else f" <= {limit}" if value <= limit else f" ABOVE {limit}"


def ratio_rows(costs):
    for numerator, denominator, *limits in COMPARISONS:
        row = [f"{numerator} / {denominator}"]
        for kind, limit in zip(("cpu", "wall", "peak"), limits):
            ratios = [getattr(a, kind) / getattr(b, kind)
                      for a, b in zip(costs[numerator], costs[denominator])]
            text, middle = spread(ratios)
            row.append(text + verdict(middle, limit))
        yield row


def first_byte_row(costs):
    text, middle = spread([c.first_byte / c.wall for c in costs["program, shipped options"]])
    return ["first byte / whole request", "", text + verdict(middle, 0.25), ""]


# --- Growth


def exponent(points):
    """The slope of cost against size on logarithmic scales, over the sizes where the cost stands out
    of what every request costs; None where it never does."""
    base = min(cost for _, cost in points)
    risen = [(math.log(size), math.log(cost - base)) for size, cost in points if cost > 2 * base]
    if len(risen) < 2:
        return None
    return statistics.linear_regression(*zip(*risen)).slope


def lowest_cpu(run, repeats=7):
    """The lowest is the one least disturbed."""
    return min((run() for _ in range(repeats)), key=lambda cost: cost.cpu)


def settings_of(lines):
    return b"[SETTINGS]\n" + b"".join(b"Key%d=value %d\n" % (i, i) for i in range(lines))


def growth_of_settings():
    for lines in (10, 100, 1_000, 10_000, 100_000, 300_000, 500_000, 700_000,
                  1_000_000):
        def run():
            reset()
            SETTINGS.write_bytes(settings_of(lines))
            return spawn([PROGRAM], WITH_FAKE_VM)
        yield lines, lowest_cpu(run)


def growth_of_value():
    for size in (1, 1 << 10, 1 << 14, 1 << 18, 1 << 20, 1 << 21, 1 << 22):
        body = Path("/tmp/body")
        body.write_bytes(b"CanDetectTimeout=" + b"5" * size)
        environment = {**WITH_FAKE_VM, "REQUEST_METHOD": "POST", "QUERY_STRING": "",
                       "CONTENT_TYPE": "application/x-www-form-urlencoded",
                       "CONTENT_LENGTH": str(body.stat().st_size)}

        def run():
            reset()
            return spawn([PROGRAM], environment, body=str(body))
        yield size, lowest_cpu(run)


def growth_of_log():
    for size in (0, 1 << 20, 1 << 24, 1 << 27, 1 << 30):
        def run():
            reset()
            os.truncate(LOG, size)
            return spawn([PROGRAM], WITH_FAKE_VM)
        yield size, lowest_cpu(run)
    reset()


def serve_reply(listener, body):
    connection, _ = listener.accept()
    with connection:
        connection.recv(65536)
        connection.sendall(b"HTTP/1.1 200 OK\r\ncontent-length: %d\r\n\r\n" % len(body) + body)


def growth_of_reply():
    head = b"<?xml version='1.0'?>"
    with socket.create_server(("127.0.0.1", 5302)) as listener:
        for size in (1 << 10, 1 << 14, 1 << 18, 1 << 20, 1 << 22, 1 << 24, 1 << 26):
            body = head + b"x" * (size - len(head))

            def run():
                reset()
                service = threading.Thread(target=serve_reply, args=(listener, body),
                                           daemon=True)
                service.start()
                cost = spawn(["/build/bench/bench-nvm"], {})
                service.join()
                return cost
            yield size, lowest_cpu(run)


GROWTH = {
    "settings file, lines": growth_of_settings,
    "value, bytes": growth_of_value,
    "nVm reply, bytes": growth_of_reply,
    "log file, bytes": growth_of_log,
}


def measure_growth():
    return {name: list(points()) for name, points in GROWTH.items()}


def growth_rows(growth):
    for name, points in growth.items():
        slope = exponent([(size, cost.cpu) for size, cost in points])
        first, last = points[0], points[-1]
        text = "flat" if slope is None else f"{slope:.2f}" + verdict(slope, 1.05)
        yield [name, f"{first[0]:,} to {last[0]:,}",
               f"{first[1].cpu / 1000:.1f} to {last[1].cpu / 1000:.1f} ms", text]
    size, cost = growth["nVm reply, bytes"][-1]
    share = cost.peak * 1024 / size
    yield ["nVm reply, peak memory / its size", f"{size:,}", "",
           f"{share:.2f}" + verdict(share, 3)]


# --- Through the web server


def wait_for_port(port):
    for _ in range(200):
        with socket.socket() as probe:
            if probe.connect_ex(("127.0.0.1", port)) == 0:
                return
        time.sleep(0.05)
    raise SystemExit("bench: the web server did not start")


def load_rows(seconds):
    reset()
    server = subprocess.Popen(["/usr/sbin/lighttpd", "-D", "-f", "/srv/vemo/lighttpd.conf"],
                              env={"VEMO_PORT": "8080"}, stderr=subprocess.DEVNULL)
    try:
        wait_for_port(8080)
        first = None
        for clients in (1, 2, 4, 8):
            text = subprocess.run(
                ["wrk", "--threads", "1", "--connections", str(clients), "--duration",
                 f"{seconds}s", "--timeout", "30s", "--latency",
                 "http://localhost:8080/setobdconf.cgi?CanDetectTimeout=500"],
                stdout=subprocess.PIPE, text=True, check=True).stdout
            rate = float(re.search(r"Requests/sec:\s+([\d.]+)", text)[1])
            first = first or rate
            failed = sum(int(n) for line in re.findall(r"(?:Socket errors|Non-2xx).*", text)
                         for n in re.findall(r"\d+", line.replace("Non-2xx or 3xx", "")))
            half, most = (re.search(rf"^\s+{percent}%\s+(\S+)", text, re.M)[1] for percent in (50, 99))
            yield [f"{clients} at once", f"{rate:.1f} requests/s, {rate / first:.2f} of one",
                   f"half within {half}, 99% within {most}", f"{failed} failed"]
    finally:
        server.terminate()
        server.wait()


# --- Instructions


def count_instructions(environment):
    """Instructions from the entry of main on: of the program's own code, and with its libraries."""
    reset()
    out = Path("/tmp/callgrind.out")
    subprocess.run(["valgrind", "--tool=callgrind", f"--callgrind-out-file={out}",
                    "--toggle-collect=main", PROGRAM], env={"PATH": "/usr/bin:/bin", **environment},
                   stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, check=False)
    listing = subprocess.run(["callgrind_annotate", "--threshold=100", "--show-percs=no", out],
                             env={"PATH": "/usr/bin:/bin"}, stdout=subprocess.PIPE, text=True,
                             check=True).stdout
    def number(text):
        return int(text.replace(",", ""))
    own = sum(number(match[1]) for match in
              re.finditer(r"^\s*([\d,]+)\s.*\[/build/setobdconf\.cgi\]$", listing, re.M))
    total = number(re.search(r"^\s*([\d,]+)\s+PROGRAM TOTALS", listing, re.M)[1])
    return {"own": own, "with libraries": total}


def measure_instructions():
    absent = {**WITH_FAKE_VM, "QUERY_STRING": ""}
    return {"option stored": count_instructions(WITH_FAKE_VM),
            "option absent": count_instructions(absent)}


def instruction_rows(counts):
    before = json.loads(INSTRUCTIONS.read_text()) if INSTRUCTIONS.exists() else {}
    for path, kinds in counts.items():
        for kind, count in kinds.items():
            old = before.get(path, {}).get(kind)
            change = "new" if old is None else f"{(count - old) / old:+.1%} against {old:,}"
            yield [f"{path}, {kind}", f"{count:,}", change, ""]


# --- The timeline of one request


def timeline():
    """Microseconds from the start to each event of one request, by the page's flushed lines and by
    the log's times."""
    reset()
    start = time.time()
    process = subprocess.Popen([PROGRAM], env={**REQUEST, **DIRECTORY, **SHIPPED},
                               stdout=subprocess.PIPE, bufsize=0)
    arrivals = []
    while chunk := os.read(process.stdout.fileno(), 65536):
        arrivals.append((time.time(), chunk))
    process.wait()
    end = time.time()

    def arrival(text):
        return next(when for when, chunk in arrivals if text in chunk)

    def logged(statement):
        line = next(line for line in LOG.read_text().splitlines() if statement in line)
        parsed = time.strptime(line[:19], "%Y-%m-%d %H:%M:%S")
        return time.mktime(parsed) + float("0" + line[19:26])
    marks = [("process start", start), ("frame", logged("  main")),
             ("Java VM", logged("JAVA_CLASSPATH")), ("class", logged("ChangeStdErr")),
             ("page", arrival(b"navi")), ("shutdown", arrival(b"To activate")), ("end", end)]
    return [(name, (when - start) * 1e6) for name, when in marks]


def median_timeline(rounds):
    runs = [timeline() for _ in range(rounds)]
    return [(marks[0][0], statistics.median(when for _, when in marks)) for marks in zip(*runs)]


# --- Output


def table(title, head, rows):
    rows = [head] + list(rows)
    widths = [max(len(row[i]) for row in rows) for i in range(len(head))]
    lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
             for row in rows]
    lines.insert(1, "-" * max(len(line) for line in lines))
    return f"{title}\n\n" + "\n".join(lines) + "\n"


def main():
    folder = Path(sys.argv[1])
    rounds = int(sys.argv[2])
    folder.mkdir(parents=True, exist_ok=True)
    costs = measure_costs(rounds)
    growth = measure_growth()
    counts = measure_instructions()
    marks = median_timeline(max(5, rounds // 2))
    text = "\n".join([
        table(f"Ratios: medians of {rounds} rounds, with their middle halves",
              ["", "CPU", "wall", "peak memory"], [*ratio_rows(costs), first_byte_row(costs)]),
        table("One request, medians", ["", "CPU", "wall", "peak memory"],
              ([name, f"{statistics.median(c.cpu for c in runs) / 1000:.1f} ms",
                f"{statistics.median(c.wall for c in runs) / 1000:.1f} ms",
                f"{statistics.median(c.peak for c in runs) / 1024:.1f} MiB"]
               for name, runs in costs.items())),
        table("Growth of CPU time, with fake VM", ["", "sizes", "cost", "exponent"],
              growth_rows(growth)),
        table("Through lighttpd", ["", "throughput", "latency", ""], load_rows(5)),
        table("Instructions, with fake VM", ["", "now", "change", ""], instruction_rows(counts)),
    ])
    print(text)
    (folder / "results.txt").write_text(text)
    (folder / "instructions.json").write_text(json.dumps(counts, indent=2) + "\n")
    (folder / "plots.json").write_text(json.dumps({
        "timeline": marks,
        "growth": {name: [(size, cost.cpu) for size, cost in points]
                   for name, points in growth.items()}}))


if __name__ == "__main__":
    main()
