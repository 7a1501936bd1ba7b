"""Headless Chromium as Debian has it, for a network namespace of its own."""

from typing import Any

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from weirlab.lab import Lab, wait_until

PATIENCE = 60  # seconds; "Unchanged" alone takes 15
# Chromium itself logs each failed connection, which no page can prevent, and its start page.
ITS_OWN = ("net::ERR_", "blocked by CORS policy", "chrome://")


class Browser:
    """`with Browser(lab) as browser:` one window."""

    def __init__(self, lab: Lab) -> None:
        options: Any = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("headless=new", "no-sandbox", "disable-gpu", "no-first-run", "mute-audio",
                         "disable-background-networking", "disable-component-update",
                         f"user-data-dir={lab.work / 'profile'}"):
            options.add_argument("--" + argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        self.driver: Any = webdriver.Chrome(service=Service("/usr/bin/chromedriver"), options=options)
        self.driver.set_script_timeout(60)

    def __enter__(self) -> "Browser":
        return self

    def __exit__(self, *_: object) -> None:
        self.driver.quit()

    def view(self, width: int, height: int, scheme: str = "light") -> None:
        self.driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500})
        self.driver.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})

    def open(self, address: str) -> None:
        self.driver.get("about:blank")  # another fragment alone would not load the page again
        self.driver.get(address)

    def run(self, script: str, *arguments: object) -> Any:
        return self.driver.execute_script(script, *arguments)

    def point(self, x: float, y: float) -> None:
        self.driver.execute_cdp_cmd("Input.dispatchMouseEvent", {"type": "mouseMoved", "x": x, "y": y})

    def text(self, selector: str) -> str:
        return str(self.run("return document.querySelector(arguments[0]).innerText", selector))

    def wait_for(self, text: str, selector: str = "body") -> None:
        try:
            wait_until(text, lambda: text in self.text(selector), PATIENCE)
        except SystemExit as error:
            raise SystemExit(f"{error}; the page says: {self.text(selector)}") from None

    def check_complaints(self) -> None:
        complaints = [entry["message"] for entry in self.driver.get_log("browser")
                      if not any(own in entry["message"] for own in ITS_OWN)]
        if complaints:
            raise SystemExit(f"FAILED: the page complained: {complaints}")
