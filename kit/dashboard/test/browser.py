"""Headless Chromium as Debian has it, for a network namespace of its own."""

from typing import Any

from selenium import webdriver
from selenium.webdriver.chrome.service import Service

from weirlab.lab import Lab, wait_until

PATIENCE = 60  # seconds; "Unchanged" alone takes 15
# Chromium itself logs each failed connection, which no page can prevent, and its start page.
ITS_OWN = ("net::ERR_", "blocked by CORS policy", "chrome://")
CHROME: Any = webdriver.Chrome  # which has types in some versions only


class Browser(CHROME):  # type: ignore[misc]
    """One window."""

    def __init__(self, lab: Lab) -> None:
        options: Any = webdriver.ChromeOptions()
        options.binary_location = "/usr/bin/chromium"
        for argument in ("headless=new", "no-sandbox", "disable-gpu", "no-first-run", "mute-audio",
                         "disable-background-networking", "disable-component-update",
                         f"user-data-dir={lab.work / 'profile'}"):
            options.add_argument("--" + argument)
        options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
        super().__init__(service=Service("/usr/bin/chromedriver"), options=options)

    def open(self, address: str, width: int = 1000, height: int = 800, scheme: str = "light") -> None:
        self.execute_cdp_cmd("Emulation.setDeviceMetricsOverride", {
            "width": width, "height": height, "deviceScaleFactor": 1, "mobile": width < 500})
        self.execute_cdp_cmd("Emulation.setEmulatedMedia", {
            "features": [{"name": "prefers-color-scheme", "value": scheme}]})
        self.get("about:blank")  # another fragment alone would not load the page again
        self.get(address)

    def run(self, script: str, *arguments: object) -> Any:
        return self.execute_script(script, *arguments)

    def text(self, selector: str) -> str:
        return str(self.run("return document.querySelector(arguments[0]).innerText", selector))

    def wait_for(self, text: str, selector: str = "body") -> None:
        try:
            wait_until(text, lambda: text in self.text(selector), PATIENCE)
        except SystemExit as error:
            raise SystemExit(f"{error}; the page says: {self.text(selector)}") from None

    def complaints(self) -> list[str]:
        return [entry["message"] for entry in self.get_log("browser")
                if not any(own in entry["message"] for own in ITS_OWN)]
