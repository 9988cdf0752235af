"""The table of docs/web-servers.md: what it says of the server under test. Tests are marked by their rows."""

import pages
import pytest

import device

COLUMNS = {"lighttpd": "lighttpd", "apache2": "Apache", "nginx": "nginx"}
row = pytest.mark.row
marked = set()  # the rows of all tests


def cells():
    """By row."""
    return {row["it"]: row[COLUMNS[device.NAME]] for row in pages.rows("docs/web-servers.md") if "it" in row}


def says_yes(row):
    marked.add(row)
    answer = cells()[row].split(":")[0]
    if answer not in ("yes", "no"):
        raise ValueError(f"{row}: neither yes nor no: {answer}")
    return answer == "yes"
