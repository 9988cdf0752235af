"""The Debian packages in a bare root that is not booted: installed, upgraded, removed. vemo-web-check, and what to do
when something is broken: check.py and symptoms.py.

    python3 -B -m pytest tests/packaging/packages.py --build BUILD -k Sizes
"""

import functools
import os
import pathlib
import re
import shutil
import subprocess

import pytest

import commands
import pages
import root
from installed_device import (ARCHIVE, AS_SERVICE, CLASS_FOLDER, FOLDER, LOG, OPTIONS, OURS, PROGRAMS, SETTINGS,
                              TEXT, WEB_SERVER, Device)
from prepared import PASSWORD, TLS, with_parts
from root import told

APT = ("apt-get", "-q", "-y")
RECORD = f"{ARCHIVE}/record"
# As docs/sibling-page.md has it.
AUTHORS_PAGE = "/usr/share/vemo-web/htdocs/uptime.cgi"
OUR_LOG = "root:vemo-web 664"


@pytest.fixture(scope="class")
def device(build, request):
    """For the tests of a class, with nothing of ours installed."""
    with Device(build, request.cls.__name__.removeprefix("Test")) as device:
        yield device


class TestLint:
    """The files; those for another processor are held against this machine's."""

    FIELDS = ("Version", "Pre-Depends", "Depends", "Recommends", "Suggests", "Conffiles")
    # The unwinding of 32-bit Arm came later into the compiler's library.
    OTHERWISE = {"armhf": ("libgcc-s1 (>= 3.0)", "libgcc-s1 (>= 3.5)")}

    another = pytest.mark.parametrize("architecture", ["arm64", "armhf"], indirect=True)

    @pytest.fixture(scope="class", params=["amd64", "arm64", "armhf"])
    def architecture(self, request):
        if request.param != "amd64" and (reason := root.why_not_for(request.param)):
            pytest.skip(reason)
        return request.param

    @pytest.fixture(scope="class")
    def own(self, build):
        """This machine's, by their names."""
        return root.packages(build)

    @pytest.fixture(scope="class")
    def made(self, build, architecture, own):
        return own if architecture == "amd64" else root.packages(build, architecture=architecture)

    @staticmethod
    def field(file, name):
        return told("dpkg-deb", "--field", file, name).strip()

    @staticmethod
    def names(folder):
        """Of the packages, and of those for debuggers."""
        return {file.relative_to(folder).as_posix().split("_")[0]
                for pattern in ("*.deb", "debug/*.deb") for file in folder.glob(pattern)}

    @staticmethod
    def files(file):
        """Name, owner, mode and length of what is in a package; the length only of what no compiler made."""
        listed = set()
        for line in told("dpkg-deb", "--contents", file).splitlines():
            mode, owner, length, _, _, name = line.split(None, 5)
            name = re.sub(r"/(x86_64|aarch64|arm)-linux-gnu(eabihf)?/", "/TRIPLET/", name + "/")
            made = re.search(r"/libexec/|/TRIPLET/|/.build-id/|\.gz/", name)
            listed.add((re.sub(r"/.build-id/.*", "/.build-id/", name), owner, mode, None if made else length))
        return listed

    def test_lintian_has_nothing_to_say(self, made):
        folder = made["vemo-web"].parent
        files = (*folder.glob("*.deb"), *folder.glob("debug/*.deb"))
        assert told("lintian", "--pedantic", "--allow-root", *files) == ""

    def test_the_checksums_are_those_of_the_files(self, made):
        told("sh", "-c", "cd $0 && sha256sum --check --quiet SHA256SUMS", made["vemo-web"].parent)

    def test_nothing_tells_of_the_building_machine(self, build, made, architecture):
        """Neither paths of the build nor those of its Java VM."""
        for name, file in made.items():
            content = subprocess.run(["dpkg-deb", "--fsys-tarfile", file], capture_output=True, check=True).stdout
            for path in (root.SOURCE, build, "openjdk-amd64", f"openjdk-{architecture}"):
                assert str(path).encode() not in content, (name, path)

    def test_the_java_vm_is_found_where_it_is_on_any_debian(self, made, tmp_path):
        assert "vemo-web-class-archive" in told("dpkg-deb", "--info", made["vemo-web"], "postinst")
        told("dpkg-deb", "--extract", made["vemo-web"], tmp_path)
        for page in ("setobdconf.cgi", "channeldeviceconfig.cgi"):
            entries = told("readelf", "--dynamic", tmp_path / "usr/libexec/vemo-web" / page)
            assert "[/usr/lib/jvm/default-java/lib/server]" in entries, page

    def test_the_check_says_the_packages_version(self, made, tmp_path):
        (version,) = {file.name.split("_")[1] for file in made.values()}
        assert {self.field(file, "Version") for file in made.values()} == {version}
        told("dpkg-deb", "--extract", made["vemo-web"], tmp_path)
        assert told("bash", tmp_path / "usr/sbin/vemo-web-check", "--version") == f"vemo-web {version}\n"

    def test_every_call_of_the_compiler_has_the_flags_of_hardening(self, build):
        """Of those that link, blhc knows none that is static."""
        assert told("blhc", "--all", "--ignore-line", ".* -static(-pie)? .*", build / "package/build.log") == ""

    @another
    def test_there_are_the_same_ones(self, own, made, architecture):
        assert self.names(made["vemo-web"].parent) == self.names(own["vemo-web"].parent)
        assert {self.field(file, "Architecture") for file in made.values()} == {architecture}

    @another
    def test_they_depend_on_the_same(self, own, made, architecture):
        for name, file in made.items():
            for which in self.FIELDS:
                wanted = self.field(own[name], which).replace(*self.OTHERWISE.get(architecture, ("", "")))
                assert self.field(file, which) == wanted, (name, which)

    @another
    def test_there_are_the_same_files_in_them(self, own, made):
        for name, file in made.items():
            assert self.files(file) == self.files(own[name]), name


