"""The packages on a machine of their own: a bare Debian 12, booted in an emulated machine, with a real
browser in front of it, and its power cut while it works. As root; all of it takes about half an hour.

    python3 -B tests/machine/installed.py BUILD [Installed.TEST]
"""

import collections
import concurrent.futures
import contextlib
import http.client
import pathlib
import re
import select
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
sys.path += [str(SOURCE / "tests/web"), str(SOURCE / "tests/packaging"),
             str(SOURCE / "tests/docs")]

from selenium.webdriver.common.by import By  # noqa: E402

import booted  # noqa: E402
import browser  # noqa: E402
import commands  # noqa: E402
import machine  # noqa: E402
import prepared  # noqa: E402
import root  # noqa: E402
import test_journey  # noqa: E402
from booted import LOG, PAGE, SETTINGS  # noqa: E402
from device import eventually  # noqa: E402

FOLDER = BUILD / "machine"
OF_ONE_CLIENT = 16  # connections
TIMES = 20
UPGRADES = {6: "9.0.0", 13: "9.1.0"}  # behind so many restarts
# Sources and numbers of the lines of a request, with the field and without.
STORED = " ".join(number for _, number in booted.STATEMENTS)
ASKED = f"{STORED} 50 88"
# Over 1 MB, by lines that nobody takes for a request's.
GROW = f"head -c 1100000 /dev/zero | tr '\\0' '\\n' >>{LOG}"
ROTATE = (f"{GROW}; for _ in $(seq 100); do systemctl start vemo-web-log; "
          f"[ $(stat --format=%s {LOG}) -ge 1000000 ] || break; systemctl reset-failed; sleep 0.2; done")
UPGRADE = 900  # seconds
# Each automatic restart is slow.
SLOW = shlex.quote('ExecStartPre=+sh -c "[ $$(systemctl show -P NRestarts vemo-web) = 0 ] || sleep 1000"')
LOG_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  (DEBUG|ERROR) +\S+ +\d+ +\S+ +\d+ ")

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


def example_pages():
    """The folder of an author's built pages; built anew when the packages are younger."""
    packages = root.packages(BUILD).values()
    folder = BUILD / "example"
    if not folder.exists() or folder.stat().st_mtime < max(file.stat().st_mtime for file in packages):
        subprocess.run(["/usr/bin/python3", "-B", "-m", "pytest", SOURCE / "tests/packaging/example.py",
                        "--build", BUILD, "-k", "five_commands"], check=True)
    return folder


def make_disk(path):
    """What `apt install` leaves in a bare root, with an address that the outside can reach."""
    device = root.Root(BUILD, "machine")
    try:
        made = root.packages(BUILD)
        device.install(made["vemo-web"], made["vemo-web-standin"])
        shutil.copytree(example_pages(), device.file("/root/page/build"))
        device.install_known(*root.WEB_SERVERS, "lighttpd-mod-openssl", "nftables", "openssl", root.TESTER)
        # To be installed once more.
        device.run("sh", "-c", "mkdir /root/packages && mv /root/*.deb /var/cache/apt/archives/lighttpd_*.deb"
                   " /root/packages")
        shutil.copytree(SOURCE / "packaging/debian/tests", device.file("/root/source/debian/tests"))
        configuration = device.file("/etc/vemo-web/web-server.conf")
        machine.listen_to_outside(configuration)
        for file in (configuration, *device.file("/usr/share/vemo-web/web-servers").glob("*[2x].conf")):
            text, made = prepared.with_parts(file.read_text(encoding="utf-8"), (prepared.TLS, prepared.PASSWORD))
            device.file(f"/root/{file.name}").write_text(text, encoding="utf-8")
            device.file(f"/root/{file.name}.commands").write_text(made, encoding="utf-8")
        device.file("/etc/systemd/network/card.network").write_text(NETWORKD, encoding="utf-8")
        device.file("/etc/systemd/system/test-shell.service").write_text(SHELL, encoding="utf-8")
        device.file("/etc/fstab").write_text("/dev/vda / ext4 defaults 0 1\n", encoding="utf-8")
        device.file("/etc/hostname").write_text("vemo\n", encoding="utf-8")
        device.run("systemctl", "enable", "systemd-networkd", "test-shell")
        # Debian's own services of the other web servers are not wanted; lighttpd's is off.
        device.run("systemctl", "mask", "nginx", "fcgiwrap.socket", "fcgiwrap",
                   "serial-getty@ttyS0", "apt-daily.timer", "apt-daily-upgrade.timer")
        device.run("sh", "-c", "rm -rf /var/cache/apt/archives/*.deb /var/lib/apt/lists/*")
        for version in UPGRADES.values():
            for name, file in root.packages(BUILD, version).items():
                if name in ("vemo-web", "vemo-web-standin"):
                    shutil.copy(file, device.file("/root"))
        machine.make_disk(path, device.path, "1500M")
    finally:
        device.close()


