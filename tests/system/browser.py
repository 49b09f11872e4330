"""A headless Chromium that a test drives through chromedriver, by the WebDriver protocol."""

import base64
import json
import os
import re
import shutil
import subprocess
import tempfile
import urllib.request

PATIENCE = 300
SHOWN_TEXT = """
const element = document.querySelector(arguments[0]);
const isShown = element !== null && element.checkVisibility({visibilityProperty: true});
return isShown ? (element.innerText ?? element.textContent).trim() : '';
"""


class Browser:
    """A browser with a profile of its own. close() must be called."""

    def __init__(self):
        self._profile = tempfile.mkdtemp(prefix="qmlogcache-browser-")
        self._session = None
        try:
            self._base = f"http://127.0.0.1:{self._start_driver()}"
            answer = self._call("POST", "/session", {"capabilities": {"alwaysMatch": self._capabilities()}})
            self._session = f"/session/{answer['sessionId']}"
        except BaseException:
            self.close()
            raise

    def close(self):
        try:
            if self._session is not None:
                self._call("DELETE", self._session)
        finally:
            self._end_driver()
            shutil.rmtree(self._profile, ignore_errors=True)

    def resize(self, width, height, dark=False):
        """The page's own width and height in CSS pixels."""
        self._chrome(
            "Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=width < 600
        )
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self._chrome("Emulation.setEmulatedMedia", features=[scheme])

    def open(self, url):
        self._call("POST", f"{self._session}/url", {"url": url})

    def run(self, script, *arguments):
        """What the script returns."""
        return self._call("POST", f"{self._session}/execute/sync", {"script": script, "args": list(arguments)})

    def text(self, selector):
        """The text of an element as it is shown; empty when nothing is."""
        return self.run(SHOWN_TEXT, selector)

    def press(self, *keys):
        """Presses keys one after the other."""
        actions = [{"type": kind, "value": key} for key in keys for kind in ("keyDown", "keyUp")]
        body = {"actions": [{"type": "key", "id": "keyboard", "actions": actions}]}
        self._call("POST", f"{self._session}/actions", body)

    def complaints(self):
        """What the console has said since the last question: warnings, errors, broken policies."""
        entries = self._call("POST", f"{self._session}/se/log", {"type": "browser"})
        return [entry["message"] for entry in entries if entry["level"] != "INFO"]

    def requested(self):
        """The URLs of all requests since the last question."""
        urls = []
        for entry in self._call("POST", f"{self._session}/se/log", {"type": "performance"}):
            message = json.loads(entry["message"])["message"]
            if message["method"] == "Network.requestWillBeSent":
                urls.append(message["params"]["request"]["url"])
        return urls

    def accessible_names(self, role):
        """What a screen reader is told of all elements of a role."""
        nodes = self._chrome("Accessibility.getFullAXTree")["nodes"]
        return [
            node.get("name", {}).get("value", "")
            for node in nodes
            if not node.get("ignored") and node.get("role", {}).get("value") == role
        ]

    def screenshot(self, path):
        """The whole page as a PNG."""
        shot = self._chrome("Page.captureScreenshot", captureBeyondViewport=True)
        path.write_bytes(base64.b64decode(shot["data"]))

    def _start_driver(self):
        """Its port. It looks for a free one and then binds it; when another program was faster it ends."""
        said = ""
        for _ in range(5):
            # A process group of its own: the browser's processes end with it.
            self._driver = subprocess.Popen(
                ["chromedriver", "--port=0"],
                stdout=subprocess.PIPE,
                stderr=subprocess.STDOUT,
                text=True,
                start_new_session=True,
                env={**os.environ, "HOME": self._profile},
            )
            for line in self._driver.stdout:
                said += line
                found = re.search(r"started successfully on port (\d+)", line)
                if found:
                    return int(found.group(1))
            self._end_driver()
        raise AssertionError(f"chromedriver did not start: {said}")

    def _end_driver(self):
        try:
            os.killpg(self._driver.pid, 9)
        except ProcessLookupError:
            pass
        self._driver.wait()
        self._driver.stdout.close()

    def _capabilities(self):
        arguments = [
            "--headless=new",
            "--disable-gpu",
            "--disable-dev-shm-usage",
            "--disable-background-networking",
            "--disable-component-update",
            "--no-first-run",
            f"--user-data-dir={self._profile}/profile",
        ]
        if os.geteuid() == 0:
            arguments.append("--no-sandbox")
        return {
            "goog:chromeOptions": {"args": arguments},
            "goog:loggingPrefs": {"browser": "ALL", "performance": "ALL"},
        }

    def _chrome(self, command, **parameters):
        return self._call("POST", f"{self._session}/goog/cdp/execute", {"cmd": command, "params": parameters})

    def _call(self, method, path, body=None):
        data = None if body is None else json.dumps(body).encode()
        request = urllib.request.Request(self._base + path, data, {"Content-Type": "application/json"}, method=method)
        # No proxy: the driver is on this machine.
        opener = urllib.request.build_opener(urllib.request.ProxyHandler({}))
        with opener.open(request, timeout=PATIENCE) as answer:
            return json.load(answer)["value"]
