"""What somebody sees, made to happen on the installed system; where docs/log.md says that it stands, it is looked
for. And whether every row of that table has its test.

    python3 -B tests/packaging/symptoms.py BUILD [Listed | Symptoms[.test]]

The root is not booted: there is no journal. What lighttpd writes to its standard error stands for it, and so that
this holds the line of each request, too, that goes there in the place of syslog.
"""

import concurrent.futures
import contextlib
import functools
import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import time
import unittest

import packages
import root
from packages import CLASS_FOLDER, LOG, OPTIONS, SETTINGS, WEB_SERVER, pages

PAGE = "docs/log.md"
MANUAL = "packaging/man/setobdconf.cgi.8.in"
JOURNAL = "/run/vemo-web/journal"
SITE = "/usr/share/vemo-web/lighttpd-site.conf"
PATHS = "/usr/share/vemo-web/lighttpd-paths.conf"
PROGRAMS = "/usr/libexec/vemo-web"
LOCAL, ELSEWHERE = "127.0.0.1", "192.168.7.1"
SET_OPTION, DEVICE_INFORMATION, REBOOT = "/setobdconf.cgi", "/channeldeviceconfig.cgi", "/reboot.cgi"
ORDER = SET_OPTION + "?CanDetectTimeout=500"
WHOLE = "</html>"
MALFORMED = ("--header", "Content-Type: multipart/form-data; boundary=frontier",
             "--data-binary", "--frontier\r\nX: y\r\n--frontier--\r\n")
# The class, with these methods.
CLASS = "package com.tarn.vemo.config; public final class ConfigVemo {%s}"
LAST = " as the last line"
SECONDS = 20  # for what is there at once, on a host that may be busy


def rows():
    return [row for row in pages.rows(PAGE) if "seen" in row]


def places():
    return [row["where"] for row in pages.rows(PAGE) if set(row) == {"where", "what"}]


def found_in(cell):
    """What a cell says: the place, a text of it, whether that is the last line there of a process."""
    found = []
    for place, texts, is_last in re.findall(rf"([\w.]+): (`[^`]*`(?:, `[^`]*`)*)({LAST})?", cell):
        found += [(place, text, bool(is_last)) for text in pages.code(texts)]
    return found


def pattern(text):
    return ".*".join(map(re.escape, text.split("…")))


def symptom(seen, text):
    """The row of the table that holds the text where it tells what stands where. The function makes it happen and
    yields, with what it got itself, by place; then the row is looked for."""
    def of(make):
        @functools.wraps(make)
        def test(self):
            (row,) = [row for row in rows() if row["seen"] == seen and text in row["where it stands"]]
            with contextlib.contextmanager(make)(self) as got:
                # It writes into the log itself, so it comes last.
                for place, wanted, is_last in sorted(found_in(row["where it stands"]),
                                                     key=lambda one: one[0] == "check"):
                    with self.subTest(place=place, text=wanted):
                        self.expect_there(place, pattern(wanted), is_last, got or {})
        test.row = (seen, text)
        return test
    return of


class Listed(unittest.TestCase):
    """Without a root: the table against its tests, and the manual page against the table."""

    def test_every_row_has_its_test(self):
        tests = [test.row for test in vars(Symptoms).values() if hasattr(test, "row")]
        self.assertGreater(len(tests), 0)
        for row in rows():
            of_it = [(seen, text) for seen, text in tests if seen == row["seen"] and text in row["where it stands"]]
            with self.subTest(seen=row["seen"], where=row["where it stands"]):
                self.assertEqual(len(of_it), 1)
        self.assertEqual(len(tests), len(rows()))

    def test_every_row_can_be_read_and_says_what_to_do(self):
        known = places()
        for row in rows():
            with self.subTest(seen=row["seen"], where=row["where it stands"]):
                found = found_in(row["where it stands"])
                self.assertEqual([text for _, text, _ in found], pages.code(row["where it stands"]))
                self.assertLessEqual({place for place, _, _ in found}, set(known))
                self.assertTrue(row["cause"] and row["cure"])

    def test_the_manual_page_has_the_same_symptoms(self):
        diagnostics = pages.read(MANUAL).split(".Sh DIAGNOSTICS\n")[1].split(".El\n")[0]
        told = [re.sub(r'^"(.*)"$', r"\1", item).replace('""', '"')
                for item in re.findall(r"^\.It (.*)$", diagnostics, re.MULTILINE)]
        self.assertEqual(told, list(dict.fromkeys(row["seen"] for row in rows())))


