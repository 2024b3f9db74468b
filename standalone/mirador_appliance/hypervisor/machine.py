"""A VM as it lies on the datastore: its configuration, its snapshot database, its disks and how they hang together."""

import dataclasses
import functools
import os
import re
from collections.abc import Callable
from typing import Protocol

from .. import vmdk
from ..datastores import Elsewhere
from ..texts import to_bytes
from ..vmdk import Link, Unreadable
from . import descriptors, durable
from .database import Database, SnapshotLines
from .vmx import Configuration, ConfiguredDisk, database_path

# Called with the name of a step that is done.
Steps = Callable[[str], None]

_NUMBERED = re.compile(r"(.+?)(?:-\d{6})?\.vmdk", re.IGNORECASE | re.DOTALL)


def no_steps(_: str) -> None:
    """Nothing happens between the steps."""


class Refused(Exception):
    """Something that cannot be done. number: system error number; text: for people."""

    def __init__(self, number: int, text: str) -> None:
        super().__init__(text)
        self.number, self.text = number, text


class Names(Protocol):
    """What files are called. Errors are Elsewhere."""

    def locate(self, name: str, directory: str) -> str:
        """The local path of a name as written in a file that lies in `directory` (local)."""

    def hypervisor_path(self, local: str) -> str:
        """An absolute name of a local path."""


class PlainNames:
    """Absolute names are local paths."""

    def locate(self, name: str, directory: str) -> str:
        return os.path.normpath(os.path.join(directory, name))

    def hypervisor_path(self, local: str) -> str:
        return local


@dataclasses.dataclass
class Family:
    """How the disks of a VM hang together; local paths of descriptors.

    links      those that can be read
    children   by parent
    heads      of the VM, by node
    frozen     those that snapshots hold
    missing    nodes at which a disk is named that is not there
    """
    links: dict[str, Link]
    children: dict[str, list[str]]
    heads: dict[str, str]
    frozen: set[str] = dataclasses.field(default_factory=set)
    missing: set[str] = dataclasses.field(default_factory=set)

    def files(self) -> set[str]:
        """Local paths of all files that belong to the VM's disks."""
        return {path for name, link in self.links.items() for path in (name, *link.extent_paths)}


def _canonical(path: str) -> str:
    """One spelling for each file."""
    directory, name = os.path.split(os.path.abspath(path))
    return os.path.join(os.path.realpath(directory), name)


class Machine:
    """vmx: local path of the configuration file. What it reads it reads anew each time, since the running VM and the
    steps change the files; errors are OSError and Unreadable."""

    def __init__(self, vmx: str, names: Names, steps: Steps) -> None:
        self.vmx, self.steps, self._names = _canonical(vmx), steps, names
        self.directory = os.path.dirname(self.vmx)
        self.database_path = database_path(self.vmx)

    def configuration(self) -> Configuration:
        return Configuration.read(self.vmx)

    def database(self) -> Database:
        return Database.read(self.database_path)

    def replace(self, path: str, data: bytes, step: str) -> None:
        durable.replace(path, data, lambda: self.steps(f"{step} written"))
        self.steps(f"{step} in place")

    def save_database(self, database: Database, step: str) -> None:
        self.replace(self.database_path, database.data(), step)

    def locate(self, name: str, directory: str) -> str:
        """Unreadable for a name that leads nowhere."""
        try:
            return _canonical(self._names.locate(name, directory))
        except Elsewhere as where:
            raise Unreadable(f"{name} {where}") from None

    def working_directory(self) -> str:
        """Where snapshots go; local. One that is not there is as good as none."""
        name = self.configuration().working_directory
        try:
            directory = self.locate(name, self.directory) if name else self.directory
        except Unreadable:
            return self.directory
        return directory if os.path.isdir(directory) else self.directory

    @functools.cached_property
    def _directories(self) -> list[str]:
        """Where names without a directory are looked for; a VM keeps its working directory while it is worked on."""
        return [*dict.fromkeys([self.working_directory(), self.directory])]

    def find(self, name: str) -> str:
        """The local path of a disk as configuration and database name it."""
        candidates = [self.locate(name, directory) for directory in self._directories]
        return next((path for path in candidates if os.path.isfile(path)), candidates[-1])

    def hint_to(self, path: str, child: str) -> str:
        """What the descriptor `child` calls its parent `path`."""
        if os.path.dirname(path) == os.path.dirname(child):
            return os.path.basename(path)
        return self._names.hypervisor_path(path)

    def disks(self) -> list[ConfiguredDisk]:
        return self.configuration().disks()

    def heads(self) -> dict[str, str]:
        """Local paths of the descriptors that the VM uses, by node."""
        return {disk.node: self.find(disk.name) for disk in self.disks()}

    def chain(self, head: str) -> list[Link]:
        return vmdk.read_chain(head, self.locate)

    def frozen_by(self, snapshot: SnapshotLines) -> dict[str, str]:
        """Local paths of the descriptors that a snapshot holds, by node."""
        return {node: self.find(name) for _, node, name in snapshot.disks()}

    def family(self) -> Family:
        """Of a chain that is broken by a missing descriptor, what stands above it."""
        family = Family({}, {}, self.heads())
        for node, path in family.heads.items():
            self._climb(node, path, family)
        for snapshot in self.database().snapshots:
            for node, path in self.frozen_by(snapshot).items():
                family.frozen.add(path)
                self._climb(node, path, family)
        return family

    def _climb(self, node: str, path: str | None, family: Family) -> None:
        while path is not None and path not in family.links:
            if not os.path.exists(path):
                family.missing.add(node)
                return
            link = vmdk.read_link(path, self.locate)
            family.links[path] = link
            hint = link.descriptor.parent_hint
            parent = self.locate(hint, os.path.dirname(path)) if hint else None
            if parent is not None:
                family.children.setdefault(parent, []).append(path)
            path = parent

    def next_delta(self, head: str, taken: set[str] = frozenset()) -> tuple[str, str]:
        """Local paths of descriptor and extent for a new delta of a disk; nothing is there yet, in no directory where
        their names are looked for. taken: paths that are not free either."""
        match = _NUMBERED.fullmatch(os.path.basename(head))
        stem = match[1] if match else os.path.basename(head)
        directories = self._directories
        for number in range(1, 1_000_000):
            names = f"{stem}-{number:06d}.vmdk", f"{stem}-{number:06d}-delta.vmdk"
            paths = [os.path.join(directory, name) for directory in directories for name in names]
            if not any(path in taken or os.path.lexists(path) for path in paths):
                return paths[0], paths[1]
        raise Unreadable(f"{stem}: there is no free number for another delta")

    def write_configuration(self, heads: dict[str, str], step: str) -> None:
        """Gives the VM other disks. heads: names, by node. UnicodeEncodeError."""
        self.replace(self.vmx, self.configuration().with_disks(heads), step)

    def change_descriptor(self, path: str, step: str, *, cid: int | None = None, parent_cid: int | None = None,
                          parent: str | None = None) -> None:
        """parent: local path of the new parent's descriptor."""
        hint = self.hint_to(parent, path) if parent else None
        text = descriptors.changed(descriptors.text_bytes(path), cid, parent_cid, hint)
        self.replace(path, to_bytes(text), step)
