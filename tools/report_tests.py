"""Runs ctest in each of the build folders: shows how far it is, each failure whole, each skip with its
reason, and the totals. The exit status is 0 when tests ran and none failed. Where the sandbox is whole
(VEMO_SANDBOX_KIND is not "proot") nothing is to be skipped, and a skip is a failure.

    report_tests.py [--verbose] BUILD... -- [CTEST ARGUMENT...]
"""

import os
import pathlib
import re
import subprocess
import sys
import time
import xml.etree.ElementTree

STEP = 15  # seconds between two lines of progress where there is no terminal


def run_ctest(folder, arguments, is_verbose):
    """Shows ctest's output, or how far it is. Gives its exit status, its output and what it says of
    each test that failed."""
    is_terminal = sys.stdout.isatty()
    lines = []
    failures = {}
    shown = time.monotonic()
    ctest = subprocess.Popen(
        ["ctest", "--test-dir", folder, *arguments],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace")
    for line in ctest.stdout:
        lines.append(line)
        result = re.match(r"\s*(\d+/\d+) Test +#\d+: (.*?) ?\.*(?: {3}|[\w ]*\*\*\*)", line)
        if result and "***" in line and "***Skipped" not in line:
            failures[result[2]] = line.rpartition("***")[2].split("  ")[0].strip()
        if is_verbose:
            print(line, end="", flush=True)
        elif result:
            text = f"{folder}: {result[1]}" + (f", {len(failures)} failed" if failures else "")
            if is_terminal:
                print(f"\r\033[K{text}  {result[2]}"[:100], end="", flush=True)
            elif time.monotonic() > shown + STEP:
                print(text, flush=True)
                shown = time.monotonic()
    if is_terminal and not is_verbose:
        print("\r\033[K", end="")
    return ctest.wait(), "".join(lines), failures


def skip_reason(output):
    reason = re.search(r": Skipped\n(.*?)\n*\[  SKIPPED", output, re.DOTALL)
    return reason[1] if reason else output.strip()


def tell(results, failures):
    """Prints failures and skips of a JUnit file. Gives the numbers of passed, failed and skipped."""
    counts = {"passed": 0, "failed": 0, "skipped": 0}
    for test in xml.etree.ElementTree.parse(results).iter("testcase"):
        output = test.findtext("system-out") or ""
        skipped = test.find("skipped")
        if test.get("status") == "run":
            counts["passed"] += 1
        elif skipped is not None and skipped.get("message", "").startswith("SKIP_"):
            counts["skipped"] += 1
            print(f"SKIPPED {test.get('name')}: {skip_reason(output)}")
        else:
            counts["failed"] += 1
            print(f"FAILED {test.get('name')}: {failures.get(test.get('name'), '')}\n{output}")
    return counts


def main():
    arguments = sys.argv[1:]
    split = arguments.index("--")
    folders = [word for word in arguments[:split] if word != "--verbose"]
    is_verbose = "--verbose" in arguments[:split]
    totals = {"passed": 0, "failed": 0, "skipped": 0}
    is_broken = False
    for folder in folders:
        results = pathlib.Path(folder, "tests.xml").absolute()
        results.unlink(missing_ok=True)
        status, output, failures = run_ctest(
            folder, ["--output-junit", str(results), *arguments[split + 1:]], is_verbose)
        counts = tell(results, failures) if results.exists() else {}
        if not counts or (status != 0 and not counts["failed"]):
            is_broken = True
            print("" if is_verbose else output)
        for kind, count in counts.items():
            totals[kind] += count
    if totals["skipped"] and os.environ.get("VEMO_SANDBOX_KIND") != "proot":
        print("Nothing is to be skipped where namespaces are allowed")
        is_broken = True
    print(", ".join(f"{count} {kind}" for kind, count in totals.items()))
    sys.exit(is_broken or totals["failed"] > 0 or totals["passed"] == 0)


main()
