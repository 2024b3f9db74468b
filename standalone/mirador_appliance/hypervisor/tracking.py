"""Tracking what guests change on their disks, so that a backup need not read the rest.

A VM's disks are tracked while its configuration has `ctkEnabled = "TRUE"`, but for those with `NODE.ctkEnabled =
"FALSE"` and independent ones, which have no snapshots. The files lie beside the configuration, "NAME-scsi0-0.ctk" for
each disk; see ctk. They are made by whoever first needs them: a guest that begins to write, or a snapshot.

Merging deltas changes nothing that a guest sees and so nothing here, but for the content id of the VM's disk.
"""

import contextlib
import dataclasses
import os
from collections.abc import Iterator

from ..texts import to_bytes
from ..vmdk import SECTOR, Link
from . import ctk, descriptors, durable, locks
from .chain import open_extent, sectors_of
from .ctk import BLOCK, TrackedChanges
from .database import SnapshotLines
from .machine import Machine

MOST_EXTENTS = 100_000  # of a list; of one that would be longer, neighbours are told as one
EVERYTHING = "*"


class NoChangeId(Exception):
    """A snapshot's disk has no change id."""


class ResetNeeded(Exception):
    """What changed since a change id is not known any more, if it ever was."""


@dataclasses.dataclass(frozen=True)
class Extent:
    """A range of a disk, in bytes."""
    start: int
    length: int


def path_of(machine: Machine, node: str) -> str:
    stem = os.path.splitext(os.path.basename(machine.vmx))[0]
    return os.path.join(machine.directory, f"{stem}-{node.replace(':', '-')}.ctk")


def nodes(machine: Machine) -> list[str]:
    """The disks that are tracked."""
    configuration = machine.configuration()
    return [disk.node for disk in configuration.disks() if not disk.independent and configuration.is_tracked(disk.node)]


def open_tracked(machine: Machine, node: str, head: Link) -> TrackedChanges:
    """A disk's file, a new one if anything was missed. While the VM stands still, or for the VM itself. OSError."""
    path, sectors, content_id = path_of(machine, node), sectors_of(head), descriptors.content_id(head.descriptor)
    with contextlib.suppress(OSError):
        changes = TrackedChanges(path)
        if changes.has_missed_nothing(sectors, content_id):
            changes.grow(sectors)
            return changes
        changes.close()
    ctk.start(path, sectors, content_id)
    return TrackedChanges(path)


# What happens to a VM's disks, each called while the VM stands still and before its configuration changes.

def freeze(machine: Machine, record: SnapshotLines, deltas: dict[str, str]) -> None:
    """A snapshot is about to be made. deltas: by node, local paths of the disks that the VM will write to."""
    heads = machine.heads()
    others = {snapshot.uid for snapshot in machine.database().snapshots}
    tracked = [node for node in nodes(machine) if node in deltas]
    for node in tracked:
        with open_tracked(machine, node, machine.chain(heads[node])[0]) as changes:
            changes.end_period(record.uid, others)
    for node in tracked:
        follow(machine, heads[node], deltas[node])
    if tracked:
        machine.steps("changes tracked")


def follow(machine: Machine, old: str, new: str) -> None:
    """The VM is about to write to `new` instead of `old`, which have the same content. Local paths."""
    old_id, new_id = (descriptors.content_id(machine.chain(path)[0].descriptor) for path in (old, new))
    for node, head in machine.heads().items():
        path = path_of(machine, node)
        if head == old and os.path.exists(path):
            with TrackedChanges(path) as changes:
                changes.follow(old_id, new_id)


# Switching

def switch(machine: Machine, on: bool) -> None:
    """Turns tracking on or off for a VM. No change id that there is now holds any longer."""
    with locks.standing_still(machine.vmx):
        machine.replace(machine.vmx, machine.configuration().with_tracking(on), "configuration")
        reset(machine)
        for node, head in machine.heads().items():
            _name_file(machine, node, machine.chain(head)[-1].descriptor.path)


def _name_file(machine: Machine, node: str, base: str) -> None:
    """Lets a disk's base tell whether its changes are tracked."""
    name = machine.hint_to(path_of(machine, node), base) if node in nodes(machine) else None
    old = descriptors.text_bytes(base)
    if (text := descriptors.with_tracking(old, name)) != old:
        machine.replace(base, to_bytes(text), "base descriptor")


