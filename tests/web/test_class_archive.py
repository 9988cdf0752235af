"""The CDS archive: made by one command from a request, used while nothing has changed, and never in the way.
`class-archive run` does with it what the gate in front of the programs does."""

import fcntl
import os
import pathlib
import re
import shlex
import shutil
import subprocess
from concurrent.futures import ThreadPoolExecutor

import pytest

import device
import logfile
from device import FIELD, LOG, SETTINGS, eventually

TOOL = "/srv/vemo/bin/class-archive"
PROGRAM = "/srv/vemo/htdocs/setobdconf.cgi"
OPTIONS = pathlib.Path("/tmp/shipped.options")
FOLDER = pathlib.Path("/app/class-archive")
ARCHIVE, RECORD, OPTIONS_WITH_IT = (FOLDER / name for name in ("classes.jsa", "record", "java.options"))
FILES = {"classes.jsa", "java.options", "record", "sum"}
KEPT, COPY = pathlib.Path("/app/kept"), pathlib.Path("/app/copy")
# A Java VM that can be changed: the program's own, linked but for the library and the launcher.
VM = pathlib.Path("/tmp/vm")
LIBRARY = VM / "lib/server/libjvm.so"
LIBRARY_ASIDE = LIBRARY.with_suffix(".aside")
BY_OUR_VM = {"LD_LIBRARY_PATH": str(LIBRARY.parent)}
IN_FRONT = {"LD_LIBRARY_PATH": os.environ.get("LD_LIBRARY_PATH", "")}
MAKING = 150  # seconds: on a busy machine, where several wait for one another
DONE = 0, b"", ""

pytestmark = pytest.mark.skipif(
    os.environ.get("VEMO_SANDBOX") == "proot",
    reason="Where namespaces are refused, a shell does not see what is executable in the sandbox alone")


# --- The Java VM, the archive, the request

def copy_vm():
    linked = subprocess.run([PROGRAM], env={**IN_FRONT, "LD_TRACE_LOADED_OBJECTS": "1"}, stdout=subprocess.PIPE,
                            text=True, check=True).stdout
    own = pathlib.Path(re.search(r"(\S+)/lib/server/libjvm\.so", linked)[1]).resolve()
    subprocess.run(["/bin/cp", "-as", f"{own}/.", VM], check=True)
    # The launcher takes the folder of libjli.so for its home.
    for name in ("bin/java", "lib/libjli.so", "lib/server/libjvm.so", "lib/server/classes.jsa"):
        (VM / name).unlink()
        shutil.copy(own / name, VM / name)


def run(words, environment, **how):
    """Exit status, output and error."""
    done = subprocess.run(words, env=environment, capture_output=True, timeout=MAKING, check=False, **how)
    return done.returncode, done.stdout, done.stderr.decode()


def making(folder=FOLDER, program=PROGRAM):
    return ["/srv/vemo/make-class-archive", program, OPTIONS, "/srv/vemo/java", folder], {
        "PATH": "/usr/bin:/bin", **BY_OUR_VM}


def make(*what, **how):
    return run(*making(*what), **how)


REQUEST = {"REQUEST_METHOD": "GET", "QUERY_STRING": FIELD + "500", "JAVA_CLASSPATH": "/build/tests/java/mapping",
           "JAVA_OPTIONS": f"-XX:VMOptionsFile={OPTIONS}", **BY_OUR_VM}


def serve(environment, words):
    """The lines that the program got from its Java VM; JAVA_OPTIONS as it found them."""
    LOG.unlink(missing_ok=True)
    status, output, error = run(words, environment)
    text = LOG.read_text()
    assert (status, error) == (0, "")
    assert output.partition(b"\n\n")[2] == device.run_program(FIELD + "500")
    (options,) = [line for _, line in logfile.statements(text) if "JAVA_OPTIONS: " in line]
    return logfile.foreign_lines(text), options.rstrip("\n").partition("JAVA_OPTIONS: ")[2]


def expect_used(more=(), words=(TOOL, "run", FOLDER, PROGRAM)):
    expected = [f"mapped {ARCHIVE}"], f"-XX:VMOptionsFile={OPTIONS_WITH_IT}"
    assert serve({**REQUEST, **dict(more)}, words) == expected


