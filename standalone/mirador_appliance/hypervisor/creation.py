"""Making a snapshot.

The steps, each on the datastore before the next:

1. the journal tells what is going to be made
2. an empty extent for the new delta of each disk
3. while the VM stands still: the deltas' descriptors, the end of a period for disks whose changes are tracked, then the
   configuration with the deltas as the VM's disks. That one rename is what makes the snapshot: of all disks, or of none
4. the database tells of the snapshot
5. the journal goes

After a crash the configuration tells which way to go: with the deltas in it the snapshot is finished, else what was
made of it is removed. The VM may have gone on writing to its disks meanwhile, as the configuration gives them.
"""

import contextlib
import os
from collections.abc import Callable

from ..vmdk import Unreadable
from . import deltas, durable, journal, locks, tracking
from .chain import Chain, check_links
from .database import SnapshotLines, new_snapshot
from .journal import Journal
from .machine import Machine, Refused

_MOST_LEVELS = 32  # disks of a chain that the hypervisor runs


def _check(machine: Machine, head: str) -> None:
    """Whether a disk can have a delta. Refused, Unreadable, OSError."""
    links = machine.chain(head)
    if len(links) >= _MOST_LEVELS:
        raise Refused(22, f"{os.path.basename(head)}: the disk has too many snapshots")
    check_links(links)
    Chain(links).close()


def _plan(machine: Machine, name: str, quiesce: bool, now: float) -> tuple[Journal, dict[str, tuple[str, str, str]]]:
    """The journal, and by node: head, descriptor and extent of the new delta."""
    plan: dict[str, tuple[str, str, str]] = {}
    frozen: list[tuple[str, str]] = []
    taken: set[str] = set()
    for disk in machine.disks():
        if disk.independent:
            continue
        head = machine.find(disk.name)
        _check(machine, head)
        descriptor, extent = machine.next_delta(head, taken)
        taken |= {descriptor, extent}
        plan[disk.node] = head, descriptor, extent
        frozen.append((disk.node, disk.name))
    database = machine.database()
    record = new_snapshot(database.next_uid(), database.current, name, quiesce, now, frozen)
    return Journal(journal.CREATE, record=record.pairs, heads={node: paths[1] for node, paths in plan.items()},
                   files=[path for paths in plan.values() for path in paths[1:]]), plan


def create(machine: Machine, name: str, quiesce: bool, now: float, at_moment: Callable[[], None]) -> None:
    """at_moment: called while the VM stands still, before anything else is done then."""
    planned, plan = _plan(machine, name, quiesce, now)
    journal.save(machine.vmx, planned)
    machine.steps("journal")
    try:
        for head, _, extent in plan.values():
            deltas.make_extent(machine, head, extent)
        with locks.standing_still(machine.vmx):
            machine.steps("standing still")
            at_moment()
            for head, descriptor, extent in plan.values():
                deltas.describe(machine, head, descriptor, extent)
            if plan:
                tracking.freeze(machine, SnapshotLines([*planned.record]), planned.heads)
                machine.write_configuration({node: os.path.basename(path) for node, path in planned.heads.items()},
                                            "configuration")
        machine.steps("running again")
        finish_or_undo(machine, planned)
    except Exception:
        with contextlib.suppress(OSError, Unreadable):
            finish_or_undo(machine, planned)
        raise


def finish_or_undo(machine: Machine, planned: Journal) -> None:
    heads = machine.heads()
    if all(heads.get(node) == path for node, path in planned.heads.items()):
        database = machine.database()
        database.add(SnapshotLines([*planned.record]))
        machine.save_database(database, "database")
    else:
        remove_unused(machine, planned)
    journal.clear(machine.vmx)
    machine.steps("journal gone")


def remove_unused(machine: Machine, planned: Journal) -> None:
    """Removes the journal's files that the VM does not have. A descriptor stands before its extent."""
    used = machine.family().files()
    gone = [path for path in planned.files if path not in used]
    for path in gone:
        durable.remove(path)
        machine.steps("file removed")
    for directory in {os.path.dirname(path) for path in gone}:
        durable.sync_directory(directory)