def reset(machine: Machine) -> None:
    """Begins a new epoch for each disk that is tracked. While the VM stands still."""
    tracked, heads = nodes(machine), machine.heads()
    for node in heads:
        if node in tracked:
            with open_tracked(machine, node, machine.chain(heads[node])[0]) as changes:
                changes.begin_epoch()
        else:
            durable.remove(path_of(machine, node))


# Asking

def ask(machine: Machine, node: str, snapshot: SnapshotLines, since: str | None) -> tuple[str, list[Extent]]:
    """The change id of a snapshot's disk, and what may differ between that disk and what it was at an earlier change
    id: all of it that stores data since EVERYTHING, nothing since None. NoChangeId, ResetNeeded, Unreadable, OSError."""
    if node not in nodes(machine):
        raise NoChangeId
    try:
        changes = TrackedChanges(path_of(machine, node), writable=False)
    except OSError:
        raise NoChangeId if since in (None, EVERYTHING) else ResetNeeded from None
    with changes:  # one file for both: another may be put in its place
        number = changes.number_of(snapshot.uid)
        earlier = _number_in(since, changes, number) if since not in (None, EVERYTHING) else 0
        if number is None:
            raise NoChangeId
        extents: list[Extent] = []
        if since is not None:
            links = machine.chain(machine.frozen_by(snapshot)[node])
            blocks = _stored_blocks(links) if since == EVERYTHING else changes.blocks_since(earlier)
            extents = _extents(blocks, sectors_of(links[0]) * SECTOR)
        return f"{changes.epoch}/{number}", extents


def _number_in(change_id: str, changes: TrackedChanges, newest: int | None) -> int:
    """The period of an earlier change id. ResetNeeded for one that does not hold."""
    epoch, _, number = change_id.rpartition("/")
    is_number = number.isascii() and number.isdecimal() and len(number) < 20
    if epoch != changes.epoch or not is_number or not 0 < int(number) <= (newest or changes.number):
        raise ResetNeeded
    return int(number)


def now(machine: Machine, node: str) -> tuple[str | None, int]:
    """The change id that the next snapshot of a disk gets, and the bytes written in this period. OSError."""
    try:
        with TrackedChanges(path_of(machine, node), writable=False) as changes:
            written = sum(1 for _ in changes.blocks_since(changes.number - 1))
            return f"{changes.epoch}/{changes.number}", written * BLOCK * SECTOR
    except FileNotFoundError:
        return None, 0


def _stored_blocks(links: list[Link]) -> Iterator[int]:
    """The blocks of which some disk of a chain stores something."""
    stored = bytearray(ctk.blocks_of(sectors_of(links[0])))
    for link in links:
        with contextlib.closing(open_extent(link, writable=False)) as extent:
            for run in extent.runs(0, min(extent.sectors, sectors_of(links[0]))):
                if run.place is not None:
                    first, last = run.first // BLOCK, (run.first + run.count - 1) // BLOCK
                    stored[first:last + 1] = b"\1" * (last + 1 - first)
    return (block for block, is_stored in enumerate(stored) if is_stored)


def _extents(blocks: Iterator[int], end: int) -> list[Extent]:
    """Blocks as extents of a disk of `end` bytes."""
    size = BLOCK * SECTOR
    found: list[list[int]] = []  # first block, and the one behind the last
    for block in blocks:
        if block * size >= end:
            break
        if found and found[-1][1] == block:
            found[-1][1] += 1
        else:
            found.append([block, block + 1])
    return [Extent(first * size, min(stop * size, end) - first * size) for first, stop in bounded(found, MOST_EXTENTS)]


def bounded(ranges: list[list[int]], most: int) -> list[list[int]]:
    """At most so many ranges that hold all of what those hold; what they add is as little as can be."""
    excess = len(ranges) - most
    if excess <= 0:
        return ranges
    gaps = sorted(range(1, len(ranges)), key=lambda index: ranges[index][0] - ranges[index - 1][1])
    joined, kept = set(gaps[:excess]), []
    for index, (first, stop) in enumerate(ranges):
        if index in joined:
            kept[-1][1] = stop
        else:
            kept.append([first, stop])
    return kept