def expect_not_used(more=(), folder=FOLDER):
    """But the options that it came with, and the VM's own archive."""
    environment = {**REQUEST, **dict(more)}
    lines, options = serve(environment, [TOOL, "run", folder, PROGRAM])
    assert options == environment["JAVA_OPTIONS"]
    assert not any(str(folder) in line or str(FOLDER) in line for line in lines)


def mismatch():
    """What `class-archive fits` says does not fit."""
    status, output, error = run([TOOL, "fits", FOLDER], REQUEST)
    assert (status, output) == (1, b"")
    return error


def expect_made_anew(**how):
    assert make(**how) == DONE
    expect_used()


@pytest.fixture(scope="module")
def made():
    device.reset()
    copy_vm()
    shutil.copy("/srv/vemo/java.options", OPTIONS)
    SETTINGS.unlink()
    assert make() == DONE
    assert not SETTINGS.exists(), "making it stored something"
    shutil.copytree(FOLDER, KEPT)


@pytest.fixture(autouse=True)
def archive(made):
    """There, and fitting."""
    device.reset()
    shutil.copy("/srv/vemo/java.options", OPTIONS)
    if LIBRARY_ASIDE.exists():
        LIBRARY_ASIDE.rename(LIBRARY)
    shutil.rmtree(FOLDER, ignore_errors=True)
    shutil.copytree(KEPT, FOLDER)
    assert run([TOOL, "record", FOLDER, OPTIONS, PROGRAM, LIBRARY, VM / "lib/modules"], REQUEST) == DONE


# --- Used

def test_is_used_with_another_class_path():
    expect_used({"JAVA_CLASSPATH": "/nowhere:/build/tests/java/mapping"})


def test_is_used_behind_the_gate():
    expect_used({"CGI_GATE_SLOT_FILE": "/tmp/gate", "CGI_GATE_SLOTS": "1", "CGI_GATE_QUEUE_TIMEOUT": "20",
                 "CGI_GATE_RUN_TIMEOUT": "20", "CGI_GATE_CDS_ARCHIVE": FOLDER}, ["/srv/vemo/bin/cgi-gate", PROGRAM])


# --- Not used

KEEPING_ITS_TIME = "chmod u+w classes.jsa; touch -r classes.jsa /tmp/time; {}; touch -r /tmp/time classes.jsa"


@pytest.mark.parametrize("happens, named", [pytest.param(*change, id=name) for name, change in {
    "no folder": (f"rm -r {FOLDER}", "no record"),
    "no archive": ("rm -f classes.jsa", "classes.jsa"),
    "no options with it": ("rm java.options", "java.options"),
    "archive unreadable": ("chmod 0 classes.jsa", "classes.jsa"),
    "archive cut short": (KEEPING_ITS_TIME.format("truncate --size=-1 classes.jsa"), "classes.jsa"),
    "archive written to": ("touch classes.jsa", "classes.jsa"),
    "a copy in its place": ("cp -p classes.jsa copy; mv -f copy classes.jsa", "classes.jsa"),
    "the VM changed": (f"touch {LIBRARY}", "libjvm.so"),
    "no VM": (f"mv {LIBRARY} {LIBRARY_ASIDE}", "libjvm.so"),
    "options changed": (f"echo -Dvemo.greeting=other >>{OPTIONS}", "shipped.options"),
    "a pipe for a record": ("rm record; mkfifo record", "JAVA_OPTIONS"),  # nothing waits for it
    "more behind it": ("printf more >>record", "goes on after its end"),
    "a zero behind it": (r"printf '\0' >>record", "no record"),
    "a record that is too large": ("yes | head --bytes=1M >record", "no record"),
}.items()])
def test_is_not_used_after_a_change(happens, named):
    subprocess.run(["/bin/sh", "-ec", happens], cwd=FOLDER, check=True)
    assert named in mismatch()
    expect_not_used()


def test_is_not_used_with_another_vm_or_options_or_in_a_copied_folder():
    """Whose record vouches for the files of the folder that it is a copy of."""
    expect_not_used(IN_FRONT)
    expect_not_used({"JAVA_OPTIONS": "-Xmx16m"})
    expect_not_used(folder=shutil.copytree(FOLDER, COPY))


# --- The record

def test_a_record_cut_anywhere_fits_nothing():
    record = RECORD.read_bytes()
    assert record.endswith(b"\nend\n")
    for length in range(len(record)):
        RECORD.write_bytes(record[:length])
        mismatch()
    expect_not_used()