class TestSizes:
    """docs/on-a-device.md says what a bare Debian 12 has to fetch and to keep, in MB of apt's."""

    ROWS = [row for row in pages.rows("docs/on-a-device.md") if "fetched with them" in row]

    @staticmethod
    def measured(device, package, *others, recommends):
        """The package itself, and what it brings when it is installed together with the others."""
        if file := device.made.get(package):
            fields = told("dpkg-deb", "--field", file)
            fetched = file.stat().st_size / 1e6
        else:
            # Of a package of Debian's, apt's lists in the bare root know all.
            fields = device.run("apt-cache", "show", "--no-all-versions", package)
            fetched = int(re.search(r"^Size: (\d+)", fields, re.MULTILINE)[1]) / 1e6
        kept = int(re.search(r"^Installed-Size: (\d+)", fields, re.MULTILINE)[1]) * 1024 / 1e6
        names = [device.put(device.made[one]) if one in device.made else one for one in (package, *others)]
        said = device.run("apt-get", "-q", "--assume-no", "-o", f"APT::Install-Recommends={recommends}", "install",
                          *names, status=None)
        return {"fetched": fetched, "on the disk": kept,
                "packages": int(re.search(r"(\d+) newly installed", said)[1]),
                "fetched with them": float(re.search(r"([\d.]+) MB of archives", said)[1]),
                "on the disk with them": float(re.search(r"([\d.]+) MB of additional", said)[1])}

    def test_each_package_has_a_row(self, device):
        assert len(self.ROWS) > len(device.made)

    @pytest.mark.parametrize("row", ROWS, ids=[row["package"] for row in ROWS])
    def test_what_a_package_takes_is_documented_within_a_tenth(self, device, row):
        names = pages.code(row["package"])
        found = self.measured(device, *(name for name in names if not name.startswith("-")),
                              recommends="--no-install-recommends" in names)
        print({what: round(size, 2) for what, size in found.items()})
        assert {what: float(row[what]) for what in found} == {what: pytest.approx(size, rel=0.1)
                                                              for what, size in found.items()}

    def test_what_a_made_java_runtime_takes_is_documented_within_a_tenth(self, build):
        found = sum(file.stat().st_size for file in (build / "java-runtime").rglob("*") if file.is_file()) / 1e6
        told = float(re.search(r"makes one of (\d+) MB", pages.read("docs/on-a-device.md"))[1])
        assert told == pytest.approx(found, rel=0.1)


