"""Whole requests on Arm with that processor's own Java VM: the device's web server, its programs and the
program's tests in an emulated machine, in this order.

    python3 -B -m pytest tests/machine/arm.py -k armhf
"""

import pathlib
import re
import tempfile

import pytest

import booted
import machine
import root
from booted import (  # noqa: F401 - two tests
    SETTINGS, SOURCE, test_page_settings_file_and_log_are_as_they_must_be,
    test_the_java_side_knows_the_devices_address)

TESTS = ("tests/java-calls", "tests/java", "standin/libfake-vm.so", "standin/libfailing-file-calls.so")
PYTHON = ("conftest.py", "pytest.ini", "program", "support")
# Some make mounts, by bubblewrap, or need strace; some make hundreds of requests, which would take minutes.
NOT_HERE = "mount or not_locked or at_the_same_time"
# And those that make dozens, of which the first two say on armhf which kind of each call is made.
DOZENS = {"arm64": " or not_even_opened or rewritten_in_place_where or bad_option or closed_descriptors", "armhf": ""}
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


def make_disk(path, packages, build):
    """From unpacked packages and what was built; its path."""
    tree = machine.Tree(path.with_suffix(".d"), "app", "run", "small", "srv", "sys", "usr/bin", "usr/sbin", "usr/lib")
    for name in ("bin", "sbin", "lib"):
        tree.file(name).symlink_to(f"usr/{name}")
    # Busybox' setpriv sets no user.
    tree.copy("usr/bin", packages / "usr/bin/busybox", packages / "usr/bin/setpriv",
              *packages.glob("usr/bin/python3*"))
    tree.copy("usr/sbin", packages / "usr/sbin/lighttpd")
    tree.copy("usr/lib", *packages.glob("usr/lib/ld-linux*"), packages / "usr/lib/lighttpd", packages / "usr/lib/jvm",
              *packages.glob("usr/lib/python3*"))
    tree.copy("etc", *packages.glob("etc/java-*"))
    for libraries in packages.glob("usr/lib/*-linux-gnu*"):
        needed = [file for file in libraries.glob("*.so*") if not file.name.startswith(SANITIZERS)]
        tree.copy(libraries.relative_to(packages), *needed)
    for file in ("device", "setobdconf.cgi", *TESTS):
        tree.copy(pathlib.PurePath("build", file).parent, build / file)
    tree.copy("source/standin", SOURCE / "standin/obd.conf")
    tree.copy("source/tests", *(SOURCE / "tests" / name for name in PYTHON))
    tree.file("srv/vemo").symlink_to("/build/device")
    machine.listen_to_outside(tree.file("build/device/lighttpd-paths.conf"))
    for name, text in (("etc/passwd", "root:x:0:0::/:/bin/sh\nweb:x:1000:1000::/tmp:/bin/sh\n"),
                       ("etc/group", "root:x:0:\nweb:x:1000:\n"), ("etc/hosts", "127.0.0.1 localhost\n"),
                       ("init", INIT)):
        tree.file(name).write_text(text, encoding="utf-8")
    tree.make_disk(path, "400M", "-m", "0", "-O", "^has_journal")
    return path


@pytest.fixture(scope="module", params=["arm64", "armhf"])
def architecture(request):
    if reason := root.why_not_for(request.param):
        pytest.skip(reason)
    return request.param


@pytest.fixture(scope="module")
def device(architecture):
    build, packages = SOURCE / f"build-{architecture}", SOURCE / "build/roots" / architecture
    kernel = machine.Kernel(packages, architecture)
    with tempfile.TemporaryDirectory(dir=build) as folder:
        disk = make_disk(pathlib.Path(folder, "disk"), packages, build)
        initramfs = booted.make_initramfs(pathlib.Path(folder, "initramfs"), kernel, "/bin/busybox sh /init",
                                          machine.EXT4, busybox=packages / "usr/bin/busybox")
        with booted.Device(kernel, initramfs, disk, archive="/app/class-archive", memory_mib=512) as device:
            device.machine.wait_for("^ready$", booted.BOOT)
            device.run(f"{AS_USER} sh /srv/vemo/start </dev/null >/tmp/start.log 2>&1 &")
            device.wait_for_page()
            yield device


@pytest.mark.parametrize("address", ["/channeldeviceconfig.cgi", "/reboot.cgi"])
def test_the_sibling_pages_are_served(device, address):
    status, page = device.get(address)
    assert status == 200
    assert page.endswith("</html>\n")


def test_the_nvm_client_allocates_and_releases(device):
    replies = []
    for _ in range(2):
        said = device.expect(f"{AS_USER} /build/device/bin/toggle-device-allocation")
        assert re.search(r"(?s)^\n\n<.*</wddxPacket>\n332\n.*\n<.*</wddxPacket>\n$", said), said
        replies.append(re.findall("<wddxPacket.*</wddxPacket>", said))
    # The first finds what the second leaves.
    assert (replies[0][0], replies[0][-1]) == (replies[1][-1], replies[1][0])


def test_the_programs_own_tests_pass(device, architecture):
    # They expect no address but the loopback's.
    device.run("kill $(pidof lighttpd) $(pidof nvm-service); ip link set eth0 down")
    said = device.expect(
        f"{AS_USER} PYTHONPATH=/source/tests/support python3 -B -m pytest --color=no -p device_fixtures "
        f"/source/tests/program -k 'not ({NOT_HERE}{DOZENS[architecture]})'", seconds=2 * booted.BOOT)
    assert re.search("= [1-9][0-9]* passed", said), said
