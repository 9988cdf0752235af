"""The packages on a machine of their own: a bare Debian 12, booted in an emulated machine, with a real
browser in front of it, and its power cut while it works.

    python3 -B tests/machine/installed.py BUILD
"""

import http.client
import pathlib
import re
import shlex
import shutil
import socket
import subprocess
import sys
import threading
import time
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "tests/packaging"), str(SOURCE / "tests/web"),
             str(SOURCE / "tests/docs")]

import browser  # noqa: E402
import browser_journey  # noqa: E402
import commands  # noqa: E402
import machine  # noqa: E402
import root  # noqa: E402

FOLDER = BUILD / "machine"
SETTINGS = "/app/tarn-belox/runvex/obd.conf"
LOG = "/tmp/cgi.log"
LOG_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  (DEBUG|ERROR) +\S+ +\d+ +\S+ +\d+ ")

# Seconds. Every instruction is emulated, on a host that may be busy.
BOOT = 600
PAGE = 240

# The kernel's modules for a network card, each behind what it needs.
NETWORK = ("../net/core/failover", "net/net_failover", "net/virtio_net")
INIT = """
for module in failover net_failover virtio_net; do insmod "/modules/$module.ko"; done
mkdir /disk
mount /dev/vda /disk
exec switch_root /disk /sbin/init
"""

# A shell on the serial console; nobody logs in.
SHELL = """[Unit]
Description=Shell of the test
After=basic.target
[Service]
ExecStart=/bin/bash --norc --noediting
StandardInput=tty
StandardOutput=tty
StandardError=tty
TTYPath=/dev/ttyS0
Environment=PS1= TERM=dumb HISTFILE=
[Install]
WantedBy=multi-user.target
"""
NETWORKD = "[Match]\nName=en* eth*\n[Network]\nAddress=10.0.2.15/24\nGateway=10.0.2.2\n"


def free_port():
    with socket.socket() as listener:
        listener.bind(("127.0.0.1", 0))
        return listener.getsockname()[1]


def make_disk(path):
    """What `apt install` leaves in a bare root, with an address that the outside can reach."""
    device = root.Root(BUILD, "machine")
    try:
        made = root.packages(BUILD)
        device.install(made["vemo-web"], made["vemo-web-standin"])
        configuration = device.file("/etc/vemo-web/web-server.conf")
        text = configuration.read_text(encoding="utf-8")
        configuration.write_text(text.replace('"127.0.0.1"', '"0.0.0.0"', 1), encoding="utf-8")
        device.file("/etc/systemd/network/card.network").write_text(NETWORKD, encoding="utf-8")
        device.file("/etc/systemd/system/test-shell.service").write_text(SHELL, encoding="utf-8")
        device.file("/etc/fstab").write_text("/dev/vda / ext4 defaults 0 1\n", encoding="utf-8")
        device.file("/etc/hostname").write_text("vemo\n", encoding="utf-8")
        device.run("systemctl", "enable", "systemd-networkd", "test-shell")
        # Debian's own web server comes with it, and is not wanted.
        device.run("systemctl", "mask", "lighttpd", "serial-getty@ttyS0", "apt-daily.timer",
                   "apt-daily-upgrade.timer")
        device.run("sh", "-c", "rm -rf /root/*.deb /var/cache/apt/archives/*.deb /var/lib/apt/lists/*")
        path.unlink(missing_ok=True)
        subprocess.run(["mkfs.ext4", "-q", "-d", device.path, path, "1500M"], check=True)
    finally:
        device.close()


