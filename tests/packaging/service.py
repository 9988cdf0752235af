"""The units, as systemd judges them without running them:

    python3 -B -m pytest tests/packaging/service.py --build BUILD
"""

import re
import subprocess

import pytest

from root import SOURCE

SERVICES = ("vemo-web.service", "vemo-web-class-archive.service", "vemo-web-log.service", "vemo-web-nvm.service",
            "vemo-web-reboot.service")
SOCKETS = ("vemo-web-reboot.socket",)
MOST_EXPOSED = 2.0


@pytest.fixture
def units(build):
    return {file.name: file for file in (build / "packaging").rglob("vemo-web*.s[eo]*")}


def judged(*command):
    return subprocess.run(["systemd-analyze", *command], stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          check=False).stdout


def test_there_are_no_other_units(units):
    assert set(units) == {*SERVICES, *SOCKETS}


@pytest.mark.parametrize("name", SERVICES)
def test_each_is_confined(units, name):
    told = judged("security", "--offline=yes", "--no-pager", units[name])
    assert float(re.search(r"Overall exposure level.*: ([0-9.]+)", told)[1]) < MOST_EXPOSED, told


@pytest.mark.parametrize("name", SERVICES + SOCKETS)
def test_each_is_understood(units, name):
    # The programs are not installed here.
    assert [line for line in judged("verify", "--man=no", units[name]).splitlines()
            if name in line and "is not executable" not in line] == []


def test_a_stop_waits_longer_than_a_request_may_take(units):
    site = (SOURCE / "web/lighttpd/lighttpd-site.conf").read_text(encoding="utf-8")
    request = sum(map(int, re.findall(r'"CGI_GATE_(?:QUEUE|RUN)_TIMEOUT" *=> "(\d+)"', site)))
    assert request == 120
    server = (SOURCE / "web/lighttpd/lighttpd.conf").read_text(encoding="utf-8")
    server = int(re.search(r'"server\.graceful-shutdown-timeout" => (\d+)', server)[1])
    unit = int(re.search(r"(?m)^TimeoutStopSec=(\d+)$", units["vemo-web.service"].read_text(encoding="utf-8"))[1])
    assert request < server < unit


@pytest.mark.parametrize("pattern, text, ports", [
    ("", "", "8080"), ("= 8080", "=  80 # not 8080", "80"),
    (r"(?m)^#(server.port := |var.vemo_http)", r"\1", "8080,8443")], ids=["shipped", "a comment", "TLS"])
def test_each_port_of_the_web_server_has_its_connections_limited(units, build, tmp_path, pattern, text, ports):
    unit = units["vemo-web.service"].read_text(encoding="utf-8")
    line = re.search(r"^ExecStartPre=\+-/bin/sh -c '(.*)'$", unit, re.MULTILINE)[1]
    line = line.replace("$$", "$").replace("\\\\", "\\")
    shipped = next((build / "packaging").rglob("web-server.conf")).read_text(encoding="utf-8")
    file = tmp_path / "web-server.conf"
    file.write_text(re.sub(pattern, text, shipped), encoding="utf-8")
    command = re.sub(r"\S*/web-server.conf", str(file), line).replace("nft ", "echo ", 1)
    told = subprocess.run(["/bin/sh", "-c", command], capture_output=True, text=True, check=True).stdout
    assert told.startswith(f"-D port={{{ports}}} -f "), told
