"""Backups of what changed: a full copy and a changed-block file give the disk as it was at the snapshot's moment, byte
for byte, round after round; and the records tell the right change ids."""

import re

from harness import place
from harness.cbt_case import DISKS, CbtCase, split
from harness.compare import Reader
from harness.disks import MIB
from harness.snapshot_case import BOUND, HOST
from harness.tools import program, run, wait_equal, wait_until

ROUNDS = 6


class Rounds(CbtCase):
    @classmethod
    def vm_names(cls):
        return ["rounds", "steps", "little"]

    def test_rounds_over_one_full_copy(self):
        """Each changed-block file holds what changed since the full copy."""
        vm = self.vms["rounds"]
        self.write(vm)
        base = self.full(vm)
        first = {disk: self.known(vm, disk)["changeid_base"] for disk in DISKS}
        header = run(program("mirador-inspect"), "vdsk", base["disk"])
        told = re.search(r"(?m)^change id: (.*)/(\d+)$", header)
        self.assertEqual((re.sub(r"\W", "", told[1]), told[2]), (re.sub(r"\W", "", split(first["disk"])[0]), "1"))
        numbers = []
        for number in range(ROUNDS):
            self.write(vm, rounds=number % 4)
            images = self.incremental(vm, base, inside=lambda: self.write(vm))
            for disk in DISKS:
                ids = self.known(vm, disk)
                self.assertEqual(ids.keys(), {"changeid", "changeid_base"})
                self.assertEqual(ids["changeid_base"], first[disk])
                self.assertEqual(split(ids["changeid"])[0], split(first[disk])[0])
            numbers.append(int(split(self.known(vm, "bare")["changeid"])[1]))
        self.assertEqual(numbers, sorted(set(numbers)), "each snapshot has a number of its own")
        for disk, image in self.full(vm).items():  # a further full copy: the base stays that of the first
            self.assertEqual(image.stat().st_size, images[disk].stat().st_size)
            self.assertEqual(self.known(vm, disk)["changeid_base"], first[disk])

    def test_each_on_the_one_before(self):
        """Where the controller wants shorter files, each is laid over what came of the last one."""
        vm = self.vms["steps"]
        images = self.full(vm)
        for number in range(3):
            self.write(vm)
            for disk in DISKS:
                ids = self.known(vm, disk)
                self.appliance.note(vm.uuid, disk, changeid_incr=ids.get("changeid", ids["changeid_base"]))
            images = self.incremental(vm, images, name=f"step-{number}")
            for disk in DISKS:
                wait_equal(lambda disk=disk: "changeid_incr" in self.known(vm, disk), False, "it is forgotten", BOUND)

    def test_only_what_changed_is_read(self):
        """Nothing at all when nothing changed; the disk's reads count in the second stream."""
        vm = self.vms["little"]
        base = self.full(vm)
        before = self.changed(vm, "bare").stat().st_size
        with Reader(self.changed(vm, "bare")):
            copy = self.copy(self.changed(vm, "bare"), "unchanged")
        self.assertEqual(copy.stat().st_size, before, "as long as it promises to be")
        self.assertEqual(copy.read_bytes()[:4], b"\x11\x11\xcb\xcb")
        self.assertEqual(len(copy.read_bytes().strip(b"\0")[4096:]), 0)
        self.wait_quiet(vm)
        self.write(vm, rounds=1)
        key = f"/{HOST}/{vm.name}/bare-flat.vmdk"
        self.incremental(vm, base)
        read = lambda: self.appliance.status()["statistics"].get(key, {}).get("vmdk_bytes_read2", 0)  # noqa: E731
        wait_until(lambda: read() > 0, "the second stream is reported", BOUND)
        self.assertLess(read(), MIB)


class Promises(CbtCase):
    """Files that promise to hold a hundredth of the disk."""
    percent = 1

    @classmethod
    def vm_names(cls):
        return ["small"]

    def test_more_has_changed_than_the_file_promises(self):
        """Nothing is cut off: the open fails, and the next one finds a file that is large enough."""
        vm = self.vms["small"]
        base = self.full(vm)
        self.write(vm, rounds=8)
        size = self.changed(vm, "disk").stat().st_size
        self.assertLess(size, MIB // 4)
        for disk in DISKS:
            number, text = self.open_changed_fails(vm, disk)
            self.assertEqual(number, 27, text)
            self.assertGreater(self.appliance.record(vm.uuid, disk)["corcbt_size_percentage"], 1)
        self.wait_quiet(vm)
        wait_until(lambda: self.changed(vm, "disk").stat().st_size > size, "it promises more", BOUND)
        self.incremental(vm, base)


if __name__ == "__main__":
    place.main()
