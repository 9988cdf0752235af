"""The web servers that can stand before the device's programs, each with an installation of its own."""

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
import time
from concurrent.futures import ThreadPoolExecutor

import psutil

import client
import device
import program
from client import Answer, request
from device import LIMIT, NETWORK, SECRET, SHIPPED, SOURCE, eventually
from prepared import TLS, with_parts

FAKE_VM = "/build/standin/libfake-vm.so"
UNPACKED = "/build/web-servers"  # by tools/unpack-packages
# Processes of pytest-xdist have ports of their own.
FIRST_PORT = 8080 + 6 * int(os.environ.get("PYTEST_XDIST_WORKER", "gw0")[2:])
ports_in_use = set()

# --- Edits: what re.sub() is to find, and what it puts there

# The Java VM that costs nothing: preloaded into the programs; the gate is static.
WITH_FAKE_VM = (r"(?m)^(.*)\bJAVA_CLASSPATH\b(\"?[ =>]+)[^\s;,]+(.*)$",
                lambda line: f"{line[0]}\n{line[1]}LD_PRELOAD{line[2]}{FAKE_VM}{line[3]}"
                if "=>" not in line[2] else f'{line[0]}\n{line[1]}LD_PRELOAD{line[2]}"{FAKE_VM}",')
# Root without its rights, which proot gives: nginx cannot become another user.
AS_ROOT = [("daemon off;", "daemon off; user root;")] if os.geteuid() == 0 else []
# For what a server does by itself, with clients that have one address.
NO_CLIENT_LIMIT = (r"(CGI_GATE_CLIENT_SLOTS |client_requests = \")16", r"\g<1>0")


def gate(variable, seconds):
    return rf"(CGI_GATE_{variable}\"?[ =>]+\"?)60\b", rf"\g<1>{seconds}"


# A program is ended, and a client that says nothing dropped.
SHORT_TIMES = (gate("RUN_TIMEOUT", 1), gate("QUEUE_TIMEOUT", 20), (r"(max-read-idle += )5\b", r"\g<1>1"),
               (r"header=5 body=5", "header=1 body=1"), (r"(client_\w+_timeout) 5;", r"\1 1;"))

LISTENS = r"(?m)^(Listen |\s*listen |<VirtualHost |var\.vemo_http = \"|server\.bind +=.*)127\.0\.0\.1"


