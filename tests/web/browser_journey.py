"""The web interface as a technician uses it.

    standin/sandbox build --private-network --read-only . /source -- \\
        /usr/bin/python3 /source/tests/web/browser_journey.py
"""

import re
import tempfile
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys
from selenium.webdriver.support.ui import WebDriverWait

import browser


def setUpModule():
    unittest.enterModuleContext(browser.running_device())
    Browser.driver = unittest.enterModuleContext(browser.running_browser())


class Browser(unittest.TestCase):
    """A browser on a desk, at the device's home page; the device as it was shipped."""

    def setUp(self):
        browser.write_shipped_settings()
        browser.set_screen(self.driver, browser.DESK)
        self.open(browser.HOME)

    # --- What the technician does

    def open(self, path):
        browser.open_page(self.driver, path)

    def links(self):
        """The page's links to other pages, by their text."""
        return {a.text: a for a in self.driver.find_elements(By.TAG_NAME, "a")}

    def leave(self, act):
        browser.leave(self.driver, act)

    def follow(self, text):
        self.leave(self.links()[text].click)

    def press(self, text):
        buttons = self.driver.find_elements(By.CSS_SELECTOR, "input[type=submit]")
        self.leave(next(b for b in buttons if b.get_attribute("value").strip() == text).click)

    def post(self, value):
        """Sends the value with the page's own form, whatever its field asks for."""
        self.open(browser.FORM)
        self.driver.execute_script("arguments[0].form.noValidate = true", self.field())
        # The browser's own means: typing would be slow and cannot enter everything.
        self.driver.execute_script("arguments[0].value = arguments[1]", self.field(), value)
        self.press("Set")

    def set_by_address(self, value):
        """By an address that leads to the change."""
        self.open(browser.success(value))

    # --- What the technician sees

    def field(self):
        return self.driver.find_element(By.NAME, "CanDetectTimeout")

    def heading(self):
        return self.driver.find_element(By.TAG_NAME, "h2").text

    def text(self):
        return self.driver.find_element(By.TAG_NAME, "body").text

    def style(self, selector, name):
        element = self.driver.find_element(By.CSS_SELECTOR, selector)
        return element.value_of_css_property(name)


