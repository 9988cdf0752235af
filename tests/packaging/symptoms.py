"""What somebody sees, made to happen on the installed system; where docs/log.md says that it stands, it is looked
for. And whether every row of that table has its test.

    python3 -B -m pytest tests/packaging/symptoms.py --build BUILD -k "signal and 14"

There is no journal: what lighttpd writes to its standard error stands for it, and so that this holds the line of each
request, too, that goes there in the place of syslog.
"""

import concurrent.futures
import contextlib
import os
import re
import signal
import subprocess
import time

import pytest

import pages
from installed_device import (CLASS_FOLDER, FOLDER, JOURNAL, LOG, OPTIONS, PROGRAMS, SETTINGS, SITE, WEB_SERVER,
                              Device)

PAGE = "docs/log.md"
MANUAL = "packaging/man/setobdconf.cgi.8.in"
PATHS = "/usr/share/vemo-web/lighttpd-paths.conf"
LOCAL, ELSEWHERE = "127.0.0.1", "192.168.7.1"
SET_OPTION, DEVICE_INFORMATION, REBOOT = "/setobdconf.cgi", "/channeldeviceconfig.cgi", "/reboot.cgi"
ORDER = SET_OPTION + "?CanDetectTimeout=500"
LOGOS, HEADING, WHOLE, SUCCESS = "/images/tarn.gif", "<h2>", "</html>", "Set new option was successful."
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
SILENT = ("silent_nvm",)
# For a server that sees /tmp as its unit lets it: read-only, but for the one file.
UNITS_VIEW = ("unshare", "--mount", "--propagation", "unchanged", "sh", "-euc",
              f'mount --bind /tmp /tmp; mount --bind {LOG} {LOG}; mount -o remount,bind,ro /tmp; exec "$@"', "sh")


def found_in(cell):
    """What a cell says: the place, a text of it, whether that is the last line there of a process."""
    return [(place, text, bool(is_last))
            for place, texts, is_last in re.findall(rf"([\w.]+): (`[^`]*`(?:, `[^`]*`)*)({LAST})?", cell)
            for text in pages.code(texts)]


def pattern(text):
    """With anything where the text has an ellipsis."""
    return ".*".join(map(re.escape, text.split("…")))


def option(text):
    """A break: one more option of the Java VM."""
    return "changed", OPTIONS, "-Xrs\n", f"-Xrs\n{text}\n"


def timeout(name):
    """A break: that timeout of the gate is a second."""
    return "changed", SITE, f'"CGI_GATE_{name}_TIMEOUT"'.ljust(24) + ' => "60"', f'"CGI_GATE_{name}_TIMEOUT" => "1"'


