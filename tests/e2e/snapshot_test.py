"""Backups of running VMs: a copy of a disk holds what the disk held at the moment of the snapshot, those of one VM are
of one moment, and behind the backup the VM is as it was, with all that its guest wrote."""

import concurrent.futures
import contextlib
import errno
import fcntl
import hashlib
import itertools
import os
import shutil
import threading
import time

from harness import census, place, snapshots
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import MIB, SECTOR, datastore, partition, raw_image
from harness.guests import RunningMachine, contents
from harness.inventory import SHADOW, InventoryCase
from harness.machines import machine
from harness.tools import WORK, run, saved_error, wait_equal, wait_until

HOST = "esx.example"
CLOCK_FACTOR = 20  # the daemon's seconds in one of the clock on the wall
PASS = 15 / CLOCK_FACTOR  # seconds between two looks of the daemon for disks and snapshots to let go
BOUND = 90  # seconds within which a snapshot goes, with much to spare

USERS_OWN = "before the update"
HEADER = slice(2 * SECTOR, 3 * SECTOR)  # where a partitioned disk's copy has the disk's description: it has to be free

_seeds = itertools.count(1)


def copy_all(source, target):
    target.mkdir()
    for name in os.listdir(source):
        run("dd", f"if={source / name}", f"of={target / name}", "bs=64K", "status=none")


def make_disk(vm_directory, name, size, partitioned=True):
    """A disk with random pieces, sector 2 free; without a partition table no copy of it gets a description."""
    path = vm_directory / name
    path.parent.mkdir(parents=True, exist_ok=True)
    image = raw_image(WORK / "disk.img", size, seed=next(_seeds))
    if partitioned:
        partition(image)
    run("qemu-img", "convert", "-f", "raw", "-O", "vmdk", "-o", "subformat=monolithicFlat", image, path)


class BackupCase(InventoryCase):
    environment = {"MIRADOR_CLOCK_FACTOR": str(CLOCK_FACTOR)}

    @classmethod
    def prepare(cls):
        cls.appliance.command("fault", "add", "--method", "create_snapshot", "--moment")

    @staticmethod
    def directory(vm):
        return EXPORT / HOST / vm.name

    @contextlib.contextmanager
    def running(self, *vms):
        """The VMs run inside. Behind it nothing of a snapshot is left, and the disks hold all that was written."""
        for vm in vms:
            wait_equal(lambda vm=vm: {*snapshots.names(vm)} - {USERS_OWN}, set(), f"{vm.name}: no snapshot", BOUND)
        before = {vm.name: self.look(vm) for vm in vms}
        with contextlib.ExitStack() as stack:
            guests = {vm.name: stack.enter_context(RunningMachine(self.appliance, vm, next(_seeds))) for vm in vms}
            yield [guests[vm.name] for vm in vms]
            for vm in vms:
                self.wait_gone(vm, before[vm.name])
            for vm in vms:
                rounds = guests[vm.name].stop()
                self.assertGreater(rounds, 20)
                self.assertTrue(contents(vm) == guests[vm.name].content.after(rounds), f"{vm.name} keeps its writes")
                self.assertEqual(self.look(vm), before[vm.name])

    def look(self, vm):
        """What a backup must leave as it is: files, configuration, snapshots, and the lock."""
        found = [{**snapshot, "age": 0} for snapshot in self.appliance.snapshots(vm.uuid)]
        return self.files(vm), found, self.is_locked(vm)

    @staticmethod
    def files(vm):
        """But for the one that tells that the VM runs."""
        return {name: data for name, data in snapshots.files(vm).items() if not name.endswith(".run.lck")}

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
        names = [found["name"] for found in before[1]]
        wait_equal(lambda: snapshots.names(vm), names, f"{vm.name}: no snapshot", BOUND)
        wait_equal(lambda: self.files(vm), before[0], f"{vm.name}: files as before", BOUND)
        wait_equal(lambda: self.look(vm), before, f"{vm.name} as before", BOUND)
        wait_equal(census.mappings, frozenset(), "no mapping")

    def own_name(self, suffix=""):
        return f"{snapshots.VENDOR}: {self.appliance.status()['settings']['controller.uuid']}{suffix}"

    def moments(self, vm):
        """What the agent says of the snapshots that it made of a VM: for each, node -> digest of the disk."""
        return [{disk["node"]: disk["sha256"] for disk in call["moment"]}
                for call in self.appliance.agent_calls()
                if call.get("uuid") == vm.uuid and "moment" in call]

    def check_copy(self, vm, directory, moment, exported):
        """Copied disks are what they were at a moment. Returns their content."""
        found = {}
        for disk, name in exported.items():
            index = vm.disks.index(disk)
            data = (directory / name).read_bytes()
            if disk != "bare.vmdk":
                self.assertNotEqual(data[HEADER], bytes(SECTOR))
                data = data[:HEADER.start] + bytes(SECTOR) + data[HEADER.stop:]
            self.assertEqual(hashlib.sha256(data).hexdigest(), moment[f"scsi0:{index}"], (directory, name))
            found[index] = data
        return found

    def check_rounds(self, guest, copied):
        """All disks have exactly the same rounds of the guest. Returns the last one."""
        last = max(guest.content.last_round(disk, data) for disk, data in copied.items())
        expected = guest.content.after(last)
        for disk, data in copied.items():
            self.assertTrue(data == expected[disk], f"disk {disk} has the rounds up to {last}, whole and no others")
        return last


