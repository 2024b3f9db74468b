"""Drives a headless Chromium by its debugging pipe: messages are JSON, each ended by a zero byte."""

import fcntl
import json
import os
import pathlib
import select
import shutil
import subprocess
import tempfile
import time
from typing import Any

_PATIENCE = 60.0  # seconds for an answer: a browser's first start on a busy machine takes long


class Browser:
    """One page. errors: what the page's console was told as errors, exceptions and refused loads included."""

    def __init__(self, program: str = "chromium") -> None:
        self._home = pathlib.Path(tempfile.mkdtemp(prefix="browser-"))
        to_browser, self._out = os.pipe()
        self._in, from_browser = os.pipe()
        self.errors: list[str] = []
        self._waiting, self._number = b"", 0
        # The browser reads descriptor 3 and writes descriptor 4, which may be any of these four here.
        ends = [fcntl.fcntl(end, fcntl.F_DUPFD_CLOEXEC, 64) for end in (to_browser, from_browser)]
        self._process = subprocess.Popen(
            [program, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage",
             "--disable-extensions", "--disable-background-networking", "--disable-component-update", "--no-first-run",
             "--no-proxy-server", "--remote-debugging-pipe", f"--user-data-dir={self._home}", "about:blank"],
            stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, pass_fds=(3, 4),
            preexec_fn=lambda: [os.dup2(end, place) for end, place in zip(ends, (3, 4))], start_new_session=True)
        for end in (to_browser, from_browser, *ends):
            os.close(end)
        self._session = None
        page, = [target["targetId"] for target in self.call("Target.getTargets")["targetInfos"]
                 if target["type"] == "page"]
        self._session = self.call("Target.attachToTarget", targetId=page, flatten=True)["sessionId"]
        self.call("Emulation.setScrollbarsHidden", hidden=True)
        for domain in ("Page", "Runtime", "Log"):
            self.call(f"{domain}.enable")

    def call(self, method: str, **parameters: Any) -> dict[str, Any]:
        """The result of a command of the protocol. RuntimeError, TimeoutError."""
        self._number += 1
        message = {"id": self._number, "method": method, "params": parameters}
        if self._session:
            message["sessionId"] = self._session
        os.write(self._out, json.dumps(message).encode() + b"\0")
        while True:
            answer = self._next()
            if answer.get("id") != self._number:
                self._note(answer)
            elif "error" in answer:
                raise RuntimeError(f"{method}: {answer['error']}")
            else:
                return answer["result"]

    def _next(self) -> dict[str, Any]:
        while b"\0" not in self._waiting:
            if not select.select([self._in], [], [], _PATIENCE)[0]:
                raise TimeoutError("the browser does not answer")
            data = os.read(self._in, 1 << 20)
            if not data:
                raise RuntimeError(f"the browser ended with status {self._process.wait()}")
            self._waiting += data
        message, _, self._waiting = self._waiting.partition(b"\0")
        return json.loads(message)

    def _note(self, event: dict[str, Any]) -> None:
        method, told = event.get("method"), event.get("params", {})
        if method == "Runtime.exceptionThrown" or method == "Runtime.consoleAPICalled" and told["type"] == "error":
            self.errors.append(json.dumps(told))
        elif method == "Log.entryAdded" and told["entry"]["level"] == "error":
            self.errors.append(f"{told['entry']['text']} ({told['entry'].get('url')})")

    def look_like(self, width: int, height: int, dark: bool = False) -> None:
        """The window's size, in pixels, and the colours that the user likes."""
        self.call("Emulation.setDeviceMetricsOverride", width=width, height=height, deviceScaleFactor=1, mobile=False)
        self.call("Emulation.setEmulatedMedia",
                  features=[{"name": "prefers-color-scheme", "value": "dark" if dark else "light"}])

    def open(self, url: str) -> None:
        self.call("Page.navigate", url=url)

    def value(self, expression: str) -> Any:
        """Of a JavaScript expression."""
        answer = self.call("Runtime.evaluate", expression=expression, returnByValue=True, awaitPromise=True)
        if "exceptionDetails" in answer:
            raise RuntimeError(f"{expression}: {answer['exceptionDetails']}")
        return answer["result"].get("value")

    def wait(self, expression: str, seconds: float = 30) -> None:
        """Until an expression is true."""
        deadline = time.monotonic() + seconds
        while not self.value(f"Boolean({expression})"):
            if time.monotonic() > deadline:
                raise AssertionError(f"not within {seconds} s: {expression}; {self.errors}")
            time.sleep(0.05)

    def close(self) -> None:
        try:
            self.call("Browser.close")
        except (OSError, RuntimeError, TimeoutError):
            self._process.kill()
        self._process.wait(timeout=30)
        os.close(self._in)
        os.close(self._out)
        shutil.rmtree(self._home, ignore_errors=True)
