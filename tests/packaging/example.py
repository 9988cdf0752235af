"""The pages of packaging/example, as an author makes them who has the packages alone: by the commands of
docs/sibling-page.md, in a bare root; then served there.

    python3 -B tests/packaging/example.py BUILD
"""

import pathlib
import re
import shutil
import sys
import time
import unittest

import root

sys.path.append(str(root.SOURCE / "tests/docs"))

import commands  # noqa: E402

SETTINGS = "/app/tarn-belox/runvex/obd.conf"
PAGE = "/usr/share/vemo-web/htdocs/uptime.cgi"
APT = 'APT::Get::Assume-Yes "true"; APT::Sandbox::User "root";\n'


def told_uptime(page):
    """In seconds."""
    minutes, seconds = re.search(r"has been running for (\d+) minutes and (\d+) seconds\.", page).groups()
    return int(minutes) * 60 + int(seconds)


def uptime():
    return int(float(pathlib.Path("/proc/uptime").read_text(encoding="ascii").split()[0]))


def author(build):
    """A bare root with the packages in /root."""
    device = root.Root(build, "Example")
    for file in root.packages(build).values():
        shutil.copy(file, device.file("/root"))
    device.file("/etc/apt/apt.conf.d/commands").write_text(APT, encoding="utf-8")
    return device


def carry_out(build, device):
    """The commands of the document, with what each wrote; the programs are left in BUILD/example."""
    for command, rule in commands.commands_in(("development",)):
        text = f"cd /root; {commands.script(command, rule)}\nexit"
        yield command, rule, device.run("bash", "-c", text, status=rule.status)
    folder = build / "example"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    for file in device.file("/root/page/build").glob("*.cgi"):
        shutil.copy(file, folder)


def programs(build):
    """The folder with the built pages; built anew when the packages are younger."""
    folder = build / "example"
    root.packages(build)
    if not folder.exists() or folder.stat().st_mtime < (build / "packages/SHA256SUMS").stat().st_mtime:
        device = author(build)
        try:
            for _ in carry_out(build, device):
                pass
        finally:
            device.close()
    return folder


class Example(unittest.TestCase):
    """In the order of their names: what one leaves is what the next begins with."""

    @classmethod
    def setUpClass(cls):
        if reason := root.why_not():
            raise unittest.SkipTest(reason)
        cls.device = author(BUILD)
        cls.addClassCleanup(cls.device.close)

    def ask(self, path, *arguments):
        return self.device.run_beside("curl", "-sS", "--max-time", "60", *arguments, f"http://localhost:8080/{path}")

    def test_1_five_commands_lead_from_the_packages_to_the_page(self):
        count = 0
        for count, (command, rule, told) in enumerate(carry_out(BUILD, self.device), 1):
            with self.subTest(command.text):
                self.assertRegex(told, f"(?m){rule.says}")
        self.assertEqual(count, 5)

    def test_2_the_web_server_serves_it(self):
        """Nothing is booted here: the web server is started by hand, as its user."""
        self.device.run("install", "-d", "-o", "vemo-web", "/run/vemo-web")
        server = self.device.start("setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--clear-groups", "--reset-env",
                                   "/usr/sbin/lighttpd", "-D", "-f", "/usr/share/vemo-web/lighttpd.conf")
        self.addClassCleanup(self.device.stop, server)
        page, before, after = "", uptime(), 0
        for _ in range(100):
            page = self.device.run_beside("curl", "-sS", "http://localhost:8080/uptime.cgi", status=None)
            after = uptime()
            if "</html>" in page:
                break
            time.sleep(0.1)
        self.assertIn(told_uptime(page), range(before, after + 1))

    def test_3_its_form_stores_an_option(self):
        self.device.run("install", "-m", "0755", "/root/page/build/name.cgi", "/usr/share/vemo-web/htdocs")
        page = self.ask("name.cgi", "-d", "Name=<Halle 3> \"M%FCller\"")
        self.assertIn("The name is stored.", page)
        self.assertIn('value="&lt;Halle 3&gt; &quot;M&uuml;ller&quot;"', page)
        stored = self.device.file(SETTINGS).read_bytes()
        self.assertEqual(stored, b'[SETTINGS]\nVEMODInterfaceName=<Halle 3> "M\xfcller"\n')
        for name in ("", "x" * 41):
            self.assertIn("Nothing was stored", self.ask("name.cgi", "-d", f"Name={name}"))
        self.ask("name.cgi?Name=by-GET")
        self.assertEqual(self.device.file(SETTINGS).read_bytes(), stored)

    def test_4_an_upgrade_and_a_purge_leave_it(self):
        before = self.device.file(PAGE).read_bytes()
        self.device.run("bash", "-c", "cd /root; apt-get --reinstall --no-install-recommends install ./vemo-web_*.deb")
        self.assertEqual(self.device.file(PAGE).read_bytes(), before)
        told = self.device.run("apt-get", "purge", "vemo-web", "vemo-web-standin")
        self.assertIn("directory '/usr/share/vemo-web/htdocs' not empty so not removed", told)
        self.assertEqual(self.device.file(PAGE).read_bytes(), before)


if __name__ == "__main__":
    BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    unittest.main(verbosity=2)
