"""Makes, lists and removes snapshots of a VM.

Every function takes the local path of the VM's configuration file. Keyword arguments that they share:

    names   finds files by the names that the VM's files give them, and names them; Volumes is one. By default absolute
            names are local paths.
    steps   called with the name of each step as soon as it is done; tests make it fail or die.

Errors are Refused: a system error number and a text for people.
"""

import dataclasses
from collections.abc import Callable

from .machine import Names, PlainNames, Refused, Steps, no_steps

__all__ = ["Moment", "Disk", "Refused", "Snapshot", "consolidate", "create", "frozen", "list", "moment",
           "needs_consolidation", "remove"]


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


def create(vmx_path: str, name: str, quiesce: bool, now: float, *, names: Names = PlainNames(),
           steps: Steps = no_steps, moment: Callable[[list[Moment]], None] | None = None) -> None:
    """Makes a snapshot: every disk that is not independent gets a delta, all at one moment. now: its creation time,
    seconds since the epoch. moment: is given the disks' contents at that moment while the VM stands still, which takes
    as long as reading them. Refused: 114 while another task works on the VM; 16 while a consolidation is needed."""
    raise NotImplementedError


def remove(vmx_path: str, name: str, *, names: Names = PlainNames(), steps: Steps = no_steps,
           merging: bool = True) -> int:
    """Removes every snapshot of that name; returns how many. What an earlier removal left is finished first, also when
    there is no such snapshot. merging: False leaves the data where it is; consolidate() is then needed. Refused: 114
    while another task works on the VM."""
    raise NotImplementedError


def consolidate(vmx_path: str, *, names: Names = PlainNames(), steps: Steps = no_steps) -> None:
    """Finishes what remove() left to do. Refused as there."""
    raise NotImplementedError


def list(vmx_path: str, *, names: Names = PlainNames(), steps: Steps = no_steps) -> "list[Snapshot]":
    """The VM's snapshots, everybody's, in the order of their database."""
    raise NotImplementedError


def frozen(vmx_path: str, ours: Callable[[str], bool] | str, *, names: Names = PlainNames()) -> "list[Disk]":
    """The VM's disks with what a backup has to read of each: what the newest snapshot froze whose name begins with
    `ours` or satisfies it; the head when none did. Changes nothing."""
    raise NotImplementedError


def needs_consolidation(vmx_path: str) -> bool:
    """Whether deltas of removed snapshots are still to be merged. Changes nothing."""
    raise NotImplementedError


def moment(vmx_path: str, *, names: Names = PlainNames()) -> "list[Moment]":
    """The contents of all disks, independent ones too, at one moment; the VM stands still meanwhile."""
    raise NotImplementedError
