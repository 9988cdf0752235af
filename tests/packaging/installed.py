"""What `cmake --install` leaves: python3 -B -m pytest tests/packaging/installed.py --build BUILD"""

import os
import re
import shutil

import pytest

from root import SOURCE, told

HEADERS = {f"{name}.h" for name in (
    "VemoHtml VemoPages CgiLog JavaVmWrapper NvmManipulator Logger LogHandler LogClient LogLayout LogEvent "
    "LogLevelManager LogFormater PropertiesIni Page").split()}
EXAMPLE = SOURCE / "packaging/example"


@pytest.fixture(scope="module")
def prefix(build, tmp_path_factory):
    # What is installed is said when it is configured; the objects are those of the build's compiler cache.
    folder = tmp_path_factory.mktemp("prefix")
    told("cmake", "--install", build, "--prefix", folder)
    return folder


@pytest.fixture(scope="module")
def document():
    return (SOURCE / "docs/sibling-page.md").read_text(encoding="utf-8")


def test_the_program_finds_the_java_vm_of_the_device(build, prefix):
    cache = (build / "CMakeCache.txt").read_text(encoding="utf-8")
    folder = re.search(r"^VEMO_RUNTIME_JVM_DIR:PATH=(.*)$", cache, re.MULTILINE)[1]
    entries = told("readelf", "--dynamic", prefix / "libexec/vemo-web/setobdconf.cgi")
    assert re.search(rf"\(RUNPATH\)\s+Library runpath: \[{re.escape(folder)}\]", entries), entries


@pytest.mark.parametrize("page", ["setobdconf", "channeldeviceconfig", "reboot"])
def test_a_page_is_linked_into_the_document_tree(prefix, page):
    link = prefix / f"share/vemo-web/htdocs/{page}.cgi"
    assert not os.path.isabs(os.readlink(link))
    assert os.access(link.resolve(strict=True), os.X_OK)


def test_no_file_names_the_build(build, prefix):
    for file in prefix.rglob("*"):
        if file.is_file() and not file.is_symlink() and file.suffix != ".a":
            content = file.read_bytes()
            assert str(build).encode() not in content, file
            assert not re.search(rb"@VEMO_\w+@", content), file


def test_all_public_headers_are_there_and_no_others(prefix):
    assert {file.name for file in (prefix / "include/vemo-web").iterdir()} == HEADERS


def test_no_header_refers_to_one_that_is_not_there(prefix):
    for file in (prefix / "include/vemo-web").iterdir():
        assert set(re.findall(r"\b[A-Z]\w+\.h\b", file.read_text(encoding="utf-8"))) <= HEADERS, file


@pytest.mark.parametrize("component, there, elsewhere", [
    ("program", "setobdconf.cgi", "libvemo.a"), ("library", "libvemo.a", "ConfigVemo.class"),
    ("standin", "ConfigVemo.class", "setobdconf.cgi")])
def test_components_are_separate(build, tmp_path, component, there, elsewhere):
    told("cmake", "--install", build, "--prefix", tmp_path, "--component", component)
    assert list(tmp_path.rglob(there))
    assert not list(tmp_path.rglob(elsewhere))


def test_the_document_shows_the_example_as_it_is(document):
    shown = re.findall(r"(?ms)^```cpp\n(.*?)^```$", document)
    assert shown == [(EXAMPLE / "Name.cpp").read_text(encoding="utf-8")]


def test_the_document_and_the_example_list_every_class_of_the_style_sheet(document):
    style = (SOURCE / "web/htdocs/css/all.css").read_text(encoding="utf-8")
    classes = set(re.findall(r"\.([a-z]\w*)", re.sub(r"(?s)/\*.*?\*/|\{[^{}]*\}", "", style)))
    assert set(re.findall(r"(?m)^\| `(\w+)` \| `(?:a|div|dl|input|p)`:", document)) == classes
    shown = (EXAMPLE / "classes.html").read_text(encoding="iso-8859-1")
    assert set(re.findall(r'class="(\w+)"', shown)) == classes


def test_pages_build_against_what_is_installed_alone(build, prefix, document, tmp_path):
    source = shutil.copytree(EXAMPLE, tmp_path / "source")
    # A page of the author's own, by the one edit that sibling-page.md shows.
    shutil.copy(source / "Uptime.cpp", source / "Battery.cpp")
    pages = re.search(r"`((foreach\(page .*) Battery\))`", document)
    text, listed = (source / "CMakeLists.txt").read_text(encoding="utf-8"), f"{pages[2]})"
    assert listed in text
    (source / "CMakeLists.txt").write_text(text.replace(listed, pages[1]), encoding="utf-8")
    told("cmake", "-S", source, "-B", tmp_path / "page", "-G", "Ninja", f"-DCMAKE_PREFIX_PATH={prefix}")
    told("cmake", "--build", tmp_path / "page")
    uptime = r"has been running for \d+ minutes and \d+ seconds\."
    for name, said in (("uptime", uptime), ("battery", uptime), ("name", 'name="Name" value=""')):
        page = told(SOURCE / "standin/sandbox", build, "--private-network", "--read-only", tmp_path / "page", "/page",
                   "--", "/usr/bin/env", "REQUEST_METHOD=GET", f"/page/{name}.cgi")
        assert page.count("<h2>") == 1
        assert re.search(said, page), page
        assert page.endswith("</div>\n</body>\n</html>\n"), page
