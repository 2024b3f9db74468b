"""Faults of the agent and of the controller: an open either fails with the reason told or gives the frozen bytes, and no
snapshot stays behind."""

import concurrent.futures
import dataclasses
import errno
import functools
import os
import signal
import time
from collections.abc import Callable
from typing import Any

from harness import place, snapshots
from harness.compare import Reader
from harness.disks import MIB
from harness.machines import Machine, machine
from harness.snapshot_case import BOUND, EIO, OWN, SnapshotCase, next_seed, slug
from harness.snapshots import Rule
from harness.tools import saved_error, wait_equal, wait_until
from mirador_appliance.hypervisor import snapshots as hypervisor

USERS_OWN = "before the update"
OTHER = "other #1"  # a disk whose name is spelled in another way in the VM's files
WORKERS = 6  # faults that are tried at a time

BUSY = errno.EALREADY  # another task is in progress
EPIPE = errno.EPIPE
NOT_JSON = 1007


@dataclasses.dataclass(frozen=True)
class Fault:
    """What the agents do to one VM, and what comes of it.

    rules    the agents' faults on demand; in force from the VM's first call on or, for removals, once the disk is read
    number   error that the open fails with, None when it succeeds; for removals: whether anything fails
    told     pattern of the text that is told
    """
    rules: tuple[Rule, ...]
    number: int | None = None
    told: str = ""


def fault(method: str, number: int | None = None, told: str = "", **rule: Any) -> Fault:
    return Fault(({"method": method, **rule},), number, told)


_DEAD = "Failed to get response to JRPC request: Broken pipe"

CREATION = {
    "dies before it removes orphans": fault("remove_snapshot", EPIPE, _DEAD, die="before"),
    "dies after create_top": fault("create_top_snapshot", EPIPE, _DEAD, die="after", top=1),
    "dies before create": fault("create_snapshot", EPIPE, _DEAD, die="before"),
    "dies after create": fault("create_snapshot", EPIPE, _DEAD, die="after"),
    **{f"dies in create, {step}": fault("create_snapshot", EPIPE, _DEAD, step=step) for step in (
        "delta extent made", "configuration in place")},
    "busy twice": fault("create_snapshot", error=BUSY, times=2),
    "busy for good": fault("create_snapshot", BUSY, "fault on demand", error=BUSY),
    "refuses to remove orphans": fault("remove_snapshot", EIO, "no such luck", error=EIO, text="no such luck"),
    "acts and refuses": fault("create_snapshot", EIO, "no such luck", error=EIO, text="no such luck", acts=1),
    "acts and answers garbage": fault("create_snapshot", NOT_JSON, "json parse error", garbage="<html>502 Bad Gateway</html>\n", acts=1),
    "another shape": fault("create_top_snapshot", NOT_JSON, "json parse error", garbage='[{"response_type": 7}]\n', acts=1),
    "half a line": fault("create_snapshot", EPIPE, _DEAD, cut=10),
    "a flood on standard error": fault("create_snapshot", noise=4 * MIB),
    # The first removal is that of orphans.
    "dies after create and cannot remove it": Fault((
        {"method": "remove_snapshot", "times": 1}, {"method": "remove_snapshot", "error": EIO},
        {"method": "create_snapshot", "die": "after"}), EPIPE, _DEAD),
}

REMOVAL = {
    "dies before": fault("remove_snapshot", EPIPE, die="before"),
    "dies after": fault("remove_snapshot", EPIPE, die="after"),
    **{f"dies in removal, {step}": fault("remove_snapshot", EPIPE, step=step) for step in (
        "database without in place", "data")},
    "busy twice": fault("remove_snapshot", error=BUSY, times=2),
    "busy for good": fault("remove_snapshot", BUSY, error=BUSY),
    "acts and refuses": fault("remove_snapshot", EIO, error=EIO, acts=1),
    "half a line": fault("remove_snapshot", 0, cut=10),
}


