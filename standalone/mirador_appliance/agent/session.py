"""Whom the agent speaks for: the login at one hypervisor, and the file that shows that there is one.

The file is named by the daemon ("/tmp/jrpc_session_file-HOST-PORT"), readable by its owner alone, and holds no secret:
{"hypervisor", "port", "login", "vendor", "pid", "since" (seconds)}.
"""

import errno
import hmac
import os
import sys
import time

from ..faults_told import reason
from ..texts import pack, to_bytes
from .framing import AgentError
from .machines import Machines


class Session:
    """The session of one agent process; it outlives its calls and is renewed by every "connect"."""

    def __init__(self, hypervisor: str, port: int) -> None:
        self.hypervisor, self.port = hypervisor, port
        self.vendor = ""
        self._is_connected = False
        self._file = ""

    def connect(self, machines: Machines, login: str, password: str, path: str) -> None:
        """Logs in with what the controller hands out for the hypervisor. AgentError."""
        self._is_connected = False
        if self.hypervisor not in machines.hypervisors():
            raise AgentError(errno.EHOSTUNREACH, f"{self.hypervisor}: no such hypervisor")
        known = machines.login()
        if login != known[0] or not hmac.compare_digest(to_bytes(password), to_bytes(known[1])):
            raise AgentError(errno.EACCES, f"{self.hypervisor}: login as {login} refused")
        self._is_connected = True
        self._write_file(login, path)

    def check(self) -> None:
        """Whether somebody is logged in. AgentError."""
        if not self._is_connected:
            raise AgentError(errno.ENOTCONN, f"{self.hypervisor}: not connected")

    def disconnect(self) -> None:
        self._is_connected = False
        if self._file:
            try:
                os.unlink(self._file)
            except OSError:
                pass  # nothing depends on it
        self._file = ""

    def _write_file(self, login: str, path: str) -> None:
        """A file in a directory that anybody may write to: what stands there is replaced, never followed. Without it
        the session is as good."""
        aside = f"{path}.{os.getpid()}"
        content = {"hypervisor": self.hypervisor, "port": self.port, "login": login, "vendor": self.vendor,
                   "pid": os.getpid(), "since": int(time.time())}
        try:
            descriptor = os.open(aside, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
            with os.fdopen(descriptor, "wb") as file:
                file.write(pack(content) + b"\n")
            try:
                os.rename(aside, path)
            except OSError:  # a directory stands there
                os.unlink(aside)
                raise
            self._file = path
        except OSError as error:
            print(f"{path}: {reason(error)}", file=sys.stderr)
