"""The packages on a machine of their own: a bare Debian 12, booted in an emulated machine, with a real
browser in front of it, and its power cut while it works. As root; all of it takes about half an hour.

    python3 -B -m pytest tests/machine/installed.py --build BUILD -k TEST
"""

import collections
import concurrent.futures
import pathlib
import re
import shlex
import shutil
import subprocess
import threading

import pytest

import booted
import browser
import commands
import machine
import prepared
import root
from booted import (  # noqa: F401 - two tests
    FORM, LOG, PAGE, SETTINGS, SOURCE, test_page_settings_file_and_log_are_as_they_must_be,
    test_the_java_side_knows_the_devices_address)
from device import eventually
from test_journey import (  # noqa: F401 - as confined
    test_a_value_with_umlauts_comes_back_as_it_was_typed, test_the_interface_is_allocated_and_released,
    test_the_keyboard_alone_sets_the_timeout)

ARCHIVE = "/var/cache/vemo-web/archive"
WEB_SERVER = "/etc/vemo-web/web-server.conf"
CLASS_ARCHIVE = "vemo-web-class-archive"
OF_ONE_CLIENT = 16  # connections
TIMES = 20
UPGRADES = {6: "9.0.0", 13: "9.1.0"}  # behind so many restarts
# Numbers of the lines of a request, with the field and without.
STORED = " ".join(number for _, number in booted.STATEMENTS)
ASKED = f"{STORED} 50 88"
# Over 1 MB, by lines that nobody takes for a request's.
GROW = f"head -c 1100000 /dev/zero | tr '\\0' '\\n' >>{LOG}"
ROTATE = (f"{GROW}; for _ in $(seq 100); do systemctl start vemo-web-log; "
          f"[ $(stat --format=%s {LOG}) -ge 1000000 ] || break; systemctl reset-failed; sleep 0.2; done")
LISTENS = "(exec 3<>/dev/tcp/127.0.0.1/{})"
RESTART = ("systemctl daemon-reload; systemctl restart vemo-web; "
           f"for _ in $(seq 200); do {LISTENS} 2>/dev/null && break; sleep 0.5; done; ")
# Each automatic restart is slow.
SLOW = shlex.quote('ExecStartPre=+sh -c "[ $$(systemctl show -P NRestarts vemo-web) = 0 ] || sleep 1000"')
LOG_LINE = re.compile(r"^\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  (DEBUG|ERROR) +\S+ +\d+ +\S+ +\d+ ")

# What the machine has beside the packages.
FILES = {
    "/etc/systemd/network/card.network": "[Match]\nName=en* eth*\n[Network]\nAddress=10.0.2.15/24\nGateway=10.0.2.2\n",
    "/etc/fstab": "/dev/vda / ext4 defaults 0 1\n",
    "/root/obd.conf": booted.SHIPPED_SETTINGS,
}


def make_disk(build, path):
    """What `apt install` leaves in a bare root, with an address that the outside can reach."""
    if not (build / "example").exists():
        subprocess.run(["/usr/bin/python3", "-B", "-m", "pytest", SOURCE / "tests/packaging/packages.py",
                        "--build", build, "-k", "five_commands"], check=True)
    with root.Root(build, "machine") as device:
        made = root.packages(build)
        device.install(made["vemo-web"], made["vemo-web-standin"])
        shutil.copytree(build / "example", device.file("/root/page/build"))
        device.install_known(*root.WEB_SERVERS, "lighttpd-mod-openssl", "nftables", "openssl", root.TESTER)
        # To be installed once more.
        device.run("sh", "-c", "mkdir /root/packages && mv /root/*.deb /var/cache/apt/archives/lighttpd_*.deb"
                   " /root/packages")
        shutil.copytree(SOURCE / "packaging/debian/tests", device.file("/root/source/debian/tests"))
        configuration = device.file(WEB_SERVER)
        machine.listen_to_outside(configuration)
        for file in (configuration, *device.file("/usr/share/vemo-web/web-servers").glob("*[2x].conf")):
            text, typed = prepared.with_parts(file.read_text(encoding="utf-8"), (prepared.TLS, prepared.PASSWORD))
            device.file(f"/root/{file.name}").write_text(text, encoding="utf-8")
            device.file(f"/root/{file.name}.commands").write_text(typed, encoding="utf-8")
        for name, text in FILES.items():
            device.file(name).write_text(text, encoding="utf-8")
        device.run("systemctl", "enable", "systemd-networkd")
        # Debian's own services of the other web servers are not wanted; lighttpd's is off.
        device.run("systemctl", "mask", "nginx", "fcgiwrap.socket", "fcgiwrap",
                   "serial-getty@ttyS0", "apt-daily.timer", "apt-daily-upgrade.timer")
        device.run("sh", "-c", "rm -rf /var/cache/apt/archives/*.deb /var/lib/apt/lists/*")
        for version in UPGRADES.values():
            made = root.packages(build, version)
            for name in ("vemo-web", "vemo-web-standin"):
                device.put(made[name])
        machine.make_disk(path, device.path, "1500M")


