"""Damaged and hostile disks: an open is refused at whatever step it meets the fault, the reason is told, nothing is
kept, and the daemon serves on. What is refused at all is the unit tests' subject."""

import dataclasses
import errno
import os
import pathlib
import shutil

from harness import place
from harness.case import DaemonCase
from harness.compare import first_difference
from harness.disks import KIB, MIB, SECTOR, Disk, base_disk, datastore, raw_image, reference, sparse_delta
from harness.tools import WORK

OUTSIDE = WORK / "outside"
HEAD, BASE, FLAT = "disk-000001.vmdk", "disk.vmdk", "disk-flat.vmdk"


def replace(file, make):
    """Puts something else in a file's place; `make` gets its path."""
    def spoil(vm):
        (vm / file).unlink()
        make(vm / file)
    return spoil


def name_extent(name):
    """Another extent in the base's descriptor."""
    def spoil(vm):
        content = (vm / BASE).read_bytes()
        (vm / BASE).write_bytes(content.replace(b'"disk-flat.vmdk"', b'"' + os.fsencode(name) + b'"'))
    return spoil


def spoil_magic(vm):
    with open(vm / HEAD, "r+b") as image:
        image.write(b"what")


# What is done to a copy of a good disk, a sparse delta over a flat base, and the number and text that are told.
FAULTS = {
    "no descriptor": (lambda vm: (vm / HEAD).unlink(), errno.ENOENT, "000001.vmdk: No such file"),
    "wrong magic": (spoil_magic, errno.EINVAL, "wrong magic number of a sparse extent.*disk-000001"),
    "descriptor is a FIFO": (replace(HEAD, os.mkfifo), errno.EINVAL, "not a regular file"),
    "descriptor links outside": (replace(HEAD, lambda path: path.symlink_to(OUTSIDE / BASE)), errno.EINVAL,
                                 "outside every datastore"),
    "parent links outside": (replace(BASE, lambda path: path.symlink_to(OUTSIDE / BASE)), errno.EINVAL,
                             "outside every datastore"),
    "extent outside": (name_extent("/etc/shadow"), errno.EINVAL, "outside every datastore: /etc/shadow"),
    "extent links outside": (replace(FLAT, lambda path: path.symlink_to("/etc/shadow")), errno.EINVAL,
                             "outside every datastore"),
    "extent is a FIFO": (replace(FLAT, os.mkfifo), errno.EINVAL, "not a (regular )?file"),
    "no extent": (lambda vm: (vm / FLAT).unlink(), errno.ENOENT, "No such file"),
    "extent is cut": (lambda vm: os.truncate(vm / FLAT, MIB - SECTOR), errno.EIO, "Flat file .* do not match"),
}


class BadInput(DaemonCase):
    @classmethod
    def setUpClass(cls):
        cls.store = datastore("bad")
        image = raw_image(WORK / "bad.img", MIB, seed=3)
        cls.flat = base_disk(cls.store, "flat", image)
        cls.sparse = sparse_delta(base_disk(cls.store, "sparse", image), [(0, 100 * KIB)])
        shutil.copytree(cls.flat.descriptor.parent, OUTSIDE)
        super().setUpClass()

    def copy(self, vm: str) -> Disk:
        directory = self.store.vm(vm)
        shutil.copytree(self.sparse.descriptor.parent, directory, dirs_exist_ok=True)
        return dataclasses.replace(self.sparse, descriptor=directory / HEAD)

    def test_disks(self):
        for number, (what, (spoil, error, text)) in enumerate(FAULTS.items()):
            with self.subTest(what):
                disk = self.copy(f"spoiled-{number}")
                spoil(disk.descriptor.parent)
                path = self.daemon.export_disk(disk)
                with self.assert_nothing_kept():
                    self.assert_open_fails(path, error, text)
        self.assertIsNone(first_difference(self.daemon.export_disk(self.sparse), reference(self.sparse)))

    def test_headers_in_the_shadow_tree(self):
        """Also one that the kernel has looked up while it was good."""
        good = self.daemon.export_disk(self.flat, "shadow/disk-flat.vmdk")
        shadow = pathlib.Path("/export.shadow/shadow")
        header = (shadow / good.name).read_bytes()
        for name, content, numbers in (("short", header[:959], [errno.ENOKEY]),
                                       ("random", os.urandom(960), [errno.EINVAL]),
                                       (good.name, os.urandom(960), [errno.EIO, errno.EINVAL])):
            with self.subTest(name), self.assert_nothing_kept():
                if name == good.name:
                    os.stat(good)
                (shadow / name).write_bytes(content)
                with self.assertRaises(OSError) as raised:
                    os.close(os.open(good.with_name(name), os.O_RDONLY))
                self.assertIn(raised.exception.errno, numbers)
        (shadow / good.name).write_bytes(header)
        self.assertEqual(os.listdir(good.parent), [good.name])
        self.assertIsNone(first_difference(good, reference(self.flat)))


if __name__ == "__main__":
    place.main()
