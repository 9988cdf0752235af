"""What the checks of the pages in docs/ share."""

import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]


def read(path):
    return (ROOT / path).read_text(encoding="utf-8")


def rows(page):
    """The rows of all tables of a page, each as a dictionary by the column's heading."""
    found = []
    heading = None
    for line in read(page).splitlines():
        if not line.startswith("|"):
            heading = None
            continue
        cells = [cell.strip() for cell in line.strip().strip("|").split("|")]
        if heading is None:
            heading = cells
        elif not set(line) <= set("|-: "):
            if len(cells) != len(heading):
                raise ValueError(f"{page}: {len(cells)} cells for {len(heading)} columns: {line}")
            found.append(dict(zip(heading, cells)))
    return found


def code(cell):
    """The texts that a cell shows as code."""
    return re.findall(r"`([^`]*)`", cell)
