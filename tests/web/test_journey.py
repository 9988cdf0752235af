"""The web interface as a technician uses it. Partly once more on an emulated machine: tests/machine/installed.py."""

import re

from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

from browser import FORM, PAGES, TITLES, WARNING


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

    assert "Set CanDetectTimeout to 500 ms." in technician.text()
    technician.open(FORM)
    assert technician.field().get_attribute("value") == "500"
    assert "\nVEMODCanDetectTimeout=500\n" in technician.settings()


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


def test_the_last_link_of_the_navigation_leads_from_the_success_to_the_warning(technician):
    technician.post("500")
    assert technician.heading() == "Set CanDetectTimeout"
    assert re.search(r"Set CanDetectTimeout to 500 ms\.\s+Set new option was successful\.\n"
                     r"To activate the new setting reboot the device\.", technician.text())
    technician.follow("Set CanDetectTimeout")
    assert "Option CanDetectTimeout not set" in technician.text()
    assert "\nVEMODCanDetectTimeout=500\n" in technician.settings()


def test_every_link_of_the_navigation_leads_to_its_page(technician):
    for path in PAGES:
        technician.open(path)
        navigation = [a.text for a in technician.driver.find_elements(By.CSS_SELECTOR, ".navi a")]
        assert navigation[0] == "Home", path
        for text in navigation:
            technician.open(path)
            technician.follow(text)
            assert technician.title == TITLES[text], (path, text)


def test_the_warning_leads_back_to_the_form(technician):
    technician.open(WARNING)
    assert technician.title == TITLES["Set CanDetectTimeout"]
    assert "Option CanDetectTimeout not set" in technician.text()
    technician.press("Back")
    assert technician.title == TITLES["Device Information"]
    assert technician.field().get_attribute("value") == "300"


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
