"""The Debian packages for another processor, held against this machine's:

    python3 -B -m pytest tests/arm/packages.py --build BUILD -k armhf
"""

import re
import subprocess
import tempfile
import unittest

import pytest

import checks
import root
from checks import told

FIELDS = ("Version", "Pre-Depends", "Depends", "Recommends", "Suggests", "Conffiles")
# The unwinding of 32-bit Arm came later into the compiler's library.
OTHERWISE = {"armhf": ("libgcc-s1 (>= 3.0)", "libgcc-s1 (>= 3.5)")}


def field(file, name):
    return told("dpkg-deb", "--field", file, name).strip()


def files(file):
    """Name, owner, mode and length of what is in a package; the length only of what no compiler made."""
    listed = set()
    for line in told("dpkg-deb", "--contents", file).splitlines():
        mode, owner, length, _, _, name = line.split(None, 5)
        name = re.sub(r"/(x86_64|aarch64|arm)-linux-gnu(eabihf)?/", "/TRIPLET/", name + "/")
        made = re.search(r"/libexec/|/TRIPLET/|/.build-id/|\.gz/", name)
        listed.add((re.sub(r"/.build-id/.*", "/.build-id/", name), owner, mode, None if made else length))
    return listed


def names(folder):
    """Of the packages, and of those for debuggers."""
    return {file.relative_to(folder).as_posix().split("_")[0]
            for pattern in ("*.deb", "debug/*.deb") for file in folder.glob(pattern)}


class Held(checks.Checks):
    """For a TestCase with ARCHITECTURE."""

    @pytest.fixture(scope="class", autouse=True)
    def packages(self, request, build):
        architecture = request.cls.ARCHITECTURE
        if reason := root.why_not_for(architecture):
            pytest.skip(reason)
        request.cls.BUILDERS = ("openjdk-amd64", f"openjdk-{architecture}")
        request.cls.folder = build / f"packages-{architecture}"
        request.cls.own, request.cls.made = root.packages(build), root.packages(build, architecture=architecture)

    def test_there_are_the_same_ones(self):
        assert names(self.folder) == names(self.folder.with_name("packages"))
        assert {field(file, "Architecture") for file in self.made.values()} == {self.ARCHITECTURE}

    def test_they_depend_on_the_same(self):
        for name, file in self.made.items():
            for which in FIELDS:
                wanted = field(self.own[name], which).replace(*OTHERWISE.get(self.ARCHITECTURE, ("", "")))
                assert field(file, which) == wanted, (name, which)

    def test_there_are_the_same_files_in_them(self):
        for name, file in self.made.items():
            assert files(file) == files(self.own[name]), name

    def test_the_java_vm_is_found_where_it_is_on_any_debian(self):
        package = self.made["vemo-web"]
        assert "vemo-web-class-archive" in told("dpkg-deb", "--info", package, "postinst")
        with tempfile.TemporaryDirectory() as tree:
            subprocess.run(["dpkg-deb", "--extract", package, tree], check=True)
            for page in ("setobdconf.cgi", "channeldeviceconfig.cgi"):
                assert ("[/usr/lib/jvm/default-java/lib/server]"
                        in told("readelf", "--dynamic", f"{tree}/usr/libexec/vemo-web/{page}")), page


class TestArm64(Held, unittest.TestCase):
    ARCHITECTURE = "arm64"


class TestArmhf(Held, unittest.TestCase):
    ARCHITECTURE = "armhf"
