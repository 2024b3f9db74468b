"""Faults of the controller, the shadow tmpfs and a datastore: the daemon neither dies, hangs, spins nor leaks, and the
tree is whole again with the next generation."""

import contextlib
import os
import time

from harness import place
from harness.compare import first_difference
from harness.daemon import EXPORT
from harness.disks import datastore
from harness.inventory import SHADOW, InventoryCase, by_group, tree
from harness.machines import machine
from harness.tools import WORK, wait_equal, wait_until

HOST_A, HOST_B = "esx-a.example", "esx-b.example"

AT_REST = 8  # connections that the daemon has at most while it waits, and two pipes for the agent of each hypervisor


class ControllerFaults(InventoryCase):
    options = ("-O", "size=512k,nr_inodes=1000,mode=0755")
    settings = {"export.cache.ttl": "600"}
    open_at_rest: dict[str, int] = {}

    @classmethod
    def make_machines(cls):
        cls.a, cls.b = datastore("faults-a"), datastore("faults-b")
        cls.on_a = [machine(cls.a, f"a-{number}") for number in range(8)]
        cls.on_b = [machine(cls.b, f"b-{number}") for number in range(2)]
        cls.template = machine(cls.a, "template", template=True)
        return [f"{HOST_A}:{cls.a.directory}", f"{HOST_B}:{cls.b.directory}"]

    def setUp(self):
        if not self.open_at_rest:
            type(self).open_at_rest = self.open_files()
        self.addCleanup(self.check_recovery)

    def check_recovery(self):
        """After each test: with the faults gone, a change arrives, all VMs are there and no descriptor is kept."""
        self.appliance.set_faults()
        on = not self.status(self.on_a[0])["use_cbt"]
        self.appliance.command("vm", "a-0", "use_cbt", str(int(on)))
        self.wait_tree({**by_group(HOST_A, [*self.on_a[1:], self.template]), **by_group(HOST_B, self.on_b),
                        f"{HOST_A}/a-0": self.on_a[0].entries(companions=on)})
        self.assertIsNone(first_difference(EXPORT / HOST_A / "template" / "disk-flat.vmdk", self.template.flat()))
        wait_equal(self.open_files, self.open_at_rest, "no file is kept open")
        wait_until(lambda: self.connections() <= AT_REST, "no connection is kept")

    def bump(self, *vms):
        """Has the controller announce a new generation, in which these VMs have changed."""
        self.appliance.command("refresh", *(vms or ["a-1"]))

    # Answers

    def test_one_hypervisor_fails(self):
        """What another hypervisor has is none the worse for it."""
        before = self.shadow_files(f"{HOST_A}/a-2")
        start = self.appliance.count()
        self.appliance.set_faults({"object": "vhost", "query": f"hv_hostname={HOST_B}", "status": 500})
        added = machine(self.a, "added")
        self.addCleanup(added.remove)
        self.wait_tree(by_group(HOST_A, [added, *self.on_a[1:]]))
        self.assertIn(500, {request["status"] for request in self.requests(start, "vhost")})
        self.assertEqual(self.shadow_files(f"{HOST_A}/a-2"), before)

    def test_a_controller_that_hangs_or_answers_at_once(self):
        """The tree answers all the while, and the daemon waits without being busy."""
        for what, fault in {
            "no answer in a cycle": {"object": "folder", "hang": 3},
            "one answer, at once": {"object": "fs_sync", "query": "type=wait", "body": '{"genId": "9-9"}'},
        }.items():
            with self.subTest(what):
                self.appliance.set_faults(fault)
                start, used = self.appliance.count(), self.cpu_seconds()
                self.bump()
                end = time.monotonic() + 4
                while time.monotonic() < end:
                    began = time.monotonic()
                    self.assertIn(f"{HOST_A}/a-2", tree())
                    self.assertLess(time.monotonic() - began, 1, "seconds for a listing")
                    time.sleep(0.25)
                self.assertLess(self.cpu_seconds() - used, 1, "processor time")
                self.assertLess(self.appliance.count() - start, 60, "requests")

    # The shadow tmpfs

    @staticmethod
    def shadow_files(vm):
        """What changes when one of a VM's files is written anew."""
        return {entry.name: (entry.inode(), entry.stat().st_mtime_ns) for entry in os.scandir(SHADOW / vm)}

    def test_the_shadow_tmpfs_is_full(self):
        """What does not fit is told, what is there stays, and all is well once there is room."""
        filler = SHADOW / "filler"
        with open(filler, "wb", buffering=0) as file, contextlib.suppress(OSError):
            while True:
                file.write(bytes(4096))
        vm = machine(self.a, "no-space")
        self.addCleanup(vm.remove)
        self.wait_alert("vm_discovery", f"{HOST_A}:no-space", "No space left on device")
        self.wait_tree(by_group(HOST_A, self.on_a[1:]))
        filler.unlink()
        self.bump("no-space")
        self.wait_tree(by_group(HOST_A, [vm]))
        self.wait_alert("vm_discovery", f"{HOST_A}:no-space", None)

    # A datastore

    def test_a_datastore_vanishes_and_returns(self):
        vms = by_group(HOST_A, [*self.on_a[1:], self.template])
        away = WORK / "away"
        self.a.directory.rename(away)
        try:
            self.wait_alert("datastore", self.a.name, "cannot be read")
            self.bump("a-3", "template")
            self.wait_taken_over()
            self.wait_tree(vms)
            with self.assertRaises(OSError):
                (EXPORT / HOST_A / "a-3" / "disk.vmdk").read_bytes()
        finally:
            away.rename(self.a.directory)
        self.wait_alert("datastore", self.a.name, None)
        self.wait_tree(vms)


if __name__ == "__main__":
    place.main()
