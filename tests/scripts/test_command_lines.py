"""What ./run, ./test and ./package take, and what they refuse before they do anything."""

import os
from os.path import exists

import pytest

from conftest import SCRIPTS, append, expect, fake, run
from program import read

OWN = run("dpkg --print-architecture")[1].strip()
NO_PORT = "run: --port takes a number from 1024 to 65535"


@pytest.mark.parametrize("option", ("-h", "--help"))
@pytest.mark.parametrize("script", SCRIPTS)
def test_help_is_shown_at_once(machine, script, option):
    assert expect(0, "", f"{script} {option} 2>/dev/null").startswith(f"Usage: {script} [")
    assert not exists("called")


@pytest.mark.parametrize("command, status, text", [
    *((f"{name} --nonsense", 2, f"{name[2:]}: unknown argument --nonsense. Usage: {name} [") for name in SCRIPTS),
    ("./test SetOptionPage", 2, "unknown argument SetOptionPage"),
    # ctest knows these; they would look elsewhere, or leave no results.
    ("./test --test-dir build", 2, "unknown argument --test-dir"),
    ("./test --output-junit tests.xml", 2, "unknown argument --output-junit"),
    ("./test -R", 2, "-R takes an argument"),
    ("./test -j two", 2, "-j takes a number, not 'two'"),
    ("./test --repeat 3", 2, "--repeat takes until-fail:N"),
    ("./package arm64 riscv64", 2, f"there are no packages for 'riscv64'; it takes {OWN}"),
    ("./package ''", 2, "there are no packages for ''"),
    ("./run 8080", 2, "Usage: ./run ["),
    *((f"./run --port {port}", 1, NO_PORT) for port in ("0", "80", "1023", "65536", "123456", "-1", "8080x", "''", "")),
    *((f"./run --port {port}", 1, "port 5302 is the nVm service's") for port in ("5302", "05302")),
])
def test_what_is_refused_with_one_line(machine, command, status, text):
    assert expect(status, text, command).count("\n") == 1
    assert not exists("called")


@pytest.mark.parametrize("script", SCRIPTS)
def test_a_read_only_checkout_is_refused(checkout, script):
    fake("dpkg-query", "")  # much is to be installed
    outside = f"bwrap --dev-bind / / --ro-bind {checkout} {checkout}"
    if run("standin/sandbox --kind")[1] != "bwrap\n":
        # Root may write where its permissions say no; nobody may not.
        expect(0, "", "chmod -R a+rX .; chmod a-w .")
        outside = "" if os.geteuid() else "setpriv --reuid 65534 --regid 65534 --clear-groups"
    said = expect(1, f"{script[2:]}: this checkout is read-only: {checkout} cannot be written to; copy it",
                  f"{outside} {script}")
    expect(0, "", "chmod u+w .")
    assert said.count("\n") == 1
    assert not exists("build")


def test_run_names_the_installed_services_that_hold_its_ports(machine):
    append("tools/setup.sh", "is_listening() { [[ $1 == 5302 || $1 == 8080 ]]; }\n")
    fake("systemctl", "case $* in *is-active*vemo-web-nvm) ;; *is-active*vemo-web) test -e both ;; *) false ;; esac")
    stop = "the installed services hold the device's ports; stop them, as root: systemctl stop"
    expect(1, f"{stop} vemo-web-nvm\n", "./run")
    append("both", "")
    expect(1, f"{stop} vemo-web vemo-web-nvm\n", "./run")
    expect(1, f"{stop} vemo-web-nvm\n", "./run --port 8099")
    fake("systemctl", "false")
    expect(1, "port 5302, the nVm service's, is busy", "./run")
    assert not exists("called")


def test_run_refuses_a_second_device(checkout):
    expect(1, "the device is running already", "mkdir -p build/state; flock build/state ./run --port 8099")


def test_packages_have_the_date_of_their_own_repository(machine):
    fake("dpkg-buildpackage", f"echo $SOURCE_DATE_EPOCH >{machine}/date; : >../p_1.deb; : >../p-dbgsym_1.deb")

    def expect_date(date):
        expect(0, "", "./package")
        assert read(f"{machine}/date") == f"{date}\n"

    def commit(date):
        expect(0, "", f"git init --quiet && GIT_COMMITTER_DATE='{date} +0000' git -c user.name=n"
                      " -c user.email=e@example.org commit --quiet --allow-empty --message All")

    os.utime("CMakeLists.txt", (1600000000, 1600000000))
    expect_date(1600000000)
    # Unpacked inside another repository.
    expect(0, "", "mkdir -p other/inner; mv run test package tools standin packaging CMakeLists.txt other/inner")
    os.chdir("other")
    commit(1500000000)
    os.chdir("inner")
    expect_date(1600000000)
    commit(1400000000)
    expect_date(1400000000)


@pytest.mark.parametrize("arguments", ("--nonsense", "ConfigVemo", "/x --nonsense"))
def test_test_binaries_refuse_unknown_arguments(build, arguments):
    expect(2, f"unknown argument {arguments.split()[0]}", f"{build}/tests/library_tests {arguments}")
