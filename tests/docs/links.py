"""Whether the documents' links lead somewhere, and the files that they name are there."""

import re
import unittest

import pages

NAMED = re.compile(r"`((?:src|platform|pages|web|standin|packaging|tests|bench|tools|cmake|docs)/[\w./-]+\.\w+)`")


def documents():
    return sorted(file for pattern in ("*.md", "docs/*.md", "*/README.md") for file in pages.ROOT.glob(pattern))


def anchors(file):
    """Those of the headings, as forges make them."""
    headings = re.findall(r"(?m)^#+ (.*)$", file.read_text(encoding="utf-8"))
    return {re.sub(r"[^\w -]", "", heading.lower()).replace(" ", "-") for heading in headings}


class Links(unittest.TestCase):
    def test_every_link_has_its_file_and_heading(self):
        for file in documents():
            for link in re.findall(r"\]\((?!https?:)([^)\s]+)\)", file.read_text(encoding="utf-8")):
                with self.subTest(file.name, link=link):
                    path, _, anchor = link.partition("#")
                    target = file.parent / path if path else file
                    self.assertTrue(target.exists())
                    if anchor:
                        self.assertIn(anchor, anchors(target))

    def test_every_file_that_is_named_is_there(self):
        for file in documents():
            for name in NAMED.findall(file.read_text(encoding="utf-8")):
                with self.subTest(file.name, name=name):
                    self.assertTrue((pages.ROOT / name).exists())


if __name__ == "__main__":
    unittest.main()
