"""Whether docs/kept-as-is.md is true of sources and tests: what it names is there, and what it lists is
pointed to where it stands."""

import re
import unittest

import pages

PAGE = "docs/kept-as-is.md"
POINTER = re.compile(r'// Stays: see docs/kept-as-is\.md, ("[^"]+"(?:, "[^"]+")*)\.$', re.MULTILINE)


def where(row):
    """The file and the functions of a row."""
    file, *functions = pages.code(row["where"])
    return file, functions


def test_names():
    """The names of all tests: Suite.Name of GoogleTest, without the prefixes and suffixes of those that
    have parameters, and Class.test_name or file.test_name of Python."""
    names = set()
    for file in (pages.ROOT / "tests").rglob("*Test.cpp"):
        text = file.read_text(encoding="utf-8")
        macro = r"^\s*(?:TEST|TEST_F|TEST_P|RC_GTEST_PROP|RC_GTEST_FIXTURE_PROP)\(\s*(\w+),\s*(\w+)"
        names.update(".".join(found) for found in re.findall(macro, text, re.MULTILINE))
    for file in (pages.ROOT / "tests").rglob("*.py"):
        test_class = None
        for line in file.read_text(encoding="utf-8").splitlines():
            if found := re.match(r"class (\w+)\(", line):
                test_class = found[1]
            elif found := re.match(r"(    )?def (test_\w+)\(", line):
                names.add(f"{test_class if found[1] else file.stem}.{found[2]}")
    return names


def defines(text, function):
    """Whether the text of a source file has a definition of the function."""
    return re.search(rf"^[^/\n;]*(?<![\w.>~]){re.escape(function)}\([^;{{]*\{{", text, re.MULTILINE)


def pointers():
    """The pairs of file and name that the sources point with."""
    found = set()
    for folder in ("src", "platform", "pages", "web", "standin"):
        for file in sorted((pages.ROOT / folder).rglob("*.*")):
            if file.suffix in (".cpp", ".h"):
                for names in POINTER.findall(file.read_text(encoding="utf-8")):
                    path = str(file.relative_to(pages.ROOT))
                    found.update((path, name) for name in re.findall('"([^"]+)"', names))
    return found


class KeptAsIs(unittest.TestCase):
    def setUp(self):
        self.rows = pages.rows(PAGE)
        self.assertGreater(len(self.rows), 0)

    def test_every_name_stands_once(self):
        names = [row["name"] for row in self.rows]
        self.assertEqual(sorted(names), sorted(set(names)))

    def test_every_row_says_what_and_against_what(self):
        for row in self.rows:
            with self.subTest(row["name"]):
                self.assertNotEqual(row["what happens, and who is hit"], "")
                self.assertNotEqual(row["guard"], "")

    def test_every_file_and_function_is_there(self):
        for row in self.rows:
            file, functions = where(row)
            self.assertTrue(functions, row["name"])
            for function in functions:
                with self.subTest(row["name"], function=function):
                    self.assertTrue(defines(pages.read(file), function), f"not in {file}")

    def test_every_file_of_a_guard_is_there(self):
        for row in self.rows:
            for file in pages.code(row["guard"]):
                if re.match(r"(src|platform|pages|web|standin|packaging|docs)/", file):
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

    def test_the_sources_point_to_every_row_and_to_nothing_else(self):
        listed = {(where(row)[0], row["name"]) for row in self.rows}
        pointed = pointers()
        self.assertEqual(listed - pointed, set(), "no pointer in the file")
        self.assertEqual(pointed - listed, set(), "no such row")

    def test_every_pointer_can_be_read(self):
        for folder in ("src", "platform", "pages", "web", "standin"):
            for file in (pages.ROOT / folder).rglob("*.*"):
                if file.suffix in (".cpp", ".h"):
                    text = file.read_text(encoding="utf-8")
                    with self.subTest(file.name):
                        self.assertEqual(text.count("kept-as-is.md"), len(POINTER.findall(text)))


if __name__ == "__main__":
    unittest.main()
