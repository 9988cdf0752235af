"""Runs ctest in each of the build folders: shows how far it is, each failure whole, each skip with its
reason, and the totals. The exit status is 0 when tests ran and none failed. Where the sandbox is whole
(VEMO_SANDBOX_KIND is not "proot") nothing is to be skipped, and a skip is a failure.

    report_tests.py [OPTION...] BUILD... -- [CTEST ARGUMENT...]

--verbose        shows all that ctest says
--list           ctest only lists something: shows that
--rerun-failed   only what failed last time, in each folder

When it is interrupted, told to end, or nobody reads what it says any more, all that it started ends, too.
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
# How tests are ended, and for how many seconds each is given a chance: to clear up; to end all the same, though a
# shell's background process does not hear of an interrupt.
ENDINGS = ((signal.SIGINT, 5), (signal.SIGTERM, 3), (signal.SIGKILL, 3))
FAILED = "Testing/Temporary/LastTestsFailed.log"  # ctest's own, a line for each: NUMBER:NAME
PR_SET_CHILD_SUBREAPER = 36


class Stopped(Exception):
    """By a signal, the number of which it holds."""


def ctest_command(folder, arguments):
    return ["ctest", "--test-dir", folder, *arguments]


def run_ctest(folder, arguments, is_verbose, results):
    """Shows ctest's output, or how far it is. Adds to results, by their names, the number of each test
    and what is said of it when it failed, else "". Gives ctest's exit status and its output."""
    is_terminal = sys.stdout.isatty() and os.environ.get("TERM", "dumb") != "dumb"
    lines = []
    shown = time.monotonic()
    # The terminal interrupts us alone; we interrupt them, once.
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
                # Cut where the terminal ends.
                print(f"\r\033[K\033[?7l{text}  {result[3]}\033[?7h", end="", flush=True)
            elif time.monotonic() > shown + STEP:
                print(text, flush=True)
                shown = time.monotonic()
    if is_terminal and not is_verbose:
        print("\r\033[K", end="")
    return ctest.wait(), "".join(lines)


def skip_reason(output):
    reason = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED", output, re.DOTALL)
    return reason[1] if reason else output.strip()


def tell(junit, results):
    """Prints failures and skips of a JUnit file. Gives the numbers of passed, failed and skipped."""
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for test in xml.etree.ElementTree.parse(junit).iter("testcase"):
        name = test.get("name")
        output = test.findtext("system-out") or ""
        skipped = test.find("skipped")
        if test.get("status") == "run":
            counts["passed"] += 1
        elif skipped is not None and skipped.get("message", "").startswith("SKIP_"):
            counts["skipped"] += 1
            print(f"SKIPPED {name}: {skip_reason(output)}")
        else:
            counts["failed"] += 1
            print(f"FAILED {name}: {results.get(name, ('', ''))[1]}\n{output}")
    return counts


def failed_before(folder):
    """The tests that failed last time: their numbers of then, by their names."""
    try:
        lines = pathlib.Path(folder, FAILED).read_text(encoding="utf-8").splitlines()
    except FileNotFoundError:
        return {}
    return {name: number for number, _, name in (line.partition(":") for line in lines)}


def places_of(folder, names, arguments):
    """Where those of the tests stand, counted from 1, that the arguments choose. ctest's -I counts like this."""
    listed = subprocess.run(ctest_command(folder, ["-N", *arguments, "-I", "1,"]), stdout=subprocess.PIPE, text=True,
                            check=False).stdout
    chosen = re.findall(r"^ *Test +#\d+: (.*)$", listed, re.MULTILINE)
    return [str(place) for place, name in enumerate(chosen, 1) if name in names]


def note_failures(folder, results, before):
    """For the next --rerun-failed: what failed, and what failed before and did not run now. ctest notes nothing when
    it is interrupted, and keeps what it noted when nothing fails."""
    if results:
        failed = [f"{number}:{name}\n" for name, (number, failure) in results.items() if failure]
        failed += [f"{number}:{name}\n" for name, number in before.items() if name not in results]
        path = pathlib.Path(folder, FAILED)
        path.unlink(missing_ok=True)
        if failed:
            path.write_text("".join(failed), encoding="utf-8")


def run(folder, options, arguments):
    """Gives the numbers of passed, failed and skipped, and whether ctest did what it was to do."""
    before = {}
    if "--rerun-failed" in options:
        before = failed_before(folder)
        places = places_of(folder, before, arguments)
        if not places:
            return {}, True
        arguments = [*arguments, "-I", "0,0,0," + ",".join(places)]
    if "--list" in options:
        listed = subprocess.run(ctest_command(folder, arguments), stdout=subprocess.PIPE, text=True, check=False)
        print(listed.stdout)
        return {}, listed.returncode == 0
    junit = pathlib.Path(folder, "tests.xml").absolute()
    junit.unlink(missing_ok=True)
    is_verbose = "--verbose" in options
    results = {}
    try:
        status, output = run_ctest(folder, ["--output-junit", str(junit), *arguments], is_verbose, results)
    finally:
        note_failures(folder, results, before)
    counts = tell(junit, results) if junit.exists() else {}
    if counts and (status == 0 or counts["failed"]):
        return counts, True
    print("" if is_verbose else output)
    return counts, False


def report(options, folders, arguments):
    """Gives the exit status."""
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


def descendants():
    """The processes that ctest and the tests have started, with theirs."""
    children = {}
    for path in pathlib.Path("/proc").glob("[0-9]*/stat"):
        try:
            parent = path.read_text(encoding="utf-8", errors="replace").rpartition(")")[2].split()[1]
        except OSError:
            continue  # it has ended
        children.setdefault(int(parent), []).append(int(path.parent.name))
    found = []
    parents = [os.getpid()]
    while parents:
        these = children.get(parents.pop(), [])
        found += these
        parents += these
    return found


def end_descendants():
    """Interrupts them, as a terminal would, and ends what does not end of that."""
    for number, seconds in ENDINGS:
        told = set()
        until = time.monotonic() + seconds
        while time.monotonic() < until:
            try:
                while os.waitpid(-1, os.WNOHANG)[0]:
                    pass
            except ChildProcessError:
                return
            # Who is interrupted may start others to clear up.
            if not told or number != signal.SIGINT:
                for process in descendants():
                    if process not in told:
                        told.add(process)
                        try:
                            os.kill(process, number)
                        except OSError:
                            pass  # it has ended, or is another user's
            time.sleep(0.05)


def main():
    # What loses its parent becomes our child.
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
