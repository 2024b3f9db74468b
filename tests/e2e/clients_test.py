"""The tools that people back up with, twice, with another life of the daemon in between."""

import contextlib
import time

from harness import clients, place, snapshots
from harness.cbt_case import DISKS, CbtCase
from harness.compare import Reader
from harness.disks import MIB
from harness.guests import RunningMachine
from harness.snapshot_case import next_seed
from harness.tools import WORK, run

DISKS.update(disk=6 * MIB, bare=4 * MIB)
QUIET, RUNNING, TRACKED = VMS = ("quiet", "running", "tracked")
HEADED = {f"{QUIET}/disk-flat.vmdk"}  # only its header tells of another snapshot
DESCRIPTORS = {f"{QUIET}/{disk}.vmdk" for disk in DISKS}  # removing a snapshot gives a disk another content id
CFGS = {f"{vm}/vm.cfg" for vm in VMS}  # their trailers tell when they were opened


def flats(*vms):
    return {f"{vm}/{disk}-flat.vmdk" for vm in vms for disk in DISKS}


class Clients(CbtCase):
    """Of three VMs nobody writes to the first; a guest writes to the second all the time, over a user's snapshot; the
    changes of the third, which come between the two backups, are tracked."""

    percent = 100
    settings = CbtCase.settings | {"snapshot.max_idle": "100000"}  # one snapshot of a VM for each life of the daemon

    @classmethod
    def vm_names(cls):
        return VMS

    @classmethod
    def prepare(cls):
        super().prepare()
        for name in (QUIET, RUNNING):
            cls.appliance.command("cbt", name, "off")
        snapshots.make(cls.vms[RUNNING], "before the update", 1000)
        cls.samba = clients.Samba()
        cls.addClassCleanup(cls.samba.stop)

    def setUp(self):
        for vm in self.vms.values():
            self.wait_exported(vm)

    def test_two_backups(self):
        restic, borg, rsync = clients.Restic(), clients.Borg(), clients.Rsync()
        with RunningMachine(self.appliance, self.vms[RUNNING], next_seed()) as guest:
            self.assert_looking_takes_no_snapshot()
            self.assert_tar_is_content_with_a_held_vm()
            with self.one_moment() as first:
                self.check_whole_copies(first)
                self.check_first(first, rsync, restic, borg)
            self.write(self.vms[TRACKED])
            self.daemon.stop()
            self.daemon.start()
            self.wait_taken_over()
            self.setUp()
            with self.one_moment() as second:
                self.changed = {name for name in second if second[name] != first[name]}
                self.assert_right_ones_have_changed()
                self.check_whole_copies(second)
                for check, tool in (self.check_rsync, rsync), (self.check_restic, restic), (self.check_borg, borg):
                    with self.subTest(check.__name__):
                        check(tool, second)
            guest.stop()

    # What clients meet

    def assert_looking_takes_no_snapshot(self):
        for look in ("ls", "-lR"), ("find", "-H"), ("du", "-a"):
            run(*look, clients.SOURCE)
        self.assertIn("disk-flat.vmdk", self.samba.listing())
        self.assertEqual([call for call in self.appliance.agent_calls() if call.get("method") == "create_snapshot"], [])

    def assert_tar_is_content_with_a_held_vm(self):
        """Once the kernel has forgotten the times of before the snapshot, they stay as they are."""
        with Reader(self.exported(self.vms[RUNNING])):
            time.sleep(1)
            run("tar", "-C", clients.SOURCE, "-cf", WORK / "held.tar", RUNNING)

    @contextlib.contextmanager
    def one_moment(self):
        """All files are held open. Gives what they hold, which is what the disks held at the moment of their snapshots."""
        with contextlib.ExitStack() as held:
            for name in clients.files():
                held.enter_context(Reader(clients.SOURCE / name))
            for vm in self.vms.values():
                for disk in DISKS:
                    self.assert_is_of_moment(vm, disk, self.exported(vm, disk))
            yield clients.contents()

    def assert_right_ones_have_changed(self):
        of_quiet = {name for name in self.changed if name.startswith(f"{QUIET}/")}
        self.assertEqual(of_quiet, HEADED | DESCRIPTORS)
        self.assertEqual(flats(RUNNING, TRACKED) - self.changed, set())

    # Backups

    def check_whole_copies(self, truth):
        for name, copy in {"cp": clients.cp, "tar": clients.tar, "tar --sparse": lambda: clients.tar("--sparse"),
                           "dd": clients.dd, "smbclient": self.samba.copied}.items():
            with self.subTest(name):
                self.assertEqual(clients.contents(copy()), truth)

    def check_first(self, truth, rsync, restic, borg):
        self.assertEqual(rsync.back_up(), set(truth))
        self.assertEqual(clients.contents(rsync.target), truth)
        restic.first = restic.back_up()
        self.assertEqual(restic.first["files_new"], len(truth))
        self.assertEqual(clients.contents(restic.restored()), truth)
        self.assertEqual(borg.back_up("first"), set(truth))
        self.assertEqual(clients.contents(borg.restored("first")), truth)

    def check_rsync(self, rsync, truth):
        """Looks at sizes and times of modification."""
        copied = rsync.back_up()
        self.assertEqual(copied & flats(*VMS), flats(RUNNING))
        for disk in DISKS:  # of the tracked disk, what has changed was copied
            flat, changes = (rsync.target / TRACKED / f"{disk}-{kind}.vmdk" for kind in ("flat", "corcbt"))
            image = self.restored(flat, changes, f"{disk}.rsync")
            self.assert_is_of_moment(self.vms[TRACKED], disk, image)
        self.assertEqual(rsync.back_up(), set())
        self.assertEqual(rsync.back_up("--checksum"), CFGS | flats(TRACKED) | HEADED)
        self.assertEqual(clients.contents(rsync.target), truth)

    def check_restic(self, restic, truth):
        """Looks at the times of change, too."""
        default = restic.back_up()
        self.assertEqual(restic.changed(restic.first, default), self.changed - HEADED | CFGS)
        again = restic.back_up()
        self.assertEqual((again["files_changed"], again["files_unmodified"], again["data_blobs"]), (0, len(truth), 0))
        by_time = restic.back_up("--ignore-ctime", "--parent", restic.first["snapshot_id"])
        self.assertEqual(restic.changed(default, by_time) & flats(*VMS), flats(TRACKED))
        forced = restic.back_up("--force")
        self.assertEqual(restic.changed(default, forced), CFGS | HEADED)
        self.assertEqual(clients.contents(restic.restored()), truth)

    def check_borg(self, borg, truth):
        """Looks at the times of change, too. It always reads the newest files again: here a disk to which the fast clock
        gave a time to come."""
        borg.back_up("second")
        self.assertEqual(borg.changed("first", "second"), self.changed - HEADED | CFGS)
        for name in "third", "fourth":
            read = borg.back_up(name, "--files-cache=mtime,size")
        self.assertLessEqual(len({file for file in read if file.endswith(".vmdk")}), 1)
        self.assertEqual(borg.back_up("all", "--files-cache=disabled"), set(truth))
        self.assertEqual(clients.contents(borg.restored("all")), truth)


if __name__ == "__main__":
    place.main()