class Technician(browser.Technician):
    """At a browser in front of the booted machine."""

    def __init__(self, driver, device):
        super().__init__(driver, f"http://localhost:{device.port}", PAGE)
        self.device = device

    def settings(self):
        return self.device.read(SETTINGS)

    def write_shipped_settings(self):
        self.device.run(f"install -o vemo-web -g vemo-web -m 0644 /root/obd.conf {SETTINGS}")


@pytest.fixture(scope="module")
def device(build):
    if reason := root.why_not():
        pytest.skip(reason)
    disk = build / "machine/installed.disk"
    try:
        make_disk(build, disk)
        kernel = machine.Kernel(build / "machine/kernel")
        initramfs = booted.make_initramfs(build / "machine/installed.initramfs", kernel, "/sbin/init",
                                          machine.PACKET_FILTER)
        # The last word counts: a reboot is one.
        with booted.Device(kernel, initramfs, disk, ("-action", "reboot=reset"), ARCHIVE, memory_mib=1024,
                           parameters="systemd.show_status=0 systemd.debug_shell=ttyS0 net.ifnames=0") as device:
            device.wait_for_page()
            # It is made while the service serves already: the disk is a copy.
            device.expect(CLASS_ARCHIVE)
            yield device
    finally:
        disk.unlink(missing_ok=True)


@pytest.fixture(scope="module")
def driver():
    with browser.running_browser(limit=PAGE) as driver:
        yield driver


@pytest.fixture(autouse=True)
def technician(driver, device):
    """At the home page. Whatever the test, the device is as it is shipped and serves."""
    technician = Technician(driver, device)
    technician.start()
    return technician


def boot_id(device):
    return device.read("/proc/sys/kernel/random/boot_id")


def expect_no_fault(device):
    device.run(CLASS_ARCHIVE)
    assert "WRONG" not in device.expect("vemo-web-check")


def expect_port_80_closed(device):
    """Debian's own service of lighttpd is off, and nothing else is there."""
    assert device.run(LISTENS.format(80))[0] != 0
    assert device.run("systemctl is-enabled lighttpd")[1].strip() == "disabled"


def expect_no_reboot(device):
    boot = boot_id(device)
    status, page = device.ask("POST", browser.REBOOT, "", FORM)
    assert status == 200
    assert "The device does not reboot: this web interface is not allowed to reboot it." in page
    # Neither an installation nor a mistake starts what reboots.
    status, output = device.run("systemctl start vemo-web-reboot.service")
    assert status != 0, output
    assert boot_id(device) == boot


def expect_writable(device, process, allowed, refused):
    """For the service's user, in the process's view of the system."""
    enter = f"nsenter --target {process} --mount setpriv --reuid vemo-web --regid vemo-web --clear-groups"
    for path in (*allowed, *refused):
        status, output = device.run(f"{enter} sh -c ': >>{path}'")
        assert (status == 0) == (path in allowed), (path, output)


# --- In this order


def test_as_installed_the_service_runs_and_the_device_is_not_rebooted(device):
    expect_port_80_closed(device)
    _, output = device.run("systemctl is-enabled vemo-web-reboot.socket vemo-web-reboot.service; "
                           "systemctl is-active vemo-web-reboot.socket; ls /run/vemo-web-reboot")
    assert re.match(r"disabled\nstatic\ninactive\nls: ", output), output
    expect_no_reboot(device)
    expect_no_fault(device)


def test_one_client_does_not_get_all_connections(device):
    """Nor does the machine itself, by the address of its card."""
    ask = "for number in $(seq 40); do : {client}<>/dev/tcp/10.0.2.15/8080 && echo taken; done 2>/dev/null"
    assert device.expect(f"bash -c {shlex.quote(ask)}; true") == OF_ONE_CLIENT * "taken\n"
    device.wait_for_page()


