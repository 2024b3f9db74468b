"""What clients learn through attributes, with the usual tools and in one read into a large buffer, of the tree
that the daemon makes of an inventory."""

import errno
import os
import pathlib
import subprocess

from harness import place, snapshots
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import SECTOR
from harness.inventory import tree
from harness.snapshot_case import SnapshotCase
from harness.tools import run, saved_error, xattr

LARGE = 65536  # bytes of a buffer, the most that the kernel passes on
STRANGER = 12345  # a user who is not root
SICK = "the hypervisor is sick"


def whole(path, name):
    """An attribute read once, as it comes."""
    return xattr(path, name, room=LARGE)


def getfattr(path, name):
    return run("getfattr", "--absolute-names", "--only-values", "-n", name, path)


class Attributes(SnapshotCase):
    settings = SnapshotCase.settings | {"snapshot.max_idle": "100000", "smartread.lvm.enabled": "1"}

    @classmethod
    def vm_names(cls):
        return ["open", "failing", "private"]

    @classmethod
    def make_machines(cls):
        stores = super().make_machines()
        cls.vms["private"].flat().chmod(0o600)
        return stores

    def setUp(self):
        """Whoever waits for a file to come makes errors of its path."""
        for vm in self.vms.values():
            self.wait_exported(vm)
            os.setxattr(self.exported(vm), "user.err_reset", b"")

    def directory(self, vm) -> pathlib.Path:
        return self.exported(vm).parent

    def test_every_attribute_in_a_large_buffer(self):
        vm = self.vms["open"]
        flat, directory = self.exported(vm), self.directory(vm)
        told = {"smartread_lvm_enabled": b"1\0", "user.err_num": b"0\0", "user.err_string": b"\0", "user.err_nu": b""}
        with Reader(flat):
            device = whole(flat, "devicemapper_path")
            self.assertRegex(device, rb"\A/dev/mapper/[^/]+\0\Z")
            self.assertTrue(os.path.exists(device.rstrip(b"\0")))
            expected = {flat: {"devicemapper_path": device, "vm_uuid": vm.uuid.encode() + b"\0"},
                        directory / "vm.cfg": {"devicemapper_path": b"", "vm_uuid": b""}, directory: {}, EXPORT: {}}
            for path, cookies in expected.items():
                for name, value in (cookies | told).items():
                    with self.subTest(path=path, name=name):
                        self.assertEqual(whole(path, name), value)
                        self.assertEqual(xattr(path, name), value, "read for its length first")
                        if len(value) > 1:
                            self.assertEqual(xattr(path, name, room=len(value)), value)
                            with self.assertRaises(PermissionError):
                                xattr(path, name, room=len(value) - 1)
            with self.assertRaises(PermissionError):  # a directory is no disk
                whole(directory, "vm_uuid")

    def test_error_of_one_path_with_the_tools(self):
        vm = self.vms["failing"]
        flat, other = self.exported(vm), self.exported(self.vms["open"])
        loop_file = flat.with_name("disk-flat.vmdk-cbt-losetup")
        self.faults.set(vm.name, {"method": "create_snapshot", "error": errno.EIO, "text": SICK})
        self.addCleanup(self.faults.set, vm.name)
        number, text = self.open_fails(vm)
        self.assertEqual((number, SICK in text), (errno.EIO, True), text)
        for path in (flat, loop_file):
            self.assertEqual(getfattr(path, "user.err_num"), f"{number}\0")
            self.assertEqual(getfattr(path, "user.err_string"), f"{text}\0")
        self.assertNotIn(loop_file.name, os.listdir(flat.parent))
        self.assertEqual(saved_error(other), (0, ""))
        run("setfattr", "-n", "user.err_reset", "-v", "", loop_file)
        self.assertEqual(getfattr(flat, "user.err_num"), "0\0")
        self.assertEqual(getfattr(flat, "user.err_string"), "\0")

    def test_strangers_see_what_the_modes_let_them(self):
        """The mode of a file is its disk's on the datastore."""
        private, public = self.exported(self.vms["private"]), self.exported(self.vms["open"])
        self.assertEqual((private.stat().st_mode & 0o777, public.stat().st_mode & 0o777), (0o600, 0o644))
        attempts = {
            "an attribute of a private disk": ("getfattr", "-n", "user.err_num", private),
            "the bytes of a private disk": ("head", "-c1", private),
            "a loop-file name of a private disk": ("head", "-c1", f"{private}-cbt-losetup"),
            "the reset of an error": ("setfattr", "-n", "user.err_reset", "-v", "1", public),
        }
        for what, command in attempts.items():
            done = subprocess.run([os.fspath(word) for word in command], user=STRANGER, capture_output=True, timeout=60,
                                  text=True, check=False)
            self.assertEqual(done.returncode, 1, what)
            self.assertIn("Permission denied", done.stderr, what)
        self.assertEqual(snapshots.names(self.vms["private"]), [])

    def test_df(self):
        """All of it is used, none of it free; it is as large as the files together, to the block."""
        files = [EXPORT / vm / name for vm, names in tree().items() for name in names]
        used = sum(-(-(path.stat().st_size - 200 * (path.suffix == ".cfg")) // SECTOR) for path in files) * SECTOR
        self.assertEqual({path.stat().st_blksize for path in files}, {131072})
        block = os.statvfs(EXPORT).f_bsize
        told = run("df", "--block-size=1", "--output=size,used,avail,itotal,iused,iavail", EXPORT).splitlines()[1]
        size, in_use, free, inodes, inodes_used, inodes_free = map(int, told.split())
        self.assertEqual((size, in_use, free, inodes_free), (used // block * block, used // block * block, 0, 0))
        self.assertEqual(inodes, inodes_used)
        self.assertGreater(inodes, len(files))


if __name__ == "__main__":
    place.main()
