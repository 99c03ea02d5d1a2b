#!/usr/bin/env python3
"""usage: browser.py ADDRESS FILE...

Visits the example site with headless Chromium, as a person would: orders tea in the form, leaves the
files on the shelf, looks at the environment. Prints what the pages then show, a line each:
"page|what|text". chromedriver and chromium have to be installed.
"""

import json
import subprocess
import sys
import time
import urllib.request

ELEMENT = "element-6066-11e4-a52e-4f735466cecf"
TIMEOUT = 60


class Driver:
    """A chromedriver on a free port, with one browser window."""

    def __init__(self):
        # It takes a port that is free for IPv4, and ends if that is not free for IPv6.
        if not any(self.start() for _ in range(5)):
            sys.exit("chromedriver does not start")
        options = {
            "args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage"]
        }
        capabilities = {"alwaysMatch": {"browserName": "chrome", "goog:chromeOptions": options}}
        self.session = ""
        self.session = self.post("/session", {"capabilities": capabilities})["sessionId"]

    def start(self):
        self.process = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True)
        for line in self.process.stdout:
            if "started successfully on port" in line:
                self.address = "http://127.0.0.1:" + line.split("port")[1].strip(" .\n")
                return True
        self.process.wait()
        return False

    def close(self):
        try:
            if self.session:
                self.call("DELETE", "")
        finally:
            self.process.terminate()
            self.process.wait()

    def call(self, method, path, body=None):
        if self.session:
            path = f"/session/{self.session}{path}"
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self.address + path, data=data, method=method)
        request.add_header("Content-Type", "application/json")
        with urllib.request.urlopen(request, timeout=TIMEOUT) as response:
            return json.load(response)["value"]

    def post(self, path, body):
        return self.call("POST", path, body)

    def open(self, address):
        self.post("/url", {"url": address})

    def find(self, selector):
        found = self.post("/elements", {"using": "css selector", "value": selector})
        return [element[ELEMENT] for element in found]

    def type(self, selector, text):
        element = self.find(selector)[0]
        self.post(f"/element/{element}/value", {"text": text})

    def click(self, selector):
        self.post(f"/element/{self.find(selector)[0]}/click", {})

    def wait(self, selector):
        """Until the page has it: sending a form leads to another page, which is not there at once."""
        end = time.monotonic() + TIMEOUT
        while not self.find(selector):
            if time.monotonic() > end:
                sys.exit(f"{selector} does not come")
            time.sleep(0.05)

    def texts(self, selector):
        return [self.call("GET", f"/element/{element}/text") for element in self.find(selector)]

    def property(self, selector, name):
        return self.call("GET", f"/element/{self.find(selector)[0]}/property/{name}")


def show(page, what, texts):
    for text in texts:
        print(f"{page}|{what}|" + text.replace("\n", "\\n"))


def order_tea(driver, site):
    driver.open(site + "form.zpc")
    driver.type("input[name='guest:name']", "Ada <Lovelace> & \u00dcn\u00ef+1%")
    driver.type("input[name='guest:table']", "7")
    driver.type("select[name=tea]", "Oolong")
    driver.click("input[value=Milk]")
    driver.click("input[value=Lemon]")
    driver.type("textarea", "first line\nsecond line")
    driver.click("button")
    driver.wait("#received")
    show("form", "received", driver.texts("#received td"))
    show("form", "kept", [driver.property("input[name='guest:name']", "value")])
    show("form", "ticked", [str(len(driver.find("input:checked")))])


def leave_files(driver, site, files):
    driver.open(site + "upload.zpc")
    show("upload", "before", driver.texts("#shelf p"))
    driver.type("input[type=file]", "\n".join(files))
    driver.type("input[name=about]", "from a <browser>")
    driver.click("button")
    driver.wait("#received")
    show("upload", "about", driver.texts("#received p"))
    show("upload", "received", driver.texts("#received tr + tr"))
    show("upload", "shelf", driver.texts("#shelf tr + tr"))


def look_around(driver, site):
    driver.open(site + "environment.zpc?x=%41")
    names = driver.texts("th code")
    values = driver.texts("th + td")
    for name in ("documenturl", "QUERY_STRING", "HTTP_USER_AGENT", "callerid", "HTTP_COOKIE"):
        show("environment", name, [values[names.index(name)]])


def main():
    driver = Driver()
    try:
        order_tea(driver, sys.argv[1])
        leave_files(driver, sys.argv[1], sys.argv[2:])
        look_around(driver, sys.argv[1])
    finally:
        driver.close()


if __name__ == "__main__":
    main()
