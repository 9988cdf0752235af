"""The page on its way out: what is written when, and what becomes of the request when standard output breaks."""

import fcntl
import os
import select
import signal
import struct
import subprocess
import termios

import program
import pytest
from program import (CONTENT_OPENING, FRAME_OPENING, LOG, NEW_SETTINGS, OLD_SETTINGS, SETTINGS, SUCCESS_LINES,
                     WARNING_PAGE, end, get, log_lines, post, read, run, start, success_page)

REQUEST = get("CanDetectTimeout=500")
# What a pipe can hold before it is read again: one page of memory.
ROOM = os.sysconf("SC_PAGESIZE")


def expect_stored_and_logged(status):
    """The request succeeded, no matter who saw its page."""
    assert status == 0
    program.expect_settings(NEW_SETTINGS)
    assert log_lines() == SUCCESS_LINES


def read_once(pipe):
    """What one read gives; empty at the end, or when nothing comes for long."""
    is_ready, _, _ = select.select([pipe], [], [], 20)
    return os.read(pipe.fileno(), 65536).decode("latin-1") if is_ready else ""


# --- Each line is written at its end

def writes_of(request):
    """Every write to standard output: a pipe in packet mode keeps them apart."""
    ours, theirs = os.pipe2(os.O_DIRECT | os.O_CLOEXEC)
    with open(ours, "rb", buffering=0) as page, start(request.by("fake"), stdout=theirs):
        os.close(theirs)
        return [*iter(lambda: read_once(page), "")]


@pytest.mark.parametrize("query, page", (
    pytest.param("CanDetectTimeout=500", success_page(), id="success"),
    pytest.param("", WARNING_PAGE, id="warning")))
def test_every_line_is_written_at_its_end(query, page):
    # The line after a line break is written with it.
    lines = page.replace("<br />\n", "<br />").splitlines(keepends=True)
    assert writes_of(get(query)) == [line.replace("<br />", "<br />\n") for line in lines]


def test_a_line_end_in_the_value_is_not_flushed():
    assert "<p>Set CanDetectTimeout to a\nb ms.\n" in writes_of(get("CanDetectTimeout=a%0Ab"))


# --- Standard descriptors that are closed

def run_without(closed, request):
    return run(request, preexec_fn=lambda: [os.close(descriptor) for descriptor in closed])


ANY_CLOSED = pytest.mark.parametrize("closed", ((0,), (1,), (2,), (0, 1), (0, 2), (1, 2), (0, 1, 2)), ids=str)


@ANY_CLOSED
def test_closed_descriptors_change_nothing_but_who_sees_the_page(closed, vm):
    result = run_without(closed, REQUEST.by(vm))
    assert (result.page, result.error) == ("" if 1 in closed else success_page(), "")
    expect_stored_and_logged(result.status)


@ANY_CLOSED
def test_closed_descriptors_keep_the_page_out_of_the_log_of_a_failure(closed, vm):
    request = REQUEST.by(vm).having(JAVA_CLASSPATH="/nowhere", FAKE_VM_FAILS="FindClass com/")
    assert run_without(closed, request).status == 1
    assert "Content-Type" not in read(LOG)
    assert "</html>" not in read(LOG)
    assert program.statements()[-1] == "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found"


# --- Requests with a body that comes late

def start_late(vm, value="500"):
    """Posts the value, but holds the body back, for `send`; the page is read by hand."""
    return start(post(f"CanDetectTimeout={value}").by(vm), stdin=subprocess.PIPE, stdout=subprocess.PIPE, bufsize=0,
                 pipesize=ROOM)


def send(process, value="500"):
    process.stdin.write(f"CanDetectTimeout={value}".encode())


def read_page(process, last=None):
    """Until it ends so, or to its end."""
    page = ""
    while not (last and page.endswith(last)) and (more := read_once(process.stdout)):
        page += more
    return page


def is_full(pipe):
    return struct.unpack("i", fcntl.ioctl(pipe, termios.FIONREAD, bytes(4))) == (ROOM,)


def test_a_kill_before_the_body_leaves_a_page_of_whole_lines_and_the_settings(old_settings, vm):
    with start_late(vm) as process:
        page = read_page(process, CONTENT_OPENING)
        assert end(process) == -signal.SIGKILL
        assert page + read_page(process) == FRAME_OPENING + CONTENT_OPENING
    program.expect_settings(OLD_SETTINGS)
    assert log_lines() == SUCCESS_LINES


def test_a_kill_in_the_echo_leaves_the_settings(old_settings, vm):
    value = 3 * ROOM * "7"
    with start_late(vm, value) as process:
        page = read_page(process, CONTENT_OPENING)
        send(process, value)
        assert program.eventually(lambda: is_full(process.stdout))
        assert end(process) == -signal.SIGKILL
        assert page + read_page(process) == success_page(value)[:len(page) + ROOM]
    program.expect_settings(OLD_SETTINGS)


def test_a_kill_after_the_store_leaves_the_echo_and_the_new_settings(old_settings, vm):
    # The echo fills the page's room, but for less than the success text takes.
    value = (ROOM - 64) * "7"
    with start_late(vm, value) as process:
        page = read_page(process, CONTENT_OPENING)
        send(process, value)
        new_settings = f"[SETTINGS]\nVEMODCanDetectTimeout={value}\n"
        assert program.eventually(lambda: read(SETTINGS) == new_settings)
        assert end(process) == -signal.SIGKILL
        echoed, _, _ = success_page(value).partition("</p>Set new option")
        assert page + read_page(process) == echoed
    program.expect_settings(new_settings)


# --- A page without a reader

def test_on_a_full_disk_the_option_is_stored(old_settings, vm):
    with open("/dev/full", "wb") as full:
        result = run(REQUEST.by(vm), stdout=full)
    assert result.error == ""
    expect_stored_and_logged(result.status)


def test_a_reader_that_is_not_there_ends_the_request_at_its_first_line(old_settings, vm):
    ours, theirs = os.pipe()
    os.close(ours)
    with open(theirs, "wb") as page:
        assert run(REQUEST.by(vm), stdout=page).status == -signal.SIGPIPE
    program.expect_settings(OLD_SETTINGS)
    assert log_lines() == ["DEBUG src/SetObdConf 30 main"]


def test_a_reader_that_leaves_ends_the_request_before_the_store_unless_the_real_vm_runs(old_settings, vm):
    """The real VM, once it runs, catches the signal."""
    with start_late(vm) as process:
        read_page(process, CONTENT_OPENING)
        process.stdout.close()
        send(process)
        status = process.wait(20)
    if vm == "real":
        expect_stored_and_logged(status)
    else:
        assert status == -signal.SIGPIPE
        program.expect_settings(OLD_SETTINGS)
