"""The options of tests in the sandbox, and the device before each of them."""

import os

import pytest

pytest.register_assert_rewrite("program", "nvm", "page")

import program  # noqa: E402


def pytest_addoption(parser):
    parser.addoption("--java-vm", metavar="FOLDER", help="the programs find that folder's libjvm.so first")
    parser.addoption("--long", action="store_true", help="more of it")


def pytest_configure(config):
    program.JAVA_VM = config.getoption("java_vm")
    # The programs' folder, as a Java VM that crashes writes a file there.
    os.chdir("/tmp")


def pytest_collection_modifyitems(items):
    for item in items:
        if program.IS_TRACED and (needed := item.get_closest_marker("namespaces")):
            item.add_marker(pytest.mark.skip(reason=f"Where namespaces are refused, {needed.args[0]}"))


@pytest.fixture(params=("real", "fake"))
def vm(request):
    """A test that has it runs with each Java VM."""
    return request.param


@pytest.fixture(autouse=True)
def no_settings():
    """The device, without a settings file and a log."""
    program.reset_device()
    yield
    program.reset_device()


@pytest.fixture
def old_settings(no_settings):
    program.write(program.SETTINGS, program.OLD_SETTINGS)


@pytest.fixture
def small_disk():
    """The folder of a file system that can be filled up, for tests marked `namespaces`."""
    program.clear(program.SMALL_DISK)
    yield program.SMALL_DISK
    program.clear(program.SMALL_DISK)
