"""One request taken apart: its instructions, and what it does when."""

import json
import os
import pathlib
import re
import statistics
import subprocess
import time

from cost import LOG, reset, told
from subjects import PROGRAM, SHIPPED, WITH_FAKE_VM

INSTRUCTIONS = pathlib.Path("/source/bench/instructions.json")
COUNTED = {"option stored": WITH_FAKE_VM, "option absent": {**WITH_FAKE_VM, "QUERY_STRING": ""}}


def count_instructions(environment):
    """Instructions from the entry of main on: of the program's own code, and with its libraries."""
    reset()
    out, path = "/tmp/callgrind.out", {"PATH": "/usr/bin:/bin"}
    subprocess.run(["valgrind", "--quiet", "--tool=callgrind", f"--callgrind-out-file={out}", "--toggle-collect=main",
                    PROGRAM], env={**path, **environment}, stdout=subprocess.DEVNULL, check=False)
    listing = told("callgrind_annotate", "--threshold=100", "--show-percs=no", out, env=path).replace(",", "")
    own = re.findall(r"^\s*(\d+)\s.*\[/build/setobdconf\.cgi\]$", listing, re.M)
    total = re.search(r"^\s*(\d+)\s+PROGRAM TOTALS", listing, re.M)
    return {"own": sum(map(int, own)), "with libraries": int(total[1])}


def instruction_rows(counts):
    """Against those that are kept."""
    kept = json.loads(INSTRUCTIONS.read_text())
    for path, kinds in counts.items():
        for kind, count in kinds.items():
            old = kept[path][kind]
            yield [f"{path}, {kind}", f"{count:,}", f"{(count - old) / old:+.1%} against {old:,}"]


def one_timeline():
    """The times of EVENTS, by the page's flushed lines and by the log's times."""
    reset()
    start = time.time()
    process = subprocess.Popen([PROGRAM], env=SHIPPED, stdout=subprocess.PIPE, bufsize=0)
    arrivals = []
    while chunk := os.read(process.stdout.fileno(), 65536):
        arrivals.append((time.time(), chunk))
    process.wait()
    end = time.time()

    def arrival(text):
        return next(when for when, chunk in arrivals if text in chunk)

    def logged(statement):
        line = next(line for line in LOG.read_text().splitlines() if statement in line)
        return time.mktime(time.strptime(line[:19], "%Y-%m-%d %H:%M:%S")) + float("0" + line[19:26])

    return [start, logged("  main"), logged("JAVA_CLASSPATH"), logged("ChangeStdErr"), arrival(b"navi"),
            arrival(b"To activate"), end]


EVENTS = ("process start", "frame", "Java VM", "class", "page", "shutdown", "end")


def timeline(rounds):
    """Name and time of each event: medians in microseconds from the process's start."""
    runs = [one_timeline() for _ in range(rounds)]
    return [(name, statistics.median((run[index] - run[0]) * 1e6 for run in runs))
            for index, name in enumerate(EVENTS)]
