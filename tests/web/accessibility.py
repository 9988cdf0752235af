"""What an accessibility checker, axe-core, finds on every page of the whole stand-in device and in every state of
it, whether its text can be read in the sun and by night, whether a finger hits its links and buttons. Pictures of
all that are left in /tmp:

    standin/sandbox build --state build/pictures --private-network --read-only . /source -- \\
        /usr/bin/python3 -B /source/tests/web/accessibility.py

The checker comes from build/npm, where ./test puts it.
"""

import math
import os
import pathlib
import subprocess
import unittest

from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

import browser

AXE = pathlib.Path("/source/build/npm/node_modules/axe-core/axe.min.js").read_text(encoding="utf-8")
CLASSES = pathlib.Path("/source/packaging/example/classes.html").read_text(encoding="iso-8859-1")
LOG = pathlib.Path("/tmp/cgi.log")
GRAVE = ("serious", "critical")
CONTRAST = "color-contrast-enhanced"
LEAST_CONTRAST = 7
FINGER = 44  # CSS pixels

# The frame around every CGI page names no language; our own pages name it one element further in.
OF_THE_FRAME = {"html-has-lang"}

SCREENS = {"": ((1280, 440, False), 1), "-phone": ((360, 720, True), 2)}
SMALL_AND_LYING = ((320, 568, True), (568, 320, True), (740, 360, True))

# What the system may ask pages for.
MEDIA = {
    "": {},
    "-dark": {"prefers-color-scheme": "dark"},
    "-contrast": {"prefers-contrast": "more"},
    "-contrast-dark": {"prefers-contrast": "more", "prefers-color-scheme": "dark"},
}
FORCED = {"forced-colors": "active", "prefers-color-scheme": "dark"}

# The checker's own, but that large text is asked for as much as small text.
CONTRAST_OPTIONS = {
    "ignoreUnicode": True, "ignoreLength": False, "ignorePseudo": False, "boldValue": 700, "boldTextPt": 14,
    "largeTextPt": 18, "pseudoSizeThreshold": 0.25, "shadowOutlineEmMax": 0.1,
    "contrastRatio": {"normal": {"expected": LEAST_CONTRAST}, "large": {"expected": LEAST_CONTRAST}},
}


def opened(path):
    return lambda driver: driver.get(browser.ROOT + path)


BENCH = "Test bench 3"


def show_free(driver):
    browser.write_shipped_settings()
    for owner in ("VEMO_WEB", BENCH):
        browser.order_of(owner, "nvmReleaseDevice")
    driver.get(browser.ROOT + browser.FORM)


def press_allocate(driver):
    button = driver.find_element(By.CSS_SELECTOR, "input[value=Allocate]")
    browser.leave(driver, button.click)


def show_allocated(driver):
    show_free(driver)
    press_allocate(driver)


def show_refused_allocation(driver):
    """Another client was quicker."""
    show_free(driver)
    browser.order_of(BENCH, "nvmAllocateDevice")
    press_allocate(driver)


def show_held_back(driver):
    driver.get(browser.ROOT + browser.FORM)
    field = driver.find_element(By.NAME, "CanDetectTimeout")
    field.clear()
    field.send_keys("abc", Keys.ENTER)


def show_classes(driver):
    driver.get(browser.ROOT + browser.HOME)
    driver.execute_script("document.open(); document.write(arguments[0]); document.close()", CLASSES)
    browser.wait_until(
        lambda: driver.execute_script("return document.readyState === 'complete' && document.styleSheets.length > 0"),
        "the page of classes")


# How each page, and each state of it, is reached; and what is known of it.
OWN = {
    "home": (opened(browser.HOME), set()),
    "classes": (show_classes, set()),
    **{f"refusal-{path[-8:-5]}": (opened(path), set()) for path in browser.REFUSALS},
}
FRAMED = {
    "device-information": (show_free, OF_THE_FRAME),
    "allocated": (show_allocated, OF_THE_FRAME),
    "allocation-refused": (show_refused_allocation, OF_THE_FRAME),
    "held-back": (show_held_back, OF_THE_FRAME),
    "reboot": (opened(browser.REBOOT), OF_THE_FRAME),
    "reboot-back": (opened(browser.REBOOT + "?before=another"), OF_THE_FRAME),
    "reboot-not-known": (opened(browser.REBOOT + "?before=unknown"), OF_THE_FRAME),
}
FIXED = {
    "success": (opened(browser.success("500")), OF_THE_FRAME),
    "warning": (opened(browser.WARNING), OF_THE_FRAME),
}
VIEWS = {**OWN, **FRAMED, **FIXED}