EXPORTED = {"disk.vmdk": "disk-flat.vmdk", "sub/disk.vmdk": "disk(1)-flat.vmdk", "bare.vmdk": "bare-flat.vmdk"}
FREE = "free.vmdk"


class Backups(BackupCase):
    """Snapshots go as soon as nobody reads."""
    settings = {"snapshot.max_idle": "0"}

    @classmethod
    def make_machines(cls):
        store = datastore("backups")
        for name in (*EXPORTED, FREE):
            make_disk(store.vm("vm"), name, 4 * MIB if name in ("bare.vmdk", FREE) else 6 * MIB, name != "bare.vmdk")
        cls.vm = machine(store, "vm", disks=(*EXPORTED, FREE), modes={FREE: "independent-persistent"})
        make_disk(store.vm("chain"), "disk.vmdk", 6 * MIB)
        cls.chain = machine(store, "chain")
        for number in range(2):
            snapshots.write_as_guest(cls.chain, next(_seeds), rounds=40)
            if number == 0:
                snapshots.make(cls.chain, USERS_OWN, time.time())
        make_disk(store.vm("template"), "disk.vmdk", 4 * MIB)
        cls.template = machine(store, "template", template=True)
        return [f"{HOST}:{store.directory}"]

    def setUp(self):
        self.wait_tree({f"{HOST}/vm": {"vm.vmx", "vm.cfg", *EXPORTED.values(),
                                       *(name.replace("-flat", "") for name in EXPORTED.values())},
                        f"{HOST}/chain": self.chain.entries(), f"{HOST}/template": self.template.entries()})

    def test_copies_are_of_one_moment(self):
        last = 0
        with self.running(self.vm) as (guest,):
            before = self.look(self.vm)
            for number in range(2):
                made = len(self.moments(self.vm))
                guest.wait_for_rounds(self.vm.disks.index(FREE), self.vm.flat(FREE))
                with Reader(self.directory(self.vm) / "disk-flat.vmdk", direct=True) as reader:
                    reader.read(0, SECTOR)
                    last = self.check_all_copies(guest, self.moments(self.vm)[-1], number, last)
                self.assertEqual(len(self.moments(self.vm)), made + 1, "one snapshot for all of them")
                self.wait_gone(self.vm, before)

    def check_all_copies(self, guest, moment, number, newer_than):
        """While the guest goes on. Returns the last round of the copies, which is newer than another one."""
        free = self.vm.flat(FREE)
        self.assertEqual([name for name in os.listdir(self.vm.directory) if name.startswith("free-0")], [])
        for turn in range(2):
            guest.wait_for_rounds(self.vm.disks.index(FREE), free)
            target = WORK / f"copy-{number}-{turn}"
            copy_all(self.directory(self.vm), target)
            copied = self.check_copy(self.vm, target, moment, EXPORTED)
            shutil.rmtree(target)
        last = self.check_rounds(guest, copied)
        self.assertGreater(last, newer_than)
        self.assertGreater(guest.content.last_round(self.vm.disks.index(FREE), free.read_bytes()), last + 40,
                           "the independent disk goes on")
        return last

    def test_a_users_snapshot_stays(self):
        base = self.chain.flat().read_bytes()
        with self.running(self.chain) as (guest,):
            with Reader(self.directory(self.chain) / "disk-flat.vmdk", direct=True) as reader:
                reader.read(0, SECTOR)
                self.assertEqual([found["name"] for found in self.appliance.snapshots("chain")],
                                 [USERS_OWN, self.own_name()])
                copy_all(self.directory(self.chain), WORK / "chain")
            copied = self.check_copy(self.chain, WORK / "chain", self.moments(self.chain)[-1],
                                     {"disk.vmdk": "disk-flat.vmdk"})
            self.assertGreater(self.check_rounds(guest, copied), 0)
        self.assertTrue(self.chain.flat().read_bytes() == base, "what the user's snapshot froze")

    def test_readers_share_a_snapshot(self):
        """Of two VMs, several readers at a time; the last one holds it for as long as it likes."""
        made = {vm.name: len(self.moments(vm)) for vm in (self.vm, self.chain)}
        disks = [(self.vm, name) for name in (*EXPORTED, "disk.vmdk")] + [(self.chain, "disk.vmdk")] * 2
        ready, opened = threading.Barrier(len(disks)), threading.Barrier(len(disks))

        def read(vm, disk):
            ready.wait(BOUND)
            path = self.directory(vm) / EXPORTED[disk]
            with Reader(path) as reader:
                opened.wait(BOUND)  # a disk that is closed early takes its VM's snapshot away
                return {(vm.name, disk): b"".join(reader.read(at, MIB) for at in range(0, path.stat().st_size, MIB))}

        with self.running(self.vm, self.chain):
            with Reader(self.directory(self.vm) / "bare-flat.vmdk", direct=True) as longest:
                with concurrent.futures.ThreadPoolExecutor(len(disks)) as pool:
                    read_by_all = list(pool.map(read, *zip(*disks)))
                moments = {vm.name: self.moments(vm) for vm in (self.vm, self.chain)}
                for found in read_by_all:
                    for (vm, disk), data in found.items():
                        data = data if disk == "bare.vmdk" else data[:HEADER.start] + bytes(SECTOR) + data[HEADER.stop:]
                        node = f"scsi0:{list(EXPORTED).index(disk)}"
                        self.assertEqual(hashlib.sha256(data).hexdigest(), moments[vm][-1][node], (vm, disk))
                time.sleep(3 * PASS)
                data = b"".join(longest.read(at, MIB) for at in range(0, 4 * MIB, MIB))
                self.assertEqual(hashlib.sha256(data).hexdigest(), moments["vm"][-1]["scsi0:2"])
            self.assertEqual({vm: len(found) for vm, found in moments.items()}, {vm: n + 1 for vm, n in made.items()})

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
                with Reader(moved / "bare-flat.vmdk") as other:
                    data = b"".join(other.read(at, MIB) for at in range(0, 4 * MIB, MIB))
                self.assertEqual(hashlib.sha256(data).hexdigest(), self.moments(self.vm)[-1]["scsi0:2"])
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
                                 [(self.own_name(" of the night"), True, "ours")])
        wait_equal(lambda: self.status(self.vm)["snap_suffix"], "", "the suffix was for one snapshot")


