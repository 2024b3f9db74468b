"""What breaks a series of backups of what changed: resets, disks that grow or that somebody else has written to, posts
that are lost, unexpected change ids. The next series is right, and the records tell the right change ids."""

import errno
import os

from harness import place
from harness.cbt_case import DISKS, CbtCase, split
from harness.compare import Reader
from harness.disks import SECTOR
from harness.snapshot_case import BOUND, HOST, OWN
from harness.tools import WORK, run, saved_error, wait_equal, wait_until


class Breaks(CbtCase):
    @classmethod
    def vm_names(cls):
        return ["reset", "grown", "untracked", "lost", "unexpected", "off", "early", "thawed"]

    def assert_works(self, vm):
        """A full copy and two rounds upon it."""
        base = self.full(vm)
        for _ in range(2):
            self.write(vm)
            self.incremental(vm, base)

    def mtimes(self, vm):
        return {disk: os.stat(self.exported(vm, disk)).st_mtime for disk in DISKS}

    def test_a_reset(self):
        """The change ids become void, the flat disks look changed, and a new series begins."""
        vm = self.vms["reset"]
        self.assert_works(vm)
        old, before = self.known(vm, "disk"), self.mtimes(vm)
        self.assertEqual(self.mtimes(vm), before, "a disk that is written to looks the same without a reset")
        self.appliance.command("cbt", vm.name, "reset")
        wait_until(lambda: all(self.mtimes(vm)[disk] != before[disk] for disk in DISKS), "they look changed", BOUND)
        self.wait_reset(vm)
        self.assertEqual(self.known(vm, "disk"), {})
        self.assert_works(vm)
        self.assertNotEqual(split(self.known(vm, "disk")["changeid"])[0], split(old["changeid"])[0])

    def test_what_changed_before_there_is_a_full_copy(self):
        """All that the disk stores, since nothing is known of an earlier copy; and that is none to count from."""
        vm = self.vms["early"]
        empty = {}
        for disk, size in DISKS.items():
            empty[disk] = WORK / f"empty-{disk}"
            empty[disk].touch()
            os.truncate(empty[disk], size)
        for _ in range(2):
            self.write(vm)
            self.incremental(vm, empty)
            self.assertEqual([self.known(vm, disk).keys() for disk in DISKS], [{"changeid"}] * 2)
        with self.opened(vm, "disk"):
            base = self.full(vm, is_last=False)  # of the snapshot that holds the changed-block file
        self.wait_quiet(vm)
        self.write(vm)
        self.incremental(vm, base)
        self.assertIn("changeid_base", self.known(vm, "disk"))

    def test_who_writes_without_tracking(self):
        """The hypervisor refuses the list, a reset is asked for, and the next series is right."""
        vm = self.vms["untracked"]
        self.full(vm)
        run("qemu-io", "-f", "vmdk", "-c", "write -q -P 7 1M 64K", vm.directory / "bare.vmdk")
        self.write(vm)
        start = len(self.appliance.status()["events"])
        number, _ = self.open_changed_fails(vm, "bare")
        self.assertEqual(number, 8)
        events = self.appliance.status()["events"][start:]
        self.assertEqual([(event["event_name"], event["args"]["uuid"]) for event in events], [("reset_cbt", vm.uuid)])
        self.assertIn("requested auto Changed Block Tracking reset for: untracked", self.daemon.log())
        self.wait_quiet(vm)
        self.wait_reset(vm)
        self.assert_works(vm)

    def test_a_disk_that_grows(self):
        """What has been added is among the changes, and the disk looks changed."""
        vm = self.vms["grown"]
        base, before = self.full(vm), self.mtimes(vm)
        self.write(vm, rounds=2)
        descriptor, size = vm.directory / "bare.vmdk", DISKS["bare"] + 64 * SECTOR
        os.truncate(vm.flat("bare.vmdk"), size)
        old, new = (f"RW {count // SECTOR} ".encode() for count in (DISKS["bare"], size))
        descriptor.write_bytes(descriptor.read_bytes().replace(old, new))
        self.appliance.command("refresh", vm.name)
        wait_equal(lambda: os.stat(self.exported(vm, "bare")).st_size, size, "the disk has grown", BOUND)
        wait_until(lambda: self.mtimes(vm)["bare"] != before["bare"], "it looks changed", BOUND)
        image = self.incremental(vm, base)["bare"]
        self.assertEqual(image.stat().st_size, size)
        self.assert_works(vm)

    def test_a_post_that_is_lost(self):
        """A file whose change id cannot be noted is not served; nor is a full copy without a base."""
        vm = self.vms["lost"]
        base = self.full(vm)
        self.write(vm)
        ids = self.known(vm, "disk")
        self.appliance.set_faults({"object": "vdisk", "method": "POST", "status": 500})
        self.addCleanup(self.appliance.set_faults)
        number, text = self.open_changed_fails(vm)
        self.assertNotEqual(number, 0, text)
        self.assertEqual(self.known(vm, "disk"), ids)
        self.wait_quiet(vm)
        self.appliance.set_faults()
        self.incremental(vm, base)

    def test_an_unexpected_change_id(self):
        """Somebody is told, tracking starts anew, and the alert goes with the reset."""
        vm = self.vms["unexpected"]
        self.assert_works(vm)
        self.faults.set(vm.name, {"method": "cbt_getblocklist", "changeid": "52 01/3", "times": 1})
        number, text = self.open_changed_fails(vm)
        self.assertEqual((number, text), (1005, "Unexpected new changeid: unmatched"))
        told = (f"Unexpected Changed Block Tracking changeid for disk-corcbt.vmdk on VM {vm.name} "
                rf"\(hypervisor: {HOST}\)")
        said = [request["body"] for request in self.appliance.journal() if request["object"] == "alert"]
        self.assertTrue(any("unexpected_changeid" in body for body in said))
        self.assertRegex("".join(said), told)
        self.wait_quiet(vm)
        self.wait_reset(vm)
        self.wait_alert("unexpected_changeid", f"{vm.name}:{HOST}", None)
        self.assert_works(vm)

    def test_a_snapshot_that_somebody_removes(self):
        """What is ready of a changed-block file is served to nobody new: the VM writes to the disk below."""
        vm = self.vms["thawed"]
        base = self.full(vm)
        self.write(vm)

        def refusal():
            try:
                Reader(self.changed(vm, "disk")).__exit__()
            except OSError:
                return saved_error(self.changed(vm, "disk"))[0]
            return None
        with self.opened(vm, "disk"):
            self.appliance.command("snapshot", "remove", "--own", vm.name, OWN)
            wait_equal(refusal, errno.ESTALE, "it cannot be opened", BOUND)
        self.wait_quiet(vm)
        self.incremental(vm, base)

    def test_off(self):
        """The changed-block files go, and so does what was opened before."""
        vm = self.vms["off"]
        self.full(vm)
        self.appliance.command("cbt", vm.name, "off")
        wait_until(lambda: not self.changed(vm, "disk").exists(), "no changed-block file", BOUND)
        self.assertTrue(self.exported(vm).exists())
        self.full(vm)
        self.appliance.command("cbt", vm.name, "on")
        wait_until(self.changed(vm, "bare").exists, "it is back", BOUND)
        self.wait_reset(vm)
        self.assert_works(vm)


if __name__ == "__main__":
    place.main()
