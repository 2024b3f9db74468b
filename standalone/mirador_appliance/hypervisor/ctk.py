"""The file in which a disk's changes are tracked.

Time is cut into periods, numbered from 1; each snapshot ends one. For every block of the disk the file tells in which
period the guest last wrote to it, so whatever changed behind a snapshot that ended period N has a number above N. What
is told may be more than what changed, never less: a block counts as changed before its data is written.

An epoch is a time without a gap in the tracking. It ends when somebody writes who does not track: the disk then has a
content id that the file does not know; when the machine loses its power while the VM runs: the file then knows another
boot; and when the disk shrinks. A new file is then put in place by a rename. When somebody asks for a new epoch, the
file gets another name for it and keeps what it knows, which holds for the snapshots that there are. A change id is
"EPOCH/NUMBER", its number that of the period that a snapshot ended.

All numbers are little-endian. The header has 4096 bytes: magic word, version, sectors of a block, sectors of the disk,
number of the present period, epoch, boot of the machine that a running VM is on (zeros: it was switched off in order),
two content ids (either is the disk's: one is noted before the disk gets it), how many snapshots follow, and for each
its uid and the number of the period that it ended. Behind it, 32 bits for each block; 0: not written in this epoch.
"""

import array
import dataclasses
import errno
import os
import secrets
import struct
import sys
import uuid
from collections.abc import Iterator

from . import durable
from .extents import read_exactly, write_all

BLOCK = 128  # sectors that are tracked together

_MAGIC, _VERSION = b"CHANGES\0", 1
_HEAD = struct.Struct("<8sIIQQ16s16sIII")
_ENTRY = struct.Struct("<QQ")
_HEADER_SIZE = 4096
_NUMBER_AT, _BOOT_AT = 24, 48
_MOST_SNAPSHOTS = 128  # more than a chain has levels
_STAMP = 4  # bytes
_LAST = 0xffffffff
_CHUNK = 1 << 14  # blocks that are looked at together
_SWITCHED_OFF = bytes(16)
_BOOT_FILE = "/proc/sys/kernel/random/boot_id"


def _this_boot() -> bytes:
    with open(_BOOT_FILE, encoding="ascii") as file:
        return uuid.UUID(file.read().strip()).bytes


def _stamps(data: bytes = b"") -> array.array:
    stamps = array.array("I", data)
    if sys.byteorder == "big":
        stamps.byteswap()
    return stamps


