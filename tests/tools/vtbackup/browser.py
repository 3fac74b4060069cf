"""A headless Chromium that does what it is told over a pipe, and a proxy through which alone it can reach anything."""
import base64
import http.server
import json
import os
import shutil
import subprocess
import tempfile
import threading


class Proxy:
    """Answers nothing, and keeps what it was asked for."""

    def __init__(self):
        proxy = self

        class Handler(http.server.BaseHTTPRequestHandler):
            def refuse(self):
                proxy.asked.append(self.path)
                self.send_error(404)

            do_GET = do_POST = do_CONNECT = do_HEAD = do_OPTIONS = refuse

            def log_message(self, *_):
                pass

        self.asked = []
        self.server = http.server.ThreadingHTTPServer(("127.0.0.1", 0), Handler)
        self.address = f"127.0.0.1:{self.server.server_port}"
        threading.Thread(target=self.server.serve_forever, daemon=True).start()

    def close(self):
        self.server.shutdown()
        self.server.server_close()


class Browser:
    """One page at a time. What it writes to its console, and what it asks for, is kept."""

    FLAGS = ["--headless", "--no-sandbox", "--disable-gpu", "--disable-quic", "--no-first-run",
             "--disable-background-networking", "--disable-component-update", "--disable-sync", "--disable-dev-shm-usage",
             "--disable-extensions", "--hide-scrollbars", "--force-color-profile=srgb", "--remote-debugging-pipe"]

    def __init__(self, program):
        self.proxy = Proxy()
        self.profile = tempfile.mkdtemp(prefix="vtbackup-report-")
        to_browser, self.out = os.pipe()
        self.into, from_browser = os.pipe()
        # The browser reads commands from descriptor 3 and answers on 4.
        shell = f"exec 3<&{to_browser} 4>&{from_browser}; exec \"$@\""
        self.process = subprocess.Popen(
            ["bash", "-c", shell, "bash", program, *self.FLAGS, f"--user-data-dir={self.profile}",
             f"--proxy-server={self.proxy.address}", "--proxy-bypass-list=<-loopback>", "about:blank"],
            pass_fds=(to_browser, from_browser), stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
            stderr=subprocess.DEVNULL)
        os.close(to_browser)
        os.close(from_browser)
        self.rest = b""
        self.number = 0
        self.events = []
        self.session = None
        target = self.call("Target.createTarget", url="about:blank")["targetId"]
        self.session = self.call("Target.attachToTarget", targetId=target, flatten=True)["sessionId"]
        for domain in ("Page", "Runtime", "Log", "Network"):
            self.call(f"{domain}.enable")

    def close(self):
        os.close(self.out)  # it ends when nobody commands it
        try:
            self.process.wait(timeout=30)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.wait()
        os.close(self.into)
        self.proxy.close()
        shutil.rmtree(self.profile, ignore_errors=True)

    def _message(self):
        while b"\0" not in self.rest:
            part = os.read(self.into, 1 << 20)
            if not part:
                raise RuntimeError("the browser ended")
            self.rest += part
        message, self.rest = self.rest.split(b"\0", 1)
        return json.loads(message)

    def call(self, method, **parameters):
        self.number += 1
        command = {"id": self.number, "method": method, "params": parameters}
        if self.session:
            command["sessionId"] = self.session
        data = json.dumps(command).encode() + b"\0"
        while data:
            data = data[os.write(self.out, data):]
        while True:
            message = self._message()
            if message.get("id") == self.number:
                if "error" in message:
                    raise RuntimeError(f"{method}: {message['error']}")
                return message["result"]
            self.events.append(message)

    def wait_for(self, method):
        while not any(event.get("method") == method for event in self.events):
            self.events.append(self._message())

    def open(self, url):
        self.events = []
        self.call("Page.navigate", url=url)
        self.wait_for("Page.loadEventFired")

    def value(self, expression):
        result = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"])
        return result["result"].get("value")

    def frames(self):
        """Waits until what was done is on the screen."""
        self.value("new Promise(done => requestAnimationFrame(() => requestAnimationFrame(() => done(true))))")

    def media(self, media="", scheme=None):
        features = [{"name": "prefers-color-scheme", "value": scheme}] if scheme else []
        self.call("Emulation.setEmulatedMedia", media=media, features=features)

    def size(self, width, height):
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)

    def key(self, name):
        for kind in ("rawKeyDown", "keyUp"):
            codes = {"Tab": 9, "End": 35, "Home": 36, "ArrowLeft": 37, "ArrowUp": 38, "ArrowRight": 39, "ArrowDown": 40,
                     "Escape": 27, " ": 32}
            self.call("Input.dispatchKeyEvent", type=kind, key=name, code=name, windowsVirtualKeyCode=codes[name])
        self.frames()

    def point(self, x, y):
        self.call("Input.dispatchMouseEvent", type="mouseMoved", x=x, y=y)
        self.frames()

    def screenshot(self, path, whole=True):
        picture = self.call("Page.captureScreenshot", format="png", captureBeyondViewport=whole)
        with open(path, "wb") as file:
            file.write(base64.b64decode(picture["data"]))

    def pdf(self, path):
        with open(path, "wb") as file:
            file.write(base64.b64decode(self.call("Page.printToPDF", preferCSSPageSize=True)["data"]))

    def complaints(self):
        """Everything on the console, every exception and every violation of the page's policy."""
        found = []
        for event in self.events:
            if event.get("method") in ("Runtime.consoleAPICalled", "Runtime.exceptionThrown", "Log.entryAdded"):
                found.append(json.dumps(event["params"]))
        return found

    def requests(self):
        return [event["params"]["request"]["url"] for event in self.events
                if event.get("method") == "Network.requestWillBeSent"]
