"""The table of docs/web-servers.md: what it says of the server under test."""

import pages
import pytest

import device

marked = set()  # the rows that have a test
COLUMNS = {"lighttpd": "lighttpd", "apache2": "Apache", "nginx": "nginx"}


def cells():
    """By row."""
    return {row["it"]: row[COLUMNS[device.NAME]] for row in pages.rows("docs/web-servers.md") if "it" in row}


def says_yes(row):
    answer = cells()[row].split(":")[0]
    if answer not in ("yes", "no"):
        raise ValueError(f"{row}: neither yes nor no: {answer}")
    return answer == "yes"


def row(name):
    """Marks the test of this row."""
    if name not in cells():
        raise ValueError(f"docs/web-servers.md has no row {name}")
    marked.add(name)
    return pytest.mark.row(name)