@pytest.mark.parametrize("command, rule", commands.commands_in("machine"), ids=lambda one: getattr(one, "text", ""))
def test_a_command_of_the_pages(device, command, rule):
    commands.expect(rule, *device.run(f"bash -c {shlex.quote(commands.script(command, rule))}"))
    device.wait_for_page()


def test_nothing_but_its_own_is_writable_for_the_service(device):
    new = "/app/tarn-belox/runvex/new"
    expect_writable(device, "$(systemctl show --property MainPID --value vemo-web)",
                    (SETTINGS, new, LOG, "/run/vemo-web/new"),
                    ("/run/new", "/tmp/new", "/var/tmp/new", f"{ARCHIVE}/record", "/dev/shm/new"))
    device.run(f"rm -f {new}")


def test_the_class_archive_is_made_beside_the_service_which_does_not_wait(device):
    """A lock holds its maker, so that it can be looked at. With its own /tmp the request is in no log."""
    device.run(f"exec 8<{ARCHIVE}; flock 8")
    try:
        main = f"$(systemctl show --property MainPID --value {CLASS_ARCHIVE})"
        _, output = device.run(
            "systemctl restart vemo-web && systemctl is-active vemo-web; for _ in $(seq 200); do grep -qsx "
            f"make-class-arch /proc/{main}/comm && break; sleep 0.1; done; systemctl is-active {CLASS_ARCHIVE}")
        assert output == "active\nactivating\n"
        device.wait_for_page()
        expect_writable(device, main, (f"{ARCHIVE}/new", "/tmp/new"),
                        (SETTINGS, "/app/tarn-belox/runvex/new", "/run/vemo-web/new", "/run/lock/new", "/dev/shm/new"))
        assert device.run("test -e /tmp/new")[0] == 1
        _, output = device.run(f"readlink /proc/self/ns/net; readlink /proc/{main}/ns/net")
        assert re.fullmatch(r"(net:\S+)\n(?!\1)net:\S+\n", output), output
    finally:
        device.run(f"exec 8<&-; rm -f /tmp/new; {CLASS_ARCHIVE}")
    expect_no_fault(device)


def test_a_class_archive_that_cannot_be_made_is_reported_with_the_reason(device):
    options = "/etc/vemo-web/java.options"
    try:
        output = device.expect(f"cp {options} /root; echo -Xmx1k >>{options}; {CLASS_ARCHIVE}", status=1)
        assert re.match(rf"(?s)make-class-archive: .*{options}.*heap size", output), output
        assert "systemctl" not in output
    finally:
        device.run(f"cp /root/java.options {options}")
    expect_no_fault(device)


def test_a_stop_refuses_at_once(device):
    assert "refused" in device.expect(f"systemctl stop vemo-web; {LISTENS.format(8080)}", status=1)
    device.run("systemctl start vemo-web")
    device.wait_for_page()


def test_rotations_restarts_and_upgrades_refuse_and_lose_no_request(device):
    device.run(f"rm -f {LOG}.[1-4]; : >{LOG}")
    counts = collections.Counter()
    last = {}
    is_over = threading.Event()
    whole = {"stored": "Set new option was successful.", "asked": "Option CanDetectTimeout not set"}

    def order(what, start, pause):
        for value in range(start, start + 100000):
            if is_over.is_set():
                return
            query = f"?CanDetectTimeout={value}" if what == "stored" else ""
            status, page = device.get(f"/setobdconf.cgi{query}", pause=pause)
            is_whole = whole[what] in page and page.endswith("</html>\n")
            counts[what if is_whole else f"cut, or refused: {status}"] += 1
            last[start] = value

    with concurrent.futures.ThreadPoolExecutor() as clients:
        for client in (("asked", 0, 0), ("stored", 100000, 0), ("stored", 200000, 1)):
            clients.submit(order, *client)
        try:
            for number in range(TIMES):
                # One after the other; and the log while the service stops or starts.
                restart = "systemctl restart vemo-web" + (" --no-block" if number % 2 else "")
                output = device.expect(f"(set -e; {restart}; {ROTATE}; systemctl start vemo-web; "
                                       f"ln {LOG}.1 {LOG}.kept-{number}; stat --format=%U:%G:%a {LOG})")
                assert output.strip() == "root:vemo-web:664"
                if version := UPGRADES.get(number):
                    output = device.expect(
                        f"apt-get -y install /root/vemo-web_{version}.deb /root/vemo-web-standin_{version}.deb && "
                        "dpkg-query --show vemo-web", seconds=booted.BOOT)
                    assert output.endswith(f"\t{version}\n"), output
        finally:
            is_over.set()
    _, output = device.run(
        f"grep -h . {LOG}.kept-* {LOG} | awk '{{ of[$5] = of[$5] \" \" $7 }} "
        "END { for (p in of) n[of[p]]++; for (t in n) print n[t] t }'; " f"rm {LOG}.kept-*")
    logged = {numbers: int(count) for count, numbers in (line.split(" ", 1) for line in output.splitlines())}
    print(f"{dict(counts)}, in the logs {logged}")
    assert counts.keys() == {"stored", "asked"}
    assert counts.total() > 2 * TIMES
    assert logged == {STORED: counts["stored"], ASKED: counts["asked"]}
    assert device.read(SETTINGS) in map(booted.settings_with, last.values())
    expect_no_fault(device)


