"""What `cmake --install` leaves: python3 -B tests/packaging/installed.py BUILD"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
HEADERS = {f"{name}.h" for name in (
    "VemoHtml VemoPages CgiLog JavaVmWrapper NvmManipulator Logger LogHandler LogClient LogLayout LogEvent "
    "LogLevelManager LogFormater PropertiesIni Page").split()}


def run(*command, **more):
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, check=False,
                          **more)
    if done.returncode != 0:
        raise AssertionError(f"{command} ended with {done.returncode}:\n{done.stdout}")
    return done.stdout


class Installed(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemo-web."))
        cls.addClassCleanup(shutil.rmtree, cls.folder)
        # What is installed is said when it is configured; the objects are those of BUILD's compiler cache.
        cls.prefix = cls.folder / "prefix"
        run("cmake", "--install", BUILD, "--prefix", cls.prefix)

    def test_the_program_finds_the_java_vm_of_the_device(self):
        program = self.prefix / "libexec/vemo-web/setobdconf.cgi"
        cache = (BUILD / "CMakeCache.txt").read_text(encoding="utf-8")
        folder = re.search(r"^VEMO_RUNTIME_JVM_DIR:PATH=(.*)$", cache, re.MULTILINE)[1]
        self.assertRegex(run("readelf", "--dynamic", program),
                         rf"\(RUNPATH\)\s+Library runpath: \[{re.escape(folder)}\]")

    def test_pages_are_linked_into_the_document_tree(self):
        for page in ("setobdconf", "channeldeviceconfig", "reboot"):
            link = self.prefix / f"share/vemo-web/htdocs/{page}.cgi"
            self.assertFalse(os.path.isabs(os.readlink(link)))
            self.assertTrue(os.access(link.resolve(strict=True), os.X_OK))

    def test_no_file_names_the_build(self):
        for file in self.prefix.rglob("*"):
            if file.is_file() and not file.is_symlink() and file.suffix != ".a":
                with self.subTest(file.relative_to(self.prefix)):
                    content = file.read_bytes()
                    self.assertNotIn(str(BUILD).encode(), content)
                    self.assertNotRegex(content, rb"@VEMO_\w+@")

    def test_all_public_headers_are_there_and_no_others(self):
        headers = {file.name for file in (self.prefix / "include/vemo-web").iterdir()}
        self.assertEqual(headers, HEADERS)

    def test_no_header_refers_to_one_that_is_not_there(self):
        for file in (self.prefix / "include/vemo-web").iterdir():
            with self.subTest(file.name):
                named = set(re.findall(r"\b[A-Z]\w+\.h\b", file.read_text(encoding="utf-8")))
                self.assertEqual(named - HEADERS, set())

    def test_destdir_goes_before_the_prefix(self):
        run("cmake", "--install", BUILD, "--prefix", "/usr", "--component", "library",
            env={**os.environ, "DESTDIR": str(self.folder / "stage")})
        self.assertTrue(list((self.folder / "stage/usr").rglob("libvemo.a")))
        self.assertFalse((self.folder / "stage/usr/libexec").exists())

    def test_components_are_apart(self):
        for component, there, elsewhere in (("program", "setobdconf.cgi", "libvemo.a"),
                                            ("library", "libvemo.a", "ConfigVemo.class"),
                                            ("standin", "ConfigVemo.class", "setobdconf.cgi")):
            with self.subTest(component):
                prefix = self.folder / component
                run("cmake", "--install", BUILD, "--prefix", prefix, "--component", component)
                self.assertTrue(list(prefix.rglob(there)))
                self.assertFalse(list(prefix.rglob(elsewhere)))

    def test_the_document_shows_the_example_as_it_is(self):
        text = (SOURCE / "docs/sibling-page.md").read_text(encoding="utf-8")
        shown = re.findall(r"(?ms)^```cpp\n(.*?)^```$", text)
        self.assertEqual(shown, [(SOURCE / "packaging/example/Name.cpp").read_text(encoding="utf-8")])

    def test_the_document_lists_every_class_of_the_style_sheet(self):
        style = (SOURCE / "web/htdocs/css/all.css").read_text(encoding="utf-8")
        style = re.sub(r"(?s)/\*.*?\*/|\{[^{}]*\}", "", style)
        classes = set(re.findall(r"\.([a-z]\w*)", style))
        text = (SOURCE / "docs/sibling-page.md").read_text(encoding="utf-8")
        self.assertEqual(set(re.findall(r"(?m)^\| `(\w+)` \| `(?:a|div|dl|input|p)`:", text)), classes)
        shown = (SOURCE / "packaging/example/classes.html").read_text(encoding="iso-8859-1")
        self.assertEqual(set(re.findall(r'class="(\w+)"', shown)), classes)

    def test_pages_build_against_what_is_installed_alone(self):
        log = pathlib.Path("/tmp/cgi.log")  # of this machine, not of the sandbox
        before = log.exists() and log.stat().st_size
        build = self.folder / "page"
        shutil.copytree(SOURCE / "packaging/example", self.folder / "source")
        run("cmake", "-S", self.folder / "source", "-B", build, "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={self.prefix}")
        run("cmake", "--build", build)
        for name, said in (("uptime", r"has been running for \d+ minutes and \d+ seconds\."), ("name", 'name="Name" value=""')):
            page = run(SOURCE / "standin/sandbox", BUILD, "--private-network", "--read-only", build, "/page", "--",
                       "/usr/bin/env", "REQUEST_METHOD=GET", f"/page/{name}.cgi")
            self.assertEqual(page.count("<h2>"), 1)
            self.assertRegex(page, said)
            self.assertTrue(page.endswith("</div>\n</body>\n</html>\n"), page)
        self.assertEqual(log.exists() and log.stat().st_size, before)


if __name__ == "__main__":
    unittest.main(verbosity=2)
