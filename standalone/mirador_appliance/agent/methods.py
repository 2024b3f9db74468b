"""What the agent can be asked.

    set_vendor_id    VENDOR
    connect          LOGIN, PASSWORD, SESSION-FILE
    disconnect
    create_snapshot, create_top_snapshot    VM, UUID, SNAPSHOT, QUIESCE
    remove_snapshot  VM, UUID, SNAPSHOT, BLOCKING
    list_snapshot    PATTERN
    df
    stat, ls         DATACENTER, PATH
    mkdir            DATACENTER, PATH, PARENTS
    rm               DATACENTER, PATH
    cp, mv           DATACENTER, PATH, DATACENTER, PATH, OVERWRITE

A VM is found by its uuid. Removing what is not there is success with the count 0. A pattern is a regular expression
that a name must match from its start. QUIESCE, BLOCKING, PARENTS and OVERWRITE are "1" or "0". Paths are those of
datastore_paths, files those of file_entries; an empty DATACENTER is any.
"""

import contextlib
import dataclasses
import errno
import re
import sys
import time
from collections.abc import Callable, Iterator
from typing import Any, Protocol

from .. import bell
from ..hypervisor import snapshots
from ..hypervisor.machine import Refused
from . import following, removal
from .faults import Rule
from .file_operations import Files
from .framing import AgentError, Request
from .machines import Home, Machine
from .session import Session

Answer = tuple[str, Any]  # name of the kind of data, the data
_NO_RULE = Rule()


@dataclasses.dataclass(frozen=True)
class Subject:
    """What a request is about; "" for what it does not name. Never holds a password."""
    method: str
    vm: str = ""
    uuid: str = ""
    snapshot: str = ""
    path: str = ""
    to: str = ""

    @property
    def names(self) -> tuple[str, ...]:
        return tuple(filter(None, (self.vm, self.uuid)))

    def shown(self) -> dict[str, str]:
        """The members that say something."""
        return {key: value for key, value in dataclasses.asdict(self).items() if value}


_OF_VM = ("create_snapshot", "create_top_snapshot", "remove_snapshot")
_OF_FILES = ("stat", "ls", "mkdir", "rm", "cp", "mv")


def subject_of(request: Request) -> Subject:
    method, *rest = request
    if method in _OF_FILES:
        return Subject(method, path="".join(rest[1:2]), to="".join(rest[3:4]))
    return Subject(method, *rest[:3]) if method in _OF_VM else Subject(method)


class Watcher(Protocol):
    """Told what happens inside an operation."""

    def step(self, name: str) -> None:
        """A step is done."""

    def moment(self, disks: list[snapshots.Moment]) -> None:
        """What the disks held when the snapshot was made."""