class TestLifeCycle:
    """In this order: what one leaves is what the next begins with."""

    def test_one_installation_gives_the_whole_device(self, device):
        device.install_ours()
        assert device.owner(LOG) == OUR_LOG
        assert device.owner(FOLDER) == "vemo-web:vemo-web 775"
        assert not device.file(SETTINGS).exists()
        assert device.file(RECORD).exists()
        # The request that it was made from is not logged.
        assert device.read(LOG) == ""
        for unit in ("vemo-web", "vemo-web-nvm"):
            assert device.run("systemctl", "is-enabled", unit) == "enabled\n"

    def test_settings_and_configuration_are_kept_by_the_same_an_older_and_a_newer_version(self, device, build):
        device.write(SETTINGS, TEXT)
        device.run("sh", "-ec", f"chown games:games {SETTINGS}; chmod 640 {SETTINGS}; chmod 0700 {FOLDER};"
                   f" sed -i s/8080/8088/ {WEB_SERVER}; echo -Xmx17m >>{OPTIONS}; echo a line >{LOG}")
        device.run("install", "/bin/true", AUTHORS_PAGE)
        older = root.packages(build, "0.9.0")
        for packages, *more in ((device.made, "--reinstall"), (older,), (device.made,)):
            device.run(*APT, "--no-install-recommends", "--allow-downgrades", *more, "install",
                       *(device.put(packages[name]) for name in OURS))
            assert packages["vemo-web"].stem.split("_")[1] in device.run("dpkg-query", "--show", "vemo-web")
            assert device.read(SETTINGS) == TEXT
            assert device.owner(SETTINGS) == "games:games 640"
            assert device.owner(FOLDER) == "vemo-web:vemo-web 700"
            assert "server.port = 8088" in device.read(WEB_SERVER)
            assert "-Xmx17m" in device.read(OPTIONS)
            assert device.read(LOG) == "a line\n"
            assert device.file(AUTHORS_PAGE).exists()

    def test_another_java_vm_gets_an_archive_of_its_own(self, device):
        """As a package of it would: by the trigger."""
        record = device.read(RECORD)
        os.utime(next(device.file("/usr/lib/jvm").glob("java-17-*/lib/modules")))
        device.run("dpkg-trigger", "--by-package=base-files", "/usr/lib/jvm")
        device.run("dpkg", "--configure", "--pending")
        assert device.read(RECORD) != record

    @pytest.mark.parametrize("command, status", [("vemo-web-class-archive", 1), ("dpkg-reconfigure vemo-web", 0)])
    def test_an_archive_that_cannot_be_made_is_reported_with_the_reason(self, device, command, status):
        text = device.read(OPTIONS)
        device.write(OPTIONS, text + "-Xmx1k\n")
        told = device.run(*command.split(), status=status)
        device.write(OPTIONS, text)
        device.run("vemo-web-class-archive")
        assert re.search(f"(?s)options of {OPTIONS}.*heap size", told), told

    def test_without_a_tmp_of_its_own_it_makes_none_and_leaves_the_log_alone(self, device):
        shutil.rmtree(device.file(ARCHIVE))
        before = device.read(LOG)
        told = device.run("setpriv", "--bounding-set=-sys_admin", "vemo-web-class-archive", status=1)
        assert re.search("no /tmp of its own .*Operation not permitted", told), told
        assert not device.file(ARCHIVE).exists()
        device.run("vemo-web-class-archive")
        assert device.file(RECORD).exists()
        assert device.read(LOG) == before

    def test_rotation_renames_the_log(self, device):
        before = set(device.file("/tmp").glob("*"))
        for number in range(1, 7):
            # Up to 1 MB it stays.
            for size in (1 << 20, (1 << 20) + 1):
                device.write(LOG, f"{number}\n")
                os.truncate(device.file(LOG), size)
                device.run(f"{PROGRAMS}/rotate-log")
                assert device.file(LOG).stat().st_size == (0 if size > 1 << 20 else size)
            assert device.owner(LOG) == OUR_LOG
        assert [device.read(f"{LOG}.{older}")[0] for older in range(1, 5)] == list("6543")
        assert ({file.name for file in set(device.file("/tmp").glob("*")) - before} ==
                {f"cgi.log.{older}" for older in range(1, 5)})

    @pytest.mark.parametrize("planted", [LOG, f"{LOG}.1", f"{LOG}.4"])
    def test_rotation_follows_no_link(self, device, planted):
        device.run("sh", "-c", f"rm -f {LOG}*; systemd-tmpfiles --create vemo-web.conf;"
                   f" truncate --size 2M {LOG}; rm -f /root/target; touch /root/target; ln -sf /root/target {planted}")
        device.run(f"{PROGRAMS}/rotate-log")
        assert device.run("stat", "--format=%s:%U:%G:%a", "/root/target") == "0:root:root:644\n"
        assert device.file(LOG).is_symlink() == (planted == LOG)

    def test_removing_keeps_what_is_configured(self, device):
        device.run(*APT, "remove", *OURS)
        assert device.read(SETTINGS) == TEXT
        assert "server.port = 8088" in device.read(WEB_SERVER)
        assert not device.file(PROGRAMS).exists()

    def test_purging_leaves_the_settings_file_as_it_is(self, device):
        device.run(*APT, "purge", *OURS)
        assert device.read(SETTINGS) == TEXT
        assert device.owner(SETTINGS) == "games:games 640"
        assert not device.file("/etc/vemo-web").exists()