class Journey(Browser):
    def test_home_leads_to_device_information(self):
        self.assertEqual(self.driver.title, browser.TITLES["Home"])
        self.follow("Device Information")
        self.assertEqual(self.driver.title, browser.TITLES["Device Information"])
        self.assertEqual(self.field().get_attribute("value"), "300")

    def test_the_keyboard_alone_sets_the_timeout(self):
        self.open(browser.FORM)
        for _ in range(20):
            if self.driver.switch_to.active_element == self.field():
                break
            self.driver.switch_to.active_element.send_keys(Keys.TAB)
        self.assertEqual(self.driver.switch_to.active_element, self.field())
        self.field().send_keys(Keys.CONTROL, "a")
        self.field().send_keys("500")
        self.leave(lambda: self.field().send_keys(Keys.ENTER))

        self.assertIn("Set CanDetectTimeout to 500 ms.", self.text())
        self.open(browser.FORM)
        self.assertEqual(self.field().get_attribute("value"), "500")
        self.assertIn("\nVEMODCanDetectTimeout=500\n", browser.read_settings())

    def test_only_a_whole_number_is_let_through(self):
        before = browser.read_settings()
        self.open(browser.FORM)
        for text in ("", "abc", "-5", "1.5", "5" * 200):
            with self.subTest(text):
                page, field = self.driver.find_element(By.TAG_NAME, "html"), self.field()
                field.clear()
                field.send_keys(text, Keys.ENTER)
                # Had it been sent, the browser would have left before it answers the next order.
                self.assertEqual(self.driver.find_element(By.TAG_NAME, "html"), page)
                self.assertEqual(self.driver.switch_to.active_element, field)
                self.assertTrue(self.driver.execute_script("return arguments[0].matches(':user-invalid')", field))
        self.assertEqual(browser.read_settings(), before)
        self.field().clear()
        self.field().send_keys("300")
        self.leave(lambda: self.field().send_keys(Keys.ENTER))
        self.assertIn("Set CanDetectTimeout to 300 ms.", self.text())

    def test_a_click_on_the_label_leads_into_the_field(self):
        self.open(browser.FORM)
        label = self.driver.find_element(By.XPATH, "//label[contains(., 'CanDetectTimeout')]")
        label.click()
        self.assertEqual(self.driver.switch_to.active_element, self.field())

    def test_success_is_told_and_leads_to_the_reboot(self):
        self.post("500")
        self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])
        self.assertEqual(self.heading(), "Set CanDetectTimeout")
        self.assertRegex(
            self.text(),
            r"Set CanDetectTimeout to 500 ms\.\s+"
            r"Set new option was successful\.\n"
            r"To activate the new setting reboot the device\.",
        )
        self.follow("reboot")
        self.assertEqual(self.driver.title, browser.TITLES["Reboot"])

    def test_every_link_of_the_navigation_leads_to_its_page(self):
        for path in browser.PAGES:
            self.open(path)
            navigation = [a.text for a in self.driver.find_elements(By.CSS_SELECTOR, ".navi a")]
            self.assertEqual(navigation[0], "Home", path)
            for text in navigation:
                with self.subTest(page=path, link=text):
                    self.open(path)
                    self.follow(text)
                    self.assertEqual(self.driver.title, browser.TITLES[text])

    def test_the_warning_leads_back_to_the_form(self):
        self.open(browser.WARNING)
        self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])
        self.assertIn("Option CanDetectTimeout not set", self.text())
        self.press("Back")
        self.assertEqual(self.driver.title, browser.TITLES["Device Information"])
        self.assertEqual(self.field().get_attribute("value"), "300")

    def test_the_last_link_of_the_navigation_leads_to_the_warning(self):
        self.post("500")
        self.follow("Set CanDetectTimeout")
        self.assertIn("Option CanDetectTimeout not set", self.text())
        self.assertIn("\nVEMODCanDetectTimeout=500\n", browser.read_settings())

    def test_a_value_with_umlauts_comes_back_as_it_was_typed(self):
        self.post("fünfhundert")
        self.assertIn("Set CanDetectTimeout to fünfhundert ms.", self.text())
        self.open(browser.FORM)
        self.assertEqual(self.field().get_attribute("value"), "fünfhundert")

    def test_the_interface_is_allocated_and_released(self):
        self.open(browser.FORM)
        self.press("Allocate")
        self.assertRegex(self.text(), r"Owner\s+VEMO_WEB")
        self.press("Release")
        self.assertRegex(self.text(), r"Owner\s+None")


class Reboot(Browser):
    """Of a device that may be rebooted, as the stand-in may."""

    def order(self):
        self.open(browser.REBOOT)
        self.assertIn("Reboot the device to activate new settings?", self.text())
        self.press("Reboot")
        self.assertEqual(self.driver.title, browser.TITLES["Reboot"])
        self.assertIn("The device reboots now.", self.text())
        self.assertNotEqual(self.style(".navi", "background-color"), "rgba(0, 0, 0, 0)")

    def test_a_new_value_is_there_when_the_page_tells_that_the_device_is_back(self):
        self.post("500")
        self.order()
        browser.wait_until(lambda: "The device is back: it has rebooted." in self.driver.page_source,
                           "the page does not tell")
        self.follow("Device Information")
        self.assertEqual(self.field().get_attribute("value"), "500")
        self.assertIn("\nVEMODCanDetectTimeout=500\n", browser.read_settings())

    def test_without_scripts_a_link_tells(self):
        no_scripts = {"profile.managed_default_content_settings.javascript": 2}
        with browser.running_browser(preferences=no_scripts) as driver:
            with_scripts, self.driver = self.driver, driver
            try:
                self.order()
                self.follow("Is it back?")
                self.assertIn("The device has not rebooted yet.", self.text())
                browser.wait_until(lambda: not browser.is_listening(), "the web server goes on")
                browser.wait_until(browser.is_listening, "the web server does not listen again")
                self.assertIn("The device has not rebooted yet.", self.text())
                self.follow("Is it back?")
                self.assertIn("The device is back: it has rebooted.", self.text())
            finally:
                self.driver = with_scripts


