"""Copy-on-write extents, the deltas of a hypervisor's datastore.

A header, a directory of the sectors of grain tables, then tables and grains as they come; each table lists the sectors
of 4096 grains; 0 stands for what is not there. All numbers are 32-bit, little-endian, in sectors.

A writer that dies leaves a good extent: a grain is written before the table names it, a table before the directory
does. The header's number of the first free sector may then be too low; the file's length tells better.
"""

import array
import collections
import dataclasses
import errno
import os
import struct
import sys
from collections.abc import Iterator

from ..vmdk import SECTOR
from .extents import Run, read_exactly, write_all

_HEADER = struct.Struct("<4s7I")  # magic, version, flags, sectors, grain, directory, its entries, free sector
_MAGIC, _VERSION, _FLAGS = b"COWD", 1, 3
_HEADER_SECTORS = 4
_FREE_AT = 28  # byte of the header
_ENTRIES = 4096  # of a table
_ENTRY = 4  # bytes
_TABLE_SECTORS = _ENTRIES * _ENTRY // SECTOR
_MOST_SECTORS = 0xffffffff
_TABLES_KEPT = 1024  # in memory
_MOST_GRAIN = 1 << 16
_STRIDE = 64  # entries that are compared at once
_NO_GRAINS = array.array("I", bytes(_STRIDE * _ENTRY))


