"""The device as tests start it: its files, and the web servers that can stand before its programs. Works inside the
device's sandbox, with Debian's own Python."""

import contextlib
import http.client
import os
import pathlib
import re
import shlex
import shutil
import signal
import socket
import ssl
import subprocess
import threading
import time

import client
from client import Answer
from prepared import TLS, with_parts

SOURCE = pathlib.Path("/source")
SHIPPED = pathlib.Path("/srv/vemo")
UNPACKED = pathlib.Path("/build/web-servers")  # by tools/unpack-packages
SETTINGS = pathlib.Path("/app/tarn-belox/runvex/obd.conf")
SHIPPED_SETTINGS = SOURCE / "standin/obd.conf"
LOG = pathlib.Path("/tmp/cgi.log")
FAKE_VM = "/build/standin/libfake-vm.so"
HOLDING_CLASS = "/build/tests/java/holding"  # a configuration class that never gets ready
LIMIT = 20  # seconds for whatever is waited for
MOMENT = 0.7  # seconds in which what is not to happen would

SET_OPTION = "/setobdconf.cgi"
FIELD = "CanDetectTimeout="
CHANGE = f"{SET_OPTION}?{FIELD}500"
CGI_PAGES = ("setobdconf.cgi", "channeldeviceconfig.cgi", "reboot.cgi")
NETWORK = "192.168.7.1"  # a name of each server, whether or not it listens there
SECOND = "192.168.7.2"  # of another client there
USER, SECRET = "technician", 'a$1 "b":c\\'

# What is tested. Changed by choose(), before test modules are imported.
NAME = "lighttpd"
ADDRESS = "127.0.0.1"
HOST = "localhost"
PARTS = ()
IS_LONG = False
# Processes of pytest-xdist have ports of their own.
FIRST_PORT = 8080 + 6 * int(os.environ.get("PYTEST_XDIST_WORKER", "gw0")[2:])
ports_in_use = set()


def choose(name, address, parts, is_long):
    """The web server, its address, what of its configuration's prepared parts is turned on, and how much is tested."""
    global NAME, ADDRESS, HOST, PARTS, IS_LONG
    NAME, ADDRESS, PARTS, IS_LONG = name, address, parts, is_long
    HOST = "localhost" if address == "127.0.0.1" else address


def is_on_loopback():
    return HOST == "localhost"


# --- Waiting

def eventually(is_true, limit=None):
    """Whether it became true."""
    deadline = time.monotonic() + (limit or LIMIT)
    while not is_true():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


def wait_until(is_true, what):
    if not eventually(is_true):
        raise TimeoutError(what)


def require(condition, what):
    """What a test relies on: no proof of a "no"."""
    if not condition:
        raise RuntimeError(what)


# --- Settings, log, processes

def write_shipped_settings():
    SETTINGS.parent.mkdir(parents=True, exist_ok=True)
    shutil.copyfile(SHIPPED_SETTINGS, SETTINGS)


def settings_with(value):
    return re.sub(r"(?m)^(VEMODCanDetectTimeout=).*", lambda key: key[1] + value, SHIPPED_SETTINGS.read_text())


def reset():
    """As it is before the first request."""
    # A program whose client has its answer may not have ended.
    eventually(lambda: not programs())
    write_shipped_settings()
    LOG.write_bytes(b"")


def is_untouched():
    """Whether no program has run since the reset."""
    return LOG.stat().st_size == 0 and SETTINGS.read_bytes() == SHIPPED_SETTINGS.read_bytes()


def programs(names=(".cgi",)):
    """The machine's processes that run a file with such an end to its name."""
    found = []
    for process in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(OSError):
            if os.readlink(f"/proc/{process}/exe").endswith(names):
                found.append(int(process))
    return found


def children(process):
    try:
        return [int(word) for word in pathlib.Path(f"/proc/{process}/task/{process}/children").read_text().split()]
    except OSError:
        return []  # it has gone