@pytest.mark.parametrize("name, value", [("lighttpd", 800), ("apache2", 801), ("nginx", 802)])
def test_each_web_server_serves_as_confined(device, name, value):
    """As docs/web-servers.md says; then with TLS and a password, by the lines that are ready for them. The check knows
    from lighttpd's where to ask."""
    unit = "/etc/systemd/system/vemo-web.service.d/web-server.conf"
    device.run(f"cp {WEB_SERVER} /root/before; cp -r /usr/share/vemo-web/web-servers /etc/vemo-web; ")
    if name != "lighttpd":
        device.run(f"install -D -m 0644 /etc/vemo-web/web-servers/{name}.service.conf {unit}; ")
    try:
        output = device.expect(
            f"{RESTART.format(8080)} {ROTATE}; cat /proc/$(systemctl show --property MainPID --value vemo-web)/comm; "
            "exec 3<>/dev/tcp/127.0.0.1/8080; printf 'GET /setobdconf.cgi?CanDetectTimeout="
            f"{value} HTTP/1.0\\r\\nHost: localhost\\r\\n\\r\\n' >&3; cat <&3")
        assert output.startswith(name + "\n"), output
        assert "Set new option was successful." in output
        assert device.read(SETTINGS) == booted.settings_with(value)
        assert [line.split()[6] for line in device.read(LOG).splitlines()] == STORED.split()
        expect_no_fault(device)

        for file in ("web-server.conf", *([f"web-servers/{name}.conf"] if name != "lighttpd" else [])):
            own = f"/root/{pathlib.PurePath(file).name}"
            device.run(f"cp {own} /etc/vemo-web/{file}; bash -e {own}.commands <<<secret 2>&1")
        output = device.expect(f"{RESTART.format(8443)} vemo-web-check")
        assert re.search(r"ok +request +https://127\.0\.0\.1:8443/ asks for a password", output), output
        assert re.search(r"ok +password ", output), output
    finally:
        device.run(f"cp /root/before {WEB_SERVER}; "
                   f"rm -r /etc/vemo-web/web-servers {unit}; systemctl daemon-reload; systemctl restart vemo-web")
        device.wait_for_page()


def expect_found(device, word, what, command, before=":"):
    """By the check, and nothing else; the command mends it, after what has to be done before it."""
    status, output = device.run("vemo-web-check")
    found = re.findall(r"(?m)^(risky|WRONG)  (.{14}) .*\n +-> (.*)$", output)
    assert [one[:2] for one in found] == [(word, what.ljust(14))], output
    assert found[0][2].startswith(command), output
    assert status == int(word == "WRONG")
    device.run(f"{before}; {found[0][2]}")
    device.wait_for_page()
    expect_no_fault(device)
    return output


@pytest.mark.parametrize("broken, word, what, command", [
    ("systemctl stop vemo-web", "WRONG", "service", "systemctl start vemo-web"),
    ("systemctl disable vemo-web", "risky", "service", "systemctl enable vemo-web"),
    ("systemctl stop vemo-web-nvm", "WRONG", "nVm service", "systemctl start vemo-web-nvm"),
    ("nft delete table inet vemo_web", "WRONG", "connections", "apt-get install nftables; systemctl restart vemo-web"),
    ("systemctl unmask lighttpd; systemctl enable --now lighttpd", "risky", "port 80",
     "systemctl disable --now lighttpd"),
    (f"chmod 0640 {LOG}", "WRONG", "log", "systemctl restart vemo-web")])
