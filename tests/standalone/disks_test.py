"""Disk chains and the facts that rest on them: what is told of disks that can be exported, and why others cannot."""

import os
import struct
import unittest

from fixture import FLAT_SIZE, SECTOR, TemporaryCase, delta_disk, descriptor, flat_disk, vmx_text, write

from mirador_appliance.datastores import Datastore, Volumes, publish
from mirador_appliance.facts import VmxDisk, VmxRecord, gather
from mirador_appliance.faults_told import Refused
from mirador_appliance.places import Places
from mirador_appliance.vmsd import snapshots

SECTORS = FLAT_SIZE // SECTOR


class Disks(TemporaryCase):
    def setUp(self):
        super().setUp()
        self.places = Places(self.directory / "root")
        self.store = self.add_store("ds1")
        self.home = self.directory / "ds1" / "vm"
        self.home.mkdir()

    def add_store(self, name):
        (self.directory / name).mkdir()
        store = Datastore(name, None, str(self.directory / name))
        publish(store, self.places)
        return store

    def facts(self, *disks, working_dir="", stores=()):
        volumes = Volumes([self.store, *stores], self.places)
        path = str(write(self.home / "vm.vmx", vmx_text("vm", "1", *disks)))
        record = VmxRecord(path, "vm", (), working_dir, tuple(map(VmxDisk, disks)))
        return gather(record, self.store, volumes)[0]

    def test_chain(self):
        flat_disk(self.home / "a.vmdk", newline="\r\n")
        delta_disk(self.home / "a-000001.vmdk", "a.vmdk")
        delta_disk(self.home / "a-000002.vmdk", "/vmfs/volumes/ds1/vm/a-000001.vmdk")
        facts = self.facts("a-000002.vmdk")
        self.assertEqual(facts["problems"], [])
        self.assertEqual(facts["disks"], [{
            "name": "a.vmdk", "independent": 0, "thin": 0, "capacity": FLAT_SIZE,
            "base_ascii_path": "/vmfs/volumes/ds1/vm/a.vmdk", "base_extent_path": "/vmfs/volumes/ds1/vm/a-flat.vmdk",
            "base_ascii_size": (self.home / "a.vmdk").stat().st_size, "base_extent_size": FLAT_SIZE,
            "head_ascii_path": "/vmfs/volumes/ds1/vm/a-000002.vmdk",
            "head_extent_path": "/vmfs/volumes/ds1/vm/a-000002-delta.vmdk",
            "head_ascii_size": (self.home / "a-000002.vmdk").stat().st_size, "head_extent_size": 4,
        }])

    def test_descriptor_inside_its_sparse_extent(self):
        flat_disk(self.home / "a.vmdk")
        text = descriptor(f'RW {SECTORS} SPARSE "b.vmdk"', parent="a.vmdk").encode()
        header = struct.pack("<4sIIQQQQ", b"KDMV", 1, 3, SECTORS, 128, 1, 20).ljust(SECTOR, b"\0")
        (self.home / "b.vmdk").write_bytes(header + text.ljust(20 * SECTOR, b"\0"))
        disk, = self.facts("b.vmdk")["disks"]
        self.assertEqual((disk["head_ascii_path"], disk["head_extent_path"], disk["name"]),
                         ("/vmfs/volumes/ds1/vm/b.vmdk", "/vmfs/volumes/ds1/vm/b.vmdk", "a.vmdk"))

    def test_what_cannot_be_exported_is_told(self):
        flat_disk(self.home / "whole.vmdk")
        flat_disk(self.home / "grown.vmdk", 2 * FLAT_SIZE)
        write(self.home / "grown.vmdk", descriptor(f'RW {SECTORS} VMFS "grown-flat.vmdk"'))
        os.mkfifo(self.home / "pipe.vmdk")
        (self.home / "out").symlink_to("/etc")
        two = [f'RW {SECTORS} FLAT "whole-flat.vmdk" 0'] * 2
        cases = {
            "absent": (None, "absent.vmdk: cannot be read: No such file or directory"),
            "split": (descriptor(*two), "split into 2 extents"),
            "sparse": (descriptor(f'RW {SECTORS} SPARSE "whole-flat.vmdk"'), "of type SPARSE"),
            "raw": (descriptor(f'RW {SECTORS} VMFSRDM "whole-flat.vmdk"'), "extents of type VMFSRDM"),
            "nofile": (descriptor(f'RW {SECTORS} VMFS "gone-flat.vmdk"'), "gone-flat.vmdk: the extent is missing"),
            "grown": (None, f"its flat file has {2 * FLAT_SIZE} bytes instead of {FLAT_SIZE}"),
            "orphan": (descriptor(f'RW {SECTORS} VMFSSPARSE "x"', parent="gone.vmdk"), "gone.vmdk: cannot be read"),
            "loop": (descriptor(f'RW {SECTORS} VMFSSPARSE "x"', parent="loop.vmdk"), "has no end"),
            "outside": (descriptor(f'RW {SECTORS} VMFS "/etc/passwd"'), "lies outside the datastores"),
            "above": (descriptor(f'RW {SECTORS} VMFS "../../../passwd"'), "lies outside the datastores"),
            "link": (descriptor(f'RW {SECTORS} VMFS "out/passwd"'), "lies outside the datastores"),
            "pipe": (None, "pipe.vmdk: cannot be read: no regular file"),
            "nul\0": (None, "is no file's name"),
            "elsewhere": (descriptor(f'RW {SECTORS} VMFSSPARSE "x"', parent="/vmfs/volumes/ds9/a.vmdk"),
                          "lies on datastore ds9, which is not served"),
            "empty": ("", "names no extent"),
            "extent": ("COWD", "an extent, not a descriptor"),
        }
        for name, (text, why) in cases.items():
            with self.subTest(name):
                if text is not None:
                    write(self.home / f"{name}.vmdk", text)
                facts = self.facts("whole.vmdk", f"{name}.vmdk")
                self.assertEqual([disk["name"] for disk in facts["disks"]], ["whole.vmdk"])  # the other is not harmed
                (item, told), = facts["problems"]
                self.assertEqual(item, f"{name}.vmdk")
                self.assertIn(why, told)

    def test_configuration_file_outside(self):
        (self.home / "vm.vmx").symlink_to(write(self.directory / "outside.vmx", vmx_text("vm", "1")))
        (_, told), = self.facts()["problems"]
        self.assertIn("lies outside the datastores", told)

    def test_disk_is_looked_for_where_snapshots_go_first(self):
        other = self.add_store("ds2")
        work = self.directory / "ds2" / "work"
        flat_disk(self.home / "a.vmdk")
        work.mkdir()
        facts = self.facts("a.vmdk", working_dir="/vmfs/volumes/ds2/work", stores=[other])
        self.assertEqual(facts["working_directory"], "/vmfs/volumes/ds2/work")
        self.assertEqual(facts["disks"][0]["head_ascii_path"], "/vmfs/volumes/ds1/vm/a.vmdk")
        flat_disk(work / "a.vmdk")
        facts = self.facts("a.vmdk", working_dir="/vmfs/volumes/ds2/work", stores=[other])
        self.assertEqual(facts["disks"][0]["head_ascii_path"], "/vmfs/volumes/ds2/work/a.vmdk")

    def test_second_name_of_a_datastore(self):
        (self.places.volumes / "friendly").symlink_to(self.directory / "ds1")
        flat_disk(self.home / "a.vmdk")
        disk, = self.facts("/vmfs/volumes/friendly/vm/a.vmdk")["disks"]
        self.assertEqual(disk["head_ascii_path"], "/vmfs/volumes/ds1/vm/a.vmdk")

    def test_place_that_is_taken_is_refused(self):
        (self.directory / "other" / "ds1").mkdir(parents=True)
        with self.assertRaisesRegex(Refused, "is there already"):
            publish(Datastore("ds1", None, str(self.directory / "other" / "ds1")), self.places)

    def test_snapshots(self):
        path = write(self.directory / "vm.vmsd", '.encoding = "UTF-8"\nsnapshot.numSnapshots = "3"\n'
                     'snapshot10.displayName = "last"\nsnapshot0.displayName = "a|22b|C3|A4"\n'
                     'snapshot0.createTimeHigh = "404838"\nsnapshot0.createTimeLow = "-1"\n'
                     'snapshot1.displayName = "x"\nsnapshot1.description = "displayName"\n'
                     'snapshot1.createTimeHigh = "soon"\nsnapshot2.createTimeLow = "1"\n', "\r\n")
        made = ((404838 << 32) + 0xffffffff) // 1_000_000
        self.assertEqual(snapshots(str(path)), [('a"bä', made), ("x", 0), ("last", 0)])
        self.assertEqual(snapshots(str(path) + ".none"), [])
        write(path, f'snapshot{"1" * 5000}.displayName = "x"\n')
        self.assertEqual(snapshots(str(path)), [])
        path.unlink()
        os.mkfifo(path)
        with self.assertRaises(OSError):
            snapshots(str(path))


if __name__ == "__main__":
    unittest.main()
