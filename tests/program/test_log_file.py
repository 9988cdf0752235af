"""How log lines are written, and that no refusal by the log file or by standard error ends a request, not even those
that the kernel makes a signal or a wait of."""

import concurrent.futures
import fcntl
import os
import resource

import program
import pytest
from program import (CALLS, FRAME_ONLY, LOG, NEW_SETTINGS, OLD_SETTINGS, SUCCESS_LINES, expect_success, get, read, run,
                     write)

REQUEST = get("CanDetectTimeout=500")
# The kernel hands no longer text than this to a program, name, end and all.
LONGEST_OPTION = (131072 - len("JAVA_OPTIONS=") - 1) * "x"


# --- Each line is one write

# Where offsets of 32 bits end. Nothing but the end takes room on the disk.
@pytest.mark.parametrize("size", ((1 << 31) - 3, (1 << 32) - 3, 5 << 30), ids=("2 GiB", "4 GiB", "more"))
def test_grows_beyond(size):
    write(LOG, "")
    os.truncate(LOG, size)
    run(REQUEST.by("fake"))
    with open(LOG, "rb") as log:
        log.seek(size)
        added = log.read()
    assert b"src/SetObdConf" in added
    assert added.endswith(b"\n")


@pytest.mark.parametrize("asked, lines", (
    pytest.param(get(), 7, id="each"),
    pytest.param(REQUEST.having(JAVA_OPTIONS=LONGEST_OPTION), 5, id="the longest")))
def test_a_line_is_one_write(asked, lines):
    run(asked.by("fake").watched(LOG.parent))
    logged = read(LOG).splitlines(keepends=True)
    assert len(logged) == lines
    writes = [call for call in read(CALLS).splitlines() if call.startswith("write cgi.log ")]
    assert writes == [f"write cgi.log {len(line)}" for line in logged]
    if lines == 5:
        assert logged[2].endswith(f"JAVA_OPTIONS: {LONGEST_OPTION}\n")


# --- A log file that cannot be used: the page is whole, the value stored, the exit status 0

LIMIT = 1 << 20
JAVAS_ERROR = 'Exception in thread "main" java.io.FileNotFoundException: /tmp/cgi.log'


def limit_the_size_of_files():
    resource.setrlimit(resource.RLIMIT_FSIZE, (LIMIT, LIMIT))


def put_a_folder_in_its_place():
    LOG.mkdir()


def make_it_read_only():
    write(LOG, "an earlier request\n")
    LOG.chmod(0o444)


def put_it_on_a_full_disk():
    LOG.symlink_to("/dev/full")


def fill_it_to_the_limit():
    write(LOG, LIMIT * "\0")


def log_content():
    return read(LOG) if LOG.is_file() else None


# What the real Java VM adds: it opens the file itself.
@pytest.mark.parametrize("prepare, error, javas_error", (
    pytest.param(put_a_folder_in_its_place, "Can't open log file /tmp/cgi.log: Is a directory\n", JAVAS_ERROR,
                 id="folder"),
    pytest.param(make_it_read_only, "Can't open log file /tmp/cgi.log: Permission denied\n", JAVAS_ERROR,
                 id="read-only"),
    pytest.param(put_it_on_a_full_disk, "Can't write log file /tmp/cgi.log: No space left on device\n", "",
                 id="full disk"),
    pytest.param(fill_it_to_the_limit, "Can't write log file /tmp/cgi.log: File too large\n", "",
                 id="limit on the size of files")))
def test_a_refusal_is_reported_once_and_changes_nothing_else(old_settings, prepare, error, javas_error, vm):
    prepare()
    before = log_content()
    result = run(REQUEST.by(vm), preexec_fn=limit_the_size_of_files)
    if vm == "real" and javas_error:
        assert result.error.startswith(error + javas_error)
        error = result.error
    expect_success(result, error=error)
    program.expect_settings(NEW_SETTINGS)
    assert log_content() == before


@pytest.mark.parametrize("prepare", (put_a_folder_in_its_place, fill_it_to_the_limit), ids=("folder", "limit"))
def test_a_refusal_changes_nothing_where_nobody_reads_standard_error(old_settings, prepare, vm):
    prepare()
    before = log_content()
    ours, theirs = os.pipe()
    os.close(ours)
    with open(theirs, "wb") as error:
        expect_success(run(REQUEST.by(vm), stderr=error, preexec_fn=limit_the_size_of_files))
    program.expect_settings(NEW_SETTINGS)
    assert log_content() == before


def test_a_named_pipe_that_nobody_reads_is_reported_once(old_settings):
    """Java's own opening of such a pipe waits; nothing inside the program can help that."""
    os.mkfifo(LOG)
    expect_success(run(REQUEST.by("fake")), error="Can't open log file /tmp/cgi.log: No such device or address\n")
    program.expect_settings(NEW_SETTINGS)


def test_no_line_is_lost_to_a_full_pipe():
    os.mkfifo(LOG)
    reader = os.open(LOG, os.O_RDONLY | os.O_NONBLOCK)
    room = fcntl.fcntl(reader, fcntl.F_SETPIPE_SZ, 4096)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        result = pool.submit(run, REQUEST.having(JAVA_OPTIONS=LONGEST_OPTION[:3 * room]).by("fake"))
        with pytest.raises(concurrent.futures.TimeoutError):
            result.result(0.2)
        os.set_blocking(reader, True)  # from here on the writer is waited for
        with open(reader) as pipe:
            logged = pipe.read()
        expect_success(result.result())
    assert logged.count("\n") == len(SUCCESS_LINES)
    assert LONGEST_OPTION[:3 * room] in logged


def test_a_missing_class_is_described_on_standard_error(old_settings):
    put_a_folder_in_its_place()
    result = run(REQUEST.having(JAVA_CLASSPATH="/nowhere"))
    assert (result.page, result.status) == (FRAME_ONLY, 1)
    assert "NoClassDefFoundError: com/tarn/vemo/config/ConfigVemo" in result.error
    program.expect_settings(OLD_SETTINGS)