class Ways(Browser):
    """By which a technician comes to a change, beside the form that he opens and sends."""

    def expect_success(self, value):
        self.assertIn(f"Set CanDetectTimeout to {value} ms.", self.text())
        self.assertIn(f"\nVEMODCanDetectTimeout={value}\n", browser.read_settings())

    def test_a_reload_of_the_success_stores_the_value_again(self):
        self.post("500")
        browser.write_shipped_settings()
        self.leave(self.driver.refresh)
        self.expect_success("500")

    def test_a_reload_of_a_success_by_address_stores_the_value_again(self):
        self.open(browser.success("501"))
        browser.write_shipped_settings()
        self.leave(self.driver.refresh)
        self.expect_success("501")

    def test_the_browsers_own_back_leads_to_the_form(self):
        self.post("502")
        self.leave(self.driver.back)
        self.driver.execute_script("arguments[0].value = arguments[1]", self.field(), "503")
        self.press("Set")
        self.expect_success("503")

    def test_two_tabs_have_each_a_form(self):
        self.open(browser.FORM)
        first = self.driver.current_window_handle
        self.driver.switch_to.new_window("tab")
        self.post("504")
        self.expect_success("504")
        self.driver.close()
        self.driver.switch_to.window(first)
        self.driver.execute_script("arguments[0].value = arguments[1]", self.field(), "505")
        self.press("Set")
        self.expect_success("505")

    def test_a_browser_is_closed_and_opened_again(self):
        before = self.driver
        self.addCleanup(lambda: setattr(self, "driver", before))
        with tempfile.TemporaryDirectory(dir="/tmp", ignore_cleanup_errors=True) as profile:
            for value in ("506", "507"):
                with browser.running_browser(profile=profile) as self.driver:
                    self.post(value)
                    self.expect_success(value)

    def test_a_typed_address_stores_its_value_on_loopback_alone(self):
        self.driver.get("about:blank")
        self.driver.get(browser.ROOT + browser.success("508"))
        if browser.is_on_loopback():
            self.expect_success("508")
        else:
            self.assertEqual(browser.read_settings(), browser.SHIPPED_SETTINGS.read_text())
            self.assertEqual(self.driver.title, "VEMO Web Server - Refused")
            self.assertIn("This request did not come from the device's own pages.", self.text())
            self.assertNotEqual(self.style(".navi", "background-color"), "rgba(0, 0, 0, 0)")
            self.follow("Device Information")
            self.press("Set")
            self.expect_success("300")


class InjectedMarkup(Browser):
    """The page echoes the value as it is; the server's headers keep it inert."""

    HARM = "document.title='harm'"

    def assert_harmless(self, value):
        self.post(value)
        # Everything of the page is there, pictures that cannot be had have failed.
        WebDriverWait(self.driver, browser.LIMIT).until(
            lambda driver: driver.execute_script(
                "return [...document.images].every(image => image.complete)"
            )
        )
        self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])
        self.assertEqual(self.heading(), "Set CanDetectTimeout")
        self.assertIn("Set new option was successful.", self.text())

    def test_a_script_does_not_run(self):
        self.assert_harmless(f"<script>{self.HARM}</script>")

    def test_an_event_handler_does_not_run(self):
        self.assert_harmless(f'<img src="/images/nowhere.gif" onerror="{self.HARM}">')

    def test_a_link_runs_no_script(self):
        self.assert_harmless(f'<a href="javascript:void({self.HARM})">500</a>')
        self.links()["500"].click()
        self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])

    def test_a_style_sheet_is_not_applied(self):
        self.assert_harmless("<style>h2 { display: none }</style>")

    def test_a_style_attribute_is_not_applied(self):
        styles = ("position:fixed", "clear:both;position:fixed", "clear:both ")
        self.assert_harmless("".join(f'<i id="i{i}" style="{style}">x</i>' for i, style in enumerate(styles)))
        for number in range(len(styles)):
            self.assertEqual(self.style(f"#i{number}", "position"), "static")
            self.assertEqual(self.style(f"#i{number}", "clear"), "none")

    def test_no_form_gives_an_order_as_ours(self):
        value = ('<form action="/reboot.cgi" method="post"><input type="submit" value="Win"></form>'
                 '<form action="/channeldeviceconfig.cgi"><input type="submit" value="Win"></form>')
        for send in (self.post, self.set_by_address):
            send(value)
            for button in self.driver.find_elements(By.CSS_SELECTOR, "input[value=Win]"):
                button.click()
                # Had it been sent, the browser would have left before it answers the next order.
                self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])

    def test_no_foreign_page_is_framed(self):
        self.assert_harmless(f'<iframe name="frame" src="{browser.HOME}"></iframe>')
        self.driver.switch_to.frame("frame")
        self.assertEqual(self.driver.find_elements(By.TAG_NAME, "h2"), [])

    def test_no_form_goes_to_a_foreign_site(self):
        self.assert_harmless(
            f'<form action="http://127.0.0.1:{browser.PORT}{browser.HOME}">'
            '<input type="submit" value="Win"></form>'
        )
        button = self.driver.find_element(By.CSS_SELECTOR, "input[value=Win]")
        button.click()
        # Had it been sent, the browser would have left before it answers the next order.
        self.assertEqual(self.driver.title, browser.TITLES["Set CanDetectTimeout"])


