"""The Debian packages for another processor, held against this machine's:

    python3 -B tests/arm/packages.py BUILD ARCHITECTURE [Class[.test]]
"""

import pathlib
import re
import subprocess
import sys
import unittest

BUILD, ARCHITECTURE = pathlib.Path(sys.argv.pop(1)).resolve(), sys.argv.pop(1)
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "packaging"))
import checks  # noqa: E402
import root  # noqa: E402
from checks import told  # noqa: E402

FOLDER = BUILD / f"packages-{ARCHITECTURE}"
FIELDS = ("Version", "Pre-Depends", "Depends", "Recommends", "Suggests", "Conffiles")
# The unwinding of 32-bit Arm came later into the compiler's library.
OTHERWISE = {"armhf": [("libgcc-s1 (>= 3.0)", "libgcc-s1 (>= 3.5)")]}


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


class Packages(checks.Checks, unittest.TestCase):
    BUILDERS = ("openjdk-amd64", f"openjdk-{ARCHITECTURE}")

    @classmethod
    def setUpClass(cls):
        if reason := root.why_not_for(ARCHITECTURE):
            raise unittest.SkipTest(reason)
        cls.folder = FOLDER
        cls.own = root.packages(BUILD)
        cls.made = root.packages(BUILD, architecture=ARCHITECTURE)

    def test_there_are_the_same_ones(self):
        self.assertEqual(self.made.keys(), self.own.keys())
        for name, file in self.made.items():
            self.assertEqual(field(file, "Architecture"), ARCHITECTURE, name)

    def test_they_depend_on_the_same(self):
        for name, file in self.made.items():
            for which in FIELDS:
                with self.subTest(name, field=which):
                    wanted = field(self.own[name], which)
                    for own, other in OTHERWISE.get(ARCHITECTURE, []):
                        wanted = wanted.replace(own, other)
                    self.assertEqual(field(file, which), wanted)

    def test_there_are_the_same_files_in_them(self):
        for name, file in self.made.items():
            with self.subTest(name):
                self.assertEqual(files(file), files(self.own[name]))

    def test_there_is_something_for_debuggers(self):
        own, made = ({file.name.split("_")[0] for file in (folder / "debug").glob("*.deb")}
                     for folder in (BUILD / "packages", FOLDER))
        self.assertTrue(own)
        self.assertEqual(made, own)

    def test_the_java_vm_is_found_where_it_is_on_any_debian(self):
        content = told("dpkg-deb", "--info", self.made["vemo-web"], "postinst")
        self.assertIn("vemo-web-class-archive", content)
        tree = BUILD / f"packages-{ARCHITECTURE}.tree"
        self.addCleanup(subprocess.run, ["rm", "-rf", tree], check=True)
        subprocess.run(["dpkg-deb", "--extract", self.made["vemo-web"], tree], check=True)
        for page in ("setobdconf.cgi", "channeldeviceconfig.cgi"):
            self.assertIn("[/usr/lib/jvm/default-java/lib/server]",
                          told("readelf", "--dynamic", tree / "usr/libexec/vemo-web" / page), page)


if __name__ == "__main__":
    unittest.main(verbosity=2)
