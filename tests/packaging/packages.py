"""The Debian packages in a bare root that is not booted: installed, upgraded, broken, removed.

    python3 -B tests/packaging/packages.py BUILD [Class[.test]]
"""

import contextlib
import os
import pathlib
import re
import shutil
import socket
import subprocess
import sys
import time
import unittest

import checks
import root

sys.path += [str(root.SOURCE / "tests/docs"), str(root.SOURCE / "tests/web")]

import commands  # noqa: E402
import pages  # noqa: E402
from prepared import PASSWORD, TLS, with_parts  # noqa: E402

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()

SETTINGS = "/app/tarn-belox/runvex/obd.conf"
LOG = "/tmp/cgi.log"
WEB_SERVER = "/etc/vemo-web/web-server.conf"
OPTIONS = "/etc/vemo-web/java.options"
KEY, CERTIFICATE = "/etc/vemo-web/key.pem", "/etc/vemo-web/certificate.pem"
CLASS_FOLDER = "/usr/share/vemo-web/java"
ARCHIVE = "/var/cache/vemo-web/archive"
TEXT = "; by hand\n[SETTINGS]\nVEMODCanDetectTimeout = 500\n"


def owner(device, path):
    status = device.file(path).lstat()
    names = device.run("stat", "--format=%U:%G", path).strip()
    return f"{names} {status.st_mode & 0o7777:o}"


