"""How little memory a device may have: a kernel, busybox, the web server, the programs, a Java runtime.

    python3 -B -m pytest tests/machine/floor.py --build BUILD    at the figures of docs/on-a-device.md
    python3 -B tests/machine/floor.py BUILD search               finds the figures

No swap; vm.overcommit_memory is the kernel's own, 0. What is in memory for good: the kernel, the shell that
is its first process, the web server. The disk is ext4, with /tmp and /run on it.
"""

import bisect
import concurrent.futures
import contextlib
import pathlib
import re
import shutil
import subprocess
import sys

import pytest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "tests/packaging"), str(SOURCE / "tests/docs")]

import booted  # noqa: E402
import machine  # noqa: E402
import pages  # noqa: E402
import root  # noqa: E402

WEB_SERVER = pathlib.Path("/usr/sbin/lighttpd")
ERRORS = "/var/log/web-server"
READY = "^ready$"
# The service's own, as the packages make them.
WRITTEN = ("app/tarn-belox/runvex", "run/vemo-web", "tmp", "var/cache/vemo-web")
LOG_LINE = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  (DEBUG|ERROR) +cgi +\d+ +src/\S+ +\d+ +\S.*\n")
# Seconds. The gate ends a program after 60.
LIMIT = 150
# MiB
MACHINE = 160
MARGIN = 8

# The shell that the test talks to is not part of the device. The kernel must not choose it to be ended.
INIT = f"""
export PATH=/bin:/sbin:/usr/bin
{booted.MOUNTS_AND_NETWORK}
if [ "$task" = archive ]; then
  programs=/usr/libexec/vemo-web
  su vemo-web -c "$programs/make-class-archive $programs/setobdconf.cgi /etc/vemo-web/java.options \\
    /usr/share/vemo-web/java /var/cache/vemo-web/archive" && echo archive made
  rm -f {booted.LOG}
  sync
  poweroff -f
fi
su vemo-web -c "exec {WEB_SERVER} -D -f /usr/share/vemo-web/lighttpd.conf" 2>>{ERRORS} </dev/null &
echo -1000 >/proc/self/oom_score_adj
: >>{booted.LOG}
chown vemo-web {booted.LOG}
until wget -q -O /dev/null http://127.0.0.1:8080/index.html; do sleep 0.1; done
echo ready
exec setsid -c sh -c "while true; do sh; done" <>/dev/console >&0 2>&1
"""


def filled_tree(build):
    tree = machine.Tree(build / "machine/floor.d", *WRITTEN, "bin", "lib64", "sbin", "sys", "usr/bin", "usr/lib/jvm",
                        "var/log")
    made = root.packages(build)
    for name in ("vemo-web", "vemo-web-standin"):
        subprocess.run(["dpkg-deb", "--extract", made[name], tree.path], check=True)
    runtime = build / "java-runtime"
    subprocess.run(["cp", "-a", runtime, tree.file("usr/lib/jvm/default-java")], check=True)
    modules = re.findall(r'"(mod_\w+)"', (SOURCE / "web/lighttpd/lighttpd.conf").read_text(encoding="utf-8"))
    files = [WEB_SERVER, *(file for file in pathlib.Path("/usr/lib/lighttpd").glob("*.so") if file.stem in modules)]
    needed = machine.libraries(*files, build / "setobdconf.cgi", *runtime.rglob("*.so"), runtime / "bin/java")
    files += [file for file in map(pathlib.Path, needed) if build not in file.parents and "/jvm/" not in str(file)]
    for file in files:
        shutil.copy(file, tree.file(file))
    shutil.copy("/bin/busybox", tree.file("bin"))
    tools = subprocess.run(["/bin/busybox", "--list"], stdout=subprocess.PIPE, text=True, check=True).stdout.split()
    for tool in {*tools} - {"busybox"}:
        tree.file(f"bin/{tool}").symlink_to("busybox")
    machine.listen_to_outside(tree.file("etc/vemo-web/web-server.conf"))
    tree.file(booted.SETTINGS).write_text(booted.SHIPPED_SETTINGS, encoding="utf-8")
    tree.file("etc/passwd").write_text("root:x:0:0::/:/bin/sh\nvemo-web:x:1000:1000::/:/bin/sh\n", encoding="utf-8")
    tree.file("init").write_text(INIT, encoding="utf-8")
    subprocess.run(["chown", "-R", "1000:1000", *map(tree.file, WRITTEN)], check=True)
    return tree


