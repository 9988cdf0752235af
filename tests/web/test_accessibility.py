"""How every page, and every state of it, looks on a desk and on a phone: what an accessibility checker, axe-core,
finds; whether its text can be read in the sun and by night, whether a finger hits its links. With --long pictures of
all that are left in /tmp. The checker comes from build/npm, where ./test puts it."""

import contextlib
import math
import subprocess

import pytest
from selenium.webdriver.common.by import By
from selenium.webdriver.common.keys import Keys

import browser
import device
from browser import FORM, HOME, REBOOT, REFUSALS, WARNING, success

AXE = (device.SOURCE / "build/npm/node_modules/axe-core/axe.min.js").read_text(encoding="utf-8")
CLASSES = (device.SOURCE / "packaging/example/classes.html").read_text(encoding="iso-8859-1")
GRAVE = ("serious", "critical")
CONTRAST = "color-contrast-enhanced"
# It is asked of large text as of small text: where no size is named, the checker takes all for large.
CONTRAST_OPTIONS = {"ignoreUnicode": True, "contrastRatio": {"large": {"expected": 7}}}
FINGER = 44  # CSS pixels

SCREENS = {"": ((1280, 440, False), 1), "-phone": ((360, 720, True), 2)}
PHONES = (SCREENS["-phone"][0], (320, 568, True), (568, 320, True), (740, 360, True))

# What the system may ask pages for.
MEDIA = {
    "": {},
    "-dark": {"prefers-color-scheme": "dark"},
    "-contrast": {"prefers-contrast": "more"},
    "-contrast-dark": {"prefers-contrast": "more", "prefers-color-scheme": "dark"},
}
FORCED = {"forced-colors": "active", "prefers-color-scheme": "dark"}


# --- How each page, and each state of it, is reached

def reached(path, text="", button=None, meanwhile=contextlib.nullcontext):
    """The page, or what it shows when its button was pressed, meanwhile."""
    def show(visitor):
        if button:
            visitor.open(path)
        with meanwhile():
            (visitor.press if button else visitor.open)(button or path)
        assert text in visitor.text()

    return show


def show_information(visitor):
    device.write_shipped_settings()
    visitor.open(FORM)
    if "VEMO_WEB" in visitor.text():
        visitor.press("Release")


def show_held_back(visitor):
    visitor.open(FORM)
    visitor.field().clear()
    visitor.field().send_keys("abc", Keys.ENTER)


def show_classes(visitor):
    visitor.open(HOME)
    visitor.run("document.open(); document.write(arguments[0]); document.close()", CLASSES)
    visitor.wait_until(
        lambda: visitor.run("return document.readyState === 'complete' && document.styleSheets.length > 0"), "no style")


OWN = {
    "home": reached(HOME),
    "classes": show_classes,
    **{f"refusal-{path[-8:-5]}": reached(path) for path in REFUSALS},
}
FRAMED = {
    "device-information": show_information,
    "allocated": reached(FORM, "VEMO_WEB", "Allocate"),  # after it, when the device is free
    "held-back": show_held_back,
    "reboot": reached(REBOOT, "Reboot the device"),
    "reboot-not-allowed": reached(REBOOT, "This web interface is not allowed", meanwhile=device.without_orders),
    "reboot-ordered": reached(REBOOT, "The device reboots now.", "Reboot", device.reading_orders),
    "reboot-back": reached(REBOOT + "?before=another", "it has rebooted"),
    "success": reached(success("500")),
    "long-success": reached(success("5" * 300)),
    "warning": reached(WARNING),
}
VIEWS = {**OWN, **FRAMED}


class Visitor(browser.Technician):
    def run(self, script, *arguments):
        return self.driver.execute_script(script, *arguments)

    def set_media(self, features):
        wanted = [{"name": name, "value": features.get(name, "")} for name in
                  ("prefers-color-scheme", "prefers-contrast", "forced-colors")]
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "", "features": wanted})

    def take_pictures(self):
        """Of the whole page, however long, as each system asks for it."""
        width, height, is_phone = self.screen
        needed = self.run("const area = document.scrollingElement; return area.scrollHeight / area.clientWidth") * width
        self.set_screen((width, max(height, math.ceil(needed)), is_phone), self.scale)
        for medium, features in {**MEDIA, "-forced": FORCED}.items():
            self.set_media(features)
            self.driver.save_screenshot(f"/tmp/{self.view}{self.suffix}{medium}.png")
        self.set_screen(self.screen, self.scale)

    def findings(self, rules):
        """What the checker says of the open page: the result's parts by their rules, with the elements."""
        if not self.run("return Boolean(window.axe)"):
            self.run(AXE)
        result = self.driver.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            f"axe.configure({{checks: [{{id: '{CONTRAST}', options: arguments[0]}}]}});"
            "axe.run(document, arguments[1]).then(done, e => done({error: '' + e}));", CONTRAST_OPTIONS, rules)
        assert "error" not in result, result
        return {part: {finding["id"]: (finding["impact"], [node["html"] for node in finding["nodes"]])
                       for finding in result[part]} for part in ("violations", "incomplete", "passes")}


@pytest.fixture(scope="module")
def visitor(running_device):
    with browser.running_browser() as driver:
        # Our policy keeps scripts out of the pages, the checker's too.
        driver.execute_cdp_cmd("Page.setBypassCSP", {"enabled": True})
        yield Visitor(driver, browser.root())


# Those on a phone first, which some tests are for alone: pytest shows a view once when it has one number for all tests.
VIEWS_ON_SCREENS = [(name, suffix) for suffix in ("-phone", "") for name in VIEWS]
on_a_phone = pytest.mark.parametrize("shown", VIEWS_ON_SCREENS[:len(VIEWS)], ids="".join, indirect=True)


