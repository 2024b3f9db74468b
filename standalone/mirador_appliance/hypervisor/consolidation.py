"""Taking snapshots out, and merging the deltas that nobody needs then.

The steps, each on the datastore before the next:

1. the journal tells which snapshots go and which disks they held
2. the database is written without them; it tells that a consolidation is needed
3. each disk that is held no more takes up the data of the delta above it, which is then removed: merge after merge
4. the database tells that no consolidation is needed
5. the journal goes

A merge of a delta into its parent:

a. the journal tells of it and of the parent's new content id, which parent and delta then get: another delta that was
   made on the parent's old content is not taken for one of its new content
b. the delta's grains are written to the parent. The delta hides what it changes there from all that stands on it
c. what stood on the delta stands on the parent from now on, each by one rename: other deltas, snapshots in the
   database, the VM itself in its configuration
d. the delta's files go

A crash in a, b or c is made up for by doing the merge again: while anything still stands on the delta, nobody writes to
the parent. When nothing does, only d is left.

The VM goes on writing to the delta that is its disk. If that one is to be merged and is large, the VM gets another
delta on top of it first; a small one is merged while the VM stands still.

A disk that is held no more and on which several deltas or none stand is left as it is: the former share it, and whose
data the latter holds cannot be told.
"""

import contextlib
import os
from collections.abc import Iterator

from ..vmdk import SECTOR, Unreadable
from . import deltas, journal, locks, tracking
from .chain import DELTA_KIND, PIECE, Chain, check_links, open_extent, sectors_of
from .cowd import CowdExtent
from .creation import remove_unused
from .descriptors import content_id, fresh_content_id
from .extents import Extent, Run
from .journal import Journal, Merge
from .machine import Family, Machine

_SMALL = 16 << 20  # bytes that are merged while the VM stands still
_ROUNDS = 8  # further deltas that a busy VM gets before it has to stand still for longer


def plan(machine: Machine, name: str) -> Journal | None:
    """The journal for removing all snapshots of that name; None when there is none. Unreadable for disks that could
    not be merged."""
    database = machine.database()
    chosen = [snapshot for snapshot in database.snapshots if snapshot.name == name]
    if not chosen:
        return None
    nodes = sorted({node for snapshot in chosen for _, node, _ in snapshot.disks()})
    _check_presence(machine, nodes)
    for node, head in machine.heads().items():
        if node in nodes:
            check_links(machine.chain(head))
    released = {machine.find(disk): disk for snapshot in chosen for _, _, disk in snapshot.disks()}
    return Journal(journal.REMOVE, uids=[snapshot.uid for snapshot in chosen], nodes=nodes,
                   released=sorted(released.items(), key=lambda item: len(machine.chain(item[0]))),
                   flagged=database.needs_consolidation)


def _check_presence(machine: Machine, nodes: list[str]) -> None:
    """A disk that is not there may stand on one that is to be merged. Unreadable."""
    if missing := machine.family().missing & set(nodes):
        raise Unreadable(f"a file of the disk at {min(missing)} is missing")


def forget(machine: Machine, planned: Journal) -> None:
    """Takes the snapshots out of the database."""
    database = machine.database()
    database.take_out(planned.uids)
    database.needs_consolidation = True
    machine.save_database(database, "database without")


def finish(machine: Machine, planned: Journal) -> None:
    """Does, or does again, all that the journal tells."""
    forget(machine, planned)
    _Merger(machine, planned).run()
    remove_unused(machine, planned)
    database = machine.database()
    database.needs_consolidation = planned.flagged
    machine.save_database(database, "database")
    journal.clear(machine.vmx)
    machine.steps("journal gone")


