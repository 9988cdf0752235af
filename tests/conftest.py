"""What the tests of packages and documents share."""

import pathlib
import sys

import pytest

sys.dont_write_bytecode = True
TESTS = pathlib.Path(__file__).parent
sys.path += [str(TESTS / folder) for folder in ("packaging", "docs", "support", "web")]


def pytest_addoption(parser):
    parser.addoption("--build", type=pathlib.Path, default=TESTS.parent / "build",
                     help="the build folder; without it the checkout's own")
    parser.addoption("--staged", type=pathlib.Path, help="what docs/on-a-device.md installs into a folder: staged.py")


@pytest.fixture(scope="session")
def build(request):
    return request.config.getoption("build").resolve()