class SeenDevice(Device):
    """With more ways to break it, and where what is seen of it is looked for."""

    @contextlib.contextmanager
    def class_with(self, methods):
        with self.without(CLASS_FOLDER):
            self.write("/root/ConfigVemo.java",
                       "package com.tarn.vemo.config; public final class ConfigVemo {%s}" % methods)
            subprocess.run(["javac", "-d", self.file(CLASS_FOLDER), self.file("/root/ConfigVemo.java")], check=True)
            yield

    @contextlib.contextmanager
    def silent_nvm(self):
        """Connections are accepted, and nothing is answered."""
        self.run("sh", "-c", f"kill -STOP {self.nvm.number}")
        try:
            yield
        finally:
            self.nvm.send_signal(signal.SIGCONT)  # nsenter, which stops and continues with it

    def full(self, folder, prepare):
        """A disk of 8 kB in the folder's place, full but for what prepare, for sh, makes there."""
        return self.typed(f"mount -t tmpfs -o mode=1777,size=8k tmpfs {folder}; cd {folder}; {prepare};"
                          " ! cat /dev/zero >full 2>/dev/null; test -s full", f"umount {folder}")

    def text_of(self, place):
        if place == "check":
            # What is not always there; that nothing is booted it says always.
            return "\n".join(set(self.run("vemo-web-check", status=None).splitlines()) - self.usual)
        if place == "disk":
            return self.run("df", FOLDER)
        if place == "last lines":
            # Of each process in the log.
            return "\n".join({line[1]: line[0] for line in re.finditer(LOGGED, self.read(LOG))}.values())
        if place == "journal":
            # lighttpd keeps what goes to a file for some seconds, and lets go of it then.
            self.run("sh", "-c", f"kill -HUP {self.server.number}")
        return self.read({"journal": JOURNAL, "log": LOG, "nvm.log": "/tmp/nvm.log", "settings": SETTINGS}[place])

    def expect_there(self, place, text, is_last=False):
        wanted = f"(?m){pattern(text)}{'$' if is_last else ''}"
        for _ in range(1 if place == "check" else SECONDS * 5):
            found = self.text_of("last lines" if is_last else place)
            if re.search(wanted, found):
                return
            time.sleep(0.2)
        pytest.fail(f"not in {place}, for {wanted}:\n{found}")

    def process_of(self, text):
        """The number of the process that logged the text last, once it has."""
        self.expect_there("log", text)
        return re.findall(f"{LOGGED}{re.escape(text)}$", self.read(LOG))[-1]

    def ask_at_once(self, times, path, host=LOCAL):
        """In the background. Gives the futures."""
        pool = concurrent.futures.ThreadPoolExecutor(times)
        asked = [pool.submit(self.ask, path, host=host) for _ in range(times)]
        pool.shutdown(wait=False)
        return asked

    def expect(self, status, *request, has=(), lacks=(), errors=None, **where):
        """A page; whether there are errors in the log."""
        found, page = self.ask(*request, **where)
        assert found == status, page
        assert all(text in page for text in has) and not any(text in page for text in lacks), page
        assert errors is None or (" ERROR " in self.read(LOG)) == errors
        return page

    def expect_success(self):
        self.expect(200, ORDER, has=[SUCCESS], errors=False)

    def send_to_nvm(self, function):
        packet = ("<wddxPacket version='1.0'><header/><data><struct><var name='DeviceOwner'><string>workshop</string>"
                  "</var></struct></data></wddxPacket>")
        return self.ask(f"/nVm?FunctionName={function}", "--request", "GET", "--data", packet, port=5302)[1]


@pytest.fixture(scope="module")
def whole(build):
    with SeenDevice(build, "Symptoms") as device:
        device.install_ours()
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
    whole.expect(200, ORDER, has=["successful", WHOLE])
    assert "=500" in whole.read(SETTINGS)


# --- The tests of the table's rows: what is seen, and a text of "where it stands", which choose the row; the breaks; a
# function that makes it happen. That function may return what it got itself, by place.

SYMPTOMS = []


def symptom(seen, text, *breaks, **how):
    """Takes the function."""
    def of(happens):
        SYMPTOMS.append(pytest.param(seen, text, breaks, how, happens, id=f"{seen}: {text}"))
        return happens
    return of


def page(status, *request, **expected):
    """A function that asks for it."""
    return lambda device: {"page": device.expect(status, *request, **expected)}


NO_CONTENT = page(200, SET_OPTION, has=[LOGOS, WHOLE], lacks=[HEADING])
symptom("only the logos", "not found", NO_CLASS)(NO_CONTENT)
symptom("only the logos", "Can't create", option("-Xss1"))(NO_CONTENT)
symptom("only the logos", "JAVA_CLASSPATH", option("-Xms64m"))(
    page(200, SET_OPTION, has=[LOGOS], lacks=[HEADING, WHOLE], errors=False))

CUT = {"has": [HEADING], "lacks": [WHOLE]}
CUT_OFF = "the page ends in the middle"
symptom(CUT_OFF, "signal 6")(page(200, SET_OPTION, *MALFORMED, **CUT))
symptom(CUT_OFF, "signal 14", timeout("RUN"), SILENT, is_served=True)(page(200, DEVICE_INFORMATION, **CUT))
symptom(CUT_OFF, "fatal error", ("class_with", "public static String getLanIp4AddressS() { return null; }"))(
    page(200, DEVICE_INFORMATION, **CUT))