class Device(booted.Device):
    """The booted machine. `keeps`: what it writes is on the disk afterwards."""

    def __init__(self, disk, memory, keeps=False, task="serve"):
        kernel = machine.Kernel(disk.parent / "kernel")
        initramfs = disk.parent / "floor.initramfs"
        if task == "archive":
            booted.make_initramfs(initramfs, kernel, "/bin/busybox sh /init", ())
        super().__init__(kernel, initramfs, disk, () if keeps else ("-snapshot",),
                         memory_mib=memory, parameters=f"net.ifnames=0 task={task}")

    def leave(self, mib):
        """Takes what is free but for so much; as something else on the device would."""
        self.expect("mkdir /taken; mount -t tmpfs -o size=100% tmpfs /taken; sync; "
                    "free=$(sed -n 's/^MemAvailable: *\\([0-9]*\\) kB/\\1/p' /proc/meminfo); "
                    f"dd if=/dev/zero of=/taken/file bs=1k count=$((free - {mib} * 1024))")

    def store(self, value):
        """Status and page of a request, and whether it was served."""
        status, page = self.get(f"/setobdconf.cgi?CanDetectTimeout={value}", LIMIT)
        is_served = (status == 200 and f"<p>Set CanDetectTimeout to {value} ms.\n" in page
                     and "Set new option was successful." in page and page.endswith("</html>\n"))
        return status, page, is_served

    def serves_at_once(self, requests, first=1000):
        with concurrent.futures.ThreadPoolExecutor(requests) as clients:
            return all(is_served for *_, is_served in clients.map(self.store, range(first, first + requests)))


def is_enough(disk, requests, memory=MACHINE, left=None):
    """Whether so many requests at once are served, twice: by a machine with so much memory in all, or with so much left
    to them."""
    with Device(disk, memory) as device:
        try:
            device.machine.wait_for(READY, LIMIT)
        except TimeoutError:
            return False
        if left:
            device.leave(left)
        return all(device.serves_at_once(requests, first) for first in (1000, 2000))


# The columns of docs/on-a-device.md that say the least MiB, and between which it is.
COLUMNS = {"memory left for them": ("left", 8, 64), "all memory, with Debian's cloud kernel": ("memory", 48, 144)}
DOCUMENTED = {(column, int(row["requests at once"])): int(row[column].removesuffix(" MiB"))
              for row in pages.rows("docs/on-a-device.md") for column in COLUMNS if column in row}


@contextlib.contextmanager
def made_disk(build):
    """What the packages hold and what they need, with the class archive already made. Gone at the end."""
    path = build / "machine/floor.disk"
    try:
        filled_tree(build).make_disk(path, "400M", "-m", "0")
        with Device(path, 512, keeps=True, task="archive") as device:
            assert "archive made" in device.machine.wait_until_off(LIMIT), device.machine.console()
        yield path
    finally:
        path.unlink(missing_ok=True)


@pytest.fixture(scope="module")
def disk(build):
    if reason := root.why_not():
        pytest.skip(reason)
    with made_disk(build) as path:
        yield path


@pytest.mark.parametrize("column, requests", DOCUMENTED)
def test_a_little_above_the_documented_memory_requests_are_served(disk, column, requests):
    assert is_enough(disk, requests, **{COLUMNS[column][0]: DOCUMENTED[column, requests] + MARGIN})


def test_far_below_it_the_page_is_cut_the_logs_say_so_and_nothing_is_lost(disk):
    with Device(disk, MACHINE) as device:
        device.machine.wait_for(READY, LIMIT)
        device.leave(DOCUMENTED["memory left for them", 1] * 2 // 3)
        status, page, _ = device.store(1000)
        # A minute is not always enough for the page's head. Then the server says it in a page of its own.
        assert status in (200, 500), page
        assert "<h2>" not in page
        # The server logs it when it has seen the end, which it may after it answered.
        errors = device.expect(f"for try in $(seq 60); do grep 'died with' {ERRORS} && break; sleep 1; done; "
                               f"cat {ERRORS}")
        end = re.search(r"CGI pid (\d+) died with signal (9|14)$", errors, re.MULTILINE)
        assert end, errors
        if end[2] == "9":
            assert re.search(rf"Out of memory: Killed process {end[1]} \(setobdconf", device.run("dmesg")[1])
        expect_whole(device, 300)
        # As soon as there is memory again, without a start of anything.
        device.expect("umount /taken")
        *answer, is_served = device.store(2000)
        assert is_served, answer
        expect_whole(device, 2000)


def expect_whole(device, value):
    """The settings file holds this value, and all else as it was; the log whole lines."""
    assert device.read(booted.SETTINGS) == booted.settings_with(value)
    log = device.read(booted.LOG)
    assert [line for line in log.splitlines(True) if not LOG_LINE.fullmatch(line)] == []


if __name__ == "__main__":
    if sys.argv[2:] != ["search"]:
        sys.exit(__doc__)
    with made_disk(pathlib.Path(sys.argv[1]).resolve()) as found:
        for name, at_once in DOCUMENTED:
            kind, low, high = COLUMNS[name]
            index = bisect.bisect_left(range(low, high), True, key=lambda mib: is_enough(found, at_once, **{kind: mib}))
            print(f"{name}, {at_once} at once: {low + index} MiB", flush=True)
