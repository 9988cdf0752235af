"""What somebody sees, made to happen on the installed system; where docs/log.md says that it stands, it is looked
for. And whether every row of that table has its test.

    python3 -B -m pytest tests/packaging/symptoms.py --build BUILD -k a_full_disk

There is no journal: what lighttpd writes to its standard error stands for it, and so that this holds the line of each
request, too, that goes there in the place of syslog.
"""

import concurrent.futures
import contextlib
import os
import re
import shutil
import subprocess
import time

import pytest

import pages
from device import CLASS_FOLDER, FOLDER, LOG, OPTIONS, PROGRAMS, SETTINGS, SITE, WEB_SERVER, Device

PAGE = "docs/log.md"
MANUAL = "packaging/man/setobdconf.cgi.8.in"
JOURNAL = "/run/vemo-web/journal"
PATHS = "/usr/share/vemo-web/lighttpd-paths.conf"
LOCAL, ELSEWHERE = "127.0.0.1", "192.168.7.1"
SET_OPTION, DEVICE_INFORMATION, REBOOT = "/setobdconf.cgi", "/channeldeviceconfig.cgi", "/reboot.cgi"
ORDER = SET_OPTION + "?CanDetectTimeout=500"
WHOLE = "</html>"
MALFORMED = ("--header", "Content-Type: multipart/form-data; boundary=frontier",
             "--data-binary", "--frontier\r\nX: y\r\n--frontier--\r\n")
LAST = " as the last line"
SECONDS = 20  # for what is there at once, on a host that may be busy
LOGGED = r"(?m)^\S+ \S+ +[A-Z]+ +cgi +(\d+) .*"
ROWS = [row for row in pages.rows(PAGE) if "seen" in row]
PLACES = [row["where"] for row in pages.rows(PAGE) if set(row) == {"where", "what"}]

# Breaks, and what they need: the server listens at an address that is not loopback; it knows its name there.
HOSTS = 'var.vemo_hosts = "%s"'
IN_NETWORK = (("changed", WEB_SERVER, f'server.bind = "{LOCAL}"', f'server.bind = "{ELSEWHERE}"'),)
KNOWN = (*IN_NETWORK, ("changed", WEB_SERVER, HOSTS % r"localhost|127\.0\.0\.1", HOSTS % r"192\.168\.7\.1"))
NO_CLASS = ("without", CLASS_FOLDER)
SILENT = ("silent_nvm_service",)
# For a server that sees /tmp as its unit lets it: read-only, but for the one file.
UNITS_VIEW = ("unshare", "--mount", "--propagation", "unchanged", "sh", "-euc",
              f'mount --bind /tmp /tmp; mount --bind {LOG} {LOG}; mount -o remount,bind,ro /tmp; exec "$@"', "sh")


def found_in(cell):
    """What a cell says: the place, a text of it, whether that is the last line there of a process."""
    found = []
    for place, texts, is_last in re.findall(rf"([\w.]+): (`[^`]*`(?:, `[^`]*`)*)({LAST})?", cell):
        found += [(place, text, bool(is_last)) for text in pages.code(texts)]
    return found


def option(text):
    """A break: one more option of the Java VM."""
    return "changed", OPTIONS, "-Xrs\n", f"-Xrs\n{text}\n"


def timeout(name):
    """A break: that timeout of the gate is a second."""
    return "changed", SITE, f'"CGI_GATE_{name}_TIMEOUT"'.ljust(24) + ' => "60"', f'"CGI_GATE_{name}_TIMEOUT" => "1"'


