"""Following a datastore: what is new, changed, doubtful, gone; datastores that vanish."""

import errno
import os
import re
import shutil
import unittest
from unittest import mock

from fixture import FLAT_SIZE, OLD, TemporaryCase, delta_disk, flat_disk, make_vm, uuid_of, vmx_text, write

from mirador_appliance.datastores import Datastore, Volumes
from mirador_appliance.facts import VmxDisk, VmxRecord
from mirador_appliance.places import Places
from mirador_appliance.watch import Watch

REAL_STAT = os.stat


class Reader:
    """Reads the few keys of this test's configuration files; counts how often."""

    def __init__(self):
        self.read_paths = []

    def read(self, paths):
        self.read_paths += [os.path.basename(path) for path in paths]
        return [self._record(path) for path in paths]

    @staticmethod
    def _record(path):
        with open(path, encoding="utf-8") as file:
            text = file.read()
        values = dict(re.findall(r'(?m)^([\w.:]+) = "([^"]*)"$', text))
        if not values:
            return VmxRecord(path, error="no setting at all")
        disks = tuple(VmxDisk(value) for key, value in values.items() if key.endswith(".fileName"))
        return VmxRecord(path, values["displayName"], (values["uuid.bios"],), "", disks)


class Following(TemporaryCase):
    def setUp(self):
        super().setUp()
        self.home = self.directory / "ds1"
        self.home.mkdir()
        self.reader = Reader()
        self.watch = self.new_watch()

    def new_watch(self, settle=3600):
        store = Datastore("ds1", None, str(self.home))
        return Watch(store, Volumes([store], Places(self.directory)), self.reader, settle)

    def look(self):
        """({VM name: facts} of new and changed VMs, vmx_paths that are gone)."""
        look = self.watch.look()
        return {facts["name"]: facts for chunk in look.chunks for facts in chunk}, look.gone

    def assert_look(self, names, gone=()):
        found, left = self.look()
        self.assertEqual((sorted(found), sorted(left)), (sorted(names), sorted(gone)))
        return found

    def test_only_what_has_changed_is_read(self):
        for number, name in enumerate(("a", "b")):
            make_vm(self.home, name, number)
        make_vm(self.home / "deep" / "er", "c", 3, suffix=".vmtx")
        for name in (".vmx", "x.VMX", "x.vmxf", "x.vmsd"):
            write(self.home / "a" / name, "")
        for directory in (".hidden", "~snapshot"):
            write(self.home / directory / "h.vmx", vmx_text("h", uuid_of(9)))
        os.symlink(self.home, self.home / "loop")
        self.assert_look(["a", "b", "c"])
        self.assert_look([])
        self.assertEqual(sorted(self.reader.read_paths), ["a.vmx", "b.vmx", "c.vmtx"])

        flat_disk(self.home / "a" / "a_1.vmdk")
        write(self.home / "a" / "a.vmx", vmx_text("renamed", uuid_of(0), "a.vmdk", "a_1.vmdk"))
        shutil.rmtree(self.home / "b")
        os.rename(self.home / "deep", self.home / "moved")
        found = self.assert_look(["renamed", "c"], ["b/b.vmx", "deep/er/c/c.vmtx"])
        self.assertEqual(len(found["renamed"]["disks"]), 2)
        self.assertEqual(found["c"]["vmx_path"], "moved/er/c/c.vmtx")

    def test_everything_that_facts_rest_on_is_followed(self):
        make_vm(self.home, "a", 1)
        delta_disk(self.home / "a" / "a-000001.vmdk", "a.vmdk")
        write(self.home / "a" / "a.vmx", vmx_text("a", uuid_of(1), "a-000001.vmdk"))
        self.assert_look(["a"])
        delta = self.home / "a" / "a-000001-delta.vmdk"
        steps = {
            "snapshot database appears": lambda: write(self.home / "a" / "a.vmsd", 'snapshot0.displayName = "x"\n'),
            "base descriptor": lambda: os.utime(self.home / "a" / "a.vmdk", (OLD + 1, OLD + 1)),
            "delta shrinks": lambda: (os.truncate(delta, 3), os.utime(delta, (OLD, OLD))),
        }
        for what, step in steps.items():
            with self.subTest(what):
                step()
                found = self.assert_look(["a"])
                self.assert_look([])
        self.assertEqual((found["a"]["snapshots"], found["a"]["disks"][0]["head_extent_size"]), (["x"], 3))

    def test_file_just_written_is_read_once_more(self):
        path = make_vm(self.home, "a", 1)
        os.utime(path)
        self.assert_look(["a"])
        before = path.stat()
        path.write_text(path.read_text().replace('"a"', '"z"'))  # within the clock's last step, of the same size
        os.utime(path, ns=(before.st_atime_ns, before.st_mtime_ns))
        self.assert_look(["z"])

    def test_running_vm_is_told_now_and_then(self):
        path = make_vm(self.home, "a", 1)
        flat = path.with_name("a-flat.vmdk")
        os.utime(delta_disk(path.with_name("a-000001.vmdk"), "a.vmdk").with_name("a-000001-delta.vmdk"))
        write(path, vmx_text("a", uuid_of(1), "a-000001.vmdk"))
        self.assert_look(["a"])
        os.utime(flat, (OLD + 1, OLD + 1))
        with open(path.with_name("a-000001-delta.vmdk"), "ab") as delta:
            delta.write(b"more")
        self.assert_look([])
        self.watch = self.new_watch(settle=0)
        self.assert_look(["a"])
        os.utime(flat, (OLD + 2, OLD + 2))
        self.assert_look(["a"])
        self.assert_look([])

    def test_change_for_the_worse_is_believed_the_second_time(self):
        path = make_vm(self.home, "a", 1)
        text = path.read_text()
        self.assert_look(["a"])
        write(path, "")
        self.assert_look([])
        write(path, text + "\n")  # it was only half written
        self.assertEqual(self.assert_look(["a"])["a"]["problems"], [])
        os.remove(path.with_name("a-flat.vmdk"))
        self.assert_look([])
        self.assertEqual(len(self.assert_look(["a"])["a"]["problems"]), 1)
        self.assert_look([])
        flat = path.with_name("a-flat.vmdk")
        flat.touch()
        os.truncate(flat, FLAT_SIZE)
        self.assertEqual(self.assert_look(["a"])["a"]["problems"], [])

    def test_directory_that_cannot_be_read_is_not_gone(self):
        make_vm(self.home, "a", 1)
        self.assert_look(["a"])
        with mock.patch("mirador_appliance.tree.os.stat", side_effect=lambda path: _stat(path, self.home / "a")):
            self.assert_look([])
        self.assert_look([])


def _stat(path, broken):
    if path == str(broken):
        raise OSError(errno.EIO, "Input/output error")
    return REAL_STAT(path)


if __name__ == "__main__":
    unittest.main()
