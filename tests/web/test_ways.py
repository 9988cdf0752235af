"""By which a technician comes to a change, beside the form that he opens and sends."""

import tempfile

import pytest

import browser
import device
from browser import FORM, success


def expect_success(technician, value):
    assert f"Set CanDetectTimeout to {value} ms." in technician.text()
    assert f"\nVEMODCanDetectTimeout={value}\n" in technician.settings()


def test_a_reload_of_the_success_stores_the_value_again(technician):
    technician.post("500")
    technician.write_shipped_settings()
    technician.leave(technician.driver.refresh)
    expect_success(technician, "500")


def test_a_reload_of_a_success_by_address_stores_the_value_again(technician):
    technician.open(success("501"))
    technician.write_shipped_settings()
    technician.leave(technician.driver.refresh)
    expect_success(technician, "501")


def test_the_browsers_own_back_leads_to_the_form(technician):
    technician.post("502")
    technician.leave(technician.driver.back)
    technician.enter("503")
    technician.press("Set")
    expect_success(technician, "503")


def test_two_tabs_have_each_a_form(technician):
    technician.open(FORM)
    first = technician.driver.current_window_handle
    technician.driver.switch_to.new_window("tab")
    technician.post("504")
    expect_success(technician, "504")
    technician.driver.close()
    technician.driver.switch_to.window(first)
    technician.enter("505")
    technician.press("Set")
    expect_success(technician, "505")


def test_a_browser_is_closed_and_opened_again(technician):
    with tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True) as profile:
        for value in ("506", "507"):
            with browser.running_browser(profile=profile) as driver:
                again = browser.Technician(driver, technician.root)
                again.post(value)
                expect_success(again, value)


@pytest.mark.loopback
def test_a_typed_address_stores_its_value_on_loopback(technician):
    technician.driver.get("about:blank")
    technician.driver.get(technician.root + success("508"))
    expect_success(technician, "508")


@pytest.mark.network
def test_a_typed_address_is_refused_elsewhere_with_a_way_to_the_form(technician):
    technician.driver.get("about:blank")
    technician.driver.get(technician.root + success("508"))
    assert technician.settings() == device.SHIPPED_SETTINGS.read_text()
    assert technician.title == "VEMO Web Server - Refused"
    assert "This request did not come from the device's own pages." in technician.text()
    assert technician.style(".navi", "background-color") != "rgba(0, 0, 0, 0)"
    technician.follow("Device Information")
    technician.press("Set")
    expect_success(technician, "300")