class Device:
    """The booted machine."""

    def __init__(self, disk):
        kernel = machine.Kernel(FOLDER / "kernel")
        modules = {f"/modules/{pathlib.PurePath(m).name}.ko": kernel.drivers / f"{m}.ko" for m in NETWORK}
        initramfs = FOLDER / "installed.initramfs"
        machine.make_initramfs(initramfs, kernel, modules, INIT)
        self.port = free_port()
        self._number = 0
        self.machine = machine.Machine(kernel, initramfs, [
            *machine.disk(disk),
            "-netdev", f"user,id=card,restrict=on,hostfwd=tcp:127.0.0.1:{self.port}-:8080",
            "-device", "virtio-net-pci,netdev=card", "-device", "virtio-rng-pci",
        ], memory_mib=1024, parameters="systemd.show_status=0 net.ifnames=0")
        self.started = time.monotonic()

    def get(self, address, seconds=PAGE):
        """Status and page; status 0 when nobody answers."""
        client = http.client.HTTPConnection("localhost", self.port, timeout=seconds)
        try:
            client.request("GET", address)
            answer = client.getresponse()
            return answer.status, answer.read().decode("iso-8859-1")
        except (OSError, http.client.HTTPException):
            return 0, ""
        finally:
            client.close()

    def wait_for_page(self):
        """Seconds from power-on to the first page."""
        while True:
            status, page = self.get("/setobdconf.cgi")
            taken = time.monotonic() - self.started
            if status == 200 and page.endswith("</html>\n"):
                return taken
            if taken > BOOT:
                raise TimeoutError(f"{status} {page}\n{self.machine.console()[-3000:]}")
            time.sleep(0.2)

    def run(self, command):
        """Exit status and output of a command of the shell on the console."""
        self._number += 1
        mark = f"{self._number}-{self.port}"
        # The mark is put together there, so that an echo of the order is none.
        self.machine.send(f"stty -echo; echo '<'{mark}'>'; {{ {command}\n}} 2>&1; echo \"<$?/\"'{mark}>'\n")
        found = self.machine.wait_for(rf"(?s)<{mark}>\n(.*?)<(\d+)/{mark}>", PAGE)
        return int(found[2]), found[1]

    def read(self, path):
        status, text = self.run(f"cat {path}")
        if status != 0:
            raise AssertionError(text)
        return text


