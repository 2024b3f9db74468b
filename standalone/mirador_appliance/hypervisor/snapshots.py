"""Makes, lists and removes snapshots of a VM.

Every function takes the local path of the VM's configuration file. Keyword arguments that they share:

    names   finds files by the names that the VM's files give them, and names them; Volumes is one. By default absolute
            names are local paths.
    steps   called with the name of each step as soon as it is done; tests make it fail or die.

Errors are Refused: a system error number and a text for people.
"""

import builtins
import contextlib
import dataclasses
import errno
import os
from collections.abc import Callable, Iterator

from ..vmdk import Unreadable
from . import consolidation, creation, durable, journal, locks, tracking
from .chain import Chain
from .database import SnapshotLines
from .journal import Journal
from .machine import Machine, Names, PlainNames, Refused, Steps, no_steps

__all__ = ["Changes", "Disk", "Moment", "Refused", "Snapshot", "consolidate", "create", "forget_changes", "frozen",
           "list", "moment", "needs_consolidation", "remove", "track", "tracked"]


@dataclasses.dataclass(frozen=True)
class Snapshot:
    """created: seconds since the epoch; disks: local paths of the descriptors that it froze, by node ("scsi0:0")."""
    name: str
    created: float
    quiesced: bool
    uid: int
    disks: dict[str, str]


@dataclasses.dataclass(frozen=True)
class Disk:
    """A disk of the VM. name: as the configuration file has it; head, frozen: local paths of descriptors, the one that
    the VM writes to and the one that a backup reads."""
    node: str
    name: str
    independent: bool
    head: str
    frozen: str


@dataclasses.dataclass(frozen=True)
class Moment:
    """A disk's whole logical content at one moment. base: local path of its base descriptor."""
    node: str
    base: str
    sha256: str


@dataclasses.dataclass(frozen=True)
class Changes:
    """A disk whose changes are tracked. change_id: what the next snapshot gets; None until something is written or a
    snapshot made; changed: bytes written since the newest snapshot, in whole blocks."""
    node: str
    change_id: str | None
    changed: int


@contextlib.contextmanager
def _told() -> Iterator[None]:
    """Faults of files as Refused."""
    try:
        yield
    except UnicodeError as fault:
        raise Refused(errno.EILSEQ, f"a file name cannot be written: {fault}") from fault
    except Unreadable as fault:
        raise Refused(errno.EINVAL, str(fault)) from fault
    except OSError as fault:
        where = f"{os.path.basename(os.fsdecode(fault.filename))}: " if fault.filename else ""
        raise Refused(fault.errno or errno.EIO, f"{where}{fault.strerror or fault}") from fault


@contextlib.contextmanager
def _task(vmx_path: str, names: Names, steps: Steps,
          patience: float = locks.LOOK) -> Iterator[tuple[Machine, Journal | None]]:
    """Works on the VM alone, once what a crash left of an earlier task's creation is made good; with the journal of a
    removal that is still to be finished."""
    machine = Machine(vmx_path, names, steps)
    with _told(), locks.task(machine.vmx, patience):
        durable.tidy(journal.path_of(machine.vmx))
        locks.tidy(machine.vmx)
        left = journal.load(machine.vmx)
        if left:
            _tidy(machine)
        if left and left.kind == journal.CREATE:
            creation.finish_or_undo(machine, left)
            left = None
        yield machine, left


def _tidy(machine: Machine) -> None:
    """Removes files that were written aside and never put in place."""
    for path in [machine.vmx, machine.database_path, *machine.family().links]:
        durable.tidy(path)


def create(vmx_path: str, name: str, quiesce: bool, now: float, *, names: Names = PlainNames(),
           steps: Steps = no_steps, moment: Callable[["builtins.list[Moment]"], None] | None = None) -> None:
    """Makes a snapshot: every disk that is not independent gets a delta, all at one moment. now: its creation time,
    seconds since the epoch. moment: is given the disks' contents at that moment while the VM stands still, which takes
    as long as reading them. Refused: 114 while another task works on the VM; 16 while a consolidation is needed."""
    with _task(vmx_path, names, steps) as (machine, left):
        if left or machine.database().needs_consolidation:
            raise Refused(errno.EBUSY, "the virtual machine's disks need a consolidation first")
        creation.create(machine, name, quiesce, now, lambda: moment(_moments(machine)) if moment else None)


def remove(vmx_path: str, name: str, *, names: Names = PlainNames(), steps: Steps = no_steps,
           merging: bool = True) -> int:
    """Removes every snapshot of that name; returns how many. What an earlier removal left is finished first, also when
    there is no such snapshot. merging: False leaves the data where it is; consolidate() is then needed. Refused: 114
    while another task works on the VM."""
    with _task(vmx_path, names, steps) as (machine, left):
        if left:
            consolidation.finish(machine, left)
        planned = consolidation.plan(machine, name)
        if planned is None:
            return 0
        journal.save(machine.vmx, planned)
        steps("journal")
        if merging:
            consolidation.finish(machine, planned)
        else:
            consolidation.forget(machine, planned)
        return len(planned.uids)