@symptom(CUT_OFF, "signal 9", SILENT)
def a_program_is_killed(device):
    """As the kernel does it when memory ends."""
    (asked,) = device.ask_at_once(1, DEVICE_INFORMATION)
    number = device.process_of("nvmGetDeviceStatus")
    device.run("sh", "-c", f"kill -KILL {number}")
    status, text = asked.result(timeout=SECONDS)
    assert status == 200 and HEADING in text and WHOLE not in text
    device.expect_there("journal", f"CGI pid {number} died")


symptom("403", "foreign.example")(page(403, ORDER, "--referer", "http://foreign.example/a.html"))
symptom("403", "HEAD")(page(403, SET_OPTION, "--head"))
# The server knows a file's mode for a second.
symptom("403", "channeldeviceconfig", ("mode", f"{PROGRAMS}{DEVICE_INFORMATION}", 0o644), is_served=True)(
    page(403, DEVICE_INFORMATION))
symptom("413", "POST")(page(413, SET_OPTION, "--data", "CanDetectTimeout=" + "1" * 5000))
symptom("500", "libjvm", ("without", "/usr/lib/jvm/default-java"))(page(500, SET_OPTION))
symptom("500", "CGI_GATE_SLOT_FILE", ("without", "/run/vemo-web/gate"), ("mode", "/run/vemo-web", 0o755, "root"))(
    page(500, SET_OPTION))
symptom("500", "terminate called")(page(500, REBOOT, *MALFORMED))


@symptom("403", "GET / HTTP", *IN_NETWORK, is_served=True)
def a_name_that_is_not_known(device):
    device.expect(403, "/", host=ELSEWHERE)
    device.expect_there("journal", f'{ELSEWHERE} {ELSEWHERE}:8080 … "GET / ')


@symptom("403", '"-"', *KNOWN, is_served=True)
def an_order_of_no_page(device):
    device.expect(200, SET_OPTION, host=ELSEWHERE)
    device.expect(403, ORDER, host=ELSEWHERE)
    device.expect(200, ORDER, "--referer", f"http://{ELSEWHERE}:8080{DEVICE_INFORMATION}", host=ELSEWHERE)


@symptom("503", "no slot became free", timeout("QUEUE"), is_served=True)
def programs_that_hang(device):
    with device.silent_nvm():
        asked = device.ask_at_once(4, DEVICE_INFORMATION)
        for _ in range(SECONDS * 5):
            if device.read(LOG).count("nvmGetDeviceStatus") == 4:
                break
            time.sleep(0.2)
        device.expect(503, REBOOT)
        assert device.text_of("last lines").count("127.0.0.1 nvmGetDeviceStatus") == 4
    assert all(WHOLE in one.result(timeout=SECONDS)[1] for one in asked)


@symptom("503", "one client", *KNOWN, ("changed", WEB_SERVER, '#var.vemo_client_requests := "0"',
                                       'var.vemo_client_requests := "1"'), is_served=True)
def many_requests_of_one_client(device):
    with device.silent_nvm():
        (first,) = device.ask_at_once(1, DEVICE_INFORMATION, ELSEWHERE)
        device.process_of("nvmGetDeviceStatus")
        device.expect(503, DEVICE_INFORMATION, host=ELSEWHERE)
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
    stored = re.findall(r"(?m)^(\S+ \S+) .*ChangeStdErr$", device.read(LOG))[-1]
    assert float(device.run("date", "+%s.%N", "--date", stored)) < device.file(SETTINGS).stat().st_mtime


NO_EFFECT = "the value is there and has no effect"
symptom(NO_EFFECT, "=abc")(page(200, SET_OPTION, "--data", "CanDetectTimeout=abc", has=["successful"]))


symptom(NO_EFFECT, "=500")(page(200, ORDER, has=[SUCCESS]))


def only_main(happens):
    def of(device):
        happens(device)
        assert device.read(LOG).count("\n") == 1
    return of


