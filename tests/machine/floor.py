"""How little memory a device may have: a kernel, busybox, the web server, the programs, a Java runtime.

    python3 -B tests/machine/floor.py BUILD [Floor.TEST]    what docs/on-a-device.md tells, at its figures
    python3 -B tests/machine/floor.py BUILD search          finds the figures
    python3 -B tests/machine/floor.py BUILD try MIB         one request, then four at once, with so much left for them

No swap; vm.overcommit_memory is the kernel's own, 0. What is in memory for good: the kernel, the shell that
is its first process, the web server. The disk is ext4, with /tmp and /run on it.
"""

import concurrent.futures
import contextlib
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import time
import unittest

BUILD = pathlib.Path(sys.argv[1]).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "tests/packaging"), str(SOURCE / "tests/docs")]

import booted  # noqa: E402
import machine  # noqa: E402
import pages  # noqa: E402
import root  # noqa: E402

FOLDER = BUILD / "machine"
RUNTIME = BUILD / "java-runtime"
WEB_SERVER = "/usr/sbin/lighttpd"
MODULES = pathlib.Path("/usr/lib/lighttpd")
ERRORS = "/var/log/web-server"
ARCHIVE = "/var/cache/vemo-web/archive"
PROGRAM = "/usr/libexec/vemo-web/setobdconf.cgi"
LOG_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  (DEBUG|ERROR) +cgi +\d+ +src/\S+ +\d+ +\S.*\n")
SUCCESS = "Set new option was successful."
# Seconds. The gate ends a program after 60.
LIMIT = 150
PLENTY = 512
MACHINE = 160
MARGIN = 8

# The shell that the test talks to is none of the device, and never the one to be ended.
INIT = f"""
export PATH=/bin:/sbin:/usr/bin
{booted.MOUNTS_AND_NETWORK}
if [ "$task" = archive ]; then
  su vemo-web -c "/usr/libexec/vemo-web/make-class-archive {PROGRAM} /etc/vemo-web/java.options \\
    /usr/share/vemo-web/java {ARCHIVE}" && echo archive made
  rm -f {booted.LOG}
  sync
  poweroff -f
fi
su vemo-web -c "exec {WEB_SERVER} -D -f /usr/share/vemo-web/lighttpd.conf" 2>>{ERRORS} </dev/null &
echo -1000 >/proc/self/oom_score_adj
: >>{booted.LOG}
chown vemo-web {booted.LOG}
echo ready
exec setsid -c sh -c "while true; do sh; done" <>/dev/console >&0 2>&1
"""


@contextlib.contextmanager
def made_disk():
    """What the packages hold and what they need, with the class archive already made. Gone at the end."""
    path, tree = FOLDER / "floor.disk", FOLDER / "floor.d"
    try:
        shutil.rmtree(tree, ignore_errors=True)
        fill(tree)
        machine.make_disk(path, tree, "400M", "-m", "0")
        shutil.rmtree(tree)
        with Device(path, PLENTY, task="archive") as device:
            if "archive made" not in device.machine.wait_until_off(LIMIT):
                raise machine.MachineError(device.machine.console())
        yield path
    finally:
        shutil.rmtree(tree, ignore_errors=True)
        path.unlink(missing_ok=True)


def fill(tree):
    for folder in ("app/tarn-belox/runvex", "bin", "dev", "lib64", "proc", "run/vemo-web", "sbin", "sys",
                   "tmp", "usr/bin", "usr/lib/lighttpd", "usr/lib/jvm", "usr/sbin", "var/cache/vemo-web",
                   "var/log"):
        (tree / folder).mkdir(parents=True)
    made = root.packages(BUILD)
    for name in ("vemo-web", "vemo-web-standin"):
        subprocess.run(["dpkg-deb", "--extract", made[name], tree], check=True)
    subprocess.run(["cp", "-a", RUNTIME, tree / "usr/lib/jvm/default-java"], check=True)
    modules = re.findall(r'"(mod_\w+)"', (SOURCE / "web/lighttpd/lighttpd.conf").read_text(encoding="utf-8"))
    files = [pathlib.Path(WEB_SERVER), *filter(pathlib.Path.exists, (MODULES / f"{name}.so" for name in modules))]
    for file in files:
        shutil.copy(file, tree / str(file).lstrip("/"))
    needed = {}
    for file in (*files, BUILD / "setobdconf.cgi", *RUNTIME.rglob("*.so"), RUNTIME / "bin/java"):
        needed.update(machine.libraries(file))
    for library in needed:
        if "/jvm/" not in library and not library.startswith(str(BUILD)):
            target = tree / library.lstrip("/")
            target.parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(library, target)
    for tool in tools():
        (tree / "bin" / tool).symlink_to("busybox")
    shutil.copy("/bin/busybox", tree / "bin")
    settings = tree / "etc/vemo-web/web-server.conf"
    settings.write_text(settings.read_text().replace('"127.0.0.1"', '"0.0.0.0"', 1))
    shutil.copy(SOURCE / "standin/obd.conf", tree / booted.SETTINGS.lstrip("/"))
    (tree / "etc/passwd").write_text("root:x:0:0::/:/bin/sh\nvemo-web:x:1000:1000::/:/bin/sh\n")
    (tree / "init").write_text(INIT)
    for folder in ("app/tarn-belox/runvex", "run/vemo-web", "tmp", "var/cache/vemo-web"):
        for file in (tree / folder, *(tree / folder).rglob("*")):
            shutil.chown(file, 1000, 1000)