class SeenDevice(Device):
    """With what is seen of it, and where that is looked for."""

    ERRORS = JOURNAL

    # --- Breaking

    @contextlib.contextmanager
    def class_with(self, methods):
        with self.without(CLASS_FOLDER):
            self.write("/root/ConfigVemo.java",
                       "package com.tarn.vemo.config; public final class ConfigVemo {%s}" % methods)
            subprocess.run(["javac", "-d", self.file(CLASS_FOLDER), self.file("/root/ConfigVemo.java")], check=True)
            try:
                yield
            finally:
                shutil.rmtree(self.file(CLASS_FOLDER))

    @contextlib.contextmanager
    def silent_nvm_service(self):
        """In its place one that takes connections and answers nothing."""
        with self.without_nvm():
            silent = self.start("perl", "-MIO::Socket::INET", "-e",
                                f'$s = IO::Socket::INET->new(LocalAddr => "{LOCAL}:5302", Listen => 9,'
                                " ReuseAddr => 1) or die; sleep")
            try:
                self.wait_for(LOCAL, 5302)
                yield
            finally:
                self.stop(silent)

    @contextlib.contextmanager
    def full(self, folder, prepare):
        """A disk of 8 kB in the folder's place, full but for what prepare, for sh, makes there."""
        with self.typed(f"mount -t tmpfs -o mode=1777,size=8k tmpfs {folder}; cd {folder}; {prepare};"
                        " ! cat /dev/zero >full 2>/dev/null; test -s full", f"umount {folder}"):
            yield

    # --- Looking

    def logged(self):
        return self.read(LOG)

    def last_lines(self):
        """The last of each process in the log."""
        last = {}
        for line in self.logged().splitlines():
            if told := re.match(LOGGED, line):
                last[told[1]] = line
        return "\n".join(last.values())

    def journal(self):
        # lighttpd keeps what goes to a file for some seconds, and lets go of it then.
        self.run("sh", "-c", f"kill -HUP {self.server.number}")
        return self.read(JOURNAL)

    def checked(self):
        """The lines of vemo-web-check that are not always there; that nothing is booted it says always."""
        return "\n".join(set(self.run("vemo-web-check", status=None).splitlines()) - self.usual)

    def text_of(self, place):
        return {"check": self.checked, "journal": self.journal, "log": self.logged, "nvm.log": self.nvm_log,
                "settings": lambda: self.read(SETTINGS), "disk": lambda: self.run("df", FOLDER)}[place]()

    def nvm_log(self):
        return self.read("/tmp/nvm.log")

    def expect_there(self, place, text, is_last=False):
        """With anything where the text has an ellipsis."""
        wanted = ".*".join(map(re.escape, text.split("…")))
        for _ in range(1 if place == "check" else SECONDS * 5):
            found = self.last_lines() if is_last else self.text_of(place)
            if re.search(f"(?m){wanted}{'$' if is_last else ''}", found):
                return
            time.sleep(0.2)
        pytest.fail(f"not in {place}, for {wanted}:\n{found}")

    def process_of(self, text):
        """The number of the process that logged the text last, once it has."""
        self.expect_there("log", text)
        return re.findall(f"{LOGGED}{re.escape(text)}$", self.logged())[-1]

    # --- Asking

    def ask_at_once(self, times, path, host=LOCAL):
        """In the background. Gives the futures."""
        pool = concurrent.futures.ThreadPoolExecutor(times)
        asked = [pool.submit(self.ask, path, host=host) for _ in range(times)]
        pool.shutdown(wait=False)
        return asked

    def expect_status(self, expected, *request, **where):
        status, page = self.ask(*request, **where)
        assert status == expected, page
        return page

    def expect_logos(self, is_whole):
        page = self.expect_status(200, SET_OPTION)
        assert "/images/tarn.gif" in page and "<h2>" not in page, page
        assert (WHOLE in page) == is_whole, page

    def expect_cut(self, *request):
        page = self.expect_status(200, *request)
        assert "<h2>" in page and WHOLE not in page, page
        return page

    def expect_success(self):
        assert "Set new option was successful." in self.expect_status(200, ORDER)
        assert " ERROR " not in self.logged()

    def expect_no_addresses(self):
        network = self.expect_status(200, DEVICE_INFORMATION).split("<h3>Network</h3>")[1]
        assert WHOLE in network
        assert not re.search(r"\d+\.\d+\.\d+\.\d+", network), network
        return network

    def send_to_nvm(self, function):
        packet = ("<wddxPacket version='1.0'><header/><data><struct><var name='DeviceOwner'><string>workshop</string>"
                  "</var></struct></data></wddxPacket>")
        return self.ask(f"/nVm?FunctionName={function}", "--request", "GET", "--data", packet, port=5302)[1]


@pytest.fixture(scope="module")
def whole(build):
    with SeenDevice(build, "Symptoms") as device:
        device.install_ours()
        device.run("install", "-d", "-o", "vemo-web", os.path.dirname(JOURNAL))
        device.run("install", "-o", "vemo-web", "/dev/null", JOURNAL)
        device.run_beside("ip", "address", "add", f"{ELSEWHERE}/32", "dev", "lo")
        text = device.read(PATHS)
        assert 'accesslog.use-syslog = "enable"' in text
        device.write(PATHS, text.replace('accesslog.use-syslog = "enable"', 'accesslog.filename = "/dev/stderr"'))
        device.start_nvm()
        device.start_server()
        device.usual = set(device.run("vemo-web-check", status=None).splitlines())
        yield device