class _Merger:
    def __init__(self, machine: Machine, planned: Journal) -> None:
        self._machine, self._journal = machine, planned
        self._names = dict(planned.released)

    def _save(self, step: str) -> None:
        journal.save(self._machine.vmx, self._journal)
        self._machine.steps(step)

    def run(self) -> None:
        _check_presence(self._machine, self._journal.nodes)
        if self._journal.merge:
            self._carry_out(self._journal.merge)
        for path, _ in self._journal.released:
            rounds = 0
            while (child := self._only_child(path)) is not None:
                if rounds < _ROUNDS and self._is_large_head(child):
                    self._cover(child)
                    rounds += 1
                else:
                    self._merge(child, path)

    def _only_child(self, path: str) -> str | None:
        """The delta that a disk takes up; None when it stays as it is."""
        family = self._machine.family()
        if path not in family.links or path in family.frozen or path in family.heads.values():
            return None
        children = family.children.get(path, [])
        return children[0] if len(children) == 1 else None

    def _is_large_head(self, path: str) -> bool:
        family = self._machine.family()
        if path not in family.heads.values():
            return False
        with contextlib.closing(self._delta(family, path)) as extent:
            return extent.stored_bytes() > _SMALL

    def _delta(self, family: Family, path: str) -> CowdExtent:
        extent: Extent = open_extent(family.links[path], writable=False)
        if not isinstance(extent, CowdExtent):
            extent.close()
            raise Unreadable(f"{os.path.basename(path)}: its extent is not of type {DELTA_KIND}")
        return extent

    def _cover(self, head: str) -> None:
        """Gives the VM a new delta on top of its disk."""
        descriptor, extent = self._machine.next_delta(head)
        self._journal.files += [descriptor, extent]
        self._save("journal for cover")
        deltas.make_extent(self._machine, head, extent)
        with locks.standing_still(self._machine.vmx):
            deltas.describe(self._machine, head, descriptor, extent)
            tracking.follow(self._machine, head, descriptor)
            self._switch(head, os.path.basename(descriptor))
        self._machine.steps("covered")

    def _switch(self, head: str, name: str) -> None:
        nodes = [node for node, path in self._machine.heads().items() if path == head]
        self._machine.write_configuration(dict.fromkeys(nodes, name), "configuration")

    def _merge(self, child: str, parent: str) -> None:
        family = self._machine.family()
        self._check(family, child, parent)
        parent_cid = content_id(family.links[parent].descriptor)
        self._journal.merge = Merge(child, parent, fresh_content_id(parent_cid))
        self._journal.files += [child, *family.links[child].extent_paths]
        self._save("journal for merge")
        self._carry_out(self._journal.merge)

    def _check(self, family: Family, child: str, parent: str) -> None:
        """Whether the delta may be merged. Unreadable."""
        for path in family.children.get(child, []):
            check_links([family.links[path], family.links[child]])
        check_links([family.links[child], family.links[parent]])
        if sectors_of(family.links[child]) != sectors_of(family.links[parent]):
            raise Unreadable(f"{os.path.basename(child)}: its size is not its parent's")
        self._delta(family, child).close()

    def _carry_out(self, merge: Merge) -> None:
        family = self._machine.family()
        if merge.child in family.links:
            if merge.child in family.heads.values():
                self._merge_head(merge)
            else:
                self._merge_below(merge, family)
        remove_unused(self._machine, self._journal)
        self._journal.files = [path for path in self._journal.files if os.path.lexists(path)]
        self._journal.merge = None
        self._save("merged")

    def _merge_head(self, merge: Merge) -> None:
        with locks.standing_still(self._machine.vmx):
            self._machine.steps("standing still")
            self._move_data(merge)
            tracking.follow(self._machine, merge.child, merge.parent)
            self._switch(merge.child, self._names[merge.parent])
        self._machine.steps("running again")

    def _merge_below(self, merge: Merge, family: Family) -> None:
        self._move_data(merge)
        above = family.children.get(merge.child, [])
        is_running_on = set(above) & set(family.heads.values())
        with locks.standing_still(self._machine.vmx) if is_running_on else contextlib.nullcontext():
            for path in above:
                self._machine.change_descriptor(path, "child", parent_cid=merge.cid, parent=merge.parent)
        if merge.child in family.frozen:
            self._move_snapshots(merge)

    def _move_snapshots(self, merge: Merge) -> None:
        """Snapshots that held the delta hold its parent from now on."""
        database = self._machine.database()
        for snapshot in database.snapshots:
            for key, _, name in snapshot.disks():
                if self._machine.find(name) == merge.child:
                    snapshot.set_text(key, self._names[merge.parent])
        self._machine.save_database(database, "database of merge")

    def _move_data(self, merge: Merge) -> None:
        self._machine.change_descriptor(merge.parent, "parent's id", cid=merge.cid)
        self._machine.change_descriptor(merge.child, "delta's parent id", parent_cid=merge.cid)
        links = self._machine.chain(merge.child)
        with Chain(links[1:], writable=True, has_new_id=True) as target, \
                contextlib.closing(open_extent(links[0], writable=False)) as source:
            if not isinstance(source, CowdExtent):
                raise Unreadable(f"{os.path.basename(merge.child)}: its extent is not of type {DELTA_KIND}")
            for first, data in _stored(source):
                target.write(first, data)
                self._machine.steps("piece")
            target.sync()
        self._machine.steps("data")


def _parts(run: Run) -> Iterator[Run]:
    for offset in range(0, run.count, PIECE):
        yield Run(run.first + offset, min(PIECE, run.count - offset), run.place + offset)


def _stored(source: CowdExtent) -> Iterator[tuple[int, bytearray]]:
    """What an extent stores, as sector and data; what is adjacent on the disk comes together, in pieces."""
    first, data = 0, bytearray()
    for run in source.stored():
        for part in _parts(run):
            if data and (part.first != first + len(data) // SECTOR or len(data) >= PIECE * SECTOR):
                yield first, data
                data = bytearray()
            if not data:
                first = part.first
            read = bytearray(part.count * SECTOR)
            source.read_into(part, memoryview(read))
            data += read
    if data:
        yield first, data
