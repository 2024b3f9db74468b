"""Follows one datastore: which VMs are new, changed or gone since the last look."""

import dataclasses
import math
import os
import time
from collections.abc import Iterator

from .busy import is_busy
from .datastores import Datastore, Volumes
from .discovery import Inspector
from .facts import Facts, Stamp, VmxRecord, digest, gather, stamp
from .tree import Tree

_FIRST_CHUNK, _LARGEST_CHUNK = 8, 64  # files read in one go: few at first, so that something is seen at once
_FLAT_SUFFIX = "-flat.vmdk"
_DATA_SUFFIXES = (_FLAT_SUFFIX, "-delta.vmdk", "-sesparse.vmdk")
_RETRY = 60.0  # seconds between two tries to read a VM whose trouble may pass by itself
_FRESH = 3_000_000_000  # ns: a file written this recently may have been written while it was read


@dataclasses.dataclass
class _Seen:
    facts: Facts
    stamps: dict[str, Stamp]
    told: float  # monotonic time at which the facts were handed on
    doubted: bool = False  # looks worse than before; believed when it does so twice
    fresh: bool = False  # to be read once more, since files had just been written
    retry: float = math.inf  # monotonic time at which it is read again, whatever its files look like


@dataclasses.dataclass(frozen=True)
class Look:
    """What a look at the datastore found. Facts of new and changed VMs come in chunks as they are read; `gone` and
    `present` are vmx_paths."""
    chunks: Iterator[list[Facts]]
    gone: list[str]
    present: list[str]


class Watch:
    """One datastore's VMs. settle: seconds between two accounts of a VM of which only data files' times change, as
    those of a running VM always do. is_expected: whether there were VMs when somebody last looked, so that an empty
    directory is one that nothing is mounted on."""

    def __init__(self, store: Datastore, volumes: Volumes, inspector: Inspector, settle: float,
                 is_expected: bool = False) -> None:
        self._store, self._volumes, self._inspector, self._settle = store, volumes, inspector, settle
        self._is_expected = is_expected
        self._tree = Tree(store.directory)
        self._seen: dict[str, _Seen] = {}
        self._root: tuple[int, int] | None = None  # device and inode of the directory that the VMs were found in

    def look(self) -> Look:
        """Looks at the files. OSError when the datastore cannot be read; what is known then stays."""
        status = os.stat(self._store.directory)
        paths = self._tree.find()
        identity = status.st_dev, status.st_ino
        if not paths and self._seen and identity != self._root:
            raise OSError(0, "another, empty directory stands in its place")
        if self._is_expected and not os.listdir(self._store.directory):
            raise OSError(0, "it is empty; is it not mounted?")
        self._root, self._is_expected = identity, False
        present = set(paths)
        gone = [path for path in self._seen if path not in present]
        for path in gone:
            del self._seen[path]
        return Look(self._chunks([path for path in paths if self._is_changed(path)]),
                    [self._store.relative(path) for path in gone], [self._store.relative(path) for path in paths])

    def _is_changed(self, path: str) -> bool:
        seen = self._seen.get(path)
        if seen is None or seen.doubted or seen.fresh or time.monotonic() >= seen.retry:
            return True
        changed = [name for name, old in seen.stamps.items() if stamp(name) != old]
        if not changed:
            return False
        data_only = all(_is_data_change(name, seen.stamps[name]) for name in changed)
        return not data_only or time.monotonic() - seen.told >= self._settle

    def _chunks(self, paths: list[str]) -> Iterator[list[Facts]]:
        size = _FIRST_CHUNK
        while paths:
            chunk, paths = paths[:size], paths[size:]
            facts = (self._read(record) for record in self._inspector.read(chunk))
            yield [found for found in facts if found is not None]
            size = min(2 * size, _LARGEST_CHUNK)

    def _read(self, record: VmxRecord) -> Facts | None:
        """A VM's facts; none when they are the old ones or should be looked at once more before anybody is told."""
        facts, files = gather(record, self._store, self._volumes)
        if is_busy(record.path):
            return None  # half of a snapshot task; what was told stays until it ends
        stamps = {path: stamp(path) for path in files}
        facts["files"] = digest(stamps)
        new = _Seen(facts, stamps, time.monotonic(), fresh=_is_fresh(stamps))
        if record.is_passing:
            new.retry = new.told + _RETRY
        old = self._seen.get(record.path)
        if old is not None and not old.doubted and len(facts["problems"]) > len(old.facts["problems"]):
            old.doubted = True
            return None
        self._seen[record.path] = new
        if old is not None and old.facts == facts:
            new.told = old.told
            return None
        return facts


def _is_fresh(stamps: dict[str, Stamp]) -> bool:
    now = time.time_ns()
    return any(found is not None and abs(now - found[1]) < _FRESH
               for path, found in stamps.items() if not path.endswith(_DATA_SUFFIXES))


def _is_data_change(path: str, old: Stamp) -> bool:
    """Whether nothing but the time of a data file has changed, or a delta has grown, as it does when it is written."""
    new = stamp(path)
    if new is None or old is None or not path.endswith(_DATA_SUFFIXES):
        return False
    return new[0] == old[0] or new[0] > old[0] and not path.endswith(_FLAT_SUFFIX)