def tools():
    found = subprocess.run(["/bin/busybox", "--list"], capture_output=True, text=True, check=True).stdout
    return set(found.split()) - {"busybox"}


class Answer:
    """What a browser gets. `status` is 0 when there is none."""

    def __init__(self, port, value):
        self.value = value
        self.page = b""
        try:
            with socket.create_connection(("127.0.0.1", port), timeout=LIMIT) as connection:
                connection.sendall(f"GET /setobdconf.cgi?CanDetectTimeout={value} HTTP/1.0\r\n"
                                   "Host: localhost\r\n\r\n".encode())
                while chunk := connection.recv(65536):
                    self.page += chunk
        except OSError:
            pass
        self.page = self.page.decode("iso-8859-1")
        first = re.match(r"HTTP/1\.\d (\d+)", self.page)
        self.status = int(first[1]) if first else 0

    def is_served(self):
        return (self.status == 200 and f"<p>Set CanDetectTimeout to {self.value} ms.\n" in self.page
                and SUCCESS in self.page and self.page.endswith("</html>\n"))

    def __repr__(self):
        return f"{self.status}, {'served' if self.is_served() else 'ending in ' + repr(self.page[-60:])}"


class Device(booted.Device):
    """The booted machine. `keeps`: what it writes is on the disk afterwards."""

    def __init__(self, disk, memory, keeps=True, task="serve"):
        kernel = machine.Kernel(FOLDER / "kernel")
        initramfs = FOLDER / "floor.initramfs"
        if not initramfs.exists() or task == "archive":
            machine.make_initramfs(initramfs, kernel, {}, booted.initramfs("/bin/busybox sh /init"),
                                   machine.DISK + machine.NETWORK)
        super().__init__(kernel, initramfs, disk, () if keeps else ("-snapshot",),
                         memory_mib=memory, parameters=f"net.ifnames=0 task={task}")

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.machine.kill()

    def wait_until_ready(self):
        self.machine.wait_for("^ready$", LIMIT)
        end = time.monotonic() + LIMIT
        while "HTTP/1" not in self.home():
            if time.monotonic() > end:
                raise machine.MachineError("the web server does not answer")
            time.sleep(0.1)

    def leave(self, mib):
        """Takes what is free but for so much; as something else on the device would."""
        status, told = self.run(
            "mkdir /taken; mount -t tmpfs -o size=100% tmpfs /taken; sync; "
            "free=$(sed -n 's/^MemAvailable: *\\([0-9]*\\) kB/\\1/p' /proc/meminfo); "
            f"dd if=/dev/zero of=/taken/file bs=1k count=$((free - {mib} * 1024))")
        if status:
            raise machine.MachineError(told)

    def home(self):
        try:
            with socket.create_connection(("127.0.0.1", self.port), timeout=5) as connection:
                connection.sendall(b"GET /index.html HTTP/1.0\r\nHost: localhost\r\n\r\n")
                return connection.recv(100).decode("iso-8859-1")
        except OSError:
            return ""

    def ask_at_once(self, *values):
        with concurrent.futures.ThreadPoolExecutor(len(values)) as clients:
            return list(clients.map(lambda value: Answer(self.port, value), values))


def serves(disk, available, requests):
    """Whether so many requests at once are served, twice, with so much memory left to them."""
    with Device(disk, MACHINE, keeps=False) as device:
        device.wait_until_ready()
        device.leave(available)
        for first in (1000, 2000):
            answers = device.ask_at_once(*range(first, first + requests))
            if not all(answer.is_served() for answer in answers):
                return False
        return True