class Reuse(BackupCase):
    """A snapshot is kept for a while after its last reader."""
    settings = {"snapshot.max_idle": "200"}  # of the daemon's seconds

    @classmethod
    def make_machines(cls):
        store = datastore("reuse")
        for name in ("disk.vmdk", "other.vmdk"):
            make_disk(store.vm("vm"), name, 4 * MIB)
        cls.vm = machine(store, "vm", disks=("disk.vmdk", "other.vmdk"))
        return [f"{HOST}:{store.directory}"]

    def setUp(self):
        self.wait_tree({f"{HOST}/vm": self.vm.entries()})

    def backup(self, disk):
        """Copies a disk; its content."""
        target, name = WORK / "reuse", f"{disk[:-5]}-flat.vmdk"
        target.mkdir(exist_ok=True)
        run("dd", f"if={self.directory(self.vm) / name}", f"of={target / name}", "bs=64K", "status=none")
        return self.check_copy(self.vm, target, self.moments(self.vm)[-1], {disk: name})

    def test_a_later_reader_finds_it_again(self):
        with self.running(self.vm) as (guest,):
            before = self.look(self.vm)
            copied = self.backup("disk.vmdk")
            wait_until(lambda: "ref = 0, remove" in self.daemon.log(), "nobody uses the snapshot any more", BOUND)
            copied |= self.backup("other.vmdk")
            self.assertEqual(len(self.moments(self.vm)), 1)
            last = self.check_rounds(guest, copied)
            self.wait_gone(self.vm, before)
            self.assertGreater(self.check_rounds(guest, self.backup("disk.vmdk")), last)
            self.assertEqual(len(self.moments(self.vm)), 2)

    def test_a_snapshot_that_somebody_removes_is_opened_no_more(self):
        path = self.directory(self.vm) / "disk-flat.vmdk"
        with self.running(self.vm) as (guest,):
            with Reader(path, direct=True) as reader:
                reader.read(0, SECTOR)
                made = len(self.moments(self.vm))
                self.appliance.command("snapshot", "remove", "--own", self.vm.name, self.own_name())

                def refusal():
                    try:
                        Reader(path).__exit__()
                    except OSError:
                        return saved_error(path)[0]
                    return None
                wait_equal(refusal, errno.ESTALE, "it cannot be opened")
            self.check_rounds(guest, self.backup("disk.vmdk"))
            self.assertEqual(len(self.moments(self.vm)), made + 1)


if __name__ == "__main__":
    place.main()
