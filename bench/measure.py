"""Measures what a request costs, side by side in one run. Started by ./bench/run inside the device's
sandbox; writes its results below the folder given as its argument."""

import json
import math
import os
import platform
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
FAKE_VM = "/build/standin/libfake-vm.so"
SETTINGS = Path("/app/tarn-belox/runvex/obd.conf")
LOG = Path("/tmp/cgi.log")
DEVICE_OPTIONS = Path("/srv/vemo/java.options")
INSTRUCTIONS = Path("/source/bench/instructions.json")

REQUEST = {"REQUEST_METHOD": "GET", "QUERY_STRING": "CanDetectTimeout=500"}
DIRECTORY = {"JAVA_CLASSPATH": "/srv/vemo/java"}
JAR = {"JAVA_CLASSPATH": "/build/bench/vemo.jar"}
OPTIONS_ALONE = {"JAVA_OPTIONS": f"-XX:VMOptionsFile={DEVICE_OPTIONS}"}
ARCHIVE = Path("/app/class-archive")
# What the gate hands to the program while the archive fits.
SHIPPED = {"JAVA_OPTIONS": f"-XX:VMOptionsFile={ARCHIVE}/java.options"}
CLASS_ARCHIVE = "/srv/vemo/bin/class-archive"
EMBEDDER = "/build/bench/bench-embedder"
if not Path(FAKE_VM).exists():
    raise SystemExit(f"bench: there is no {FAKE_VM}")
WITH_FAKE_VM = {**REQUEST, **DIRECTORY, "LD_PRELOAD": FAKE_VM}


class Cost:
    """What the kernel accounted for one finished process; microseconds and KiB. Instructions are -1
    where the machine does not count them."""

    def __init__(self, line):
        words = [int(word) for word in line.split()]
        (self.wall, self.first_byte, self.cpu, self.peak, self.status, self.output, self.faults,
         self.instructions) = words


def spawn(command, environment, body=None, cpu=None, expected=0):
    words = [SPAWN]
    if body is not None:
        words += ["--input", body]
    affinity = (lambda: os.sched_setaffinity(0, {cpu})) if cpu is not None else None
    result = subprocess.run(words + ["--"] + command, env=environment, stdout=subprocess.PIPE,
                            stderr=subprocess.DEVNULL, text=True, check=True, preexec_fn=affinity)
    cost = Cost(result.stdout)
    if expected is not None and cost.status != expected:
        raise SystemExit(f"bench: {command} ended with status {cost.status}")
    return cost


def reset():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    SETTINGS.unlink(missing_ok=True)
    SETTINGS.write_bytes(Path("/source/standin/obd.conf").read_bytes())
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


def make_archive(folder, vm=None):
    """A class archive for the program's own VM, or for the one in that folder; its options."""
    environment = {"PATH": "/usr/bin:/bin", **libraries(vm)}
    subprocess.run(["/srv/vemo/make-class-archive", PROGRAM, DEVICE_OPTIONS, "/srv/vemo/java", folder],
                   env=environment, check=True)
    return {"JAVA_OPTIONS": f"-XX:VMOptionsFile={folder}/java.options"}


def libraries(vm):
    return {"LD_LIBRARY_PATH": f"{vm}/lib/server"} if vm else {}


def own_vm():
    """The folder of the very VM that the program is linked to."""
    linked = subprocess.run(["ldd", PROGRAM], stdout=subprocess.PIPE, text=True, check=True).stdout
    return re.search(r"libjvm\.so => (\S+)/lib/server/", linked)[1]


def other_vms():
    """Name and folder of each other VM of the machine."""
    own = Path(own_vm()).resolve()
    found = {library.resolve().parents[2] for library in Path("/usr/lib/jvm").glob("*/lib/server/libjvm.so")}
    # One that tools/make-java-runtime made.
    found |= {library.parents[2] for library in Path("/build").glob("java-runtime/lib/server/libjvm.so")}
    return {folder.name: folder for folder in sorted(found - {own})}


# --- Ratios


