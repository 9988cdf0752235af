"""Whether docs/log.md lists the log statements of the sources: each of them, and nothing else."""

import re

import pytest

import pages

# LogFormater(LEVEL, SOURCE, NUMBER).Log(HANDLER(), "FORMAT", "TEXT"..., with whatever more. A LEVEL may choose
# between two.
STATEMENT = re.compile(
    r'LogFormater\((?P<level>[^,;]*), SOURCE,\s*(?P<number>\d+)\)\s*'
    r'\.Log\(\w+\(\),\s*"(?P<format>(?:\\.|[^"\\])*)"(?P<texts>(?:,\s*"[^"\\]*")*)\s*[,)]')
SOURCE = re.compile(r'^constexpr char SOURCE\[\] = "(.*)";$', re.MULTILINE)
COMMENT_OR_INCLUDE = re.compile(r"^\s*(//|#).*", re.MULTILINE)
ELLIPSIS = "…"  # what only a run can tell


def listed_statements():
    """Source, number, level and text of those of the page."""
    for row in pages.rows("docs/log.md"):
        if "number" in row:
            (source,) = pages.code(row["source"])
            (text,) = pages.code(row["text"])
            yield from ((source, int(number), row["level"], text) for number in row["number"].split(","))


def shown(statement):
    """What the log shows of it."""
    texts = iter(re.findall(r'"(.*?)"', statement["texts"]))
    return re.sub("%[a-z]", lambda _: next(texts, ELLIPSIS), statement["format"])


def statements_of(file):
    """Source, number, level and text of each; the others' beginnings."""
    code = COMMENT_OR_INCLUDE.sub("", file.read_text(encoding="utf-8"))
    (source,) = SOURCE.findall(code) or [""]
    found = [(source, int(statement["number"]), " or ".join(re.findall(r"LOG_LEVEL_(\w+)", statement["level"])),
              shown(statement))
             for statement in STATEMENT.finditer(code)]
    return found, re.findall(r".*\bLogFormater\b.*", STATEMENT.sub("", code))


FILES = [file for folder in ("src", "pages", "standin") for file in sorted((pages.ROOT / folder).rglob("*.*"))
         if file.suffix in (".cpp", ".h")]
STATEMENTS = sorted(statement for file in FILES for statement in statements_of(file)[0])
LISTED = sorted(listed_statements())


@pytest.mark.parametrize("file", FILES, ids=lambda file: file.name)
def test_every_statement_can_be_read_and_names_its_file(file):
    found, unread = statements_of(file)
    assert unread == []
    assert {source for source, _, _, _ in found} <= {file.relative_to(pages.ROOT).with_suffix("").as_posix()}


def test_each_statement_has_a_name_of_its_own_and_is_listed_once():
    names = [statement[:2] for statement in STATEMENTS]
    assert names == sorted(set(names)) != []
    assert [statement[:2] for statement in LISTED] == names


@pytest.mark.parametrize("statement, listed", zip(STATEMENTS, LISTED))
def test_every_statement_is_listed_as_it_is(statement, listed):
    source, number, level, text = statement
    assert listed[:3] == (source, number, level)
    # The page may tell more of what only a run can tell.
    assert re.fullmatch(".*".join(map(re.escape, text.split(ELLIPSIS))), listed[3])
