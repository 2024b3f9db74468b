"""What the extents of disks have in common, and the flat ones.

Places and lengths are in sectors of 512 bytes.
"""

import dataclasses
import errno
import os
from collections.abc import Iterator
from typing import Protocol

from ..vmdk import SECTOR


@dataclasses.dataclass(frozen=True)
class Run:
    """Sectors of an extent that lie together: `place` is where in its file; None when they are not there."""
    first: int
    count: int
    place: int | None


class Extent(Protocol):
    """An open extent file."""
    sectors: int
    grain: int  # sectors that are stored together

    def runs(self, first: int, count: int) -> Iterator[Run]:
        """What is known of each sector, in order."""

    def read_into(self, run: Run, buffer: memoryview) -> None:
        """Reads a run that is there."""

    def write(self, first: int, data: memoryview) -> None:
        """Writes whole grains; the last grain of the extent may be cut short."""

    def sync(self) -> None:
        """Waits until all is on the datastore."""

    def close(self) -> None: ...


def read_exactly(fd: int, buffer: memoryview, offset: int) -> None:
    """Fills the buffer from the file. OSError, EIO when the file ends before."""
    while buffer:
        size = os.preadv(fd, [buffer], offset)
        if size == 0:
            raise OSError(errno.EIO, "a disk's file ends early")
        buffer, offset = buffer[size:], offset + size


def write_all(fd: int, data: bytes | memoryview, offset: int) -> None:
    view = memoryview(data)
    while view:
        size = os.pwrite(fd, view, offset)
        view, offset = view[size:], offset + size


class FlatExtent:
    """A file, or a part of one, whose sectors are the disk's. offset: of the first one."""
    grain = 1

    def __init__(self, path: str, sectors: int, offset: int, writable: bool) -> None:
        self.sectors, self._offset = sectors, offset
        self._fd = os.open(path, (os.O_RDWR if writable else os.O_RDONLY) | os.O_CLOEXEC)
        if os.fstat(self._fd).st_size < (offset + sectors) * SECTOR:
            self.close()
            raise OSError(errno.EINVAL, f"{os.path.basename(path)} is shorter than its descriptor tells")

    def runs(self, first: int, count: int) -> Iterator[Run]:
        """Holes are not there: they read as zeros, and nothing lies below a flat extent."""
        end, at = first + count, first
        while at < end:
            data, stop = self._data_after(at, end)
            if data > at:
                yield Run(at, data - at, None)
            if stop > data:
                yield Run(data, stop - data, self._offset + data)
            at = stop

    def _data_after(self, at: int, end: int) -> tuple[int, int]:
        """The next stretch that is no hole; (end, end) when there is none."""
        try:
            data = os.lseek(self._fd, (self._offset + at) * SECTOR, os.SEEK_DATA) // SECTOR - self._offset
            if data >= end:
                return end, end
            stop = -(-os.lseek(self._fd, (self._offset + data) * SECTOR, os.SEEK_HOLE) // SECTOR) - self._offset
        except OSError as error:
            return (end, end) if error.errno == errno.ENXIO else (at, end)
        return max(at, data), min(end, stop)

    def read_into(self, run: Run, buffer: memoryview) -> None:
        read_exactly(self._fd, buffer, run.place * SECTOR)

    def write(self, first: int, data: memoryview) -> None:
        write_all(self._fd, data, (self._offset + first) * SECTOR)

    def sync(self) -> None:
        os.fsync(self._fd)

    def close(self) -> None:
        os.close(self._fd)
