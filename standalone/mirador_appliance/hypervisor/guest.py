"""A guest: writes into the disks of a VM as if it ran.

It works in rounds. A round writes some sectors at one place of every disk, all of it between two moments: a snapshot
has a round whole or not at all, on all disks. What a round writes and where follows from the seed, the round and the
disk alone, so that anybody can tell from a copy of the disks which rounds it has, and what it has to be then.

A sector: the magic word, round, disk, place (64 bits each, little-endian), bytes drawn from the seed, and a checksum.
"""

import argparse
import os
import random
import signal
import struct
import threading
import time
import zlib
from collections.abc import Callable, Iterable, Iterator

from ..vmdk import SECTOR
from . import tracking
from .chain import Chain
from .ctk import TrackedChanges
from .locks import Running
from .machine import Machine, Names, PlainNames, no_steps

_MAGIC = b"GUESTSEC"
_HEAD = struct.Struct("<8sQQQ")
_CHECKSUM = struct.Struct("<I")
_MOST_SECTORS = 64  # of a round, for each disk
_UNTOUCHED = 2048  # sectors at the start of a disk that is large enough: partition table, boot loader


def sector(seed: int, number: int, disk: int, place: int) -> bytes:
    """What round `number` (from 1) writes to a sector."""
    data = _HEAD.pack(_MAGIC, number, disk, place)
    data += random.Random(f"{seed} {number} {disk} {place}").randbytes(SECTOR - len(data) - _CHECKSUM.size)
    return data + _CHECKSUM.pack(zlib.crc32(data))


def round_of(data: bytes | memoryview) -> int | None:
    """The round that wrote a sector; None for a sector that no round wrote whole."""
    checked, checksum = data[:-_CHECKSUM.size], data[-_CHECKSUM.size:]
    if data[:len(_MAGIC)] != _MAGIC or _CHECKSUM.unpack(checksum)[0] != zlib.crc32(checked):
        return None
    return _HEAD.unpack_from(data)[1]


def extent_of_round(seed: int, number: int, disk: int, sectors: int) -> tuple[int, int]:
    """Where a round writes on a disk of that many sectors: first one and count."""
    draw = random.Random(f"{seed} {number} {disk}")
    start = _UNTOUCHED if sectors > 2 * _UNTOUCHED else 0
    count = draw.randint(1, min(_MOST_SECTORS, sectors - start))
    return draw.randrange(start, sectors - count + 1), count


def writes(seed: int, number: int, sizes: Iterable[int]) -> Iterator[tuple[int, int, bytes]]:
    """(disk, first sector, data) of a round. sizes: sectors of the disks, in the order of the VM's."""
    for disk, sectors in enumerate(sizes):
        first, count = extent_of_round(seed, number, disk, sectors)
        yield disk, first, b"".join(sector(seed, number, disk, place) for place in range(first, first + count))


class Guest:
    """The running VM. Opens its disks where the configuration says, again whenever that, a head's descriptor or a file
    of tracked changes has been replaced. A context manager: leaving it switches the VM off. OSError, Unreadable."""

    def __init__(self, vmx: str, seed: int, names: Names = PlainNames(), first_round: int = 1) -> None:
        self._machine, self._seed, self.number = Machine(vmx, names, no_steps), seed, first_round - 1
        self._running = Running(self._machine.vmx)
        self._disks: list[Chain] = []
        self._tracked: list[TrackedChanges] = []
        self._watched: dict[str, int] = {}  # open files by path: as long as they are open, no other gets their number

    def __enter__(self) -> "Guest":
        return self

    def __exit__(self, *_: object) -> None:
        self._close()
        self._running.end()

    def _close(self) -> None:
        if self._tracked:  # what a loss of power took back later would be no tracked change
            for disk in self._disks:
                disk.sync()
        for changes in self._tracked:
            changes.switch_off()
        for disk in self._disks:
            disk.close()
        for fd in self._watched.values():
            os.close(fd)
        self._disks, self._tracked, self._watched = [], [], {}

    def _is_current(self) -> bool:
        """Whether all files that tell where the disks are are in place; one that is changed in place is."""
        try:
            return bool(self._watched) and all(os.path.samestat(os.fstat(fd), os.stat(path))
                                               for path, fd in self._watched.items())
        except FileNotFoundError:  # a head that went with its snapshot
            return False

    def _open(self) -> None:
        if self._is_current():
            return
        self._close()
        heads, tracked = self._machine.heads(), tracking.nodes(self._machine)
        for path in [self._machine.vmx, *heads.values()]:
            self._watch(path)
        for node, head in heads.items():
            links = self._machine.chain(head)
            changes = tracking.open_tracked(self._machine, node, links[0]) if node in tracked else None
            self._disks.append(Chain(links, writable=True, changes=changes))
            if changes:
                changes.switch_on()
                self._tracked.append(changes)
                self._watch(tracking.path_of(self._machine, node))

    def _watch(self, path: str) -> None:
        self._watched[path] = os.open(path, os.O_RDONLY | os.O_CLOEXEC)

    def write_round(self) -> int:
        """Writes the next round; returns its number."""
        with self._running.undisturbed():
            self._open()
            number = self.number + 1
            for disk, first, data in writes(self._seed, number, [disk.sectors for disk in self._disks]):
                self._disks[disk].write(first, data)
            self.number = number
            return number


def run(vmx: str, seed: int, go_on: Callable[[], bool], pause: float = 0.001, names: Names = PlainNames(),
        first_round: int = 1) -> int:
    """Writes rounds while go_on() holds, `pause` seconds between two; returns the last one's number."""
    with Guest(vmx, seed, names, first_round) as guest:
        while go_on():
            guest.write_round()
            time.sleep(pause)
        return guest.number


def main() -> None:
    parser = argparse.ArgumentParser(
        description="Writes into the disks of a VM as if it ran, until SIGINT or SIGTERM; prints the last round.")
    parser.add_argument("vmx", help="the VM's configuration file")
    parser.add_argument("--seed", type=int, default=1)
    parser.add_argument("--seconds", type=float, default=float("inf"), help="how long; without end by default")
    parser.add_argument("--pause", type=float, default=0.001, help="seconds between two rounds")
    options = parser.parse_args()
    deadline, ended = time.monotonic() + options.seconds, threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: ended.set())
    print(run(options.vmx, options.seed, lambda: time.monotonic() < deadline and not ended.is_set(), options.pause))


if __name__ == "__main__":
    main()