@pytest.fixture
def device(whole):
    """Begins whole, with nothing stored or logged, and is whole again in the end."""
    whole.run(f"{PROGRAMS}/make-log")
    whole.file(SETTINGS).unlink(missing_ok=True)
    for path in (JOURNAL, LOG):
        os.truncate(whole.file(path), 0)
    yield whole
    page = whole.expect_status(200, ORDER)
    assert "successful" in page and WHOLE in page
    assert "=500" in whole.read(SETTINGS)


# --- The tests of the table's rows: what is seen, and a text of "where it stands", which choose the row; the breaks; a
# function that makes it happen. That function may return what it got itself, by place.

SYMPTOMS = []


def add(name, seen, text, happens, *breaks, **how):
    SYMPTOMS.append(pytest.param(seen, text, breaks, how, happens, id=name.replace(" ", "_")))


def symptom(seen, text, *breaks, **how):
    def of(happens):
        add(happens.__name__, seen, text, happens, *breaks, **how)
        return happens
    return of


add("no class", "only the logos", "not found", lambda device: device.expect_logos(is_whole=True), NO_CLASS)
add("a refused VM", "only the logos", "Can't create", lambda device: device.expect_logos(is_whole=True),
    option("-Xss1"))


@symptom("only the logos", "JAVA_CLASSPATH", option("-Xms64m"))
def a_vm_that_ends_the_process(device):
    device.expect_logos(is_whole=False)
    assert " ERROR " not in device.logged()


@symptom("the page ends in the middle", "signal 6")
def a_malformed_request(device):
    device.expect_cut(SET_OPTION, *MALFORMED)
    assert not device.file(SETTINGS).exists()


@symptom("the page ends in the middle", "signal 14", timeout("RUN"), SILENT, is_served=True)
def the_gate_ends_a_program(device):
    device.expect_cut(DEVICE_INFORMATION)
    device.expect_there("journal", f"CGI pid {device.process_of('nvmGetDeviceStatus')} died")


@symptom("the page ends in the middle", "signal 9", SILENT)
def a_program_is_killed(device):
    """As the kernel does it when memory ends."""
    (asked,) = device.ask_at_once(1, DEVICE_INFORMATION)
    device.run("sh", "-c", f"kill -KILL {device.process_of('nvmGetDeviceStatus')}")
    status, page = asked.result(timeout=SECONDS)
    assert status == 200 and "<h2>" in page and WHOLE not in page


@symptom("the page ends in the middle", "fatal error",
         ("class_with", "public static String getLanIp4AddressS() { return null; }"))
def the_vm_crashes(device):
    return {"page": device.expect_cut(DEVICE_INFORMATION)}


@symptom("403", "GET / HTTP", *IN_NETWORK, is_served=True)
def a_name_that_is_not_known(device):
    for path in ("/", "/css/all.css", SET_OPTION):
        device.expect_status(403, path, host=ELSEWHERE)
    device.expect_there("journal", f'{ELSEWHERE} {ELSEWHERE}:8080 … "GET / ')


@symptom("403", '"-"', *KNOWN, is_served=True)
def an_order_of_no_page(device):
    device.expect_status(200, "/", host=ELSEWHERE)
    device.expect_status(200, SET_OPTION, host=ELSEWHERE)
    device.expect_status(403, ORDER, host=ELSEWHERE)
    device.expect_status(200, ORDER, "--referer", f"http://{ELSEWHERE}:8080{DEVICE_INFORMATION}", host=ELSEWHERE)


add("an order of a foreign page", "403", "foreign.example",
       lambda device: device.expect_status(403, ORDER, "--referer", "http://foreign.example/a.html"))


@symptom("403", "HEAD")
def head_of_a_program(device):
    device.expect_status(403, SET_OPTION, "--head")
    device.expect_status(403, SET_OPTION, "--request", "PUT")


# The server knows a file's mode for a second.
@symptom("403", "channeldeviceconfig", ("mode", f"{PROGRAMS}{DEVICE_INFORMATION}", 0o644), is_served=True)
def a_program_without_its_mode(device):
    device.expect_status(403, DEVICE_INFORMATION)
    device.expect_status(200, REBOOT)