class Looks(Browser):
    # Browsers ask for it unasked.
    KNOWN_MISS = r"/favicon\.ico .* 404"
    # The browser's own start page.
    FOREIGN = "^chrome://"

    def on_every_page(self, check):
        """On a desk and on a phone. `check` is given the size of a page's pixel on the screen."""
        for screen in (browser.DESK, browser.PHONE):
            browser.set_screen(self.driver, screen)
            # nginx shows that page for a refusal, and not by its own address.
            refusal = browser.REFUSALS[1:2] if browser.SERVER != "nginx" else ()
            for path in (*browser.PAGES, browser.success("5" * 300), *refusal):
                with self.subTest(screen=screen, page=path):
                    self.open(path)
                    # A phone shrinks pages that are laid out wider than its screen.
                    layout = self.driver.execute_script(
                        "return document.scrollingElement.clientWidth"
                    )
                    check(screen[0] / layout)

    def test_the_console_tells_of_nothing_unknown(self):
        known = re.compile("|".join((self.KNOWN_MISS, self.FOREIGN)))
        self.driver.get_log("browser")  # what was said before
        for path in browser.PAGES:
            with self.subTest(page=path):
                self.open(path)
                messages = [entry["message"] for entry in self.driver.get_log("browser")]
                self.assertEqual([m for m in messages if not known.search(m)], [])

    def test_the_style_sheet_is_applied(self):
        transparent = "rgba(0, 0, 0, 0)"
        self.open(browser.WARNING)
        self.assertNotEqual(self.style(".warn", "background-color"), transparent)
        self.assertEqual(self.style(".mybutton", "appearance"), "none")
        for path in browser.PAGES:
            with self.subTest(page=path):
                self.open(path)
                self.assertNotEqual(self.style(".navi", "background-color"), transparent)
                self.assertNotEqual(self.style(".content", "background-color"), transparent)

    def test_the_frames_own_style_is_applied(self):
        for path in browser.PAGES[1:]:
            with self.subTest(page=path):
                self.open(path)
                self.assertEqual(self.style("body > p + div", "clear"), "both")

    def test_both_logos_are_shown_side_by_side_above_the_rest(self):
        def check(_):
            logos = self.driver.find_elements(By.TAG_NAME, "img")
            self.assertEqual([logo.accessible_name for logo in logos], ["KESTA AG", "TARN BELOX"])
            for logo in logos:
                self.assertGreater(int(logo.get_property("naturalWidth")), 0)
            left, right = (logo.rect for logo in logos)
            self.assertLess(left["x"] + left["width"], right["x"])
            self.assertAlmostEqual(left["y"], right["y"], delta=1)
            navigation = self.driver.find_element(By.CSS_SELECTOR, ".navi").rect
            self.assertLessEqual(left["y"] + left["height"], navigation["y"])

        self.on_every_page(check)

    def test_nothing_scrolls_sideways(self):
        def check(_):
            content, window = self.driver.execute_script(
                "const area = document.scrollingElement;"
                "return [area.scrollWidth, area.clientWidth]"
            )
            self.assertLessEqual(content, window)

        self.on_every_page(check)

    def test_text_is_large_enough(self):
        def check(pixel):
            for element in self.driver.find_elements(By.CSS_SELECTOR, ".content, .navi a, input"):
                size = float(element.value_of_css_property("font-size").removesuffix("px"))
                self.assertGreaterEqual(size * pixel, 14, element.tag_name)

        self.on_every_page(check)


if __name__ == "__main__":
    unittest.main(argv=browser.read_arguments("Uses the web interface as a technician does."))
