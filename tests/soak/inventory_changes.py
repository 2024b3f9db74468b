"""The inventory changes: VMs come, go, move, get other names and disks; folders too."""

import dataclasses
import os

from harness import snapshots
from harness.inventory import tree
from harness.tools import WORK, xattr

from model import BARE, PARTITIONED, Place, Vm
from readers import check_disk
from stage import HOSTS, OWN
from work import Worker

_SETTLE = 400  # seconds for the tree to follow while the controller has faults
_NAMES = 4  # that a VM has in turn: the daemon remembers errors by path
_FOLDERS = ("shelf", "attic")


class InventoryChanges(Worker):
    """Nobody else changes the VMs that roam."""

    def __init__(self, *rest):
        super().__init__("inventory", *rest)
        self._folders: set[str] = set()

    def step(self) -> None:
        vm = self.draw.choice(self.stage.roaming)
        change = self.draw.choice((self._leave, self._leave, self._rename, self._change_disks, self._change_folder,
                                   self._refresh))
        with self.stage.excuses.during(vm.uuid, "it changes", ""):
            if vm.uuid in self.stage.away:
                self._come(vm)
            else:
                change(vm)
            self.tally.count("changes")
            self.wait_for(lambda: self._is_shown(vm), f"{vm.name}: the tree follows", _SETTLE)
        self._read(vm)
        self.pause(0, 3)

    def _is_shown(self, vm: Vm) -> bool:
        expected, found = self.stage.expected_tree(), tree()
        return found.get(vm.path) == expected.get(vm.path)

    def _read(self, vm: Vm) -> None:
        if vm.uuid in self.stage.away:
            return
        disk = self.draw.choice(vm.disks)
        with self.clients.opened(vm, vm.flat(disk)) as reader:
            if reader is not None:
                check_disk(self, vm, disk, reader)

    # Changes

    def _leave(self, vm: Vm) -> None:
        """Its directory goes from the datastore, also while somebody reads: what is open can be read to the end."""
        disk = self.draw.choice(vm.disks)
        with self.clients.opened(vm, vm.flat(disk), direct=True) as reader:
            if reader is None:
                return
            truth = vm.frozen(disk, OWN)
            if self.draw.random() < 0.5:
                self._move_away(vm)
                self.pause(0, 3)
            for offset in range(0, len(truth), 1 << 20):
                self.clients.read_equal(reader, disk, truth, offset, 1 << 20)
        if vm.uuid in self.stage.away:
            self.pause(0, 2)
            self._come_back(vm)
        self._wait_clean(vm)
        self._move_away(vm)

    def _move_away(self, vm: Vm) -> None:
        with vm.changes:
            os.rename(vm.machine.directory, self._aside(vm))
            self.stage.away.add(vm.uuid)

    @staticmethod
    def _aside(vm: Vm):
        return WORK / f"away-{vm.uuid}"

    def _come(self, vm: Vm) -> None:
        """To any hypervisor's datastore."""
        host = self.draw.choice(HOSTS)
        self._come_back(vm, host)
        self._wait_clean(vm)

    def _come_back(self, vm: Vm, host: str | None = None) -> None:
        with vm.changes:
            store = self.stage.stores[host or vm.host]
            directory = store.directory / vm.machine.directory.name
            os.rename(self._aside(vm), directory)
            if host:
                group = vm.place.group if vm.place.group in self._folders else host
                vm.define(dataclasses.replace(vm.machine, store=store, vmx=directory / vm.machine.vmx.name), host)
                vm.place = Place(group, vm.name)
            self.stage.away.discard(vm.uuid)

    def _wait_clean(self, vm: Vm) -> None:
        """What was read a moment ago goes by itself; one that went away with its snapshot is tidied up by hand."""
        self.wait_for(lambda: self._is_shown(vm), f"{vm.name} is shown", _SETTLE)
        def is_clean() -> bool:
            if not self.stage.is_clean(vm):
                with self.clients.may_miss(vm, vm.place.directory):
                    xattr(vm.place.directory, f"snapshot_scrub:{OWN}")
            return self.stage.is_clean(vm)
        self.wait_for(is_clean, f"{vm.name}: it has no snapshot", _SETTLE)

    def _rename(self, vm: Vm) -> None:
        self._wait_clean(vm)
        name = f"{vm.machine.directory.name} no. {self.draw.randrange(_NAMES)}"
        group = vm.place.group
        vm.define(vm.machine.write(name=name), vm.host)
        vm.place = Place(group, name)

    def _change_disks(self, vm: Vm) -> None:
        self._wait_clean(vm)
        place = vm.place
        vm.define(vm.machine.write(disks=(PARTITIONED,) if BARE in vm.disks else (PARTITIONED, BARE)), vm.host)
        vm.place = place

    def _change_folder(self, vm: Vm) -> None:
        """Into a folder, out of all, or the folder itself gets another name or goes."""
        folder = self.draw.choice(_FOLDERS)
        command = self.stage.appliance.command
        if folder not in self._folders:
            command("folder", "add", folder)
            self._folders.add(folder)
        elif self.draw.random() < 0.3:
            command("folder", "remove", folder)
            self._folders.discard(folder)
            for other in self.stage.roaming:
                if other.place.group == folder:
                    other.place = Place(other.host, other.place.name)
            return
        group = self.draw.choice((folder, vm.host))
        command("folder", "move", vm.uuid, "-" if group == vm.host else folder)
        vm.place = Place(group, vm.place.name)

    def _refresh(self, vm: Vm) -> None:
        self.stage.appliance.command("refresh", vm.uuid)
        snapshots.names(vm.machine)