class Device(booted.Device):
    """The booted machine."""

    def __init__(self, disk):
        kernel = machine.Kernel(FOLDER / "kernel")
        initramfs = FOLDER / "installed.initramfs"
        machine.make_initramfs(initramfs, kernel, {}, booted.initramfs("/sbin/init"),
                               machine.DISK + machine.NETWORK + machine.PACKET_FILTER)
        # The last word counts: a reboot is one.
        super().__init__(kernel, initramfs, disk, ("-action", "reboot=reset"), memory_mib=1024,
                         parameters="systemd.show_status=0 net.ifnames=0")


class Technician(browser.Technician):
    """At a browser in front of the booted machine."""

    def __init__(self, driver, device):
        super().__init__(driver, f"http://localhost:{device.port}", PAGE)
        self.device = device

    def settings(self):
        return self.device.read(SETTINGS)

    def write_shipped_settings(self):
        self.device.run(f"cat >{SETTINGS} <<'END'\n{booted.shipped_settings()}END\nchown vemo-web: {SETTINGS}")


class Installed(booted.Requests, unittest.TestCase):
    """The technician's journey, and more, on the booted machine. In the order of their names; the last cuts
    the power."""

    ARCHIVE = "/var/cache/vemo-web/archive"

    @classmethod
    def setUpClass(cls):
        cls.disk = FOLDER / "installed.disk"
        cls.addClassCleanup(cls.disk.unlink, missing_ok=True)
        make_disk(cls.disk)
        cls.driver = cls.enterClassContext(browser.running_browser(limit=PAGE))
        cls.boot()
        cls.addClassCleanup(lambda: cls.device.machine.kill())

    @classmethod
    def boot(cls):
        cls.device = Device(cls.disk)
        print(f"from power-on to the first page: {cls.device.wait_for_page():.1f} s", file=sys.stderr)
        cls.technician = Technician(cls.driver, cls.device)

    def setUp(self):
        self.technician.start()

    def boot_id(self):
        return self.device.read("/proc/sys/kernel/random/boot_id")

    def expect_no_reboot(self):
        boot = self.boot_id()
        self.technician.open(browser.REBOOT)
        self.assertIn("This web interface is not allowed to reboot the device.", self.technician.text())
        self.assertEqual(self.driver.find_elements(By.CSS_SELECTOR, "input"), [])
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        status, page = self.device.ask("POST", browser.REBOOT, "", form)
        self.assertEqual(status, 200)
        self.assertIn("The device does not reboot: this web interface is not allowed to reboot it.", page)
        self.assertIn("switch the device off and on again", page)
        # No installation starts what reboots, nor a slip.
        status, output = self.device.run("systemctl start vemo-web-reboot.service")
        self.assertNotEqual(status, 0, output)
        self.assertEqual(self.boot_id(), boot)

    def test_0_as_installed_the_device_is_not_rebooted(self):
        _, output = self.device.run("systemctl is-enabled vemo-web-reboot.socket vemo-web-reboot.service; "
                                  "systemctl is-active vemo-web-reboot.socket; ls /run/vemo-web-reboot")
        self.assertRegex(output, r"\Adisabled\nstatic\ninactive\nls: ")
        self.expect_no_reboot()

    def test_1_the_service_is_up_by_itself_and_the_check_is_content(self):
        self.expect_content()

    def expect_port_80_closed(self):
        """Debian's own service of lighttpd is off, and nothing else is there."""
        self.assertNotEqual(self.device.run("(exec 3<>/dev/tcp/127.0.0.1/80)")[0], 0)
        self.assertEqual(self.device.run("systemctl is-enabled lighttpd")[1].strip(), "disabled")

    def test_0_no_other_web_server_runs(self):
        self.expect_port_80_closed()

    def test_1_one_client_does_not_get_all_connections(self):
        """The emulator takes them all, and closes those that the machine refuses it. One of an earlier test's may
        still be counted."""
        clients = []
        is_over = threading.Event()

        def left():
            return set(clients).difference(select.select(clients, [], [], 0)[0])

        def keep_on_sending():
            """The emulator may take seconds for all of them, and the server closes who is silent for 5 s."""
            while not is_over.wait(0.5):
                for client in left():
                    with contextlib.suppress(OSError):
                        client.sendall(b"x")

        sender = threading.Thread(target=keep_on_sending)
        sender.start()
        try:
            for _ in range(40):
                clients.append(socket.create_connection(("127.0.0.1", self.device.port)))
                clients[-1].sendall(b"GET / HTTP/1.0\r\n")
            eventually(lambda: len(left()) <= OF_ONE_CLIENT)
            time.sleep(1)
            self.assertIn(len(left()), range(OF_ONE_CLIENT // 2, OF_ONE_CLIENT + 1))
        finally:
            is_over.set()
            sender.join()
            for client in clients:
                client.close()
        self.device.wait_for_page()

    def expect_content(self):
        # The class archive is made while the service serves already: the disk is a copy.
        self.device.run("vemo-web-class-archive")
        output = self.device.expect("vemo-web-check")
        self.assertNotIn("WRONG", output)

    def test_1_the_commands_of_the_pages(self):
        for command, rule in commands.commands_in("machine"):
            with self.subTest(page=command.page, command=command.text):
                status, output = self.device.run(f"bash -c {shlex.quote(commands.script(command, rule))}")
                self.assertEqual(status, rule.status, output)
                self.assertRegex(output, f"(?m){rule.says}")
        self.device.wait_for_page()

    def expect_writable(self, process, allowed, refused):
        """For the service's user, in the process's view of the system."""
        enter = f"nsenter --target {process} --mount setpriv --reuid vemo-web --regid vemo-web --clear-groups"
        for path in (*allowed, *refused):
            with self.subTest(path):
                status, output = self.device.run(f"{enter} sh -c ': >>{path}'")
                self.assertEqual(status == 0, path in allowed, output)

    def test_2_nothing_but_its_own_is_writable_for_the_service(self):
        _, number = self.device.run("systemctl show --property MainPID --value vemo-web")
        self.expect_writable(
            number.strip(), (SETTINGS, "/app/tarn-belox/runvex/new", LOG, "/run/vemo-web/new"),
            ("/run/new", "/tmp/new", "/var/tmp/new", "/var/cache/vemo-web/archive/record", "/dev/shm/new"))
        self.device.run("rm -f /app/tarn-belox/runvex/new")

    def test_2_the_class_archive_is_made_beside_the_service_which_does_not_wait(self):
        """A lock holds its maker, so that it can be looked at."""
        unit = "vemo-web-class-archive"
        self.device.run(f"exec 8<{self.ARCHIVE}; flock 8")
        try:
            main = f"$(systemctl show --property MainPID --value {unit})"
            _, output = self.device.run(
                "systemctl restart vemo-web && systemctl is-active vemo-web; for _ in $(seq 200); do "
                f"grep -qsx make-class-arch /proc/{main}/comm && break; sleep 0.1; done; systemctl is-active {unit}")
            self.assertEqual(output, "active\nactivating\n")
            self.device.wait_for_page()
            self.expect_writable(main, (f"{self.ARCHIVE}/new", "/tmp/new"),
                                 (SETTINGS, "/app/tarn-belox/runvex/new", "/run/vemo-web/new", "/run/lock/new",
                                  "/dev/shm/new"))
            self.assertEqual(self.device.run("test -e /tmp/new")[0], 1)
            _, output = self.device.run(f"readlink /proc/self/ns/net; readlink /proc/{main}/ns/net")
            self.assertRegex(output, r"\A(net:\S+)\n(?!\1)net:\S+\n\Z")
        finally:
            self.device.run("exec 8<&-; rm -f /tmp/new; vemo-web-class-archive")
        self.expect_content()

    def test_2_the_class_archive_is_made_from_a_request_that_is_in_no_log(self):
        _, output = self.device.run(
            f"rm -r {self.ARCHIVE}; stat -c %s {LOG}; vemo-web-class-archive; echo $?; stat -c %s {LOG}")
        self.assertRegex(output, r"\A(\d+)\n0\n\1\n\Z")
        self.expect_content()

    def test_2_a_class_archive_that_cannot_be_made_is_told_with_the_reason(self):
        options = "/etc/vemo-web/java.options"
        try:
            status, output = self.device.run(f"cp {options} /root; echo -Xmx1k >>{options}; vemo-web-class-archive")
            self.assertEqual(status, 1, output)
            self.assertRegex(output, rf"(?s)\Amake-class-archive: .*{options}.*heap size.*\Z")
            self.assertNotIn("systemctl", output)
        finally:
            self.device.run(f"cp /root/java.options {options}")
        self.expect_content()

    def test_4_a_restart_waits_for_a_request_that_takes_long(self):
        with concurrent.futures.ThreadPoolExecutor(1) as client:
            answer = client.submit(self.device.get, "/setobdconf.cgi?CanDetectTimeout=850")
            self.device.run("until kill -STOP $(pidof setobdconf.cgi) 2>/dev/null; do sleep 0.02; done; "
                            "systemctl restart --no-block vemo-web; sleep 12; kill -CONT $(pidof setobdconf.cgi)")
            status, page = answer.result()
        self.assertEqual(status, 200)
        self.assertTrue(page.endswith("</html>\n"), page)
        self.assertEqual(self.device.read(SETTINGS), booted.settings_with(850))

    def test_4_a_stop_refuses_at_once(self):
        status, output = self.device.run("systemctl stop vemo-web; (exec 3<>/dev/tcp/127.0.0.1/8080)")
        self.assertEqual(status, 1, output)
        self.assertIn("refused", output)
        self.device.run("systemctl start vemo-web")
        self.device.wait_for_page()

    def ask(self, query, pause):
        """The page; the connection is there before the request, by these seconds."""
        client = http.client.HTTPConnection("localhost", self.device.port, timeout=PAGE)
        with contextlib.closing(client):
            client.connect()
            time.sleep(pause)
            client.request("GET", f"/setobdconf.cgi{query}")
            return client.getresponse().read().decode("iso-8859-1")

    def test_4_rotations_restarts_and_upgrades_refuse_and_lose_no_request(self):
        self.device.run(f"systemctl start vemo-web; rm -f {LOG}.[1-4]; : >{LOG}")
        counts = collections.Counter()
        last = {}
        is_over = threading.Event()

        def order(start, pause):
            for value in range(start, start + 100000):
                if is_over.is_set():
                    return
                query, done = f"?CanDetectTimeout={value}", "Set new option was successful."
                if start == 0:
                    query, done = "", "Option CanDetectTimeout not set"
                try:
                    page = self.ask(query, pause)
                    is_whole = done in page and page.endswith("</html>\n")
                    what = ("stored" if start else "asked") if is_whole else "cut"
                except (OSError, http.client.HTTPException) as failure:
                    what = f"refused: {failure!r}"
                counts[what] += 1
                last[start] = value

        clients = [threading.Thread(target=order, args=(100000 * number, pause))
                   for number, pause in enumerate((0, 0, 1))]
        for client in clients:
            client.start()
        try:
            for number in range(TIMES):
                # One after the other; and the log while the service stops or starts.
                restart = "systemctl restart vemo-web" + (" --no-block" if number % 2 else "")
                status, output = self.device.run(
                    f"(set -e; {restart}; {ROTATE}; systemctl start vemo-web; ln {LOG}.1 {LOG}.kept-{number}; "
                    f"stat --format=%U:%G:%a {LOG})")
                self.assertEqual((status, output.strip()), (0, "root:vemo-web:664"))
                if version := UPGRADES.get(number):
                    output = self.device.expect(
                        f"apt-get -y install /root/vemo-web_{version}.deb /root/vemo-web-standin_{version}.deb && "
                        "dpkg-query --show vemo-web", seconds=UPGRADE)
                    self.assertTrue(output.endswith(f"\t{version}\n"), output)
        finally:
            is_over.set()
            for client in clients:
                client.join()
        _, output = self.device.run(
            f"grep -h . {LOG}.kept-* {LOG} | awk '{{ of[$5] = of[$5] \" \" $7 }} "
            "END { for (p in of) n[of[p]]++; for (t in n) print n[t] t }'; " f"rm {LOG}.kept-*")
        logged = {numbers: int(count) for count, numbers in (line.split(" ", 1) for line in output.splitlines())}
        print(f"through {TIMES} rotations, {TIMES} restarts, {len(UPGRADES)} upgrades: {dict(counts)}, "
              f"in the logs {logged}", file=sys.stderr)
        self.assertEqual(set(counts), {"stored", "asked"})
        self.assertGreater(counts.total(), 2 * TIMES)
        self.assertEqual(set(logged), {STORED, ASKED})
        self.assertEqual(logged[STORED], counts["stored"])
        self.assertEqual(logged[ASKED], counts["asked"])
        self.assertIn(self.device.read(SETTINGS), map(booted.settings_with, last.values()))
        self.expect_content()

    def test_5_other_web_servers_take_its_place(self):
        """As docs/web-servers.md says."""
        unit = "/etc/systemd/system/vemo-web.service.d/web-server.conf"
        try:
            for number, name in enumerate(("apache2", "nginx")):
                with self.subTest(name):
                    _, output = self.device.run(
                        "cp -r /usr/share/vemo-web/web-servers /etc/vemo-web; "
                        f"install -D -m 0644 /etc/vemo-web/web-servers/{name}.service.conf {unit}; "
                        "systemctl daemon-reload; systemctl restart vemo-web; for _ in $(seq 200); do "
                        f"(exec 3<>/dev/tcp/127.0.0.1/8080) 2>/dev/null && break; sleep 0.5; done; {ROTATE}; "
                        "cat /proc/$(systemctl show --property MainPID --value vemo-web)/comm; "
                        "exec 3<>/dev/tcp/127.0.0.1/8080; printf 'GET /setobdconf.cgi?CanDetectTimeout="
                        f"80{number} HTTP/1.0\\r\\nHost: localhost\\r\\n\\r\\n' >&3; cat <&3")
                    self.assertTrue(output.startswith(name + "\n"), output)
                    self.assertIn("Set new option was successful.", output)
                    self.assertIn(f"CanDetectTimeout=80{number}\n", self.device.read(SETTINGS))
                    self.assertEqual([line.split()[6] for line in self.device.read(LOG).splitlines()],
                                     STORED.split())
                    self.expect_content()
        finally:
            self.device.run(
                f"rm -r /etc/vemo-web/web-servers {unit}; systemctl daemon-reload; systemctl restart vemo-web")
            self.device.wait_for_page()

    def test_6_tls_and_a_password_work_as_confined(self):
        """Of each web server, by the lines that are ready for them."""
        own, unit = "/etc/vemo-web/web-server.conf", "/etc/systemd/system/vemo-web.service.d/web-server.conf"
        turn_on = "cp /root/{0} {1}; bash -e /root/{0}.commands <<<secret 2>&1; "
        self.device.run(f"cp {own} /root/before; mkdir -p /etc/vemo-web/web-servers; "
                        + turn_on.format("web-server.conf", own))
        try:
            for name in ("lighttpd", "apache2", "nginx"):
                with self.subTest(name):
                    if name != "lighttpd":
                        folder = "/usr/share/vemo-web/web-servers"
                        self.device.run(turn_on.format(f"{name}.conf", f"/etc/vemo-web/web-servers/{name}.conf")
                                        + f"install -D -m 0644 {folder}/{name}.service.conf {unit}")
                    output = self.device.expect(
                        "systemctl daemon-reload; systemctl restart vemo-web; for _ in $(seq 200); do "
                        "(exec 3<>/dev/tcp/127.0.0.1/8443) 2>/dev/null && break; sleep 0.5; done; vemo-web-check")
                    self.assertRegex(output, r"ok +request +https://127\.0\.0\.1:8443/ asks for a password")
                    self.assertRegex(output, r"ok +password ")
        finally:
            self.device.run(f"cp /root/before {own}; rm -rf /etc/vemo-web/web-servers {unit}; "
                            "systemctl daemon-reload; systemctl restart vemo-web")
            self.device.wait_for_page()

    def test_9_where_it_is_allowed_the_device_reboots(self):
        """What is under way ends, the file systems are unmounted, the value and the permission are there again."""
        boot = self.boot_id()
        _, output = self.device.run("systemctl enable --now vemo-web-reboot.socket; "
                                  "stat -c %U:%G:%a /run/vemo-web-reboot")
        self.assertRegex(output, r"(?m)^root:vemo-web:620$")
        # No place more than before for the service to write to: others' folders in /run stay closed.
        self.test_2_nothing_but_its_own_is_writable_for_the_service()
        self.technician.post("760")
        self.technician.follow("reboot")
        self.assertIn("Reboot the device to activate new settings?", self.technician.text())
        with concurrent.futures.ThreadPoolExecutor() as clients:
            answers = [clients.submit(self.device.get, "/setobdconf.cgi?x=1") for _ in range(3)]
            self.technician.press("Reboot")
            output = self.driver.page_source
            for answer in answers:
                status, page = answer.result()
                self.assertEqual((status, page[-8:]), (200, "</html>\n"))
        self.assertIn("The device reboots now.", output)
        begun = time.monotonic()
        self.technician.wait_until(lambda: "The device is back: it has rebooted." in self.driver.page_source,
                                   "the page does not say so", booted.BOOT)
        print(f"from the order to the page that says so: {time.monotonic() - begun:.1f} s", file=sys.stderr)

        self.assertNotEqual(self.boot_id(), boot)
        self.technician.follow("Device Information")
        self.assertEqual(self.technician.field().get_attribute("value"), "760")
        self.assertEqual(self.device.read(SETTINGS), booted.settings_with(760))
        _, output = self.device.run("dmesg | grep EXT4-fs")
        self.assertIn("EXT4-fs", output)
        self.assertNotIn("recover", output)
        self.expect_content()
        self.technician.open(browser.REBOOT)
        self.assertIn("Reboot the device to activate new settings?", self.technician.text())
        self.device.run("systemctl disable --now vemo-web-reboot.socket")
        self.expect_no_reboot()

    def expect_found(self, word, what, command, before=":"):
        """By the check, and nothing else; the command is run, after what has to be done before it."""
        status, output = self.device.run("vemo-web-check")
        found = re.findall(r"(?m)^(risky|WRONG)  (.{14}) .*\n +-> (.*)$", output)
        self.assertEqual([(word, what) for word, what, _ in found], [(word, what.ljust(14))], output)
        self.assertTrue(found[0][2].startswith(command), output)
        self.assertEqual(status, int(word == "WRONG"))
        self.device.run(f"{before}; {found[0][2]}")
        return output

    def test_7_the_check_names_the_cause_and_its_command_mends_it(self):
        """Each is looked at when the one before it is mended."""
        restart = "systemctl restart vemo-web"
        slow = "/run/systemd/system/vemo-web.service.d/slow.conf"
        # The later tests need the port, whatever fails here.
        self.addCleanup(self.device.wait_for_page)
        self.addCleanup(self.device.run, f"rm -f {slow}; systemctl daemon-reload; systemctl stop other; {restart}")
        self.expect_content()
        for broken, word, what, command in (
                ("systemctl stop vemo-web", "WRONG", "service", "systemctl start vemo-web"),
                ("systemctl disable vemo-web", "risky", "service", "systemctl enable vemo-web"),
                ("systemctl stop vemo-web-nvm", "WRONG", "nVm service", "systemctl start vemo-web-nvm"),
                ("nft delete table inet vemo_web", "WRONG", "connections", f"apt-get install nftables; {restart}"),
                ("systemctl unmask lighttpd; systemctl enable --now lighttpd", "risky", "port 80",
                 "systemctl disable --now lighttpd"),
                (f"chmod 0640 {LOG}", "WRONG", "log", restart)):
            print(broken, file=sys.stderr)
            self.device.run(broken)
            self.expect_found(word, what, command)

        # What is in the way has to go first.
        self.device.run(f"rm -f {LOG}.4; : >{LOG}.3; mkdir {LOG}.4; {GROW}; systemctl start vemo-web-log")
        output = self.expect_found("risky", "log", "systemctl start vemo-web-log", f"rmdir {LOG}.4")
        self.assertRegex(output, rf"\nrisky  log  .*{LOG} is not rotated any more: .*{LOG}\.4")
        self.assertEqual(self.device.run(f"stat -c %F {LOG}.4; stat -c %s {LOG}")[1], "regular empty file\n0\n")
        self.expect_content()

        # The first start fails; the next one, which has forgotten that, is looked at while it lasts.
        self.device.run(
            f"systemctl stop vemo-web; mkdir -p $(dirname {slow}); printf '%s\\n' [Service] {SLOW} >{slow}; "
            "systemctl daemon-reload; "
            "systemd-run --unit=other systemd-socket-activate --accept -l 0.0.0.0:8080 cat; sleep 3; "
            "systemctl start vemo-web; for _ in $(seq 240); do [ $(systemctl show -P NRestarts vemo-web) = 0 ] || "
            "[ $(systemctl show -P SubState vemo-web) != start-pre ] || break; sleep 1; done")
        output = self.expect_found("WRONG", "service", restart,
                                   f"rm {slow}; systemctl daemon-reload; systemctl stop other")
        self.assertIn("Address already in use", output)
        self.device.wait_for_page()
        self.expect_content()

    def test_8_the_service_starts_where_others_planted_something(self):
        games = "setpriv --reuid games --regid games --clear-groups"
        for what, planted in (("link", f"ln -s /etc/hostname {LOG}"), ("pipe", f"mkfifo -m 666 {LOG}"),
                              ("folder", f"mkdir {LOG}; echo theirs >{LOG}/file"),
                              ("file", f"echo theirs >{LOG}; chmod 666 {LOG}")):
            with self.subTest(what):
                target = "stat -c %U:%G:%a:%s:%Y /etc/hostname"
                _, output = self.device.run(
                    f"systemctl stop vemo-web; rm -r {LOG}; {games} sh -c {shlex.quote(planted)}; before=$({target}); "
                    f"systemctl start vemo-web; systemctl is-active vemo-web; stat -c %U:%G:%a:%F {LOG}; "
                    f'[ "$before" = "$({target})" ] && echo same')
                self.assertRegex(output, r"\Aactive\nroot:vemo-web:664:regular (empty )?file\nsame\n\Z")
                self.device.wait_for_page()
        _, output = self.device.run(f"stat -c %U:%a {LOG}-put-aside.*; cat {LOG}-put-aside.*/cgi.log/file 2>/dev/null")
        self.assertEqual(output, 4 * "root:700\n" + "theirs\n")
        self.expect_found("risky", "log", f"rm -r {LOG}-put-aside.")

        # A folder that belongs to somebody else.
        folder = "/app/tarn-belox"
        _, output = self.device.run(f"systemctl stop vemo-web; mv {folder} /root/; chown games /app; "
                                  "systemctl start vemo-web; systemctl is-active vemo-web")
        self.assertEqual(output, "active\n")
        self.device.wait_for_page()
        output = self.expect_found("WRONG", "settings file", "install -d ")
        self.assertIn("/app belongs to games", output)
        self.expect_content()
        self.device.run(f"systemctl stop vemo-web; rm -r {folder}; chown root /app; mv /root/tarn-belox /app; "
                        "systemctl start vemo-web")
        self.device.wait_for_page()

    def test_7_a_page_of_an_author_with_the_packages_alone(self):
        """Built by the commands of docs/sibling-page.md, and put where they say."""
        self.device.run("cd /root; install page/build/uptime.cgi /usr/share/vemo-web/htdocs;"
                        " install page/build/name.cgi /usr/share/vemo-web/htdocs")
        _, number = self.device.run("systemctl show --property MainPID --value vemo-web")
        # Why it asks the kernel: the service does not see this.
        status, _ = self.device.run(f"nsenter --target {number.strip()} --mount test -e /proc/uptime")
        self.assertNotEqual(status, 0)
        for suffix, screen in (("", browser.DESK), ("-phone", browser.PHONE)):
            self.technician.set_screen(screen)
            _, before = self.device.run("cut -d. -f1 /proc/uptime")
            self.technician.open("/uptime.cgi")
            _, after = self.device.run("cut -d. -f1 /proc/uptime")
            self.driver.save_screenshot(str(FOLDER / f"uptime{suffix}.png"))
            shown = re.search(r"running for (\d+) minutes and (\d+) seconds\.", self.technician.text())
            self.assertIn(int(shown[1]) * 60 + int(shown[2]), range(int(before), int(after) + 1))
            self.assertEqual([h2.text for h2 in self.driver.find_elements("tag name", "h2")], ["Uptime"])
            # Nothing sticks to the screen's edge.
            self.assertGreater(self.driver.find_element("css selector", ".content p").rect["x"], 16)
        self.technician.open("/name.cgi")
        self.driver.find_element("id", "name").clear()
        self.driver.find_element("id", "name").send_keys("Halle <3>")
        self.technician.press("Store")
        self.driver.save_screenshot(str(FOLDER / "name-phone.png"))
        self.assertIn("The name is stored. To activate it reboot the device.", self.technician.text())
        self.assertEqual(self.driver.find_element("id", "name").get_attribute("value"), "Halle <3>")
        self.assertIn("\nVEMODInterfaceName=Halle <3>\n", self.technician.settings())

    def test_7_the_packages_own_tests_pass(self):
        output = self.device.expect("autopkgtest /root/source -- null", seconds=booted.BOOT)
        self.assertRegex(output, r"installed-system +PASS")
        self.technician.write_shipped_settings()

    def test_8_purged_with_what_they_depend_on_and_installed_once_more(self):
        """As by `apt install` on a machine that runs, which has never had lighttpd."""
        names = "vemo-web vemo-web-standin lighttpd lighttpd-mod-openssl"
        self.device.expect(f"rm -f {SETTINGS}; apt-get -qq -y purge {names}", seconds=booted.BOOT)
        for command in ("getent passwd vemo-web vemo-web-nvm", "getent group vemo-web vemo-web-nvm",
                        "systemctl list-units --all --no-legend --plain 'vemo*' | grep .",
                        "systemctl list-unit-files --no-legend 'vemo*' | grep .", "nft list table inet vemo_web",
                        "(exec 3<>/dev/tcp/127.0.0.1/8080)", "test -e /app -o -e /etc/vemo-web -o -e /run/vemo-web",
                        "ls -d /tmp/cgi* /tmp/nvm*", "find / -xdev '(' -nouser -o -nogroup ')' -print | grep ."):
            with self.subTest(command):
                status, output = self.device.run(command)
                self.assertNotEqual(status, 0, output)

        started = "journalctl --unit lighttpd | grep -c Started"
        _, before = self.device.run(started)
        self.device.expect("apt-get -qq -y --no-install-recommends install /root/packages/*.deb", seconds=booted.BOOT)
        self.expect_port_80_closed()
        self.assertEqual(self.device.run(started)[1], before)
        self.device.expect("sed -i '0,/127.0.0.1/s//0.0.0.0/' /etc/vemo-web/web-server.conf;"
                           " systemctl restart vemo-web")
        self.device.wait_for_page()
        self.expect_content()
        self.technician.write_shipped_settings()

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
        shipped = booted.shipped_settings()
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


def journey(test):
    return lambda self: test(self.technician)


for name, test in vars(test_journey).items():
    if name.startswith("test_"):
        setattr(Installed, name, journey(test))


def load_tests(loader, *_):
    return loader.loadTestsFromTestCase(Installed)


if __name__ == "__main__":
    if reason := root.why_not():
        print(f"skipped '{reason}'\nOK (skipped=1)")
        sys.exit()
    for tool in ("qemu-system-x86_64", machine.MKFS, "chromedriver"):
        assert shutil.which(tool), f"{tool} is missing"
    unittest.main(verbosity=2)