def test_the_check_names_the_cause_and_its_command_mends_it(device, broken, word, what, command):
    device.run(broken)
    expect_found(device, word, what, command)


def test_the_check_names_what_keeps_the_log_from_being_rotated(device):
    device.run(f"rm -f {LOG}.4; : >{LOG}.3; mkdir {LOG}.4; {GROW}; ls -d {LOG}* >/root/names; "
               "systemctl start vemo-web-log")
    # Nothing was renamed, and nothing is left behind.
    device.expect(f"ls -d {LOG}* | diff /root/names - && [ $(stat -c %s {LOG}) -gt 1000000 ]")
    # What is in the way has to go first.
    output = expect_found(device, "risky", "log", "systemctl start vemo-web-log", f"rmdir {LOG}.4")
    assert re.search(rf"\nrisky  log  .*{LOG} is not rotated any more: .*{LOG}\.4", output), output
    assert device.expect(f"stat -c %F {LOG}.4; [ $(stat -c %s {LOG}) -lt 1000000 ]") == "regular empty file\n"


def test_the_check_names_what_keeps_the_service_from_starting(device):
    """The first start fails; the next one, which has forgotten that, is looked at while it lasts."""
    slow = "/run/systemd/system/vemo-web.service.d/slow.conf"
    try:
        device.run(
            f"systemctl stop vemo-web; mkdir -p $(dirname {slow}); printf '%s\\n' [Service] {SLOW} >{slow}; "
            "systemctl daemon-reload; "
            "systemd-run --unit=other systemd-socket-activate --accept -l 0.0.0.0:8080 cat; sleep 3; "
            "systemctl start vemo-web; for _ in $(seq 240); do [ $(systemctl show -P NRestarts vemo-web) = 0 ] || "
            "[ $(systemctl show -P SubState vemo-web) != start-pre ] || break; sleep 1; done")
        output = expect_found(device, "WRONG", "service", "systemctl restart vemo-web",
                              f"rm {slow}; systemctl daemon-reload; systemctl stop other")
        assert "Address already in use" in output
    finally:
        # The later tests need the port, whatever fails here.
        device.run(f"rm -f {slow}; systemctl daemon-reload; systemctl stop other; systemctl start vemo-web")


def test_the_service_starts_where_others_planted_something(device):
    """Each kind of it in a bare root: tests/packaging."""
    planted = f"mkdir {LOG}; echo theirs >{LOG}/file"
    output = device.expect(
        f"systemctl stop vemo-web; rm {LOG}; setpriv --reuid games --clear-groups sh -c {shlex.quote(planted)}; "
        f"systemctl start vemo-web; stat -c %U:%G:%a {LOG}; stat -c %U:%a {LOG}-put-aside.*; "
        f"cat {LOG}-put-aside.*/cgi.log/file")
    assert output == "root:vemo-web:664\nroot:700\ntheirs\n"
    device.wait_for_page()
    expect_found(device, "risky", "log", f"rm -r {LOG}-put-aside.")


def test_the_service_starts_below_a_folder_of_somebody_else(device):
    folder = "/app/tarn-belox"
    device.expect(f"systemctl stop vemo-web; mv {folder} /root/; chown games /app; systemctl start vemo-web")
    device.wait_for_page()
    assert "/app belongs to games" in expect_found(device, "WRONG", "settings file", "install -d ")
    device.expect(f"systemctl stop vemo-web; rm -r {folder}; chown root /app; mv /root/tarn-belox /app; "
                  "systemctl start vemo-web")
    device.wait_for_page()


def test_a_page_of_an_author_with_the_packages_alone(device, technician):
    """Built by the commands of docs/sibling-page.md, and put where they say."""
    device.expect("install /root/page/build/uptime.cgi /usr/share/vemo-web/htdocs")
    # Why it asks the kernel: the service does not see this.
    device.expect("nsenter --target $(systemctl show --property MainPID --value vemo-web) --mount test -e /proc/uptime",
                  status=1)
    for screen in (browser.DESK, browser.PHONE):
        technician.set_screen(screen)
        before = device.expect("cut -d. -f1 /proc/uptime")
        technician.open("/uptime.cgi")
        after = device.expect("cut -d. -f1 /proc/uptime")
        shown = re.search(r"running for (\d+) minutes and (\d+) seconds\.", technician.text())
        assert int(shown[1]) * 60 + int(shown[2]) in range(int(before), int(after) + 1)
        assert technician.heading() == "Uptime"
        # Nothing sticks to the screen's edge.
        assert technician.driver.find_element("css selector", ".content p").rect["x"] > 16


