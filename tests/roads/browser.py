# SPDX-License-Identifier: Apache-2.0
"""A headless Chromium for tests of the page: what it shows, what it asked for, and what it complains about."""
import json
import pathlib
import tempfile

from selenium import webdriver
from selenium.webdriver.chrome.options import Options
from selenium.webdriver.chrome.service import Service

_ARGUMENTS = ("--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--disable-background-networking",
              "--disable-component-update", "--disable-default-apps", "--disable-extensions", "--disable-sync", "--no-first-run",
              "--no-default-browser-check", "--hide-scrollbars", "--mute-audio", "--force-color-profile=srgb", "--lang=en",
              "--autoplay-policy=no-user-gesture-required", "--no-proxy-server",
              "--disable-features=Translate,OptimizationHints,MediaRouter")


class Browser:
    def __init__(self, width=1440, height=900):
        self._profile = tempfile.TemporaryDirectory(prefix="metadata_browser_", ignore_cleanup_errors=True)
        options = Options()
        options.binary_location = "/usr/bin/chromium"
        for argument in _ARGUMENTS:
            options.add_argument(argument)
        options.add_argument(f"--user-data-dir={self._profile.name}")
        options.set_capability("goog:loggingPrefs", {"browser": "ALL", "performance": "ALL"})
        self.driver = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(120)
        self.resize(width, height)

    def close(self):
        self.driver.quit()
        self._profile.cleanup()

    def resize(self, width, height):
        """Gives the page exactly this size, as a phone of this width has it."""
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 700})

    def prefer(self, **features):
        """Chooses media features: prefer(color_scheme="dark")."""
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {"features": [
            {"name": "prefers-" + name.replace("_", "-"), "value": value} for name, value in features.items()]})

    def open(self, address):
        self.driver.get(address)

    def run(self, script, *arguments):
        """Returns what a script returns. It may use `await`."""
        return self.driver.execute_async_script(
            "const done = arguments[arguments.length - 1];"
            f"(async (...given) => {{ {script} }})(...arguments).then(done, (error) => done({{failed: String(error)}}));",
            *arguments)

    def text(self, selector):
        """Returns what an element shows, or None if it is not there or hidden."""
        return self.run("const element = document.querySelector(given[0]);"
                        "return element && element.checkVisibility() ? element.innerText : null;", selector)

    def rows(self, selector, kind=""):
        """Returns the texts of the visible rows of a table's body, or of one kind of them."""
        return self.run("return [...document.querySelectorAll(`${given[0]} tbody tr${given[1]}`)]"
                        ".filter((row) => row.checkVisibility()).map((row) => [...row.cells].map((cell) => cell.innerText));",
                        selector, kind)

    def click(self, selector):
        self.driver.find_element("css selector", selector).click()

    def press(self, *keys):
        """Types keys into what has the focus."""
        self.driver.switch_to.active_element.send_keys(*keys)

    def screenshot(self, path):
        pathlib.Path(path).write_bytes(self.driver.get_screenshot_as_png())

    def complaints(self):
        """Returns the warnings and errors of the console since the last call."""
        return [entry["message"] for entry in self.driver.get_log("browser") if entry["level"] in ("WARNING", "SEVERE")]

    def requests(self):
        """Returns the addresses that were asked for since the last call."""
        events = [json.loads(entry["message"])["message"] for entry in self.driver.get_log("performance")]
        addresses = [event["params"]["request"]["url"] for event in events if event["method"] == "Network.requestWillBeSent"]
        return [address for address in addresses if not address.startswith("chrome:")]  # pages of the browser itself
