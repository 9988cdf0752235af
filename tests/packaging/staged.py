"""What the recipe of docs/on-a-device.md stages, laid over a bare root: the web server starts from it.

    python3 -B tests/packaging/staged.py BUILD FOLDER

FOLDER: what DESTDIR named. The Java class, which is the device's own, is taken from BUILD.
"""

import pathlib
import re
import shutil
import sys
import time
import unittest

import root

BUILD, STAGED = (pathlib.Path(argument).resolve() for argument in (sys.argv.pop(1), sys.argv.pop(1)))
REQUEST = """exec 3<>/dev/tcp/127.0.0.1/8080
    printf 'GET /setobdconf.cgi?CanDetectTimeout=700 HTTP/1.0\\r\\nHost: localhost\\r\\n\\r\\n' >&3; cat <&3"""


class Staged(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        if reason := root.why_not():
            raise unittest.SkipTest(reason)
        cls.device = root.Root(BUILD, "Staged")
        cls.addClassCleanup(cls.device.close)
        cls.device.install_known("default-jre-headless", "lighttpd", "libcgicc3", "libxml2")
        shutil.copytree(STAGED, cls.device.path, symlinks=True, dirs_exist_ok=True)
        shutil.copytree(BUILD / "device/java", cls.device.file("/usr/share/vemo-web/java"))
        # The recipe's folder of the Java VM.
        cls.device.run("ln", "-s", "/usr/lib/jvm/default-java", "/opt/jre")

    def test_the_web_server_starts_and_a_value_is_stored(self):
        for command in (("systemd-sysusers", "vemo-web.conf"), ("systemd-tmpfiles", "--create", "vemo-web.conf"),
                        ("install", "-d", "-o", "vemo-web", "/run/vemo-web")):
            self.device.run(*command)
        unit = self.device.file("/usr/lib/systemd/system/vemo-web.service").read_text(encoding="utf-8")
        command = re.search(r"^ExecStart=(.*)$", unit, re.MULTILINE)[1].split()
        as_user = ("setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--clear-groups", "--reset-env", "--")
        self.assertEqual(self.device.run(*as_user, command[0], "-tt", *command[-2:]), "")
        server = self.device.start(*as_user, *command)
        self.addCleanup(self.device.stop, server)
        for _ in range(100):
            page = self.device.run("bash", "-c", REQUEST, status=None)
            if "HTTP/1.0" in page:
                break
            time.sleep(0.1)
        self.assertIn("Set new option was successful.", page)

    def test_nothing_of_the_configuration_is_where_nobody_looks(self):
        self.assertFalse((STAGED / "usr/etc").exists())


if __name__ == "__main__":
    unittest.main(verbosity=2)
