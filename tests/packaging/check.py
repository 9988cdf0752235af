"""Every cause that vemo-web-check knows. Each test makes one: exactly one line of the check names it, and the command
of that line mends it. tests/machine/installed.py has the causes that need systemd.

    python3 -B -m pytest tests/packaging/check.py --build BUILD -k no_log
"""

import contextlib
import re

import pytest

from installed_device import (ARCHIVE, CLASS_FOLDER, FOLDER, LOG, OPTIONS, SETTINGS, TEXT, WEB_SERVER, Device)
from prepared import PASSWORD, TLS

APT = "apt-get install --reinstall "
RESTART = "systemctl restart vemo-web"
EDIT = f'"${{EDITOR:-vi}}" {WEB_SERVER}; {RESTART}'
EDIT_OPTIONS = f'"${{EDITOR:-vi}}" {OPTIONS}; '
MAKE_FOLDER = f"install -d -o vemo-web -g vemo-web -m 0775 {FOLDER}; "
KEY, CERTIFICATE = "/etc/vemo-web/key.pem", "/etc/vemo-web/certificate.pem"
CLOSE_KEY = f"chown root:vemo-web {KEY}; chmod 0640 {KEY}"
NAMES = "DNS:localhost,IP:127.0.0.1"
PAGES, CONFIGURATION = "/var/www/html", "/etc/lighttpd/lighttpd.conf"
ON_PORT_80 = ("typed", "systemctl unmask lighttpd; systemctl enable lighttpd", "systemctl disable lighttpd")


@pytest.fixture(scope="module")
def device(build):
    with Device(build, "Check") as device:
        device.install_ours()
        device.install_known("lighttpd-mod-openssl", "nftables", "openssl")  # which are recommended
        device.run("systemctl", "disable", "lighttpd")
        # What an administrator would do by hand.
        device.write("/root/editor", '#!/bin/sh\ncat /root/wanted >"$1"\n')
        device.file("/root/editor").chmod(0o755)
        device.start_nvm()
        device.start_server()
        yield device


def found_in(device):
    """What is not ok: the word, what, and the command."""
    told = device.run("sh", "-c", "vemo-web-check; echo status $?")
    found = re.findall(r"^(risky|WRONG)  (.{14}) \S.*\n {22}-> (\S.*)$", told, re.MULTILINE)
    assert len(re.findall(r"^(?!ok    ).", told, re.MULTILINE)) == 2 * len(found) + 1, told
    is_wrong = any(word == "WRONG" for word, _, _ in found)
    assert told.endswith(f"\nstatus {int(is_wrong)}\n"), told
    return [(word, what.strip(), command) for word, what, command in found]


def expect_named(device, what, command, word="WRONG"):
    """Nothing else is found. `command` is the beginning; gives the whole command."""
    (found,) = found_in(device)
    assert found[:2] == (word, what) and found[2].startswith(command), found
    return found[2]


def expect_mended(device, what, command, word="WRONG"):
    """The command mends it, too. An editor that it starts restores the file."""
    command = expect_named(device, what, command, word)
    device.run("bash", "-c", f"cd /root; export EDITOR=/root/editor; {command}", status=None)
    if RESTART in command:
        device.restart_server()
    assert found_in(device) == []


def cause(name, what, command, *breaks, word="WRONG", is_served=False):
    return pytest.param(breaks, is_served, (what, command, word), id=name.replace(" ", "_"))


def settings(mode, user, folder_mode=0o775, folder_user="vemo-web:vemo-web"):
    """Breaks: a settings file of that mode and user in such a folder."""
    return (("typed", f"printf '{TEXT}' >{SETTINGS}", f"rm -f {SETTINGS}"),
            ("mode", FOLDER, folder_mode, folder_user), ("mode", SETTINGS, mode, user))


