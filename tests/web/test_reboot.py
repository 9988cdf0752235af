"""Of a device that may be rebooted, as the stand-in may. Really, on an emulated machine: tests/machine/installed.py."""

import browser
import device
from browser import REBOOT, TITLES

NO_SCRIPTS = {"profile.managed_default_content_settings.javascript": 2}


def order(technician):
    technician.open(REBOOT)
    assert "Reboot the device to activate new settings?" in technician.text()
    technician.press("Reboot")
    assert technician.title == TITLES["Reboot"]
    assert "The device reboots now." in technician.text()
    assert technician.style(".navi", "background-color") != "rgba(0, 0, 0, 0)"


def test_a_new_value_is_there_when_the_page_reports_the_reboot(technician):
    technician.post("500")
    order(technician)
    technician.wait_until(lambda: "The device is back: it has rebooted." in technician.driver.page_source,
                          "the page does not report it")
    technician.follow("Device Information")
    assert technician.field().get_attribute("value") == "500"
    assert "\nVEMODCanDetectTimeout=500\n" in technician.settings()


def test_without_scripts_a_link_shows_the_reboot(technician):
    def is_listening():
        return device.can_connect((device.ADDRESS, browser.PORT))

    with browser.running_browser(preferences=NO_SCRIPTS) as driver:
        plain = browser.Technician(driver, technician.root)
        order(plain)
        plain.follow("Is it back?")
        assert "The device has not rebooted yet." in plain.text()
        assert device.eventually(lambda: not is_listening())
        assert device.eventually(is_listening)
        assert "The device has not rebooted yet." in plain.text()
        plain.follow("Is it back?")
        assert "The device is back: it has rebooted." in plain.text()
