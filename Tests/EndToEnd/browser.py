"""A real browser without a window, driven over the pipe of its debugging protocol."""

import base64
import json
import os
import pathlib
import shutil
import subprocess
import tempfile
import time

PROGRAM = "chromium-headless-shell"
ANSWER_SECONDS = 60


class Browser:
    """One page. Use it in a with statement."""

    def __init__(self, namespace=None, width=1280, height=1000, dark=False):
        self._profile = tempfile.mkdtemp(prefix="ostravel-browser-", dir="/tmp")
        requests, self._requests = os.pipe()
        self._answers, answers = os.pipe()
        # The protocol's descriptors are 3 and 4. Other shells know only those below 10.
        shell = f'exec {PROGRAM} "$@" 3<&{requests} 4>&{answers}'
        command = [
            "/bin/bash", "-c", shell, "bash", "--remote-debugging-pipe", "--no-sandbox",
            "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
            "--disable-background-networking", "--disable-component-update",
            f"--user-data-dir={self._profile}", f"--window-size={width},{height}",
            "--hide-scrollbars", "about:blank",
        ]  # fmt: skip

        def start():
            return subprocess.Popen(
                command,
                pass_fds=(requests, answers),
                stdin=subprocess.DEVNULL,
                stdout=subprocess.DEVNULL,
                stderr=subprocess.DEVNULL,
                env={"PATH": os.environ["PATH"], "HOME": self._profile, "TZ": "UTC"},
            )

        if namespace is None:
            self._process = start()
        else:
            with namespace:
                self._process = start()
        os.close(requests)
        os.close(answers)
        self._received = b""
        self._number = 0
        self._session = None
        # What the page has written to its console as an error, and failed requests.
        self.complaints = []
        target = self._ask("Target.createTarget", url="about:blank")["targetId"]
        self._session = self._ask("Target.attachToTarget", targetId=target, flatten=True)[
            "sessionId"
        ]
        self._ask("Page.enable")
        self._ask("Runtime.enable")
        self._ask("Log.enable")
        # Processor time, which does not depend on how busy the machine is.
        self._ask("Performance.enable", timeDomain="threadTicks")
        self.resize(width, height)
        self._ask(
            "Emulation.setEmulatedMedia",
            features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}],
        )

    def __enter__(self):
        return self

    def __exit__(self, *_):
        # All of its processes end with it.
        self._process.kill()
        self._process.wait()
        os.close(self._requests)
        os.close(self._answers)
        shutil.rmtree(self._profile, ignore_errors=True)

    def _ask(self, method, **parameters):
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._requests, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._next_message()
            if answer.get("id") == self._number:
                assert "error" not in answer, answer
                return answer["result"]
            self._note(answer)

    def _next_message(self):
        while b"\0" not in self._received:
            chunk = os.read(self._answers, 1 << 20)
            assert chunk, "the browser has ended"
            self._received += chunk
        message, _, self._received = self._received.partition(b"\0")
        return json.loads(message)

    def _note(self, message):
        parameters = message.get("params", {})
        if message.get("method") == "Runtime.exceptionThrown":
            self.complaints.append(str(parameters["exceptionDetails"]))
        elif message.get("method") == "Log.entryAdded":
            if parameters["entry"]["level"] == "error":
                self.complaints.append(parameters["entry"]["text"])

    def open(self, url):
        opened = self._ask("Page.navigate", url=url)
        assert "errorText" not in opened, opened
        self.wait("document.readyState === 'complete'")

    def resize(self, width, height):
        self._ask(
            "Emulation.setDeviceMetricsOverride",
            width=width, height=height, deviceScaleFactor=1, mobile=False,
        )  # fmt: skip

    def run(self, script):
        """The value of an expression; for a promise, its result."""
        answer = self._ask(
            "Runtime.evaluate", expression=script, returnByValue=True, awaitPromise=True
        )
        assert "exceptionDetails" not in answer, answer
        return answer["result"].get("value")

    def wait(self, script, seconds=ANSWER_SECONDS):
        """Waits until the expression is true."""
        end = time.monotonic() + seconds
        while not self.run(script):
            assert time.monotonic() < end, f"never true: {script}; {self.complaints}"
            time.sleep(0.05)

    def press(self, key):
        text = {"text": "\r"} if key == "Enter" else {"text": key} if len(key) == 1 else {}
        codes = {"Enter": 13, "Escape": 27, "ArrowUp": 38, "ArrowDown": 40, "End": 35, "Home": 36}
        code = {"windowsVirtualKeyCode": codes[key]} if key in codes else {}
        self._ask("Input.dispatchKeyEvent", type="keyDown", key=key, **text, **code)
        self._ask("Input.dispatchKeyEvent", type="keyUp", key=key, **code)

    def type(self, text):
        for character in text:
            self.press(character)

    def seconds_used(self):
        """Processor time of the page so far: scripts, layout and drawing."""
        told = self._ask("Performance.getMetrics")["metrics"]
        return next(each["value"] for each in told if each["name"] == "TaskDuration")

    def picture(self, path):
        data = self._ask("Page.captureScreenshot", format="png")["data"]
        pathlib.Path(path).write_bytes(base64.b64decode(data))
