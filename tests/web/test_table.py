"""The table of docs/web-servers.md as a whole, beside all tests that are marked by its rows."""

import re

import table


def test_has_a_test_for_every_row():
    assert table.marked == set(table.cells())


def test_names_nothing_that_the_configuration_does_not_have(shared_server):
    for row, cell in table.cells().items():
        for word in re.findall(r"`([^`]*)`", cell):
            assert word in shared_server.text, row
