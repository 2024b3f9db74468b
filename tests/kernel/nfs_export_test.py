#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The mount given on by a kernel NFS server, as docs/clients.md says.

    VM_NFS=1 tests/kernel/run-vm tests/kernel/nfs_export_test.py"""

import errno
import os
import pathlib

import nfs

from harness import place
from harness.case import DaemonCase
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import MIB, base_disk, datastore, raw_image
from harness.tools import WORK, run

EXPORT_LINE = f"{EXPORT} 127.0.0.1(ro,no_root_squash,no_subtree_check,fsid=7,mp)"
CLIENT = pathlib.Path("/client")  # "/mnt" in its path would have the daemon unmount it
VMS = ("one", "two")
BLOCK = 1 << 16


class NfsExport(DaemonCase):
    options = ("-o", "noforget")

    @classmethod
    def setUpClass(cls):
        store = datastore("store")
        images = {vm: raw_image(WORK / f"{vm}.img", 2 * MIB, seed) for seed, vm in enumerate(VMS)}
        cls.truth = {vm: image.read_bytes() for vm, image in images.items()}
        cls.disks = {vm: base_disk(store, vm, image) for vm, image in images.items()}
        nfs.start(f"{WORK} 127.0.0.1(ro,fsid=1)")
        super().setUpClass()
        nfs.export_instead(EXPORT_LINE)
        nfs.mount(EXPORT, CLIENT, "hard,ro")
        cls.addClassCleanup(run, "umount", "-l", CLIENT)
        cls.expose(VMS)

    @classmethod
    def expose(cls, vms):
        for vm in vms:
            cls.daemon.export_disk(cls.disks[vm])

    @staticmethod
    def served(vm):
        return CLIENT / vm / "disk-flat.vmdk"

    def check(self):
        self.assertEqual(sorted(os.listdir(CLIENT)), sorted(VMS))
        for vm in VMS:
            self.assertEqual(os.stat(self.served(vm)).st_ino, os.stat(EXPORT / vm / "disk-flat.vmdk").st_ino)
            self.assertTrue(self.served(vm).read_bytes() == self.truth[vm], vm)

    def test_reads(self):
        """Whole files, and one on and on while the server forgets everything in between."""
        self.check()
        with Reader(self.served("one")) as reader:
            for offset in range(0, 2 * MIB, 8 * BLOCK):
                nfs.forget_cached()
                self.assertTrue(reader.read(offset, BLOCK) == self.truth["one"][offset:offset + BLOCK], offset)

    def test_restart(self):
        """Nothing else shows while the daemon is away. Who begins anew then reads the right files; to who goes on with
        an open one the server may give another, which the inode's number tells from it."""
        self.check()
        with Reader(self.served("one")) as reader:
            self.daemon.stop()
            with self.assertRaises(OSError):
                os.listdir(CLIENT)
            self.daemon.start()
            self.expose(reversed(VMS))
            for vm in reversed(VMS):
                os.stat(EXPORT / vm / "disk-flat.vmdk")
            nfs.forget_cached()
            with self.assertRaises(OSError) as raised:
                reader.read(0, BLOCK)
            self.assertEqual(raised.exception.errno, errno.ESTALE)
        self.check()


if __name__ == "__main__":
    place.main()
