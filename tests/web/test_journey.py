"""The web interface as a technician uses it; a real reboot, and some of the rest once more, on an emulated machine:
tests/machine/installed.py."""

import re
import time

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

import browser
import device
from browser import FORM, PAGES, REBOOT, REFUSALS, TITLES, WARNING, success

NO_SCRIPTS = {"profile.managed_default_content_settings.javascript": 2}


def expect_success(technician, value):
    assert f"Set CanDetectTimeout to {value} ms." in technician.text()
    assert f"\nVEMODCanDetectTimeout={value}\n" in technician.settings()


def test_the_keyboard_alone_sets_the_timeout(technician):
    technician.open(FORM)
    focus = technician.driver.switch_to
    for _ in range(20):
        if focus.active_element == technician.field():
            break
        focus.active_element.send_keys(Keys.TAB)
    assert focus.active_element == technician.field()
    technician.field().send_keys(Keys.CONTROL, "a")
    technician.field().send_keys("500")
    technician.leave(lambda: technician.field().send_keys(Keys.ENTER))
    expect_success(technician, "500")
    technician.open(FORM)
    assert technician.field().get_attribute("value") == "500"


def test_only_a_whole_number_is_let_through(technician):
    before = technician.settings()
    technician.open(FORM)
    page, field = technician.driver.find_element(By.TAG_NAME, "html"), technician.field()
    # A click on the label leads into the field.
    technician.driver.find_element(By.XPATH, "//label[contains(., 'CanDetectTimeout')]").click()
    assert technician.driver.switch_to.active_element == field
    for text in ("", "abc", "-5", "1.5", "5" * 200):
        field.clear()
        field.send_keys(text, Keys.ENTER)
        # Had it been sent, the browser would have left before it answers the next order.
        assert technician.driver.find_element(By.TAG_NAME, "html") == page, text
        assert technician.driver.switch_to.active_element == field, text
        assert technician.driver.execute_script("return arguments[0].matches(':user-invalid')", field), text
    assert technician.settings() == before
    field.clear()
    field.send_keys("300")
    technician.leave(lambda: field.send_keys(Keys.ENTER))
    assert "Set CanDetectTimeout to 300 ms." in technician.text()


def test_the_last_link_of_the_navigation_leads_to_the_warning_which_leads_back_to_the_form(technician):
    technician.post("500")
    assert technician.heading() == "Set CanDetectTimeout"
    assert re.search(r"Set CanDetectTimeout to 500 ms\.\s+Set new option was successful\.\n"
                     r"To activate the new setting reboot the device\.", technician.text())
    technician.follow("Set CanDetectTimeout")
    assert technician.title == TITLES["Set CanDetectTimeout"]
    assert "Option CanDetectTimeout not set" in technician.text()
    assert "\nVEMODCanDetectTimeout=500\n" in technician.settings()
    technician.press("Back")
    assert technician.title == TITLES["Device Information"]
    assert technician.field().get_attribute("value") == "500"


def test_every_link_of_the_navigation_leads_to_its_page(technician):
    for path in PAGES:
        technician.open(path)
        navigation = [a.text for a in technician.driver.find_elements(By.CSS_SELECTOR, ".navi a")]
        assert navigation[0] == "Home", path
        for text in navigation:
            technician.open(path)
            technician.follow(text)
            assert technician.title == TITLES[text], (path, text)


def test_a_value_with_umlauts_comes_back_as_it_was_typed(technician):
    technician.post("fünfhundert")
    assert "Set CanDetectTimeout to fünfhundert ms." in technician.text()
    technician.open(FORM)
    assert technician.field().get_attribute("value") == "fünfhundert"


def test_the_interface_is_allocated_and_released(technician):
    technician.open(FORM)
    technician.press("Allocate")
    assert re.search(r"Owner\s+VEMO_WEB", technician.text())
    technician.press("Release")
    assert re.search(r"Owner\s+None", technician.text())


# --- Ways to a change

def test_a_reload_of_the_success_stores_the_value_again_and_back_leads_to_the_form(technician):
    technician.post("500")
    technician.write_shipped_settings()
    technician.leave(technician.driver.refresh)
    expect_success(technician, "500")
    technician.leave(technician.driver.back)
    technician.enter("503")
    technician.press("Set")
    expect_success(technician, "503")


def test_a_typed_address_stores_its_value_on_loopback_alone(technician):
    technician.driver.get("about:blank")
    technician.driver.get(technician.root + success("508"))
    if device.is_on_loopback():
        expect_success(technician, "508")
        return
    assert technician.settings() == device.SHIPPED_SETTINGS.read_text()
    assert technician.title == "VEMO Web Server - Refused"
    assert "This request did not come from the device's own pages." in technician.text()
    assert technician.style(".navi", "background-color") != "rgba(0, 0, 0, 0)"
    technician.follow("Device Information")
    technician.press("Set")
    expect_success(technician, "300")


# --- The reboot

def order(technician):
    assert "Reboot the device to activate new settings?" in technician.text()
    technician.press("Reboot")
    assert technician.title == TITLES["Reboot"]
    assert "The device reboots now." in technician.text()
    assert technician.style(".navi", "background-color") != "rgba(0, 0, 0, 0)"


def test_a_new_value_is_there_when_the_page_reports_the_reboot(technician):
    technician.post("500")
    technician.follow("reboot")
    order(technician)
    technician.wait_until(lambda: "The device is back: it has rebooted." in technician.driver.page_source,
                          "the page does not report it")
    technician.follow("Device Information")
    assert technician.field().get_attribute("value") == "500"
    assert "\nVEMODCanDetectTimeout=500\n" in technician.settings()


def test_without_scripts_a_link_shows_the_reboot(technician):
    def is_listening():
        time.sleep(0.2)  # the kernel counts connections that a busy server has not closed yet
        return device.can_connect((device.ADDRESS, browser.PORT))

    with browser.running_browser(preferences=NO_SCRIPTS) as driver:
        plain = browser.Technician(driver, technician.root)
        plain.open(REBOOT)
        order(plain)
        plain.follow("Is it back?")
        assert "The device has not rebooted yet." in plain.text()
        assert device.eventually(lambda: not is_listening())
        assert device.eventually(is_listening)
        assert "The device has not rebooted yet." in plain.text()
        plain.follow("Is it back?")
        assert "The device is back: it has rebooted." in plain.text()


# --- The pages under their policy

# nginx shows that page for a refusal, and not by its own address.
@pytest.mark.parametrize("path", [*PAGES, *(REFUSALS[1:2] if device.NAME != "nginx" else ())])
def test_the_policy_lets_the_styles_apply_and_the_console_reports_nothing_unknown(everybody, path):
    everybody.driver.get_log("browser")  # what was said before
    everybody.open(path)
    for part in (".navi", ".content", *([".warn"] if path == WARNING else [])):
        assert everybody.style(part, "background-color") != "rgba(0, 0, 0, 0)"
    if path == WARNING:
        assert everybody.style(".mybutton", "appearance") == "none"
    if ".cgi" in path:
        # The frame's own.
        assert everybody.style("body > p + div", "clear") == "both"
    # Browsers ask for an icon unasked; the other is their own start page.
    known = re.compile(r"/favicon\.ico .* 404|^chrome://")
    messages = [entry["message"] for entry in everybody.driver.get_log("browser")]
    assert [message for message in messages if not known.search(message)] == []
