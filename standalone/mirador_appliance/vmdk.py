"""Disk descriptors and the chains they form.

A descriptor is a text file, or stands inside a sparse extent that is its own descriptor. Paths are local ones; a
`Locate` turns a name as it stands in a descriptor into a local path.
"""

import dataclasses
import os
import re
import struct
from collections.abc import Callable

from .files import open_regular
from .texts import to_text

SECTOR = 512
MAX_CHAIN = 255  # descriptors
_MAX_TEXT = 1 << 20  # bytes of a descriptor
_SPARSE_MAGIC = b"KDMV"
_COW_MAGIC = b"COWD"
_SPARSE_DESCRIPTOR = struct.Struct("<28xQQ")  # behind the magic word and five fields: first sector, sectors

_EXTENT = re.compile(r'(?:RW|RDONLY|NOACCESS)\s+(\d{1,18})\s+(\w+)(?:\s+"([^"]*)"(?:\s+(\d{1,18}))?)?', re.IGNORECASE)
_PAIR = re.compile(r'([\w.]+)\s*=\s*(?:"([^"]*)"|(\S*))')

FLAT_KINDS = ("FLAT", "VMFS")
CHAIN_KINDS = (*FLAT_KINDS, "SPARSE", "VMFSSPARSE")

# (name in a descriptor, directory of the descriptor) -> local path; Unreadable for a name that leads nowhere.
Locate = Callable[[str, str], str]


class Unreadable(Exception):
    """What is wrong with a disk, for people."""


@dataclasses.dataclass(frozen=True)
class Extent:
    sectors: int
    kind: str  # upper case
    name: str | None  # as written; None for an extent without a file
    offset: int  # sectors, into the file


@dataclasses.dataclass(frozen=True)
class Descriptor:
    path: str
    extents: tuple[Extent, ...]
    keys: dict[str, str]  # lower-case name -> value

    @property
    def parent_hint(self) -> str | None:
        """The parent's name, when there is a parent."""
        if self.keys.get("parentcid", "ffffffff").lower() in ("ffffffff", ""):
            return None
        return self.keys.get("parentfilenamehint") or None

    @property
    def is_thin(self) -> bool:
        return self.keys.get("ddb.thinprovisioned", "0") == "1"


@dataclasses.dataclass(frozen=True)
class Link:
    """One file of a chain: a descriptor and the local paths of its extents."""
    descriptor: Descriptor
    extent_paths: tuple[str, ...]


def _embedded(file, head: bytes) -> bytes:
    if len(head) < _SPARSE_DESCRIPTOR.size + 4:
        raise Unreadable("a sparse extent cut short")
    first, sectors = _SPARSE_DESCRIPTOR.unpack_from(head, 0)
    if first == 0 or sectors == 0:
        raise Unreadable("a sparse extent without a descriptor")
    file.seek(min(first, 1 << 40) * SECTOR)
    return file.read(min(sectors * SECTOR, _MAX_TEXT)).split(b"\0", 1)[0]


def read_text(path: str) -> str:
    """A descriptor's text. Unreadable, OSError."""
    with open_regular(path) as file:
        head = file.read(_MAX_TEXT + 1)
        if head.startswith(_SPARSE_MAGIC):
            return to_text(_embedded(file, head))
    if head.startswith(_COW_MAGIC):
        raise Unreadable("an extent, not a descriptor")
    if len(head) > _MAX_TEXT:
        raise Unreadable("longer than a descriptor can be")
    return to_text(head.split(b"\0", 1)[0])


def parse(path: str, text: str) -> Descriptor:
    """The descriptor that a text holds. Unreadable when it names no extent."""
    extents: list[Extent] = []
    keys: dict[str, str] = {}
    for line in text.splitlines():
        line = line.strip()
        if match := _EXTENT.match(line):
            sectors, kind, name, offset = match.groups()
            extents.append(Extent(int(sectors), kind.upper(), name, int(offset or 0)))
        elif not line.startswith("#") and (match := _PAIR.match(line)):
            keys[match[1].lower()] = match[2] if match[2] is not None else match[3]
    if not extents:
        raise Unreadable("no descriptor: it names no extent")
    return Descriptor(path, tuple(extents), keys)


def read_link(path: str, locate: Locate) -> Link:
    """A descriptor with its extents' places. Unreadable."""
    try:
        descriptor = parse(path, read_text(path))
    except OSError as error:
        raise Unreadable(f"cannot be read: {error.strerror}") from error
    directory = os.path.dirname(path)
    return Link(descriptor, tuple(locate(extent.name, directory) for extent in descriptor.extents if extent.name))


def read_chain(head: str, locate: Locate, seen: list[str] | None = None) -> list[Link]:
    """The chain from its head to its base. seen: receives the local path of every file that was looked at, also when
    the chain turns out unreadable. Unreadable, with the name of the descriptor at fault."""
    chain: list[Link] = []
    visited: set[str] = set()
    path: str | None = head
    while path is not None:
        if path in visited or len(chain) == MAX_CHAIN:
            raise Unreadable(f"{os.path.basename(path)}: its chain of parents has no end")
        visited.add(path)
        if seen is not None:
            seen.append(path)
        try:
            link = read_link(path, locate)
            hint = link.descriptor.parent_hint
            parent = locate(hint, os.path.dirname(path)) if hint else None
        except Unreadable as fault:
            raise Unreadable(f"{os.path.basename(path)}: {fault}") from None
        if seen is not None:
            seen.extend(link.extent_paths)
        chain.append(link)
        path = parent
    return chain


def check_exportable(chain: list[Link]) -> None:
    """Whether the chain's disk can be exported as one flat file of its size. Unreadable tells why not."""
    for link in chain:
        for extent in link.descriptor.extents:
            if extent.kind not in CHAIN_KINDS:
                raise Unreadable(f"{os.path.basename(link.descriptor.path)}: extents of type {extent.kind} "
                                 "cannot be read")
        for path in link.extent_paths:
            if not os.path.isfile(path):
                raise Unreadable(f"{os.path.basename(path)}: the extent is missing")
    _check_base(chain[-1])


def _check_base(base: Link) -> None:
    name = os.path.basename(base.descriptor.path)
    if len(base.descriptor.extents) != 1:
        raise Unreadable(f"{name}: the base disk is split into {len(base.descriptor.extents)} extents; "
                         "only one flat file can be exported")
    extent = base.descriptor.extents[0]
    if extent.kind not in FLAT_KINDS or not base.extent_paths or extent.offset != 0:
        raise Unreadable(f"{name}: the base disk is of type {extent.kind}; only one flat file can be exported")
    size = os.stat(base.extent_paths[0]).st_size
    if size != extent.sectors * SECTOR:
        raise Unreadable(f"{name}: its flat file has {size} bytes instead of {extent.sectors * SECTOR}")
