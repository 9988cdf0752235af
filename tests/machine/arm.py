"""Whole requests on Arm with that processor's own Java VM: the device's web server, its programs and the
program's tests in an emulated machine.

    python3 -B tests/machine/arm.py BUILD ARCHITECTURE [TEST]

BUILD is what was built for it, and ARCHITECTURE Debian's name of it: arm64, armhf.
"""

import pathlib
import re
import shutil
import sys
import unittest

SOURCE = pathlib.Path(__file__).resolve().parents[2]
sys.path += [str(SOURCE / "tests/machine"), str(SOURCE / "tests/packaging")]

import booted  # noqa: E402
import machine  # noqa: E402
from root import why_not_for  # noqa: E402
from booted import SETTINGS  # noqa: E402

ROOTS = SOURCE / "build/roots"
TESTS_LIMIT = 1800
TESTS = ("tests/program_tests", "tests/java-calls", "tests/java",
         "standin/libfake-vm.so", "standin/libfailing-file-calls.so")
# Some make mounts, by bubblewrap, or need strace; some make hundreds of requests, which would take minutes.
NOT_HERE = ("*SettingsFileIn.*Mount*", "SettingsFile.IsWholeAfterRequestsAtTheSameTime*",
            "SettingsFile.IsNotLockedNorIsTheLog")
# And those that make dozens, of which the first two say on armhf which kind of each call is made.
DOZENS = {"arm64": ("SettingsFileCalls.RiskNothing*", "SettingsFileCalls.RewriteInPlace*",
                    "Program/ClosedDescriptors.*"), "armhf": ()}
# Libraries that no program there needs.
SANITIZERS = ("libasan", "libhwasan", "liblsan", "libtsan", "libubsan")

# The user and the folders are those of the sandbox. Nobody logs in.
INIT = f"""
/bin/busybox --install -s /bin
export PATH=/bin:/sbin
{booted.MOUNTS_AND_NETWORK}
mkdir -p /dev/shm
ln -s /proc/self/fd /dev/fd
for stream in stdin:0 stdout:1 stderr:2; do ln -s "fd/${{stream#*:}}" "/dev/${{stream%:*}}"; done
for folder in app tmp run dev/shm; do mount -t tmpfs -o uid=1000,gid=1000 tmpfs "/$folder"; done
mount -t tmpfs -o uid=1000,gid=1000,mode=0755,size=262144 tmpfs /small
mkdir -p {pathlib.PurePath(SETTINGS).parent}
cp /source/standin/obd.conf {SETTINGS}
chown -R 1000:1000 /app
exec </dev/console >/dev/console 2>&1
stty -echo
echo ready
# By a pipe: at a terminal it would talk. Not by cat, whose sendfile loses what is typed early.
dd bs=1 2>/dev/null | sh
"""
# Runs a command as the web server's user, with what is set in the sandbox.
AS_USER = ("cd /tmp; /bin/setpriv --reuid 1000 --regid 1000 --clear-groups env -i PATH=/bin:/sbin HOME=/tmp "
           "LANG=C.UTF-8 PWD=/tmp VEMO_PORT=8080 VEMO_SANDBOX=machine")


def make_disk(architecture, build, folder):
    """From unpacked packages and what was built."""
    root = ROOTS / architecture
    tree = machine.Tree(folder / "tree", "small", "srv", "usr/bin", "usr/sbin", "usr/lib")
    for name in ("bin", "sbin", "lib"):
        tree.file(name).symlink_to(f"usr/{name}")
    # Busybox' setpriv sets no user.
    tree.copy("usr/bin", root / "usr/bin/busybox", root / "usr/bin/setpriv")
    tree.copy("usr/sbin", root / "usr/sbin/lighttpd")
    tree.copy("usr/lib", *root.glob("usr/lib/ld-linux*"), root / "usr/lib/lighttpd", root / "usr/lib/jvm")
    tree.copy("etc", *root.glob("etc/java-*"))
    for libraries in root.glob("usr/lib/*-linux-gnu*"):
        needed = [file for file in libraries.glob("*.so*") if not file.name.startswith(SANITIZERS)]
        tree.copy(libraries.relative_to(root), *needed)
    for file in ("device", "setobdconf.cgi", *TESTS):
        tree.copy(pathlib.PurePath("build", file).parent, build / file)
    tree.copy("source/standin", SOURCE / "standin/obd.conf")
    tree.file("srv/vemo").symlink_to("/build/device")
    machine.listen_to_outside(tree.file("build/device/lighttpd-paths.conf"))
    tree.write("etc/passwd", "root:x:0:0::/:/bin/sh\nweb:x:1000:1000::/tmp:/bin/sh\n")
    tree.write("etc/group", "root:x:0:\nweb:x:1000:\n")
    tree.write("etc/hosts", "127.0.0.1 localhost\n")
    tree.write("init", INIT)
    tree.make_disk(folder / "disk", "400M", "-m", "0", "-O", "^has_journal")
    return folder / "disk"


