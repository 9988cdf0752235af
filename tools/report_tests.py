"""Runs ctest in each of the build folders. Shows the progress, each failure with its whole output, each skip with
its reason, and the totals. The exit status is 0 when tests ran and none failed. Where namespaces are allowed
(VEMO_SANDBOX_KIND is not "proot") a skip is a failure.

ctest alone says neither why a test was skipped nor one total. It knows failed tests by their numbers, which change,
and forgets them when it is interrupted. It leaves running what tests have put into sessions of their own.

    report_tests.py [OPTION...] BUILD... -- [CTEST ARGUMENT...]

--verbose        shows ctest's whole output
--list           only shows the list that ctest prints
--rerun-failed   only the tests that failed last time, in each folder

It ends everything that it started when it is interrupted or terminated, and when its output is closed.
"""

import signal

if signal.getsignal(signal.SIGINT) is signal.default_int_handler:
    signal.signal(signal.SIGINT, signal.SIG_DFL)  # no traceback while the rest is loaded

import ctypes  # noqa: E402
import os  # noqa: E402
import pathlib  # noqa: E402
import re  # noqa: E402
import subprocess  # noqa: E402
import sys  # noqa: E402
import time  # noqa: E402
import xml.etree.ElementTree  # noqa: E402

STEP = 15  # seconds between two lines of progress where there is no terminal
# The signals that end tests, each with the seconds to wait. SIGINT lets them clean up. Background processes of a shell
# ignore it, so SIGTERM follows.
ENDINGS = ((signal.SIGINT, 5), (signal.SIGTERM, 3), (signal.SIGKILL, 3))
WHOLE_OUTPUT = ("--test-output-size-passed", "1000000", "--test-output-size-failed", "1000000")
FAILED = "Testing/Temporary/LastTestsFailed.log"  # ctest's own, a line for each: NUMBER:NAME
PR_SET_CHILD_SUBREAPER = 36


class Stopped(Exception):
    """A signal has stopped us; the argument is its number."""


def ctest_command(folder, arguments):
    return ["ctest", "--test-dir", folder, *arguments]


def run_ctest(folder, arguments, is_verbose, results):
    """Shows ctest's output, or the progress. Adds each test to results, by its name: its number, and how it failed, or
    "". Returns ctest's exit status and its output."""
    is_terminal = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
    lines = []
    shown = time.monotonic()
    # In a session of its own: the terminal interrupts only us, and we interrupt the tests, once.
    ctest = subprocess.Popen(
        ctest_command(folder, arguments), stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
        stderr=subprocess.STDOUT, text=True, errors="replace", start_new_session=True)
    for line in ctest.stdout:
        lines.append(line)
        result = re.match(r"\s*(\d+/\d+) Test +#(\d+): (.*?) ?\.*(?: {3}|[\w ]*\*\*\*)", line)
        if result:
            is_failure = "***" in line and "***Skipped" not in line
            results[result[3]] = result[2], line.rpartition("***")[2].split("  ")[0].strip() if is_failure else ""
        if is_verbose:
            print(line, end="", flush=True)
        elif result:
            count = sum(1 for _, failure in results.values() if failure)
            text = f"{folder}: {result[1]}" + (f", {count} failed" if count else "")
            if is_terminal:
                # Cut at the terminal's width.
                print(f"\r\033[K\033[?7l{text}  {result[3]}\033[?7h", end="", flush=True)
            elif time.monotonic() > shown + STEP:
                print(text, flush=True)
                shown = time.monotonic()
    if is_terminal and not is_verbose:
        print("\r\033[K", end="")
    return ctest.wait(), "".join(lines)


def print_results(junit, results):
    """Prints failures and skips of a JUnit file. Returns the numbers of passed, failed and skipped tests."""
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for test in xml.etree.ElementTree.parse(junit).iter("testcase"):
        name = test.get("name")
        output = test.findtext("system-out") or ""
        skipped = test.find("skipped")
        if test.get("status") == "run":
            counts["passed"] += 1
            # A test of ctest's is a file of pytest's tests, of which some may be skipped.
            reasons = re.findall(r"^SKIPPED \[\d+\] (.*)$", output, re.MULTILINE)
            counts["skipped"] += len(reasons)
            for reason in reasons:
                print(f"SKIPPED {name}:", reason)
        elif skipped is not None and skipped.get("message", "").startswith("SKIP_"):
            counts["skipped"] += 1
            reason = re.search(r"(?ms): Skipped\n(.*?)\n*\[  SKIPPED|^SKIPPED \[\d+\] (.*?)$", output)
            print(f"SKIPPED {name}:", reason.group(reason.lastindex) if reason else output.strip())
        else:
            counts["failed"] += 1
            print(f"FAILED {name}: {results.get(name, ('', ''))[1]}\n{output}")
    return counts


def failed_before(folder):
    """The tests that failed last time: by their names, their numbers at that time."""
    try:
        lines = pathlib.Path(folder, FAILED).read_text(encoding="utf-8").splitlines()
    except FileNotFoundError:
        return {}
    return {name: number for number, _, name in (line.partition(":") for line in lines)}


