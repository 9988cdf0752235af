"""One version, and what names a commit behind it: python3 -B tests/packaging/version.py BUILD"""

import os
import pathlib
import re
import shutil
import subprocess
import sys
import tempfile
import unittest

BUILD = pathlib.Path(sys.argv.pop(1)).resolve()
SOURCE = pathlib.Path(__file__).resolve().parents[2]
NEEDED = ("CMakeLists.txt", "tools/package-version", "packaging/commit", ".gitattributes", ".gitignore")
VERSION = re.search(r"^project\(vemo-web VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


def run(*command, **more):
    return subprocess.run(command, capture_output=True, text=True, check=True, **more).stdout.strip()


class One(unittest.TestCase):
    def test_the_changelog_has_it_on_top_of_older_ones(self):
        headings = re.findall(r"^## (.*)$", (SOURCE / "CHANGELOG.md").read_text(encoding="utf-8"), re.MULTILINE)
        self.assertEqual(headings.pop(0), "[Unreleased]")
        found = [re.fullmatch(r"\[(\d+\.\d+\.\d+)\] - (\d{4}-\d\d-\d\d)", heading) for heading in headings]
        self.assertEqual(found[0][1], VERSION)
        for newer, older in zip(found, found[1:]):
            run("dpkg", "--compare-versions", newer[1], "gt", older[1])
            self.assertGreaterEqual(newer[2], older[2])

    def test_the_check_says_it(self):
        self.assertEqual(run("bash", BUILD / "packaging/vemo-web-check", "--version"), f"vemo-web {VERSION}")

    def test_the_cmake_package_has_it(self):
        text = (BUILD / "packaging/vemo-web-config-version.cmake").read_text(encoding="utf-8")
        self.assertIn(f'set(PACKAGE_VERSION "{VERSION}")', text)


class Behind(unittest.TestCase):
    """In a repository of its own."""

    def setUp(self):
        self.folder = pathlib.Path(tempfile.mkdtemp(prefix="vemo-web."))
        self.addCleanup(shutil.rmtree, self.folder)
        for name in NEEDED:
            file = self.folder / name
            file.parent.mkdir(exist_ok=True)
            shutil.copy(SOURCE / name, file)
        self.git("init", "--quiet")

    def git(self, *arguments, date=0):
        date = f"{1700000000 + date} +0000"
        return run("git", "-c", "user.name=n", "-c", "user.email=e@example.org", *arguments, cwd=self.folder,
                   env={**os.environ, "GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date})

    def commit(self, date):
        """The version there."""
        self.git("add", "--all")
        self.git("commit", "--quiet", "--allow-empty", "--message", "All", date=date)
        return self.version()

    def version(self, folder=None):
        return run((folder or self.folder) / "tools/package-version")

    def expect_in_order(self, *versions):
        for older, newer in zip(versions, versions[1:]):
            with self.subTest(older=older, newer=newer):
                run("dpkg", "--compare-versions", older, "lt", newer)

    def test_the_tagged_commit_has_the_version_itself(self):
        self.commit(0)
        self.git("tag", f"v{VERSION}")
        self.git("tag", "another")
        self.assertEqual(self.version(), VERSION)

    def test_another_tag_is_not_the_versions(self):
        self.commit(0)
        self.git("tag", f"v{VERSION}1")
        self.assertNotEqual(self.version(), VERSION)

    def test_later_commits_follow_it_and_one_another_and_the_next_version_them(self):
        versions = [self.commit(date) for date in (0, 1, 90000)]
        self.expect_in_order(VERSION, *versions, VERSION + ".1")
        commit = self.git("rev-parse", "HEAD")[:7]
        self.assertEqual(versions[-1], f"{VERSION}+git20231115231320.{commit}")

    def test_what_is_not_committed_follows_its_commit(self):
        for is_tagged in (False, True):
            first = self.commit(0)
            commit = self.git("rev-parse", "HEAD")[:7]
            if is_tagged:
                self.git("tag", f"v{VERSION}")
                first = VERSION
            for name in ("new", "CMakeLists.txt"):
                with self.subTest(name, is_tagged=is_tagged):
                    file = self.folder / name
                    before = file.read_bytes() if file.exists() else None
                    with open(file, "a", encoding="utf-8") as appended:
                        appended.write("# more\n")
                    dirty = self.version()
                    self.assertRegex(dirty, rf"\A{re.escape(VERSION)}\+git\d{{14}}\.{commit}\.dirty\Z")
                    self.expect_in_order(first, dirty, VERSION + ".1")
                    file.unlink()
                    if before is not None:
                        file.write_bytes(before)

    def test_what_git_ignores_changes_nothing(self):
        first = self.commit(0)
        (self.folder / "build").mkdir()
        (self.folder / "build/new").write_text("more")
        self.assertEqual(self.version(), first)

    def test_an_archive_knows_its_commit(self):
        expected = self.commit(0)
        for is_tagged in (False, True):
            with self.subTest(is_tagged=is_tagged), tempfile.TemporaryDirectory() as archive:
                if is_tagged:
                    self.git("tag", f"v{VERSION}")
                    expected = VERSION
                subprocess.run(f"git archive HEAD | tar -xC '{archive}'", shell=True, check=True, cwd=self.folder)
                self.assertEqual(self.version(pathlib.Path(archive)), expected)

    def test_a_copy_without_git_has_the_version_itself_even_in_another_repository(self):
        self.commit(0)
        copy = self.folder / "copy"
        for name in NEEDED:
            (copy / name).parent.mkdir(parents=True, exist_ok=True)
            shutil.copy(self.folder / name, copy / name)
        self.assertEqual(self.version(copy), VERSION)


if __name__ == "__main__":
    unittest.main(verbosity=2)
