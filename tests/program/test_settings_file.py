"""The settings file in every condition that a device can be in: whatever happens, it holds what it held or the new
value, whole, and the page reports success."""

import concurrent.futures
import errno
import fcntl
import itertools
import os
import re
import resource
import signal
import stat
from typing import NamedTuple

import program
import pytest
from program import CALLS, NEW_SETTINGS, SETTINGS, expect_success, get, read, run, write

FOLDER = SETTINGS.parent


def settings(value):
    """A settings file with this value, among others' settings."""
    return ("# Of the diagnostic runtime.\n[SETTINGS]\nVEMODRequestRetries = 2\n"
            f"VEMODCanDetectTimeout = {value}\n\n[CAN]\nTermination=0\n")


OLD = settings("300")


def write_old(path=SETTINGS):
    """Written long ago: a file that was written just now may be read again, which is more calls."""
    write(path, OLD)
    os.utime(path, (0, 0))


@pytest.fixture(autouse=True)
def old_file(no_settings):
    write_old()


def request(value="500"):
    return get(f"CanDetectTimeout={value}").by("fake")


def expect_stores(asked, value="500"):
    expect_success(run(asked), value)


def inode():
    return SETTINGS.stat().st_ino


def mode():
    return stat.S_IMODE(SETTINGS.stat().st_mode)


def expect_no_other_file():
    assert os.listdir(FOLDER) == [SETTINGS.name]


# --- Conditions

REPLACED, REWRITTEN, LEFT = "replaced", "rewritten in place", "left as it was"
OWN_MOUNT = ("--bind", str(SETTINGS), str(SETTINGS))
MOUNTS = pytest.mark.namespaces("nothing can be mounted")


def mounting(mounts, asked):
    """The request in a mount namespace of its own, if there are any."""
    if not mounts:
        return asked
    return asked._replace(words=["/usr/bin/bwrap", "--dev-bind", "/", "/", *mounts, *asked.words])


@pytest.mark.parametrize("file_mode, folder_mode, mounts, store", (
    pytest.param(0o644, 0o755, (), REPLACED, id="in an ordinary folder it is replaced"),
    pytest.param(0o444, 0o755, (), REPLACED, id="read-only it is replaced"),
    pytest.param(0, 0o755, (), LEFT, id="unreadable it is left"),
    pytest.param(0o644, 0o555, (), REWRITTEN, id="in a read-only folder it is rewritten"),
    pytest.param(0o444, 0o555, (), LEFT, id="read-only in a read-only folder it is left"),
    pytest.param(0o644, 0o755, ("--ro-bind", "/app", "/app"), LEFT, marks=MOUNTS, id="on a read-only mount it is left"),
    pytest.param(0o644, 0o755, OWN_MOUNT, REWRITTEN, marks=MOUNTS, id="mounted on its own it is rewritten")))
def test_gets_the_value_and_keeps_the_rest_or_stays_as_it_was(file_mode, folder_mode, mounts, store):
    SETTINGS.chmod(file_mode)
    FOLDER.chmod(folder_mode)
    for value in ("500", "50000", "5"):
        before = inode()
        expect_stores(mounting(mounts, request(value)), value)
        assert (inode() != before) == (store == REPLACED)
        assert mode() == file_mode
        expect_no_other_file()
        if store != LEFT:
            assert read(SETTINGS) == settings(value)
    SETTINGS.chmod(0o600)
    assert read(SETTINGS) == (OLD if store == LEFT else settings("5"))


@pytest.mark.parametrize("umask", (0o022, 0o027, 0), ids=oct)
def test_is_made_when_it_is_missing(umask):
    SETTINGS.unlink()
    expect_success(run(request(), umask=umask))
    program.expect_settings(NEW_SETTINGS)
    assert mode() == 0o666 & ~umask


