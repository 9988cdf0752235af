"""Hostile requests to the unmodified program. Whatever one sends: the page, the exit status, the settings file, the log
file and the two folders fit together. That the value is taken from the right field is proved elsewhere.

With a seed of one's own: tests/in-sandbox build hostile/test_hostile_requests.py --long --hypothesis-seed=7"""

import collections
import os
import re
import resource
import signal

import pytest
from hypothesis import HealthCheck, Phase, given, settings
from hypothesis import strategies as st

import program
from program import CONTENT_OPENING, FRAME_ONLY, FRAME_OPENING, LOG, REDIRECTION, SETTINGS, WARNING_PAGE, read, run
from strategies import KNOWN, requests

# The CGI library allocates what a request announces, and fills it. The real Java VM reserves some GiB.
MEMORY = {"fake": 1 << 30, "real": 4 << 30}

ABOVE = "; Of the runtime.\n[RUNTIME]\nVEMODCanDetectTimeout=1\n\n[SETTINGS]\nVEMODRequestRetries = 2\n"
BELOW = "\n[CAN]\n# Lines.\nTermination=0\n"
DOS = "[CAN]\r\nTermination=0\r\n\r\n[SETTINGS]\r\nVEMODCanDetectTimeout="
# A settings file that a request meets, and what success leaves before and behind the value.
SETTINGS_FILES = {
    "key": (f"{ABOVE}VEMODCanDetectTimeout = 300 {BELOW}", f"{ABOVE}VEMODCanDetectTimeout = ", f" {BELOW}"),
    "no file": (None, "[SETTINGS]\nVEMODCanDetectTimeout=", "\n"),
    "no key": (ABOVE + BELOW, f"{ABOVE}VEMODCanDetectTimeout=", f"\n{BELOW}"),
    "DOS": (DOS + r'"3\n"', DOS, ""),
}
ESCAPES = {'"': r"\"", "\\": r"\\", "\n": r"\n", "\r": r"\r", "\0": r"\0"}


def encoded(value):
    """As it stands in a settings file."""
    if value == value.strip(" \t") and value[:1] != '"' and not set("\r\n\0") & set(value):
        return value
    return '"' + "".join(ESCAPES.get(each, each) for each in value) + '"'


def echoed(page):
    """The value that the success page shows."""
    head, tail = program.success_page("\0").split("\0")
    assert page.startswith(head) and page.endswith(tail)
    return page[len(head):len(page) - len(tail)]


# --- What a request may do

TIME = re.compile(r"\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{6}  ")
NO_VM = "ERROR src/JavaVmWrapper 111 Can't create Java VM"
NO_CLASS = "ERROR src/JavaVmWrapper 118 Class 'com/tarn/vemo/config/ConfigVemo' not found"
WARNING_LINES = ["ERROR src/SetObdConf 50 Option CanDetectTimeout not set", "DEBUG src/SetObdConf 88 PrintBackButton"]


def outcome_of(result, vm):
    """How it ended, if it may end so."""
    page, error, status = result
    is_quiet = error == "" or vm == "real"  # which may warn
    if status == 0 and is_quiet:
        return "stored"
    if (page, status) == (WARNING_PAGE, 1) and is_quiet:
        return "absent"
    if (page, status) == (FRAME_ONLY, 1) and is_quiet:
        return "frame only"  # Java is not available
    if (page, status) == (FRAME_OPENING + CONTENT_OPENING, -signal.SIGABRT):
        assert "terminate called after throwing" in error
        return "aborted"  # an exception that nothing caught
    assert status == 1 and vm == "real" and page.startswith(FRAME_OPENING), result
    return "ended by the Java VM"


def rest_of_log(log, lines):
    """What follows these statements, which are all of one process; None when something else stands there. What comes
    from the environment may be any bytes, line ends included."""
    process = re.match(r"\d*", log[28 + 25:])[0]
    for line in lines:
        level, source, number, message = line.split(" ", 3)
        statement = f"{level:10}{'cgi':15}{process:6}{source:25}{number:6}{message}\n"
        if not TIME.match(log) or not log.startswith(statement, 28):
            return None
        log = log[28 + len(statement):]
    return log


def is_logged(log, request, outcome, vm):
    variables = request.variables
    start = program.start_lines(variables.get("JAVA_OPTIONS", "(null)"), variables.get("JAVA_CLASSPATH", "(null)"))
    if outcome == "frame only":
        rest = rest_of_log(log, [*start, REDIRECTION, NO_CLASS])
        # The real VM's words follow.
        return rest == "" or rest and vm == "real" or rest_of_log(log, [*start, NO_VM]) == ""
    more = {"stored": [REDIRECTION], "aborted": [REDIRECTION], "absent": [REDIRECTION, *WARNING_LINES]}
    return rest_of_log(log, start + more.get(outcome, [])) == ""


def files(vm):
    """All files, each with what changes when it is written to or replaced; folders by their names."""
    found = {}
    for folder, _, names in [*os.walk("/app"), *os.walk("/tmp")]:
        found[folder] = None
        for path in (os.path.join(folder, name) for name in names):
            status = os.stat(path)
            found[path] = (status.st_ino, status.st_size, status.st_mtime_ns)
    # What the real VM leaves behind: its performance data, and after an abort its socket.
    return {path: stamp for path, stamp in found.items()
            if vm == "fake" or not path.startswith(("/tmp/hsperfdata_", "/tmp/.java_pid"))}


def try_request(request, vm, kind):
    """How it ends on a device with that kind of settings file."""
    program.reset_device()
    before, head, tail = SETTINGS_FILES[kind]
    if before is not None:
        program.write(SETTINGS, before)
    untouched = files(vm)
    for limit, size in ((resource.RLIMIT_AS, MEMORY[vm]), (resource.RLIMIT_CORE, 0)):  # the program inherits them
        resource.setrlimit(limit, (size, resource.getrlimit(limit)[1]))
    result = run(request.by(vm))

    outcome = outcome_of(result, vm)
    if outcome == "stored":
        before = head + encoded(echoed(result.page)) + tail
    assert read(SETTINGS) == (before or "")
    assert is_logged(read(LOG), request, outcome, vm)
    touched = {path for path, _ in files(vm).items() ^ untouched.items()}
    assert touched - {str(LOG)} == ({str(SETTINGS)} if outcome == "stored" else set())
    return outcome


# --- Tests

@pytest.mark.parametrize("kind", SETTINGS_FILES)
@pytest.mark.parametrize("name", KNOWN)
def test_a_known_one_ends_as_it_must(name, kind):
    request, outcome = KNOWN[name]
    assert try_request(request, "fake", kind) == outcome


def try_many(vm, count):
    outcomes = collections.Counter()

    @settings(max_examples=count, deadline=None, database=None, suppress_health_check=list(HealthCheck),
              phases=(Phase.generate, Phase.shrink))
    @given(requests(vm), st.sampled_from(sorted(SETTINGS_FILES)))
    def try_one(request, kind):
        outcomes[try_request(request, vm, kind)] += 1

    try_one()
    print(*(f"{times} {outcome}" for outcome, times in outcomes.items()), sep="\n")
    # Else they would prove little.
    assert min(outcomes["stored"], outcomes["absent"]) > count / 10


def test_a_thousand_end_as_they_may(pytestconfig):
    try_many("fake", 10000 if pytestconfig.getoption("long") else 1000)


def test_five_hundred_end_as_they_may_with_the_real_vm():
    try_many("real", 500)
