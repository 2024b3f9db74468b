"""Clients of the exported tree: what they read must be right, and an error that they see must have a reason."""

import contextlib
import errno
import os
import pathlib
import threading
import time
from collections.abc import Iterator

from harness.compare import Reader
from harness.tools import saved_error

from excuses import Excuses
from model import Vm, Wrong, without_header
from tally import Tally

_OVERLOADED = 4  # processes for each processor that make a wait of the daemon's, cut short, too short
_RELEASED = 10  # seconds within which the daemon has heard that a file was closed


class Table:
    """How many files clients use at a time. The daemon's table has room for so many paths."""

    def __init__(self, room: int):
        self._room = room
        self._lock = threading.Lock()
        self._used = 0
        self._until: list[tuple[float, int]] = []  # when files were closed, and how many places they had

    @contextlib.contextmanager
    def using(self, places: int) -> Iterator[None]:
        with self._lock:
            self._used += places
        try:
            yield
        finally:
            with self._lock:
                self._used -= places
                now = time.monotonic()
                self._until = [(end, count) for end, count in self._until if end > now - 600]
                self._until.append((now, places))

    def could_be_full(self, began: float) -> bool:
        """Whether that may have been so at some time since a moment (time.monotonic())."""
        with self._lock:
            return self._used + sum(count for end, count in self._until if end > began - _RELEASED) >= self._room


class _Reader(Reader):
    def read(self, offset: int, size: int) -> bytes:
        """What is open can be read whatever becomes of its path."""
        try:
            return super().read(offset, size)
        except FileNotFoundError as error:
            raise Wrong("a file that is open cannot be read any more") from error


class Lost(Exception):
    """What a client had open is not to be had any more, for a reason that is known."""


class Clients:
    """own: what the daemon's snapshots are called."""

    def __init__(self, own: str, table: Table, excuses: Excuses, tally: Tally):
        self.own, self._table, self._excuses, self._tally = own, table, excuses, tally

    @contextlib.contextmanager
    def opened(self, vm: Vm, path: pathlib.Path, direct: bool = False, places: int = 1) -> Iterator[Reader | None]:
        """A file of a VM; None when it cannot be opened, for a reason that is known. places: in the daemon's table. Lost,
        when inside its path is asked for and has gone; fstat is answered by path, too."""
        with self._table.using(places), contextlib.ExitStack() as stack:
            began = time.monotonic()
            try:
                reader = stack.enter_context(_Reader(path, direct))
            except OSError as error:
                self.must_have_reason(vm, path, began, error)
                reader = None
            else:
                self._tally.count("opens")
            try:
                yield reader
            except FileNotFoundError as error:
                self.must_have_reason(vm, path, began, error)
                raise Lost from error

    @contextlib.contextmanager
    def may_miss(self, vm: Vm, path: pathlib.Path) -> Iterator[None]:
        """What is asked of a file inside may fail for a reason that is known; the rest is left out then."""
        began = time.monotonic()
        try:
            yield
        except OSError as error:
            self.must_have_reason(vm, path, began, error)

    def must_have_reason(self, vm: Vm, path: pathlib.Path, began: float, error: OSError) -> tuple[int, str]:
        """Returns what the daemon says of an error. Wrong: nothing explains it."""
        number, said = self.told(path)
        text = f"{error.strerror}; {number}: {said}"
        reason = self._excuses.explain(vm.uuid, began, text)
        is_such = error.errno == errno.EPERM or "Too many open files" in text  # attributes tell no reason
        if reason is None and is_such and self._table.could_be_full(began):
            reason = "the table is full"
        if reason is None and number == errno.ETIME and os.getloadavg()[0] > _OVERLOADED * os.cpu_count():
            reason = "the daemon's clock is fast, and the machine too slow"
        if reason is None:
            raise Wrong(f"{path}: {text}; nothing explains it, begun {time.monotonic() - began:.1f} s ago; "
                        f"{self._excuses.tell(vm.name, began)}") from error
        self._tally.explained(f"{reason}: {text.replace(vm.uuid, 'UUID')[:100]}")
        return number, said

    @staticmethod
    def told(path: pathlib.Path) -> tuple[int, str]:
        """The last error that the daemon remembers for a path."""
        try:
            return saved_error(path)
        except OSError as error:
            return 0, f"no path any more ({error.strerror})"

    def read_equal(self, reader: Reader, disk: str, truth: bytes, offset: int, size: int) -> None:
        """Reads from a disk and compares. Wrong."""
        data = reader.read(offset, size)
        self._tally.count("bytes", len(data))
        expected = truth[offset:offset + size]
        if without_header(disk, data, offset) != expected:
            at = next((place for place, (one, other) in enumerate(zip(data, expected)) if one != other), len(data))
            raise Wrong(f"{os.readlink(f'/proc/self/fd/{reader.fileno()}')}: {len(data)} bytes read at {offset}, "
                        f"{len(expected)} expected, wrong from byte {offset + at} on")