MENDED = [
    # The checks that do not need that user run all the same.
    cause("no user", "user", "systemd-sysusers vemo-web.conf",
          ("typed", "sed -i.before /^vemo-web:/d /etc/passwd", "mv /etc/passwd.before /etc/passwd")),
    cause("no Java VM", "Java VM", APT + "default-jre-headless", ("without", "/usr/lib/jvm/default-java")),
    cause("no class", "class", APT + "./vemo-web-standin_*.deb", ("without", CLASS_FOLDER)),
    cause("a class path elsewhere", "class", EDIT, ("changed", WEB_SERVER, CLASS_FOLDER, "/nowhere"), is_served=True),
    cause("options that the VM refuses", "VM options", EDIT_OPTIONS, ("typed", "true", "vemo-web-class-archive"),
          ("changed", OPTIONS, "-Xmx16m", "-Xmx1k")),
    cause("options that cannot be read", "VM options", f"chmod a+r {OPTIONS}; ",
          ("typed", "true", "vemo-web-class-archive"), ("mode", OPTIONS, 0o600)),
    cause("no archive", "class archive", "vemo-web-class-archive", ("without", ARCHIVE)),
    cause("a log that cannot be written", "log", RESTART, ("mode", LOG, 0o640, "root:root")),
    cause("no log", "log", RESTART, ("without", LOG)),

    cause("settings that only root can read", "settings file", f"chown vemo-web:vemo-web {SETTINGS}",
          *settings(0o600, "root:root")),
    cause("settings that their owner cannot read", "settings file", f"chmod ug+rw {SETTINGS}",
          *settings(0o040, "vemo-web:vemo-web")),
    cause("settings that all can write", "settings file", f"chown vemo-web:vemo-web {SETTINGS}",
          *settings(0o666, "root:root"), word="risky"),
    *(cause(f"a settings file of {user}, which a power cut may mix", "settings file",
            f"chown vemo-web:vemo-web {SETTINGS}", *settings(0o664, user), word="risky")
      for user in ("root:vemo-web", "vemo-web:root", "7777:vemo-web")),
    cause("settings in a folder that cannot be written", "settings file",
          f"chgrp vemo-web {FOLDER}; chmod g+rwx {FOLDER}", *settings(0o664, "vemo-web:vemo-web", 0o755, "root:root"),
          word="risky"),
    cause("a folder that cannot be written", "settings file", f"chgrp vemo-web {FOLDER}; chmod g+rwx {FOLDER}",
          ("mode", FOLDER, 0o755, "root:root")),
    cause("no settings folder", "settings file", MAKE_FOLDER, ("without", FOLDER)),
    cause("no settings folder below what belongs to somebody else", "settings file", MAKE_FOLDER,
          ("mode", "/app", 0o755, "games"), ("without", "/app/tarn-belox"), is_served=True),
    cause("a settings folder that is none", "settings file", f"mv /app/tarn-belox /app/tarn-belox.away; {RESTART}",
          ("without", "/app/tarn-belox"), ("typed", "echo file >/app/tarn-belox", "rm /app/tarn-belox.away")),
    cause("a settings folder that may not be entered", "settings file", "chmod a+x /app",
          ("mode", "/app", 0o700, "games")),
    cause("a settings file that is none", "settings file", f"mv {SETTINGS} {SETTINGS}.away",
          ("typed", f"mkdir {SETTINGS}", f"rmdir {SETTINGS}.away")),

    cause("a port that is no number", "configuration", EDIT,
          ("changed", WEB_SERVER, "server.port = 8080", "server.port = eighty")),
    cause("a port that is a text", "configuration", EDIT,
          ("changed", WEB_SERVER, "server.port = 8080", 'server.port = "eighty"')),
    cause("nobody listens where the configuration says", "request", RESTART, ("changed", WEB_SERVER, "8080", "8081")),
    cause("names that the server does not know", "request", RESTART,
          ("changed", WEB_SERVER, '"localhost|', '"foreign.example|')),
    cause("a password that the running server does not ask for", "password", RESTART, ("turned_on", PASSWORD)),
    cause("Debian's lighttpd on port 80", "port 80", "systemctl disable --now lighttpd",
          ON_PORT_80, word="risky"),
]


def test_a_whole_device_has_no_fault_and_nothing_is_stored(device):
    assert found_in(device) == []
    checked = re.findall("^ok     (.{14})", device.run("vemo-web-check"), re.MULTILINE)
    assert [name.strip() for name in checked] == [
        "user", "configuration", "Java VM", "log", "VM options", "class", "class archive", "settings file", "service",
        "port 80", "connections", "request", "nVm service"]
    assert not device.file(SETTINGS).exists()