class Server:
    """Runs for as long as the context does. /tmp/web_PORT is instead of all folders. `edits` are made in the
    configuration; `parts` of it are turned on. With TLS, http is on the next port."""

    def __init__(self, *edits, parts=(), java=WITH_FAKE_VM, port=None):
        self.port = port or next(port for port in range(FIRST_PORT, FIRST_PORT + 6, 2) if port not in ports_in_use)
        ports_in_use.add(self.port)
        self.edits = [*AS_ROOT, *([java] if java else []), *edits]
        self.parts = parts
        self.root = pathlib.Path(f"/tmp/web_{self.port}")
        self.programs, self.run = self.root / "libexec", self.root / "run"
        self.settings, self.shared = self.root / "etc", self.root / "share"
        shutil.rmtree(self.root, ignore_errors=True)
        for folder in (self.programs / "gated", self.run, self.settings / "web-servers"):
            folder.mkdir(parents=True)
        shutil.copy(SHIPPED / "java.options", self.settings)
        shutil.copytree(SHIPPED / "htdocs", self.shared / "htdocs", ignore=lambda *_: device.CGI_PAGES)
        (self.shared / "java").symlink_to(SHIPPED / "java")
        (self.programs / "cgi-gate").symlink_to(SHIPPED / "bin/cgi-gate")
        (self.programs / "keep-listening").symlink_to("/build/web/keep-listening")
        gated = self.configured("web/servers/gated.cgi.in")
        for page in device.CGI_PAGES:
            (self.programs / page).symlink_to(SHIPPED / "htdocs" / page)
            (self.shared / "htdocs" / page).symlink_to(self.programs / page)
            file = self.programs / "gated" / page
            file.write_text(gated.replace("@PAGE@", page))
            file.chmod(0o755)
        self.text = ""
        if device.NAME == "lighttpd":
            self.configure(self.settings, "lighttpd/web-server.conf.in")
            self.configure(self.shared, *(f"lighttpd/lighttpd{suffix}" for suffix in (
                ".conf", "-site.conf", "-same-site.conf", "-tls.conf", "-paths.conf.in")))
        else:
            # Its commands make key and certificate for all servers.
            self.configured("web/lighttpd/web-server.conf.in")
            self.configure(self.settings / "web-servers", *(
                f"servers/{device.NAME}.{suffix}.in" for suffix in ("conf", "service.conf")))

    def configured(self, template):
        text = (SOURCE / template).read_text()
        for name, folder in {
            "@VEMO_CLASS_PATH@": self.shared / "java", "@VEMO_RUN@": self.run, "/run/vemo-web": self.run,
            "@VEMO_PROGRAMS@": self.programs, "@VEMO_SHARED@": self.shared, "@VEMO_SETTINGS@": self.settings,
            "@VEMO_ARCHIVE@": "/app/class-archive", "/var/cache/vemo-web/archive": "/app/class-archive",
        }.items():
            text = text.replace(name, str(folder))
        text, commands = with_parts(text, self.parts)
        if commands:
            # Here is no such group.
            commands = commands.replace(" -g vemo-web ", " ").replace("IP:127.0.0.1", f"IP:127.0.0.1,IP:{NETWORK}")
            subprocess.run(["/bin/bash", "-ec", commands], input=SECRET + "\n", stderr=subprocess.DEVNULL, text=True,
                           check=True)
        text = re.sub(LISTENS, rf"\g<1>{device.ADDRESS}", text)
        text = text.replace(r"127\.0\.0\.1", r"127\.0\.0\.1|" + re.escape(NETWORK))
        text = re.sub(r"\b8080\b", str(self.port + (TLS in self.parts)), text)
        return re.sub(r"\b8443\b", str(self.port), text)

    def configure(self, folder, *templates):
        """Writes them, as installed and edited, into this folder."""
        for template in templates:
            text = self.configured(f"web/{template}")
            for before, after in self.edits:
                text = re.sub(before, after, text)
            (folder / pathlib.Path(template).name.removesuffix(".in")).write_text(text)
            self.text += text

    def setting(self, name):
        """The service's in its unit, or that of its drop-in for the server."""
        unit = self.configured("packaging/systemd/vemo-web.service.in")
        return re.findall(rf"(?m)^{name}=(.+)$", unit + self.text)[-1]

    def command(self):
        command = self.setting("ExecStart").replace("$$", "$")
        return shlex.split(re.sub(r"/usr/sbin/(fcgiwrap|nginx)", rf"{UNPACKED}\g<0>", command))

    # --- Running

    def __enter__(self):
        self.start()
        return self

    def __exit__(self, *_):
        self.stop()
        ports_in_use.discard(self.port)

    def start(self):
        # Apache ends its whole process group.
        self.process = subprocess.Popen(
            self.command(), stdin=subprocess.DEVNULL, start_new_session=True,
            env={"PATH": os.environ["PATH"], "HOME": "/nowhere",
                 "LD_LIBRARY_PATH": os.environ.get("LD_LIBRARY_PATH", "/nowhere")})
        if not eventually(self.is_ready):
            self.stop()
            raise RuntimeError(f"{device.NAME} does not start")

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
        shutil.rmtree(self.run)
        self.run.mkdir()
        time.sleep(2)  # as long as a page takes to see it
        self.start()

    def is_ready(self):
        # By a page of a program: what starts these may listen later.
        return self.get("/reboot.cgi", timeout=2).status in (200, 401)

    @contextlib.contextmanager
    def own_program(self, script, mode=0o755, page="channeldeviceconfig.cgi"):
        """The script instead of a page's program."""
        file = self.programs / page
        file.unlink()
        file.write_text(f"#!/bin/sh\n{script}\n")
        file.chmod(mode)
        try:
            yield "/" + page
        finally:
            file.unlink()
            file.symlink_to(SHIPPED / "htdocs" / page)

    @contextlib.contextmanager
    def held_requests(self, count, script=""):
        """To a program that runs the script and stays until it is let go: their answers, and the file that lets it."""
        go = self.root / "go"
        with self.own_program(f"{script} {until(go)} {TEXT} echo last") as page, ThreadPoolExecutor(count) as clients:
            try:
                yield [clients.submit(self.get, page) for _ in range(count)], go
            finally:
                go.touch()

    # --- Asked

    def connect(self, timeout=LIMIT, source="", in_clear_text=False):
        has_tls = TLS in self.parts
        port = self.port + (in_clear_text and has_tls)
        connection = socket.create_connection((device.ADDRESS, port), timeout, (source, 0))
        if in_clear_text or not has_tls:
            return connection
        trust = ssl.create_default_context(cafile=self.settings / "certificate.pem")
        return trust.wrap_socket(connection, server_hostname=device.HOST)

    def ask(self, sent, **how):
        try:
            return client.ask(self.connect(**how), sent)
        except (OSError, http.client.HTTPException) as error:
            return Answer(0, {}, repr(error).encode())

    def get(self, target, *headers, timeout=LIMIT, **how):
        return self.ask(request(target, *headers, **how), timeout=timeout)

    def processes(self):
        """The server, and all that it has started."""
        server = psutil.Process(self.process.pid)
        return [server, *server.children(recursive=True)]


@contextlib.contextmanager
def running_device(*edits):
    """All of it, with this web server, address and edits: the web server and the process of the nVm service."""
    device.write_shipped_settings()
    subprocess.run(["/srv/vemo/make-class-archive", "/srv/vemo/htdocs/setobdconf.cgi", "/srv/vemo/java.options",
                    "/srv/vemo/java", "/app/class-archive"], check=True)
    with program.Process("/srv/vemo/bin/nvm-service") as service, \
            Server(*edits, parts=device.PARTS, java=None, port=8080) as server, \
            device.rebooting(server.restart_as_after_a_boot):
        yield server, service


@contextlib.contextmanager
def running_stand_in():
    """As its script starts it; what that started ends with the sandbox."""
    device.write_shipped_settings()
    with program.Process(SHIPPED / "start", env={**os.environ, "VEMO_PORT": "8080"}):
        assert eventually(lambda: device.can_connect(("127.0.0.1", 8080))), "the web server does not listen"
        yield


def refusal_page(status):
    """The page for people."""
    return (SOURCE / f"web/htdocs/errors/{status}.html").read_bytes()


# --- Programs that are scripts

TEXT = r"printf 'Content-Type: text/plain\n\n'; "  # how such a program begins its page


def until(file):
    """A script's command that waits for the file."""
    return f"while [ ! -e {file} ]; do /bin/sleep 0.05; done; "
