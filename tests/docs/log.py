"""Whether docs/log.md lists the log statements of the sources: each of them, and nothing else."""

import re
import unittest

import log_statements
import pages


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


def matches(text, listed):
    """Whether the listed text is the statement's; it may tell more of what only a run can tell."""
    parts = map(re.escape, text.split(log_statements.ANYTHING))
    return re.fullmatch(".*".join(parts), listed) is not None


class Log(unittest.TestCase):
    def setUp(self):
        self.listed = listed_statements()
        self.statements = []
        for folder in ("src", "device"):
            self.statements += log_statements.read_folder(pages.ROOT / folder)
        self.assertGreater(len(self.statements), 0)

    def test_no_two_statements_have_one_name(self):
        names = [(statement.source, statement.number) for statement in self.statements]
        self.assertEqual(sorted(names), sorted(set(names)))

    def test_every_statement_is_listed_as_it_is(self):
        for source, number, level, text in self.statements:
            with self.subTest(source=source, number=number):
                self.assertIn((source, number), self.listed)
                listed_level, listed_text = self.listed[(source, number)]
                self.assertEqual(listed_level, level)
                self.assertTrue(matches(text, listed_text), f"{listed_text} is not {text}")

    def test_nothing_is_listed_that_no_source_has(self):
        names = {(statement.source, statement.number) for statement in self.statements}
        self.assertEqual(set(self.listed) - names, set())

    def test_every_error_says_what_to_do(self):
        for row in pages.rows("docs/log.md"):
            if "ERROR" in row.get("level", ""):
                with self.subTest(number=row["number"]):
                    self.assertGreater(len(row["when it is written; what is wrong, what to do"]), 0)


if __name__ == "__main__":
    unittest.main()