class Symptoms(packages.InRoot):
    without, changed, mode = packages.Check.without, packages.Check.changed, packages.Check.mode

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.device.install(*(cls.made[name] for name in ("vemo-web", "vemo-web-standin")))
        cls.device.run("install", "-d", "-o", "vemo-web", os.path.dirname(JOURNAL))
        cls.device.run("install", "-o", "vemo-web", "/dev/null", JOURNAL)
        cls.device.run_beside("ip", "address", "add", f"{ELSEWHERE}/32", "dev", "lo")
        text = cls.device.file(PATHS).read_text(encoding="utf-8")
        after = text.replace('accesslog.use-syslog = "enable"', 'accesslog.filename = "/dev/stderr"')
        assert text != after, text
        cls.device.file(PATHS).write_text(after, encoding="utf-8")
        cls.start_nvm()
        cls.addClassCleanup(lambda: cls.device.stop(cls.nvm))
        cls.start_server()
        cls.addClassCleanup(lambda: cls.device.stop(cls.server))
        # That nothing is booted it says always.
        cls.usual = cls.check()

    @classmethod
    def start_server(cls, address=LOCAL, confined=()):
        cls.server = cls.device.start(
            *confined, "setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--clear-groups", "--reset-env",
            "sh", "-c", f'exec "$@" 2>>{JOURNAL}', "sh",
            "/usr/sbin/lighttpd", "-D", "-f", "/usr/share/vemo-web/lighttpd.conf")
        cls.wait_for(address, 8080)

    @classmethod
    def start_nvm(cls):
        cls.nvm = cls.device.start(f"{PROGRAMS}/nvm-service")
        cls.wait_for(LOCAL, 5302)

    @classmethod
    def wait_for(cls, address, port):
        for _ in range(SECONDS * 10):
            if cls.device.run("bash", "-c", f": 2>/dev/null >/dev/tcp/{address}/{port} && echo", status=None) == "\n":
                return
            time.sleep(0.1)
        raise AssertionError(cls.device.file(JOURNAL).read_text(encoding="utf-8"))

    @contextlib.contextmanager
    def served(self, *changes, address=LOCAL, confined=()):
        """While it lasts, the server runs with the changes of files."""
        try:
            with contextlib.ExitStack() as stack:
                for change in changes:
                    stack.enter_context(self.changed(*change))
                self.device.stop(self.server)
                self.start_server(address, confined)
                yield
        finally:
            self.device.stop(self.server)
            self.start_server()

    def setUp(self):
        """Begins with a device that is whole. What a test leaves behind is its last one's to mend."""
        if not self.device.file(LOG).is_file():
            self.device.run("install", "-m", "0660", "-g", "vemo-web", "/dev/null", LOG)
        self.device.file(SETTINGS).unlink(missing_ok=True)
        for path in (JOURNAL, LOG):
            os.truncate(self.device.file(path), 0)
        self.addCleanup(self.expect_whole)

    def expect_whole(self):
        status, page = self.ask(ORDER)
        self.assertEqual(status, 200)
        self.assertIn("successful", page)
        self.assertIn(WHOLE, page)
        self.assertIn("=500", self.read(SETTINGS))

    # --- Asking

    def ask(self, path=SET_OPTION, *options, host=LOCAL):
        """Status and page."""
        told = self.device.run_beside("curl", "--silent", "--show-error", "--max-time", "100",
                                      "--write-out", "\n%{http_code}", *options, f"http://{host}:8080{path}")
        page, status = told.rsplit("\n", 1)
        return int(status), page

    def ask_at_once(self, times, path, host=LOCAL):
        """In the background: the futures."""
        pool = concurrent.futures.ThreadPoolExecutor(times)
        self.addCleanup(pool.shutdown)
        return [pool.submit(self.ask, path, host=host) for _ in range(times)]

    def expect_only_logos(self):
        status, page = self.ask()
        self.assertEqual(status, 200)
        self.assertIn("/images/tarn.gif", page)
        self.assertNotIn("<h2>", page)
        return page

    def expect_cut(self, path, *options):
        status, page = self.ask(path, *options)
        self.assertEqual(status, 200)
        self.assertIn("<h2>", page)
        self.assertNotIn(WHOLE, page)
        return page

    def expect_status(self, expected, *request, **where):
        status, page = self.ask(*request, **where)
        self.assertEqual(status, expected, page)

    def expect_success(self):
        status, page = self.ask(ORDER)
        self.assertEqual(status, 200)
        self.assertIn("Set new option was successful.", page)
        self.assertNotIn(" ERROR ", self.logged())

    # --- Looking

    @classmethod
    def check(cls):
        """Its lines."""
        return set(cls.device.run("vemo-web-check", status=None).splitlines())

    def logged(self):
        return self.device.file(LOG).read_text(encoding="utf-8", errors="replace")

    def journal(self):
        # It keeps what goes to a file for some seconds, and lets go of it then.
        self.device.run("sh", "-c", f"kill -HUP {self.server.number}")
        return self.device.file(JOURNAL).read_text(encoding="utf-8", errors="replace")

    def text_of(self, place, got):
        if place in got:
            return got[place]
        looks = {"check": lambda: "\n".join(self.check() - self.usual), "journal": self.journal, "log": self.logged,
                 "settings": lambda: self.read(SETTINGS), "nvm.log": lambda: self.read("/tmp/nvm.log"),
                 "disk": lambda: self.device.run("df", os.path.dirname(SETTINGS))}
        return looks[place]()

    def last_lines(self, text):
        """Of each process, those of the log."""
        last = {}
        for line in text.splitlines():
            if told := re.match(r"\d{4}-\S+ \S+ +[A-Z]+ +cgi +(\d+)", line):
                last[told[1]] = line
        return "\n".join(last.values())

    def expect_there(self, place, wanted, is_last, got):
        for _ in range(SECONDS * 5):
            text = self.text_of(place, got)
            looked_at = self.last_lines(text) if is_last else text
            if re.search(f"(?m){wanted}{'$' if is_last else ''}", looked_at):
                return
            if place in ("check", *got):
                break
            time.sleep(0.2)
        self.fail(f"not in {place}, for {wanted}:\n{text}")

    def process_of(self, text):
        """The number of the process that logged the text last, once it has."""
        for _ in range(SECONDS * 5):
            if told := re.findall(rf"(?m)^\S+ \S+ +[A-Z]+ +cgi +(\d+).*{re.escape(text)}$", self.logged()):
                return told[-1]
            time.sleep(0.2)
        self.fail(f"not logged: {text}")

    # --- Breaking

    @contextlib.contextmanager
    def option(self, text):
        with self.changed(OPTIONS, "-Xrs\n", f"-Xrs\n{text}\n"):
            yield

    @contextlib.contextmanager
    def class_with(self, methods):
        with self.without(CLASS_FOLDER), tempfile.TemporaryDirectory() as folder:
            source = pathlib.Path(folder, "ConfigVemo.java")
            source.write_text(CLASS % methods, encoding="utf-8")
            subprocess.run(["javac", "-d", self.device.file(CLASS_FOLDER), source], check=True)
            try:
                yield
            finally:
                shutil.rmtree(self.device.file(CLASS_FOLDER))

    @contextlib.contextmanager
    def silent_nvm_service(self):
        """In its place one that takes connections and answers nothing."""
        self.device.stop(self.nvm)
        silent = self.device.start("perl", "-MIO::Socket::INET", "-e",
                                   f'$s = IO::Socket::INET->new(LocalAddr => "{LOCAL}:5302", Listen => 9,'
                                   " ReuseAddr => 1) or die; sleep")
        try:
            self.wait_for(LOCAL, 5302)
            yield
        finally:
            self.device.stop(silent)
            self.start_nvm()

    @contextlib.contextmanager
    def full(self, folder, size, prepare):
        """A disk of its own in the folder's place, full but for what prepare, for sh, makes there."""
        self.device.run("mount", "-t", "tmpfs", "-o", f"mode=1777,size={size}", "tmpfs", folder)
        try:
            self.device.run("sh", "-c", f"cd {folder}; {prepare}; cat /dev/zero >full 2>/dev/null; test -s full")
            yield
        finally:
            self.device.run("umount", folder)

    def in_network(self, *changes):
        """The server listens at an address that is not loopback."""
        return self.served((WEB_SERVER, f'server.bind = "{LOCAL}"', f'server.bind = "{ELSEWHERE}"'), *changes,
                           address=ELSEWHERE)

    def known_in_network(self, *changes):
        hosts = r'var.vemo_hosts = "%s"'
        return self.in_network((WEB_SERVER, hosts % r"localhost|127\.0\.0\.1", hosts % r"192\.168\.7\.1"), *changes)

    # --- Only the logos

    @symptom("only the logos", "not found")
    def test_no_class(self):
        with self.without(CLASS_FOLDER):
            self.assertIn(WHOLE, self.expect_only_logos())
            yield

    @symptom("only the logos", "Can't create")
    def test_a_refused_vm(self):
        with self.option("-Xss1"):
            self.assertIn(WHOLE, self.expect_only_logos())
            yield

    @symptom("only the logos", "JAVA_CLASSPATH")
    def test_a_vm_that_ends_the_process(self):
        with self.option("-Xms64m"):
            self.assertNotIn(WHOLE, self.expect_only_logos())
            self.assertNotIn(" ERROR ", self.logged())
            yield

    # --- The page ends in the middle

    @symptom("the page ends in the middle", "signal 6")
    def test_a_malformed_request(self):
        self.expect_cut(SET_OPTION, *MALFORMED)
        self.assertFalse(self.device.file(SETTINGS).exists())
        yield

    @symptom("the page ends in the middle", "signal 14")
    def test_the_gate_ends_a_program(self):
        with self.served((SITE, '"CGI_GATE_RUN_TIMEOUT"   => "60"', '"CGI_GATE_RUN_TIMEOUT"   => "1"')):
            with self.silent_nvm_service():
                self.expect_cut(DEVICE_INFORMATION)
                yield
                self.assertIn(f"CGI pid {self.process_of('nvmGetDeviceStatus')} died", self.journal())

    @symptom("the page ends in the middle", "signal 9")
    def test_a_program_is_killed(self):
        """As the kernel does it when memory ends."""
        with self.silent_nvm_service():
            (asked,) = self.ask_at_once(1, DEVICE_INFORMATION)
            self.device.run("sh", "-c", f"kill -KILL {self.process_of('nvmGetDeviceStatus')}")
            status, page = asked.result(timeout=SECONDS)
            self.assertEqual(status, 200)
            self.assertIn("<h2>", page)
            self.assertNotIn(WHOLE, page)
            yield

    @symptom("the page ends in the middle", "fatal error")
    def test_the_vm_crashes(self):
        with self.class_with("public static String getLanIp4AddressS() { return null; }"):
            yield {"page": self.expect_cut(DEVICE_INFORMATION)}

    # --- 403

    @symptom("403", "GET / HTTP")
    def test_a_name_that_is_not_known(self):
        with self.in_network():
            for path in ("/", "/css/all.css", SET_OPTION):
                self.expect_status(403, path, host=ELSEWHERE)
            yield
            self.assertRegex(self.journal(), rf'(?m)^{ELSEWHERE} {ELSEWHERE}:8080 .* "GET / ')
        with self.known_in_network():
            self.expect_status(200, "/", host=ELSEWHERE)

    @symptom("403", '"-"')
    def test_an_order_of_no_page(self):
        with self.known_in_network():
            self.expect_status(200, host=ELSEWHERE)
            self.expect_status(403, ORDER, host=ELSEWHERE)
            yield
            self.expect_status(200, ORDER, "--referer", f"http://{ELSEWHERE}:8080{DEVICE_INFORMATION}", host=ELSEWHERE)

    @symptom("403", "foreign.example")
    def test_an_order_of_a_foreign_page(self):
        self.expect_status(403, ORDER, "--referer", "http://foreign.example/a.html")
        yield

    @symptom("403", "HEAD")
    def test_head_of_a_program(self):
        self.expect_status(403, SET_OPTION, "--head")
        yield
        self.expect_status(403, SET_OPTION, "--request", "PUT")

    @symptom("403", "channeldeviceconfig")
    def test_a_program_without_its_mode(self):
        # The server knows a file's mode for a second.
        with self.mode(f"{PROGRAMS}{DEVICE_INFORMATION}", 0o644), self.served():
            self.expect_status(403, DEVICE_INFORMATION)
            self.expect_status(200, REBOOT)
            yield

    # --- 413, 500, 503

    @symptom("413", "POST")
    def test_a_large_body(self):
        self.expect_status(413, SET_OPTION, "--data", "CanDetectTimeout=" + "1" * 5000)
        yield

    @symptom("500", "libjvm")
    def test_no_java_vm(self):
        with self.without("/usr/lib/jvm/default-java"):
            self.expect_status(500)
            yield

    @symptom("500", "CGI_GATE_SLOT_FILE")
    def test_a_folder_of_the_gate_that_is_not_the_services(self):
        folder = os.path.dirname(JOURNAL)
        with self.without(folder + "/gate"), self.mode(folder, 0o755, "root"):
            self.expect_status(500)
            yield

    @symptom("500", "terminate called")
    def test_a_malformed_request_for_a_sibling_page(self):
        for page in (DEVICE_INFORMATION, REBOOT):
            self.expect_status(500, page, *MALFORMED)
        yield

    @symptom("503", "no slot became free")
    def test_programs_that_hang(self):
        with self.served((SITE, '"CGI_GATE_QUEUE_TIMEOUT" => "60"', '"CGI_GATE_QUEUE_TIMEOUT" => "1"')):
            with self.silent_nvm_service():
                asked = self.ask_at_once(4, DEVICE_INFORMATION)
                for _ in range(SECONDS * 5):
                    if self.logged().count("nvmGetDeviceStatus") == 4:
                        break
                    time.sleep(0.2)
                self.expect_status(503, REBOOT)
                yield
                waiting = self.last_lines(self.logged())
                self.assertEqual(waiting.count("127.0.0.1 nvmGetDeviceStatus"), 4, waiting)
            for one in asked:
                self.assertIn(WHOLE, one.result(timeout=SECONDS)[1])

    @symptom("503", "one client")
    def test_many_requests_of_one_client(self):
        with self.known_in_network((WEB_SERVER, '#var.vemo_client_requests := "0"', 'var.vemo_client_requests := "1"')):
            with self.silent_nvm_service():
                (first,) = self.ask_at_once(1, DEVICE_INFORMATION, ELSEWHERE)
                self.process_of("nvmGetDeviceStatus")
                self.expect_status(503, DEVICE_INFORMATION, host=ELSEWHERE)
                yield
            self.assertIn(WHOLE, first.result(timeout=SECONDS)[1])

    # --- The value

    @symptom('"successful", and the value is not there', "settings file`")
    def test_settings_that_cannot_be_written(self):
        with self.mode(os.path.dirname(SETTINGS), 0o755, "root"):
            self.expect_success()
            self.assertFalse(self.device.file(SETTINGS).exists())
            yield

    @symptom('"successful", and the value is not there', "disk")
    def test_a_full_disk(self):
        before = "[SETTINGS]\\nVEMODCanDetectTimeout=1\\n"
        with self.full(os.path.dirname(SETTINGS), "8k",
                       f"printf '{before}' >obd.conf; chown vemo-web: . obd.conf"):
            self.expect_success()
            self.assertIn("=1\n", self.device.run("cat", SETTINGS))
            yield

    @symptom('"successful", and the value is not there', "earlier")
    def test_another_program_stores_later(self):
        self.device.run("install", "-o", "vemo-web", "/dev/null", SETTINGS)
        read = "[SETTINGS]\nOther=1\n"
        self.device.file(SETTINGS).write_text(read, encoding="utf-8")
        self.expect_success()
        self.assertIn("=500", self.read(SETTINGS))
        self.device.file(SETTINGS).write_text(read.replace("1", "2"), encoding="utf-8")
        self.assertNotIn("=500", self.read(SETTINGS))
        yield
        stored = re.findall(r"(?m)^(\S+ \S+) .*ChangeStdErr$", self.logged())[-1]
        local = self.device.run("date", "+%s.%N", "--date", stored)
        self.assertLess(float(local), self.device.file(SETTINGS).stat().st_mtime)

    @symptom("the value is there and has no effect", "=500")
    def test_a_device_that_was_not_restarted(self):
        self.expect_success()
        yield
        start = re.search(r"(?m)^btime (\d+)$", self.device.run("cat", "/proc/stat"))[1]
        self.assertLess(int(start), self.device.file(SETTINGS).stat().st_mtime)

    @symptom("the value is there and has no effect", "=abc")
    def test_a_value_that_is_no_number(self):
        self.assertIn("successful", self.ask(SET_OPTION, "--data", "CanDetectTimeout=abc")[1])
        yield

    # --- A process that logs only "main"

    @symptom('a process that logs only "main"', "Reboot")
    def test_a_healthy_reboot_page(self):
        status, page = self.ask(REBOOT)
        self.assertEqual(status, 200)
        self.assertIn(WHOLE, page)
        self.assertEqual(self.logged().count("\n"), 1, self.logged())
        yield

    @symptom('a process that logs only "main"', "DeviceInformation")
    def test_a_malformed_request_for_device_information(self):
        self.expect_status(500, DEVICE_INFORMATION, *MALFORMED)
        self.assertEqual(self.logged().count("\n"), 1, self.logged())
        yield

    @symptom('a process that logs only "main"', "SetObdConf")
    def test_a_page_that_nobody_takes(self):
        self.device.run("bash", "-c", '{ (trap "" PIPE; while echo; do :; done) 2>/dev/null;'
                        f' exec env REQUEST_METHOD=GET QUERY_STRING= JAVA_CLASSPATH={CLASS_FOLDER}'
                        f" {PROGRAMS}/setobdconf.cgi; }} | true")
        self.assertEqual(self.logged().count("\n"), 1, self.logged())
        yield

    # --- A toggle that changes nothing

    def send_to_nvm(self, function):
        packet = ("<wddxPacket version='1.0'><header/><data><struct><var name='DeviceOwner'><string>workshop</string>"
                  "</var></struct></data></wddxPacket>")
        return self.device.run_beside("curl", "--silent", "--show-error", "--request", "GET", "--data", packet,
                                      f"http://{LOCAL}:5302/nVm?FunctionName={function}")

    @symptom("a toggle that says 1 and changes nothing", "nvm.log")
    def test_a_device_that_another_holds(self):
        self.assertIn('<var name="DeviceOwner"><string>workshop<', self.send_to_nvm("nvmAllocateDevice"))
        told = self.device.run(f"{PROGRAMS}/toggle-device-allocation", status=0)
        self.assertRegex(told, r"(?m)^1$")
        self.assertTrue(told.split("wddxPacket")[-2].count("<string>workshop<"), told)
        yield {"toggle": told}
        self.assertIn('<var name="IsAllocated"><string>0<', self.send_to_nvm("nvmReleaseDevice"))

    @symptom("a toggle that says 1 and changes nothing", "nicht gefunden")
    def test_no_nvm_service(self):
        self.device.stop(self.nvm)
        try:
            yield {"toggle": self.device.run(f"{PROGRAMS}/toggle-device-allocation", status=255)}
        finally:
            self.start_nvm()

    # --- No addresses

    def expect_no_addresses(self):
        status, page = self.ask(DEVICE_INFORMATION)
        self.assertEqual(status, 200)
        network = page.split("<h3>Network</h3>")[1]
        self.assertIn(WHOLE, network)
        self.assertNotRegex(network, r"\d+\.\d+\.\d+\.\d+")
        return network

    @symptom("no addresses", "Methode")
    def test_a_class_of_another_version(self):
        with self.class_with(""):
            self.expect_no_addresses()
            yield

    @symptom("no addresses", "and no ERROR")
    def test_no_interface(self):
        """The root has a loopback alone."""
        self.expect_no_addresses()
        self.assertNotIn(" ERROR ", self.logged())
        yield

    @symptom("no addresses", "The Java side")
    def test_no_java_side(self):
        with self.without(CLASS_FOLDER):
            yield {"page": self.expect_no_addresses()}

    # --- No log at all

    @symptom("no log at all", "Can't open log file /tmp/cgi.log: …")
    def test_a_log_that_cannot_be_written(self):
        with self.mode(LOG, 0o640):
            self.expect_success()
            self.assertEqual(self.logged(), "")
            yield

    @symptom("no log at all", "Read-only")
    def test_a_log_that_others_rename(self):
        """The server sees /tmp as its unit lets it: read-only, but for the one file."""
        view = ("unshare", "--mount", "--propagation", "unchanged", "sh", "-euc",
                f'mount --bind /tmp /tmp; mount --bind {LOG} {LOG}; mount -o remount,bind,ro /tmp; exec "$@"', "sh")
        with self.served(confined=view):
            self.expect_success()
            self.assertIn("ChangeStdErr", self.logged())
            old = self.device.file(LOG).rename(self.device.file(LOG + ".old"))
            self.addCleanup(old.unlink)
            self.device.run("install", "-m", "0660", "-g", "vemo-web", "/dev/null", LOG)
            before = old.read_text(encoding="utf-8")
            self.expect_success()
            self.assertEqual((self.logged(), old.read_text(encoding="utf-8")), ("", before))
            yield

    @symptom("no log at all", "No space")
    def test_a_full_disk_of_the_log(self):
        with self.full("/tmp", "8k", "install -m 0660 -g vemo-web /dev/null cgi.log"):
            self.expect_success()
            self.assertEqual(self.device.run("cat", LOG), "")
            yield


if __name__ == "__main__":
    unittest.main(verbosity=2)
