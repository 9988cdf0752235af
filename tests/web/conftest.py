"""The options of a run, the device and the browser for all tests of it. By hand:

    standin/sandbox BUILD --private-network --read-only . /source -- \\
        python3 -B -m pytest /source/tests/web/test_limits.py --server nginx -k slots
"""

import pathlib
import sys

import pytest

TESTS = pathlib.Path(__file__).parents[1]
sys.path += [str(TESTS / folder) for folder in ("web", "docs", "support")]

import device  # noqa: E402
import server  # noqa: E402
import table  # noqa: E402
from prepared import PASSWORD, TLS  # noqa: E402


def pytest_addoption(parser):
    group = parser.getgroup("device")
    group.addoption("--server", default="lighttpd", choices=("lighttpd", "apache2", "nginx"))
    group.addoption("--address", default="127.0.0.1", help="where it listens; the sandbox has to have it")
    group.addoption("--tls", action="store_true", help="the browser's tests by https")
    group.addoption("--password", action="store_true", help="the browser's tests with a password")
    group.addoption("--long", action="store_true", help="more of it")


def pytest_configure(config):
    device.NAME, device.ADDRESS, device.IS_LONG = map(config.getoption, ("server", "address", "long"))
    device.HOST = "localhost" if device.ADDRESS == "127.0.0.1" else device.ADDRESS
    device.PARTS = [part for part, option in ((TLS, "tls"), (PASSWORD, "password")) if config.getoption(option)]


def pytest_collection_modifyitems(config, items):
    """Leaves out what is not of this server and address. A row's "no" is expected: a "yes" fails, too."""
    others = {"lighttpd", "apache2", "nginx", "network", "loopback"}
    others |= set() if device.IS_LONG else {"long"}
    others -= {device.NAME, "loopback" if device.is_on_loopback() else "network"}
    for item in items:
        if (row := item.get_closest_marker("row")) and not table.says_yes(row.args[0]):
            item.add_marker(pytest.mark.xfail(raises=AssertionError, reason="the table says no"))
    left_out = [item for item in items if any(map(item.get_closest_marker, others))]
    config.hook.pytest_deselected(items=left_out)
    items[:] = [item for item in items if item not in left_out]


def pytest_make_parametrize_id(val):
    """A request is named by its first line."""
    return val.split(b"\r")[0].decode("latin-1") if isinstance(val, bytes) else None


@pytest.fixture(scope="session")
def shared_server():
    device.reset()
    with server.Server() as running:
        yield running


@pytest.fixture(name="server")
def reset_server(shared_server):
    """Running, and the device as it is before the first request."""
    device.reset()
    return shared_server


@pytest.fixture(scope="session")
def running_device():
    is_as_shipped = device.is_on_loopback() and device.NAME == "lighttpd" and not device.PARTS
    with server.running_stand_in() if is_as_shipped else server.running_device():
        yield


@pytest.fixture(scope="session")
def everybody(running_device):
    """A technician, for tests that leave the device as it was."""
    import browser

    with browser.running_browser() as driver:
        yield browser.Technician(driver, browser.root())


@pytest.fixture
def technician(everybody):
    everybody.start()
    return everybody