add("a large body", "413", "POST",
       lambda device: device.expect_status(413, SET_OPTION, "--data", "CanDetectTimeout=" + "1" * 5000))
add("no Java VM", "500", "libjvm", lambda device: device.expect_status(500, SET_OPTION),
       ("without", "/usr/lib/jvm/default-java"))
add("a folder of the gate that is not the service's", "500", "CGI_GATE_SLOT_FILE",
       lambda device: device.expect_status(500, SET_OPTION),
       ("without", "/run/vemo-web/gate"), ("mode", "/run/vemo-web", 0o755, "root"))


@symptom("500", "terminate called")
def a_malformed_request_for_a_sibling_page(device):
    for page in (DEVICE_INFORMATION, REBOOT):
        device.expect_status(500, page, *MALFORMED)


@symptom("503", "no slot became free", timeout("QUEUE"), is_served=True)
def programs_that_hang(device):
    with device.silent_nvm_service():
        asked = device.ask_at_once(4, DEVICE_INFORMATION)
        for _ in range(SECONDS * 5):
            if device.logged().count("nvmGetDeviceStatus") == 4:
                break
            time.sleep(0.2)
        device.expect_status(503, REBOOT)
        assert device.last_lines().count("127.0.0.1 nvmGetDeviceStatus") == 4, device.last_lines()
    assert all(WHOLE in one.result(timeout=SECONDS)[1] for one in asked)


@symptom("503", "one client", *KNOWN, is_served=True)
def many_requests_of_one_client(device):
    with device.broken(("changed", WEB_SERVER, '#var.vemo_client_requests := "0"', 'var.vemo_client_requests := "1"'),
                       is_served=True):
        with device.silent_nvm_service():
            (first,) = device.ask_at_once(1, DEVICE_INFORMATION, ELSEWHERE)
            device.process_of("nvmGetDeviceStatus")
            device.expect_status(503, DEVICE_INFORMATION, host=ELSEWHERE)
        assert WHOLE in first.result(timeout=SECONDS)[1]


NOT_THERE = '"successful", and the value is not there'


@symptom(NOT_THERE, "settings file`", ("mode", FOLDER, 0o755, "root"))
def settings_that_cannot_be_written(device):
    device.expect_success()
    assert not device.file(SETTINGS).exists()


@symptom(NOT_THERE, "disk", ("full", FOLDER, "printf '[SETTINGS]\\nVEMODCanDetectTimeout=1\\n' >obd.conf;"
                             " chown vemo-web: . obd.conf"))
def a_full_disk(device):
    device.expect_success()
    assert "=1\n" in device.run("cat", SETTINGS)


@symptom(NOT_THERE, "earlier")
def another_program_stores_later(device):
    device.run("install", "-o", "vemo-web", "/dev/null", SETTINGS)
    device.write(SETTINGS, "[SETTINGS]\nOther=1\n")
    device.expect_success()
    assert "=500" in device.read(SETTINGS)
    device.write(SETTINGS, "[SETTINGS]\nOther=2\n")
    stored = re.findall(r"(?m)^(\S+ \S+) .*ChangeStdErr$", device.logged())[-1]
    assert float(device.run("date", "+%s.%N", "--date", stored)) < device.file(SETTINGS).stat().st_mtime


@symptom("the value is there and has no effect", "=500")
def a_device_that_was_not_restarted(device):
    device.expect_success()
    start = re.search(r"(?m)^btime (\d+)$", device.run("cat", "/proc/stat"))[1]
    assert int(start) < device.file(SETTINGS).stat().st_mtime


@symptom("the value is there and has no effect", "=abc")
def a_value_that_is_no_number(device):
    assert "successful" in device.expect_status(200, SET_OPTION, "--data", "CanDetectTimeout=abc")


ONLY_MAIN = 'a process that logs only "main"'


@symptom(ONLY_MAIN, "Reboot")
def a_healthy_reboot_page(device):
    assert WHOLE in device.expect_status(200, REBOOT)
    assert device.logged().count("\n") == 1


@symptom(ONLY_MAIN, "DeviceInformation")
def a_malformed_request_for_device_information(device):
    device.expect_status(500, DEVICE_INFORMATION, *MALFORMED)
    assert device.logged().count("\n") == 1


