"""Takes pictures of the pages, on a desk and on a phone:

    screenshots.py FOLDER
"""

import sys

import browser

PAGES = {
    **dict(zip(("home", "device-information", "success", "warning", "reboot"), browser.PAGES)),
    **{f"refusal-{path[-8:-5]}": path for path in browser.REFUSALS},
}
SCREENS = {"": ((1280, 440, False), 1), "-phone": ((360, 720, True), 2)}

with browser.running_device(), browser.running_browser() as driver:
    for name, path in PAGES.items():
        for suffix, (screen, scale) in SCREENS.items():
            browser.set_screen(driver, screen, scale)
            driver.get(browser.ROOT + path)
            driver.save_screenshot(f"{sys.argv[1]}/{name}{suffix}.png")
