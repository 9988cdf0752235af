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
    """Those of the page, by source and number."""
    found = {}
    for row in pages.rows("docs/log.md"):
        if "number" not in row:
            continue
        (source,) = pages.code(row["source"])
        (text,) = pages.code(row["text"])
        for number in row["number"].split(","):
            name = (source, int(number))
            if name in found:
                raise ValueError(f"{name} is listed twice")
            found[name] = (row["level"], text)
    return found


def shown(statement):
    """What the log shows of it."""
    texts = iter(re.findall(r'"(.*?)"', statement["texts"]))
    return re.sub("%[a-z]", lambda _: next(texts, ELLIPSIS), statement["format"])


def statements_of(file):
    """Name, level and text of each; the others' beginnings."""
    code = COMMENT_OR_INCLUDE.sub("", file.read_text(encoding="utf-8"))
    (source,) = SOURCE.findall(code) or [""]
    found = [((source, int(statement["number"])),
              " or ".join(re.findall(r"LOG_LEVEL_(\w+)", statement["level"])), shown(statement))
             for statement in STATEMENT.finditer(code)]
    return found, re.findall(r".*\bLogFormater\b.*", STATEMENT.sub("", code))


LISTED = listed_statements()
FILES = [file for folder in ("src", "pages", "standin") for file in sorted((pages.ROOT / folder).rglob("*.*"))
         if file.suffix in (".cpp", ".h")]
STATEMENTS = [statement for file in FILES for statement in statements_of(file)[0]]


@pytest.mark.parametrize("file", FILES, ids=lambda file: file.name)
def test_every_statement_can_be_read_and_names_its_file(file):
    found, unread = statements_of(file)
    assert unread == []
    assert {source for (source, _), _, _ in found} <= {file.relative_to(pages.ROOT).with_suffix("").as_posix()}


def test_no_two_statements_have_one_name():
    names = [name for name, _, _ in STATEMENTS]
    assert sorted(names) == sorted(set(names)) != []


@pytest.mark.parametrize("name, level, text", STATEMENTS, ids=str)
def test_every_statement_is_listed_as_it_is(name, level, text):
    listed_level, listed_text = LISTED[name]
    assert listed_level == level
    # The page may tell more of what only a run can tell.
    assert re.fullmatch(".*".join(map(re.escape, text.split(ELLIPSIS))), listed_text), listed_text


def test_nothing_is_listed_that_no_source_has():
    assert set(LISTED) <= {name for name, _, _ in STATEMENTS}


def test_every_error_says_what_to_do():
    for row in pages.rows("docs/log.md"):
        if "ERROR" in row.get("level", ""):
            assert row["when it is written; what is wrong, what to do"], row["number"]
