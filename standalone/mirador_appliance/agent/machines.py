"""The VMs and hypervisors as the controller knows them, read from the appliance's database.

The database outlives the controller: snapshots can be removed while it is stopped.
"""

import dataclasses
import errno
import os
import pathlib
from collections.abc import Iterable, Iterator
from typing import Any

from .. import choices
from ..datastores import Datastore, Volumes
from ..facts import Facts
from ..faults_told import Refused
from ..places import Places
from ..records import LOGIN_NAME, Vm, datastore_document
from ..store import Store
from ..texts import to_bytes, unpack
from .datastore_paths import FileStore
from .framing import AgentError


@dataclasses.dataclass(frozen=True)
class Machine:
    """A VM. vmx: its configuration file's local path; names: finds the files that it names."""
    uuid: str
    name: str
    hypervisor: str
    vmx: str
    names: Volumes


@dataclasses.dataclass(frozen=True)
class Home:
    """Where an appliance is. state: directory of its database; root: stands before every fixed path."""
    state: pathlib.Path
    root: pathlib.Path

    def machines(self) -> "Machines":
        """A look at the database; use it in a `with` statement. AgentError when it cannot be read."""
        try:
            return Machines(Store(self.state / "appliance.db", create=False), Places(self.root))
        except Refused as refused:
            raise AgentError(errno.EIO, str(refused)) from None


class Machines:
    """What the database says. settings: the registry's. Closes the store with itself."""

    def __init__(self, store: Store, places: Places) -> None:
        self._store = store
        self.settings = choices.current_settings(store)
        self._stores = store.datastores()
        self.names = Volumes([Datastore(name, record.get("hypervisor"), record["directory"])
                              for name, record in self._stores.items()], places)

    def __enter__(self) -> "Machines":
        return self

    def __exit__(self, *_: Any) -> None:
        self._store.close()

    def _hypervisor(self, datastore: str) -> str:
        return self._stores.get(datastore, {}).get("hypervisor") or self.settings["hypervisor.name"]

    def hypervisors(self) -> set[str]:
        return {self._hypervisor(name) for name in self._stores}

    def login(self) -> tuple[str, str]:
        """Name and password that the controller hands out for every hypervisor."""
        return LOGIN_NAME, self._store.meta("password")

    def all(self) -> list[Machine]:
        return list(self._all())

    def meant(self, word: str) -> Machine:
        """The VM that a person means. Refused."""
        uuid = choices.find_vm([Vm(*vm) for vm in self._store.vms()], word).uuid
        return next(machine for machine in self._all() if machine.uuid == uuid)

    def of_hypervisor(self, hypervisor: str) -> Iterator[Machine]:
        for machine in self._all():
            if machine.hypervisor == hypervisor:
                yield machine

    def _all(self) -> Iterator[Machine]:
        return self._of((uuid, facts) for uuid, _, facts in self._store.vms())

    def _of(self, vms: Iterable[tuple[str, Facts]]) -> Iterator[Machine]:
        for uuid, facts in vms:
            store = self._stores.get(facts["datastore"])
            if store is not None:
                yield Machine(uuid, facts["name"], self._hypervisor(facts["datastore"]),
                              os.path.join(store["directory"], facts["vmx_path"]), self.names)

    def find(self, hypervisor: str, name: str, uuid: str) -> Machine:
        """The VM of a uuid, whatever it is called by now; without a uuid, the only one of that name. AgentError."""
        candidates = self._of((uuid, facts) for facts in self._store.facts_of(uuid)) if uuid else self._all()
        found = [machine for machine in candidates
                 if machine.hypervisor == hypervisor and (uuid or machine.name == name)]
        if len(found) != 1:
            what = f"{name} ({uuid})" if uuid else f"{len(found)} virtual machines named {name}"
            raise AgentError(errno.EINVAL, f"no such virtual machine on {hypervisor}: {what}")
        return found[0]

    def snapshots_known(self, uuid: str) -> list[str]:
        """The names of a VM's snapshots as the controller knows them."""
        return [name for facts in self._store.facts_of(uuid) for name in facts["snapshots"]]

    def generation(self) -> str:
        """The controller's newest."""
        return self._store.meta("generation")

    def is_followed(self) -> bool:
        """Whether a daemon has taken over a generation of the controller's present run."""
        return _start(self._store.meta("taken_over")) == _start(self.generation()) != ""

    def has_taken_over(self, token: str) -> bool:
        """Whether the daemon has taken over a generation or a later one of its run."""
        taken = self._store.meta("taken_over")
        return _start(taken) != _start(token) or _number(taken) >= _number(token)

    def spaces(self, hypervisor: str) -> Iterator[dict[str, Any]]:
        """The hypervisor's datastores with their space as it is now, in bytes."""
        for name, record in self._stores.items():
            if self._hypervisor(name) != hypervisor:
                continue
            try:
                space = os.statvfs(record["directory"])
                capacity, free, readable = space.f_blocks * space.f_frsize, space.f_bavail * space.f_frsize, 1
            except OSError:
                capacity, free, readable = 0, 0, 0
            told = {**record, "capacity": capacity, "free": free, "accessible": readable}
            document = datastore_document(name, hypervisor, told)
            yield {**{key: document[key] for key in ("name", "url", "type", "timestamp", "accessible", "capacity")},
                   "hv": hypervisor, "dc": document["datacenter"], "freeSpace": document["free"],
                   "paths": unpack(to_bytes(document["path"]))}

    def stores(self, hypervisor: str) -> list[FileStore]:
        """The hypervisor's datastores as places of files."""
        return [FileStore(name, datastore_document(name, hypervisor, record)["datacenter"], record["directory"])
                for name, record in self._stores.items() if self._hypervisor(name) == hypervisor]


def _start(token: str) -> str:
    return token.partition("-")[0]


def _number(token: str) -> int:
    return int(token.partition("-")[2] or 0)
