"""The units, as systemd judges them without running them: python3 -B tests/packaging/service.py BUILD"""

import pathlib
import re
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
UNITS = {file.name: file for file in (BUILD / "packaging").rglob("vemo-web*.service")}
SOCKETS = {file.name: file for file in (BUILD / "packaging").rglob("vemo-web*.socket")}
MOST_EXPOSED = 2.0


class Units(unittest.TestCase):
    def test_each_is_confined(self):
        self.assertEqual(set(UNITS), {"vemo-web.service", "vemo-web-class-archive.service", "vemo-web-log.service",
                                      "vemo-web-nvm.service", "vemo-web-reboot.service"})
        for name, file in UNITS.items():
            with self.subTest(name):
                told = subprocess.run(["systemd-analyze", "security", "--offline=yes", "--no-pager", file],
                                      capture_output=True, text=True, check=False).stdout
                level = float(re.search(r"Overall exposure level.*: ([0-9.]+)", told)[1])
                print(f"{name}: {level}", file=sys.stderr)
                self.assertLess(level, MOST_EXPOSED, told)

    def test_each_is_understood(self):
        self.assertEqual(set(SOCKETS), {"vemo-web-reboot.socket"})
        for name, file in (UNITS | SOCKETS).items():
            with self.subTest(name):
                told = subprocess.run(["systemd-analyze", "verify", "--man=no", file], capture_output=True,
                                      text=True, check=False).stderr
                # The programs are not installed here.
                words = [line for line in told.splitlines() if "is not executable" not in line]
                self.assertEqual([line for line in words if name in line], [])

    def test_a_stop_waits_longer_than_a_request_may_take(self):
        site = (SOURCE / "web/lighttpd/lighttpd-site.conf").read_text(encoding="utf-8")
        request = sum(map(int, re.findall(r'"CGI_GATE_(?:QUEUE|RUN)_TIMEOUT" *=> "(\d+)"', site)))
        self.assertEqual(request, 120)
        server = (SOURCE / "web/lighttpd/lighttpd.conf").read_text(encoding="utf-8")
        server = int(re.search(r'"server\.graceful-shutdown-timeout" => (\d+)', server)[1])
        unit = int(re.search(r"(?m)^TimeoutStopSec=(\d+)$", UNITS["vemo-web.service"].read_text(encoding="utf-8"))[1])
        self.assertLess(request, server)
        self.assertLess(server, unit)

    def test_each_port_of_the_web_server_has_its_connections_limited(self):
        unit = UNITS["vemo-web.service"].read_text(encoding="utf-8")
        line = re.search(r"^ExecStartPre=\+-/bin/sh -c '(.*)'$", unit, re.MULTILINE)[1]
        line = line.replace("$$", "$").replace("\\\\", "\\")
        shipped = next((BUILD / "packaging").rglob("web-server.conf")).read_text(encoding="utf-8")
        with_tls = re.sub(r"(?m)^#(server.port := |var.vemo_http)", r"\1", shipped)
        for text, ports in ((shipped, "8080"), (shipped.replace("= 8080", "=  80 # not 8080"), "80"),
                            (with_tls, "8080,8443")):
            with self.subTest(ports), tempfile.NamedTemporaryFile("w") as file:
                file.write(text)
                file.flush()
                command = re.sub(r"\S*/web-server.conf", file.name, line).replace("nft ", "echo ", 1)
                told = subprocess.run(["/bin/sh", "-c", command], capture_output=True, text=True, check=True).stdout
                self.assertTrue(told.startswith(f"-D port={{{ports}}} -f "), told)


if __name__ == "__main__":
    unittest.main(verbosity=2)