def subjects():
    realistic = realistic_class_path()
    compiler = options_file("compiler", "-Xmixed", "-XX:TieredStopAtLevel=1",
                            "-XX:CompileThresholdScaling=10")
    shipped = {**REQUEST, **DIRECTORY, **SHIPPED}
    plain = {**REQUEST, **JAR}
    launcher = {**REQUEST, "PATH": f"{own_vm()}/bin:/usr/bin:/bin"}
    compared = {
        "program as shipped": ([PROGRAM], shipped, None),
        "program, no options, jar": ([PROGRAM], plain, None),
        "program as shipped, one core": ([PROGRAM], shipped, 0),
        "program, no options, jar, one core": ([PROGRAM], plain, 0),
        "bare embedder as shipped": ([EMBEDDER], shipped, None),
        "program with fake VM": ([PROGRAM], WITH_FAKE_VM, None),
        "program with fake VM, settings on disk": ([PROGRAM], WITH_FAKE_VM, None),
        "bare C++ program": (["/build/bench/bench-bare"],
                             {**REQUEST, "LD_PRELOAD": FAKE_VM}, None),
        "java launcher script": (["/source/bench/launcher.cgi"], launcher, None),
        "Python, no Java": (["/source/bench/set_option.py"], REQUEST, None),
        "realistic class, interpreter": ([PROGRAM], {**REQUEST, **realistic, **OPTIONS_ALONE}, None),
        "realistic class, compiler C1": ([PROGRAM], {**REQUEST, **realistic, **compiler}, None),
    }
    for name, vm in other_vms().items():
        options = make_archive(Path(f"/tmp/class-archive-{name}"), vm)
        compared[f"{name} as shipped"] = ([PROGRAM], {**shipped, **options, **libraries(vm)}, None)
        compared[f"{name}, no options, jar"] = ([PROGRAM], {**plain, **libraries(vm)}, None)
    return compared


# What each step brings to the VM's start, in the bare embedder. The first is what the others are
# compared with: without the options that are on trial.
ON_TRIAL = ("UseAVX", "UseSSE", "UseSVE", "UseAES", "UseSHA", "UseMD5", "DisableAttachMechanism")
FIRST_STEP = "options, but for those of the next lines"


def steps():
    def without(name, *words):
        path = Path(f"/tmp/{name}.options")
        path.write_text("".join(line for line in DEVICE_OPTIONS.read_text().splitlines(True)
                                if not any(word in line for word in words)))
        return {"JAVA_OPTIONS": f"-XX:VMOptionsFile={path}"}
    common = {**REQUEST, **DIRECTORY}
    return {
        FIRST_STEP: ([EMBEDDER], {**common, **without("first", *ON_TRIAL)}, None),
        "code for a plain processor": (
            [EMBEDDER], {**common, **without("attach", "DisableAttachMechanism")}, None),
        "no door for debuggers": ([EMBEDDER], {**common, **OPTIONS_ALONE}, None),
        "our own class archive": ([EMBEDDER], {**common, **SHIPPED}, None),
        "  through the look whether it fits": (
            [CLASS_ARCHIVE, "run", str(ARCHIVE), EMBEDDER], {**common, **OPTIONS_ALONE}, None),
    }


