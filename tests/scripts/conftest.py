"""Tests of ./run, ./test and ./package, of what they share and of the sandbox, from outside:

    python3 -B -m pytest tests/scripts -k help

Each works in a copy of the scripts, so that a running device and the build folder stay as they are.
"""

import os
import pathlib
import shutil
import subprocess
import tempfile

import pytest

from program import read  # on the path by ../conftest.py

SOURCE = pathlib.Path(__file__).resolve().parents[2]
SCRIPTS = ("./run", "./test", "./package")
# For sh: a minute, in steps that an interrupt shortens.
MINUTE = "i=0; while [ $((i += 1)) -lt 1200 ]; do sleep 0.05; done"


def run(command, **more):
    """The exit status of a command of bash's, and what it says, to both streams."""
    more = {"stdout": subprocess.PIPE, "stderr": subprocess.STDOUT, "timeout": 100, **more}
    done = subprocess.run(["/bin/bash", "-c", command], text=True, check=False, **more)
    return done.returncode, done.stdout


def expect(status, text, command, **more):
    """It ends with the status and says the text; gives all that it says."""
    found, said = run(command, **more)
    assert found == status, said
    assert text in said
    return said


def expect_in_setup(status, text, commands, **more):
    """These use what the scripts share."""
    return expect(status, text, f"set -euo pipefail; . tools/setup.sh; {commands}", **more)


def append(file, text):
    pathlib.Path(file).parent.mkdir(parents=True, exist_ok=True)
    with open(file, "a", encoding="utf-8") as opened:
        opened.write(text)


def fake(tool, commands):
    """A program for sh that stands before the machine's own."""
    pathlib.Path("bin", tool).write_text(f"#!/bin/sh\n{commands}\n", encoding="utf-8")
    pathlib.Path("bin", tool).chmod(0o755)


def is_free():
    """Whether no process lives that has inherited the file `held`, which is locked as long."""
    return run("flock --nonblock held true")[0] == 0


@pytest.fixture
def checkout(monkeypatch):
    """The copy, which is the current folder."""
    path = tempfile.mkdtemp(prefix="scripts-")
    monkeypatch.chdir(path)
    monkeypatch.setenv("TMPDIR", path)
    monkeypatch.setenv("PATH", f"{path}/bin:{os.environ['PATH']}:/usr/sbin:/sbin")
    monkeypatch.delenv("VEMO_SANDBOX_KIND", raising=False)
    expect(0, "", f"mkdir bin; cp -r {SOURCE}/{{run,test,package,tools,standin,packaging,CMakeLists.txt}} .")
    yield path
    shutil.rmtree(path)


@pytest.fixture
def machine(checkout, monkeypatch):
    """Everything is installed there, and nothing is done: each call is noted in the file `called`.

    What runs by `hold` keeps the file `held` locked until the last of it has ended. `sleep_on` leaves a child behind,
    which takes its time."""
    fake("dpkg-query", "echo installed")
    for tool in ("apt-get", "sudo", "npm", "cmake", "ninja", "dpkg-buildpackage"):
        fake(tool, f"echo {tool} >>{checkout}/called")
    fake("hold", f'exec 9>>{checkout}/held; flock --shared 9; exec "$@"')
    fake("clear_up", f"trap 'sleep 0.5 && : >{checkout}/cleared; exit' INT; : >{checkout}/begun; {MINUTE}")
    fake("sleep_on", "hold env --default-signal=INT clear_up & wait")
    expect(0, "", "ln -sf /bin/true tools/unpack-packages")
    append("tools/setup.sh", "is_listening() { false; }\n")  # a device may be running
    monkeypatch.setenv("VEMO_SANDBOX_KIND", "bwrap")
    return checkout


def add_test(test, command="true", label=""):
    """FOLDER/NAME: of that build folder. It notes in the file `ran` that it ran; the command is for sh."""
    folder, name = test.split("/")
    append(f"{folder}/CTestTestfile.cmake",
           f'add_test([=[{name}]=] "sh" "-c" [=[echo {test} >>{os.getcwd()}/ran; {command}]=])\n'
           f'set_tests_properties([=[{name}]=] PROPERTIES LABELS "{label}")\n')


def expect_tests(arguments, status, text, *tests):
    """./test with the arguments runs these."""
    pathlib.Path("ran").write_text("", encoding="utf-8")
    expect(status, text, f"./test {arguments}")
    assert sorted(read("ran").split()) == sorted(tests)