class TestPurge:
    """What others have is there before, and afterwards; what we depend on is there all the time."""

    ASIDE = LOG + "-put-aside.AbCdEf"
    DROP_IN = "/etc/systemd/system/vemo-web.service.d/override.conf"
    # What dpkg and programs keep for themselves.
    LEFT_OUT = ("/proc", "/dev", "/root", "/var/lib/dpkg", "/var/lib/apt", "/var/log", "/var/cache/apt",
                "/var/cache/debconf", "/var/lib/logrotate", "/run/mount")
    # What the tools that change accounts leave behind them.
    CHANGING = re.compile(r"/etc/(\.pwd\.lock|(g?shadow|passwd|group|sub.id)-) ")

    @pytest.fixture(scope="class", autouse=True)
    def depended_on(self, device):
        device.install_known(*root.DEPENDENCIES)

    @pytest.fixture(autouse=True)
    def cleared(self, device):
        yield
        device.run("sh", "-c", f"apt-get -q -y purge {' '.join(OURS)};"
                   " rm -rf /app /etc/vemo-web /etc/systemd/system/vemo-web* /tmp/cgi* /tmp/nvm*;"
                   " userdel -r vemo-web; userdel -r vemo-web-nvm; groupdel vemo-web; groupdel vemo-settings;"
                   " rm -rf /usr/share/vemo-web; true")

    def state(self, device):
        """Every file, with owner and mode, and every account."""
        pruned = " -o ".join(f"-path {path} -prune" for path in self.LEFT_OUT)
        told = device.run("sh", "-c", f"find / -xdev {pruned} -o -printf '%p %u:%g %m %l\\n';"
                          " cat /etc/passwd /etc/group")
        return {line for line in told.splitlines() if not self.CHANGING.match(line)}

    def purge_of(self, device, use):
        """Of packages that were installed and used: what it said, what it left, what is missing."""
        before = self.state(device)
        device.install_ours()
        use()
        said = device.run(*APT, "purge", *OURS)
        after = self.state(device)
        return said, after - before, before - after

    def do_all_that_the_documents_say(self, device):
        """The commands of the pages, and those above the lines of each configuration."""
        told = [command.text for command in commands.pages()
                if re.match(r"cp -r /usr/share/vemo-web/|install -D .*/etc/systemd/|lighty-enable-mod ", command.text)]
        assert len(told) == 3, told
        for command in told:
            device.run("bash", "-ec", command)
        for file in (WEB_SERVER, *(f"/etc/vemo-web/web-servers/{name}.conf" for name in ("apache2", "nginx"))):
            text, made = with_parts(device.read(file), (TLS, PASSWORD))
            assert "/etc/vemo-web/" in made
            device.write(file, text)
            device.run("bash", "-ec", made, text="secret\n")
        device.run("systemctl", "enable", "vemo-web-reboot.socket")
        # As an author, vemo-web-check and the start of the service have it.
        device.run("install", "/bin/true", AUTHORS_PAGE)
        device.run("groupadd", "vemo-settings")
        device.run("install", "-d", "-m", "0700", self.ASIDE)
        # As `systemctl edit` leaves it, and `adduser www-data vemo-web`.
        device.write(self.DROP_IN, "[Service]\nIPAddressAllow=10.0.2.0/24\n")
        device.run("usermod", "--append", "--groups", "vemo-web", "www-data")
        # The toggle's status file, the logs in their turns.
        device.start_nvm()
        device.run(f"{PROGRAMS}/toggle-device-allocation")
        device.stop(device.nvm)
        assert device.file("/tmp/cgirep.txt").exists()
        for log in (LOG, "/tmp/nvm.log"):
            device.write(log + ".1", "old\n")
        # A stored value.
        device.run(*AS_SERVICE, "env", "REQUEST_METHOD=GET", "QUERY_STRING=CanDetectTimeout=700",
                   "JAVA_CLASSPATH=" + CLASS_FOLDER, f"JAVA_OPTIONS=-XX:VMOptionsFile={OPTIONS}",
                   f"{PROGRAMS}/setobdconf.cgi")
        assert "=700" in device.read(SETTINGS)

    def test_files_that_an_administrator_may_change_are_left_and_named(self, device):
        said, left, missing = self.purge_of(device, lambda: self.do_all_that_the_documents_say(device))
        left = {line.split(" ")[0] for line in left}
        files = {path for path in left if device.file(path).is_file()}
        copies = {f"/etc/vemo-web/web-servers/{file.stem}" for file in (root.SOURCE / "web/servers").glob("*.conf.in")}
        assert files == {SETTINGS, AUTHORS_PAGE, *copies, self.DROP_IN,
                         "/etc/systemd/system/vemo-web.service.d/web-server.conf"}
        for file in files | {self.ASIDE}:
            assert f"\n{file}\n" in said
        assert "the group vemo-settings stays" in said
        assert re.search(f"the account vemo-web stays.*\n(/app.*\n)*{SETTINGS}\n", said), said
        folders = {self.ASIDE} | {parent.as_posix() for file in files for parent in pathlib.Path(file).parents}
        accounts = left - files - folders
        assert all(line.startswith(("vemo-web:", "vemo-settings:")) for line in accounts), accounts
        assert missing == set()

    def test_what_was_made_of_secrets_and_the_account_go(self, device):
        """Where no copies are made, and nothing is stored."""
        def use():
            _, made = with_parts(device.read(WEB_SERVER), (TLS, PASSWORD))
            device.run("bash", "-ec", f"{made}; lighty-enable-mod vemo-web; touch /tmp/cgirep.txt;"
                       " usermod --append --groups vemo-web www-data", text="secret\n")

        said, left, missing = self.purge_of(device, use)
        assert (left, missing) == (set(), set()), said

    @pytest.mark.parametrize("kind", ["--system", "--create-home"])
    def test_an_account_that_others_made_stays(self, device, kind):
        for name in ("vemo-web", "vemo-web-nvm"):
            device.run("useradd", "--shell", "/bin/bash", kind, name)
            if kind == "--create-home":
                device.run("runuser", "-u", name, "--", "sh", "-c", "echo own >~/own")
        said, left, missing = self.purge_of(device, lambda: None)
        assert (left, missing) == (set(), set()), said
        assert kind == "--system" or device.read("/home/vemo-web/own") == "own\n"

    def test_what_is_of_others_stays_and_is_named(self, device):
        device.run("install", "-d", "-o", "games", "-m", "0700", FOLDER)
        said, left, missing = self.purge_of(device, lambda: device.run(
            "sh", "-euc", "cd /tmp; echo mine | tee cgirep.txt nvm.log.1 >/etc/vemo-web/own.pem;"
            f" chown games cgirep.txt nvm.log.1; ln -sf /etc/hostname {LOG}"))
        own = {"/etc/vemo-web/own.pem", "/tmp/cgirep.txt", "/tmp/nvm.log.1", LOG}
        assert {line.split(" ")[0] for line in left} == own | {"/etc/vemo-web"}
        assert missing == set()
        for path in own:
            assert f"\n{path}\n" in said