@pytest.mark.parametrize("breaks, is_served, line", MENDED)
def test_the_command_mends(device, breaks, is_served, line):
    with device.broken(*breaks, is_served=is_served):
        expect_mended(device, *line)


def test_without_the_stand_ins_package_the_nvm_service_is_missing(device):
    with device.broken(("without_nvm",), ("without", "/lib/systemd/system/vemo-web-nvm.service")):
        expect_named(device, "nVm service", APT + "./vemo-web-standin_*.deb")


@pytest.mark.parametrize("breaks", [
    pytest.param(settings(0o600, "vemo-web:vemo-web"), id="settings for the service alone"),
    *(pytest.param((ON_PORT_80, ("typed", use, unused)), id=name) for name, use, unused in (
        ("port 80 with a module", "lighty-enable-mod vemo-web", "lighty-disable-mod vemo-web"),
        ("port 80 with a page", f"touch {PAGES}/index.html", f"rm {PAGES}/index.html"),
        ("port 80 with a setting", f"echo >>{CONFIGURATION}", f"sed -i '$d' {CONFIGURATION}")))])
def test_is_no_fault(device, breaks):
    with device.broken(*breaks):
        assert found_in(device) == []


def test_a_settings_file_that_a_runtime_with_a_user_of_its_own_writes_too(device):
    """The command gives the set-up that docs/on-a-device.md names, with which both can store."""
    new = FOLDER + "/new"
    with device.broken(("typed", "true", f"rm -f {new}; groupdel vemo-settings"), *settings(0o664, "games:vemo-web")):
        expect_mended(device, "settings file", "groupadd -f vemo-settings; ", "risky")
        assert device.owner(SETTINGS) == "games:vemo-settings 664"
        assert device.owner(FOLDER) == "vemo-web:vemo-settings 2775"
        for user in ("vemo-web", "games"):
            device.run("setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "sh", "-ec",
                       f"test -r {SETTINGS}; test -w {SETTINGS}; rm -f {new}; >{new}")
            assert ":vemo-settings " in device.owner(new)
        # It holds by the folder's bit, the group, and what the group may do.
        for change, back in ((f"chmod g-s {FOLDER}", f"chmod 2775 {FOLDER}"),
                             (f"chmod 644 {SETTINGS}", f"chmod 664 {SETTINGS}"),
                             (f"chgrp games {SETTINGS}", f"chgrp vemo-settings {SETTINGS}"),
                             ("gpasswd --delete games vemo-settings", "usermod -aG vemo-settings games")):
            with device.typed(change, back):
                assert [one[1] for one in found_in(device)] == ["settings file"], change
            assert found_in(device) == [], back


def test_the_limit_of_connections_is_looked_for_at_the_servers_port(device):
    load = 'nft -D "port={%s,9}" -f /etc/vemo-web/connections.nft'
    with device.broken(("changed", WEB_SERVER, 'server.bind = "127.0.0.1"', 'server.bind = "0.0.0.0"'),
                       ("typed", load % 8080, "nft delete table inet vemo_web")):
        assert found_in(device) == []
        device.run("bash", "-ec", load % 8081)
        expect_named(device, "connections", f"apt-get install nftables; {RESTART}")


def test_arguments_and_other_users_are_refused(device):
    device.run("vemo-web-check", "--all", status=2)
    assert "ok, risky or WRONG" in device.run("vemo-web-check", "--help")
    device.run("setpriv", "--reuid=games", "--clear-groups", "vemo-web-check", status=2)


@contextlib.contextmanager
def certificate(device, names, days=800):
    """Another one, with another key."""
    with device.broken(("without", KEY), ("without", CERTIFICATE)):
        device.run("sh", "-euc", "openssl req -x509 -newkey rsa:2048 -nodes -subj /CN=localhost"
                   f" -addext subjectAltName={names} -keyout {KEY} -out {CERTIFICATE};"
                   f" openssl x509 -in {CERTIFICATE} -signkey {KEY} -days {days} -out {CERTIFICATE}; {CLOSE_KEY}")
        yield


