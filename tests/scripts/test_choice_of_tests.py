"""Which tests ./test runs, and what it says of them."""

import os
import pathlib
from os.path import exists

from conftest import add_test, append, expect, expect_tests
from program import read

ONE, TWO, THREE = "build/one", "build/two", "build-clang/three"


def test_both_folders_without_what_is_long(machine):
    add_test(ONE)
    add_test(TWO, label="long")
    add_test(THREE)
    expect_tests("", 0, "\n2 passed, 0 failed, 0 skipped", ONE, THREE)
    expect_tests("-LE other", 0, "\n2 passed, 0 failed, 0 skipped", ONE, THREE)
    expect_tests("--long", 0, "\n3 passed, 0 failed, 0 skipped", ONE, TWO, THREE)


def test_options_are_handed_to_ctest(machine):
    add_test(ONE)
    add_test(TWO, label="late")
    add_test(THREE)
    expect_tests("-R ^t -E ree", 0, "1 passed, 0 failed", TWO)
    expect_tests("--tests-regex ^t --label-regex late -j 2 --timeout 60", 0, "1 passed, 0 failed", TWO)
    expect_tests("-LE late --repeat until-fail:2 -j1", 0, "2 passed, 0 failed", ONE, ONE, THREE, THREE)
    expect_tests("-I 1,1 --schedule-random --stop-on-failure", 0, "2 passed, 0 failed", ONE, THREE)
    expect_tests("-N -R two", 0, "Test #2: two")
    expect_tests("-N", 0, "\n0 passed, 0 failed, 0 skipped")
    expect_tests("--print-labels", 0, "  late")
    expect_tests("-R nonsense", 1, "No test ran: there is none such\n0 passed, 0 failed, 0 skipped")


def test_a_skip_among_tests_that_pass_is_named_and_a_failure_where_namespaces_are_allowed(machine, monkeypatch):
    add_test(ONE, "echo 'SKIPPED [1] file.py:3: no small disk'; echo '= 1 passed, 1 skipped'")
    expect_tests("", 1, "SKIPPED one: file.py:3: no small disk", ONE)
    monkeypatch.setenv("VEMO_SANDBOX_KIND", "proot")
    expect_tests("", 0, "1 passed, 0 failed, 1 skipped", ONE)


def test_what_failed_runs_again(machine):
    add_test("build/good")
    add_test(ONE, f"test -e {machine}/mended")
    add_test(TWO, f"test -e {machine}/mended-too", "long")
    add_test("build-clang/good")
    expect_tests("--long", 1, "\n2 passed, 2 failed, 0 skipped", "build/good", ONE, TWO, "build-clang/good")
    # ctest's numbers are others now.
    before = read("build/CTestTestfile.cmake")
    os.remove("build/CTestTestfile.cmake")
    add_test("build/new")
    append("build/CTestTestfile.cmake", before)
    expect_tests("--rerun-failed", 1, "\n0 passed, 2 failed, 0 skipped", ONE, TWO)
    expect_tests("--rerun-failed -LE long", 1, "\n0 passed, 1 failed, 0 skipped", ONE)
    expect_tests("--rerun-failed -R two", 1, "\n0 passed, 1 failed, 0 skipped", TWO)
    pathlib.Path("mended").touch()
    expect_tests("--rerun-failed", 1, "\n1 passed, 1 failed, 0 skipped", ONE, TWO)
    pathlib.Path("mended-too").touch()
    expect_tests("--rerun-failed -R one", 1, "there is none such among those that failed last time")
    expect_tests("--rerun-failed", 0, "\n1 passed, 0 failed, 0 skipped", TWO)
    os.remove("called")
    expect_tests("--rerun-failed", 0, "Nothing failed last time\n0 passed, 0 failed, 0 skipped")
    assert not exists("called")


def test_before_any_test_ran_none_is_run_again(machine):
    expect(1, "no test has run here yet: start ./test", "./test --rerun-failed")
    assert not exists("called")
