"""standin/sandbox: which kind it takes, and what holds in both kinds."""

import signal
import subprocess
from os.path import exists

import pytest

from conftest import expect, expect_in_setup, fake, is_free, run
from program import eventually, read

CAPABILITIES = "grep CapEff /proc/self/status"
NONE = "0000000000000000"


def refuse(*tools):
    for tool in tools:
        fake(tool, f"echo 'no {tool} today' >&2; exit 1")


def test_where_both_kinds_are_refused_it_says_what_it_tried_and_the_scripts_say_it_too(checkout):
    refuse("bwrap", "proot")
    tried = "  bwrap: no bwrap today\n  proot: no proot today\n"
    expect(1, tried, "standin/sandbox --kind")
    said = expect_in_setup(1, tried, "mkdir build; is_installed() { :; }; check_sandbox")
    assert "the sandbox does not start" in said


def test_ptrace_is_taken_where_namespaces_are_refused(checkout):
    refuse("bwrap")
    expect(0, "proot", "standin/sandbox --kind")


@pytest.mark.parametrize("arguments, text", (("--nonsense -- true", "unknown option --nonsense"),
                                             ("--disk 5", "--disk: too few arguments"), ("--", "there is no command")))
def test_unknown_arguments_are_refused(checkout, build, arguments, text):
    expect(2, text, f"standin/sandbox {build} {arguments}")


@pytest.fixture(params=("bwrap", "proot"))
def kind(request, checkout, monkeypatch):
    if request.param == "bwrap" and run("standin/sandbox --kind")[1] != "bwrap\n":
        pytest.skip("where namespaces are refused, there is no such sandbox")
    monkeypatch.setenv("VEMO_SANDBOX_KIND", request.param)
    return request.param


@pytest.fixture
def sandbox(kind, build):
    """What begins each command line."""
    expect(0, "", "mkdir -p state/{app,tmp}")
    return f"standin/sandbox {build} --private-network"


def test_a_command_has_its_input_and_its_status(sandbox):
    expect(7, "in", f"{sandbox} -- sh -c 'cat; exit 7'", input="in")


def test_the_environment_is_cleared(sandbox, kind, monkeypatch):
    monkeypatch.setenv("JAVA_HOME", "/usr")
    monkeypatch.setenv("LD_LIBRARY_PATH", "/x")
    variables = expect(0, "PATH=/usr/bin:/bin:/usr/sbin:/sbin\n", f"{sandbox} -- env").splitlines()
    assert f"VEMO_SANDBOX={kind}" in variables
    assert not {"JAVA_HOME", "LD_LIBRARY_PATH", "VEMO_SANDBOX_KIND"} & {line.split("=")[0] for line in variables}


def test_it_holds_the_device_and_what_is_bound(sandbox, checkout):
    expect(0, "/srv/vemo/start", f"{sandbox} -- find /srv/vemo/start")
    expect(0, "/here/run", f"{sandbox} --read-only {checkout} /here -- find /here/run")
    expect(0, "", f"{sandbox} --state state -- sh -c 'echo a >/app/file; echo t >/tmp/file'")
    assert (read("state/app/file"), read("state/tmp/file")) == ("a\n", "t\n")


def test_it_has_the_addresses_that_it_is_given(sandbox, kind):
    if kind == "proot":
        expect(77, "no network has addresses of its own", f"{sandbox} --address 192.168.7.1 -- true")
        return
    expect(0, " 127.0.0.1/8 192.168.7.1/32 192.168.7.2/32",
           f"{sandbox} --address 192.168.7.1 --address 192.168.7.2 -- ip -brief -4 address")
    expect(0, NONE, f"{sandbox} --address 192.168.7.1 -- {CAPABILITIES}")


def test_nobody_has_capabilities(sandbox):
    expect(0, NONE, f"{sandbox} -- {CAPABILITIES}")
    expect(1, "Permission denied", f"{sandbox} -- sh -c 'echo x >/tmp/x; chmod 0 /tmp/x; cat /tmp/x'")


def test_what_a_command_leaves_behind_ends(sandbox):
    expect(0, "", f"flock held {sandbox} -- sh -c 'setsid sleep 1000 </dev/null >/dev/null 2>&1 &'")
    assert eventually(is_free)


@pytest.mark.parametrize("number", (signal.SIGTERM, signal.SIGKILL))
@pytest.mark.parametrize("who", ("exec {}", "{} & wait"), ids=("it", "its parent"))
def test_all_ends_when_it_is_ended(sandbox, who, number):
    command = f"flock --no-fork held {sandbox} --state state -- sh -c 'setsid sleep 1000 & echo >/tmp/begun; wait'"
    started = subprocess.Popen(["sh", "-c", who.format(command)])
    assert eventually(lambda: exists("state/tmp/begun"))
    started.send_signal(number)
    started.wait()
    assert eventually(is_free)
