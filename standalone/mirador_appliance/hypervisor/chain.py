"""A disk's chain opened: its logical content, read through all deltas, and writing to its head.

Places and lengths are in sectors of 512 bytes. Disks have one extent per descriptor, flat or copy-on-write.
"""

import hashlib
import os
from collections.abc import Iterator
from contextlib import ExitStack

from .. import vmdk
from ..vmdk import SECTOR, Link, Locate, Unreadable
from .cowd import CowdExtent
from .ctk import TrackedChanges
from .descriptors import change_content_id, content_id, parent_content_id
from .extents import Extent, FlatExtent

PIECE = 2048  # sectors that are read and written in one go
DELTA_KIND = "VMFSSPARSE"


def check_links(links: list[Link]) -> None:
    """Whether each disk stands on the content that it was made on. Unreadable."""
    for child, parent in zip(links, links[1:]):
        if parent_content_id(child.descriptor) != content_id(parent.descriptor):
            raise Unreadable(f"{os.path.basename(child.descriptor.path)}: its parent has changed since it was made")


def sectors_of(link: Link) -> int:
    return sum(extent.sectors for extent in link.descriptor.extents)


def open_extent(link: Link, writable: bool) -> Extent:
    """Unreadable, OSError."""
    name = os.path.basename(link.descriptor.path)
    if len(link.descriptor.extents) != 1 or len(link.extent_paths) != 1:
        raise Unreadable(f"{name}: a disk of several extents")
    extent, path = link.descriptor.extents[0], link.extent_paths[0]
    if extent.kind in vmdk.FLAT_KINDS:
        return FlatExtent(path, extent.sectors, extent.offset, writable)
    if extent.kind == DELTA_KIND:
        return CowdExtent(path, extent.sectors, writable)
    raise Unreadable(f"{name}: its extent is of type {extent.kind}")


class Chain:
    """A disk. links: from the head to the base. A writer gives the head a new content id with its first write;
    `has_new_id` says that this has been done. changes: where to note what is written; closed with the disk. A context
    manager."""

    def __init__(self, links: list[Link], writable: bool = False, has_new_id: bool = False,
                 changes: TrackedChanges | None = None) -> None:
        """Unreadable, OSError."""
        self.links, self.sectors = links, sectors_of(links[0])
        self._has_new_id, self._changes = has_new_id, changes
        with ExitStack() as opened:
            if changes:
                opened.callback(changes.close)
            self._extents: list[Extent] = []
            for level, link in enumerate(links):
                self._extents.append(open_extent(link, writable and level == 0))
                opened.callback(self._extents[-1].close)
            self._opened = opened.pop_all()

    @classmethod
    def open(cls, path: str, locate: Locate, writable: bool = False) -> "Chain":
        return cls(vmdk.read_chain(path, locate), writable)

    def __enter__(self) -> "Chain":
        return self

    def __exit__(self, *_: object) -> None:
        self.close()

    def close(self) -> None:
        self._opened.close()

    @property
    def head(self) -> Extent:
        return self._extents[0]

    def read(self, first: int, count: int) -> bytearray:
        """Sectors behind the disk's end are zeros."""
        data = bytearray(count * SECTOR)
        if inside := min(count, self.sectors - first):
            self._fill(0, first, inside, memoryview(data))
        return data

    def _fill(self, level: int, first: int, count: int, buffer: memoryview) -> None:
        """Fills what this level and those below have; the buffer is zeros."""
        extent = self._extents[level]
        known = max(0, min(count, extent.sectors - first))
        for run in extent.runs(first, known):
            part = buffer[(run.first - first) * SECTOR:(run.first - first + run.count) * SECTOR]
            if run.place is not None:
                extent.read_into(run, part)
            elif level + 1 < len(self._extents):
                self._fill(level + 1, run.first, run.count, part)

    def pieces(self) -> Iterator[bytearray]:
        """The whole content, in order."""
        for first in range(0, self.sectors, PIECE):
            yield self.read(first, min(PIECE, self.sectors - first))

    def sha256(self) -> str:
        digest = hashlib.sha256()
        for piece in self.pieces():
            digest.update(piece)
        return digest.hexdigest()

    def write(self, first: int, data: bytes | bytearray | memoryview) -> None:
        """Writes sectors to the head. Grains that are written in part are filled from the disk's content."""
        if first < 0 or first + len(data) // SECTOR > self.sectors or len(data) % SECTOR:
            raise ValueError("what is written must be sectors of the disk")
        if not self._has_new_id:
            path = self.links[0].descriptor.path
            change_content_id(path, *([self._changes.follow] if self._changes else []))
            self._has_new_id = True
        if self._changes:
            self._changes.mark(first, len(data) // SECTOR)
        grain = self.head.grain
        start, end = first // grain * grain, first + len(data) // SECTOR
        stop = min(self.sectors, -(-end // grain) * grain)
        if (start, stop) != (first, end):
            data = bytes(self.read(start, first - start)) + bytes(data) + bytes(self.read(end, stop - end))
        self.head.write(start, memoryview(data))

    def sync(self) -> None:
        self.head.sync()