def process_name(process):
    """Empty when it has gone."""
    try:
        return pathlib.Path(f"/proc/{process}/comm").read_text().rstrip("\n")
    except OSError:
        return ""


def command_lines(word):
    """Of the processes that have this word in theirs."""
    found = []
    for file in pathlib.Path("/proc").glob("[0-9]*/cmdline"):
        with contextlib.suppress(OSError):
            if word.encode() in (words := file.read_bytes()):
                found.append(words)
    return found


def run_program(query="", page="setobdconf.cgi"):
    """The page that the program writes without a web server and with a Java VM that costs nothing."""
    environment = {"REQUEST_METHOD": "GET", "QUERY_STRING": query, "LD_PRELOAD": FAKE_VM}
    done = subprocess.run([SHIPPED / "htdocs" / page], env=environment, stdout=subprocess.PIPE, timeout=LIMIT,
                          check=False)
    return done.stdout.split(b"\n\n", 1)[1]


# --- Reboots

ORDERS, BOOT = pathlib.Path("/run/vemo-web-reboot"), pathlib.Path("/run/vemo-web-boot")
NO_MORE = b"no more\n"


@contextlib.contextmanager
def reading_orders():
    """The descriptor from which orders to reboot are read; it never ends."""
    ORDERS.parent.mkdir(exist_ok=True)
    ORDERS.unlink(missing_ok=True)
    os.mkfifo(ORDERS)
    orders = os.open(ORDERS, os.O_RDWR | os.O_CLOEXEC)
    try:
        yield orders
    finally:
        os.close(orders)
        ORDERS.unlink()


@contextlib.contextmanager
def rebooting(restart):
    """An order to reboot does so."""
    def obey():
        boot = 1
        while os.read(orders, 100) != NO_MORE:
            time.sleep(1)  # in which the browser gets the page's files
            boot += 1
            BOOT.write_text(f"{boot}\n")
            restart()

    with reading_orders() as orders:
        BOOT.write_text("1\n")
        reader = threading.Thread(target=obey)
        reader.start()
        try:
            yield
        finally:
            os.write(orders, NO_MORE)
            reader.join()


# --- The stand-in as it is shipped

@contextlib.contextmanager
def running_stand_in(start=SHIPPED / "start"):
    """Started by its own script, or by a changed copy."""
    write_shipped_settings()
    process = subprocess.Popen([start], env={**os.environ, "VEMO_PORT": "8080"})
    try:
        wait_until(lambda: can_connect(("127.0.0.1", 8080)), "the web server does not listen")
        yield process
    finally:
        # What it started ends with the sandbox.
        process.kill()
        process.wait()


def can_connect(address):
    with socket.socket() as connection:
        return connection.connect_ex(address) == 0


# --- Web servers, each with an installation of its own

def with_address(text):
    """A configuration's text, with the address where it is to listen and the names that it is to have."""
    listens = r"(?m)^(Listen |\s*listen |<VirtualHost |var\.vemo_http = \"|server\.bind +=.*)127\.0\.0\.1"
    text = re.sub(listens, rf"\g<1>{ADDRESS}", text)
    return text.replace(r"127\.0\.0\.1", r"127\.0\.0\.1|" + re.escape(NETWORK))


