"""A headless Chromium that is driven over a pipe, by the DevTools protocol."""
import base64
import itertools
import json
import os
import shutil
import subprocess
import tempfile

PROGRAM = "/usr/lib/chromium/chromium"  # without its start script, which wants a whole /etc


def installed():
    return os.path.exists(PROGRAM)


class Browser:
    """A context manager.  `problems` are exceptions, console errors and what a policy refused."""

    def __init__(self, size=(1280, 1000), dark=False):
        self.size, self.dark = size, dark
        self.problems, self.numbers = [], itertools.count(1)

    def __enter__(self):
        self.profile = tempfile.mkdtemp()
        child_in, self.out = os.pipe()
        self.source, child_out = os.pipe()
        # The browser reads commands from its descriptor 3 and answers on 4.
        command = ["/bin/bash", "-c", f'exec "$0" "$@" 3<&{child_in} 4>&{child_out}', PROGRAM, "--headless=new", "--no-sandbox",
                   "--disable-gpu", "--disable-dev-shm-usage", "--hide-scrollbars", f"--user-data-dir={self.profile}",
                   "--window-size={},{}".format(*self.size), "--remote-debugging-pipe", "about:blank"]
        self.process = subprocess.Popen(command, pass_fds=(child_in, child_out), stdin=subprocess.DEVNULL,
                                        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL,
                                        env={**os.environ, "HOME": self.profile})
        os.close(child_in)
        os.close(child_out)
        self.read, self.session = b"", None
        target = next(one for one in self.call("Target.getTargets")["targetInfos"] if one["type"] == "page")
        self.session = self.call("Target.attachToTarget", targetId=target["targetId"], flatten=True)["sessionId"]
        for domain in ("Runtime", "Log", "Page", "Network"):
            self.call(f"{domain}.enable")
        self.call("Emulation.setEmulatedMedia", features=[{"name": "prefers-color-scheme",
                                                           "value": "dark" if self.dark else "light"}])
        return self

    def __exit__(self, *_):
        self.process.kill()
        self.process.wait()
        os.close(self.out)
        os.close(self.source)
        shutil.rmtree(self.profile, ignore_errors=True)

    def _message(self):
        while b"\0" not in self.read:
            piece = os.read(self.source, 1 << 20)
            if not piece:
                raise RuntimeError("the browser has ended")
            self.read += piece
        message, _, self.read = self.read.partition(b"\0")
        return json.loads(message)

    def _note(self, message):
        method, given = message.get("method"), message.get("params", {})
        if method == "Runtime.exceptionThrown":
            self.problems.append(given["exceptionDetails"])
        elif method == "Runtime.consoleAPICalled" and given["type"] in ("error", "warning", "assert"):
            self.problems.append(given["args"])
        elif method == "Log.entryAdded" and given["entry"]["level"] == "error":
            self.problems.append(given["entry"])
        elif method == "Network.requestWillBeSent" and not given["request"]["url"].startswith(("file:", "blob:", "data:", "about:")):
            self.problems.append(given["request"])

    def call(self, method, **parameters):
        number = next(self.numbers)
        message = {"id": number, "method": method, "params": parameters}
        if self.session:
            message["sessionId"] = self.session
        os.write(self.out, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._message()
            if answer.get("id") == number:
                if "error" in answer:
                    raise RuntimeError(answer["error"])
                return answer["result"]
            self._note(answer)

    def open(self, path):
        self.call("Page.navigate", url=f"file://{path}")
        while True:
            message = self._message()
            self._note(message)
            if message.get("method") == "Page.loadEventFired":
                return

    def run(self, script):
        """The value of an expression, in the page."""
        result = self.call("Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in result:
            raise RuntimeError(result["exceptionDetails"])
        return result["result"].get("value")

    def screenshot(self, path):
        height = self.run("document.documentElement.scrollHeight")
        shot = self.call("Page.captureScreenshot", captureBeyondViewport=True,
                         clip={"x": 0, "y": 0, "width": self.size[0], "height": height, "scale": 1})
        with open(path, "wb") as file:
            file.write(base64.b64decode(shot["data"]))
