"""What the recipe of docs/on-a-device.md stages, laid over a bare root: the web server starts from it.

    python3 -B -m pytest tests/packaging/staged.py --build BUILD --staged FOLDER

FOLDER: what DESTDIR named. The Java class, which is the device's own, is taken from BUILD.
"""

import re
import shutil

from installed_device import AS_SERVICE, CLASS_FOLDER, Device


def test_the_web_server_starts_and_a_value_is_stored(build, request):
    staged = request.config.getoption("staged").resolve()
    with Device(build, "Staged") as device:
        device.install_known("default-jre-headless", "lighttpd", "libcgicc3", "libxml2")
        shutil.copytree(staged, device.path, symlinks=True, dirs_exist_ok=True)
        shutil.copytree(build / "device/java", device.file(CLASS_FOLDER))
        # The recipe's folder of the Java VM.
        device.run("ln", "-s", "/usr/lib/jvm/default-java", "/opt/jre")
        device.run("sh", "-ec", "systemd-sysusers vemo-web.conf; systemd-tmpfiles --create vemo-web.conf;"
                   " install -d -o vemo-web /run/vemo-web")
        unit = device.read("/usr/lib/systemd/system/vemo-web.service")
        command = re.search(r"^ExecStart=(\S+ (\S+) (\S+))$", unit, re.MULTILINE)
        assert device.run(*AS_SERVICE, command[2], "-tt", "-f", command[3]) == ""
        device.start(*AS_SERVICE, *command[1].split())
        device.wait_for("127.0.0.1", 8080)
        assert "Set new option was successful." in device.ask("/setobdconf.cgi?CanDetectTimeout=700")[1]