class Device(booted.Device):
    def __init__(self, architecture, build, folder):
        disk = make_disk(architecture, build, folder)
        root = ROOTS / architecture
        kernel = machine.Kernel(root, architecture)
        initramfs = folder / "initramfs"
        machine.make_initramfs(initramfs, kernel, {}, booted.initramfs("/bin/busybox sh /init"),
                               machine.DISK + machine.EXT4 + machine.NETWORK, busybox=root / "usr/bin/busybox")
        super().__init__(kernel, initramfs, disk, memory_mib=512)
        self.machine.wait_for("^ready$", booted.BOOT)

    def start(self):
        """Starts what the device starts."""
        self.run(f"{AS_USER} sh /srv/vemo/start </dev/null >/tmp/start.log 2>&1 &")


class Arm(booted.Requests, unittest.TestCase):
    """In the order of their names."""

    ARCHIVE = "/app/class-archive"

    @classmethod
    def setUpClass(cls):
        folder = BUILD / "machine"
        folder.mkdir(exist_ok=True)
        cls.addClassCleanup(shutil.rmtree, folder, ignore_errors=True)
        cls.device = Device(ARCHITECTURE, BUILD, folder)
        cls.addClassCleanup(lambda: cls.device.machine.kill())
        cls.device.start()
        print(f"from power-on to the first page: {cls.device.wait_for_page():.1f} s", file=sys.stderr)

    def settings(self):
        return self.device.read(SETTINGS)

    def test_1_the_machine_is_what_it_says(self):
        names = {"arm64": "aarch64", "armhf": "armv7l"}
        self.assertEqual(self.device.expect("uname -m").strip(), names[ARCHITECTURE])

    def test_1_the_class_archive_is_made_and_fits(self):
        self.device.expect(f"cat /tmp/start.log; {AS_USER} JAVA_OPTIONS=-XX:VMOptionsFile=/srv/vemo/java.options "
                           f"JAVA_CLASSPATH=/srv/vemo/java /srv/vemo/bin/class-archive fits {self.ARCHIVE}")

    def test_2_without_the_field_nothing_is_stored(self):
        before = self.settings()
        status, page = self.device.get("/setobdconf.cgi")
        self.assertEqual(status, 200)
        self.assertIn('<p class="warn" >Option CanDetectTimeout not set</p>', page)
        self.assertEqual(self.settings(), before)

    def test_4_a_posted_value_is_stored_with_its_umlaut(self):
        status, page = self.device.ask("POST", "/setobdconf.cgi", "CanDetectTimeout=8%FC0",
                                       {"Content-Type": "application/x-www-form-urlencoded"})
        self.assertEqual(status, 200)
        self.assertIn("<p>Set CanDetectTimeout to 8\xfc0 ms.\n", page)
        self.assertIn("8 374   0", self.device.expect(f"grep CanDetect {SETTINGS} | od -c | head -n 3"))

    def test_4_what_the_web_server_refuses_is_not_stored(self):
        before = self.settings()
        form = {"Content-Type": "application/x-www-form-urlencoded"}
        for what, expected, request in (
                ("another name", 403, ("GET", "/setobdconf.cgi?CanDetectTimeout=1", None,
                                       {"Host": "foreign.example"})),
                ("another site", 403, ("POST", "/setobdconf.cgi", "CanDetectTimeout=1",
                                       {**form, "Origin": "http://foreign.example"})),
                ("another method", 403, ("PUT", "/setobdconf.cgi", "CanDetectTimeout=1", form)),
                ("a long body", 413, ("POST", "/setobdconf.cgi", "CanDetectTimeout=" + 8192 * "1", form))):
            with self.subTest(what):
                self.assertEqual(self.device.ask(*request)[0], expected)
        self.assertEqual(self.settings(), before)

    def test_4_the_sibling_pages_are_served(self):
        for address, text in (("/index.html", "</html>"), ("/css/all.css", "body"),
                              ("/channeldeviceconfig.cgi", "</html>\n"), ("/reboot.cgi", "</html>\n")):
            with self.subTest(address):
                status, page = self.device.get(address)
                self.assertEqual(status, 200)
                self.assertIn(text, page)

    def test_5_the_nvm_client_allocates_and_releases(self):
        replies = []
        for _ in range(2):
            said = self.device.expect(f"{AS_USER} /build/device/bin/toggle-device-allocation")
            self.assertRegex(said, r"(?s)^\n\n<.*</wddxPacket>\n332\n.*\n<.*</wddxPacket>\n$")
            replies.append(re.findall("<wddxPacket.*</wddxPacket>", said))
        # The first finds what the second leaves.
        self.assertEqual((replies[0][0], replies[0][-1]), (replies[1][-1], replies[1][0]))

    def test_z_the_programs_own_tests_pass(self):
        # They expect no address but the loopback's.
        self.device.run("kill $(pidof lighttpd) $(pidof nvm-service); ip link set eth0 down")
        left_out = ":".join(NOT_HERE + DOZENS[ARCHITECTURE])
        said = self.device.expect(
            f"{AS_USER} /build/tests/program_tests --gtest_brief=1 '--gtest_filter=-{left_out}'", seconds=TESTS_LIMIT)
        print(said, file=sys.stderr)
        self.assertRegex(said, r"PASSED  \] [1-9]")


if __name__ == "__main__":
    BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
    ARCHITECTURE = sys.argv.pop(1)
    if reason := why_not_for(ARCHITECTURE):
        print(f"skipped '{reason}'\nOK (skipped=1)")
        sys.exit()
    for tool in (machine.ARCHITECTURES[ARCHITECTURE].emulator[0], machine.MKFS):
        assert shutil.which(tool), f"{tool} is missing"
    unittest.main(verbosity=2)
