"""The process "datastore_fs": watches the datastores and tells the controller what it finds.

It reads one JSON object, its orders, from standard input, and ends when that closes. To standard output it writes one
JSON object a line, in the order in which things were found:

    {"store": NAME, "accessible": 1, "capacity": BYTES, "free": BYTES}
    {"store": NAME, "accessible": 0, "error": TEXT}     it could not be read; its VMs stay as they were
    {"present": [NAME, [vmx_path, …]]}                  once: every VM of a datastore, before any of them is read
    {"gone": [[NAME, vmx_path], …]}
    {"vms": [FACTS, …]}                                 new and changed VMs
    {"complete": NAME}                                  once, when a datastore's VMs have all been read
"""

import dataclasses
import os
import pathlib
import select
import signal
import sys
import time
from collections.abc import Iterator
from typing import Any

from . import synthetic
from .bell import Bell
from .datastores import Datastore, Volumes
from .discovery import Inspector
from .faults_told import reason
from .places import Places
from .texts import pack, unpack
from .watch import Look, Watch

PROCESS_NAME = "datastore_fs"
_SPACE_INTERVAL = 60.0  # seconds between two accounts of a datastore's space
_SYNTHETIC_CHUNK = 500

Message = dict[str, Any]


@dataclasses.dataclass(frozen=True)
class Orders:
    """What a worker is to do. poll: seconds between two looks; settle: see watch.Watch; synthetic: number of VMs to
    make up instead of looking for them; expected: names of the datastores that are known to hold VMs; bell: path of the
    FIFO that says that something has changed, see bell."""
    stores: list[Datastore]
    root: str
    inspect: str
    poll: float
    settle: float
    synthetic: int | None = None
    expected: tuple[str, ...] = ()
    bell: str = ""

    def packed(self) -> bytes:
        return pack(dataclasses.asdict(self)) + b"\n"

    @staticmethod
    def unpacked(line: bytes) -> "Orders":
        fields = unpack(line)
        fields["stores"] = [Datastore(**store) for store in fields["stores"]]
        return Orders(**fields)


def name_process(name: str) -> None:
    """Gives the calling process the name that process lists and job checks show. Main thread only."""
    try:
        pathlib.Path("/proc/self/comm").write_text(name, encoding="ascii")
    except OSError:
        pass  # a machine without /proc has nobody who looks there


class _StoreReport:
    """Tells a datastore's state when it changes, and its space now and then."""

    def __init__(self, store: Datastore) -> None:
        self._store = store
        self._told: Any = None
        self._when = 0.0

    def readable(self) -> list[Message]:
        """It can be read."""
        try:
            space = os.statvfs(self._store.directory)
        except OSError as error:
            return self.unreadable(error)
        if self._told is True and time.monotonic() - self._when < _SPACE_INTERVAL:
            return []
        self._told, self._when = True, time.monotonic()
        return [{"store": self._store.name, "accessible": 1, "capacity": space.f_blocks * space.f_frsize,
                 "free": space.f_bavail * space.f_frsize}]

    def unreadable(self, error: OSError) -> list[Message]:
        """It cannot be read, and why."""
        text = reason(error)
        if self._told == text:
            return []
        self._told = text
        return [{"store": self._store.name, "accessible": 0, "error": text}]


class _StoreWatcher:
    """Turns looks at one datastore into messages."""

    def __init__(self, store: Datastore, watch: Watch) -> None:
        self._store, self._watch = store, watch
        self._report = _StoreReport(store)
        self._look: Look | None = None
        self._is_first = True

    def look(self) -> list[Message]:
        """Looks; tells what is gone and the datastore's state."""
        try:
            self._look = self._watch.look()
        except OSError as error:
            self._look = None
            return self._report.unreadable(error)
        gone = [{"gone": [[self._store.name, path] for path in self._look.gone]}] if self._look.gone else []
        present = [{"present": [self._store.name, self._look.present]}] if self._is_first else []
        return [*self._report.readable(), *present, *gone]

    def read(self) -> Iterator[Message]:
        """Reads what is new and changed."""
        if self._look is None:
            return
        for chunk in self._look.chunks:
            if chunk:
                yield {"vms": chunk}
        if self._is_first:
            self._is_first = False
            yield {"complete": self._store.name}


def _synthetic_messages(count: int, name: str) -> Iterator[Message]:
    yield {"store": name, "accessible": 1, "capacity": count * synthetic.DISKS * synthetic.CAPACITY, "free": 0}
    vms = list(synthetic.inventory(count, name))
    yield {"present": [name, [facts["vmx_path"] for facts in vms]]}
    for start in range(0, count, _SYNTHETIC_CHUNK):
        yield {"vms": vms[start:start + _SYNTHETIC_CHUNK]}
    yield {"complete": name}


def _tell(message: Message) -> None:
    sys.stdout.buffer.write(pack(message) + b"\n")
    sys.stdout.buffer.flush()


def _is_wanted(seconds: float, bell: Bell) -> bool:
    """Waits for the time or the bell; whether the controller is still there."""
    ready, _, _ = select.select([sys.stdin, *bell.descriptors()], [], [], seconds)
    bell.quieten()
    return sys.stdin not in ready


def _watch_all(orders: Orders) -> None:
    volumes = Volumes(orders.stores, Places(pathlib.Path(orders.root)))
    inspector = Inspector(orders.inspect)
    bell = Bell(orders.bell)
    watchers = [_StoreWatcher(store, Watch(store, volumes, inspector, orders.settle, store.name in orders.expected))
                for store in orders.stores]
    while True:
        # First all that is gone: a VM that moved to another datastore then keeps its identity.
        for watcher in watchers:
            for message in watcher.look():
                _tell(message)
        for watcher in watchers:
            for message in watcher.read():
                _tell(message)
        if not _is_wanted(orders.poll, bell):
            return


def _end(*_: Any) -> None:
    raise SystemExit  # which also ends a program that is being waited for


def main() -> int:
    """The worker's whole life."""
    signal.signal(signal.SIGINT, signal.SIG_IGN)  # Ctrl-C is for the controller, which then closes our input
    signal.signal(signal.SIGTERM, _end)
    name_process(PROCESS_NAME)
    orders = Orders.unpacked(sys.stdin.buffer.raw.readline())
    try:
        if orders.synthetic is not None:
            for message in _synthetic_messages(orders.synthetic, orders.stores[0].name):
                _tell(message)
            while _is_wanted(3600, Bell("")):
                pass
        else:
            _watch_all(orders)
    except (BrokenPipeError, SystemExit):
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())  # nothing is left to flush there
    return 0