class Installed(browser_journey.Journey):
    """The browser's journey, and more, on the booted machine. In the order of their names; the last cuts
    the power."""

    @classmethod
    def setUpClass(cls):
        cls.disk = FOLDER / "installed.disk"
        make_disk(cls.disk)
        cls.addClassCleanup(cls.disk.unlink)
        cls.boot()
        cls.addClassCleanup(lambda: cls.device.machine.kill())
        Installed.driver = cls.enterClassContext(browser.running_browser())

    @classmethod
    def boot(cls):
        cls.device = Device(cls.disk)
        print(f"from power-on to the first page: {cls.device.wait_for_page():.1f} s", file=sys.stderr)
        browser.PORT = cls.device.port
        browser.ROOT = f"http://localhost:{browser.PORT}"
        browser.LIMIT = PAGE
        shipped = (SOURCE / "device/obd.conf").read_text(encoding="utf-8")
        browser.write_shipped_settings = lambda: cls.device.run(
            f"cat >{SETTINGS} <<'END'\n{shipped}END\nchown vemo-web: {SETTINGS}")
        browser.read_settings = lambda: cls.device.read(SETTINGS)

    def test_1_the_service_is_up_by_itself_and_the_check_is_content(self):
        self.expect_content()

    def expect_content(self):
        # The service makes the class archive while it serves already: the disk is a copy.
        self.device.run("systemctl start vemo-web")
        status, told = self.device.run("vemo-web-check")
        self.assertEqual(status, 0, told)
        self.assertNotIn("WRONG", told)

    def test_1_the_commands_of_the_pages(self):
        for command, rule in commands.commands_in(("machine",)):
            with self.subTest(page=command.page, command=command.text):
                status, told = self.device.run(f"bash -c {shlex.quote(commands.script(command, rule))}")
                self.assertEqual(status, rule.status, told)
                self.assertRegex(told, f"(?m){rule.says}")
        self.device.wait_for_page()

    def test_2_nothing_but_its_own_is_writable_for_the_service(self):
        """Looked at in the service's own view of the system."""
        _, number = self.device.run("systemctl show --property MainPID --value vemo-web")
        enter = (f"nsenter --target {number.strip()} --mount setpriv --reuid vemo-web --regid vemo-web "
                 "--clear-groups")
        for place, is_allowed in ((SETTINGS, True), ("/app/tarn-belox/runvex/new", True), (LOG, True),
                                  ("/run/vemo-web/new", True), ("/tmp/new", False), ("/var/tmp/new", False),
                                  ("/var/cache/vemo-web/archive/record", False), ("/dev/shm/new", False)):
            with self.subTest(place):
                status, told = self.device.run(f"{enter} sh -c ': >>{place}'")
                self.assertEqual(status == 0, is_allowed, told)
        self.device.run("rm -f /app/tarn-belox/runvex/new")

    def test_3_page_settings_file_and_log_are_as_they_must_be(self):
        _, before = self.device.run(f"wc -l <{LOG}")
        status, page = self.device.get("/setobdconf.cgi?CanDetectTimeout=750")
        self.assertEqual(status, 200)
        self.assertIn("<p>Set CanDetectTimeout to 750 ms.\n</p>Set new option was successful.<br />\n", page)
        shipped = (SOURCE / "device/obd.conf").read_text(encoding="utf-8")
        self.assertEqual(self.device.read(SETTINGS),
                         re.sub("(?m)^VEMODCanDetectTimeout=.*", "VEMODCanDetectTimeout=750", shipped))
        _, lines = self.device.run(f"tail -n +{int(before) + 1} {LOG}")
        texts = [line[line.index("src/"):].split(None, 2) for line in lines.splitlines()]
        self.assertEqual([(text[0], text[1]) for text in texts],
                         [("src/SetObdConf", "30"), ("src/JavaVmWrapper", "73"), ("src/JavaVmWrapper", "81"),
                          ("src/JavaVmWrapper", "99"), ("src/JavaVmWrapper", "155")])
        self.assertIn("/var/cache/vemo-web/archive/java.options", texts[2][2])

    def test_3_the_java_side_tells_the_devices_address(self):
        """Though the service may not ask the kernel by netlink, and sees nothing of /proc/net."""
        _, page = self.device.get("/channeldeviceconfig.cgi")
        self.assertIn("10.0.2.15", page)

    def test_4_rotation_in_the_midst_loses_no_request(self):
        status, told = self.device.run(
            f"head -c 2000000 /dev/zero | tr '\\0' '\\n' >>{LOG}; logrotate /etc/logrotate.d/vemo-web; "
            f"stat --format=%U:%G:%a:%s {LOG}")
        self.assertEqual((status, told.strip()), (0, "root:vemo-web:660:0"))
        self.device.wait_for_page()
        self.assertIn("src/SetObdConf", self.device.read(LOG))
        self.expect_content()

    def test_z_nothing_is_lost_when_the_power_is_cut(self):
        answered = []
        is_over = threading.Event()

        def order(start):
            value = start
            while not is_over.is_set():
                status, page = self.device.get(f"/setobdconf.cgi?CanDetectTimeout={value}", 30)
                if status == 200 and "Set new option was successful." in page:
                    answered.append(value)
                    value += 2

        clients = [threading.Thread(target=order, args=(start,)) for start in (100000, 200001)]
        for client in clients:
            client.start()
        end = time.monotonic() + PAGE
        while len(answered) < 6 and time.monotonic() < end:
            time.sleep(0.05)
        self.device.machine.kill()
        is_over.set()
        for client in clients:
            client.join()
        print(f"orders answered before the power cut: {len(answered)}", file=sys.stderr)
        self.assertGreaterEqual(len(answered), 6)

        self.boot()
        shipped = (SOURCE / "device/obd.conf").read_text(encoding="utf-8")
        found = re.fullmatch(
            re.escape(shipped).replace("VEMODCanDetectTimeout=300", r"VEMODCanDetectTimeout=(\d+)"),
            self.device.read(SETTINGS))
        self.assertIsNotNone(found, self.device.read(SETTINGS))
        # The last that was answered, or one that was under way: of each client the next but one at most.
        value = int(found[1])
        last = [max((v for v in answered if v % 2 == parity), default=0) for parity in (0, 1)]
        self.assertIn(value, {v + more for v in last for more in (0, 2)})
        for line in self.device.read(LOG).splitlines():
            self.assertRegex(line, LOG_LINE)
        self.expect_content()


def load_tests(loader, *_):
    return loader.loadTestsFromTestCase(Installed)


if __name__ == "__main__":
    if reason := root.why_not():
        print(f"skipped '{reason}'\nOK (skipped=1)")
        sys.exit()
    for tool in ("qemu-system-x86_64", "mkfs.ext4", "chromedriver"):
        assert shutil.which(tool), f"{tool} is missing"
    unittest.main(verbosity=2)