@pytest.mark.parametrize("file, value, why", [
    (OPTIONS, "one line\nand another", "Invalid argument"), (OPTIONS, "x" * 5000, "Invalid argument"),
    ("/nowhere", "", "No such file or directory"),
], ids=["two lines", "too long", "no file"])
def test_what_no_line_holds_leaves_no_record(file, value, why):
    made = run([TOOL, "record", FOLDER, file], {**BY_OUR_VM, "JAVA_OPTIONS": value})
    assert made == (1, b"", f"class-archive: record: {why}\n")
    assert not RECORD.exists()


# --- Made anew

def test_is_not_made_again_while_it_fits():
    before = ARCHIVE.stat()
    assert make() == DONE
    assert ARCHIVE.stat().st_mtime_ns == before.st_mtime_ns


def test_damage_behind_the_systems_back_is_found_at_the_next_start():
    """Which changes no time stamp."""
    before = ARCHIVE.stat()
    ARCHIVE.chmod(0o600)
    text = bytearray(ARCHIVE.read_bytes())
    text[len(text) // 2] ^= 0xff
    ARCHIVE.write_bytes(text)
    os.utime(ARCHIVE, ns=(before.st_atime_ns, before.st_mtime_ns))
    expect_made_anew()
    assert ARCHIVE.stat().st_ino != before.st_ino


def test_is_made_anew_for_a_changed_vm_at_a_terminal():
    """What was there is read-only, and at a terminal mv asks. Nobody answers."""
    os.utime(LIBRARY)
    words, environment = making()
    at_a_terminal = ["/usr/bin/script", "--quiet", "--return", "--command", shlex.join(map(str, words)), "/dev/null"]
    assert run(at_a_terminal, environment, stdin=subprocess.DEVNULL) == DONE
    expect_used()


def test_is_made_without_standard_input_and_with_options_whose_last_line_has_no_end():
    OPTIONS.write_text(OPTIONS.read_text() + "-Dvemo.greeting=other")
    expect_made_anew(preexec_fn=lambda: os.close(0))


@pytest.mark.parametrize("begun", ["options", "list", "empty", "java.options"])
def test_making_that_was_killed_leaves_the_request_without_and_is_made_up_for(begun):
    """What it has started runs on, and is waited for."""
    RECORD.unlink()
    words, environment = making()
    with subprocess.Popen(words, env=environment, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL) as killed:
        assert eventually((FOLDER / "new" / begun).exists, MAKING)
        killed.kill()
    assert "no record" in mismatch()
    expect_made_anew()
    assert set(os.listdir(FOLDER)) == FILES


def test_is_made_once_by_several_at_once():
    for _ in range(5):
        shutil.rmtree(FOLDER)
        LOG.write_bytes(b"")
        with ThreadPoolExecutor(5) as makers:
            assert [maker.result() for maker in [makers.submit(make) for _ in range(5)]] == 5 * [DONE]
        assert LOG.read_text().count(" main\n") == 1
        assert set(os.listdir(FOLDER)) == FILES
        expect_used()


def test_the_lock_is_not_waited_for_for_ever():
    with open(RECORD, encoding="utf-8") as one, open(RECORD, encoding="utf-8") as other:
        fcntl.flock(other, fcntl.LOCK_EX)
        status, _, error = run([TOOL, "lock", "1"], {}, stdin=one)
        assert (status, "another one" in error) == (1, True)
        fcntl.flock(other, fcntl.LOCK_UN)
        assert run([TOOL, "lock", "1"], {}, stdin=one) == DONE


# --- Not to be made

@pytest.mark.parametrize("program, option, words", [
    ("/bin/true", "", ["finds no Java VM"]), (PROGRAM, "-Xmx1k\n", [str(OPTIONS), "heap size"]),
], ids=["no Java VM", "options that it refuses"])
def test_making_that_fails_says_why_and_leaves_no_record(program, option, words):
    ARCHIVE.unlink()
    OPTIONS.write_text(OPTIONS.read_text() + option)
    status, _, error = make(FOLDER, program)
    assert status == 1
    assert [word for word in words if word not in error] == [], error
    assert not RECORD.exists()


def test_a_folder_that_cannot_be_written_is_no_archive():
    assert make("/srv/vemo/class-archive")[0] == 1
