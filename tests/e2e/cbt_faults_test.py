"""Changed-block files when the block-list script fails, gives wrong answers or long ones. Nothing is left of a file
that cannot be made, the records keep their change ids, and the next file is right."""

import os

from harness import place
from harness.cbt_case import DISKS, CbtCase, split
from harness.compare import Reader
from harness.disks import MIB, SECTOR
from harness.machines import machine
from harness.tools import run

SCRIPT = "cbt_getblocklist"
INVALID, WRONG_RESULTS, UNEXPECTED, TIMED_OUT = 22, 1009, 1005, 62


class Answers(CbtCase):
    @classmethod
    def vm_names(cls):
        return ["failing"]

    @classmethod
    def make_machines(cls):
        stores = super().make_machines()
        home = cls.store.vm("long")
        run("qemu-img", "create", "-q", "-f", "vmdk", "-o", "subformat=monolithicFlat", home / "disk.vmdk", "16M")
        run("qemu-img", "create", "-q", "-f", "vmdk", "-o", "subformat=monolithicFlat", home / "bare.vmdk", "128M")
        with open(home / "bare-flat.vmdk", "r+b") as flat:
            for offset in range(0, 128 * MIB, MIB):
                flat.seek(offset)
                flat.write(os.urandom(2 * SECTOR))
        cls.vms["long"] = machine(cls.store, "long", disks=tuple(f"{disk}.vmdk" for disk in DISKS))
        return stores

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.appliance.note(cls.vms["long"].uuid, "bare", corcbt_size_percentage=100)

    def fault(self, vm, **rule):
        self.faults.set(vm.name, {"method": SCRIPT, **rule})
        self.addCleanup(self.faults.set, vm.name)

    def check_failure(self, vm, expected, reset=False):
        """An open fails with one of these numbers and leaves nothing. reset: tracking starts anew."""
        ids = self.known(vm, "disk")
        number, text = self.open_changed_fails(vm)
        self.assertEqual(number, expected, text)
        self.faults.set(vm.name)
        self.wait_quiet(vm)
        if reset:
            self.wait_reset(vm)
            self.assertEqual(self.known(vm, "disk"), {})
        else:
            self.assertEqual(self.known(vm, "disk"), ids)

    def test_script_that_fails(self):
        """In all ways that the daemon tells from each other."""
        vm = self.vms["failing"]
        base = self.full(vm)
        epoch, _ = split(self.known(vm, "disk")["changeid_base"])
        beyond = f"changeid: {epoch}/9\nlength: 1024\nstart: {DISKS['disk'] - 512}\n"
        for what, rule, expected in (("no text", {"garbage": "nonsense"}, WRONG_RESULTS),
                                     ("beyond the end", {"garbage": beyond}, INVALID),
                                     ("a status of its own", {"error": 77}, 77),
                                     ("killed", {"die": "before"}, INVALID), ("silent", {"silence": 1}, TIMED_OUT)):
            with self.subTest(what):
                self.fault(vm, **rule)
                self.check_failure(vm, expected)
        self.write(vm)
        self.incremental(vm, base)
        with self.subTest("no change id, where one is known that changes count from"):
            self.appliance.note(vm.uuid, "disk", changeid_incr=self.known(vm, "disk")["changeid"])
            self.fault(vm, error=5)
            number, _ = self.open_changed_fails(vm)
            self.assertEqual(number, 5)
            self.assertNotIn("changeid_incr", self.known(vm, "disk"), "the next file counts from the full copy")
            self.faults.set(vm.name)
            self.wait_quiet(vm)
            self.incremental(vm, base)
        for what, rule, expected in (("no change id", {"error": 5}, UNEXPECTED), ("a reset", {"error": 8}, 8)):
            with self.subTest(what):
                self.fault(vm, **rule)
                self.check_failure(vm, expected, reset=True)
                base = self.full(vm)
                self.write(vm)
                self.incremental(vm, base)

    def test_lists_of_any_length(self):
        vm = self.vms["long"]
        self.full(vm)
        self.assertEqual(self.changed(vm, "bare").stat().st_size, 128 * MIB)
        flat = vm.flat("bare.vmdk")
        for count in (0, 1, 200_000):
            with self.subTest(count):
                self.fault(vm, extents=count)
                step = 128 * MIB // SECTOR // max(1, count) * SECTOR
                with self.opened(vm, "bare") as changes, Reader(flat) as disk:
                    start = int.from_bytes(changes.read(16, 8), "little")
                    self.assertEqual(int.from_bytes(changes.read(24, 8), "little"), count * SECTOR)
                    for index in {0, *range(0, count, 997), max(0, count - 1)} if count else ():
                        self.assertTrue(changes.read(start + index * SECTOR, SECTOR) == disk.read(index * step, SECTOR))
                    self.assertEqual(len(changes.read(128 * MIB - SECTOR, MIB)), SECTOR)
                self.faults.set(vm.name)
                self.wait_quiet(vm)


if __name__ == "__main__":
    place.main()