class Methods:
    """Carries requests out."""

    def __init__(self, home: Home, session: Session) -> None:
        self._home, self._session = home, session
        self._known: dict[str, tuple[int, Callable[..., Answer]]] = {
            "set_vendor_id": (1, self._set_vendor_id),
            "connect": (3, self._connect),
            "disconnect": (0, self._disconnect),
            "create_snapshot": (4, self._create),
            "create_top_snapshot": (4, self._create_top),
            "remove_snapshot": (4, self._remove),
            "list_snapshot": (1, self._list),
            "df": (0, self._df),
            "stat": (2, self._stat),
            "ls": (2, self._ls),
            "mkdir": (3, self._mkdir),
            "rm": (2, self._rm),
            "cp": (5, self._cp),
            "mv": (5, self._mv),
        }

    def call(self, request: Request, rule: Rule | None, watcher: Watcher) -> Answer:
        """Does what was asked. rule: the fault to act on. AgentError, OSError."""
        self._rule, self._watcher = rule or _NO_RULE, watcher
        method, *arguments = request
        if method not in self._known:
            raise AgentError(errno.ENOSYS, f"{method}: no such method")
        count, run = self._known[method]
        if len(arguments) != count:
            raise AgentError(errno.EINVAL, f"{method}: {len(arguments)} arguments instead of {count}")
        try:
            return run(*arguments)
        except Refused as refused:
            raise AgentError(refused.number, refused.text).with_traceback(refused.__traceback__) from None

    def _set_vendor_id(self, vendor: str) -> Answer:
        self._session.vendor = vendor
        return "void", None

    def _connect(self, login: str, password: str, path: str) -> Answer:
        with self._home.machines() as machines:
            self._session.connect(machines, login, password, path)
        return "void", None

    def _disconnect(self) -> Answer:
        self._session.disconnect()
        return "void", None

    def _machine(self, name: str, uuid: str) -> Machine:
        self._session.check()
        with self._home.machines() as machines:
            return machines.find(self._session.hypervisor, name, uuid)

    def _create(self, vm: str, uuid: str, name: str, quiesce: str) -> Answer:
        machine = self._machine(vm, uuid)
        if not name:
            raise AgentError(errno.EINVAL, "a snapshot without a name")
        try:
            snapshots.create(machine.vmx, name, quiesce == "1", time.time(), names=machine.names,
                             steps=self._watcher.step, moment=self._watcher.moment if self._rule.moment else None)
        finally:
            bell.ring(self._home.state)
        following.wait(self._home, machine)
        return "void", None

    def _create_top(self, vm: str, uuid: str, name: str, quiesce: str) -> Answer:
        """One more snapshot below the one that follows: none, since a chain needs no such thing here."""
        if not self._rule.top:
            self._machine(vm, uuid)
            return "int", 0
        self._create(vm, uuid, name, quiesce)
        return "int", 1

    def _remove(self, vm: str, uuid: str, name: str, blocking: str) -> Answer:
        machine = self._machine(vm, uuid)
        if blocking == "1":
            count = removal.remove(self._home.state, machine, name, self._watcher.step)
            if count:
                following.wait(self._home, machine)
            return "int", count
        return "int", removal.remove_behind(self._home.state, machine, name, self._watcher.step)

    def _list(self, pattern: str) -> Answer:
        self._session.check()
        try:
            wanted = re.compile(pattern)
        except re.error as error:
            raise AgentError(errno.EINVAL, f"{pattern}: no regular expression: {error}") from None
        with self._home.machines() as machines:
            known = list(machines.of_hypervisor(self._session.hypervisor))
        for machine in known:  # a daemon lists when it starts and once an hour: the time to tidy up after the dead
            removal.tidy_up(self._home.state, machine)
        return "list", [entry for machine in known for entry in _entries(machine, wanted)]

    def _df(self) -> Answer:
        self._session.check()
        with self._home.machines() as machines:
            found = list(machines.spaces(self._session.hypervisor))
        if self._rule.free is not None:
            found = [{**store, "freeSpace": self._rule.free} for store in found]
        return "list", found

    def _files(self) -> Files:
        self._session.check()
        return Files(self._home, self._session.hypervisor, self._watcher.step)

    @contextlib.contextmanager
    def _changing_files(self) -> Iterator[Files]:
        """The watching process looks when it is done."""
        try:
            yield self._files()
        finally:
            bell.ring(self._home.state)

    def _stat(self, datacenter: str, path: str) -> Answer:
        files = self._files()
        return "file", files.stat(files.path(datacenter, path))

    def _ls(self, datacenter: str, path: str) -> Answer:
        files = self._files()
        return "list", files.ls(files.path(datacenter, path))

    def _mkdir(self, datacenter: str, path: str, with_parents: str) -> Answer:
        with self._changing_files() as files:
            files.mkdir(files.path(datacenter, path), with_parents == "1")
        return "void", None

    def _rm(self, datacenter: str, path: str) -> Answer:
        with self._changing_files() as files:
            files.rm(files.path(datacenter, path))
        return "void", None

    def _cp(self, datacenter: str, path: str, other_datacenter: str, other: str, overwrite: str) -> Answer:
        with self._changing_files() as files:
            files.cp(files.path(datacenter, path), files.path(other_datacenter, other), overwrite == "1")
        return "void", None

    def _mv(self, datacenter: str, path: str, other_datacenter: str, other: str, overwrite: str) -> Answer:
        with self._changing_files() as files:
            files.mv(files.path(datacenter, path), files.path(other_datacenter, other), overwrite == "1")
        return "void", None


def _entries(machine: Machine, wanted: re.Pattern[str]) -> list[dict[str, Any]]:
    """The snapshots of a VM whose names match. One that cannot be read says so; the others are listed."""
    try:
        found = snapshots.list(machine.vmx, names=machine.names)
    except (OSError, Refused) as error:
        print(f"{machine.vmx}: {error}", file=sys.stderr)
        return []
    return [{"name": snapshot.name, "vmname": machine.name, "vmuuid": machine.uuid,
             "createTime": int(snapshot.created), "quiesced": int(snapshot.quiesced)}
            for snapshot in found if wanted.match(snapshot.name)]