class AgentFaults(SnapshotCase):
    """Each fault of the tables has a VM of its own; a few are tried at a time."""

    @classmethod
    def vm_names(cls):
        return [*(f"making-{slug(what)}" for what in CREATION), *(f"removing-{slug(what)}" for what in REMOVAL)]

    def check_all(self, checks: dict[str, Callable[[], None]]):
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            done = {what: pool.submit(check) for what, check in checks.items()}
        for what, check in done.items():
            with self.subTest(what):
                check.result()

    def test_making(self):
        self.check_all({what: functools.partial(self.check_making, self.vms[f"making-{slug(what)}"], fault)
                        for what, fault in CREATION.items()})

    def check_making(self, vm: Machine, fault: Fault):
        self.wait_exported(vm)
        contents = snapshots.contents(vm)
        self.faults.set(vm.name, *fault.rules)
        if fault.number is None:
            contents = self.assert_reads_frozen(vm)
        else:
            number, text = self.open_fails(vm)
            self.assertRegex(text, fault.told)
            self.assertEqual(number, fault.number, text)
            self.wait_told(vm, "snapshot_create")
        self.assertTrue(self.faults.have_acted(vm))
        self.faults.set(vm.name)
        self.wait_clean(vm, contents)
        if fault.number is not None:
            contents = self.assert_reads_frozen(vm)
            self.wait_clean(vm, contents)
        self.wait_told(vm, None)

    def test_removing(self):
        self.check_all({what: functools.partial(self.check_removing, self.vms[f"removing-{slug(what)}"], fault)
                        for what, fault in REMOVAL.items()})

    def check_removing(self, vm: Machine, fault: Fault):
        self.wait_exported(vm)
        contents = self.assert_reads_frozen(vm, lambda: self.faults.set(vm.name, *fault.rules))
        if fault.number is not None:
            self.wait_told(vm, "snapshot_remove")
            self.faults.set(vm.name)
        self.wait_clean(vm, contents)
        self.wait_told(vm, None)
        self.assertTrue(self.faults.have_acted(vm))
        self.faults.set(vm.name)
        contents = self.assert_reads_frozen(vm)
        self.wait_clean(vm, contents)