def consolidate(vmx_path: str, *, names: Names = PlainNames(), steps: Steps = no_steps) -> None:
    """Finishes what remove() left to do. Refused as there."""
    with _task(vmx_path, names, steps) as (machine, left):
        if left:
            consolidation.finish(machine, left)


def _make_good(machine: Machine, names: Names, steps: Steps) -> None:
    """What a crash left is made good but for merging data, unless a task is at work."""
    traces = [locks.task_file(machine.vmx), journal.path_of(machine.vmx), durable.aside(journal.path_of(machine.vmx))]
    if not any(map(os.path.exists, traces)):
        return
    try:
        with _task(machine.vmx, names, steps, patience=0) as (_, left):
            if left:
                consolidation.forget(machine, left)
    except Refused as busy:
        if busy.number != errno.EALREADY:
            raise


def list(vmx_path: str, *, names: Names = PlainNames(), steps: Steps = no_steps) -> "builtins.list[Snapshot]":
    """The VM's snapshots, everybody's, in the order of their database. While another task works on the VM, those that
    the database tells of."""
    machine = Machine(vmx_path, names, steps)
    _make_good(machine, names, steps)
    with _told():
        return [Snapshot(record.name, record.created, record.quiesced, record.uid, machine.frozen_by(record))
                for record in machine.database().snapshots]


def frozen(vmx_path: str, ours: Callable[[str], bool] | str, *, names: Names = PlainNames()) -> "builtins.list[Disk]":
    """The VM's disks with what a backup has to read of each: what the newest snapshot froze whose name begins with
    `ours` or satisfies it; the head when none did. Changes nothing."""
    with _told():
        machine = Machine(vmx_path, names, no_steps)
        matching = (lambda name: name.startswith(ours)) if isinstance(ours, str) else ours
        held = _held(machine, [record for record in machine.database().snapshots if matching(record.name)])
        disks = []
        for disk in machine.disks():
            head = machine.find(disk.name)
            disks.append(Disk(disk.node, disk.name, disk.independent, head, held.get(disk.node, head)))
        return disks


def _held(machine: Machine, records: "builtins.list[SnapshotLines]") -> dict[str, str]:
    """Local paths of the descriptors that the newest of these snapshots froze, by node."""
    newest = max(records, key=lambda record: record.uid, default=None)
    return machine.frozen_by(newest) if newest else {}


def needs_consolidation(vmx_path: str) -> bool:
    """Whether deltas of removed snapshots are still to be merged. Changes nothing."""
    with _told():
        machine = Machine(vmx_path, PlainNames(), no_steps)
        left = journal.load(machine.vmx)
        return machine.database().needs_consolidation or (left is not None and left.kind == journal.REMOVE)


def _moments(machine: Machine) -> "builtins.list[Moment]":
    found = []
    for node, head in machine.heads().items():
        with Chain(machine.chain(head)) as chain:
            found.append(Moment(node, chain.links[-1].descriptor.path, chain.sha256()))
    return found


def moment(vmx_path: str, *, names: Names = PlainNames()) -> "builtins.list[Moment]":
    """The contents of all disks, independent ones too, at one moment; the VM stands still meanwhile."""
    machine = Machine(vmx_path, names, no_steps)
    with _told(), locks.standing_still(machine.vmx):
        return _moments(machine)


def track(vmx_path: str, on: bool, *, names: Names = PlainNames(), steps: Steps = no_steps) -> None:
    """Turns the tracking of changes on or off. No change id that there is now holds any longer. Waits for a task that
    works on the VM, since a merge changes descriptors as well. Refused: 114 when that takes too long."""
    with _task(vmx_path, names, steps, locks.PATIENCE) as (machine, _):
        tracking.switch(machine, on)


def forget_changes(vmx_path: str, *, names: Names = PlainNames()) -> None:
    """Lets tracking begin anew for all disks that are tracked: no change id that there is now holds any longer."""
    machine = Machine(vmx_path, names, no_steps)
    with _told(), locks.standing_still(machine.vmx):
        tracking.reset(machine)


def tracked(vmx_path: str, *, names: Names = PlainNames()) -> "builtins.list[Changes]":
    """The disks whose changes are tracked. Changes nothing."""
    machine = Machine(vmx_path, names, no_steps)
    with _told():
        return [Changes(node, *tracking.now(machine, node)) for node in tracking.nodes(machine)]