class TestTls:
    @pytest.fixture(scope="class", autouse=True)
    def over_tls(self, device):
        with device.broken(("turned_on", TLS), is_served=True):
            yield

    def test_a_whole_device_has_no_fault_the_page_comes_and_http_leads_to_it(self, device):
        told = device.run("vemo-web-check")
        for line in (rf"ok +key +{KEY}", rf"ok +certificate +{CERTIFICATE}, until ",
                     "ok +request +https://127.0.0.1:8443/setobdconf"):
            assert re.search(line, told), told
        assert found_in(device) == []
        page = device.run_beside("bash", "-c", f"curl -sS --cacert {device.file(CERTIFICATE)}"
                                 " https://localhost:8443/setobdconf.cgi; curl -sSi http://localhost:8080/")
        assert "Option CanDetectTimeout not set" in page
        assert "ocation: https://localhost:8443/" in page

    @pytest.mark.parametrize("breaks, is_served, line", [
        *(cause(f"a key of {user or 'the same user'} and mode {mode:o}", "key", CLOSE_KEY, ("mode", KEY, mode, user))
          for mode, user in ((0o644, None), (0o660, None), (0o640, "games"), (0o640, ":games"), (0o600, None))),
        cause("one more name", "certificate", EDIT, ("changed", WEB_SERVER, r"0\.1", r"0\.1|device\.example")),
        cause("one more address", "certificate", EDIT, ("changed", WEB_SERVER, r"0\.1", r"0\.1|192\.168\.7\.1")),
        cause("no openssl", "certificate", APT + "openssl", ("without", "/usr/bin/openssl"), word="risky"),
        cause("no TLS in lighttpd", "configuration", APT + "lighttpd-mod-openssl; ",
              ("without", "/usr/lib/lighttpd/mod_openssl.so"))])
    def test_the_command_mends(self, device, breaks, is_served, line):
        with device.broken(*breaks, is_served=is_served):
            expect_mended(device, *line)

    @pytest.mark.parametrize("breaks, is_served, line", [
        cause("no key", "key", EDIT, ("without", KEY)),
        cause("no certificate", "certificate", EDIT, ("without", CERTIFICATE))])
    def test_is_named(self, device, breaks, is_served, line):
        with device.broken(*breaks, is_served=is_served):
            expect_named(device, *line)

    def test_a_key_that_is_not_the_certificates(self, device):
        text = device.read(KEY)
        with certificate(device, NAMES):
            device.write(KEY, text)
            expect_named(device, "certificate", EDIT)

    # localhost in CN alone, where browsers do not look.
    @pytest.mark.parametrize("names, days, words", [
        ("IP:127.0.0.1", 800, ["WRONG"]), (NAMES, -1, ["WRONG"]), (NAMES, 20, ["risky"]), (NAMES, 40, [])],
        ids=["an old name", "ended", "ends soon", "ends later"])
    def test_another_certificate_is_named(self, device, names, days, words):
        with certificate(device, names, days):
            assert [(one[:2], one[2][:len(EDIT)]) for one in found_in(device)] == [
                ((word, "certificate"), EDIT) for word in words]


def test_a_password_is_asked_for(device):
    with device.broken(("turned_on", PASSWORD), is_served=True):
        told = device.run("vemo-web-check")
        assert "asks for a password" in told
        assert re.search(r"ok +password +/etc/vemo-web/password\n", told), told
        with device.mode("/etc/vemo-web/password", 0o644):
            expect_mended(device, "password", "chown root:vemo-web /etc/vemo-web/password; chmod 0640 ")


@pytest.mark.parametrize("server", ["apache2", "nginx"])
def test_a_password_that_another_server_has_not(device, server):
    servers, drop_ins = "/etc/vemo-web/web-servers", "/etc/systemd/system/vemo-web.service.d"
    configuration, password = f"{servers}/{server}.conf", f"/etc/vemo-web/{server}-password"
    with device.broken(("typed", f"cp -r /usr/share/vemo-web/web-servers /etc/vemo-web; mkdir {drop_ins};"
                        f" cp {servers}/{server}.service.conf {drop_ins}", f"rm -r {servers} {drop_ins}")):
        assert found_in(device) == []
        with device.broken(("turned_on", PASSWORD), is_served=True):
            expect_named(device, "password", f'"${{EDITOR:-vi}}" {configuration}; {RESTART}')
            with device.turned_on(PASSWORD, configuration):
                assert found_in(device) == []
                with device.mode(password, 0o644):
                    expect_mended(device, "password", f"chown root:vemo-web {password}; ")