ONLY_MAIN = 'a process that logs only "main"'
symptom(ONLY_MAIN, "Reboot")(only_main(page(200, REBOOT, has=[WHOLE])))
symptom(ONLY_MAIN, "DeviceInformation")(only_main(page(500, DEVICE_INFORMATION, *MALFORMED)))
# A page that nobody takes.
symptom(ONLY_MAIN, "SetObdConf")(only_main(lambda device: device.run(
    "bash", "-c", '{ (trap "" PIPE; while echo; do :; done) 2>/dev/null;'
    f" exec env REQUEST_METHOD=GET QUERY_STRING= JAVA_CLASSPATH={CLASS_FOLDER} {PROGRAMS}/setobdconf.cgi; }} | true")))

NO_TOGGLE = "a toggle that says 1 and changes nothing"
TOGGLE = f"{PROGRAMS}/toggle-device-allocation"
symptom(NO_TOGGLE, "nicht gefunden", ("without_nvm",))(lambda device: {"toggle": device.run(TOGGLE, status=255)})


@symptom(NO_TOGGLE, "nvm.log")
def a_device_that_another_holds(device):
    assert '<var name="DeviceOwner"><string>workshop<' in device.send_to_nvm("nvmAllocateDevice")
    told = device.run(TOGGLE)
    assert re.search(r"(?m)^1$", told), told
    assert "<string>workshop<" in told.split("wddxPacket")[-2], told
    assert '<var name="IsAllocated"><string>0<' in device.send_to_nvm("nvmReleaseDevice")
    return {"toggle": told}


def no_addresses(errors):
    def of(device):
        text = device.expect(200, DEVICE_INFORMATION, errors=errors)
        network = text.split("<h3>Network</h3>")[1]
        assert WHOLE in network
        assert not re.search(r"\d+\.\d+\.\d+\.\d+", network), network
        return {"page": network}
    return of


NO_ADDRESSES = "no addresses"
symptom(NO_ADDRESSES, "Methode", ("class_with", ""))(no_addresses(errors=True))
symptom(NO_ADDRESSES, "and no ERROR")(no_addresses(errors=False))  # the root has a loopback alone
symptom(NO_ADDRESSES, "The Java side", NO_CLASS)(no_addresses(errors=True))

NO_LOG = "no log at all"


@symptom(NO_LOG, "Can't open log file /tmp/cgi.log: …", ("mode", LOG, 0o640))
@symptom(NO_LOG, "No space", ("full", "/tmp", "install -m 0660 -g vemo-web /dev/null cgi.log"))
def a_log_that_cannot_be_written(device):
    device.expect_success()
    assert device.run("cat", LOG) == ""


@symptom(NO_LOG, "Read-only", confined=UNITS_VIEW)
def a_log_that_others_rename(device):
    device.expect_success()
    assert "ChangeStdErr" in device.read(LOG)
    device.run("sh", "-ec", f"mv {LOG} {LOG}.old; install -m 0660 -g vemo-web /dev/null {LOG}")
    before = device.read(LOG + ".old")
    device.expect_success()
    assert (device.read(LOG), device.read(LOG + ".old")) == ("", before)
    device.run("rm", LOG + ".old")


@pytest.mark.parametrize("seen, text, breaks, how, happens", SYMPTOMS)
def test_it_stands_where_the_table_says(device, seen, text, breaks, how, happens):
    (row,) = [row for row in ROWS if row["seen"] == seen and text in row["where it stands"]]
    with device.broken(*breaks, **how):
        got = happens(device) or {}
        # The check writes into the log itself, so it comes last.
        for place, wanted, is_last in sorted(found_in(row["where it stands"]), key=lambda one: one[0] == "check"):
            if place in got:
                assert re.search(pattern(wanted), got[place]), got[place]
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


def test_listed_symptoms_are_all_that_are_tested_and_those_of_the_manual_page():
    assert len(SYMPTOMS) == len(ROWS)
    diagnostics = pages.read(MANUAL).split(".Sh DIAGNOSTICS\n")[1].split(".El\n")[0]
    told = [re.sub(r'^"(.*)"$', r"\1", item).replace('""', '"')
            for item in re.findall(r"^\.It (.*)$", diagnostics, re.MULTILINE)]
    assert told == list(dict.fromkeys(row["seen"] for row in ROWS))
