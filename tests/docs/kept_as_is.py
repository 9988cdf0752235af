"""Whether docs/kept-as-is.md is true of sources and tests: what it names is there, and each function that it lists
points to it."""

import re
import unittest

import pages

PAGE = "docs/kept-as-is.md"
SEVERITIES = ["high", "medium", "low"]  # in the order of the table
POINTER = re.compile(r"^// Contract and known issues: docs/kept-as-is\.md, `([^`]+)`\.\n(.*\n)", re.MULTILINE)
ANY_POINTER = "docs/kept-as-is.md"
FOLDERS = ("src", "platform", "pages", "web", "standin", "packaging", "docs")


def functions_of(row):
    """The pairs of file and function of a row."""
    file, *functions = pages.code(row["where"])
    return [(file, function) for function in functions]


def test_names():
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


class KeptAsIs(unittest.TestCase):
    def setUp(self):
        self.rows = pages.rows(PAGE)
        self.contract = [row for row in self.rows if "severity" not in row]
        self.issues = [row for row in self.rows if "severity" in row]
        self.assertGreater(len(self.contract), 0)
        self.assertGreater(len(self.issues), 0)

    def test_every_name_stands_once(self):
        names = [row["name"] for row in self.rows]
        self.assertEqual(sorted(names), sorted(set(names)))

    def test_every_part_of_the_contract_says_what_holds(self):
        for row in self.contract:
            with self.subTest(row["name"]):
                self.assertNotEqual(row["what holds"], "")

    def test_every_issue_says_what_happens_and_what_guards(self):
        for row in self.issues:
            with self.subTest(row["name"]):
                self.assertNotEqual(row["what happens"], "")
                self.assertNotEqual(row["guard"], "")

    def test_every_issue_has_a_severity_and_the_worst_come_first(self):
        severities = [row["severity"] for row in self.issues]
        for row in self.issues:
            with self.subTest(row["name"]):
                self.assertIn(row["severity"], SEVERITIES)
        self.assertEqual(severities, sorted(severities, key=(SEVERITIES + severities).index))

    def test_every_function_is_there(self):
        for row in self.rows:
            functions = functions_of(row)
            self.assertTrue(functions, row["name"])
            for file, function in functions:
                with self.subTest(row["name"], function=function):
                    self.assertTrue(defines(pages.read(file), function), f"not in {file}")

    def test_every_file_that_a_row_names_is_there(self):
        for row in self.rows:
            for file in pages.code(row.get("guard", "") + row.get("what holds", "")):
                if file.startswith(tuple(f"{folder}/" for folder in FOLDERS)):
                    with self.subTest(row["name"]):
                        self.assertTrue((pages.ROOT / file).exists(), file)

    def test_every_row_names_tests_that_are_there(self):
        existing = test_names()
        for row in self.rows:
            named = pages.code(row["test"])
            self.assertTrue(named, row["name"])
            for test in named:
                with self.subTest(row["name"]):
                    self.assertIn(test, existing)

    def test_the_listed_functions_point_here_once_and_no_others(self):
        listed = sorted({pair for row in self.rows for pair in functions_of(row)})
        pointers = sorted((file, name) for file, text in sources() for name, _ in POINTER.findall(text))
        self.assertEqual(pointers, listed)

    def test_every_pointer_stands_right_before_its_function(self):
        for file, text in sources():
            with self.subTest(file):
                found = POINTER.findall(text)
                self.assertEqual(text.count(ANY_POINTER), len(found), "a pointer of another form")
                for function, line in found:
                    self.assertRegex(line, rf"(?<![\w.>~]){re.escape(function)}\(")


if __name__ == "__main__":
    unittest.main()
