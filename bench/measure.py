"""Measures what a request costs. Started by ./bench/run inside the device's sandbox:

    measure.py RESULTS ROUNDS          everything; the tables are printed and left in that folder
    measure.py RESULTS ROUNDS --vms    prints the table of the machine's Java VMs, no more
"""

import json
import os
import pathlib
import re
import sys

import growth
import one_request
import serving
import subjects
from cost import measure, median, ratios, spread


def machine():
    """The processor, whether it has AVX-512, the VMs."""
    info = dict(re.findall(r"^(.*?)\s*: (.*)$", pathlib.Path("/proc/cpuinfo").read_text(), re.M))
    return ", ".join([
        info.get("model name", os.uname().machine),
        *(f"{name} {info[key]}" for name, key in (("family", "cpu family"), ("model", "model")) if key in info),
        f"{'with' if ' avx512f ' in info.get('flags', '') else 'without'} AVX-512",
        f"{len(os.sched_getaffinity(0))} cores; {subjects.own_vm().name}", *subjects.other_vms()])


def table(title, head, rows):
    rows = [["", *head], *rows]
    widths = [max(len(row[column]) for row in rows) for column in range(len(rows[0]))]
    lines = ["  ".join(cell.ljust(width) for cell, width in zip(row, widths)).rstrip() for row in rows]
    lines.insert(1, "-" * max(map(len, lines)))
    return "\n".join([title, machine(), "", *lines, ""])


def ratio_rows(costs):
    for numerator, denominator, *limits in subjects.COMPARISONS:
        yield [f"{numerator} / {denominator}",
               *(spread(ratios(costs, kind, numerator, denominator), limit)
                 for kind, limit in zip(("cpu", "wall", "peak"), limits))]
    shares = [run.first_byte / run.wall for run in costs["program as shipped"]]
    yield ["first byte / whole request", "", spread(shares, 0.25), ""]


def memory(runs):
    return [f"{median(runs, 'peak') / 1024:.1f} MiB", f"{median(runs, 'faults'):,.0f}"]


def cost_rows(costs):
    for name, runs in costs.items():
        yield [name, *(f"{median(runs, kind) / 1000:.1f} ms" for kind in ("cpu", "wall")), *memory(runs)]


def step_rows(costs):
    for name, runs in costs.items():
        yield [name, spread(ratios(costs, "cpu", name, subjects.FIRST_STEP)), *memory(runs)]


def vm_rows(costs, own):
    for name, runs in costs.items():
        yield [name, *(spread(ratios(costs, kind, name, own)) for kind in ("cpu", "wall")), memory(runs)[0]]


def measure_everything(folder, rounds):
    folder.mkdir(parents=True, exist_ok=True)
    subjects.make_archive(subjects.ARCHIVE)
    costs = measure(subjects.requests(), rounds)
    steps = measure(subjects.steps(), rounds)
    curves = growth.measure()
    counts = {path: one_request.count_instructions(how) for path, how in one_request.COUNTED.items()}
    tables = [
        table(f"Ratios: medians of {rounds} rounds, with their middle halves", ["CPU", "wall", "peak memory"],
              ratio_rows(costs)),
        table("The VM's start in the bare embedder: each step with those above it, against the first",
              ["CPU", "peak memory", "page faults"], step_rows(steps)),
        table("One request, medians", ["CPU", "wall", "peak memory", "page faults"], cost_rows(costs)),
        table("Growth of CPU time, with fake VM", ["sizes", "cost", "exponent"], growth.rows(curves)),
        table("Through lighttpd", ["throughput", "latency", ""], serving.rows()),
        table("Instructions, with fake VM", ["now", "change"], one_request.instruction_rows(counts)),
    ]
    plots = {"timeline": one_request.timeline(max(5, rounds // 2)),
             "growth": {name: [(size, run.cpu) for size, run in points] for name, points in curves.items()}}
    (folder / "results.txt").write_text("\n".join(tables))
    (folder / "instructions.json").write_text(json.dumps(counts) + "\n")
    (folder / "plots.json").write_text(json.dumps(plots))
    print("\n".join(tables))


def main():
    folder, rounds = pathlib.Path(sys.argv[1]), int(sys.argv[2])
    if "--vms" not in sys.argv:
        measure_everything(folder, rounds)
        return
    own = subjects.own_vm().name
    print(table(f"One request as shipped, against {own}: medians of {rounds} rounds, with their middle halves",
                ["CPU", "wall", "peak memory"], vm_rows(measure(subjects.of_each_vm(), rounds), own)))


if __name__ == "__main__":
    main()