@symptom(ONLY_MAIN, "SetObdConf")
def a_page_that_nobody_takes(device):
    device.run("bash", "-c", '{ (trap "" PIPE; while echo; do :; done) 2>/dev/null;'
               f' exec env REQUEST_METHOD=GET QUERY_STRING= JAVA_CLASSPATH={CLASS_FOLDER}'
               f" {PROGRAMS}/setobdconf.cgi; }} | true")
    assert device.logged().count("\n") == 1


NO_TOGGLE = "a toggle that says 1 and changes nothing"


@symptom(NO_TOGGLE, "nvm.log")
def a_device_that_another_holds(device):
    assert '<var name="DeviceOwner"><string>workshop<' in device.send_to_nvm("nvmAllocateDevice")
    told = device.run(f"{PROGRAMS}/toggle-device-allocation", status=0)
    assert re.search(r"(?m)^1$", told), told
    assert "<string>workshop<" in told.split("wddxPacket")[-2], told
    assert '<var name="IsAllocated"><string>0<' in device.send_to_nvm("nvmReleaseDevice")
    return {"toggle": told}


@symptom(NO_TOGGLE, "nicht gefunden", ("without_nvm",))
def no_nvm_service(device):
    return {"toggle": device.run(f"{PROGRAMS}/toggle-device-allocation", status=255)}


add("a class of another version", "no addresses", "Methode", lambda device: device.expect_no_addresses(),
       ("class_with", ""))


@symptom("no addresses", "and no ERROR")
def no_interface(device):
    """The root has a loopback alone."""
    device.expect_no_addresses()
    assert " ERROR " not in device.logged()


@symptom("no addresses", "The Java side", NO_CLASS)
def no_java_side(device):
    return {"page": device.expect_no_addresses()}


@symptom("no log at all", "Can't open log file /tmp/cgi.log: …", ("mode", LOG, 0o640))
def a_log_that_cannot_be_written(device):
    device.expect_success()
    assert device.logged() == ""


@symptom("no log at all", "Read-only", confined=UNITS_VIEW)
def a_log_that_others_rename(device):
    device.expect_success()
    assert "ChangeStdErr" in device.logged()
    device.run("sh", "-ec", f"mv {LOG} {LOG}.old; install -m 0660 -g vemo-web /dev/null {LOG}")
    before = device.read(LOG + ".old")
    device.expect_success()
    assert (device.logged(), device.read(LOG + ".old")) == ("", before)
    device.run("rm", LOG + ".old")


@symptom("no log at all", "No space", ("full", "/tmp", "install -m 0660 -g vemo-web /dev/null cgi.log"))
def a_full_disk_of_the_log(device):
    device.expect_success()
    assert device.run("cat", LOG) == ""


@pytest.mark.parametrize("seen, text, breaks, how, happens", SYMPTOMS)
def test_it_stands_where_the_table_says(device, seen, text, breaks, how, happens):
    (row,) = [row for row in ROWS if row["seen"] == seen and text in row["where it stands"]]
    with device.broken(*breaks, **how):
        got = happens(device)
        # The check writes into the log itself, so it comes last.
        for place, wanted, is_last in sorted(found_in(row["where it stands"]), key=lambda one: one[0] == "check"):
            if got and place in got:
                assert re.search(".*".join(map(re.escape, wanted.split("…"))), got[place]), got[place]
            else:
                device.expect_there(place, wanted, is_last)


# --- The table, without a root


@pytest.mark.parametrize("row", ROWS, ids=[row["where it stands"] for row in ROWS])
def test_listed_row_has_one_test_can_be_read_and_says_what_to_do(row):
    found = found_in(row["where it stands"])
    assert [text for _, text, _ in found] == pages.code(row["where it stands"])
    assert {place for place, _, _ in found} <= set(PLACES)
    assert row["cause"] and row["cure"]
    tests = [one.id for one in SYMPTOMS if one.values[0] == row["seen"] and one.values[1] in row["where it stands"]]
    assert len(tests) == 1, tests


def test_listed_are_all_that_are_tested():
    assert len(SYMPTOMS) == len(ROWS) > 0


def test_listed_symptoms_are_those_of_the_manual_page():
    diagnostics = pages.read(MANUAL).split(".Sh DIAGNOSTICS\n")[1].split(".El\n")[0]
    told = [re.sub(r'^"(.*)"$', r"\1", item).replace('""', '"')
            for item in re.findall(r"^\.It (.*)$", diagnostics, re.MULTILINE)]
    assert told == list(dict.fromkeys(row["seen"] for row in ROWS))
