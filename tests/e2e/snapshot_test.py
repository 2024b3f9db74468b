"""Backups of running VMs: a copy of a disk holds what the disk held at the moment of the snapshot, those of one VM are
of one moment, and behind the backup the VM is as it was, with all that its guest wrote."""

import contextlib
import fcntl
import os
import shutil
import time

from harness import census, place, snapshots
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import MIB, SECTOR, datastore, flat_disk
from harness.guests import RunningMachine, contents
from harness.inventory import SHADOW
from harness.machines import machine
from harness.snapshot_case import BOUND, HEADER, HOST, OWN, SnapshotCase, digest, next_seed
from harness.tools import WORK, run, wait_equal

USERS_OWN = "before the update"
EXPORTED = {"disk.vmdk": "disk-flat.vmdk", "sub/disk.vmdk": "disk(1)-flat.vmdk", "bare.vmdk": "bare-flat.vmdk"}
FREE = "free.vmdk"  # an independent disk


class Backups(SnapshotCase):
    """Snapshots go as soon as nobody reads."""
    environment = {"MIRADOR_CLOCK_FACTOR": "20"}

    @classmethod
    def make_machines(cls):
        store = datastore("backups")
        for name in (*EXPORTED, FREE):
            (store.vm("vm") / name).parent.mkdir(exist_ok=True)
            flat_disk(store.vm("vm") / name, 6 * MIB, next_seed(), is_partitioned=name != "bare.vmdk")
        cls.vm = machine(store, "vm", disks=(*EXPORTED, FREE), modes={FREE: "independent-persistent"})
        flat_disk(store.vm("chain") / "disk.vmdk", 6 * MIB, next_seed())
        cls.chain = machine(store, "chain")
        snapshots.write_as_guest(cls.chain, next_seed(), rounds=40)
        snapshots.make(cls.chain, USERS_OWN, time.time())
        snapshots.write_as_guest(cls.chain, next_seed(), rounds=40)
        flat_disk(store.vm("template") / "disk.vmdk", 4 * MIB, next_seed())
        cls.template = machine(store, "template", template=True)
        cls.vms = {vm.name: vm for vm in (cls.vm, cls.chain, cls.template)}
        return [f"{HOST}:{store.directory}"]

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.appliance.command("fault", "add", "--method", "create_snapshot", "--moment")

    def setUp(self):
        self.wait_tree({f"{HOST}/vm": {"vm.vmx", "vm.cfg", *EXPORTED.values(),
                                       *(name.replace("-flat", "") for name in EXPORTED.values())},
                        f"{HOST}/chain": self.chain.entries(), f"{HOST}/template": self.template.entries()})

    @staticmethod
    def directory(vm):
        return EXPORT / HOST / vm.name

    @contextlib.contextmanager
    def running(self, vm):
        """The VM runs inside. Behind it nothing of a snapshot is left, and the disks hold all that was written."""
        before = self.look(vm)
        with RunningMachine(self.appliance, vm, next_seed()) as guest:
            yield guest
            self.wait_gone(vm, before)
            rounds = guest.stop()
            self.assertGreater(rounds, 20)
            self.assertTrue(contents(vm) == guest.content.after(rounds), f"{vm.name} keeps its writes")
            self.assertEqual(self.look(vm), before)

    def look(self, vm):
        """What a backup must leave as it is: snapshots, lock, and files but for the one that tells that the VM runs."""
        found = [{**snapshot, "age": 0} for snapshot in self.appliance.snapshots(vm.uuid)]
        files = {name: data for name, data in snapshots.files(vm).items() if not name.endswith(".run.lck")}
        return files, found, self.is_locked(vm)

    @staticmethod
    def is_locked(vm):
        """Whether somebody tells other programs to leave the VM's directory alone."""
        with open(SHADOW / HOST / vm.name / ".corvantis.lck", "ab") as file:
            try:
                fcntl.flock(file, fcntl.LOCK_EX | fcntl.LOCK_NB)
                return False
            except BlockingIOError:
                return True

    def wait_gone(self, vm, before):
        wait_equal(lambda: OWN in snapshots.names(vm), False, f"{vm.name}: no snapshot", BOUND)
        wait_equal(lambda: self.look(vm), before, f"{vm.name} as before", BOUND)
        wait_equal(census.mappings, frozenset(), "no mapping")

    def copied(self, vm, exported):
        """Copies all that a VM's directory has; the disks must be what they were at the moment of the last snapshot.
        Returns their content, without the description that only partitioned disks have room for."""
        target, found = WORK / "copied", {}
        target.mkdir()
        for name in os.listdir(self.directory(vm)):
            run("dd", f"if={self.directory(vm) / name}", f"of={target / name}", "bs=64K", "status=none")
        for disk, name in exported.items():
            index, data = vm.disks.index(disk), bytearray((target / name).read_bytes())
            if disk != "bare.vmdk":
                self.assertNotEqual(data[HEADER], bytes(SECTOR))
                data[HEADER] = bytes(SECTOR)
            self.assertEqual(digest(data), self.moments(vm)[-1][f"scsi0:{index}"], name)
            found[index] = bytes(data)
        shutil.rmtree(target)
        return found

    def check_rounds(self, guest, copied):
        """All disks have exactly the same rounds of the guest. Returns the last one."""
        last = max(guest.content.last_round(disk, data) for disk, data in copied.items())
        expected = guest.content.after(last)
        for disk, data in copied.items():
            self.assertTrue(data == expected[disk], f"disk {disk} has the rounds up to {last}, whole and no others")
        return last

    def test_copies_are_of_one_moment(self):
        """Twice, each time a newer one; the guest goes on meanwhile."""
        free, last = self.vm.flat(FREE), 0
        with self.running(self.vm) as guest:
            before = self.look(self.vm)
            for _ in range(2):
                made = len(self.moments(self.vm))
                guest.wait_for_rounds(self.vm.disks.index(FREE), free)
                with Reader(self.directory(self.vm) / "disk-flat.vmdk", direct=True) as reader:
                    reader.read(0, SECTOR)
                    self.assertEqual([name for name in os.listdir(self.vm.directory) if name.startswith("free-0")], [])
                    for _ in range(2):
                        guest.wait_for_rounds(self.vm.disks.index(FREE), free)
                        copied = self.copied(self.vm, EXPORTED)
                    newer = self.check_rounds(guest, copied)
                self.assertGreater(newer, last)
                last = newer
                self.assertGreater(guest.content.last_round(self.vm.disks.index(FREE), free.read_bytes()), last + 40,
                                   "the independent disk goes on")
                self.assertEqual(len(self.moments(self.vm)), made + 1, "one snapshot for all of them")
                self.wait_gone(self.vm, before)

    def test_a_users_snapshot_stays(self):
        base = self.chain.flat().read_bytes()
        with self.running(self.chain) as guest:
            with Reader(self.directory(self.chain) / "disk-flat.vmdk", direct=True) as reader:
                reader.read(0, SECTOR)
                self.assertEqual(snapshots.names(self.chain), [USERS_OWN, OWN])
                copied = self.copied(self.chain, {"disk.vmdk": "disk-flat.vmdk"})
            self.assertGreater(self.check_rounds(guest, copied), 0)
        self.assertTrue(self.chain.flat().read_bytes() == base, "what the user's snapshot froze")

    def test_a_vm_moves_while_it_is_read(self):
        """Its disks can be opened at the new place before its reader ends, and are of the same moment."""
        directory, moved = self.directory(self.vm), EXPORT / "shelf" / self.vm.name
        entries = set(os.listdir(directory))
        self.appliance.command("folder", "add", "shelf")
        with self.running(self.vm):
            with Reader(directory / "disk-flat.vmdk", direct=True) as reader:
                reader.read(0, SECTOR)
                self.appliance.command("folder", "move", self.vm.uuid, "shelf")
                wait_equal(lambda: moved.exists() and set(os.listdir(moved)), entries, "it is at its new place")
                data = (moved / "bare-flat.vmdk").read_bytes()
                self.assertEqual(digest(data), self.moments(self.vm)[-1]["scsi0:2"])
            self.appliance.command("folder", "move", self.vm.uuid, "-")
            wait_equal(lambda: directory.exists() and set(os.listdir(directory)), entries, "it is back", BOUND)
        self.appliance.command("folder", "remove", "shelf")

    def test_a_template_needs_none(self):
        path = self.directory(self.template) / "disk-flat.vmdk"
        self.assertTrue(path.read_bytes()[HEADER.stop:] == self.template.flat().read_bytes()[HEADER.stop:])
        self.assertEqual([call for call in self.appliance.agent_calls() if call.get("uuid") == self.template.uuid], [])

    def test_choices_for_a_vm_reach_the_agent(self):
        for key, value in (("quiesce_enabled", "1"), ("snap_suffix", "of the night")):
            self.appliance.command("vm", self.vm.name, key, value)
        self.addCleanup(self.appliance.command, "vm", self.vm.name, "quiesce_enabled", "0")
        with self.running(self.vm):
            with Reader(self.directory(self.vm) / "disk-flat.vmdk", direct=True) as reader:
                reader.read(0, SECTOR)
                found = self.appliance.snapshots(self.vm.name)
                self.assertEqual([(snapshot["name"], snapshot["quiesced"], snapshot["whose"]) for snapshot in found],
                                 [(f"{OWN} of the night", True, "ours")])
        wait_equal(lambda: self.status(self.vm)["snap_suffix"], "", "the suffix was for one snapshot")


if __name__ == "__main__":
    place.main()