def set_media(driver, features):
    wanted = [{"name": name, "value": features.get(name, "")} for name in
              ("prefers-color-scheme", "prefers-contrast", "forced-colors")]
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "", "features": wanted})


def take_picture(driver, name, screen, scale):
    """Of the whole page, however long."""
    width, height, is_phone = screen
    needed = driver.execute_script(
        "const area = document.scrollingElement; return area.scrollHeight / area.clientWidth") * width
    browser.set_screen(driver, (width, max(height, math.ceil(needed)), is_phone), scale)
    driver.save_screenshot(f"/tmp/{name}.png")
    browser.set_screen(driver, screen, scale)


def findings(driver, rules):
    """What the checker says of the open page: the result's parts by their rules, with the elements."""
    if not driver.execute_script("return Boolean(window.axe)"):
        driver.execute_script(AXE)
    result = driver.execute_async_script(
        "const done = arguments[arguments.length - 1];"
        f"axe.configure({{checks: [{{id: '{CONTRAST}', options: arguments[0]}}]}});"
        "axe.run(document, arguments[1]).then(done, e => done({error: '' + e}));", CONTRAST_OPTIONS, rules)
    if "error" in result:
        raise RuntimeError(result["error"])
    return {part: {finding["id"]: (finding["impact"], [node["html"] for node in finding["nodes"]])
                   for finding in result[part]} for part in ("violations", "incomplete", "passes")}


def setUpModule():
    unittest.enterModuleContext(browser.running_device())


class Views(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.driver = cls.enterClassContext(browser.running_browser())
        # Our policy keeps scripts out of the pages, the checker's too.
        cls.driver.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})

    def on_every_screen(self, views, check, screens=SCREENS):
        """`check` is given what is known of the view, and what a picture of it takes."""
        for name, (show, known) in views.items():
            for suffix, (screen, scale) in screens.items():
                with self.subTest(name, screen=screen):
                    browser.set_screen(self.driver, screen, scale)
                    set_media(self.driver, {})
                    show(self.driver)
                    check(known, name + suffix, screen, scale)


class Accessibility(Views):
    def check(self, views):
        def no_more_than_is_known(known, *_):
            found = {rule: nodes for rule, (impact, nodes) in
                     findings(self.driver, {"resultTypes": ["violations"]})["violations"].items() if impact in GRAVE}
            self.assertEqual(set(found), known, found)

        self.on_every_screen(views, no_more_than_is_known)

    def test_nothing_grave_on_our_own_documents(self):
        self.check(OWN)

    def test_nothing_grave_on_our_own_pages_but_the_frames(self):
        self.check(FRAMED)

    def test_what_is_known_of_the_pages_whose_markup_is_fixed(self):
        self.check(FIXED)