class TestLighttpd:
    """Debian's own service of it, in this order. Nothing is booted: tests/machine/installed.py looks at the port."""

    @staticmethod
    def state(device):
        return device.run("systemctl", "is-enabled", "lighttpd", status=None).strip()

    def test_one_that_was_there_before_is_left_alone(self, device):
        device.install_known("lighttpd")
        device.install(device.made["vemo-web"])
        assert self.state(device) == "enabled"
        device.run(*APT, "purge", "vemo-web")
        assert self.state(device) == "enabled"
        device.run(*APT, "purge", "lighttpd")

    def test_one_that_comes_along_is_off_until_an_administrator_turns_it_on(self, device):
        said = device.install(device.made["vemo-web"])
        assert "enable lighttpd.service where you want it" in said
        assert self.state(device) == "disabled"
        device.run("dpkg-reconfigure", "lighttpd")
        assert self.state(device) == "disabled"
        device.run("systemctl", "enable", "lighttpd")
        for name in ("lighttpd", "vemo-web"):
            device.run("dpkg-reconfigure", name)
            assert self.state(device) == "enabled", name

    def test_the_purge_leaves_nothing_that_keeps_it_off(self, device):
        device.run("systemctl", "disable", "lighttpd")
        device.run(*APT, "purge", "vemo-web")
        assert self.state(device) == "disabled"
        assert not list(device.file("/run").glob("vemo-web*"))
        device.run("systemctl", "enable", "lighttpd")
        assert self.state(device) == "enabled"


