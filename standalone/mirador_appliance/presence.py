"""Whether a daemon follows the controller, and how far it is with taking over the inventory.

It waits for the next generation nearly always, and while a connection waits it is there. When it has been given one it
asks for the disks of each VM that is new or has changed, and says when it is through. Its first generation is every VM.
"""

import contextlib
import threading
from collections import deque
from collections.abc import Callable, Iterator

NOTHING_YET = "0-0"  # the generation that a daemon has at its start
_SILENCE = 30.0  # seconds without a word and without a waiting connection, after which it counts as gone
_BREAK = 5.0  # the same when it has closed its connection, which it does before it tries again
_STAYS = 16


class Presence:
    """Thread-safe. clock: seconds since 1970; on_new: called when a daemon begins."""

    def __init__(self, clock: Callable[[], float], on_new: Callable[[], None] = lambda: None) -> None:
        self._clock, self._on_new = clock, on_new
        self._lock = threading.Lock()
        self._waiting = 0
        self._last: float | None = None  # when it spoke
        self._is_gone = False  # it closed the connection by which it waited
        self._stays: deque[tuple[float, float]] = deque(maxlen=_STAYS)  # that are over
        self._there_since = 0.0
        self._is_new = True  # it has taken over nothing since its start
        self._cycle: float | None = None  # when the one under way began
        self._taken: set[str] = set()

    @contextlib.contextmanager
    def waits(self, known: str, is_wanted: Callable[[], bool]) -> Iterator[None]:
        """While it waits for a generation other than `known`; is_wanted: whether its connection still stands."""
        with self._lock:
            self._note()
            self._waiting += 1
            self._cycle = None
            is_first = known == NOTHING_YET
            if is_first:
                self._is_new = True
        if is_first:
            self._on_new()
        try:
            yield
        finally:
            wanted = is_wanted()
            with self._lock:
                self._waiting -= 1
                self._note()
                self._is_gone = not wanted

    def _note(self) -> None:
        now = self._clock()
        if not self._is_there(now):
            if self._last is not None:
                self._stays.append((self._there_since, self._last))
            self._there_since = now
        self._last, self._is_gone = now, False

    def _is_there(self, now: float) -> bool:
        patience = _BREAK if self._is_gone else _SILENCE
        return self._waiting > 0 or self._last is not None and now - self._last < patience

    def speaks(self) -> None:
        with self._lock:
            self._note()

    def begins(self) -> None:
        """It has been given a generation that it did not know."""
        with self._lock:
            self._cycle = self._clock()
            self._taken.clear()

    def takes(self, uuid: str) -> int:
        """It asks for a VM's disks. How many VMs it has asked for in this cycle; 0 outside one."""
        with self._lock:
            self._note()
            if self._cycle is None:
                return 0
            self._taken.add(uuid)
            return len(self._taken)

    def ends(self) -> float | None:
        """It has taken a generation over. How many seconds its first one took; None for a later one."""
        with self._lock:
            self._note()
            began, was_new = self._cycle, self._is_new
            self._cycle, self._is_new = None, False
            return self._clock() - began if was_new and began is not None else None

    def is_there(self) -> bool:
        with self._lock:
            return self._is_there(self._clock())

    def stays(self) -> list[tuple[float, float]]:
        """The times (seconds since 1970) between which it was there without a break, oldest first; those that are over
        are told once."""
        with self._lock:
            found, now = list(self._stays), self._clock()
            self._stays.clear()
            if self._last is not None:
                found.append((self._there_since, now if self._is_there(now) else self._last))
            return found

    def told(self) -> dict[str, object]:
        """{state: "never", "silent" or "there"; silent (seconds since it spoke, or None); cycle: None, or the one under
        way: {first (whether it is the daemon's first), seconds, asked (VMs whose disks it has asked for)}}"""
        with self._lock:
            now = self._clock()
            is_there = self._is_there(now)
            state = "never" if self._last is None else "there" if is_there else "silent"
            cycle = None
            if self._cycle is not None and is_there:
                cycle = {"first": self._is_new, "seconds": now - self._cycle, "asked": len(self._taken)}
            silent = None if is_there or self._last is None else now - self._last
            return {"state": state, "silent": silent, "cycle": cycle}

    def asked(self) -> set[str]:
        """uuids of the VMs whose disks it has asked for in the cycle under way."""
        with self._lock:
            return set(self._taken) if self._cycle is not None else set()
