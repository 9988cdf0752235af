"""What the top-level scripts share: build folders, installing without a question, unpacking packages, the bare root."""

import os
import subprocess
from os.path import exists

import pytest

from conftest import SOURCE, append, expect, expect_in_setup, fake
from program import read


@pytest.mark.parametrize("of, is_emptied", ((str(SOURCE), True), ("{}/gone", True), ("{}", False)),
                         ids=("another checkout's", "of a checkout that is gone", "its own"))
def test_a_build_folder_is_emptied_when_it_is_not_the_checkouts_own(checkout, of, is_emptied):
    """But for the device's storage and what was fetched."""
    of = of.format(checkout)
    append("build/CMakeCache.txt", f"CMAKE_HOME_DIRECTORY:INTERNAL={of}\nCMAKE_CACHEFILE_DIR:INTERNAL={of}/build\n")
    for name in ("state/app", "npm", "roots", "CMakeFiles"):
        append(f"build/{name}/file", "")
    said = expect_in_setup(0, "", "cmake() { :; }; configure build")
    assert ("is a copy" in said) == is_emptied
    for name in ("CMakeCache.txt", "CMakeFiles"):
        assert exists(f"build/{name}") != is_emptied
    for name in ("state/app", "npm", "roots"):
        assert exists(f"build/{name}/file")


def test_java_classes_build_in_a_folder_with_letters_that_the_locale_has_not(checkout):
    parts = "CMakeLists.txt,bench,cmake,packaging,pages,platform,src,standin,tests,web"
    expect(0, "", f"""set -e; mkdir 'Gerät im Bau'; cd Ger*; cp -r {SOURCE}/{{{parts}}} .; unset LANG; export LC_ALL=C
        cmake -S . -B build -G Ninja -DBUILD_TESTING=OFF; ninja -C build device-java
        test -s build/device/java/com/tarn/vemo/config/ConfigVemo.class""")


@pytest.mark.parametrize("more", ({"stdin": subprocess.PIPE}, {"preexec_fn": lambda: os.close(0)}),
                         ids=("open", "closed"))
def test_whatever_standard_input_is_nothing_is_read_from_it(checkout, more):
    """At a terminal the commands of the scripts would wait for an answer."""
    expect_in_setup(0, "/dev/null", "exec readlink /proc/self/fd/0", **more)


def build_package(version, file):
    append("one/DEBIAN/control", f"Package: one\nVersion: {version}\nArchitecture: all\nMaintainer: n <n@example.org>\n"
                                 "Description: d\n")
    expect(0, "", f"dpkg-deb --build one {file}; rm one/DEBIAN/control")


def test_changed_configuration_files_are_kept(checkout):
    """dpkg asks when a configuration file was changed by hand and comes changed."""
    append("one/DEBIAN/conffiles", "/etc/file\n")
    for version in (1, 2):
        append("one/etc/file", f"of version {version}\n")
        build_package(version, f"one-{version}.deb")
    expect(0, "", "mkdir -p root/var/lib/dpkg/{info,updates}; touch root/var/lib/dpkg/{status,available}")
    fake("sudo", 'exec "$@"')
    # As apt-get hands dpkg its options.
    fake("apt-get", f"""for word; do case $word in Dpkg::Options::=*) options="$options ${{word#*=}}" ;; esac; done
case $word in *.deb) dpkg --root={checkout}/root --force-not-root --log=/dev/null $options --install "$word" ;; esac""")
    expect_in_setup(0, "", f"install_packages {checkout}/one-1.deb")
    append("root/etc/file", "by hand\n")
    expect_in_setup(0, "", f"install_packages {checkout}/one-2.deb")
    assert read("root/etc/file") == "of version 1\nby hand\n"
    assert "Version: 2\n" in read("root/var/lib/dpkg/status")


@pytest.fixture
def apt(checkout):
    """It knows a package that holds a file, and a kernel's name that stands for it."""
    append("one/usr/file", "held\n")
    build_package(1, "linux-image-1.deb")
    fake("apt-cache", '[ "$3" != linux-image-cloud-any ] || echo "  Depends: linux-image-1"')
    fake("apt-get", f'echo "$*" >>{checkout}/downloads; cp {checkout}/"$3".deb .')


def test_packages_are_unpacked_once(apt):
    expect(1, "", "tools/unpack-packages --is-there folder linux-image-cloud-any")
    for _ in range(2):
        expect(0, "", "tools/unpack-packages folder linux-image-cloud-any")
    expect(0, "", "tools/unpack-packages --is-there folder linux-image-cloud-any")
    assert read("folder/usr/file") == "held\n"
    assert read("downloads") == "-q download linux-image-1\n"


def test_packages_of_which_one_is_missing_are_not_there(apt):
    expect(1, "", "tools/unpack-packages folder linux-image-1 two")
    expect(1, "", "tools/unpack-packages --is-there folder linux-image-1 two")


def test_without_a_bare_root_the_tests_run_in_place(checkout):
    fake("unshare", "exit 1")
    expect(0, "", r"printf '#!/bin/sh\necho 5 passed\nexit 7\n' >test")
    expect(7, ": ./test runs in place\n5 passed", "tools/test-in-bare-root")
    expect(1, "there can be no bare root here: ", "tools/test-in-bare-root true")
