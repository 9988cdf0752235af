"""How the pages look, on a desk and on a phone."""

import re

import pytest
from selenium.webdriver.common.by import By

import device
from browser import DESK, PAGES, PHONE, REFUSALS, WARNING, success

TRANSPARENT = "rgba(0, 0, 0, 0)"
# nginx shows that page for a refusal, and not by its own address.
REFUSAL = REFUSALS[1:2] if device.NAME != "nginx" else ()


@pytest.fixture(scope="module", params=[
    pytest.param((screen, path), id=f"{'phone' if screen[2] else 'desk'} {path[:30]}")
    for screen in (DESK, PHONE) for path in (*PAGES, success("5" * 300), *REFUSAL)
])
def shown(request, everybody):
    """A page on a screen. Also the size of the page's pixel there: a phone shrinks pages that are laid out wider."""
    screen, path = request.param
    everybody.set_screen(screen)
    everybody.driver.get_log("browser")  # what was said before
    everybody.open(path)
    layout = everybody.driver.execute_script("return document.scrollingElement.clientWidth")
    everybody.pixel = screen[0] / layout
    yield everybody
    everybody.set_screen(DESK)


def test_both_logos_are_shown_side_by_side_above_the_rest(shown):
    logos = shown.driver.find_elements(By.TAG_NAME, "img")
    assert [logo.accessible_name for logo in logos] == ["KESTA AG", "TARN BELOX"]
    assert all(int(logo.get_property("naturalWidth")) > 0 for logo in logos)
    left, right = (logo.rect for logo in logos)
    assert left["x"] + left["width"] < right["x"]
    assert left["y"] == pytest.approx(right["y"], abs=1)
    navigation = shown.driver.find_element(By.CSS_SELECTOR, ".navi").rect
    assert left["y"] + left["height"] <= navigation["y"]


def test_nothing_scrolls_sideways(shown):
    content, window = shown.driver.execute_script(
        "const area = document.scrollingElement; return [area.scrollWidth, area.clientWidth]")
    assert content <= window


def test_text_is_large_enough(shown):
    for element in shown.driver.find_elements(By.CSS_SELECTOR, ".content, .navi a, input"):
        size = float(element.value_of_css_property("font-size").removesuffix("px"))
        assert size * shown.pixel >= 14, element.tag_name


def test_the_style_sheet_is_applied(shown):
    for part in (".navi", ".content"):
        assert shown.style(part, "background-color") != TRANSPARENT
    if shown.driver.current_url.endswith(WARNING):
        assert shown.style(".warn", "background-color") != TRANSPARENT
        assert shown.style(".mybutton", "appearance") == "none"


def test_the_frames_own_style_is_applied(shown):
    if ".cgi" in shown.driver.current_url:
        assert shown.style("body > p + div", "clear") == "both"


def test_the_console_reports_nothing_unknown(shown):
    # Browsers ask for an icon unasked; the other is their own start page.
    known = re.compile(r"/favicon\.ico .* 404|^chrome://")
    messages = [entry["message"] for entry in shown.driver.get_log("browser")]
    assert [message for message in messages if not known.search(message)] == []