def boots(disk, memory, requests):
    """Whether they are served by a machine that has so much memory in all."""
    with Device(disk, memory, keeps=False) as device:
        try:
            device.wait_until_ready()
        except machine.MachineError:
            return False
        return all(answer.is_served() for answer in device.ask_at_once(*range(1000, 1000 + requests)))


def least(is_enough, low, high):
    """The least MiB."""
    while high - low > 1:
        middle = (low + high) // 2
        result = is_enough(middle)
        print(f"  {middle} MiB: {'enough' if result else 'too little'}", flush=True)
        low, high = (low, middle) if result else (middle, high)
    return high


def attempt(disk, available):
    with Device(disk, MACHINE, keeps=False) as device:
        device.wait_until_ready()
        device.leave(available)
        for requests in (1, 4):
            print(device.ask_at_once(*range(1000, 1000 + requests)))
            print(device.run(f"tail -n 12 {booted.LOG}; cat {ERRORS}; grep VEMODCan {booted.SETTINGS}; "
                             "dmesg | grep -iE 'out of memory|oom|killed' | tail -n 12")[1], flush=True)


def told(column="memory left for them"):
    """What docs/on-a-device.md tells: the least MiB, by the number of requests at once."""
    return {int(row["requests at once"]): int(row[column].removesuffix(" MiB"))
            for row in pages.rows("docs/on-a-device.md") if column in row}


class Floor(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.disk = cls.enterClassContext(made_disk())

    def test_a_little_above_what_is_told_requests_are_served(self):
        self.assertEqual(sorted(told()), [1, 4])
        for requests, mib in told().items():
            with self.subTest(requests):
                self.assertTrue(serves(self.disk, mib + MARGIN, requests))

    def test_a_machine_with_little_more_memory_in_all_serves_requests(self):
        column = told("all memory, with Debian's cloud kernel")
        self.assertEqual(sorted(column), [1, 4])
        for requests, mib in column.items():
            with self.subTest(requests):
                self.assertTrue(boots(self.disk, mib + MARGIN, requests))

    def test_far_below_it_the_page_is_cut_the_logs_tell_and_nothing_is_lost(self):
        with Device(self.disk, MACHINE) as device:
            device.wait_until_ready()
            device.leave(told()[1] * 2 // 3)
            answer = Answer(device.port, 1000)
            # A minute is not always enough for the page's head. Then the server says it in a page of its own.
            self.assertIn(answer.status, (200, 500), answer)
            self.assertNotIn("<h2>", answer.page)
            # The server says it when it has seen the end, which it may after it answered.
            _, errors = device.run(f"for try in 1 2 3 4 5; do grep 'died with' {ERRORS} && break; sleep 1; done; "
                                   f"cat {ERRORS}")
            end = re.search(r"CGI pid (\d+) died with signal (9|14)$", errors, re.MULTILINE)
            self.assertIsNotNone(end, errors)
            print(f"{answer}; {end[0]}")
            if end[2] == "9":
                self.assertRegex(device.run("dmesg")[1], rf"Out of memory: Killed process {end[1]} \(setobdconf")
            self.expect_whole(device, 300)
            # As soon as there is memory again, without a start of anything.
            device.run("umount /taken")
            answer = Answer(device.port, 2000)
            self.assertTrue(answer.is_served(), answer)
            self.expect_whole(device, 2000)

    def expect_whole(self, device, value):
        """The settings file holds this value, and all else as it was; the log whole lines."""
        self.assertEqual(device.read(booted.SETTINGS), booted.settings_with(value))
        log = device.read(booted.LOG)
        self.assertEqual([line for line in log.splitlines(True) if not LOG_LINE.fullmatch(line)], [])


def main():
    match sys.argv[2:]:
        case ["search"]:
            with made_disk() as disk:
                for requests in (1, 4):
                    print(f"{requests} at once, left for them:", flush=True)
                    print(least(lambda mib: serves(disk, mib, requests), 8, 64), "MiB")
                for requests in (1, 4):
                    print(f"{requests} at once, the whole machine with this kernel:", flush=True)
                    print(least(lambda mib: boots(disk, mib, requests), 48, 144), "MiB")
        case ["try", mib]:
            with made_disk() as disk:
                attempt(disk, int(mib))
        case [*test] if all(name.startswith("Floor") for name in test):
            if reason := root.why_not():
                print(f"skipped '{reason}'\nOK (skipped=1)")
                return
            unittest.main(argv=sys.argv[:1] + test, verbosity=2)
        case _:
            sys.exit(__doc__)


if __name__ == "__main__":
    main()
