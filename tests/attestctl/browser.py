"""A headless browser, governed over a pipe: what is on a page, and how it is laid out."""

import json
import os
import subprocess
import tempfile

FLAGS = [
    "--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
    "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
]


class Browser:
    """One page of one browser with a profile of its own."""

    def __enter__(self):
        self.profile = tempfile.TemporaryDirectory(ignore_cleanup_errors=True)
        to_browser, self.out = os.pipe()
        self.back, from_browser = os.pipe()
        # The browser reads commands at 3 and answers at 4.
        wiring = f'exec 3<&{to_browser} 4>&{from_browser}; exec chromium "$@"'
        self.process = subprocess.Popen(
            ["bash", "-c", wiring, "chromium", *FLAGS, f"--user-data-dir={self.profile.name}",
             "--remote-debugging-pipe", "about:blank"],
            pass_fds=(to_browser, from_browser), stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.answers = os.fdopen(self.back, "rb")
        self.rest = b""
        self.number = 0
        self.session = None
        self.requests = []  # addresses that pages asked for
        self.loaded = set()  # documents
        self.complaints = []  # what the browser refused them or found wrong
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Network", "Log"):
            self.call(domain + ".enable")
        self.call("Page.setLifecycleEventsEnabled", enabled=True)
        return self

    def __exit__(self, *_):
        try:
            self.session = None
            self.call("Browser.close")
            self.process.wait(60)
        finally:
            if self.process.poll() is None:
                self.process.kill()
                self.process.wait()
            os.close(self.out)
            self.answers.close()
            self.profile.cleanup()

    def message(self):
        while b"\0" not in self.rest:
            more = os.read(self.back, 1 << 20)
            if not more:
                raise AssertionError("the browser has gone")
            self.rest += more
        one, self.rest = self.rest.split(b"\0", 1)
        return json.loads(one)

    def note(self, event):
        what = event.get("method")
        if what == "Network.requestWillBeSent":
            self.requests.append(event["params"]["request"]["url"])
        elif what == "Page.lifecycleEvent" and event["params"]["name"] == "load":
            self.loaded.add(event["params"]["loaderId"])
        elif what == "Log.entryAdded":
            self.complaints.append(event["params"]["entry"]["text"])
        elif what == "Runtime.exceptionThrown":
            self.complaints.append(json.dumps(event["params"]))

    def call(self, method, **parameters):
        self.number += 1
        command = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        os.write(self.out, json.dumps(command).encode() + b"\0")
        while True:
            answer = self.message()
            if answer.get("id") == self.number:
                if "error" in answer:
                    raise AssertionError(f"{method}: {answer['error']}")
                return answer["result"]
            self.note(answer)

    def show(self, path, width=1400, height=1000, dark=False, script=True):
        """Loads the file and waits until it has been loaded."""
        self.requests.clear()
        self.complaints.clear()
        scheme = {"name": "prefers-color-scheme", "value": "dark" if dark else "light"}
        self.call("Emulation.setEmulatedMedia", features=[scheme])
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setScriptExecutionDisabled", value=not script)
        document = self.call("Page.navigate", url=f"file://{path}")["loaderId"]
        while document not in self.loaded:
            self.note(self.message())

    def value(self, expression):
        """What the expression gives in the page; also where the page's own scripts may not run."""
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise AssertionError(result["exceptionDetails"])
        return result["result"].get("value")
