"""Everything that the soak runs on: datastores with VMs, the embedded appliance, the daemon, and what is known of them."""

import os
import pathlib
import random
import threading
from typing import Any

from harness import census, snapshots
from harness.appliance import Appliance
from harness.daemon import Daemon
from harness.disks import datastore
from harness.inventory import tree
from harness.snapshots import Mischief
from harness.tools import WORK, wait_equal, wait_until
from mirador_appliance.hypervisor.snapshots import needs_consolidation

from clients import Clients, Table
from excuses import Excuses
from model import BARE, PARTITIONED, Vm, make_vm
from tally import Tally

HOSTS = ("esx-a.example", "esx-b.example")
OWN_UUID = "5ca1ab1e-0000-4000-8000-0000000050ac"
OWN = f"{snapshots.VENDOR}: {OWN_UUID}"
BOUND = 600  # seconds within which everything comes to rest, on a slow machine with a sanitizer

VMS = (4, 3, 4)  # that are only read, whose changes are tracked, that come and go


class ControllerFaults:
    """The controller's faults, of several threads: each has rules of its own."""

    def __init__(self, appliance: Appliance):
        self._appliance = appliance
        self._lock = threading.Lock()
        self._rules: dict[str, tuple[dict[str, Any], ...]] = {}

    def set(self, who: str, *rules: dict[str, Any]) -> None:
        with self._lock:
            self._rules[who] = rules
            self._appliance.set_faults(*(rule for of_one in self._rules.values() for rule in of_one))


class Stage:
    """read, tracked, roaming: the VMs by what is done to them. away: roaming ones that are not on a datastore now."""

    def __init__(self, tally: Tally, factor: int, settings: dict[str, str], reports: pathlib.Path,
                 vms: tuple[int, int, int] = VMS):
        self.tally, self.settings = tally, settings
        self.excuses = Excuses()
        self.clients = Clients(OWN, Table(int(settings["export.max_session"])), self.excuses, tally)
        draw = random.Random(f"{tally.seed} disks")
        self.stores = {host: datastore(host.partition(".")[0]) for host in HOSTS}
        self.read = [self._make(f"read-{number}", number, draw) for number in range(vms[0])]
        self.tracked = [self._make(f"tracked-{number}", number, draw) for number in range(vms[1])]
        self.roaming = [self._make(f"roaming-{number}", number, draw, (PARTITIONED,)) for number in range(vms[2])]
        self.away: set[str] = set()  # their uuids
        self.appliance = Appliance(*(f"{host}:{store.directory}" for host, store in self.stores.items()))
        self.agents = Mischief(self.appliance)
        self.controller = ControllerFaults(self.appliance)
        self.daemon = Daemon(threads=True, environment={
            "MIRADOR_CLOCK_FACTOR": str(factor), **sanitizer_environment(reports)})

    def _make(self, name: str, number: int, draw: random.Random,
              disks: tuple[str, ...] = (PARTITIONED, BARE)) -> Vm:
        host = HOSTS[number % len(HOSTS)]
        return make_vm(self.stores[host], host, name, draw, disks)

    @property
    def vms(self) -> list[Vm]:
        return [*self.read, *self.tracked, *self.roaming]

    def start(self) -> None:
        self.before = census.take()
        for key, value in {"controller.uuid": OWN_UUID, **self.settings}.items():
            self.appliance.command("set", key, value)
        self.appliance.start()
        wait_until(lambda: all(store["complete"] for store in self.appliance.status()["datastores"]), "discovery")
        for vm in self.tracked:
            self.appliance.command("cbt", vm.name, "on")
            for disk in vm.disks:
                self.appliance.note(vm.uuid, disk, corcbt_size_percentage=100)
        self.daemon.start()
        self.wait_tree()

    # What must be there

    def expected_tree(self) -> dict[str, set[str]]:
        tracked = set(map(id, self.tracked))
        return {vm.path: vm.machine.entries(companions=id(vm) in tracked)
                for vm in self.vms if vm.uuid not in self.away}

    def wait_tree(self) -> None:
        def found() -> dict[str, set[str]]:
            return {vm: files for vm, files in tree().items() if not vm.startswith(".")}
        wait_equal(found, self.expected_tree(), "the tree is as the inventory says", BOUND)

    # Coming to rest

    def rest(self) -> None:
        """No faults any more; returns when nothing is left of what has been done. Failed."""
        self.controller.set("")
        for vm in (*self.vms, None):
            self.agents.set(vm.uuid if vm else "*")
        self.wait_tree()
        for vm in self.vms:
            wait_until(lambda vm=vm: self.is_clean(vm), f"{vm.name}: no snapshot and nothing to consolidate", BOUND)
        wait_equal(self.left, {}, "nothing is left", BOUND)

    def is_clean(self, vm: Vm) -> bool:
        if vm.uuid in self.away:
            return True
        return (not any(name.startswith(OWN) for name in snapshots.names(vm.machine))
                and not needs_consolidation(str(vm.machine.vmx)))

    def left(self) -> dict[str, list[str]]:
        """What the daemon has made and not yet taken away: loop devices, mappings, work files."""
        beyond = census.take().beyond(self.before)
        return {kind: names for kind, names in beyond.items() if kind in ("loops", "mappings", "temporary")}

    def stop(self) -> None:
        """Ends daemon and appliance; nothing may be left. Failed."""
        self.daemon.stop()
        with_snapshot = [vm.name for vm in self.vms if not self.is_clean(vm)]
        self.appliance.stop()
        wait_equal(lambda: (with_snapshot, census.take().beyond(self.before)), ([], {}), "nothing is left behind", 30)


def sanitizer_environment(reports: pathlib.Path) -> dict[str, str]:
    """Reports go to files. What is freed is soon used again: the daemon's memory is watched."""
    reports.mkdir(exist_ok=True)
    common = f"log_path={reports}/report:abort_on_error=0"
    return {"ASAN_OPTIONS": f"{common}:quarantine_size_mb=8:thread_local_quarantine_size_kb=64:detect_leaks=1",
            "UBSAN_OPTIONS": f"{common}:print_stacktrace=1",
            "TSAN_OPTIONS": f"{common}:second_deadlock_stack=1:history_size=2:halt_on_error=0"}


def make_place() -> pathlib.Path:
    """The directory of sanitizers' reports."""
    os.makedirs(WORK, exist_ok=True)
    return WORK / "reports"
