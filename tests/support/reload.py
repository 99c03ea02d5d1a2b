#!/usr/bin/env python3
"""usage: reload.py ADDRESS FILE

Looks at a page of `zeph dev` with headless Chromium while its source FILE is edited, and prints what the
page shows after each change: "step|milliseconds until it was seen|text". chromedriver and chromium have
to be installed.
"""

import sys
import time

from browser import Driver, TIMEOUT


def edit(path, text):
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)


def heading(driver):
    """The page may be replaced at any moment."""
    try:
        return "".join(driver.texts("h1, h2"))
    except OSError:
        return ""


def wait_for(driver, step, text):
    begin = time.monotonic()
    shown = heading(driver)
    while text not in shown:
        if time.monotonic() - begin > TIMEOUT:
            sys.exit(f"{step}: {text!r} does not come, the page shows {shown!r}")
        time.sleep(0.01)
        shown = heading(driver)
    print(f"{step}|{int((time.monotonic() - begin) * 1000)}|{shown}")


def main():
    address, path = sys.argv[1:]
    driver = Driver()
    try:
        edit(path, "<h1>first</h1>")
        driver.open(address)
        wait_for(driver, "opened", "first")
        # Several pages in a row: each has the script again.
        for text in ("second", "third"):
            edit(path, f"<h1>{text}</h1>")
            wait_for(driver, "changed", text)
        edit(path, "<h1>broken</h1><ZpASIGN>")
        wait_for(driver, "broken", "there is no tag 'ZpASIGN'")
        print("place|0|" + "".join(driver.texts("section code")))
        edit(path, "<h1>repaired</h1>")
        wait_for(driver, "repaired", "repaired")
        # A page that was sent a form is fetched again without it.
        edit(path, "<h1>{{ sent }}empty</h1><form method=post><input name=sent><button>go</button></form>")
        wait_for(driver, "form", "empty")
        driver.type("input", "tea")
        driver.click("button")
        wait_for(driver, "posted", "teaempty")
        edit(path, "<h1>{{ sent }}again</h1>")
        wait_for(driver, "fetched", "again")
        # A page that fetches others gets them as they are.
        edit(path, "<h1 id=x>wait</h1><script>fetch('part.html').then(r => r.text())"
             ".then(t => { x.textContent = 'got ' + t; });</script>")
        wait_for(driver, "part", "got ")
    finally:
        driver.close()


main()
