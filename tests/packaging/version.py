"""One version, and what names a commit behind it: python3 -B -m pytest tests/packaging/version.py --build BUILD"""

import os
import re
import shutil
import subprocess

import pytest

from root import SOURCE

NEEDED = ("CMakeLists.txt", "tools/package-version", "packaging/commit", ".gitattributes", ".gitignore")
VERSION = re.search(r"^project\(vemo-web VERSION (\S+)", (SOURCE / "CMakeLists.txt").read_text(), re.MULTILINE)[1]


def run(*command, **more):
    return subprocess.run(command, capture_output=True, text=True, check=True, **more).stdout.strip()


def expect_in_order(*versions):
    for older, newer in zip(versions, versions[1:]):
        run("dpkg", "--compare-versions", older, "lt", newer)


def test_the_changelog_has_it_on_top_of_older_ones():
    headings = re.findall(r"^## (.*)$", (SOURCE / "CHANGELOG.md").read_text(encoding="utf-8"), re.MULTILINE)
    assert headings.pop(0) == "[Unreleased]"
    found = [re.fullmatch(r"\[(\d+\.\d+\.\d+)\] - (\d{4}-\d\d-\d\d)", heading).groups() for heading in headings]
    assert found[0][0] == VERSION
    expect_in_order(*(version for version, _ in reversed(found)))
    days = [day for _, day in found]
    assert days == sorted(days, reverse=True)


def test_the_check_and_the_cmake_package_say_it(build):
    assert run("bash", build / "packaging/vemo-web-check", "--version") == f"vemo-web {VERSION}"
    text = (build / "packaging/vemo-web-config-version.cmake").read_text(encoding="utf-8")
    assert f'set(PACKAGE_VERSION "{VERSION}")' in text


def copy_needed(folder):
    for name in NEEDED:
        (folder / name).parent.mkdir(parents=True, exist_ok=True)
        shutil.copy(SOURCE / name, folder / name)


def version_in(folder):
    return run(folder / "tools/package-version")


class Repository:
    """Of its own, with what the version is made of, committed."""

    def __init__(self, folder):
        self.folder = folder
        copy_needed(folder)
        self.git("init", "--quiet")
        self.first = self.commit()

    def git(self, *arguments, date=0):
        date = f"{1700000000 + date} +0000"
        return run("git", "-c", "user.name=n", "-c", "user.email=e@example.org", *arguments, cwd=self.folder,
                   env={**os.environ, "GIT_AUTHOR_DATE": date, "GIT_COMMITTER_DATE": date})

    def commit(self, date=0):
        """The version there."""
        self.git("add", "--all")
        self.git("commit", "--quiet", "--allow-empty", "--message", "All", date=date)
        self.name = self.git("rev-parse", "HEAD")[:7]
        return version_in(self.folder)


@pytest.fixture
def repository(tmp_path):
    return Repository(tmp_path)


@pytest.fixture(params=[False, True], ids=["another tag", "the version's tag"])
def expected(request, repository):
    """The version there."""
    repository.git("tag", f"v{VERSION}1")
    if not request.param:
        return repository.first
    repository.git("tag", f"v{VERSION}")
    return VERSION


def test_the_commit_of_its_own_tag_alone_has_the_version_itself(repository, expected):
    assert version_in(repository.folder) == expected


def test_later_commits_follow_it_and_one_another_and_the_next_version_them(repository):
    versions = [repository.first, repository.commit(1), repository.commit(90000)]
    expect_in_order(VERSION, *versions, VERSION + ".1")
    assert versions[-1] == f"{VERSION}+git20231115231320.{repository.name}"


@pytest.mark.parametrize("name", ["new", "CMakeLists.txt"])
def test_what_is_not_committed_follows_its_commit(repository, expected, name):
    with open(repository.folder / name, "a", encoding="utf-8") as file:
        file.write("# more\n")
    dirty = version_in(repository.folder)
    assert re.fullmatch(rf"{re.escape(VERSION)}\+git\d{{14}}\.{repository.name}\.dirty", dirty), dirty
    expect_in_order(expected, dirty, VERSION + ".1")


def test_what_git_ignores_changes_nothing(repository):
    (repository.folder / "build").mkdir()
    (repository.folder / "build/new").write_text("more")
    assert version_in(repository.folder) == repository.first


def test_an_archive_knows_its_commit(repository, expected, tmp_path_factory):
    archive = tmp_path_factory.mktemp("archive")
    subprocess.run(f"git archive HEAD | tar -xC '{archive}'", shell=True, check=True, cwd=repository.folder)
    assert version_in(archive) == expected


def test_a_copy_without_git_has_the_version_itself_even_in_another_repository(repository):
    copy_needed(repository.folder / "copy")
    assert version_in(repository.folder / "copy") == VERSION
