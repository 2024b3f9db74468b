"""The journal of calls: `agent-journal.jsonl` in the state directory, a JSON object a line.

    {"event": "began", "call": ID, "time": SECONDS, "hypervisor": NAME, "method": NAME, "vm": NAME, "uuid": UUID,
     "snapshot": NAME, "path": PATH, "to": PATH}           members that the method does not have are left out
    {"event": "ended", "call": ID, "time": SECONDS, "method": NAME, "outcome": WORD, …}

IDs are "PID-NUMBER" of the agent's process and its calls. Outcomes: "done" (with "result" when it is a number, with
"moment": [{"node", "base", "sha256"}, …] when a fault asks for it), "refused" (with "error" and "text"), "died",
"silent", "garbage", "cut". "fault" is the rule that acted, "steps" the names of the steps of an operation that were
done, a repeated one once. A call without an end is one whose process was killed. A removal that went on behind its call
has one more line:

    {"event": "finished", "time": SECONDS, "method": NAME, "vmx": PATH, "snapshot": NAME, "steps": […],
     "count": N or "error": N and "text": TEXT}

The same with the method "consolidate" stands for what an earlier removal left to do. There are no passwords in it.
Grown to 4 MiB it is renamed to `….1`.
"""

import os
import pathlib
import time
from typing import Any

from ..texts import pack

_LARGEST = 4 << 20  # bytes


def path_in(state: pathlib.Path) -> pathlib.Path:
    return state / "agent-journal.jsonl"


class Journal:
    """Appends lines, each in one write, so that any number of processes may. Behind what a power cut tore a new line
    begins. What cannot be written is lost."""

    def __init__(self, state: pathlib.Path) -> None:
        self._path = path_in(state)
        self._calls = 0

    def begin(self, **members: Any) -> str:
        """A call begins; returns its ID."""
        self._calls += 1
        call = f"{os.getpid()}-{self._calls}"
        self._write({"event": "began", "call": call, "time": time.time(), **members})
        return call

    def end(self, call: str, outcome: str, **members: Any) -> None:
        self._write({"event": "ended", "call": call, "time": time.time(), "outcome": outcome, **members})

    def finish(self, method: str, **members: Any) -> None:
        """Work that outlived its call has ended."""
        self._write({"event": "finished", "time": time.time(), "method": method, **members})

    def _write(self, record: dict[str, Any]) -> None:
        try:
            descriptor = os.open(self._path, os.O_RDWR | os.O_APPEND | os.O_CREAT | os.O_CLOEXEC, 0o600)
            try:
                size = os.fstat(descriptor).st_size
                if size > _LARGEST:
                    os.replace(self._path, f"{self._path}.1")
                is_torn = size > 0 and os.pread(descriptor, 1, size - 1) != b"\n"
                os.write(descriptor, (b"\n" if is_torn else b"") + pack(record) + b"\n")
            finally:
                os.close(descriptor)
        except OSError:
            pass  # a call is worth more than its line