@dataclasses.dataclass(frozen=True)
class _Shape:
    sectors: int
    grain: int
    directory: int

    @property
    def tables(self) -> int:
        return -(-self.sectors // (self.grain * _ENTRIES))


def _words(data: bytes = b"") -> array.array:
    words = array.array("I", data)
    if sys.byteorder == "big":
        words.byteswap()
    return words


def _expected(place: int, step: int) -> array.array:
    """What a table has for _STRIDE grains that follow each other in the file; step 0 for grains that are not there."""
    return array.array("I", range(place, place + _STRIDE * step, step)) if step else _NO_GRAINS


def _header(shape: _Shape, free: int) -> bytes:
    return _HEADER.pack(_MAGIC, _VERSION, _FLAGS, shape.sectors, shape.grain, shape.directory, shape.tables,
                        free).ljust(_HEADER_SECTORS * SECTOR, b"\0")


def make_empty(path: str, sectors: int, grain: int) -> None:
    """Writes an extent that holds no grain yet, on the datastore when it returns. OSError, EFBIG for a disk that is too
    large for this kind."""
    if sectors > _MOST_SECTORS:
        raise OSError(errno.EFBIG, "the disk is too large for a delta of this kind")
    shape = _Shape(sectors, grain, _HEADER_SECTORS)
    free = shape.directory + -(-shape.tables * _ENTRY // SECTOR)
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
    try:
        os.ftruncate(fd, free * SECTOR)
        write_all(fd, _header(shape, free), 0)
        os.fsync(fd)
    finally:
        os.close(fd)


class CowdExtent:
    """An open extent. One writer at a time; what another process writes meanwhile may not be seen."""

    def __init__(self, path: str, sectors: int, writable: bool) -> None:
        """sectors: as the descriptor tells. OSError, EINVAL for what is no such extent."""
        self._fd = os.open(path, (os.O_RDWR if writable else os.O_RDONLY) | os.O_CLOEXEC)
        try:
            self._shape, self._free = self._read_header(os.path.basename(path), sectors)
            self._directory = _words(self._read(self._shape.directory, self._shape.tables * _ENTRY))
        except BaseException:
            os.close(self._fd)
            raise
        self.sectors, self.grain = sectors, self._shape.grain
        self._tables: collections.OrderedDict[int, array.array] = collections.OrderedDict()

    def _read_header(self, name: str, sectors: int) -> tuple[_Shape, int]:
        if os.fstat(self._fd).st_size < _HEADER_SECTORS * SECTOR:
            raise OSError(errno.EINVAL, f"{name} is shorter than its header")
        fields = _HEADER.unpack(self._read(0, _HEADER.size))
        magic, version, flags, capacity, grain, directory, tables, free = fields
        if (magic, version, flags) != (_MAGIC, _VERSION, _FLAGS):
            raise OSError(errno.EINVAL, f"{name} is no copy-on-write extent")
        shape = _Shape(capacity, grain, directory)
        if not 0 < grain <= _MOST_GRAIN or capacity < sectors or not directory or tables < shape.tables:
            raise OSError(errno.EINVAL, f"{name} has a header that is not right")
        size = os.fstat(self._fd).st_size
        return shape, max(free, -(-size // SECTOR))

    def _read(self, sector: int, size: int) -> bytes:
        buffer = bytearray(size)
        read_exactly(self._fd, memoryview(buffer), sector * SECTOR)
        return bytes(buffer)

    def _table(self, index: int) -> array.array | None:
        place = self._directory[index]
        if not place:
            return None
        table = self._tables.get(index)
        if table is None:
            table = self._tables[index] = _words(self._read(place, _ENTRIES * _ENTRY))
            if len(self._tables) > _TABLES_KEPT:
                self._tables.popitem(last=False)
        return table

    def runs(self, first: int, count: int) -> Iterator[Run]:
        at, end = first, first + count
        held: Run | None = None  # the next one to tell, which what follows may prolong
        while at < end:
            run = self._run_at(at, end)
            if held and _follows(held, run):
                held = Run(held.first, held.count + run.count, held.place)
            else:
                if held:
                    yield held
                held = run
            at += run.count
        if held:
            yield held

    def _run_at(self, at: int, end: int) -> Run:
        """The longest run from `at` on within one table."""
        index, entry = divmod(at // self.grain, _ENTRIES)
        end = min(end, (index + 1) * _ENTRIES * self.grain)
        table = self._table(index)
        if table is None:
            return Run(at, end - at, None)
        last = -(-end // self.grain) - index * _ENTRIES  # the entry behind the last
        place, step = table[entry], self.grain if table[entry] else 0
        following = entry + 1
        while following + _STRIDE <= last and place + (following - entry + _STRIDE) * step <= _MOST_SECTORS and \
                table[following:following + _STRIDE] == _expected(place + (following - entry) * step, step):
            following += _STRIDE
        while following < last and table[following] == place + (following - entry) * step:
            following += 1
        stop = min(end, (index * _ENTRIES + following) * self.grain)
        return Run(at, stop - at, place + at % self.grain if place else None)

    def read_into(self, run: Run, buffer: memoryview) -> None:
        read_exactly(self._fd, buffer, run.place * SECTOR)

    def stored(self) -> Iterator[Run]:
        """The runs that are there, in order."""
        return (run for run in self.runs(0, self.sectors) if run.place is not None)

    def stored_bytes(self) -> int:
        tables = (self._table(index) for index in range(self._shape.tables))
        grains = sum(_ENTRIES - table.count(0) for table in tables if table is not None)
        return grains * self.grain * SECTOR

    def write(self, first: int, data: memoryview) -> None:
        at, end = first, first + len(data) // SECTOR
        while at < end:
            run = self._run_at(at, end)
            part = data[(at - first) * SECTOR:(at - first + run.count) * SECTOR]
            if run.place is None:
                self._add(at, run.count, part)
            else:
                write_all(self._fd, part, run.place * SECTOR)
            at += run.count

    def _add(self, at: int, count: int, data: memoryview) -> None:
        """Stores grains of one table that were not there."""
        index, entry = divmod(at // self.grain, _ENTRIES)
        table = self._table(index)
        if table is None:
            table = self._add_table(index)
        grains = -(-count // self.grain)
        place = self._allocate(grains * self.grain)
        write_all(self._fd, data, place * SECTOR)
        if count % self.grain:  # the disk's end; a grain is stored whole
            os.ftruncate(self._fd, (place + grains * self.grain) * SECTOR)
        places = _words()
        places.extend(range(place, place + grains * self.grain, self.grain))
        table[entry:entry + grains] = places
        self._write_words(table[entry:entry + grains], self._directory[index] * SECTOR + entry * _ENTRY)
        self._write_words(array.array("I", [self._free]), _FREE_AT)

    def _add_table(self, index: int) -> array.array:
        place = self._allocate(_TABLE_SECTORS)
        write_all(self._fd, bytes(_TABLE_SECTORS * SECTOR), place * SECTOR)
        self._directory[index] = place
        self._write_words(self._directory[index:index + 1], self._shape.directory * SECTOR + index * _ENTRY)
        return self._table(index)

    def _allocate(self, sectors: int) -> int:
        place = self._free
        if place + sectors > _MOST_SECTORS:
            raise OSError(errno.EFBIG, "a delta has grown too large")
        self._free += sectors
        return place

    def _write_words(self, words: array.array, offset: int) -> None:
        if sys.byteorder == "big":
            words = words[:]
            words.byteswap()
        write_all(self._fd, words.tobytes(), offset)

    def sync(self) -> None:
        os.fsync(self._fd)

    def close(self) -> None:
        os.close(self._fd)


def _follows(run: Run, later: Run) -> bool:
    if run.place is None or later.place is None:
        return run.place is later.place
    return later.place == run.place + run.count