class Installation:
    """What is installed, with /tmp/web_PORT instead of all folders. `edits` are made in the configuration; `parts`
    of it are turned on. With TLS, http is on the next port."""

    def __init__(self, port, edits, parts):
        self.port = port
        self.edits = edits
        self.parts = parts
        self.root = pathlib.Path(f"/tmp/web_{port}")
        self.programs = self.root / "libexec"
        self.settings = self.root / "etc"
        self.shared = self.root / "share"
        shutil.rmtree(self.root, ignore_errors=True)
        for folder in (self.programs / "gated", self.root / "run", self.settings / "web-servers"):
            folder.mkdir(parents=True)
        shutil.copy(SHIPPED / "java.options", self.settings)
        self.folders = {
            "PROGRAMS": self.programs, "SHARED": self.shared, "SETTINGS": self.settings, "RUN": self.root / "run",
            "ARCHIVE": "/app/class-archive", "CLASS_PATH": SHIPPED / "java",
        }
        # An installed device's own lines, which lighttpd reads. Their commands make key and certificate for all.
        own = (SOURCE / "web/lighttpd/web-server.conf.in").read_text()
        self.own = self.configured(re.search(rf"(?ms)^# {TLS}.*", own)[0])
        (self.programs / "cgi-gate").symlink_to(SHIPPED / "bin/cgi-gate")
        shutil.copytree(SHIPPED / "htdocs", self.shared / "htdocs", ignore=lambda *_: CGI_PAGES)
        gated = self.configured((SOURCE / "web/servers/gated.cgi.in").read_text())
        for page in CGI_PAGES:
            (self.programs / page).symlink_to(SHIPPED / "htdocs" / page)
            (self.shared / "htdocs" / page).symlink_to(self.programs / page)
            file = self.programs / "gated" / page
            file.write_text(gated.replace("@PAGE@", page))
            file.chmod(0o755)

    def configured(self, text):
        for name, folder in self.folders.items():
            text = text.replace(f"@VEMO_{name}@", str(folder))
        text, commands = with_parts(text, self.parts)
        # Here is no such group.
        commands = commands.replace(" -g vemo-web ", " ").replace("IP:127.0.0.1", f"IP:127.0.0.1,IP:{NETWORK}")
        if commands:
            subprocess.run(["/bin/bash", "-ec", commands], input=SECRET + "\n", stderr=subprocess.DEVNULL, text=True,
                           check=True)
        text = re.sub(r"\b8080\b", str(self.port + (TLS in self.parts)), with_address(text))
        return re.sub(r"\b8443\b", str(self.port), text)

    def edited(self, text):
        for before, after in self.edits:
            text = re.sub(before, after, text)
        return text

    def configure(self, *names):
        """Writes the named templates; their text."""
        texts = []
        for name in names:
            text = (SOURCE / f"web/servers/{name}.in").read_text()
            texts.append(self.edited(self.configured(text)))
            (self.settings / "web-servers" / name).write_text(texts[-1])
        return "".join(texts)


def configure_lighttpd(installation):
    """The shipped files of the stand-in, with an installation's own lines."""
    folder = installation.root / "lighttpd"
    folder.mkdir()
    text = installation.own.replace(str(installation.shared), str(folder))
    for file in (*SHIPPED.glob("lighttpd*.conf"), SOURCE / "web/lighttpd/lighttpd-tls.conf"):
        part = file.read_text()
        for before, after in (("/srv/vemo", folder.name), ("/srv/vemo/htdocs", "share/htdocs"),
                              ("/srv/vemo/bin/cgi-gate", "libexec/cgi-gate"), ("/tmp/cgi-gate.lock", "run/gate"),
                              ("/srv/vemo/java.options", "etc/java.options"), ("/tmp", "run"),
                              ("/tmp/lighttpd-error.log", "run/error.log"),
                              ("/tmp/lighttpd-access.log", "run/access.log")):
            part = part.replace(f'"{before}"', f'"{installation.root / after}"')
        if file.name == "lighttpd-paths.conf":
            part += text
        part = installation.edited(with_address(part))
        (folder / file.name).write_text(part)
        text += part
    return text, lighttpd(installation.port, folder / "lighttpd.conf")


def lighttpd(port, file):
    return ["/usr/bin/env", f"VEMO_PORT={port}", "/usr/sbin/lighttpd", "-D", "-f", str(file)]