class Others(SnapshotCase):
    """Faults that touch all VMs, one at a time: silence, and the controller's."""

    @classmethod
    def vm_names(cls):
        return ["first", "second"]

    @classmethod
    def make_machines(cls):
        arguments = super().make_machines()
        cls.vms["users"] = machine(cls.store, "users", disks=("disk.vmdk", f"{OTHER}.vmdk"))
        return arguments

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.first, cls.second, cls.users = cls.vms.values()

    def setUp(self):
        for vm in self.vms.values():
            self.wait_exported(vm)
            self.wait_told(vm, None)

    def test_silence(self):
        """An agent that does not answer keeps nobody from reading what is open; killed, it lets all go on."""
        frozen = snapshots.contents(self.first)["scsi0:0"]
        with Reader(self.exported(self.first), direct=True) as reader, \
                concurrent.futures.ThreadPoolExecutor() as pool:
            self.faults.set(self.second.name, {"method": "create_snapshot", "silence": 1, "acts": 1})
            opening = pool.submit(self.open_fails, self.second)
            wait_until(lambda: self.faults.silent(), "the agent is silent", BOUND)
            for _ in range(5):
                self.assertTrue(reader.read(0, 2 * MIB) == frozen)
                self.assertIn("disk-flat.vmdk", os.listdir(self.exported(self.second).parent))
                time.sleep(0.1)
            self.assertFalse(opening.done())
            self.faults.set(self.second.name)
            os.kill(self.faults.silent()[-1], signal.SIGKILL)
            self.assertEqual(opening.result(BOUND)[0], EPIPE)
            self.wait_told(self.second, "snapshot_create")
        self.assert_is_well(self.second)
        self.assert_is_well(self.first)

    # The controller

    def test_controller_goes_while_a_snapshot_is_made(self):
        contents = snapshots.contents(self.first)
        self.faults.set(self.first.name, {"method": "create_snapshot", "delay": 1, "times": 1})
        is_made = self.faults.next_call(self.first, "create_snapshot")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            opening = pool.submit(self.open_fails, self.first)
            wait_until(is_made, "a snapshot is being made", BOUND)
            self.appliance.kill()
            self.assertNotEqual(opening.result(BOUND)[0], 0)
        self.wait_clean(self.first, contents)
        self.appliance.start()
        self.assert_is_well(self.first)

    def test_controller_goes_while_a_snapshot_is_removed(self):
        start = len(self.faults.calls(self.second, "remove_snapshot"))
        def slow_removal():
            self.faults.set(self.second.name, {"method": "remove_snapshot", "delay": 1, "times": 1})
        contents = self.assert_reads_frozen(self.second, slow_removal)
        wait_until(lambda: len(self.faults.calls(self.second, "remove_snapshot")) > start + 1, "it is removed", BOUND)
        self.appliance.kill()
        self.wait_clean(self.second, contents)
        self.appliance.start()
        self.assert_is_well(self.second)

    def test_controller_goes_while_a_frozen_delta_loses_its_name(self):
        """Removing a user's snapshot merges the frozen deltas into the bases; its next one gives a delta that the guest
        writes to the name that the controller told last."""
        vm, vmx = self.users, str(self.users.vmx)
        snapshots.make(vm, USERS_OWN, time.time())
        frozen = snapshots.contents(vm)
        with Reader(self.exported(vm), direct=True) as reader:
            self.assertTrue(reader.read(0, 2 * MIB) == frozen["scsi0:0"])
            self.appliance.kill()
            hypervisor.remove(vmx, USERS_OWN)
            self.assertFalse((vm.directory / f"{OTHER}-000001.vmdk").exists())
            snapshots.make(vm, USERS_OWN, time.time())
            self.assertTrue((vm.directory / f"{OTHER}-000001.vmdk").exists())
            snapshots.write_as_guest(vm, next_seed())
            with self.assertRaises(OSError):
                Reader(self.exported(vm, OTHER)).__exit__()
            number, text = saved_error(self.exported(vm, OTHER))
            self.assertEqual(number, errno.EAGAIN, text)
            self.assertIn("not frozen by the snapshot", text)
            self.assertTrue(reader.read(0, 2 * MIB) == frozen["scsi0:0"])
            self.appliance.start()
            wait_until(lambda: self.can_be_opened(vm, OTHER), "the controller has told where the frozen disks are", BOUND)
            with Reader(self.exported(vm, OTHER), direct=True) as other:
                self.assertTrue(other.read(0, 2 * MIB) == frozen["scsi0:1"])
        hypervisor.remove(vmx, USERS_OWN)
        self.wait_clean(vm, snapshots.contents(vm))

    def test_reading_ends_when_somebody_removes_the_snapshot(self):
        """From then on the guest's writes go into what was frozen."""
        for others in ([], [USERS_OWN]):
            with self.subTest(others), Reader(self.exported(self.users), direct=True) as reader:
                self.assertEqual(len(reader.read(0, MIB)), MIB)
                for name in others:
                    snapshots.make(self.users, name, time.time())
                hypervisor.remove(str(self.users.vmx), OWN)
                wait_equal(lambda: self.error_of_read(reader), errno.ESTALE, "reading fails", BOUND)
                self.assertRegex(saved_error(self.exported(self.users))[1], "no longer there")
                self.assertFalse(self.can_be_opened(self.users, OTHER))
            for name in others:
                hypervisor.remove(str(self.users.vmx), name)
            wait_until(lambda: self.can_be_opened(self.users, OTHER), "there is a new snapshot", BOUND)
            self.wait_clean(self.users, snapshots.contents(self.users))

    @staticmethod
    def error_of_read(reader: Reader) -> int:
        try:
            reader.read(0, 4096)
        except OSError as error:
            return error.errno
        return 0

    def can_be_opened(self, vm: Machine, disk: str) -> bool:
        try:
            Reader(self.exported(vm, disk)).__exit__()
        except OSError:
            return False
        return True


if __name__ == "__main__":
    place.main()
