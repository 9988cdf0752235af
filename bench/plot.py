"""Draws what measure.py measured: the growth curves and the timeline of a request."""

import json
import pathlib
import sys

import matplotlib

matplotlib.use("Agg")
import matplotlib.pyplot as plt  # noqa: E402 - the backend first

COLOURS = ["#17314f", "#b25e00", "#0b7a5c", "#7a3fa0", "#0b57a4", "#66758a"]
FOLDER = pathlib.Path(sys.argv[1])


def save(figure, name):
    figure.tight_layout()
    figure.savefig(FOLDER / name, dpi=100)


def draw_growth(growth):
    figure, axes = plt.subplots(1, len(growth), figsize=(12, 3.2), sharey=True)
    for axis, colour, (name, points) in zip(axes, COLOURS, growth.items()):
        sizes = [max(size, 1) for size, _ in points]
        axis.loglog(sizes, [cpu / 1000 for _, cpu in points], marker="o", color=colour)
        axis.set_title(name, fontsize=10)
        axis.grid(True, which="major", alpha=0.3)
    axes[0].set_ylabel("CPU, ms")
    save(figure, "growth.png")


def draw_timeline(events):
    figure, axis = plt.subplots(figsize=(12, 1.9))
    for colour, (name, begin), (_, end) in zip(COLOURS, events, events[1:]):
        axis.barh(0, (end - begin) / 1000, left=begin / 1000, color=colour, label=name, height=0.6)
    axis.set_yticks([])
    axis.set_xlabel("ms from the start of the process")
    axis.legend(ncol=len(events) - 1, loc="upper center", bbox_to_anchor=(0.5, 1.5), frameon=False, fontsize=8)
    save(figure, "timeline.png")


measured = json.loads((FOLDER / "plots.json").read_text())
draw_growth(measured["growth"])
draw_timeline(measured["timeline"])