def change_archive(case, archive):
    archive.chmod(0o600)
    if case == "missing":
        archive.unlink()
    elif case == "unreadable":
        archive.chmod(0)
    elif case == "cut in the middle":
        os.truncate(archive, archive.stat().st_size // 2)
    elif case == "empty":
        os.truncate(archive, 0)
    elif case == "another VM's":
        archive.write_bytes(DEVICE_OPTIONS.read_bytes() * 20000)
    elif case == "a bit turned":
        with archive.open("r+b") as file:
            file.seek(archive.stat().st_size // 2)
            byte = file.read(1)[0]
            file.seek(-1, os.SEEK_CUR)
            file.write(bytes([byte ^ 1]))


MISFITS = ("missing", "unreadable", "cut in the middle", "empty", "another VM's", "a bit turned")


def misfits():
    """Each kind of archive that does not fit, held back from the VM and handed over to it."""
    common = {**REQUEST, **DIRECTORY, **OPTIONS_ALONE}
    found = {"none": ([EMBEDDER], common, None)}
    for number, case in enumerate(MISFITS):
        folder = Path(f"/app/class-archive-{number}")
        options = make_archive(folder)
        change_archive(case, folder / "classes.jsa")
        found[f"{case}, held back"] = ([CLASS_ARCHIVE, "run", str(folder), EMBEDDER], common, None)
        found[f"{case}, handed over"] = ([EMBEDDER], {**common, **options}, None)
    return found


def misfit_rows(costs):
    for case in MISFITS:
        row = [case]
        for how in ("held back", "handed over"):
            runs = costs[f"{case}, {how}"]
            failed = sum(cost.status != 0 for cost in runs)
            row.append(spread(ratios(costs, "cpu", f"{case}, {how}", "none"))[0]
                       + (f", {failed} of {len(runs)} failed" if failed else ""))
        yield row


# Numerator, denominator, and the most that CPU, wall and peak may be of it.
COMPARISONS = [
    ("program as shipped", "program, no options, jar", 0.52, None, 0.69),
    ("program as shipped, one core", "program, no options, jar, one core", 0.38, None, None),
    ("program as shipped", "bare embedder as shipped", 1.08, None, None),
    ("program with fake VM", "bare C++ program", 1.15, None, None),
    ("program with fake VM, settings on disk", "bare C++ program", None, None, None),
    ("program as shipped", "java launcher script", 0.33, 0.36, None),
    ("program as shipped", "Python, no Java", 0.95, None, None),
    ("program with fake VM", "Python, no Java", None, None, None),
    ("realistic class, interpreter", "realistic class, compiler C1", None, None, None),
]


def comparisons():
    yield from COMPARISONS
    for name in other_vms():
        yield f"{name} as shipped", f"{name}, no options, jar", None, None, None
        yield f"{name} as shipped", "program as shipped", None, None, None


def put_settings_on_disk():
    """In place of the settings file there is a link: /app is in memory here, /tmp is not."""
    reset()
    target = Path("/tmp/settings/obd.conf")
    target.parent.mkdir(exist_ok=True)
    target.write_bytes(SETTINGS.read_bytes())
    SETTINGS.unlink()
    SETTINGS.symlink_to(target)


def measure_costs(compared, rounds, expected=0):
    costs = {name: [] for name in compared}
    for number in range(rounds + 1):
        for name, (command, environment, cpu) in compared.items():
            put_settings_on_disk() if "on disk" in name else reset()
            cost = spawn(command, environment, cpu=cpu, expected=expected)
            if number > 0:  # the first round warms the page cache
                costs[name].append(cost)
    return costs


def spread(values):
    low, middle, high = statistics.quantiles(values, n=4)
    return f"{middle:.2f} [{low:.2f}-{high:.2f}]", middle


def verdict(value, limit):
    return "" if limit is None else f" <= {limit}" if value <= limit else f" ABOVE {limit}"


def ratios(costs, kind, numerator, denominator):
    return [getattr(a, kind) / getattr(b, kind)
            for a, b in zip(costs[numerator], costs[denominator])]


def ratio_rows(costs):
    for numerator, denominator, *limits in comparisons():
        row = [f"{numerator} / {denominator}"]
        for kind, limit in zip(("cpu", "wall", "peak"), limits):
            text, middle = spread(ratios(costs, kind, numerator, denominator))
            row.append(text + verdict(middle, limit))
        yield row


def median(costs, kind):
    return statistics.median(getattr(cost, kind) for cost in costs)


def instructions(costs):
    count = median(costs, "instructions")
    return "not counted" if count < 0 else f"{count / 1e6:.1f} M"


def cost_rows(costs):
    for name, runs in costs.items():
        yield [name, f"{median(runs, 'cpu') / 1000:.1f} ms", f"{median(runs, 'wall') / 1000:.1f} ms",
               f"{median(runs, 'peak') / 1024:.1f} MiB", f"{median(runs, 'faults'):,.0f}",
               instructions(runs)]


def step_rows(costs):
    for name, runs in costs.items():
        yield [name, spread(ratios(costs, "cpu", name, FIRST_STEP))[0],
               f"{median(runs, 'peak') / 1024:.1f} MiB", f"{median(runs, 'faults'):,.0f}",
               instructions(runs)]


def first_byte_row(costs):
    text, middle = spread([c.first_byte / c.wall for c in costs["program as shipped"]])
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


def first_byte_through_server():
    """Seconds to the first byte of the page, and to its end."""
    with socket.create_connection(("127.0.0.1", 8080), timeout=30) as connection:
        start = time.perf_counter()
        connection.sendall(b"GET /setobdconf.cgi?CanDetectTimeout=500 HTTP/1.0\r\n"
                           b"Host: localhost:8080\r\n\r\n")
        answer, first = b"", None
        while chunk := connection.recv(65536):
            answer += chunk
            if first is None and b"<html>" in answer:
                first = time.perf_counter() - start
        end = time.perf_counter() - start
    if not answer.startswith(b"HTTP/1.0 200") or first is None:
        raise SystemExit(f"bench: the web server answered {answer[:200]}")
    return first, end


def first_byte_through_server_row():
    runs = [first_byte_through_server() for _ in range(41)][1:]
    text, middle = spread([first / end for first, end in runs])
    whole = statistics.median(end for _, end in runs) * 1000
    return ["first byte / whole request", text + verdict(middle, 0.35), f"of {whole:.1f} ms", ""]


def load_rows(seconds):
    reset()
    server = subprocess.Popen(["/usr/sbin/lighttpd", "-D", "-f", "/srv/vemo/lighttpd.conf"],
                              env={"VEMO_PORT": "8080"}, stderr=subprocess.DEVNULL)
    try:
        wait_for_port(8080)
        yield first_byte_through_server_row()
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


def vm_phases():
    """The phases of the VM's start as it tells of them: name, begin and end in microseconds from the
    VM's first moment; the run with the shortest start."""
    told = Path("/tmp/phases")
    options = Path("/tmp/phases.options")
    options.write_text(Path(f"{ARCHIVE}/java.options").read_text()
                       + f"-Xlog:startuptime=info:file={told}:uptimenanos\n")
    best = []
    for _ in range(10):
        reset()
        told.unlink(missing_ok=True)
        spawn([EMBEDDER], {**DIRECTORY, "JAVA_OPTIONS": f"-XX:VMOptionsFile={options}"})
        phases = []
        for end, name, seconds in re.findall(r"\[(\d+)ns\] (.*), ([\d.]+) secs", told.read_text()):
            end = int(end) / 1000
            phases.append((name, end - float(seconds) * 1e6, end))
        if phases and (not best or phases[-1][2] < best[-1][2]):
            best = phases
    return best


# --- Output


def machine():
    """The processor, whether it has AVX-512, the VMs."""
    info = Path("/proc/cpuinfo").read_text()
    model = re.search(r"^model name\s*: (.*)$", info, re.M)
    flags = re.search(r"^flags\s*:(.*)$", info, re.M)
    wide = "with" if flags and "avx512f" in flags[1].split() else "without"
    family = re.search(r"^cpu family\s*: (\d+)\nmodel\s*: (\d+)$", info, re.M)
    known = f", family {family[1]}, model {family[2]}" if family else ""
    vms = ", ".join([Path(own_vm()).resolve().name, *other_vms()])
    return (f"{model[1] if model else platform.machine()}{known}, {wide} AVX-512, "
            f"{len(os.sched_getaffinity(0))} cores; {vms}")


def table(title, here, head, rows):
    rows = [head] + list(rows)
    widths = [max(len(row[i]) for row in rows) for i in range(len(head))]
    lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip()
             for row in rows]
    lines.insert(1, "-" * max(len(line) for line in lines))
    return f"{title}\n{here}\n\n" + "\n".join(lines) + "\n"


def vm_table(rounds):
    """The request as shipped under each VM, against the program's own."""
    compared = {}
    own = Path(own_vm()).resolve().name
    for name, vm in {own: None, **other_vms()}.items():
        options = make_archive(Path(f"/tmp/class-archive-{name}"), vm)
        compared[name] = ([PROGRAM], {**REQUEST, **DIRECTORY, **options, **libraries(vm)}, None)
    costs = measure_costs(compared, rounds)
    rows = ([name, *(spread(ratios(costs, kind, name, own))[0] for kind in ("cpu", "wall")),
             f"{median(costs[name], 'peak') / 1024:.1f} MiB"] for name in costs)
    return table(f"One request as shipped, against {own}: medians of {rounds} rounds, with their middle "
                 "halves", machine(), ["", "CPU", "wall", "peak memory"], rows)


def main():
    folder = Path(sys.argv[1])
    rounds = int(sys.argv[2])
    if "--vms" in sys.argv:
        print(vm_table(rounds))
        return
    folder.mkdir(parents=True, exist_ok=True)
    make_archive(ARCHIVE)
    costs = measure_costs(subjects(), rounds)
    step_costs = measure_costs(steps(), rounds)
    misfit_costs = measure_costs(misfits(), rounds, expected=None)
    growth = measure_growth()
    counts = measure_instructions()
    marks = median_timeline(max(5, rounds // 2))
    here = machine()
    text = "\n".join([
        table(f"Ratios: medians of {rounds} rounds, with their middle halves", here,
              ["", "CPU", "wall", "peak memory"], [*ratio_rows(costs), first_byte_row(costs)]),
        table("The steps of the VM's start, each with those above it, against the first", here,
              ["bare embedder", "CPU", "peak memory", "page faults", "instructions"],
              step_rows(step_costs)),
        table("A class archive that does not fit, against the options alone, CPU", here,
              ["bare embedder", "held back", "handed over"], misfit_rows(misfit_costs)),
        table("One request, medians", here,
              ["", "CPU", "wall", "peak memory", "page faults", "instructions"], cost_rows(costs)),
        table("Growth of CPU time, with fake VM", here, ["", "sizes", "cost", "exponent"],
              growth_rows(growth)),
        table("Through lighttpd", here, ["", "throughput", "latency", ""], load_rows(5)),
        table("Instructions, with fake VM", here, ["", "now", "change", ""],
              instruction_rows(counts)),
    ])
    print(text)
    (folder / "results.txt").write_text(text)
    (folder / "instructions.json").write_text(json.dumps(counts, indent=2) + "\n")
    (folder / "plots.json").write_text(json.dumps({
        "machine": here,
        "timeline": marks,
        "phases": vm_phases(),
        "growth": {name: [(size, cost.cpu) for size, cost in points]
                   for name, points in growth.items()}}))


if __name__ == "__main__":
    main()