def configure_lighttpd_of_others(installation):
    """The pages in a server of somebody else's, which has none of the modules that they rely on."""
    own = SOURCE / "web/lighttpd/50-vemo-web.conf.in"
    text = installation.configured(own.read_text()).replace("/run/lighttpd", str(installation.root / "run"))
    for file in SHIPPED.glob("lighttpd-*.conf"):
        (installation.shared / file.name).write_text(installation.edited(file.read_text()))
    file = installation.root / "lighttpd.conf"
    file.write_text('server.modules = ( "mod_access" )\nserver.compat-module-load = "disable"\n'
                    f'server.document-root = "/tmp"\nserver.port = {installation.port + 1}\n'
                    f'server.upload-dirs = ( "{installation.root}" )\n{text}')
    return text, lighttpd(installation.port, file)


def configure_with_unit(installation):
    """What the drop-in of the service's unit starts."""
    text = installation.configure(f"{NAME}.conf", f"{NAME}.service.conf")
    command = re.findall(r"(?m)^ExecStart=(.+)$", text)[-1].replace("$$", "$")
    for program in ("fcgiwrap", "nginx"):
        command = command.replace(f"/usr/sbin/{program}", f"{UNPACKED}/usr/sbin/{program}")
    return text, shlex.split(command)


# --- Edits: what re.sub() is to find, and what it puts there

# The Java VM that costs nothing: preloaded into the programs; the gate is static.
WITH_FAKE_VM = (r"(?m)^(.*)\bJAVA_CLASSPATH\b(\"?[ =>]+)[^\s;,]+(.*)$",
                lambda line: f"{line[0]}\n{line[1]}LD_PRELOAD{line[2]}{FAKE_VM}{line[3]}"
                if "=>" not in line[2] else f'{line[0]}\n{line[1]}LD_PRELOAD{line[2]}"{FAKE_VM}",')
# Root without its rights, which proot gives: nginx cannot become another user.
AS_ROOT = [("daemon off;", "daemon off; user root;")] if os.geteuid() == 0 else []


def gate(variable, seconds):
    return rf"(CGI_GATE_{variable}\"?[ =>]+\"?)60\b", rf"\g<1>{seconds}"


# A program is ended, and a client that says nothing dropped.
SHORT_TIMES = (gate("RUN_TIMEOUT", 1), gate("QUEUE_TIMEOUT", 20), (r"(max-read-idle += )5\b", r"\g<1>1"),
               (r"header=5 body=5", "header=1 body=1"), (r"(client_\w+_timeout) 5;", r"\1 1;"))
# For what a server does by itself, with clients that have one address.
NO_CLIENT_LIMIT = (r"(CGI_GATE_CLIENT_SLOTS |client_requests = \")16", r"\g<1>0")