def blocks_of(sectors: int) -> int:
    return -(-sectors // BLOCK)


@dataclasses.dataclass
class _Header:
    sectors: int
    number: int
    epoch: bytes
    boot: bytes
    ids: tuple[int, int]
    snapshots: dict[int, int]  # uid -> number

    def data(self) -> bytes:
        head = _HEAD.pack(_MAGIC, _VERSION, BLOCK, self.sectors, self.number, self.epoch, self.boot, *self.ids,
                          len(self.snapshots))
        return (head + b"".join(_ENTRY.pack(*entry) for entry in self.snapshots.items())).ljust(_HEADER_SIZE, b"\0")


def _parsed(data: bytes) -> _Header:
    """OSError, EINVAL for what is no header."""
    magic, version, block, sectors, number, epoch, boot, *ids, count = _HEAD.unpack_from(data)
    if (magic, version, block) != (_MAGIC, _VERSION, BLOCK) or not 0 < number <= _LAST or count > _MOST_SNAPSHOTS:
        raise OSError(errno.EINVAL, "no file of tracked changes")
    entries = (_ENTRY.unpack_from(data, _HEAD.size + index * _ENTRY.size) for index in range(count))
    return _Header(sectors, number, epoch, boot, (ids[0], ids[1]), dict(entries))


def start(path: str, sectors: int, content_id: int) -> None:
    """Begins a new epoch for a disk. OSError."""
    header = _Header(sectors, 1, secrets.token_bytes(16), _SWITCHED_OFF, (content_id, content_id), {})
    fd = os.open(durable.aside(path), os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
    try:
        os.ftruncate(fd, _HEADER_SIZE + blocks_of(sectors) * _STAMP)
        write_all(fd, header.data(), 0)
        os.fsync(fd)
    finally:
        os.close(fd)
    os.rename(durable.aside(path), path)
    durable.sync_directory(os.path.dirname(path))


class TrackedChanges:
    """An open file. Only who keeps the VM standing still, and the VM itself while it does not, may change it. A context
    manager."""

    def __init__(self, path: str, writable: bool = True) -> None:
        """OSError, EINVAL for another kind of file."""
        self._fd = os.open(path, (os.O_RDWR if writable else os.O_RDONLY) | os.O_CLOEXEC)
        try:
            header = self._header()
            if os.fstat(self._fd).st_size < _HEADER_SIZE + blocks_of(header.sectors) * _STAMP:
                raise OSError(errno.EINVAL, "a file of tracked changes cut short")
        except BaseException:
            os.close(self._fd)
            raise

    def __enter__(self) -> "TrackedChanges":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        os.close(self._fd)

    def _header(self) -> _Header:
        data = bytearray(_HEADER_SIZE)
        read_exactly(self._fd, memoryview(data), 0)
        return _parsed(data)

    def _save(self, header: _Header) -> None:
        write_all(self._fd, header.data(), 0)

    @property
    def epoch(self) -> str:
        """As change ids have it."""
        pairs = self._header().epoch.hex(" ")
        return f"{pairs[:23]}-{pairs[24:]}"

    @property
    def sectors(self) -> int:
        return self._header().sectors

    @property
    def number(self) -> int:
        """Of the present period."""
        return self._header().number

    def number_of(self, snapshot: int) -> int | None:
        """The period that a snapshot ended; None when it was not tracked. snapshot: its uid."""
        return self._header().snapshots.get(snapshot)

    def has_missed_nothing(self, sectors: int, content_id: int) -> bool:
        """Whether all was tracked that was written to a disk which is like that now."""
        header = self._header()
        return (header.sectors <= sectors and content_id in header.ids and header.number < _LAST
                and header.boot in (_SWITCHED_OFF, _this_boot()))

    def grow(self, sectors: int) -> None:
        """What has been added to the disk counts as changed, and what the old end shared a block with."""
        header = self._header()
        if sectors > header.sectors:
            os.ftruncate(self._fd, _HEADER_SIZE + blocks_of(sectors) * _STAMP)
            self.mark(header.sectors, sectors - header.sectors)
            header.sectors = sectors
            self._save(header)

    def begin_epoch(self) -> None:
        """No change id that there is now holds any longer."""
        header = self._header()
        header.epoch = secrets.token_bytes(16)
        self._save(header)
        os.fsync(self._fd)

    def switch_on(self) -> None:
        """The VM is going to write."""
        header = self._header()
        header.boot = _this_boot()
        self._save(header)
        os.fsync(self._fd)

    def switch_off(self) -> None:
        """The VM has written all that it was going to write."""
        os.fsync(self._fd)
        write_all(self._fd, _SWITCHED_OFF, _BOOT_AT)

    def mark(self, first: int, count: int) -> None:
        """Sectors are about to be written."""
        number = bytearray(8)
        read_exactly(self._fd, memoryview(number), _NUMBER_AT)
        block, end = first // BLOCK, blocks_of(first + count)
        write_all(self._fd, number[:_STAMP] * (end - block), _HEADER_SIZE + block * _STAMP)

    def follow(self, old: int, new: int) -> None:
        """A disk with the content id `old` is about to get another one, or another file with another one."""
        header = self._header()
        if old in header.ids:
            header.ids = old, new
            self._save(header)

    def end_period(self, snapshot: int, others: set[int]) -> None:
        """A snapshot is about to be made; on the datastore when it returns. others: the snapshots that there are."""
        header = self._header()
        kept = {uid: number for uid, number in header.snapshots.items() if uid in others}
        header.snapshots = dict([*kept.items()][-_MOST_SNAPSHOTS + 1:]) | {snapshot: header.number}
        header.number += 1
        self._save(header)
        os.fsync(self._fd)

    def blocks_since(self, number: int) -> Iterator[int]:
        """The blocks that were written behind the end of a period, in order."""
        total = blocks_of(self.sectors)
        for first in range(0, total, _CHUNK):
            data = bytearray(min(_CHUNK, total - first) * _STAMP)
            read_exactly(self._fd, memoryview(data), _HEADER_SIZE + first * _STAMP)
            stamps = _stamps(bytes(data))
            if max(stamps) > number:
                yield from (first + index for index, stamp in enumerate(stamps) if stamp > number)