@pytest.mark.namespaces("there is no small disk to fill")
def test_stays_as_it_was_on_a_full_disk(small_disk):
    write(small_disk / "obd.conf", OLD)
    program.fill(small_disk)
    SETTINGS.unlink()
    SETTINGS.symlink_to(small_disk / "obd.conf")
    expect_stores(request())
    # Where it is rewritten in place, only a longer text needs room.
    small_disk.chmod(0o555)
    expect_stores(request(20000 * "5"), 20000 * "5")
    assert read(SETTINGS) == OLD
    expect_stores(request("5"), "5")
    assert read(SETTINGS) == settings("5")
    assert sorted(os.listdir(small_disk)) == ["filler", "obd.conf"]


@pytest.mark.parametrize("folder_mode", (0o755, 0o555), ids=("replaced", "rewritten"))
def test_stays_as_it_was_at_the_limit_on_the_size_of_files(folder_mode):
    FOLDER.chmod(folder_mode)
    result = run(request(1000 * "5"), preexec_fn=lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (300, 300)))
    expect_success(result, 1000 * "5", "Can't write log file /tmp/cgi.log: File too large\n")
    assert read(SETTINGS) == OLD
    expect_no_other_file()


# A lease for reading is broken by a writer alone.
@pytest.mark.parametrize("path, folder_mode, how, lease", (
    pytest.param(SETTINGS, 0o755, "r+b", fcntl.F_WRLCK, id="read"),
    pytest.param(SETTINGS, 0o555, "rb", fcntl.F_RDLCK, id="rewritten"),
    pytest.param(program.LOG, 0o755, "r+b", fcntl.F_WRLCK, id="the log")))
def test_is_waited_for_while_another_process_holds_a_lease_on_it(path, folder_mode, how, lease):
    write(program.LOG, "an earlier request\n")
    FOLDER.chmod(folder_mode)
    previous = signal.signal(signal.SIGIO, signal.SIG_IGN)
    with open(path, how) as holder, concurrent.futures.ThreadPoolExecutor() as pool:
        fcntl.fcntl(holder, fcntl.F_SETLEASE, lease)
        result = pool.submit(run, request())
        with pytest.raises(concurrent.futures.TimeoutError):
            result.result(0.2)
        fcntl.fcntl(holder, fcntl.F_SETLEASE, fcntl.F_UNLCK)
        expect_success(result.result())
    signal.signal(signal.SIGIO, previous)
    assert read(SETTINGS) == settings("500")
    assert program.log_lines() == ["an earlier request", *program.SUCCESS_LINES]


def test_is_whole_after_requests_at_the_same_time():
    """One stores last, and none meets a part of another's text."""
    with concurrent.futures.ThreadPoolExecutor() as pool:
        for number in map(str, range(75)):
            values = (number, f"1000{number}", 90 * "5" + number, 3000 * "7" + number)
            for value, result in zip(values, pool.map(run, map(request, values))):
                expect_success(result, value)
            assert read(SETTINGS) in map(settings, values)
            expect_no_other_file()


@pytest.mark.parametrize("folder_mode, mounts", (
    pytest.param(0o555, (), id="in a read-only folder"),
    pytest.param(0o755, OWN_MOUNT, marks=MOUNTS, id="mounted on its own")))
def test_is_read_again_while_another_process_rewrites_it_but_not_for_ever(folder_mode, mounts):
    """A reader could meet a mix of two texts."""
    FOLDER.chmod(folder_mode)
    with concurrent.futures.ThreadPoolExecutor() as pool:
        result = pool.submit(run, mounting(mounts, request().watched(FOLDER)))
        while not result.done():
            os.utime(SETTINGS)
        expect_success(result.result())
    assert read(SETTINGS) == settings("500")
    made = calls()
    # Two to the end of the file, each time, with a hundred pauses; a busy machine may keep us from touching it.
    assert 2 < made[:made.index("open temporary 600")].count("pread obd.conf") <= 2 * 101


@pytest.mark.namespaces("nothing else can be traced")
@pytest.mark.parametrize("folder_mode", (0o755, 0o555), ids=("replaced", "rewritten"))
def test_is_not_locked_nor_is_the_log(folder_mode):
    """With the real Java VM and the options of the device."""
    FOLDER.chmod(folder_mode)
    asked = get("CanDetectTimeout=500").having(JAVA_OPTIONS="-XX:VMOptionsFile=/srv/vemo/java.options")
    strace = ["/usr/bin/strace", "-f", "-y", "-o", str(CALLS), "-e", "trace=openat,flock,fcntl"]
    expect_stores(asked._replace(words=strace + asked.words))
    made = read(CALLS)
    assert "obd.conf" in made
    assert "cgi.log" in made
    assert not re.search(r"flock\(|_(SETLKW?(64)?|SETLEASE)[,)]", made)


