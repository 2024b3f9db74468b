"""What the daemon holds: memory, descriptors, threads; and what it says of itself: sanitizers' reports, assertions."""

import dataclasses
import pathlib
import re
import threading

from harness.daemon import Daemon
from harness.tools import wait_until

from model import Wrong

MIB = 1 << 20

_FAULTS = re.compile(r"ASSERT:|Sanitizer|runtime error:|terminate called|double free|(free|malloc)\(\): |WARNING: Thread")
_CONNECTIONS = ("socket:", "pipe:", "anon_inode:")
_AT_REST = 20  # connections: kept open to the controller, and two pipes for each agent that is kept for a while
_FUSE_THREADS = 10  # that FUSE keeps for the next requests


@dataclasses.dataclass(frozen=True)
class Sample:
    """memory: bytes that are the process's own; files: what is open beside connections."""
    memory: int
    threads: int
    connections: int
    files: tuple[str, ...]

    def line(self) -> str:
        return (f"{self.memory / MIB:.1f} MiB, {self.threads} threads, {self.connections} connections, "
                f"{len(self.files)} other descriptors")


def check_reports(reports: pathlib.Path, *said: str) -> None:
    """Neither a log, of which lines are given, nor a sanitizer tells of a fault. Wrong."""
    told = [*said, *(path.read_text(errors="replace") for path in reports.iterdir())]
    if told:
        raise Wrong("\n".join(["the daemon says:", *told]))


class Leaks:
    """margin: bytes that memory may grow by from the end of the warm-up on."""

    def __init__(self, daemon: Daemon, reports: pathlib.Path, margin: int):
        self._daemon, self._reports, self._margin = daemon, reports, margin
        self._lock = threading.Lock()
        self._said: list[str] = []  # in logs that are gone
        self.idle: Sample | None = None  # before anything was done
        self.samples: list[Sample] = []  # at rest, from the end of the warm-up on

    def sample(self) -> Sample:
        descriptors = self._daemon.descriptors().values()
        status = pathlib.Path(f"/proc/{self._daemon.pid}/status").read_text()
        threads, memory = (int(re.search(rf"(?m)^{key}:\s+(\d+)", status)[1]) for key in ("Threads", "RssAnon"))
        connections = sum(target.startswith(_CONNECTIONS) for target in descriptors)
        files = tuple(sorted(target for target in descriptors if not target.startswith(_CONNECTIONS)))
        return Sample(memory << 10, threads, connections, files)

    def start(self) -> None:
        self.idle = self.sample()

    def look(self, is_warm: bool) -> Sample:
        """A look at rest. is_warm: memory counts from now on. Wrong, Failed."""
        wait_until(lambda: self.sample().connections <= _AT_REST and self.sample().files == self.idle.files,
                   f"descriptors are closed: {self.idle.files} at the start, {self.sample()} now", 60)
        found = self.sample()
        if is_warm:
            self.samples.append(found)
        most = self.idle.threads + _FUSE_THREADS + 1
        if found.threads > most:
            raise Wrong(f"{found.threads} threads, {self.idle.threads} at the start")
        grown = found.memory - self.samples[0].memory if is_warm else 0
        if grown > self._margin:
            raise Wrong(f"memory has grown by {grown / MIB:.1f} MiB since the warm-up: "
                        f"{[f'{sample.memory / MIB:.1f}' for sample in self.samples]}")
        self.check_reports()
        return found

    def check_log(self, text: str) -> None:
        """Keeps what a log that goes says of faults."""
        with self._lock:
            self._said += [line for line in text.splitlines() if _FAULTS.search(line)]

    def check_reports(self) -> None:
        """Nobody reports anything. Wrong."""
        with self._lock:
            said = self._said + [line for line in self._daemon.log().splitlines() if _FAULTS.search(line)]
        check_reports(self._reports, *said)