def positions_of(folder, names, arguments):
    """The positions of these tests, from 1, among those that the arguments choose. ctest's -I counts like this."""
    listed = subprocess.run(ctest_command(folder, ["-N", *arguments, "-I", "1,"]), stdout=subprocess.PIPE, text=True,
                            check=False).stdout
    chosen = re.findall(r"^ *Test +#\d+: (.*)$", listed, re.MULTILINE)
    return [str(position) for position, name in enumerate(chosen, 1) if name in names]


def note_failures(folder, results, before):
    """For the next --rerun-failed, writes the tests that failed now, and those that failed before and did not run now.
    ctest itself writes nothing when it is interrupted, and keeps its old list when nothing fails."""
    if results:
        failed = [f"{number}:{name}\n" for name, (number, failure) in results.items() if failure]
        failed += [f"{number}:{name}\n" for name, number in before.items() if name not in results]
        path = pathlib.Path(folder, FAILED)
        path.unlink(missing_ok=True)
        if failed:
            path.write_text("".join(failed), encoding="utf-8")


def run(folder, options, arguments):
    """Returns the numbers of passed, failed and skipped tests, and whether ctest ran as it should."""
    before = {}
    if "--rerun-failed" in options:
        before = failed_before(folder)
        positions = positions_of(folder, before, arguments)
        if not positions:
            return {}, True
        arguments = [*arguments, "-I", "0,0,0," + ",".join(positions)]
    if "--list" in options:
        listed = subprocess.run(ctest_command(folder, arguments), stdout=subprocess.PIPE, text=True, check=False)
        print(listed.stdout)
        return {}, listed.returncode == 0
    junit = pathlib.Path(folder, "tests.xml").absolute()
    junit.unlink(missing_ok=True)
    is_verbose = "--verbose" in options
    results = {}
    try:
        status, output = run_ctest(
            folder, ["--output-junit", str(junit), *WHOLE_OUTPUT, *arguments], is_verbose, results)
    finally:
        note_failures(folder, results, before)
    counts = print_results(junit, results) if junit.exists() else {}
    if counts and (status == 0 or counts["failed"]):
        return counts, True
    print("" if is_verbose else output)
    return counts, False


def report(options, folders, arguments):
    """Returns the exit status."""
    totals = {"passed": 0, "failed": 0, "skipped": 0}
    is_good = True
    for folder in folders:
        counts, is_whole = run(folder, options, arguments)
        is_good = is_good and is_whole
        for kind, count in counts.items():
            totals[kind] += count
    if totals["skipped"] and os.environ.get("VEMO_SANDBOX_KIND") != "proot":
        print("Nothing is to be skipped where namespaces are allowed")
        is_good = False
    if "--list" not in options:
        if is_good and not any(totals.values()):
            print("No test ran: there is none such" +
                  (" among those that failed last time" if "--rerun-failed" in options else ""))
        is_good = is_good and totals["failed"] == 0 and totals["passed"] > 0
    print(", ".join(f"{count} {kind}" for kind, count in totals.items()), flush=True)
    return 0 if is_good else 1


def descendants(process):
    """The processes that it has started, directly or not."""
    found = []
    try:
        for path in pathlib.Path("/proc", str(process), "task").glob("*/children"):
            for child in map(int, path.read_text(encoding="ascii").split()):
                found += [child, *descendants(child)]
    except OSError:
        pass  # it has ended
    return found


def end_descendants():
    """Interrupts all descendants, as a terminal would, and then ends those that go on."""
    for number, seconds in ENDINGS:
        signalled = set()
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            try:
                while os.waitpid(-1, os.WNOHANG)[0]:
                    pass
            except ChildProcessError:
                return
            # SIGINT only once: an interrupted test may start processes that clean up.
            if not signalled or number != signal.SIGINT:
                for process in descendants(os.getpid()):
                    if process not in signalled:
                        signalled.add(process)
                        try:
                            os.kill(process, number)
                        except OSError:
                            pass  # it has ended, or is another user's
            time.sleep(0.05)


def main():
    # Orphaned descendants become our children, so that we can end them.
    ctypes.CDLL(None).prctl(PR_SET_CHILD_SUBREAPER, 1, 0, 0, 0)
    words = sys.argv[1:]
    split = words.index("--")
    options = [word for word in words[:split] if word.startswith("--")]
    folders = [word for word in words[:split] if not word.startswith("--")]
    signals = [number for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)
               if signal.getsignal(number) != signal.SIG_IGN]

    def stop(number, _frame):
        for each in signals:
            signal.signal(each, signal.SIG_IGN)
        raise Stopped(number)

    for each in signals:
        signal.signal(each, stop)
    try:
        status = report(options, folders, words[split + 1:])
    except Stopped as stopped:
        end_descendants()
        print("\n" * sys.stderr.isatty() + "test: stopped", file=sys.stderr)  # behind the terminal's ^C
        status = 128 + stopped.args[0]
    except BrokenPipeError:
        for each in signals:
            signal.signal(each, signal.SIG_IGN)
        end_descendants()
        status = 128 + signal.SIGPIPE
    try:
        sys.stdout.flush()
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    sys.exit(status)


main()