class Server:
    """A web server that runs for as long as the context does."""

    def __init__(self, *edits, parts=(), java=WITH_FAKE_VM, configure=None, port=None,
                 first_page="/reboot.cgi"):
        self.port = port or next(port for port in range(FIRST_PORT, FIRST_PORT + 6, 2) if port not in ports_in_use)
        ports_in_use.add(self.port)
        self.installation = Installation(self.port, [*AS_ROOT, *([java] if java else []), *edits], parts)
        self.root = self.installation.root
        self.parts = parts
        self.first_page = first_page  # of a program: what starts them may listen later
        configure = configure or (configure_lighttpd if NAME == "lighttpd" else configure_with_unit)
        self.text, self.command = configure(self.installation)

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()
        ports_in_use.discard(self.port)

    def start(self):
        with open(self.root / "errors", "wb") as errors:
            # Apache ends its whole process group.
            self.process = subprocess.Popen(
                self.command, stdin=subprocess.DEVNULL, stdout=errors, stderr=errors, start_new_session=True,
                env={"PATH": os.environ["PATH"], "HOME": "/nowhere",
                     "LD_LIBRARY_PATH": os.environ.get("LD_LIBRARY_PATH", "/nowhere")})
        if not eventually(lambda: self.is_ready() or self.process.poll() is not None) or not self.is_ready():
            self.stop()
            raise RuntimeError(f"{NAME} does not start: {(self.root / 'errors').read_text()}")

    def stop(self):
        for number, seconds in ((signal.SIGTERM, 5), (signal.SIGKILL, LIMIT)):
            with contextlib.suppress(ProcessLookupError):
                os.killpg(self.process.pid, number)
            with contextlib.suppress(subprocess.TimeoutExpired):
                self.process.wait(seconds)
                break

    def restart_as_after_a_boot(self):
        self.stop()
        # It is gone with the service.
        shutil.rmtree(self.root / "run")
        (self.root / "run").mkdir()
        time.sleep(2)  # as long as a page takes to see it
        self.start()

    def is_ready(self):
        try:
            with contextlib.closing(self.connect(2)) as connection:
                connection.sendall(request(self.first_page))
                return re.search(b" (200|401) ", connection.recv(100)) is not None
        except OSError:
            return False

    def connect(self, timeout=LIMIT, source="", in_clear_text=False):
        has_tls = TLS in self.parts
        port = self.port + (in_clear_text and has_tls)
        connection = socket.create_connection((ADDRESS, port), timeout, (source, 0))
        if in_clear_text or not has_tls:
            return connection
        trust = ssl.create_default_context(cafile=self.installation.settings / "certificate.pem")
        return trust.wrap_socket(connection, server_hostname=HOST)

    def ask(self, sent, **how):
        try:
            return client.ask(self.connect(**how), sent)
        except (OSError, http.client.HTTPException) as error:
            return Answer(0, {}, repr(error).encode())

    def get(self, target, *headers, **how):
        return self.ask(request(target, *headers, **how))

    @contextlib.contextmanager
    def own_program(self, script, mode=0o755, page="channeldeviceconfig.cgi"):
        """The script instead of a page's program."""
        program = self.installation.programs / page
        program.unlink()
        program.write_text(f"#!/bin/sh\n{script}\n")
        program.chmod(mode)
        try:
            yield "/" + page
        finally:
            program.unlink()
            program.symlink_to(SHIPPED / "htdocs" / page)

    def setting(self, name):
        """The service's in its unit, or that of its drop-in for the server."""
        unit = (SOURCE / "packaging/systemd/vemo-web.service.in").read_text()
        return re.findall(rf"(?m)^{name}=(.+)$", unit + self.text)[-1]

    def processes(self):
        """The server, and all that it has started."""
        found, new = set(), {self.process.pid}
        while new:
            found |= new
            new = {child for process in new for child in children(process)} - found
        return found

    def count_tasks(self):
        """Processes and their threads."""
        count = 0
        for process in self.processes():
            with contextlib.suppress(OSError):
                count += len(os.listdir(f"/proc/{process}/task"))
        return count


# --- Requests, and programs that are scripts

FOREIGN = "Origin: http://foreign.example"


def typed(*headers):
    """As a browser asks for an address that was typed."""
    return "Sec-Fetch-Site: none", "Sec-Fetch-Mode: navigate", "Sec-Fetch-Dest: document", *headers


def refusal_page(status):
    """The page for people."""
    return (SOURCE / f"web/htdocs/errors/{status}.html").read_bytes()


TEXT = r"printf 'Content-Type: text/plain\n\n'; "  # how such a program begins its page


def until(file):
    """A script's command that waits for the file."""
    return f"while [ ! -e {file} ]; do /bin/sleep 0.05; done; "


def own_page(headers, is_wanted):
    """What a page of ours says of itself, where that must be. On loopback a request may look like a typed address."""
    is_said = any(header.startswith(("Origin: ", "Referer: ")) for header in headers)
    return [f"Referer: http://{HOST}/"] if is_wanted and not is_said and not is_on_loopback() else []


def request(target, *headers, host=None, by_own_page=True, **how):
    return client.request(target, *own_page(headers, by_own_page), *headers, host=HOST if host is None else host, **how)


def post(target, body, *headers, host=None, by_own_page=True, **how):
    return client.post(target, body, *own_page(headers, by_own_page), *headers, host=HOST if host is None else host,
                       **how)