def test_the_packages_own_tests_pass(device):
    output = device.expect("autopkgtest /root/source -- null", seconds=booted.BOOT)
    assert re.search(r"installed-system +PASS", output), output


def test_purged_with_what_they_depend_on_and_installed_once_more(device):
    """As by `apt install` on a machine that runs, which has never had lighttpd."""
    names = "vemo-web vemo-web-standin lighttpd lighttpd-mod-openssl"
    device.expect(f"rm -f {SETTINGS}; apt-get -qq -y purge {names}", seconds=booted.BOOT)
    for command in ("getent passwd vemo-web vemo-web-nvm", "getent group vemo-web vemo-web-nvm",
                    "systemctl list-units --all --no-legend --plain 'vemo*' | grep .",
                    "systemctl list-unit-files --no-legend 'vemo*' | grep .", "nft list table inet vemo_web",
                    LISTENS.format(8080), "test -e /app -o -e /etc/vemo-web -o -e /run/vemo-web",
                    "ls -d /tmp/cgi* /tmp/nvm*", "find / -xdev '(' -nouser -o -nogroup ')' -print | grep ."):
        status, output = device.run(command)
        assert status != 0, output

    started = "journalctl --unit lighttpd | grep -c Started"
    before = device.run(started)
    device.expect("apt-get -qq -y --no-install-recommends install /root/packages/*.deb", seconds=booted.BOOT)
    expect_port_80_closed(device)
    assert device.run(started) == before
    device.expect(f"sed -i '0,/127.0.0.1/s//0.0.0.0/' {WEB_SERVER}; systemctl restart vemo-web")
    device.wait_for_page()
    expect_no_fault(device)


def test_where_it_is_allowed_the_device_reboots(device, technician):
    """What is under way ends, the file systems are unmounted, the value and the permission are there again."""
    boot = boot_id(device)
    output = device.expect("systemctl enable --now vemo-web-reboot.socket; stat -c %U:%G:%a /run/vemo-web-reboot")
    assert output.endswith("root:vemo-web:620\n"), output
    # No place more than before for the service to write to: others' folders in /run stay closed.
    test_nothing_but_its_own_is_writable_for_the_service(device)
    technician.post("760")
    technician.follow("reboot")
    assert "Reboot the device to activate new settings?" in technician.text()
    with concurrent.futures.ThreadPoolExecutor() as clients:
        answers = [clients.submit(device.get, "/setobdconf.cgi?x=1") for _ in range(3)]
        technician.press("Reboot")
        assert "The device reboots now." in technician.driver.page_source
        for answer in answers:
            status, page = answer.result()
            assert (status, page[-8:]) == (200, "</html>\n")
    technician.wait_until(lambda: "The device is back: it has rebooted." in technician.driver.page_source,
                          "the page does not say so", booted.BOOT)

    assert boot_id(device) != boot
    technician.follow("Device Information")
    assert technician.field().get_attribute("value") == "760"
    assert device.read(SETTINGS) == booted.settings_with(760)
    output = device.expect("dmesg | grep EXT4-fs")
    assert "recover" not in output
    expect_no_fault(device)
    technician.open(browser.REBOOT)
    assert "Reboot the device to activate new settings?" in technician.text()
    device.run("systemctl disable --now vemo-web-reboot.socket")
    expect_no_reboot(device)


def test_nothing_is_lost_when_the_power_is_cut(device):
    answered = [100000]

    def order():
        while "successful" in device.get(f"/setobdconf.cgi?CanDetectTimeout={answered[-1] + 1}", 30)[1]:
            answered.append(answered[-1] + 1)

    with concurrent.futures.ThreadPoolExecutor(1) as client:
        client.submit(order)
        eventually(lambda: len(answered) > 6, PAGE)
        device.machine.kill()
    assert len(answered) > 6

    device.boot()
    device.wait_for_page()
    # The last that was answered, or the one that was under way.
    assert device.read(SETTINGS) in [booted.settings_with(answered[-1] + more) for more in (0, 1)]
    assert [line for line in device.read(LOG).splitlines() if not LOG_LINE.match(line)] == []
    expect_no_fault(device)
