"""The booted device, as it is seen through its web server and on its console; and what holds for each of them."""

import contextlib
import functools
import http.client
import pathlib
import re
import socket
import time

import machine

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SETTINGS = "/app/tarn-belox/runvex/obd.conf"
LOG = "/tmp/cgi.log"
SHIPPED_SETTINGS = (SOURCE / "standin/obd.conf").read_text(encoding="utf-8")

# Seconds. Every instruction is emulated, on a host that may be busy.
BOOT = 900
PAGE = 240

# What begins the init of a disk that has no systemd.
MOUNTS_AND_NETWORK = """
mount -t proc proc /proc
mount -t sysfs sys /sys
mount -t devtmpfs dev /dev
ip link set lo up
ip address add 10.0.2.15/24 dev eth0
ip link set eth0 up
"""
# What a stored value logs: source and number of each statement.
STATEMENTS = [["src/SetObdConf", "30"], ["src/JavaVmWrapper", "73"], ["src/JavaVmWrapper", "81"],
              ["src/JavaVmWrapper", "99"], ["src/JavaVmWrapper", "155"]]
FORM = {"Content-Type": "application/x-www-form-urlencoded"}


def make_initramfs(path, kernel, init, modules, **more):
    """One that goes on with `init` of the disk."""
    script = f"mkdir /disk\nmount -t ext4 /dev/vda /disk\nexec switch_root /disk {init}\n"
    return machine.make_initramfs(path, kernel, script, modules=machine.DISK + machine.NETWORK + modules, **more)


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def settings_with(value):
    return re.sub("(?m)^VEMODCanDetectTimeout=.*", f"VEMODCanDetectTimeout={value}", SHIPPED_SETTINGS)


class Device:
    """A machine with a shell on its console, whose port 8080 is `port` here; `archive`: the folder of its class
    archive. `more` goes to Machine."""

    def __init__(self, kernel, initramfs, disk, arguments=(), archive="", **more):
        self._number = 0
        self.port = free_port()
        self.archive = archive
        # The disk, of which nothing is held back: what was written outlives a kill. The card. The chance that the
        # machine needs at its start.
        devices = ["-drive", f"file={disk},format=raw,if=virtio,cache=writeback",
                   "-netdev", f"user,id=card,restrict=on,hostfwd=tcp:127.0.0.1:{self.port}-:8080",
                   "-device", "virtio-net-pci,netdev=card", "-device", "virtio-rng-pci"]
        self._start = functools.partial(machine.Machine, kernel, initramfs, [*devices, *arguments], **more)
        self.boot()

    def boot(self):
        self.machine = self._start()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.machine.kill()

    def ask(self, method, address, body=None, headers=None, seconds=PAGE, pause=0):
        """Status and page, as far as it came; status 0 when nobody answers. The connection is there before the
        request, by the seconds of `pause`."""
        with contextlib.closing(http.client.HTTPConnection("localhost", self.port, timeout=seconds)) as client:
            try:
                client.connect()
                time.sleep(pause)
                client.request(method, address, body, headers or {})
                answer = client.getresponse()
            except (OSError, http.client.HTTPException):
                return 0, ""
            try:
                return answer.status, answer.read().decode("iso-8859-1")
            except http.client.IncompleteRead as cut:
                return answer.status, cut.partial.decode("iso-8859-1")

    def get(self, address, seconds=PAGE, pause=0):
        return self.ask("GET", address, seconds=seconds, pause=pause)

    def wait_for_page(self):
        end = time.monotonic() + BOOT
        while not re.search(r"(?s)Option CanDetectTimeout not set.*</html>\n\Z", self.get("/setobdconf.cgi")[1]):
            assert time.monotonic() < end, self.machine.console()[-3000:]
            time.sleep(0.2)

    def run(self, command, seconds=PAGE):
        """Exit status and output of a command of the shell on the console."""
        self._number += 1
        mark = f"{self._number}-{self.port}"
        # The mark is put together there, so that an echo of the order is none. A dumb terminal gets no pager.
        self.machine.send(f"stty -echo; TERM=dumb; echo '<'{mark}'>'; {{ {command}\n}} 2>&1; echo \"<$?/\"'{mark}>'\n")
        found = self.machine.wait_for(rf"(?s)<{mark}>\n(.*?)<(\d+)/{mark}>", seconds)
        return int(found[2]), found[1]

    def expect(self, command, status=0, seconds=PAGE):
        """Output of a command that must end with this status."""
        found, text = self.run(command, seconds)
        assert found == status, f"{command} ended with {found}:\n{text}"
        return text

    def read(self, path):
        return self.expect(f"cat {path}")


# --- For each module that imports them; with its fixture `device`, which has the shipped settings


def test_page_settings_file_and_log_are_as_they_must_be(device):
    before = device.expect(f"wc -l <{LOG}")
    status, page = device.get("/setobdconf.cgi?CanDetectTimeout=750")
    assert status == 200
    # And not a word of the Java VM's.
    assert page.startswith("\n<!DOCTYPE HTML") and page.endswith("</html>\n"), page
    assert "<p>Set CanDetectTimeout to 750 ms.\n</p>Set new option was successful.<br />\n" in page
    assert device.read(SETTINGS) == settings_with(750)
    lines = device.expect(f"tail -n +{int(before) + 1} {LOG}").splitlines()
    assert [line.split()[5:7] for line in lines] == STATEMENTS
    assert f"{device.archive}/java.options" in lines[2]


def test_the_java_side_knows_the_devices_address(device):
    """Also where the service may not ask the kernel by netlink, and sees nothing of /proc/net."""
    assert "10.0.2.15" in device.get("/channeldeviceconfig.cgi")[1]
