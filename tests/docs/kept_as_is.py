"""Whether docs/kept-as-is.md is true of sources and tests: what it names is there, and each function that it lists
points to it."""

import re

import pytest

import pages

PAGE = "docs/kept-as-is.md"
SEVERITIES = ["high", "medium", "low"]  # in the order of the table
POINTER = re.compile(r"^// Contract and known issues: docs/kept-as-is\.md, `([^`]+)`\.\n(.*\n)", re.MULTILINE)
FOLDERS = ("src", "platform", "pages", "web", "standin", "packaging", "docs")


def functions_of(row):
    """The pairs of file and function of a row."""
    file, *functions = pages.code(row["where"])
    return [(file, function) for function in functions]


def names_of_tests():
    """The names of all tests: Suite.Name of GoogleTest, without the prefixes and suffixes of those that
    have parameters; of Python Class.test_name, or file.test_name outside of classes."""
    names = set()
    for file in (pages.ROOT / "tests").rglob("*Test.cpp"):
        text = file.read_text(encoding="utf-8")
        macro = r"^\s*(?:TEST|TEST_F|TEST_P|RC_GTEST_PROP|RC_GTEST_FIXTURE_PROP)\(\s*(\w+),\s*(\w+)"
        names.update(".".join(found) for found in re.findall(macro, text, re.MULTILINE))
    for file in (pages.ROOT / "tests").rglob("*.py"):
        test_class = None
        for line in file.read_text(encoding="utf-8").splitlines():
            if found := re.match(r"class (\w+)", line):
                test_class = found[1]
            elif found := re.match(r"    def (test_\w+)\(", line):
                names.add(f"{test_class}.{found[1]}")
            elif found := re.match(r"def (test_\w+)\(", line):
                names.add(f"{file.stem}.{found[1]}")
    return names


def defines(text, function):
    """Whether the text of a source file has a definition of the function."""
    return re.search(rf"^[^/\n;]*(?<![\w.>~]){re.escape(function)}\([^;{{]*\{{", text, re.MULTILINE)


def sources():
    """Path and text of each source file of what ships and of the stand-in."""
    for folder in FOLDERS:
        for file in sorted((pages.ROOT / folder).rglob("*.*")):
            if file.suffix in (".cpp", ".h"):
                yield str(file.relative_to(pages.ROOT)), file.read_text(encoding="utf-8")


TESTS = names_of_tests()
ROWS = pages.rows(PAGE)
CONTRACT = [row for row in ROWS if "severity" not in row]
ISSUES = [row for row in ROWS if "severity" in row]

every_row = pytest.mark.parametrize("row", ROWS, ids=lambda row: row["name"])
every_source = pytest.mark.parametrize("text", [pytest.param(text, id=file) for file, text in sources()])


def test_every_name_stands_once():
    names = [row["name"] for row in ROWS]
    assert sorted(names) == sorted(set(names))


def test_every_part_of_the_contract_says_what_holds():
    assert [row["name"] for row in CONTRACT if not row["what holds"]] == []
    assert CONTRACT


def test_every_issue_says_what_happens_and_what_guards():
    assert [row["name"] for row in ISSUES if not (row["what happens"] and row["guard"])] == []
    assert ISSUES


def test_every_issue_has_a_severity_and_the_worst_come_first():
    severities = [row["severity"] for row in ISSUES]
    assert set(severities) <= set(SEVERITIES)
    assert severities == sorted(severities, key=SEVERITIES.index)


@every_row
def test_every_function_is_there(row):
    assert functions_of(row)
    for file, function in functions_of(row):
        assert defines(pages.read(file), function), f"{function} is not in {file}"


@every_row
def test_every_file_that_a_row_names_is_there(row):
    for file in pages.code(row.get("guard", "") + row.get("what holds", "")):
        if file.startswith(tuple(f"{folder}/" for folder in FOLDERS)):
            assert (pages.ROOT / file).exists(), file


@every_row
def test_every_row_names_tests_that_are_there(row):
    named = set(pages.code(row["test"]))
    assert named
    assert named - TESTS == set()


def test_the_listed_functions_point_here_once_and_no_others():
    listed = sorted({pair for row in ROWS for pair in functions_of(row)})
    assert sorted((file, name) for file, text in sources() for name, _ in POINTER.findall(text)) == listed


@every_source
def test_every_pointer_stands_right_before_its_function(text):
    found = POINTER.findall(text)
    assert text.count(PAGE) == len(found), "a pointer of another form"
    for function, line in found:
        assert re.search(rf"(?<![\w.>~]){re.escape(function)}\(", line), function
