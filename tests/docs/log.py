"""Whether docs/log.md lists the log statements of the sources: each of them, and nothing else."""

import re
import unittest

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


class Log(unittest.TestCase):
    def setUp(self):
        self.listed = listed_statements()
        self.statements = []
        for folder in ("src", "pages", "standin"):
            for file in sorted((pages.ROOT / folder).rglob("*.*")):
                if file.suffix in (".cpp", ".h"):
                    found, unread = statements_of(file)
                    self.assertEqual(unread, [], f"{file}: statements that cannot be read")
                    name = file.relative_to(pages.ROOT).with_suffix("").as_posix()
                    self.assertLessEqual({source for (source, _), _, _ in found}, {name})
                    self.statements += found
        self.assertGreater(len(self.statements), 0)

    def test_no_two_statements_have_one_name(self):
        names = [name for name, _, _ in self.statements]
        self.assertEqual(sorted(names), sorted(set(names)))

    def test_every_statement_is_listed_as_it_is(self):
        for name, level, text in self.statements:
            with self.subTest(name):
                self.assertIn(name, self.listed)
                listed_level, listed_text = self.listed[name]
                self.assertEqual(listed_level, level)
                # The page may tell more of what only a run can tell.
                self.assertRegex(listed_text, "^" + ".*".join(map(re.escape, text.split(ELLIPSIS))) + "$")

    def test_nothing_is_listed_that_no_source_has(self):
        self.assertEqual(set(self.listed) - {name for name, _, _ in self.statements}, set())

    def test_every_error_says_what_to_do(self):
        for row in pages.rows("docs/log.md"):
            if "ERROR" in row.get("level", ""):
                with self.subTest(number=row["number"]):
                    self.assertGreater(len(row["when it is written; what is wrong, what to do"]), 0)


if __name__ == "__main__":
    unittest.main()
