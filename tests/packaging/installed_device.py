"""What the packages leave in a bare root, with the ways to break it and to look at it. Nothing is booted: what
systemctl would start is started by hand."""

import contextlib
import functools
import os
import re
import shutil

import pytest

import root
from prepared import with_parts

OURS = ("vemo-web", "vemo-web-standin")
SETTINGS = "/app/tarn-belox/runvex/obd.conf"
FOLDER = os.path.dirname(SETTINGS)
LOG = "/tmp/cgi.log"
WEB_SERVER = "/etc/vemo-web/web-server.conf"
OPTIONS = "/etc/vemo-web/java.options"
SITE = "/usr/share/vemo-web/lighttpd-site.conf"
CLASS_FOLDER = "/usr/share/vemo-web/java"
ARCHIVE = "/var/cache/vemo-web/archive"
PROGRAMS = "/usr/libexec/vemo-web"
AS_SERVICE = ("setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--init-groups", "--reset-env", "--")
LIGHTTPD = ("/usr/sbin/lighttpd", "-D", "-f", "/usr/share/vemo-web/lighttpd.conf")
# Where the web server's standard error goes.
JOURNAL = "/run/vemo-web/journal"
TEXT = "; by hand\n[SETTINGS]\nVEMODCanDetectTimeout = 500\n"


class Device(root.Root):
    """With nothing of ours installed."""

    def __init__(self, build, name):
        if reason := root.why_not():
            pytest.skip(reason)
        self._build = build
        self._started_with = None
        self.nvm = self.server = None
        super().__init__(build, name)

    @functools.cached_property
    def made(self):
        return root.packages(self._build)

    def install_ours(self):
        return self.install(*(self.made[name] for name in OURS))

    # --- Looking

    def read(self, path):
        return self.file(path).read_text(encoding="utf-8", errors="replace")

    def write(self, path, text):
        self.file(path).write_text(text, encoding="utf-8")

    def owner(self, path):
        """With the mode; of a link its own."""
        return self.run("stat", "--format=%U:%G %a", path).strip()

    def ask(self, path, *options, host="127.0.0.1", port=8080):
        """Status and page."""
        told = self.run_beside("curl", "--silent", "--show-error", "--max-time", "100", "--write-out", "\n%{http_code}",
                               *options, f"http://{host}:{port}{path}")
        page, status = told.rsplit("\n", 1)
        return int(status), page

    # --- Starting

    def start_nvm(self):
        self.nvm = self.start(f"{PROGRAMS}/nvm-service")
        self.wait_for("127.0.0.1", 5302)

    def start_server(self, confined=()):
        """As the service does; the words of `confined` begin the command."""
        self.run(f"{PROGRAMS}/make-log")
        self.run("systemd-tmpfiles", "--create", "vemo-web.conf", status=None)
        self.run("install", "-d", "-o", "vemo-web", "/run/vemo-web")
        self.server = self.start(*confined, *AS_SERVICE, "sh", "-c", f'exec "$@" 2>>{JOURNAL}', "sh", *LIGHTTPD)
        self._started_with = self._configured()
        where = dict(re.findall(r'(?m)^server\.(bind|port) :?= "?([\d.]+)', self._started_with[0]))
        self.wait_for(where["bind"], where["port"])

    def restart_server(self, confined=()):
        self.stop(self.server)
        self.start_server(confined)

    def _configured(self):
        return self.read(WEB_SERVER), self.read(SITE)

    def wait_for(self, address, port):
        self.run("bash", "-c", f"for _ in {{1..200}}; do (: >/dev/tcp/{address}/{port}) && exit; sleep 0.1; done;"
                 " exit 1")

    # --- Breaking; each ends when its context does

    @contextlib.contextmanager
    def broken(self, *breaks, is_served=False, confined=()):
        """By these breaks: the name of a method below, with what it takes. The server is started once more when it is
        to serve so, and afterwards when it has another configuration than what is there again."""
        try:
            with contextlib.ExitStack() as stack:
                for method, *arguments in breaks:
                    stack.enter_context(getattr(self, method)(*arguments))
                if is_served or confined:
                    self.restart_server(confined)
                yield
        finally:
            if is_served or confined or self._started_with != self._configured():
                self.restart_server()

    @contextlib.contextmanager
    def without_nvm(self):
        self.stop(self.nvm)
        try:
            yield
        finally:
            self.start_nvm()

    @contextlib.contextmanager
    def typed(self, command, afterwards="true"):
        self.run("bash", "-ec", command)
        try:
            yield
        finally:
            self.run("bash", "-ec", afterwards)

    @contextlib.contextmanager
    def without(self, path):
        """The file or folder has another name."""
        file = self.file(path)
        away = file.with_name("." + file.name)
        file.rename(away)
        try:
            yield
        finally:
            if file.is_dir() and not file.is_symlink():
                shutil.rmtree(file)
            else:
                file.unlink(missing_ok=True)
            away.rename(file)

    @contextlib.contextmanager
    def changed(self, path, before, after):
        """The text as it was is in /root/wanted."""
        file = self.file(path)
        text, old = self.read(path), file.stat()
        assert before in text
        self.write("/root/wanted", text)
        self.write(path, text.replace(before, after))
        try:
            yield
        finally:
            self.write(path, text)
            # The class archive's record knows it by its time.
            os.utime(file, ns=(old.st_atime_ns, old.st_mtime_ns))

    @contextlib.contextmanager
    def mode(self, path, mode, user=None):
        file = self.file(path)
        old = file.stat()
        if user:
            self.run("chown", user, path)
        file.chmod(mode)
        try:
            yield
        finally:
            os.chown(file, old.st_uid, old.st_gid)
            file.chmod(old.st_mode & 0o7777)

    @contextlib.contextmanager
    def turned_on(self, part, path=WEB_SERVER):
        """By the lines that the configuration has for it, once their commands were typed."""
        text = self.read(path)
        after, commands = with_parts(text, [part])
        assert text != after
        before = set(self.file("/etc/vemo-web").iterdir())
        self.run("bash", "-ec", commands, text="secret\n")
        try:
            with self.changed(path, text, after):
                yield
        finally:
            for file in set(self.file("/etc/vemo-web").iterdir()) - before:
                file.unlink()