class Lint(checks.Checks, unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.made = root.packages(BUILD)
        cls.folder = BUILD / "packages"

    def test_every_call_of_the_compiler_has_the_flags_of_hardening(self):
        """Of those that link, blhc knows none that is static."""
        log = BUILD / "package/build.log"
        said = subprocess.run(["blhc", "--all", "--ignore-line", ".* -static(-pie)? .*", log], capture_output=True,
                              text=True, check=False)
        self.assertEqual((said.returncode, said.stdout), (0, ""), said.stderr)

    def test_the_check_says_the_packages_version(self):
        for name, file in self.made.items():
            self.assertEqual(checks.told("dpkg-deb", "--field", file, "Version").strip(), file.name.split("_")[1], name)
        content = subprocess.run(["dpkg-deb", "--fsys-tarfile", self.made["vemo-web"]], capture_output=True, check=True)
        check = subprocess.run(["tar", "--extract", "--to-stdout", "./usr/sbin/vemo-web-check"], input=content.stdout,
                               capture_output=True, check=True)
        said = subprocess.run(["bash", "-s", "--", "--version"], input=check.stdout, capture_output=True, check=True)
        self.assertEqual(said.stdout.decode().split(), ["vemo-web", self.made["vemo-web"].name.split("_")[1]])


class InRoot(unittest.TestCase):
    """One root for the tests of a class, with nothing of ours installed."""

    @classmethod
    def setUpClass(cls):
        if reason := root.why_not():
            raise unittest.SkipTest(reason)
        cls.made = root.packages(BUILD)
        cls.device = root.Root(BUILD, cls.__name__)
        cls.addClassCleanup(cls.device.close)

    def read(self, path):
        return self.device.file(path).read_text(encoding="utf-8")


class Sizes(InRoot):
    """docs/on-a-device.md tells what a bare Debian 12 has to fetch and to keep, in MB of apt's."""

    def measured(self, package, *others, recommends):
        """The package itself, and what it brings when it is installed together with the others."""
        if file := self.made.get(package):
            fields = checks.told("dpkg-deb", "--field", file)
            fetched = file.stat().st_size / 1e6
        else:
            # Of a package of Debian's, apt's lists in the bare root know all.
            fields = self.device.run("apt-cache", "show", "--no-all-versions", package)
            fetched = int(re.search(r"^Size: (\d+)", fields, re.MULTILINE)[1]) / 1e6
        kept = int(re.search(r"^Installed-Size: (\d+)", fields, re.MULTILINE)[1]) * 1024 / 1e6
        names = []
        for one in (package, *others):
            if file := self.made.get(one):
                shutil.copy(file, self.device.file("/root"))
                one = f"/root/{file.name}"
            names.append(one)
        told = self.device.run("apt-get", "-q", "--assume-no", "-o", f"APT::Install-Recommends={recommends}", "install",
                               *names, status=None)
        return {"fetched": fetched, "on the disk": kept,
                "packages": int(re.search(r"(\d+) newly installed", told)[1]),
                "fetched with them": float(re.search(r"([\d.]+) MB of archives", told)[1]),
                "on the disk with them": float(re.search(r"([\d.]+) MB of additional", told)[1])}

    def test_what_the_packages_take_is_told_within_a_tenth(self):
        rows = [row for row in pages.rows("docs/on-a-device.md") if "fetched with them" in row]
        self.assertGreater(len(rows), len(self.made))
        for row in rows:
            names = pages.code(row["package"])
            packages = [name for name in names if not name.startswith("-")]
            with self.subTest(row["package"]):
                found = self.measured(*packages, recommends="--no-install-recommends" in names)
                print(row["package"], {what: round(size, 2) for what, size in found.items()})
                for what, size in found.items():
                    self.assertAlmostEqual(float(row[what]), size, delta=size / 10, msg=what)

    def test_what_a_made_java_runtime_takes_is_told_within_a_tenth(self):
        runtime = BUILD / "java-runtime"
        found = sum(file.stat().st_size for file in runtime.rglob("*") if file.is_file()) / 1e6
        told = float(re.search(r"makes one of (\d+) MB", pages.read("docs/on-a-device.md"))[1])
        self.assertAlmostEqual(told, found, delta=found / 10)


class LifeCycle(InRoot):
    """In the order of their names: what one leaves is what the next begins with."""

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.older = root.packages(BUILD, "0.9.0")

    def test_1_one_installation_gives_the_whole_device(self):
        self.device.install(*(self.made[name] for name in ("vemo-web", "vemo-web-standin")))
        self.assertEqual(owner(self.device, LOG), "root:vemo-web 664")
        self.assertEqual(owner(self.device, os.path.dirname(SETTINGS)), "vemo-web:vemo-web 775")
        self.assertFalse(self.device.file(SETTINGS).exists())
        self.assertTrue(self.device.file(ARCHIVE + "/record").exists())
        # The request that it was made from is nobody's.
        self.assertEqual(self.read(LOG), "")
        for unit in ("vemo-web", "vemo-web-nvm"):
            self.assertEqual(self.device.run("systemctl", "is-enabled", unit).strip(), "enabled")

    def test_2_an_upgrade_over_itself_keeps_settings_and_configuration(self):
        self.device.file(SETTINGS).write_text(TEXT, encoding="utf-8")
        self.device.run("chown", "games:games", SETTINGS)
        self.device.run("chmod", "640", SETTINGS)
        text = self.read(WEB_SERVER).replace("8080", "8088")
        self.device.file(WEB_SERVER).write_text(text, encoding="utf-8")
        self.device.file(OPTIONS).write_text(self.read(OPTIONS) + "-Xmx17m\n", encoding="utf-8")
        self.device.run("chmod", "0700", os.path.dirname(SETTINGS))
        self.device.file(LOG).write_text("a line\n", encoding="utf-8")
        self.device.run("apt-get", "-q", "-y", "-o", "APT::Sandbox::User=root", "--reinstall", "install",
                        *(f"/root/{self.made[name].name}" for name in ("vemo-web", "vemo-web-standin")))
        self.expect_kept()

    def expect_kept(self):
        self.assertEqual(self.read(SETTINGS), TEXT)
        self.assertEqual(owner(self.device, SETTINGS), "games:games 640")
        self.assertEqual(owner(self.device, os.path.dirname(SETTINGS)), "vemo-web:vemo-web 700")
        self.assertIn("server.port = 8088", self.read(WEB_SERVER))
        self.assertIn("-Xmx17m", self.read(OPTIONS))
        self.assertEqual(self.read(LOG), "a line\n")

    def test_3_a_downgrade_and_an_upgrade_keep_settings_and_configuration(self):
        for packages, version in ((self.older, "0.9.0"), (self.made, None)):
            self.device.install(*(packages[name] for name in ("vemo-web", "vemo-web-standin")))
            if version:
                self.assertIn(version, self.device.run("dpkg-query", "--show", "vemo-web"))
            self.expect_kept()

    def test_4_another_java_vm_gets_an_archive_of_its_own(self):
        """As a package of it would: by the trigger."""
        record = self.read(ARCHIVE + "/record")
        library = next(self.device.file("/usr/lib/jvm").glob("java-17-*/lib/modules"))
        os.utime(library)
        self.device.run("dpkg-trigger", "--by-package=base-files", "/usr/lib/jvm")
        self.device.run("dpkg", "--configure", "--pending")
        self.assertNotEqual(self.read(ARCHIVE + "/record"), record)

    def test_4_an_archive_that_cannot_be_made_is_told_with_the_reason(self):
        text = self.read(OPTIONS)
        self.device.file(OPTIONS).write_text(text + "-Xmx1k\n", encoding="utf-8")
        for command, status in (("vemo-web-class-archive", 1), ("dpkg-reconfigure vemo-web", 0)):
            with self.subTest(command):
                told = self.device.run(*command.split(), status=status)
                self.assertRegex(told, f"(?s)options of {OPTIONS}.*heap size")
        self.device.file(OPTIONS).write_text(text, encoding="utf-8")
        self.device.run("vemo-web-class-archive")

    def test_4_without_a_tmp_of_its_own_it_makes_none_and_leaves_the_log_alone(self):
        shutil.rmtree(self.device.file(ARCHIVE))
        before = self.read(LOG)
        told = self.device.run("setpriv", "--bounding-set=-sys_admin", "vemo-web-class-archive", status=1)
        self.assertRegex(told, "no /tmp of its own .*Operation not permitted")
        self.assertFalse(self.device.file(ARCHIVE).exists())
        self.device.run("vemo-web-class-archive")
        self.assertTrue(self.device.file(ARCHIVE + "/record").exists())
        self.assertEqual(self.read(LOG), before)

    def test_5_rotation_renames_the_log(self):
        before = set(self.device.file("/tmp").glob("*"))
        for number in range(1, 7):
            # Up to 1 MB it stays.
            for size in (1 << 20, (1 << 20) + 1):
                with open(self.device.file(LOG), "w", encoding="utf-8") as file:
                    file.write(f"{number}\n")
                    file.truncate(size)
                self.device.run("/usr/libexec/vemo-web/rotate-log")
                self.assertEqual(self.device.file(LOG).stat().st_size, 0 if size > 1 << 20 else size)
            self.assertEqual(owner(self.device, LOG), "root:vemo-web 664")
        self.assertEqual([self.read(f"{LOG}.{older}")[0] for older in range(1, 5)], list("6543"))
        self.assertEqual({file.name for file in set(self.device.file("/tmp").glob("*")) - before},
                         {f"cgi.log.{older}" for older in range(1, 5)})

    def test_5_rotation_follows_nothing_that_is_planted(self):
        for planted in (LOG, f"{LOG}.1", f"{LOG}.4"):
            with self.subTest(planted):
                self.device.run("sh", "-c", f"rm -f {LOG}*; systemd-tmpfiles --create vemo-web.conf;"
                                f" truncate --size 2M {LOG}; touch /root/target; ln -sf /root/target {planted}")
                self.device.run("/usr/libexec/vemo-web/rotate-log")
                self.assertEqual(self.device.run("stat", "--format=%s:%U:%G:%a", "/root/target"), "0:root:root:644\n")
                self.assertEqual(self.device.file(LOG).is_symlink(), planted == LOG)
        self.device.run("sh", "-c", f"rm -rf {LOG}*; systemd-tmpfiles --create vemo-web.conf;"
                        f" truncate --size 2M {LOG}; touch {LOG}.3; mkdir {LOG}.4")
        before = set(self.device.file("/tmp").iterdir())
        self.assertIn(f"{LOG}.4", self.device.run("/usr/libexec/vemo-web/rotate-log", status=1))
        self.assertEqual(self.device.file(LOG).stat().st_size, 2 << 20)
        self.assertEqual(set(self.device.file("/tmp").iterdir()), before)
        self.device.run("sh", "-c", f"rm -r {LOG}.*; : >{LOG}")

    def test_6_removing_keeps_what_is_configured(self):
        self.device.run("apt-get", "-q", "-y", "remove", "vemo-web-standin", "vemo-web")
        self.assertEqual(self.read(SETTINGS), TEXT)
        self.assertIn("server.port = 8088", self.read(WEB_SERVER))
        self.assertFalse(self.device.file("/usr/libexec/vemo-web").exists())

    def test_8_purging_leaves_the_settings_file_as_it_is(self):
        self.device.run("apt-get", "-q", "-y", "purge", "vemo-web-standin", "vemo-web")
        self.assertEqual(self.read(SETTINGS), TEXT)
        self.assertEqual(owner(self.device, SETTINGS), "games:games 640")
        self.assertFalse(self.device.file("/etc/vemo-web").exists())


class Purge(InRoot):
    """What others have is there before, and afterwards; what we depend on is there all the time."""

    NAMES = ("vemo-web", "vemo-web-standin")
    PAGE = "/usr/share/vemo-web/htdocs/uptime.cgi"
    ASIDE = LOG + "-put-aside.AbCdEf"

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.device.install_known("default-jre-headless", "lighttpd", "lighttpd-mod-openssl", "logrotate", "libcgicc3",
                                 "libmicrohttpd12", "libxml2", "nftables", "openssl")

    def setUp(self):
        self.before = self.state()
        self.is_purged = False
        self.addCleanup(self.clear)

    def state(self):
        """Every file, with owner and mode, but for what dpkg and programs keep for themselves."""
        pruned = " -o ".join(f"-path {path} -prune" for path in (
            "/proc", "/dev", "/root", "/var/lib/dpkg", "/var/lib/apt", "/var/log", "/var/cache/apt",
            "/var/cache/debconf", "/var/lib/logrotate"))
        told = self.device.run("sh", "-c", f"find / -xdev {pruned} -o -printf '%p %u:%g %m %l\\n'; cat /etc/passwd"
                               " /etc/group")
        # What the tools that change accounts leave behind them.
        changing = re.compile(r"/etc/(\.pwd\.lock|(g?shadow|passwd|group|sub.id)-) ")
        return {line for line in told.splitlines() if not changing.match(line)}

    def install(self):
        self.device.install(*(self.made[name] for name in self.NAMES))

    def purge(self):
        """What it said, what it left, what is missing."""
        said = self.device.run("apt-get", "-q", "-y", "purge", *self.NAMES)
        self.is_purged = True
        after = self.state()
        return said, after - self.before, self.before - after

    def clear(self):
        """For the next test."""
        if not self.is_purged:
            self.device.run("apt-get", "-q", "-y", "purge", *self.NAMES)
        self.device.run("sh", "-c", "rm -rf /app /etc/vemo-web /etc/systemd/system/vemo-web* /tmp/cgi* /tmp/nvm*;"
                        " userdel -r vemo-web; userdel vemo-web-nvm; groupdel vemo-web; groupdel vemo-settings;"
                        " rm -rf /usr/share/vemo-web; true")

    def do_all_that_the_documents_tell(self):
        """The commands of the pages, and those above the lines of each configuration."""
        told = [command.text for command in commands.pages()
                if re.match(r"cp -r /usr/share/vemo-web/|install -D .*/etc/systemd/|lighty-enable-mod ", command.text)]
        self.assertEqual(len(told), 3, told)
        for command in told:
            self.device.run("bash", "-ec", command)
        for file in (WEB_SERVER, *(f"/etc/vemo-web/web-servers/{name}.conf" for name in ("apache2", "nginx"))):
            text, made = with_parts(self.read(file), (TLS, PASSWORD))
            self.assertIn("/etc/vemo-web/", made)
            self.device.file(file).write_text(text, encoding="utf-8")
            self.device.run("bash", "-ec", made, text="secret\n")
        self.device.run("systemctl", "enable", "vemo-web-reboot.socket")
        # As docs/sibling-page.md, vemo-web-check and the start of the service have it.
        self.device.run("install", "/bin/true", self.PAGE)
        self.device.run("groupadd", "vemo-settings")
        self.device.run("install", "-d", "-m", "0700", self.ASIDE)
        # As `systemctl edit` leaves it, and `adduser www-data vemo-web`.
        drop_in = self.device.file("/etc/systemd/system/vemo-web.service.d/override.conf")
        drop_in.write_text("[Service]\nIPAddressAllow=10.0.2.0/24\n", encoding="utf-8")
        self.device.run("usermod", "--append", "--groups", "vemo-web", "www-data")
        # The toggle's status file, the logs in their turns.
        service = self.device.start("/usr/libexec/vemo-web/nvm-service")
        self.device.run("sh", "-c", "for i in $(seq 100); do /usr/libexec/vemo-web/toggle-device-allocation && exit; "
                        "sleep 0.1; done; exit 1")
        self.device.stop(service)
        self.assertTrue(self.device.file("/tmp/cgirep.txt").exists())
        for log in (LOG, "/tmp/nvm.log"):
            self.device.file(log + ".1").write_text("old\n", encoding="utf-8")

    def store(self):
        self.device.run("setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--clear-groups", "--reset-env",
                        "env", "REQUEST_METHOD=GET", "QUERY_STRING=CanDetectTimeout=700",
                        "JAVA_CLASSPATH=" + CLASS_FOLDER, f"JAVA_OPTIONS=-XX:VMOptionsFile={OPTIONS}",
                        "/usr/libexec/vemo-web/setobdconf.cgi")
        self.assertIn("=700", self.read(SETTINGS))

    def test_nothing_is_left_where_nothing_was_done(self):
        self.install()
        self.assertEqual(self.purge()[1:], (set(), set()))

    def test_of_all_that_the_documents_tell_what_may_be_changed_is_left_and_named(self):
        self.install()
        self.do_all_that_the_documents_tell()
        self.store()
        said, left, missing = self.purge()
        left = {line.split(" ")[0] for line in left}
        files = {path for path in left if self.device.file(path).is_file()}
        copies = {"/etc/vemo-web/web-servers/" + file.name
                  for file in (root.SOURCE / "web/servers").glob("*.conf.in")}
        self.assertEqual(files, {SETTINGS, self.PAGE, *(copy.removesuffix(".in") for copy in copies),
                                 "/etc/systemd/system/vemo-web.service.d/override.conf",
                                 "/etc/systemd/system/vemo-web.service.d/web-server.conf"})
        for file in files | {self.ASIDE}:
            self.assertRegex(said, f"(?m)^{re.escape(file)}$")
        self.assertIn("the group vemo-settings stays", said)
        self.assertRegex(said, f"the account vemo-web stays.*\n(/app.*\n)*{SETTINGS}\n")
        folders = {self.ASIDE} | {parent.as_posix() for file in files for parent in pathlib.Path(file).parents}
        accounts = {path for path in left - files - folders if not path.startswith("/")}
        self.assertEqual(left - files - folders, accounts)
        self.assertTrue(all(line.startswith(("vemo-web:", "vemo-settings:")) for line in accounts), accounts)
        self.assertEqual(missing, set())

    def test_what_was_made_of_secrets_and_the_account_go(self):
        """Where no copies are made, and nothing is stored."""
        self.install()
        _, made = with_parts(self.read(WEB_SERVER), (TLS, PASSWORD))
        self.device.run("bash", "-ec", made, text="secret\n")
        self.device.run("lighty-enable-mod", "vemo-web")
        self.device.run("usermod", "--append", "--groups", "vemo-web", "www-data")
        self.device.file("/tmp/cgirep.txt").touch()
        said, left, missing = self.purge()
        self.assertEqual((left, missing), (set(), set()), said)

    def test_an_account_that_was_there_before_stays(self):
        for name, uid in (("vemo-web", 1500), ("vemo-web-nvm", 1501)):
            self.device.run("useradd", "--uid", str(uid), "--create-home", "--shell", "/bin/bash", name)
            self.device.run("runuser", "-u", name, "--", "sh", "-c", "echo own >~/own")
            self.addCleanup(self.device.run, "userdel", "--remove", name, status=None)
        self.before = self.state()
        self.install()
        said, left, missing = self.purge()
        self.assertEqual((left, missing), (set(), set()), said)
        self.assertEqual(self.read("/home/vemo-web/own"), "own\n")

    def test_a_system_account_that_others_made_stays(self):
        for name in self.NAMES:
            self.device.run("useradd", "--system", name.replace("standin", "nvm"))
        self.before = self.state()
        self.install()
        self.assertEqual(self.purge()[1:], (set(), set()))

    def test_what_is_of_others_stays_and_is_named(self):
        self.device.run("install", "-d", "-o", "games", "-m", "0700", os.path.dirname(SETTINGS))
        self.before = self.state()
        self.install()
        for path, user in (("/etc/vemo-web/own.pem", "root"), ("/tmp/cgirep.txt", "games"),
                           ("/tmp/nvm.log.1", "games")):
            self.device.file(path).write_text("mine\n", encoding="utf-8")
            self.device.run("chown", user, path)
        self.device.file(LOG).unlink()
        self.device.file(LOG).symlink_to("/etc/hostname")
        said, left, missing = self.purge()
        own = {"/etc/vemo-web/own.pem", "/tmp/cgirep.txt", "/tmp/nvm.log.1", LOG}
        self.assertEqual({line.split(" ")[0] for line in left}, own | {"/etc/vemo-web"})
        self.assertEqual(missing, set())
        for path in own:
            self.assertRegex(said, f"(?m)^{re.escape(path)}$")


class Lighttpd(InRoot):
    """Debian's own service of it. Nothing is booted here: tests/machine/installed.py looks at the port."""

    def enabled(self):
        return self.device.run("systemctl", "is-enabled", "lighttpd", status=None).strip()

    def test_1_one_that_was_there_before_is_left_alone(self):
        self.device.install_known("lighttpd")
        self.device.install(self.made["vemo-web"])
        self.assertEqual(self.enabled(), "enabled")
        self.device.run("apt-get", "-q", "-y", "purge", "vemo-web")
        self.assertEqual(self.enabled(), "enabled")
        self.device.run("apt-get", "-q", "-y", "purge", "lighttpd")

    def test_2_one_that_comes_along_is_turned_off_and_stays_so(self):
        said = self.device.install(self.made["vemo-web"])
        self.assertIn("enable lighttpd.service where you want it", said)
        self.assertEqual(self.enabled(), "disabled")
        self.device.run("dpkg-reconfigure", "lighttpd")
        self.assertEqual(self.enabled(), "disabled")

    def test_3_an_administrator_turns_it_on_and_it_stays_so(self):
        self.device.run("systemctl", "enable", "lighttpd")
        for name in ("lighttpd", "vemo-web"):
            self.device.run("dpkg-reconfigure", name)
            self.assertEqual(self.enabled(), "enabled", name)

    def test_4_the_purge_leaves_nothing_that_keeps_it_off(self):
        self.device.run("systemctl", "disable", "lighttpd")
        self.device.run("apt-get", "-q", "-y", "purge", "vemo-web")
        self.assertEqual(self.enabled(), "disabled")
        self.assertFalse(list(self.device.file("/run").glob("vemo-web*")))
        self.device.run("systemctl", "enable", "lighttpd")
        self.assertEqual(self.enabled(), "enabled")


class Unanswered(InRoot):
    """Whatever an administrator starts ends without an answer: at a terminal, and without standard input."""

    def expect_no_question(self, run):
        names = ("vemo-web", "vemo-web-standin")
        files = [f"/root/{self.made[name].name}" for name in names]
        for name in names:
            shutil.copy(self.made[name], self.device.file("/root"))
        apt = ("apt-get", "-y", "--no-install-recommends", "-o", "APT::Sandbox::User=root")
        run(*apt, "install", *files)
        self.device.file(LOG).write_text("full\n" * 300000, encoding="utf-8")
        for command in ((*apt, "install", "--reinstall", *files), ("dpkg-reconfigure", *names),
                        ("logrotate", "--force", "/etc/logrotate.conf"),
                        ("/usr/libexec/vemo-web/rotate-log",)):
            with self.subTest(command=command):
                run(*command)
        # For another file of options another archive, in the place of one that is read-only.
        self.device.run("touch", OPTIONS)
        run("vemo-web-class-archive")
        # That nothing runs is wrong.
        self.assertRegex(run("vemo-web-check", status=1), "ok +class archive")
        run(*apt, "remove", *names)
        run(*apt, "purge", *names)
        self.assertFalse(self.device.file("/etc/vemo-web").exists())

    def test_at_a_terminal(self):
        self.expect_no_question(self.device.run_at_terminal)

    def test_without_standard_input(self):
        self.expect_no_question(self.device.run_without_input)


class Obstacles(InRoot):
    """What somebody planted in the log's place before our packages came."""

    MAKE_LOG = "/usr/libexec/vemo-web/make-log"

    def plant(self, what):
        """Its number, and what it leads to."""
        target = self.device.file("/root/target")
        target.write_text("of somebody\n", encoding="utf-8")
        if what == "socket":
            with socket.socket(socket.AF_UNIX) as listener:
                listener.bind(str(self.device.file(LOG)))
        else:
            self.device.run("sh", "-euc", {
                "link": f"ln -s /root/target {LOG}",
                "link to nowhere": f"ln -s /root/missing {LOG}",
                "pipe": f"mkfifo -m 666 {LOG}",
                "folder": f"mkdir {LOG}; echo theirs >{LOG}/file",
                "device": f"mknod -m 666 {LOG} c 1 3",
                "file of another": f"echo theirs >{LOG}; chmod 666 {LOG}; chown games {LOG}",
                "other name of a file": f"ln /root/target {LOG}",
            }[what])
        return self.device.file(LOG).lstat().st_ino, target

    def expect_put_aside(self, planted):
        number, target = planted
        self.assertEqual(owner(self.device, LOG), "root:vemo-web 664")
        self.assertEqual(self.read(LOG).count("of somebody"), 0)
        self.assertEqual(target.read_text(encoding="utf-8"), "of somebody\n")
        self.assertEqual(owner(self.device, "/root/target").rsplit(" ", 1)[0], "root:root")
        self.assertFalse(self.device.file("/root/missing").exists())
        aside, = self.device.file("/tmp").glob("cgi.log-put-aside.*")
        self.assertEqual(owner(self.device, f"/tmp/{aside.name}"), "root:root 700")
        self.assertEqual((aside / "cgi.log").lstat().st_ino, number)
        # The check tells, and how to be rid of it.
        found = re.search(r"\nrisky  log  .*\n +-> (.*)\n", self.device.run("vemo-web-check", status=1))
        self.device.run("sh", "-ec", found[1])
        self.assertFalse(aside.exists())
        self.assertRegex(self.device.run("vemo-web-check", status=1), "ok +log ")

    def test_1_the_installation_puts_it_aside(self):
        """A pipe: whoever opens it waits."""
        planted = self.plant("pipe")
        self.device.install(*(self.made[name] for name in ("vemo-web", "vemo-web-standin")))
        self.assertTrue(self.device.file(ARCHIVE + "/record").exists())
        self.expect_put_aside(planted)

    def test_2_each_start_puts_it_aside(self):
        for what in ("link", "link to nowhere", "pipe", "folder", "socket", "device", "file of another",
                     "other name of a file"):
            with self.subTest(what):
                self.device.file(LOG).unlink()
                planted = self.plant(what)
                # So it is named while it stands there, and nothing is written through it.
                told = self.device.run("vemo-web-check", status=1)
                self.assertRegex(told, r"\nWRONG  log  .*\n +-> systemctl restart vemo-web\n")
                self.device.run(self.MAKE_LOG)
                self.expect_put_aside(planted)

    def test_3_our_own_stays(self):
        self.device.file(LOG).write_text("a line\n", encoding="utf-8")
        self.device.run("chown", "root:root", LOG)
        self.device.run(self.MAKE_LOG)
        self.assertEqual(owner(self.device, LOG), "root:vemo-web 664")
        self.assertEqual(self.read(LOG), "a line\n")


class Check(InRoot):
    """Every cause that vemo-web-check knows: it is made, is named by one line and no other, and the command of that
    line mends it. Nothing is booted: what systemctl would start is started by hand. The causes that only systemd
    has, and those that only its start mends, are those of the booted machine."""

    FOLDER = os.path.dirname(SETTINGS)

    @classmethod
    def setUpClass(cls):
        super().setUpClass()
        cls.device.file("/etc/apt/apt.conf.d/root").write_text('APT::Sandbox::User "root";\n', encoding="utf-8")
        cls.device.install(*(cls.made[name] for name in ("vemo-web", "vemo-web-standin")))
        cls.device.install_known("lighttpd-mod-openssl", "nftables", "openssl")  # which are recommended
        cls.device.run("systemctl", "disable", "lighttpd")
        # What an administrator would do by hand.
        cls.device.file("/root/editor").write_text('#!/bin/sh\ncat /root/wanted >"$1"\n', encoding="utf-8")
        cls.device.file("/root/editor").chmod(0o755)
        cls.nvm = cls.device.start("/usr/libexec/vemo-web/nvm-service")
        cls.device.run("install", "-d", "-o", "vemo-web", "/run/vemo-web")
        cls.start_server()
        cls.addClassCleanup(lambda: cls.device.stop(cls.nvm))
        cls.addClassCleanup(lambda: cls.device.stop(cls.server))

    @classmethod
    def start_server(cls):
        """As the service does."""
        cls.device.run("/usr/libexec/vemo-web/make-log")
        cls.device.run("systemd-tmpfiles", "--create", "vemo-web.conf", status=None)
        cls.server = cls.device.start(
            "setpriv", "--reuid=vemo-web", "--regid=vemo-web", "--init-groups", "--reset-env",
            "/usr/sbin/lighttpd", "-D", "-f", "/usr/share/vemo-web/lighttpd.conf")
        text = cls.device.file(WEB_SERVER).read_text(encoding="utf-8")
        port = re.findall(r"^server\.port :?= (\d+)", text, re.MULTILINE)[-1]
        cls.device.run("bash", "-c", f"for _ in {{1..100}}; do (: >/dev/tcp/127.0.0.1/{port}) && exit; sleep 0.1; done;"
                       " exit 1")

    @classmethod
    def restart_server(cls):
        cls.device.stop(cls.server)
        cls.start_server()

    @classmethod
    def found(cls):
        """What is not ok: the word, what, and the command."""
        told = cls.device.run("sh", "-c", "vemo-web-check; echo status $?")
        found = re.findall(r"^(risky|WRONG)  (.{14}) \S.*\n {22}-> (\S.*)$", told, re.MULTILINE)
        assert len(re.findall(r"^(?!ok    ).", told, re.MULTILINE)) == 2 * len(found) + 1, told
        is_wrong = any(word == "WRONG" for word, _, _ in found)
        assert told.endswith(f"\nstatus {int(is_wrong)}\n"), told
        return [(word, what.strip(), command) for word, what, command in found]

    def expect(self, what, command, word="WRONG"):
        """It is all that is found, with this beginning of a command."""
        found = self.found()
        self.assertEqual([one[:2] for one in found], [(word, what)], found)
        self.assertTrue(found[0][2].startswith(command), found)
        return found[0][2]

    def expect_mended(self, what, command, word="WRONG", wanted=None):
        """And the command mends it; by hand `wanted` becomes the text of the file that is edited."""
        command = self.expect(what, command, word)
        if wanted is not None:
            self.device.file("/root/wanted").write_text(wanted, encoding="utf-8")
        self.device.run("bash", "-c", f"cd /root; export EDITOR=/root/editor; {command}", status=None)
        if "systemctl restart vemo-web" in command:
            self.restart_server()
        self.assertEqual(self.found(), [])

    @contextlib.contextmanager
    def without(self, path):
        """While it lasts, the file or folder has another name."""
        file = self.device.file(path)
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
        text = self.read(path)
        self.assertIn(before, text)
        file = self.device.file(path)
        old = file.stat()
        file.write_text(text.replace(before, after), encoding="utf-8")
        try:
            yield text
        finally:
            file.write_text(text, encoding="utf-8")
            # The class archive's record knows it by its time.
            os.utime(file, ns=(old.st_atime_ns, old.st_mtime_ns))

    @contextlib.contextmanager
    def mode(self, path, mode, user=None):
        file = self.device.file(path)
        old = file.stat()
        if user:
            self.device.run("chown", user, path)
        file.chmod(mode)
        try:
            yield
        finally:
            os.chown(file, old.st_uid, old.st_gid)
            file.chmod(old.st_mode & 0o7777)

    def test_a_whole_device_is_not_found_fault_with(self):
        self.assertEqual(self.found(), [])

    def test_it_stores_nothing(self):
        self.found()
        self.assertFalse(self.device.file(SETTINGS).exists())

    def test_no_user(self):
        line = re.search("(?m)^vemo-web:.*\n", self.read("/etc/passwd"))[0]
        with self.changed("/etc/passwd", line, ""):
            # Whatever needs nobody's eyes is looked at all the same.
            self.expect_mended("user", "systemd-sysusers vemo-web.conf")

    def test_no_java_vm(self):
        with self.without("/usr/lib/jvm/default-java"):
            self.expect_mended("Java VM", "apt-get install --reinstall default-jre-headless")

    def test_no_class(self):
        with self.without(CLASS_FOLDER):
            self.expect_mended("class", "apt-get install --reinstall ./vemo-web-standin_*.deb")

    def test_a_class_path_elsewhere(self):
        with self.changed(WEB_SERVER, CLASS_FOLDER, "/nowhere") as text:
            self.restart_server()
            self.expect_mended("class", '"${EDITOR:-vi}" /etc/vemo-web/web-server.conf; systemctl restart', wanted=text)

    def test_options_that_the_vm_refuses(self):
        with self.changed(OPTIONS, "-Xmx16m", "-Xmx1k") as text:
            self.expect_mended("VM options", '"${EDITOR:-vi}" /etc/vemo-web/java.options; ', wanted=text)
        self.device.run("vemo-web-class-archive")

    def test_options_that_cannot_be_read(self):
        with self.mode(OPTIONS, 0o600):
            self.expect_mended("VM options", "chmod a+r /etc/vemo-web/java.options; ")
        self.device.run("vemo-web-class-archive")

    def test_an_archive_of_another_vm(self):
        with self.changed(ARCHIVE + "/record", "/lib/modules", "/lib/others"):
            self.expect("class archive", "vemo-web-class-archive")

    def test_no_archive(self):
        with self.without(ARCHIVE):
            self.expect_mended("class archive", "vemo-web-class-archive")

    def test_a_log_that_cannot_be_written(self):
        with self.mode(LOG, 0o640):
            self.expect_mended("log", "systemctl restart vemo-web")

    def test_no_log(self):
        with self.without(LOG):
            self.expect_mended("log", "systemctl restart vemo-web")

    @contextlib.contextmanager
    def settings(self, mode, user, folder_mode=0o775, folder_user="vemo-web:vemo-web"):
        self.device.file(SETTINGS).write_text(TEXT, encoding="utf-8")
        try:
            with self.mode(self.FOLDER, folder_mode, folder_user), self.mode(SETTINGS, mode, user):
                yield
        finally:
            self.device.file(SETTINGS).unlink(missing_ok=True)

    def test_a_settings_file_that_cannot_be_read(self):
        with self.settings(0o600, "vemo-web:vemo-web"):
            self.assertEqual(self.found(), [])
        for mode, user, command in ((0o600, "root:root", f"chown vemo-web:vemo-web {SETTINGS}"),
                                    (0o040, "vemo-web:vemo-web", f"chmod ug+rw {SETTINGS}")):
            with self.subTest(user=user), self.settings(mode, user):
                self.expect_mended("settings file", command)

    def test_a_settings_file_that_may_be_mixed_by_a_power_cut(self):
        for mode, user in ((0o666, "root:root"), (0o664, "root:vemo-web"), (0o664, "vemo-web:root"),
                           (0o664, "7777:vemo-web")):
            with self.subTest(user=user), self.settings(mode, user):
                self.expect_mended("settings file", f"chown vemo-web:vemo-web {SETTINGS}", "risky")

    def test_a_settings_file_that_a_runtime_with_a_user_of_its_own_writes_too(self):
        """The command gives the set-up that docs/on-a-device.md names, with which both can store."""
        with self.settings(0o664, "games:vemo-web"):
            try:
                self.expect_mended("settings file", "groupadd -f vemo-settings; ", "risky")
                self.assertEqual(owner(self.device, SETTINGS), "games:vemo-settings 664")
                self.assertEqual(owner(self.device, self.FOLDER), "vemo-web:vemo-settings 2775")
                for user in ("vemo-web", "games"):
                    new = self.FOLDER + "/new"
                    self.device.run("setpriv", f"--reuid={user}", f"--regid={user}", "--init-groups", "sh", "-ec",
                                    f"test -r {SETTINGS}; test -w {SETTINGS}; rm -f {new}; >{new}")
                    self.assertIn(":vemo-settings ", owner(self.device, new))
                # It holds by the folder's bit, the group, and what the group may do.
                for what, made in (("bit", f"chmod g-s {self.FOLDER}"), ("mode", f"chmod 644 {SETTINGS}"),
                                   ("group", f"chgrp games {SETTINGS}"),
                                   ("member", "gpasswd --delete games vemo-settings")):
                    with self.subTest(what):
                        self.device.run("sh", "-c", made)
                        self.assertEqual([one[1] for one in self.found()], ["settings file"])
                        self.device.run("sh", "-ec", f"chmod 2775 {self.FOLDER}; chmod 664 {SETTINGS};"
                                        f" chgrp vemo-settings {SETTINGS}; usermod -aG vemo-settings games")
                        self.assertEqual(self.found(), [])
            finally:
                self.device.run("rm", "-f", self.FOLDER + "/new")
                self.device.run("groupdel", "vemo-settings")

    def test_a_settings_folder_that_cannot_be_written(self):
        command = f"chgrp vemo-web {self.FOLDER}; chmod g+rwx {self.FOLDER}"
        with self.settings(0o664, "vemo-web:vemo-web", 0o755, "root:root"):
            self.expect_mended("settings file", command, "risky")
        with self.mode(self.FOLDER, 0o755, "root:root"):
            self.expect_mended("settings file", command)

    def test_no_settings_folder(self):
        with self.without(self.FOLDER):
            self.expect_mended("settings file", f"install -d -o vemo-web -g vemo-web -m 0775 {self.FOLDER}; ")

    def test_no_settings_folder_below_what_belongs_to_somebody_else(self):
        with self.mode("/app", 0o755, "games"), self.without("/app/tarn-belox"):
            self.restart_server()  # which does not make it there
            self.assertIn("/app belongs to games", self.device.run("vemo-web-check", status=1))
            self.expect_mended("settings file", f"install -d -o vemo-web -g vemo-web -m 0775 {self.FOLDER}; ")

    def test_something_else_in_the_place_of_a_settings_folder(self):
        with self.without("/app/tarn-belox"):
            self.device.file("/app/tarn-belox").write_text("file", encoding="utf-8")
            self.expect_mended("settings file", "mv /app/tarn-belox /app/tarn-belox.away; systemctl restart vemo-web")
            self.device.file("/app/tarn-belox.away").unlink()

    def test_a_settings_folder_that_may_not_be_entered(self):
        with self.mode("/app", 0o700, "games"):
            self.expect_mended("settings file", "chmod a+x /app")

    def test_something_else_in_the_place_of_the_settings_file(self):
        self.device.file(SETTINGS).mkdir()
        self.expect_mended("settings file", f"mv {SETTINGS} {SETTINGS}.away")
        self.device.file(SETTINGS + ".away").rmdir()

    def test_a_configuration_that_the_web_server_refuses(self):
        for what, wrong in (("eighty", "server.port = eighty"), ("a text", 'server.port = "eighty"')):
            with self.subTest(what), self.changed(WEB_SERVER, "server.port = 8080", wrong) as text:
                self.expect_mended("configuration", '"${EDITOR:-vi}" /etc/vemo-web/web-server.conf; systemctl restart',
                                   wanted=text)

    def test_nobody_listens_where_the_configuration_says(self):
        with self.changed(WEB_SERVER, "8080", "8081"):
            self.expect_mended("request", "systemctl restart vemo-web")
        self.restart_server()

    def test_names_that_the_server_does_not_know(self):
        with self.changed(WEB_SERVER, '"localhost|', '"foreign.example|'):
            self.expect_mended("request", "systemctl restart vemo-web")
        self.restart_server()

    def test_nothing_limits_connections_in_a_network(self):
        with self.changed(WEB_SERVER, 'server.bind = "127.0.0.1"', 'server.bind = "0.0.0.0"'):
            self.expect("connections", "apt-get install nftables; systemctl restart vemo-web")
            load = ["nft", "-D", "port={8080,9}", "-f", "/etc/vemo-web/connections.nft"]
            self.device.run(*load)
            self.assertEqual(self.found(), [])
            self.device.run(*(word.replace("8080", "8081") for word in load))
            self.expect("connections", "apt-get install nftables; systemctl restart vemo-web")
            self.device.run("nft", "delete", "table", "inet", "vemo_web")

    def test_no_nvm_service(self):
        self.device.stop(self.nvm)
        self.expect("nVm service", "systemctl start vemo-web-nvm")
        with self.without("/lib/systemd/system/vemo-web-nvm.service"):
            self.expect("nVm service", "apt-get install --reinstall ./vemo-web-standin_*.deb")
        type(self).nvm = self.device.start("/usr/libexec/vemo-web/nvm-service")
        for _ in range(30):
            if not self.found():
                return
        self.fail("the nVm service does not start again")

    def test_debians_lighttpd_on_port_80(self):
        self.device.run("systemctl", "unmask", "lighttpd")
        self.device.run("systemctl", "enable", "lighttpd")
        page = self.device.file("/var/www/html/index.html")
        for what, use, unused in (
                ("a module", ("lighty-enable-mod", "vemo-web"), ("lighty-disable-mod", "vemo-web")),
                ("a page", ("touch", "/var/www/html/index.html"), ("rm", "/var/www/html/index.html")),
                ("a setting", ("sh", "-c", "echo >>/etc/lighttpd/lighttpd.conf"),
                 ("sed", "-i", "$d", "/etc/lighttpd/lighttpd.conf"))):
            with self.subTest(what):
                self.device.run(*use)
                self.assertEqual(self.found(), [])
                self.device.run(*unused)
        self.assertFalse(page.exists())
        self.expect_mended("port 80", "systemctl disable --now lighttpd", "risky")

    def test_arguments_and_other_users_are_refused(self):
        self.device.run("vemo-web-check", "--all", status=2)
        self.assertIn("ok, risky or WRONG", self.device.run("vemo-web-check", "--help"))
        self.device.run("setpriv", "--reuid=games", "--clear-groups", "vemo-web-check", status=2)

    @contextlib.contextmanager
    def turned_on(self, *parts, is_restarted=True):
        """By the lines that the configuration has for it, once their commands were typed."""
        text = self.read(WEB_SERVER)
        after, commands = with_parts(text, parts)
        self.assertNotEqual(text, after)
        before = set(self.device.file("/etc/vemo-web").iterdir())
        self.device.run("bash", "-ec", commands, text="secret\n")
        try:
            with self.changed(WEB_SERVER, text, after):
                if is_restarted:
                    self.restart_server()
                yield
        finally:
            if is_restarted:
                self.restart_server()
            for file in set(self.device.file("/etc/vemo-web").iterdir()) - before:
                file.unlink()

    @contextlib.contextmanager
    def another_certificate(self, names, days=800):
        with self.without(KEY), self.without(CERTIFICATE):
            self.device.run("openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
                            "-addext", f"subjectAltName={names}", "-keyout", KEY, "-out", CERTIFICATE)
            self.device.run("openssl", "x509", "-in", CERTIFICATE, "-signkey", KEY, "-days", str(days),
                            "-out", CERTIFICATE)
            self.device.run("chgrp", "vemo-web", KEY)
            self.device.file(KEY).chmod(0o640)
            yield

    def test_tls(self):
        edit = '"${EDITOR:-vi}" /etc/vemo-web/web-server.conf; systemctl restart vemo-web'
        names = "DNS:localhost,IP:127.0.0.1"
        with self.turned_on(TLS):
            told = self.device.run("vemo-web-check")
            for line in (rf"ok +key +{KEY}", rf"ok +certificate +{CERTIFICATE}, until ",
                         "ok +request +https://127.0.0.1:8443/setobdconf"):
                self.assertRegex(told, line)
            self.assertEqual(self.found(), [])
            trust = f"--cacert {self.device.file(CERTIFICATE)}"
            page = self.device.run_beside("bash", "-c", f"curl -sS {trust} https://localhost:8443/setobdconf.cgi;"
                                          " curl -sSi http://localhost:8080/")
            self.assertIn("Option CanDetectTimeout not set", page)
            self.assertIn("ocation: https://localhost:8443/", page)

            for mode, user in ((0o644, None), (0o660, None), (0o640, "games"), (0o640, ":games"), (0o600, None)):
                with self.subTest(mode=mode, user=user), self.mode(KEY, mode, user):
                    self.expect_mended("key", f"chown root:vemo-web {KEY}; chmod 0640 {KEY}")
            with self.subTest("no key"), self.without(KEY):
                self.expect("key", edit)
            with self.subTest("no certificate"), self.without(CERTIFICATE):
                self.expect("certificate", edit)
            with self.subTest("another key"), self.mode(KEY, 0o640):
                text = self.read(KEY)
                with self.another_certificate(names):
                    self.device.file(KEY).write_text(text, encoding="utf-8")
                    self.expect("certificate", edit)
            for what, more in (("name", r"0\.1|device\.example"), ("address", r"0\.1|192\.168\.7\.1")):
                with self.subTest("one more " + what), self.changed(WEB_SERVER, r"0\.1", more) as text:
                    self.expect_mended("certificate", edit, wanted=text)
            # localhost in CN alone, where browsers do not look.
            for what, own, word in (("an old name", ("IP:127.0.0.1",), "WRONG"), ("ended", (names, -1), "WRONG"),
                                    ("ends soon", (names, 20), "risky")):
                with self.subTest(what), self.another_certificate(*own):
                    self.expect("certificate", edit, word)
            with self.subTest("ends later"), self.another_certificate(names, 40):
                self.assertEqual(self.found(), [])
            with self.subTest("no openssl"), self.without("/usr/bin/openssl"):
                self.expect_mended("certificate", "apt-get install --reinstall openssl", "risky")
            with self.subTest("no TLS in lighttpd"), self.without("/usr/lib/lighttpd/mod_openssl.so"):
                self.expect_mended("configuration", "apt-get install --reinstall lighttpd-mod-openssl; ")

    def test_a_password_is_asked_for(self):
        with self.turned_on(PASSWORD):
            told = self.device.run("vemo-web-check")
            self.assertIn("asks for a password", told)
            self.assertRegex(told, "ok +password +/etc/vemo-web/password\n")
            with self.mode("/etc/vemo-web/password", 0o644):
                self.expect_mended("password", "chown root:vemo-web /etc/vemo-web/password; chmod 0640 ")

    def test_a_password_that_the_running_server_does_not_ask_for(self):
        with self.turned_on(PASSWORD, is_restarted=False):
            self.expect_mended("password", "systemctl restart vemo-web")
        self.restart_server()

    def test_a_password_that_another_server_has_not(self):
        self.device.run("cp", "-r", "/usr/share/vemo-web/web-servers", "/etc/vemo-web")
        self.addCleanup(shutil.rmtree, self.device.file("/etc/vemo-web/web-servers"))
        drop_in = self.device.file("/etc/systemd/system/vemo-web.service.d/web-server.conf")
        drop_in.parent.mkdir()
        self.addCleanup(shutil.rmtree, drop_in.parent)
        for server in ("apache2", "nginx"):
            configuration = f"/etc/vemo-web/web-servers/{server}.conf"
            drop_in.write_text(self.read(f"/etc/vemo-web/web-servers/{server}.service.conf"), encoding="utf-8")
            with self.subTest(server):
                self.assertEqual(self.found(), [])
                with self.turned_on(PASSWORD):
                    self.expect("password", f'"${{EDITOR:-vi}}" {configuration}; systemctl restart vemo-web')
                    text = self.read(configuration)
                    after, commands = with_parts(text, [PASSWORD])
                    self.device.run("bash", "-ec", commands, text="secret\n")
                    with self.changed(configuration, text, after):
                        self.assertEqual(self.found(), [])
                        with self.mode(f"/etc/vemo-web/{server}-password", 0o644):
                            self.expect_mended("password", f"chown root:vemo-web /etc/vemo-web/{server}-password; ")


class Development(InRoot):
    def test_the_example_builds_with_what_is_recommended(self):
        package = self.made["vemo-web-dev"]
        recommended = checks.told("dpkg-deb", "--field", package, "Recommends")
        self.device.install_known(*(name.split(" ")[0] for name in recommended.strip().split(", ")))
        self.device.install(package)
        self.device.run("sh", "-ec", "cp -r /usr/share/doc/vemo-web-dev/examples /root/page; cd /root/page;"
                        " cmake -S . -B build; cmake --build build")
        page = self.device.run("env", "REQUEST_METHOD=GET", "/root/page/build/uptime.cgi")
        self.assertIn("<h2>Uptime</h2>", page)


class Module(InRoot):
    def test_another_lighttpd_serves_the_pages(self):
        self.device.install(*(self.made[name] for name in ("vemo-web", "vemo-web-standin")))
        self.device.run("lighty-enable-mod", "vemo-web")
        said = self.device.run("lighttpd", "-tt", "-f", "/etc/lighttpd/lighttpd.conf")
        self.assertEqual(said, "")
        self.device.run("install", "-d", "-o", "www-data", "/run/lighttpd")
        self.device.run("usermod", "--append", "--groups", "vemo-web", "www-data")
        server = self.device.start("lighttpd", "-D", "-f", "/etc/lighttpd/lighttpd.conf")
        self.addCleanup(self.device.stop, server)
        request = """exec 3<>/dev/tcp/127.0.0.1/8080
            printf 'GET /setobdconf.cgi?%s HTTP/1.0\\r\\nHost: %s\\r\\n\\r\\n' "$0" "$1" >&3
            cat <&3"""
        for _ in range(30):
            page = self.device.run("bash", "-c", request, "", "localhost", status=None)
            if "HTTP/1.0" in page:
                break
            time.sleep(0.1)
        self.assertIn("Option CanDetectTimeout not set", page)
        self.assertIn(" 403 ", self.device.run("bash", "-c", request, "", "foreign.example"))
        page = self.device.run("bash", "-c", request, "CanDetectTimeout=700", "localhost")
        self.assertIn("Set new option was successful.", page)
        self.assertIn("VEMODCanDetectTimeout=700", self.read(SETTINGS))


if __name__ == "__main__":
    unittest.main(verbosity=2)