# --- The program's calls in the settings file's folder, as standin/preload/FailingFileCalls.cpp names them

ANOTHER = "4242 4343"  # user and group of a file that is not ours
CHANGE_OWNER = f"fchown temporary {ANOTHER}"
# The steps of a store by rename that can be refused.
REFUSABLE = ("open temporary 600", "flistxattr temporary", "fchmod temporary 644", "rename temporary obd.conf")


def calls():
    return re.sub(r"\.ini-\d+-\d+\.tmp", "temporary", read(CALLS)).splitlines()


def store_calls():
    """From the first that touches the disk."""
    made = calls()
    return made[made.index("open temporary 600"):]


@pytest.mark.parametrize("owner, change", ((None, []), (ANOTHER, [CHANGE_OWNER])), ids=("own", "another's"))
def test_content_is_on_the_disk_before_it_gets_its_name(owner, change):
    SETTINGS.chmod(0o640)
    expect_stores(request().watched(FOLDER).having(FAILING_FILE_CALLS_OWNER=owner))
    # The owner before the mode: a change of owner clears bits of the mode.
    assert store_calls() == [
        "open temporary 600", "fstat temporary", *change, "flistxattr temporary", "fchmod temporary 640",
        "pwrite temporary", "fsync temporary", "close temporary", "rename temporary obd.conf",
        "open .", "fsync .", "close ."]


def test_in_place_room_is_taken_first_and_the_end_cut_last():
    FOLDER.chmod(0o555)
    before = ["open temporary 600", "open obd.conf", "fstat obd.conf", "pread obd.conf", "pread obd.conf",
              "fstat obd.conf"]
    after = ["pwrite obd.conf", "ftruncate obd.conf", "fstat obd.conf", "pread obd.conf", "pread obd.conf",
             "fsync obd.conf", "close obd.conf"]
    expect_stores(request("50000").watched(FOLDER), "50000")
    assert store_calls() == [*before, "posix_fallocate obd.conf", *after]
    expect_stores(request("5").watched(FOLDER), "5")
    assert store_calls() == before + after


def failing(call, error):
    """A request in which the call will fail so. The file is another's where its owner is changed."""
    asked = request().having(FAILING_FILE_CALLS_OWNER=ANOTHER if call == CHANGE_OWNER else None)
    run(asked.watched(FOLDER))
    number = calls().index(call) + 1
    write_old()
    return asked.watched(FOLDER).having(FAILING_FILE_CALLS=str(number), FAILING_FILE_CALLS_ERROR=str(error))


def name_of(call_or_error):
    return errno.errorcode.get(call_or_error, call_or_error)


# EINVAL: a user namespace has no number for the owner.
@pytest.mark.parametrize("call, error", (
    *itertools.product(REFUSABLE, (errno.EACCES, errno.EPERM, errno.EROFS, errno.EBUSY, errno.EXDEV)),
    (CHANGE_OWNER, errno.EPERM), (CHANGE_OWNER, errno.EINVAL)), ids=name_of)
def test_is_rewritten_in_place_where_permission_is_denied(call, error):
    asked = failing(call, error)
    before = inode()
    expect_stores(asked)
    assert read(SETTINGS) == settings("500")
    assert inode() == before
    expect_no_other_file()


@pytest.mark.parametrize("call, error", (
    *itertools.product(REFUSABLE, (errno.ENOSPC, errno.EDQUOT, errno.EIO, errno.ENFILE)),
    (CHANGE_OWNER, errno.ENOSPC)), ids=name_of)
def test_is_not_even_opened_where_the_disk_is_full_or_broken(call, error):
    expect_stores(failing(call, error))
    assert read(SETTINGS) == OLD
    assert "open obd.conf" not in store_calls()