class Looks(Views):
    def test_all_text_has_contrast_by_day_and_by_night(self):
        def check(_, name, screen, scale):
            for suffix, features in MEDIA.items():
                with self.subTest(media=suffix):
                    set_media(self.driver, features)
                    take_picture(self.driver, name + suffix, screen, scale)
                    if not screen[2]:
                        continue  # colours are those of a phone
                    found = findings(self.driver, {"runOnly": [CONTRAST]})
                    self.assertEqual({part: found[part] for part in ("violations", "incomplete")},
                                     {"violations": {}, "incomplete": {}})
                    self.assertGreater(len(found["passes"][CONTRAST][1]), 2)

        self.on_every_screen(VIEWS, check)

    def test_forced_colours_have_the_last_word(self):
        """The checker reads the page's own colours, not those that are forced."""
        def check(_, name, screen, scale):
            set_media(self.driver, FORCED)
            take_picture(self.driver, name + "-forced", screen, scale)
            own, system, blends = self.driver.execute_script(
                "const probe = document.body.appendChild(document.createElement('i'));"
                "const system = ['CanvasText', 'LinkText', 'ButtonText', 'FieldText'].map("
                "  colour => { probe.style.color = colour; return getComputedStyle(probe).color; });"
                "const styles = selector => [...document.querySelectorAll(selector)].map(e => getComputedStyle(e));"
                "return [styles('p, a, h2, h3, dt, dd, label, input').map(s => s.color), system,"
                "        styles('img').map(s => s.mixBlendMode)]")
            self.assertLessEqual(set(own), set(system))
            self.assertEqual(blends, ["normal"] * 2)

        self.on_every_screen(VIEWS, check)

    def test_night_is_dark_and_more_contrast_is_more(self):
        def colours():
            look_up = "return getComputedStyle(document.querySelector(arguments[0]))[arguments[1]]"
            return [self.driver.execute_script(look_up, *what)
                    for what in (("body", "backgroundColor"), (".content", "color"))]

        self.driver.get(browser.ROOT + browser.FORM)
        found = []
        for features in MEDIA.values():
            set_media(self.driver, features)
            found.append(colours())
        self.assertEqual(found[2:], [["rgb(255, 255, 255)", "rgb(0, 0, 0)"], ["rgb(0, 0, 0)", "rgb(255, 255, 255)"]])
        day, night = (sum(map(int, colour[0][4:-1].split(","))) for colour in found[:2])
        self.assertGreater(day, 600)
        self.assertLess(night, 150)

    def test_a_finger_hits_every_link_and_button_of_a_phone(self):
        def check(*_):
            found, layout = self.driver.execute_script(
                "return [[...document.querySelectorAll('a, input:not([type=hidden])')].map("
                "e => [e.outerHTML, e.getBoundingClientRect().height]), document.scrollingElement.clientWidth]")
            self.assertGreater(len(found), 1)
            width = self.driver.execute_script("return screen.width")
            # The page may be laid out wider than the screen, and shrunk.
            small = {html: height * width / layout for html, height in found
                     if height * width / layout < FINGER - 0.05}
            self.assertEqual(small, {})

        phones = {str(screen): (screen, 1) for screen in (SCREENS["-phone"][0], *SMALL_AND_LYING)}
        self.on_every_screen(VIEWS, check, phones)


    def test_on_paper_there_is_no_style(self):
        for path in (browser.FORM, browser.WARNING):
            self.driver.get(browser.ROOT + path)
            self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "print"})
            navigation = self.driver.find_element(By.CSS_SELECTOR, ".navi")
            self.assertEqual(navigation.value_of_css_property("background-color"), "rgba(0, 0, 0, 0)")
            self.assertIn("Home", navigation.text)


class Slow(unittest.TestCase):
    """While the Java VM starts: it waits for somebody who reads its log."""

    def test_what_is_known_already_is_shown(self):
        driver = self.enterContext(browser.running_browser(page_load_strategy="none"))
        for path, name, there in ((browser.success("500"), "slow-success", "img"),
                                  (browser.FORM, "slow-device-information", "form + h3, form + dl, h3 + dl")):
            for suffix, (screen, scale) in SCREENS.items():
                with self.subTest(name, screen=screen):
                    browser.set_screen(driver, screen, scale)
                    LOG.unlink(missing_ok=True)
                    os.mkfifo(LOG)
                    try:
                        driver.get(browser.ROOT + path)
                        browser.wait_until(lambda: driver.find_elements(By.CSS_SELECTOR, there), "the beginning")
                        browser.wait_until(lambda: driver.execute_script(
                            "return [...document.images].every(i => i.complete && i.naturalWidth)"), "the logos")
                        self.assertEqual(driver.execute_script("return document.readyState"), "loading")
                        driver.save_screenshot(f"/tmp/{name}{suffix}.png")
                    finally:
                        with subprocess.Popen(["cat", LOG], stdout=subprocess.DEVNULL) as reader:
                            done = browser.eventually(
                                lambda: driver.execute_script("return document.readyState") == "complete")
                            LOG.unlink()
                            reader.terminate()
                    self.assertTrue(done)


if __name__ == "__main__":
    unittest.main()
