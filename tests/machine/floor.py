"""How little memory a device may have: a kernel, busybox, the web server, the programs, a Java runtime.

    python3 -B tests/machine/floor.py BUILD [Floor.TEST]    at the figures of docs/on-a-device.md
    python3 -B tests/machine/floor.py BUILD search          finds the figures

No swap; vm.overcommit_memory is the kernel's own, 0. What is in memory for good: the kernel, the shell that
is its first process, the web server. The disk is ext4, with /tmp and /run on it.
"""

import concurrent.futures
import contextlib
import pathlib
import re
import shutil
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
WEB_SERVER = pathlib.Path("/usr/sbin/lighttpd")
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

# The shell that the test talks to is not part of the device. The kernel must not choose it to be ended.
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
    path = FOLDER / "floor.disk"
    try:
        filled_tree().make_disk(path, "400M", "-m", "0")
        with Device(path, PLENTY, task="archive") as device:
            if "archive made" not in device.machine.wait_until_off(LIMIT):
                raise machine.MachineError(device.machine.console())
        yield path
    finally:
        path.unlink(missing_ok=True)


def filled_tree():
    written = ("app/tarn-belox/runvex", "run/vemo-web", "tmp", "var/cache/vemo-web")
    tree = machine.Tree(FOLDER / "floor.d", *written, "bin", "lib64", "sbin", "usr/bin", "usr/lib/jvm", "var/log")
    made = root.packages(BUILD)
    for name in ("vemo-web", "vemo-web-standin"):
        subprocess.run(["dpkg-deb", "--extract", made[name], tree.path], check=True)
    subprocess.run(["cp", "-a", RUNTIME, tree.file("usr/lib/jvm/default-java")], check=True)
    modules = re.findall(r'"(mod_\w+)"', (SOURCE / "web/lighttpd/lighttpd.conf").read_text(encoding="utf-8"))
    files = [WEB_SERVER, *filter(pathlib.Path.exists, (MODULES / f"{name}.so" for name in modules))]
    needed = {}
    for file in (*files, BUILD / "setobdconf.cgi", *RUNTIME.rglob("*.so"), RUNTIME / "bin/java"):
        needed.update(machine.libraries(file))
    files += [file for file in map(pathlib.Path, needed) if BUILD not in file.parents and "/jvm/" not in str(file)]
    for file in files:
        tree.file(file.parent).mkdir(parents=True, exist_ok=True)
        shutil.copy(file, tree.file(file))
    shutil.copy("/bin/busybox", tree.file("bin"))
    tools = subprocess.run(["/bin/busybox", "--list"], stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    for tool in {*tools} - {"busybox"}:
        tree.file(f"bin/{tool}").symlink_to("busybox")
    machine.listen_to_outside(tree.file("etc/vemo-web/web-server.conf"))
    tree.copy(pathlib.PurePath(booted.SETTINGS).parent, SOURCE / "standin/obd.conf")
    tree.write("etc/passwd", "root:x:0:0::/:/bin/sh\nvemo-web:x:1000:1000::/:/bin/sh\n")
    tree.write("init", INIT)
    for folder in written:
        for file in (tree.file(folder), *tree.file(folder).rglob("*")):
            shutil.chown(file, 1000, 1000)
    return tree


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
        while self.get("/index.html", 5)[0] == 0:
            if time.monotonic() > end:
                raise machine.MachineError("the web server does not answer")
            time.sleep(0.1)

    def leave(self, mib):
        """Takes what is free but for so much; as something else on the device would."""
        self.expect("mkdir /taken; mount -t tmpfs -o size=100% tmpfs /taken; sync; "
                    "free=$(sed -n 's/^MemAvailable: *\\([0-9]*\\) kB/\\1/p' /proc/meminfo); "
                    f"dd if=/dev/zero of=/taken/file bs=1k count=$((free - {mib} * 1024))")

    def store(self, value):
        """Status and page of a request, and whether it was served."""
        status, page = self.get(f"/setobdconf.cgi?CanDetectTimeout={value}", LIMIT)
        is_served = (status == 200 and f"<p>Set CanDetectTimeout to {value} ms.\n" in page and SUCCESS in page
                     and page.endswith("</html>\n"))
        return status, page, is_served

    def serves_at_once(self, requests, first=1000):
        with concurrent.futures.ThreadPoolExecutor(requests) as clients:
            return all(is_served for *_, is_served in clients.map(self.store, range(first, first + requests)))


def serves(disk, available, requests):
    """Whether so many requests at once are served, twice, with so much memory left to them."""
    with Device(disk, MACHINE, keeps=False) as device:
        device.wait_until_ready()
        device.leave(available)
        return all(device.serves_at_once(requests, first) for first in (1000, 2000))


def boots(disk, memory, requests):
    """Whether they are served by a machine that has so much memory in all."""
    with Device(disk, memory, keeps=False) as device:
        try:
            device.wait_until_ready()
        except machine.MachineError:
            return False
        return device.serves_at_once(requests)


def least(is_enough, low, high):
    """The least MiB."""
    while high - low > 1:
        middle = (low + high) // 2
        result = is_enough(middle)
        print(f"  {middle} MiB: {'enough' if result else 'too little'}", flush=True)
        low, high = (low, middle) if result else (middle, high)
    return high


def documented(column):
    """What docs/on-a-device.md says: the least MiB, by the number of requests at once."""
    return {int(row["requests at once"]): int(row[column].removesuffix(" MiB"))
            for row in pages.rows("docs/on-a-device.md") if column in row}


LEFT = documented("memory left for them")
IN_ALL = documented("all memory, with Debian's cloud kernel")


class Floor(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.disk = cls.enterClassContext(made_disk())

    def test_a_little_above_the_documented_memory_requests_are_served(self):
        """Above what is left for them, and above what the machine has in all."""
        for is_enough, column in ((serves, LEFT), (boots, IN_ALL)):
            self.assertEqual(sorted(column), [1, 4])
            for requests, mib in column.items():
                with self.subTest(is_enough=is_enough.__name__, requests=requests):
                    self.assertTrue(is_enough(self.disk, mib + MARGIN, requests))

    def test_far_below_it_the_page_is_cut_the_logs_say_so_and_nothing_is_lost(self):
        with Device(self.disk, MACHINE) as device:
            device.wait_until_ready()
            device.leave(LEFT[1] * 2 // 3)
            status, page, _ = device.store(1000)
            # A minute is not always enough for the page's head. Then the server says it in a page of its own.
            self.assertIn(status, (200, 500), page)
            self.assertNotIn("<h2>", page)
            # The server logs it when it has seen the end, which it may after it answered.
            errors = device.expect(f"for try in 1 2 3 4 5; do grep 'died with' {ERRORS} && break; sleep 1; done; "
                                   f"cat {ERRORS}")
            end = re.search(r"CGI pid (\d+) died with signal (9|14)$", errors, re.MULTILINE)
            self.assertIsNotNone(end, errors)
            print(f"{status}, ending in {page[-60:]!r}; {end[0]}")
            if end[2] == "9":
                self.assertRegex(device.run("dmesg")[1], rf"Out of memory: Killed process {end[1]} \(setobdconf")
            self.expect_whole(device, 300)
            # As soon as there is memory again, without a start of anything.
            device.expect("umount /taken")
            *answer, is_served = device.store(2000)
            self.assertTrue(is_served, answer)
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
        case [*test] if all(name.startswith("Floor") for name in test):
            if reason := root.why_not():
                print(f"skipped '{reason}'\nOK (skipped=1)")
                return
            unittest.main(argv=sys.argv[:1] + test, verbosity=2)
        case _:
            sys.exit(__doc__)


if __name__ == "__main__":
    main()
