"""All of the controller's state behind one lock: what the daemon may ask and post, and what discovery tells.

Documents are kept as the bytes that go out and made anew when something in them changes. Every change that the daemon
should see ends in a new generation. Any thread may call anything.
"""

import dataclasses
import sqlite3
import threading
import time
from collections.abc import Callable, Iterable
from typing import Any

from . import choices, records
from .alerts import AlertBook
from .datastores import Datastore
from .facts import Facts
from .generation import Generation
from .inventory import Inventory, Key
from .records import Vm
from .snapshot_names import owns
from .statistics import StatisticsBook
from .store import Store
from .texts import pack

_QUIET = {"snap_suffix", "error"}  # choices that the daemon made for itself: nothing new to it
_MANY = 10  # VMs of one change that are named one by one

Say = Callable[[str], None]


class Unknown(Exception):
    """Something was asked for or posted that does not exist, in words."""


@dataclasses.dataclass(frozen=True)
class Look:
    """What the controller has at one moment; nobody changes it. places: a VM's directory above its own, by uuid;
    is_current: whether the daemon has taken over the newest generation."""
    vms: list[Vm]
    places: dict[str, str]
    choices: dict[str, dict[str, Any]]
    datastores: dict[str, dict[str, Any]]
    alerts: list[dict[str, Any]]
    settings: dict[str, str]
    is_current: bool


def _array(documents: Iterable[bytes]) -> bytes:
    return b"[" + b",".join(documents) + b"]"


