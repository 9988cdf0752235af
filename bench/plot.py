"""Draws what measure.py measured: the growth curves and the timeline of a request."""

import json
import sys
from pathlib import Path

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402 - the backend first

COLOURS = ["#17314f", "#b25e00", "#0b7a5c", "#7a3fa0", "#0b57a4", "#66758a"]


def draw_growth(growth, path):
    figure, axes = plt.subplots(1, len(growth), figsize=(12, 3.2), sharey=True)
    for axis, colour, (name, points) in zip(axes, COLOURS, growth.items()):
        sizes = [max(size, 1) for size, _ in points]
        axis.loglog(sizes, [cpu / 1000 for _, cpu in points], marker="o", color=colour)
        axis.set_title(name, fontsize=10)
        axis.grid(True, which="major", alpha=0.3)
    axes[0].set_ylabel("CPU, ms")
    figure.tight_layout()
    figure.savefig(path, dpi=100)


def draw_bar(axis, spans, unit):
    for number, (name, begin, end) in enumerate(spans):
        axis.barh(0, (end - begin) / 1000, left=begin / 1000, color=COLOURS[number % len(COLOURS)],
                  label=name, height=0.6)
    axis.set_yticks([])
    axis.set_xlabel(unit)
    axis.legend(ncol=len(spans), loc="upper center", bbox_to_anchor=(0.5, 1.5), frameon=False,
                fontsize=8)


def vm_spans(phases):
    """What the VM tells of, in groups, and what lies between."""
    groups = (("StubRoutines", "code"), ("SharedRuntime", "code"), ("Interpreter", "code"),
              ("MethodHandles", "code"), ("Genesis", "heap"), ("Start VMThread", "thread"),
              ("java.lang.invoke", "java.lang.invoke"), ("java.lang", "java.lang"),
              ("module", "modules"))
    spans, last = [], 0
    for name, begin, end in phases:
        group = next((group for word, group in groups if word in name), None)
        if group is None or begin < last:
            continue
        if spans and spans[-1][0] == group and begin - last < 100:
            spans[-1] = (group, spans[-1][1], end)
        else:
            spans += [("", last, begin)] if begin - last > 100 else []
            spans.append((group, begin, end))
        last = end
    return spans + [("", last, phases[-1][2])]


def draw_timeline(marks, phases, machine, path):
    figure, axes = plt.subplots(2, 1, figsize=(12, 3.8))
    draw_bar(axes[0], [(name, begin, end) for (name, begin), (_, end) in zip(marks, marks[1:])],
             "ms from the start of the process")
    spans = vm_spans(phases)
    names = list(dict.fromkeys(name for name, _, _ in spans if name))
    for name, begin, end in spans:
        colour = COLOURS[names.index(name) % len(COLOURS)] if name else "#d7dde5"
        axes[1].barh(0, (end - begin) / 1000, left=begin / 1000, color=colour, height=0.6)
    handles = [plt.Rectangle((0, 0), 1, 1, color=COLOURS[i % len(COLOURS)]) for i in range(len(names))]
    axes[1].legend(handles + [plt.Rectangle((0, 0), 1, 1, color="#d7dde5")], names + ["between"],
                   ncol=len(names) + 1, loc="upper center", bbox_to_anchor=(0.5, 1.5), frameon=False,
                   fontsize=8)
    axes[1].set_yticks([])
    axes[1].set_xlabel(f"ms of the Java VM's start, the quickest of ten; {machine}", fontsize=8)
    figure.tight_layout()
    figure.savefig(path, dpi=100)


def main():
    folder = Path(sys.argv[1])
    measured = json.loads((folder / "plots.json").read_text())
    draw_growth(measured["growth"], folder / "growth.png")
    draw_timeline(measured["timeline"], measured["phases"], measured["machine"],
                  folder / "timeline.png")


if __name__ == "__main__":
    main()
