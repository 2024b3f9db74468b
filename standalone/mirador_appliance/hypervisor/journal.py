"""What a task on a VM is about to do, so that the next one can finish or undo it after a crash.

The journal lies beside the configuration file and is there only while a task is unfinished.
"""

import contextlib
import dataclasses
import errno
import os
from typing import Any

from ..texts import pack, unpack
from . import durable

CREATE, REMOVE = "create", "remove"


@dataclasses.dataclass
class Merge:
    """A delta whose data goes into its parent. cid: the parent's new content id. Local paths of descriptors."""
    child: str
    parent: str
    cid: int


@dataclasses.dataclass
class Journal:
    """kind: CREATE or REMOVE.

    record      CREATE: what the database will say of the snapshot, pairs of a key behind "snapshotN." and its value
    heads       CREATE: the VM's next heads, local paths of descriptors by node
    uids        REMOVE: of the snapshots
    nodes       REMOVE: of the disks that they held
    released    REMOVE: [local path, name in the configuration file] of each descriptor that they froze, oldest first
    merge       REMOVE: the merge that is under way
    flagged     REMOVE: the database told before that a consolidation is needed
    files       every file that this task makes or will remove; to be removed at the end unless the VM has it then
    """
    kind: str
    record: list[tuple[str, str]] = dataclasses.field(default_factory=list)
    heads: dict[str, str] = dataclasses.field(default_factory=dict)
    uids: list[int] = dataclasses.field(default_factory=list)
    nodes: list[str] = dataclasses.field(default_factory=list)
    released: list[tuple[str, str]] = dataclasses.field(default_factory=list)
    merge: Merge | None = None
    flagged: bool = False
    files: list[str] = dataclasses.field(default_factory=list)


def path_of(vmx: str) -> str:
    directory, name = os.path.split(vmx)
    return os.path.join(directory, f".{name}.journal")


def load(vmx: str) -> Journal | None:
    """OSError, EINVAL for a journal that cannot be understood."""
    path = path_of(vmx)
    try:
        with open(path, "rb") as file:
            return _journal(unpack(file.read()))
    except FileNotFoundError:
        return None
    except (ValueError, TypeError, KeyError) as error:
        raise OSError(errno.EINVAL, f"{os.path.basename(path)} cannot be understood: {error}") from error


def _journal(value: dict[str, Any]) -> Journal:
    journal = Journal(**value)
    journal.merge = Merge(**value["merge"]) if value["merge"] else None
    journal.released = [(path, name) for path, name in value["released"]]
    journal.record = [(key, text) for key, text in value["record"]]
    return journal


def save(vmx: str, journal: Journal) -> None:
    durable.replace(path_of(vmx), pack(dataclasses.asdict(journal)))


def clear(vmx: str) -> None:
    with contextlib.suppress(FileNotFoundError):
        os.unlink(path_of(vmx))
    durable.sync_directory(os.path.dirname(path_of(vmx)))
