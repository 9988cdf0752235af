"""The booted device, as it is seen through its web server and on its console."""

import http.client
import pathlib
import re
import socket
import time

import machine

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SETTINGS = "/app/tarn-belox/runvex/obd.conf"
LOG = "/tmp/cgi.log"

# Seconds. Every instruction is emulated, on a host that may be busy.
BOOT = 600
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
STATEMENTS = [("src/SetObdConf", "30"), ("src/JavaVmWrapper", "73"), ("src/JavaVmWrapper", "81"),
              ("src/JavaVmWrapper", "99"), ("src/JavaVmWrapper", "155")]


def statements(log):
    return [tuple(statement.split()) for statement in re.findall(r"src/\S+ +\d+", log)]


def initramfs(init):
    """The script of an initramfs that goes on with `init` of the disk."""
    return f"mkdir /disk\nmount -t ext4 /dev/vda /disk\nexec switch_root /disk {init}\n"


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def shipped_settings():
    return (SOURCE / "standin/obd.conf").read_text(encoding="utf-8")


def settings_with(value):
    return re.sub("(?m)^VEMODCanDetectTimeout=.*", f"VEMODCanDetectTimeout={value}", shipped_settings())


class Device:
    """A machine with a shell on its console, whose port 8080 is `port` here. `more` goes to Machine."""

    def __init__(self, kernel, initramfs_file, disk, arguments=(), **more):
        self._number = 0
        self.port = free_port()
        # The card, and the chance that the machine needs at its start.
        devices = ["-netdev", f"user,id=card,restrict=on,hostfwd=tcp:127.0.0.1:{self.port}-:8080",
                   "-device", "virtio-net-pci,netdev=card", "-device", "virtio-rng-pci"]
        self.machine = machine.Machine(kernel, initramfs_file, [*machine.disk(disk), *devices, *arguments], **more)
        self.started = time.monotonic()

    def ask(self, method, address, body=None, headers=None, seconds=PAGE):
        """Status and page, as far as it came; status 0 when nobody answers."""
        client = http.client.HTTPConnection("localhost", self.port, timeout=seconds)
        try:
            client.request(method, address, body, headers or {})
            answer = client.getresponse()
            try:
                return answer.status, answer.read().decode("iso-8859-1")
            except http.client.IncompleteRead as cut:
                return answer.status, cut.partial.decode("iso-8859-1")
        except (OSError, http.client.HTTPException):
            return 0, ""
        finally:
            client.close()

    def get(self, address, seconds=PAGE):
        return self.ask("GET", address, seconds=seconds)

    def wait_for_page(self):
        """Seconds from power-on to this page."""
        end = time.monotonic() + BOOT
        while True:
            status, page = self.get("/setobdconf.cgi")
            now = time.monotonic()
            if status == 200 and page.endswith("</html>\n"):
                return now - self.started
            if now > end:
                raise TimeoutError(f"{status} {page}\n{self.machine.console()[-3000:]}")
            time.sleep(0.2)

    def run(self, command, seconds=PAGE):
        """Exit status and output of a command of the shell on the console."""
        self._number += 1
        mark = f"{self._number}-{self.port}"
        # The mark is put together there, so that an echo of the order is none.
        self.machine.send(f"stty -echo; echo '<'{mark}'>'; {{ {command}\n}} 2>&1; echo \"<$?/\"'{mark}>'\n")
        found = self.machine.wait_for(rf"(?s)<{mark}>\n(.*?)<(\d+)/{mark}>", seconds)
        return int(found[2]), found[1]

    def expect(self, command, status=0, seconds=PAGE):
        """Output of a command that must end with this status."""
        found, text = self.run(command, seconds)
        if found != status:
            raise AssertionError(f"{command} ended with {found}:\n{text}")
        return text

    def read(self, path):
        return self.expect(f"cat {path}")


class Requests:
    """For a TestCase with `device`. `ARCHIVE`: the folder of its class archive."""

    def test_3_page_settings_file_and_log_are_as_they_must_be(self):
        before = self.device.expect(f"wc -l <{LOG}")
        status, page = self.device.get("/setobdconf.cgi?CanDetectTimeout=750")
        self.assertEqual(status, 200)
        self.assertIn("<p>Set CanDetectTimeout to 750 ms.\n</p>Set new option was successful.<br />\n", page)
        self.assertEqual(self.device.read(SETTINGS), settings_with(750))
        lines = self.device.expect(f"tail -n +{int(before) + 1} {LOG}").splitlines()
        self.assertEqual([statements(line) for line in lines], [[statement] for statement in STATEMENTS])
        self.assertIn(f"{self.ARCHIVE}/java.options", lines[2])

    def test_3_the_java_side_knows_the_devices_address(self):
        """Also where the service may not ask the kernel by netlink, and sees nothing of /proc/net."""
        _, page = self.device.get("/channeldeviceconfig.cgi")
        self.assertIn("10.0.2.15", page)
