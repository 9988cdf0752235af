"""The pages of packaging/example, as an author makes them who has the packages alone: by the commands of
docs/sibling-page.md, in a bare root; then served there.

    python3 -B -m pytest tests/packaging/example.py --build BUILD
"""

import pathlib
import re
import shutil

import pytest

import commands
from installed_device import SETTINGS, Device
from root import told

PAGE = "/usr/share/vemo-web/htdocs/uptime.cgi"
# Who types the commands says yes.
APT = 'APT::Get::Assume-Yes "true"; APT::Sandbox::User "root";\n'


def told_uptime(page):
    """In seconds."""
    minutes, seconds = re.search(r"has been running for (\d+) minutes and (\d+) seconds\.", page).groups()
    return int(minutes) * 60 + int(seconds)


def uptime():
    return int(float(pathlib.Path("/proc/uptime").read_text(encoding="ascii").split()[0]))


@pytest.fixture(scope="module")
def device(build):
    """A bare root with the packages in /root."""
    with Device(build, "Example") as device:
        for file in device.made.values():
            device.put(file)
        device.write("/etc/apt/apt.conf.d/commands", APT)
        yield device


# In this order: what one leaves is what the next begins with.


def test_five_commands_lead_from_the_packages_to_the_page(build, device):
    """The programs are left in BUILD/example."""
    done = commands.commands_in("development")
    assert len(done) == 5
    for command, rule in done:
        device.run("bash", "-c", f"cd /root; {commands.script(command, rule)}\nexit")
    assert device.file(PAGE).exists()
    folder = build / "example"
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    for file in device.file("/root/page/build").glob("*.cgi"):
        shutil.copy(file, folder)


def test_what_the_package_recommends_is_what_it_was_built_with(device):
    recommended = told("dpkg-deb", "--field", device.made["vemo-web-dev"], "Recommends").strip()
    install, _ = commands.commands_in("development")[0]
    named = [word for word in install.text.split()[3:] if not word.startswith("./")]
    assert sorted(name.split(" ")[0] for name in recommended.split(", ")) == sorted(named)


def test_the_web_server_serves_it(device):
    device.start_server()
    before = uptime()
    status, page = device.ask("/uptime.cgi")
    assert status == 200
    assert told_uptime(page) in range(before, uptime() + 1)


def test_its_form_stores_an_option(device):
    device.run("install", "-m", "0755", "/root/page/build/name.cgi", "/usr/share/vemo-web/htdocs")
    page = device.ask("/name.cgi", "-d", "Name=<Halle 3> \"M%FCller\"")[1]
    assert "The name is stored." in page
    assert 'value="&lt;Halle 3&gt; &quot;M&uuml;ller&quot;"' in page
    stored = device.file(SETTINGS).read_bytes()
    assert stored == b'[SETTINGS]\nVEMODInterfaceName=<Halle 3> "M\xfcller"\n'
    for name in ("", "x" * 41):
        assert "Nothing was stored" in device.ask("/name.cgi", "-d", f"Name={name}")[1]
    device.ask("/name.cgi?Name=by-GET")
    assert device.file(SETTINGS).read_bytes() == stored


def test_an_upgrade_and_a_purge_leave_it(device):
    before = device.file(PAGE).read_bytes()
    device.run("bash", "-c", "cd /root; apt-get --reinstall --no-install-recommends install ./vemo-web_*.deb")
    assert device.file(PAGE).read_bytes() == before
    told = device.run("apt-get", "purge", "vemo-web", "vemo-web-standin")
    assert "directory '/usr/share/vemo-web/htdocs' not empty so not removed" in told
    assert device.file(PAGE).read_bytes() == before
