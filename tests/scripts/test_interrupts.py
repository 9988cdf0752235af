"""Ctrl-C, and a reader that goes away: one line is said, and nothing is left running."""

import contextlib
import os
import pathlib
import pty
import signal
import subprocess
from os.path import exists

import pytest

from conftest import MINUTE, SCRIPTS, add_test, expect_tests, fake, is_free
from program import eventually, read

# The terminal's shell stays: with it all of the terminal would be hung up.
SHELL = "trap : INT; {}; status=$?; flock --nonblock held true || echo It has left something running; exit $status"


def interrupt(command):
    """At a terminal, by Ctrl-C as soon as the file `begun` is there."""
    pathlib.Path("begun").unlink(missing_ok=True)
    shell, terminal = pty.fork()
    if shell == 0:
        signal.signal(signal.SIGINT, signal.SIG_DFL)
        os.execvp("bash", ["bash", "-c", SHELL.format(command)])
    assert eventually(lambda: exists("begun"))
    os.write(terminal, b"\x03")
    shown = b""
    with contextlib.suppress(OSError):  # at the end
        while text := os.read(terminal, 4096):
            shown += text
    _, status = os.waitpid(shell, 0)
    os.close(terminal)
    assert os.waitstatus_to_exitcode(status) == 130, shown
    script = command.split()[0].removeprefix("./")
    assert shown.decode().partition("^C")[2].partition("\n")[2] == f"{script}: stopped\r\n"


# It waits for its compilers and says a word.
NINJA = ('trap "wait; echo ninja: build stopped: interrupted by user.; exit 2" INT; echo "[1/2] It"; '
         "sleep_on & wait")
INSTALLING = {"dpkg-query": "", "sudo": 'exec "$@"', "apt-get": "exec sleep_on"}


@pytest.mark.parametrize("tools, commands", (
    (INSTALLING, SCRIPTS),
    ({"cmake": "exec sleep_on"}, ("./run --port 8099", "./test")),
    ({"ninja": NINJA}, ("./run --port 8099", "./test")),
    ({"dpkg-buildpackage": "exec sleep_on"}, ("./package",))),
    ids=("installing", "configuring", "building", "packaging"))
def test_while_it_waits_for_a_tool(machine, tools, commands):
    for tool, does in tools.items():
        fake(tool, does)
    for command in commands:
        interrupt(command)


def test_while_testing(machine):
    """A test that clears up, one that does not end of an interrupt, and what a test leaves in a session of its own."""
    add_test("build/bad", "false")
    add_test("build/clearing", "sleep 0.5; hold env --default-signal=INT setsid sleep 60 & hold clear_up")
    add_test("build/stubborn", f"trap '' INT TERM; hold sh -c '{MINUTE}'")
    add_test("build-clang/good")
    interrupt("./test -j 1 -E stubborn")
    assert exists("cleared")
    # What failed until then is what failed.
    expect_tests("--rerun-failed", 1, "\n0 passed, 1 failed, 0 skipped", "build/bad")
    interrupt("./test -j 3")


def read_until(line, command):
    """The reader goes away behind that line."""
    with subprocess.Popen(["env", "--default-signal=PIPE,INT", *command.split()], text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE) as process:
        assert any(line in said for said in process.stdout)
        process.stdout.close()
        assert process.stderr.read() == ""
    assert process.returncode in (0, -signal.SIGPIPE, 128 + signal.SIGPIPE)
    assert is_free()


def test_it_ends_when_nobody_reads(machine):
    add_test("build/sleeping", "hold env --default-signal=INT setsid sleep 60 & wait")
    for name in "abcde":
        add_test(f"build/{name}", "sleep 0.3")
    fake("dpkg-buildpackage", ": >../p_1.deb; : >../p-dbgsym_1.deb")
    read_until("g++", "./test")
    read_until("Building", "./package")
    pathlib.Path("ran").unlink(missing_ok=True)
    read_until("Test #2: a ", "./test -j 2 --verbose")
    assert "sleeping" in read("ran")