@pytest.fixture(scope="module", params=VIEWS_ON_SCREENS, ids="".join)
def shown(request, visitor):
    """A view on a screen, which tests leave as it is but for size and colours."""
    visitor.view, visitor.suffix = request.param
    visitor.screen, visitor.scale = SCREENS[visitor.suffix]
    visitor.set_screen(visitor.screen, visitor.scale)
    visitor.set_media({})
    VIEWS[visitor.view](visitor)
    if device.IS_LONG:
        visitor.take_pictures()
        visitor.set_media({})
    return visitor


def test_both_logos_are_shown_side_by_side_above_the_rest(shown):
    logos = shown.driver.find_elements(By.TAG_NAME, "img")[:2]
    assert [logo.accessible_name for logo in logos] == ["KESTA AG", "TARN BELOX"]
    assert all(int(logo.get_property("naturalWidth")) > 0 for logo in logos)
    left, right = (logo.rect for logo in logos)
    assert left["x"] + left["width"] < right["x"]
    assert left["y"] == pytest.approx(right["y"], abs=1)
    navigation = shown.driver.find_element(By.CSS_SELECTOR, ".navi").rect
    assert left["y"] + left["height"] <= navigation["y"]


def test_text_is_large_enough_and_nothing_scrolls_sideways(shown):
    content, layout, width, sizes = shown.run(
        "const area = document.scrollingElement;"
        "const texts = [...document.querySelectorAll('.content, .navi a, input')];"
        "return [area.scrollWidth, area.clientWidth, screen.width, texts.map(e => getComputedStyle(e).fontSize)]")
    assert content <= layout
    # A phone shrinks pages that are laid out wider.
    assert min(float(size.removesuffix("px")) for size in sizes) * width / layout >= 14


def test_finds_no_more_than_is_known(shown):
    violations = shown.findings({"resultTypes": ["violations"]})["violations"]
    found = {rule: nodes for rule, (impact, nodes) in violations.items() if impact in GRAVE}
    # The frame around every CGI page names no language; our own pages name it one element further in.
    assert set(found) == (set() if shown.view in OWN else {"html-has-lang"}), found


@on_a_phone  # a desk has the same colours
def test_all_text_has_contrast_by_day_and_by_night(shown):
    for medium, features in MEDIA.items():
        shown.set_media(features)
        found = shown.findings({"runOnly": [CONTRAST]})
        assert (found["violations"], found["incomplete"]) == ({}, {}), medium
        assert len(found["passes"][CONTRAST][1]) > 2, medium


@on_a_phone
def test_a_finger_hits_every_link_and_button(shown):
    for phone in PHONES:
        shown.set_screen(phone)
        found, layout, width = shown.run(
            "return [[...document.querySelectorAll('a, input:not([type=hidden])')].map(e => [e.outerHTML,"
            " e.getBoundingClientRect().height]), document.scrollingElement.clientWidth, screen.width]")
        assert len(found) > 1
        # The page may be laid out wider than the screen, and shrunk.
        small = {html: height for html, height in found if height * width / layout < FINGER - 0.05}
        assert small == {}, phone
    shown.set_screen(shown.screen, shown.scale)


def test_forced_colours_have_the_last_word(shown):
    """The checker reads the page's own colours, not those that are forced."""
    shown.set_media(FORCED)
    own, system, blends = shown.run(
        "const probe = document.body.appendChild(document.createElement('i'));"
        "const system = ['CanvasText', 'LinkText', 'ButtonText', 'FieldText'].map("
        "  colour => { probe.style.color = colour; return getComputedStyle(probe).color; });"
        "const styles = selector => [...document.querySelectorAll(selector)].map(e => getComputedStyle(e));"
        "return [styles('p, a, h2, h3, dt, dd, label, input').map(s => s.color), system,"
        "        styles('img').map(s => s.mixBlendMode)]")
    assert set(own) <= set(system)
    assert blends == ["normal"] * 2


def test_night_is_dark_and_more_contrast_is_more(visitor):
    visitor.open(FORM)
    found = []
    for features in MEDIA.values():
        visitor.set_media(features)
        found.append((visitor.style("body", "background-color"), visitor.style(".content", "color")))
    white, black = "rgba(255, 255, 255, 1)", "rgba(0, 0, 0, 1)"
    assert found[2:] == [(white, black), (black, white)]
    day, night = (sum(map(int, ground[5:-1].split(",")[:3])) for ground, _ in found[:2])
    assert day > 600
    assert night < 150


@pytest.mark.parametrize("path", [FORM, WARNING])
def test_on_paper_there_is_no_style(visitor, path):
    visitor.open(path)
    visitor.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"media": "print"})
    assert visitor.style(".navi", "background-color") == "rgba(0, 0, 0, 0)"
    assert "Home" in visitor.text()


# --- While the Java VM starts: it waits for somebody who reads its log

@pytest.mark.parametrize("path, there", [
    (success("500"), "img"), (FORM, "form + h3, form + dl, h3 + dl"),
])
def test_what_is_known_already_is_shown(running_device, path, there):
    with device.pipe_for_the_log(), browser.running_browser(page_load_strategy="none") as driver:
        hasty = Visitor(driver, browser.root())
        driver.get(hasty.root + path)
        hasty.wait_until(lambda: driver.find_elements(By.CSS_SELECTOR, there), "the beginning")
        hasty.wait_until(lambda: hasty.run("return [...document.images].every(i => i.complete && i.naturalWidth)"),
                         "the logos")
        assert hasty.run("return document.readyState") == "loading"
        with subprocess.Popen(["cat", device.LOG], stdout=subprocess.DEVNULL) as reader:
            is_done = device.eventually(lambda: hasty.run("return document.readyState") == "complete")
            reader.terminate()
    assert is_done