def test_temporary_file_that_is_gone_is_made_anew():
    """A process of another container, with other process ids, took it for a leftover."""
    expect_stores(failing("rename temporary obd.conf", errno.ENOENT))
    assert read(SETTINGS) == settings("500")
    expect_no_other_file()


@pytest.mark.parametrize("folder_mode, file_mode, is_replaced", (
    (0o2775, 0o664, True), (0o775, 0o664, False), (0o2775, 0o644, False)),
    ids=("shared by its group", "folder not shared", "file not shared"))
def test_anothers_is_replaced_where_it_is_its_groups(folder_mode, file_mode, is_replaced):
    FOLDER.chmod(folder_mode)
    SETTINGS.chmod(file_mode)
    asked = failing(CHANGE_OWNER, errno.EPERM)
    before = inode()
    expect_stores(asked)
    assert read(SETTINGS) == settings("500")
    assert mode() == file_mode
    assert (inode() != before) == is_replaced
    assert ("fchown temporary 4294967295 4343" in store_calls()) == is_replaced


# --- Each call

class Situation(NamedTuple):
    """The settings file before a request for a value, and what it may be afterwards."""
    value: str = "500"
    before: str = OLD
    after: str = settings("500")
    is_link: bool = False
    folder_mode: int = 0o755

    def request(self):
        """With few bytes at a time, so that a store is many calls."""
        program.clear(FOLDER)
        if self.is_link:
            write_old(FOLDER / "target")
            SETTINGS.symlink_to("target")
        elif self.before:
            write_old()
        FOLDER.chmod(self.folder_mode)
        return request(self.value).watched(FOLDER).having(FAILING_FILE_CALLS_PIECE="16")

    def each_call(self, error, and_later=""):
        """Makes the request again and again, each time with another of its calls chosen to fail, by a kill where there
        is no error, and with "-" all later ones too. Gives the call and the request's result."""
        expect_stores(self.request(), self.value)
        assert read(SETTINGS) == self.after
        for number, call in enumerate(calls(), 1):
            yield call, run(self.request().having(FAILING_FILE_CALLS=f"{number}{and_later}",
                                                  FAILING_FILE_CALLS_ERROR=error and str(error)))
            assert SETTINGS.is_symlink() == self.is_link, call
            assert read(SETTINGS) in (self.before, self.after), call


USUAL = Situation("50000", after=settings("50000"))
BY_RENAME = {"a file": USUAL, "no file": Situation(before="", after=NEW_SETTINGS), "a link": Situation(is_link=True)}
IN_PLACE = {"longer in place": USUAL._replace(folder_mode=0o555),
            "shorter in place": Situation("5", after=settings("5"), folder_mode=0o555)}


def rows(situations):
    return pytest.mark.parametrize("situation", situations.values(), ids=situations.keys())


@rows({"a file": USUAL, **IN_PLACE})
def test_a_read_or_write_that_a_signal_interrupts_is_repeated(situation):
    for call, result in situation.each_call(errno.EINTR):
        expect_success(result, situation.value)
        if call.startswith(("pread ", "pwrite ")):
            assert read(SETTINGS) == situation.after, call


@rows(BY_RENAME)
def test_a_kill_at_any_call_leaves_it_old_or_new(situation):
    for call, result in situation.each_call(None):
        assert result.status == -signal.SIGKILL, call


# Not all from one on in place: nothing could put the old content back.
@pytest.mark.parametrize("error", (errno.ENOSPC, errno.EACCES), ids=errno.errorcode.get)
@pytest.mark.parametrize("situation, and_later", (
    *(pytest.param(situation, "", id=name) for name, situation in {**BY_RENAME, **IN_PLACE}.items()),
    *(pytest.param(situation, "-", id=f"{name}, and all later calls") for name, situation in BY_RENAME.items())))
def test_a_failure_of_any_call_leaves_it_old_or_new(situation, and_later, error):
    for call, result in situation.each_call(error, and_later):
        expect_success(result, situation.value)
        assert not list(FOLDER.glob("*.tmp")), call
