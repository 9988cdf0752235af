"""Whether the documents' links lead somewhere, the files that they name are there, and their tables are filled."""

import re

import pytest

import pages

NAMED = re.compile(r"`((?:src|platform|pages|web|standin|packaging|tests|bench|tools|cmake|docs)/[\w./-]+\.\w+)`")
DOCUMENTS = sorted(file for pattern in ("*.md", "docs/*.md", "*/README.md") for file in pages.ROOT.glob(pattern))

every_document = pytest.mark.parametrize("file", DOCUMENTS, ids=lambda file: str(file.relative_to(pages.ROOT)))


def anchors(file):
    """Those of the headings, as forges make them."""
    headings = re.findall(r"(?m)^#+ (.*)$", file.read_text(encoding="utf-8"))
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


@every_document
def test_every_link_has_its_file_and_heading(file):
    for link in re.findall(r"\]\((?!https?:)([^)\s]+)\)", file.read_text(encoding="utf-8")):
        path, _, anchor = link.partition("#")
        target = file.parent / path if path else file
        assert target.exists(), link
        assert not anchor or anchor in anchors(target), link


@every_document
def test_every_file_that_is_named_is_there(file):
    named = NAMED.findall(file.read_text(encoding="utf-8"))
    assert [name for name in named if not (pages.ROOT / name).exists()] == []


@every_document
def test_every_cell_of_a_table_is_filled(file):
    assert [row for row in pages.rows(file) if not all(row.values())] == []
