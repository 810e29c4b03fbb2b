#!/usr/bin/env python3
# SPDX-License-Identifier: GPL-2.0-only
"""Opens a report's page in a headless Chromium, on a wide and a narrow screen, light and dark, and judges it.

usage: report_page.py PAGE DIRECTORY

DIRECTORY gets a picture of each. Exit status: 0 good; 1 not, and what is wrong printed.
"""
import base64
import json
import pathlib
import subprocess
import sys
import time
import urllib.error
import urllib.request

LOOK = """
const wrong = [];
for (const e of document.querySelectorAll('body *')) {
  const r = e.getBoundingClientRect();
  if (e.closest('.wide') || e.closest('svg') !== null && e.tagName !== 'svg') continue;
  if (r.right > innerWidth + 1 || r.left < -1) wrong.push(e.tagName + '.' + e.className + ' reaches from ' + r.left + ' to ' + r.right);
}
for (const e of document.querySelectorAll('svg')) {
  const r = e.getBoundingClientRect();
  if (r.width < 100 || r.height < 8) wrong.push('a drawing of ' + r.width + ' x ' + r.height);
}
return {wrong, wide: innerWidth, page: document.documentElement.scrollWidth, sections: document.querySelectorAll('section').length,
        bars: document.querySelectorAll('.chart g').length, rows: document.querySelectorAll('.row').length,
        shades: document.querySelectorAll('.row rect').length, lines: document.querySelectorAll('tbody tr').length,
        background: getComputedStyle(document.body).backgroundColor};
"""


class Browser:
    def __init__(self):
        self.driver = subprocess.Popen(["chromedriver", "--port=0"], stdout=subprocess.PIPE, text=True)
        for line in self.driver.stdout:
            if "on port " in line and "successfully" in line:
                self.base = "http://127.0.0.1:" + line.split("on port ")[1].split(".")[0].strip()
                break
        options = {"args": ["--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars"]}
        made = self.ask("POST", "/session", {"capabilities": {"alwaysMatch": {
            "browserName": "chrome", "goog:chromeOptions": options, "goog:loggingPrefs": {"browser": "ALL"}}}})
        self.session = "/session/" + made["sessionId"]

    def ask(self, method, path, body=None):
        request = urllib.request.Request(self.base + path, method=method, headers={"Content-Type": "application/json"},
                                         data=json.dumps(body).encode() if body is not None else None)
        try:
            with urllib.request.urlopen(request, timeout=90) as answer:
                return json.load(answer)["value"]
        except urllib.error.HTTPError as error:
            sys.exit(f"{path}: {error.read().decode()[:400]}")

    def call(self, path, body):
        return self.ask("POST", self.session + path, body)

    def protocol(self, command, **arguments):
        return self.call("/goog/cdp/execute", {"cmd": command, "params": arguments})

    def end(self):
        try:
            self.ask("DELETE", self.session)
        finally:
            self.driver.terminate()
            self.driver.wait(10)


def main():
    page, directory = pathlib.Path(sys.argv[1]).resolve(), pathlib.Path(sys.argv[2])
    problems = []
    browser = Browser()
    try:
        for name, width, dark in (("wide", 1200, False), ("wide-dark", 1200, True), ("phone", 360, False), ("phone-dark", 360, True)):
            browser.protocol("Emulation.setDeviceMetricsOverride", width=width, height=800, deviceScaleFactor=1, mobile=width < 500)
            browser.protocol("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])
            browser.call("/url", {"url": page.as_uri()})
            time.sleep(0.3)
            seen = browser.call("/execute/sync", {"script": LOOK, "args": []})
            problems += [f"{name}: {text}" for text in seen["wrong"]]
            if seen["page"] > seen["wide"]:
                problems.append(f"{name}: the page is {seen['page']} wide")
            if (seen["sections"], seen["bars"], seen["rows"], seen["lines"]) != (2, 58, 58, 58) or seen["shades"] < 100:
                problems.append(f"{name}: not all is there: {seen}")
            if (seen["background"] == "rgb(20, 23, 27)") != dark:
                problems.append(f"{name}: the background is {seen['background']}")
            picture = browser.protocol("Page.captureScreenshot", captureBeyondViewport=True)
            (directory / f"{name}.png").write_bytes(base64.b64decode(picture["data"]))
        problems += [f"console: {entry['message']}" for entry in browser.call("/se/log", {"type": "browser"})]
    finally:
        browser.end()
    print("\n".join(problems) or "good")
    return 1 if problems else 0


sys.exit(main())