class TestUnanswered:
    """Each command of an administrator ends without an answer."""

    # At a terminal debconf may ask, too.
    TERMINAL = ("env", "--unset=DEBIAN_FRONTEND", "TERM=dumb", "bash", "-c",
                'exec < <(exec sleep infinity 2>&-); script --quiet --return --command "${*@Q}" /dev/null; exit $?',
                "bash")

    def test_nothing_is_asked_at_a_terminal(self, device):
        run = functools.partial(device.run, *self.TERMINAL)
        files = [device.put(device.made[name]) for name in OURS]
        run(*APT, "--no-install-recommends", "install", *files)
        device.write(LOG, "full\n" * 300000)
        run(*APT, "--no-install-recommends", "install", "--reinstall", *files)
        run("dpkg-reconfigure", *OURS)
        run("logrotate", "--force", "/etc/logrotate.conf")
        run(f"{PROGRAMS}/rotate-log")
        # For another file of options another archive, in the place of one that is read-only.
        device.run("touch", OPTIONS)
        run("vemo-web-class-archive")
        # That nothing runs is wrong.
        assert re.search("ok +class archive", run("vemo-web-check", status=1))
        run(*APT, "remove", *OURS)
        run(*APT, "purge", *OURS)
        assert not device.file("/etc/vemo-web").exists()


class TestObstacles:
    """What somebody planted in the log's place, in this order: before our packages came, and later."""

    PLANTED = {
        "link": f"ln -s /root/target {LOG}",
        "link to nowhere": f"ln -s /root/missing {LOG}",
        "pipe": f"mkfifo -m 666 {LOG}",
        "folder": f"mkdir {LOG}; echo theirs >{LOG}/file",
        "file of another": f"echo theirs >{LOG}; chmod 666 {LOG}; chown games {LOG}",
        "other name of a file": f"ln /root/target {LOG}",
    }

    def plant(self, device, what):
        """Its number."""
        device.write("/root/target", "of somebody\n")
        device.file(LOG).unlink(missing_ok=True)
        device.run("sh", "-euc", self.PLANTED[what])
        return device.file(LOG).lstat().st_ino

    @staticmethod
    def expect_put_aside(device, number):
        assert device.owner(LOG) == OUR_LOG
        assert "of somebody" not in device.read(LOG)
        assert device.read("/root/target") == "of somebody\n"
        assert device.owner("/root/target").startswith("root:root ")
        assert not device.file("/root/missing").exists()
        aside, = device.file("/tmp").glob("cgi.log-put-aside.*")
        assert device.owner(f"/tmp/{aside.name}") == "root:root 700"
        assert (aside / "cgi.log").lstat().st_ino == number
        # The check names it, and the command that removes it.
        found = re.search(r"\nrisky  log  .*\n +-> (.*)\n", device.run("vemo-web-check", status=1))
        device.run("sh", "-ec", found[1])
        assert not aside.exists()
        assert re.search("ok +log ", device.run("vemo-web-check", status=1))

    def test_the_installation_puts_it_aside(self, device):
        """A pipe: opening it blocks."""
        number = self.plant(device, "pipe")
        device.install_ours()
        assert device.file(RECORD).exists()
        self.expect_put_aside(device, number)

    @pytest.mark.parametrize("what", PLANTED)
    def test_each_start_puts_it_aside(self, device, what):
        number = self.plant(device, what)
        # So it is named while it stands there, and nothing is written through it.
        told = device.run("vemo-web-check", status=1)
        assert re.search(r"\nWRONG  log  .*\n +-> systemctl restart vemo-web\n", told), told
        device.run(f"{PROGRAMS}/make-log")
        self.expect_put_aside(device, number)


