"""Whether docs/kept-as-is.md is true of sources and tests: what it names is there, and each function that it lists
points to it."""

import re

import pytest

import pages

PAGE = "docs/kept-as-is.md"
SEVERITIES = ["high", "medium", "low"]  # in the order of the table
# With what follows it, which is to be the head of its function's definition.
POINTER = re.compile(r"^// Contract and known issues: docs/kept-as-is\.md, `([^`]+)`\.\n([^;{]*)\{", re.MULTILINE)
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
        macro = r"^\s*(?:TEST|TEST_F|TEST_P|RC_GTEST_PROP|RC_GTEST_FIXTURE_PROP)\(\s*(\w+),\s*(\w+)"
        names.update(map(".".join, re.findall(macro, file.read_text(encoding="utf-8"), re.MULTILINE)))
    for file in (pages.ROOT / "tests").rglob("*.py"):
        for part in re.split(r"^(?=class |def )", file.read_text(encoding="utf-8"), flags=re.MULTILINE):
            test_class = re.match(r"class (\w+)", part)
            owner = test_class[1] if test_class else file.stem
            names.update(f"{owner}.{test}" for test in re.findall(r"^(?:    )?def (test_\w+)\(", part, re.MULTILINE))
    return names


def pointers():
    """File, function and what follows, of each pointer in what ships and in the stand-in."""
    for folder in FOLDERS:
        for file in sorted((pages.ROOT / folder).rglob("*.*")):
            if file.suffix in (".cpp", ".h"):
                text = file.read_text(encoding="utf-8")
                found = POINTER.findall(text)
                assert text.count(PAGE) == len(found), f"{file}: a pointer of another form"
                yield from ((str(file.relative_to(pages.ROOT)), *pointer) for pointer in found)


TESTS = names_of_tests()
ROWS = pages.rows(PAGE)


def test_every_name_stands_once():
    names = [row["name"] for row in ROWS]
    assert sorted(names) == sorted(set(names))


def test_there_is_a_contract_and_the_worst_issues_come_first():
    assert [row["name"] for row in ROWS if "what holds" in row]
    severities = [row["severity"] for row in ROWS if "what happens" in row and "guard" in row]
    assert severities == sorted(severities, key=SEVERITIES.index) != []


@pytest.mark.parametrize("row", ROWS, ids=lambda row: row["name"])
def test_every_row_names_functions_files_and_tests_that_are_there(row):
    assert functions_of(row)
    for file in pages.code(row.get("guard", "") + row.get("what holds", "")):
        if file.startswith(tuple(f"{folder}/" for folder in FOLDERS)):
            assert (pages.ROOT / file).exists(), file
    named = set(pages.code(row["test"]))
    assert named
    assert named - TESTS == set()


def test_the_listed_functions_point_here_once_and_no_others():
    listed = sorted({pair for row in ROWS for pair in functions_of(row)})
    assert sorted((file, function) for file, function, _ in pointers()) == listed


@pytest.mark.parametrize("file, function, head", pointers())
def test_every_pointer_stands_right_before_its_function(file, function, head):
    assert re.search(rf"(?<![\w.>~]){re.escape(function)}\(", head), file
