"""What an accessibility checker, axe-core, finds on the pages of the whole stand-in device.

Runs as browser_journey.py does; the checker comes from build/npm, where ./test puts it.
"""

import contextlib
import pathlib
import unittest

import browser

AXE = pathlib.Path("/source/build/npm/node_modules/axe-core/axe.min.js").read_text(encoding="utf-8")
GRAVE = ("serious", "critical")

# The frame around every CGI page names no language; our own pages name it one element further in.
OF_THE_FRAME = {"html-has-lang"}


def grave_findings(driver, page):
    """The rules that the page breaks, those that are serious or critical, with the elements."""
    driver.get(browser.ROOT + page)
    driver.execute_script(AXE)
    result = driver.execute_async_script(
        "const done = arguments[arguments.length - 1];"
        "axe.run(document, {resultTypes: ['violations']}).then(done, e => done({error: '' + e}));"
    )
    if "error" in result:
        raise RuntimeError(result["error"])
    return {
        finding["id"]: [node["html"] for node in finding["nodes"]]
        for finding in result["violations"]
        if finding["impact"] in GRAVE
    }


class Accessibility(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        with contextlib.ExitStack() as stack:
            stack.enter_context(browser.running_device())
            cls.driver = stack.enter_context(browser.running_browser())
            # Our policy keeps scripts out of the pages, the checker's too.
            cls.driver.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})
            cls.addClassCleanup(stack.pop_all().close)

    def check(self, pages, expected):
        for screen in (browser.DESK, browser.PHONE):
            browser.set_screen(self.driver, screen)
            for page in pages:
                with self.subTest(page=page, screen=screen):
                    found = grave_findings(self.driver, page)
                    self.assertEqual(set(found), expected, found)

    def test_nothing_grave_on_the_home_page(self):
        self.check([browser.HOME], set())

    def test_nothing_grave_on_the_pages_of_refusals(self):
        self.check(browser.REFUSALS, set())

    def test_nothing_grave_on_our_own_pages_but_the_frames(self):
        self.check([browser.FORM, browser.REBOOT], OF_THE_FRAME)

    def test_what_is_known_of_the_pages_whose_markup_is_fixed(self):
        self.check([browser.success("500"), browser.WARNING], OF_THE_FRAME)


if __name__ == "__main__":
    unittest.main()