class Controller:
    """say: receives a line for each thing that happens."""

    def __init__(self, store: Store, stores: list[Datastore], say: Say) -> None:
        self._lock = threading.RLock()
        self._store = store
        self._say = say
        self.generation = Generation(choices.prepare(store), self._note_generation)
        self._stores = {datastore.name: datastore for datastore in stores}
        self._settings = choices.current_settings(store)
        self._choices = store.choices()
        self._folders = store.folders()
        self._notes = self._notes_by_vm()
        self._password = store.meta("password")
        self._alerts = AlertBook(store, self._settings["controller.uuid"])
        self._statistics = StatisticsBook(store)
        self._taken_over = ""
        self._vm_documents: dict[str, bytes] = {}
        self._disk_documents: dict[str, bytes] = {}
        self._foreign = store.foreign_changes()
        self._complete: set[str] = set()
        self._load_inventory()
        for uuid, chosen in self._choices.items():
            if chosen.get("cbt_reset_pending"):
                self._void_change_ids(uuid)

    def _load_inventory(self) -> None:
        """What was known when the controller last ran is true until discovery says otherwise."""
        for name in self._store.datastores().keys() - self._stores.keys():
            self._store.remove_datastore(name)
        self._records = {name: self._store.datastores().get(name, {"accessible": 1}) for name in self._stores}
        for name, record in self._records.items():
            record |= {"hypervisor": self._stores[name].hypervisor, "directory": self._stores[name].directory,
                       "complete": 0}
            self._store.set_datastore(name, record)
        vms = [Vm(uuid, changed, facts) for uuid, changed, facts in self._store.vms()]
        self._store.remove_vms(vm.key for vm in vms if vm.key[0] not in self._stores)
        self._vms = Inventory(vm for vm in vms if vm.key[0] in self._stores)

    def _note_generation(self, token: str) -> None:
        """For whoever waits until the daemon has taken it over."""
        try:
            self._store.set_meta("generation", token)
        except sqlite3.Error:
            pass  # then nobody waits

    def _notes_by_vm(self) -> dict[str, dict[str, dict[str, Any]]]:
        notes: dict[str, dict[str, dict[str, Any]]] = {}
        for (uuid, name), fields in self._store.disk_notes().items():
            notes.setdefault(uuid, {})[name] = fields
        return notes

    # Asked by the daemon. Answers are JSON texts.

    def hypervisors(self) -> bytes:
        with self._lock:
            names = sorted({self._hypervisor(name) for name in self._stores})
            return _array(pack(records.hypervisor_document(name, self._password)) for name in names)

    def _hypervisor(self, datastore: str) -> str:
        return self._stores[datastore].hypervisor or self._settings["hypervisor.name"]

    def vms(self, hypervisor: str | None = None) -> bytes:
        with self._lock:
            stores = {name for name in self._stores if hypervisor in (None, self._hypervisor(name))}
            return _array(self._vm_document(vm) for vm in self._vms.all() if vm.key[0] in stores)

    def vm(self, uuid: str) -> bytes:
        with self._lock:
            vm = self._vms.by_uuid(uuid)
            return _array([self._vm_document(vm)] if vm else [])

    def _vm_document(self, vm: Vm) -> bytes:
        if vm.uuid not in self._vm_documents:
            chosen = self._choices.get(vm.uuid, {})
            folder = self._folders.get(chosen.get(choices.FOLDER, ""))
            document = records.vm_document(vm, self._hypervisor(vm.key[0]), chosen, folder, self._own_snapshots(vm))
            self._vm_documents[vm.uuid] = pack(document)
        return self._vm_documents[vm.uuid]

    def _own_snapshots(self, vm: Vm) -> int:
        """Snapshots of others are none of the daemon's business: it would wait for them to go."""
        return sum(owns(self._settings, name) for name in vm.facts["snapshots"])

    def _readable_disks(self, vm: Vm) -> list[dict[str, Any]]:
        """The disks as the daemon is to read them: as this appliance's newest snapshot froze them, else as they are."""
        mine = [name for name in vm.facts["snapshots"] if owns(self._settings, name)]
        return vm.facts.get("frozen", {}).get(mine[-1], []) if mine else vm.facts["disks"]

    def disks(self, uuid: str | None, name: str | None = None) -> bytes:
        """All disks, those of a VM, or those of a VM that have a name; changed-block files' records included."""
        with self._lock:
            if uuid is None:
                every = (self._disks_of(vm.uuid) for vm in self._vms.all())
                return _array(array[1:-1] for array in every if len(array) > 2)
            if name is None:
                return self._disks_of(uuid)
            return _array(pack(document) for document in self._disk_list(uuid) if document["name"] == name)

    def _disks_of(self, uuid: str) -> bytes:
        if uuid not in self._disk_documents:
            self._disk_documents[uuid] = _array(map(pack, self._disk_list(uuid)))
        return self._disk_documents[uuid]

    def _disk_list(self, uuid: str) -> list[dict[str, Any]]:
        vm = self._vms.by_uuid(uuid)
        if vm is None:
            return []
        notes = self._notes.get(uuid, {})
        disks = [records.disk_document(uuid, disk, notes.get(disk["name"], {})) for disk in self._readable_disks(vm)]
        companions = [records.companion_document(uuid, name, note) for name, note in notes.items()
                      if records.COMPANION in name]
        return disks + companions

    def folders(self) -> bytes:
        """With the number of VMs in each."""
        with self._lock:
            counts = dict.fromkeys(self._folders, 0)
            for vm in self._vms.all():
                folder = self._choices.get(vm.uuid, {}).get(choices.FOLDER)
                if folder in counts:
                    counts[folder] += 1
            return _array(pack(records.folder_document(uuid, name, counts[uuid]))
                          for uuid, name in self._folders.items())

    def datastores(self) -> bytes:
        with self._lock:
            return _array(pack(records.datastore_document(name, self._hypervisor(name), record))
                          for name, record in self._records.items())

    def setting(self, key: str) -> str | None:
        """A registry value; None for a key that does not exist."""
        with self._lock:
            return self._settings.get(key)

    def alerts(self) -> bytes:
        with self._lock:
            return _array(map(pack, self._alerts.standing()))

    def look(self) -> Look:
        with self._lock:
            hosts = {name: self._hypervisor(name) for name in self._stores}
            vms, chosen = self._vms.all(), dict(self._choices)
            places = {vm.uuid: self._folders.get(chosen.get(vm.uuid, {}).get(choices.FOLDER, ""), hosts[vm.key[0]])
                      for vm in vms}
            return Look(vms, places, chosen, {name: dict(record) for name, record in self._records.items()},
                        self._alerts.standing(), self._settings, self._taken_over == self.generation.token)

    # Posted by the daemon

    def choose(self, uuid: str, values: dict[str, Any]) -> None:
        """Stores choices for a VM. Unknown."""
        with self._lock:
            if self._vms.by_uuid(uuid) is None:
                raise Unknown(f"no VM {uuid}")
            chosen = self._choices.get(uuid, {})
            changed = {key: value for key, value in values.items()
                       if chosen.get(key, records.VM_CHOICES.get(key)) != value}
            if not changed:
                return
            self._store.set_choices(uuid, changed)
            self._choices[uuid] = chosen | changed
            self._vm_documents.pop(uuid, None)
            if not changed.keys() <= _QUIET:
                self.generation.bump()

    def reset_tracking(self, uuid: str) -> None:
        """A changed-block export found that tracking must start anew. Unknown."""
        with self._lock:
            self.choose(uuid, choices.tracking_reset(self._choices.get(uuid, {})))
            self._void_change_ids(uuid)

    def _void_change_ids(self, uuid: str) -> None:
        """Whatever was known of a VM's disks belongs to a tracking that is over."""
        for name, note in self._notes.get(uuid, {}).items():
            note |= {key: records.VOID for key in records.CHANGE_IDS if note.get(key, records.VOID) != records.VOID}
            self._store.set_disk_note(uuid, name, note)
        self._disk_documents.pop(uuid, None)

    def record_event(self, record: dict[str, Any]) -> None:
        with self._lock:
            self._store.add_event(int(time.time()), record)

    def note_disk(self, posted: dict[str, Any]) -> None:
        """Stores what the daemon notes at a disk or a changed-block file. Unknown, ValueError."""
        uuid, name = posted.get("vhost_uuid"), posted.get("name")
        if not isinstance(uuid, str) or not isinstance(name, str) or not name:
            raise ValueError("a disk without \"vhost_uuid\" or \"name\"")
        with self._lock:
            vm = self._vms.by_uuid(uuid)
            known = vm is not None and any(disk["name"] == name for disk in vm.facts["disks"])
            if vm is None or not (known or records.COMPANION in name):
                raise Unknown(f"no disk {name} of VM {uuid}")
            note = self._notes.get(uuid, {}).get(name, {})
            note = note | {key: posted[key] for key in records.DISK_NOTES if key in posted}
            self._store.set_disk_note(uuid, name, note)
            self._notes.setdefault(uuid, {})[name] = note
            self._disk_documents.pop(uuid, None)

    def post_alert(self, posted: dict[str, Any]) -> None:
        with self._lock:
            if self._alerts.post(posted):
                self._say(f"alert {posted.get('alert_id')}: {str(posted.get('message', '')).strip()}")

    def clear_alert(self, posted: dict[str, Any]) -> None:
        with self._lock:
            if self._alerts.clear(posted):
                self._say(f"alert {posted.get('alert_id')} cleared for {posted.get('object_id')}")

    def daemon_begins(self) -> None:
        """A daemon asks for its first inventory."""
        with self._lock:
            self._alerts.daemon_begins()

    def take_statistics(self, report: list[dict[str, Any]]) -> None:
        with self._lock:
            self._statistics.take(report)

    def taken_over(self, token: str) -> None:
        """The daemon has taken over the inventory of a generation."""
        with self._lock:
            for alert_id, object_id, _ in self._alerts.daemon_has_followed():
                self._say(f"alert {alert_id} cleared for {object_id}")
        self._store.set_meta("taken_over", token)
        self._taken_over = token
        self.generation.taken_over(token)

    # Told by discovery

    def take_vms(self, found: list[Facts]) -> None:
        """New and changed VMs. One that can no longer be read stays as it was."""
        with self._lock:
            now, taken, lines, again = int(time.time()), [], [], False
            for facts in found:
                key = facts["datastore"], facts["vmx_path"]
                old = self._vms.get(key)
                if any(item == "" for item, _ in facts["problems"]):
                    continue
                vm = self._vms.take(facts, now)
                if vm is not None:
                    taken.append(vm)
                    lines.append(f"VM {vm.name!r} {'changed' if old else 'added'} ({'/'.join(key)})")
                    again = again or old is not None and (old.uuid, old.name) != (vm.uuid, vm.name)
                    self._forget_documents(vm.uuid, *([old.uuid] if old else []))
            if taken:
                self._tell(lines, f"{len(lines)} VMs added or changed")
                self.generation.bump(again)
            # Last: what cannot be stored is served all the same.
            self._store.set_vms((vm.uuid, vm.changed, vm.facts) for vm in taken)
            for facts in found:
                self._keep_vm_alerts(facts)

    def _keep_vm_alerts(self, facts: Facts) -> None:
        owner = f"{facts['datastore']}/{facts['vmx_path']}"
        of_vm = {owner: text for item, text in facts["problems"] if item == ""}
        of_disks = {f"{owner}:{item}": text for item, text in facts["problems"] if item != ""}
        hypervisor = self._hypervisor(facts["datastore"])
        for alert_id, texts in (("vm_inventory", of_vm), ("disk_inventory", of_disks)):
            for message in self._alerts.keep_own(alert_id, owner, texts, hypervisor, facts["name"]):
                self._say(f"alert {alert_id}: {message}")

    def _forget_documents(self, *uuids: str) -> None:
        for uuid in uuids:
            self._vm_documents.pop(uuid, None)
            self._disk_documents.pop(uuid, None)

    def _tell(self, lines: list[str], summary: str) -> None:
        for line in lines if len(lines) <= _MANY else [summary]:
            self._say(line)

    def drop_vms(self, keys: list[Key]) -> None:
        """VMs whose files are gone."""
        with self._lock:
            lines = []
            for key in keys:
                vm = self._vms.drop(key)
                if vm is not None:
                    self._forget_documents(vm.uuid)
                    lines.append(f"VM {vm.name!r} removed ({'/'.join(key)})")
            if lines:
                self._tell(lines, f"{len(lines)} VMs removed")
                self.generation.bump(again=True)  # a name that becomes free is another VM's in the second pass only
            self._store.remove_vms(keys)
            for datastore, path in keys:
                self._keep_vm_alerts({"datastore": datastore, "vmx_path": path, "name": "", "problems": []})

    def keep_vms(self, datastore: str, present: list[str]) -> None:
        """Drops the VMs of a datastore that are not among `present` (vmx_paths)."""
        with self._lock:
            there = set(present)
            self.drop_vms([vm.key for vm in self._vms.all() if vm.key[0] == datastore and vm.key[1] not in there])

    def take_datastore(self, name: str, accessible: bool, space: dict[str, int], error: str) -> None:
        """A datastore's state. space: capacity and free, in bytes, when it can be read."""
        with self._lock:
            record = self._records[name]
            came_or_went = bool(record.get("accessible")) != accessible
            record |= {"accessible": int(accessible), "time": int(time.time()), **space}
            if came_or_went:
                self._say(f"datastore {name!r} {'is back' if accessible else 'is lost'}")
                self.generation.bump()
            self._store.set_datastore(name, record)
            texts = {} if accessible else {name: f"Datastore '{name}' cannot be read: {error}."}
            for message in self._alerts.keep_own("datastore", name, texts, self._hypervisor(name), ""):
                self._say(f"alert datastore: {message}")

    def stores_with_vms(self) -> tuple[str, ...]:
        """The datastores that VMs are known of."""
        with self._lock:
            return tuple({vm.key[0] for vm in self._vms.all()})

    def discovery_complete(self, name: str) -> None:
        """Every VM of a datastore has been read once."""
        with self._lock:
            self._records[name]["complete"] = 1
            self._store.set_datastore(name, self._records[name])
            count = sum(vm.key[0] == name for vm in self._vms.all())
            self._say(f"datastore {name!r}: {count} VMs")

    def discovery_failed(self, error: str) -> None:
        """The worker is in trouble; "" when it no longer is."""
        with self._lock:
            texts = {"discovery": f"Datastores are not watched: {error}."} if error else {}
            host = self._settings["hypervisor.name"]
            for message in self._alerts.keep_own("appliance", "discovery", texts, host, ""):
                self._say(f"alert appliance: {message}")

    # Changed in the database by a command

    def take_commands(self) -> None:
        """Looks whether a command has changed the database and takes that in."""
        with self._lock:
            changes = self._store.foreign_changes()
            if changes == self._foreign:
                return
            before, old = self._commanded(), self._choices
            self._settings = choices.current_settings(self._store)
            self._choices = self._store.choices()
            for uuid, chosen in self._choices.items():
                if chosen.get("cbt_reset_time") != old.get(uuid, {}).get("cbt_reset_time"):
                    self._void_change_ids(uuid)
            self._folders = self._store.folders()
            for uuid, changed in self._store.change_times().items():
                vm = self._vms.by_uuid(uuid)
                if vm is not None and vm.changed != changed:
                    self._vms.set_change_time(uuid, changed)
            if self._commanded() != before:
                self._vm_documents.clear()
                self._disk_documents.clear()
                self.generation.bump(again=True)
            self._foreign = changes

    def _commanded(self) -> tuple[Any, ...]:
        """Everything that the daemon sees of what commands change. Settings are read at its start only, but for those
        that shape the inventory."""
        shaping = [self._settings[key] for key in ("hypervisor.name", "vendor.id", "controller.uuid")]
        return shaping, self._choices, self._folders, {vm.uuid: vm.changed for vm in self._vms.all()}