class TestModule:
    def test_another_lighttpd_serves_the_pages(self, device):
        device.install_ours()
        device.run("lighty-enable-mod", "vemo-web")
        configuration = ("-f", "/etc/lighttpd/lighttpd.conf")
        assert device.run("lighttpd", "-tt", *configuration) == ""
        device.run("install", "-d", "-o", "www-data", "/run/lighttpd")
        device.run("usermod", "--append", "--groups", "vemo-web", "www-data")
        device.start("lighttpd", "-D", *configuration)
        device.wait_for("127.0.0.1", 8080)
        assert "Option CanDetectTimeout not set" in device.ask("/setobdconf.cgi")[1]
        assert device.ask("/setobdconf.cgi", "--header", "Host: foreign.example")[0] == 403
        assert "Set new option was successful." in device.ask("/setobdconf.cgi?CanDetectTimeout=700")[1]
        assert "VEMODCanDetectTimeout=700" in device.read(SETTINGS)


class TestExample:
    """The pages of packaging/example, as an author makes them who has the packages alone. In this order."""

    def test_five_commands_of_the_document_lead_from_the_packages_to_the_page(self, build, device):
        """The programs are left in BUILD/example."""
        for file in device.made.values():
            device.put(file)
        # Who types the commands says yes.
        device.write("/etc/apt/apt.conf.d/commands", 'APT::Get::Assume-Yes "true";\n')
        done = commands.commands_in("development")
        assert len(done) == 5
        for command, rule in done:
            device.run("bash", "-c", f"cd /root; {commands.script(command, rule)}\nexit")
        assert device.file(AUTHORS_PAGE).exists()
        shutil.rmtree(build / "example", ignore_errors=True)
        (build / "example").mkdir()
        for file in device.file("/root/page/build").glob("*.cgi"):
            shutil.copy(file, build / "example")

    def test_what_the_package_recommends_is_what_it_was_built_with(self, device):
        recommended = told("dpkg-deb", "--field", device.made["vemo-web-dev"], "Recommends").strip()
        install, _ = commands.commands_in("development")[0]
        named = [word for word in install.text.split()[3:] if not word.startswith("./")]
        assert sorted(name.split(" ")[0] for name in recommended.split(", ")) == sorted(named)

    def test_a_form_stores_an_option(self, device):
        device.run("install", "-m", "0755", "/root/page/build/name.cgi", "/usr/share/vemo-web/htdocs")
        device.start_server()
        page = device.ask("/name.cgi", "-d", "Name=<Halle 3> \"M%FCller\"")[1]
        assert "The name is stored." in page
        assert 'value="&lt;Halle 3&gt; &quot;M&uuml;ller&quot;"' in page
        stored = device.file(SETTINGS).read_bytes()
        assert stored == b'[SETTINGS]\nVEMODInterfaceName=<Halle 3> "M\xfcller"\n'
        for name in ("", "x" * 41):
            assert "Nothing was stored" in device.ask("/name.cgi", "-d", f"Name={name}")[1]
        device.ask("/name.cgi?Name=by-GET")
        assert device.file(SETTINGS).read_bytes() == stored
