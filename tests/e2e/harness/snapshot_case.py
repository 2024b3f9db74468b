"""The test case whose daemon takes snapshots, with a clock that runs fast."""

import hashlib
import os
import pathlib
import re
import unittest
from collections.abc import Callable
from typing import Any

from . import snapshots
from .compare import Reader
from .daemon import EXPORT
from .disks import MIB, SECTOR, datastore
from .inventory import InventoryCase
from .machines import Machine, machine
from .snapshots import Mischief
from .tools import program, saved_error, wait_equal, wait_until, xattr

HOST = "esx.example"
OWN_UUID = "5ca1ab1e-0000-4000-8000-00000000cafe"
OWN = f"{snapshots.VENDOR}: {OWN_UUID}"  # what this appliance's snapshots are called
FACTOR = os.environ.get("MIRADOR_CLOCK_FACTOR", "50")  # the daemon's seconds in one of the clock on the wall
RETRIES = 3
BOUND = 120  # seconds within which all is in order again, with much to spare

HEADER = slice(2 * SECTOR, 3 * SECTOR)  # where copies of a partitioned disk have its description: free in the guest
EIO = 5
next_seed = iter(range(1, 1 << 30)).__next__  # for guests: no two write the same


def digest(data: bytes | bytearray) -> str:
    return hashlib.sha256(data).hexdigest()


class SnapshotCase(InventoryCase):
    """Each test has VMs of its own. When all are done, no VM has a snapshot of this appliance, and every other one that
    it had."""

    settings = {"snapshot.max_idle": "0", "snapshot.retry_limit": str(RETRIES), "controller.uuid": OWN_UUID}
    environment = {"MIRADOR_CLOCK_FACTOR": FACTOR}
    faults: Mischief
    vms: dict[str, Machine]
    files_before: dict[str, dict[str, bytes]]  # by name of the VM

    @classmethod
    def setUpClass(cls):
        if b"MIRADOR_CLOCK_FACTOR" not in pathlib.Path(program("mirador")).read_bytes():
            raise unittest.SkipTest("this build's clock cannot run fast")
        super().setUpClass()

    @classmethod
    def make_machines(cls):
        cls.store = datastore(cls.__name__.lower())
        cls.vms = {name: machine(cls.store, name) for name in cls.vm_names()}
        return [f"{HOST}:{cls.store.directory}"]

    @classmethod
    def vm_names(cls) -> list[str]:
        raise NotImplementedError

    @classmethod
    def prepare(cls):
        cls.faults = Mischief(cls.appliance)
        cls.files_before = {name: snapshots.files(vm) for name, vm in cls.vms.items()}

    def start(self, **points: str) -> None:
        """Starts the daemon if it does not run, or anew when it is to meet fault points."""
        if self.daemon.is_running() and points:
            self.daemon.stop()
        if not self.daemon.is_running():
            self.daemon.environment["MIRADOR_FAULT_POINTS"] = ",".join(f"{name}={act}" for name, act in points.items())
            self.daemon.start()
        for vm in self.vms.values():
            self.wait_exported(vm)

    # Reading

    @staticmethod
    def exported(vm: Machine, disk: str = "disk"):
        return EXPORT / HOST / vm.name / f"{disk}-flat.vmdk"

    def wait_exported(self, vm: Machine):
        wait_until(self.exported(vm).exists, f"{vm.name} is exported", BOUND)

    def assert_reads_frozen(self, vm: Machine, before_close: Callable[[], Any] = lambda: None) -> dict[str, bytes]:
        """What is read is what the disk held when it was opened, whatever the guest writes meanwhile. Returns what the
        guest sees at the end."""
        frozen = snapshots.contents(vm)["scsi0:0"]
        with Reader(self.exported(vm), direct=True) as reader:
            self.assertEqual(snapshots.names(vm)[-1:], [OWN], "it is read from a snapshot")
            self.assertTrue(reader.read(0, MIB // 2) == frozen[:MIB // 2])
            snapshots.write_as_guest(vm, next_seed())
            self.assertTrue(reader.read(0, 2 * MIB) == frozen, f"{vm.name} gives the frozen bytes")
            before_close()
        return snapshots.contents(vm)

    def moments(self, vm: Machine) -> list[dict[str, str]]:
        """What the agent noted, when it is told to, of the snapshots that it made of a VM: node -> digest of the disk."""
        return [{disk["node"]: disk["sha256"] for disk in call["moment"]} for call in self.appliance.agent_calls()
                if call.get("uuid") == vm.uuid and "moment" in call]

    def open_fails(self, vm: Machine) -> tuple[int, str]:
        """The real error of an open that must fail."""
        with self.assertRaises(OSError) as raised:
            Reader(self.exported(vm)).__exit__()
        self.assertEqual(raised.exception.errno, EIO)
        return saved_error(self.exported(vm))

    def scrub(self, vm: Machine, name: str) -> str:
        """What is answered to the order to remove a snapshot."""
        return xattr(self.exported(vm).parent, f"snapshot_scrub:{name}").rstrip(b"\0").decode()

    def remove_own(self, vm: Machine):
        """Orders an idle snapshot to be removed. A disk that was closed a moment ago counts as used a little longer."""
        wait_until(lambda: self.scrub(vm, OWN).startswith("11:"), f"{vm.name}: the removal begins", BOUND)

    # What must hold

    def wait_clean(self, vm: Machine, contents: dict[str, bytes]):
        """Waits until nothing of this appliance's stands on a VM and its files are as at the start; contents as given."""
        wait_equal(lambda: [name for name in snapshots.names(vm) if name.startswith(OWN)], [], f"{vm.name}: no snapshot",
                   BOUND)
        wait_equal(lambda: snapshots.files(vm), self.files_before[vm.name], f"{vm.name}: files as before", BOUND)
        self.assertTrue(snapshots.contents(vm) == contents, f"{vm.name}: its guest sees the same")

    def assert_is_well(self, vm: Machine):
        """A snapshot comes and goes as ever, and nothing is told any more."""
        self.wait_exported(vm)  # a controller that comes back may have taken it away for a cycle
        self.wait_clean(vm, self.assert_reads_frozen(vm))
        self.wait_told(vm, None)

    def wait_told(self, vm: Machine, kind: str | None):
        """Waits until exactly this is told of a VM: that the creation or the removal of a snapshot failed, or nothing."""
        def told():
            alerts = {alert for alert, subject in self.appliance.alerts() if subject == f"{HOST}:{vm.name}"}
            return alerts & {"snapshot_create", "snapshot_remove"}, self.error_of(vm)
        word = {"snapshot_create": "creation", "snapshot_remove": "removal"}.get(kind)
        wait_equal(told, ({kind}, f"Snapshot {word} failed") if kind else (set(), ""), f"{vm.name}: what is told", BOUND)

    def error_of(self, vm: Machine) -> str:
        found = self.appliance.get(f"vhost?vm_uuid={vm.uuid}")
        return found[0].get("error") or ""

    @classmethod
    def _unfinished(cls):
        return [vm for vm in cls.appliance.status()["vms"] if vm["consolidation_needed"] or vm["busy"]
                or any(snapshot["whose"] == "ours" for snapshot in vm["snapshots"])]

    @classmethod
    def _stop_all(cls):
        try:
            if cls.daemon.is_running():
                cls.daemon.stop()
            wait_equal(cls._unfinished, [], "no snapshot is left and none is being removed", BOUND)
        finally:
            super()._stop_all()


def slug(what: str) -> str:
    """A name for a VM from what is done to it."""
    return re.sub(r"\W+", "-", what).strip("-")
