"""The nVm client under valgrind, which finds what is read uninitialised or never freed. What is reachable at the end is
kept on purpose: the log handlers."""

import re
import subprocess

import pytest


@pytest.mark.namespaces("valgrind does not see the sandbox's paths")
def test_is_initialised_where_it_is_read_and_freed():
    done = subprocess.run(
        ["valgrind", "--leak-check=full", "--errors-for-leak-kinds=definite,indirect,possible", "--error-exitcode=99",
         "/build/tests/nvm_tests", "--gtest_brief=1",
         "--gtest_filter=*NvmReader*:NvmToggle.*:*NvmReply*:-*Hostile*"],
        stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, errors="replace", check=False)
    assert done.returncode == 0, done.stdout
    assert re.search(r"PASSED  \] [1-9]", done.stdout)
