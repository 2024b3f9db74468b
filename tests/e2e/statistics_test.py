"""What the controller is told of reads: exact bytes, by stream, also after it was away and when the daemon ends."""

import json
import os

from harness import place
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import KIB, MIB, datastore
from harness.inventory import InventoryCase
from harness.machines import machine
from harness.tools import wait_equal

_PASSES = 60  # seconds, within which some passes of the statistics fall
_READ, _SKIPPED = "vmdk_bytes_read", "vmdk_bytes_skipped"


class Statistics(InventoryCase):
    @classmethod
    def make_machines(cls):
        store = datastore("statistics")
        cls.vm = machine(store, "template", disks=("one.vmdk", "two.vmdk", "last.vmdk"), template=True)
        return [f"esx.example:{store.directory}"]

    def setUp(self):
        self.wait_tree({"esx.example/template": self.vm.entries()})

    @classmethod
    def _stop_all(cls):
        """A disk that is read just before the end is reported all the same."""
        try:
            path = cls.exported("last-flat.vmdk")
            with Reader(path, direct=True) as reader:
                reader.read(0, 256 * KIB)
                start = cls.appliance.count()
            cls.daemon.stop()
            assert cls.record(path)[_READ] == 256 * KIB, cls.record(path)
            assert [entry for entry in cls.entries(path, start) if "vmdk_last_read_time" not in entry], "closed"
        finally:
            super()._stop_all()

    @classmethod
    def exported(cls, name):
        return EXPORT / "esx.example" / "template" / name

    @staticmethod
    def key(path):
        return "/" + os.fspath(path.relative_to(EXPORT))

    @classmethod
    def record(cls, path):
        return cls.appliance.status()["statistics"].get(cls.key(path), {})

    @classmethod
    def entries(cls, path, start=0):
        """What was reported of a file, report by report."""
        bodies = (json.loads(request["body"]) for request in cls.appliance.journal(start) if request["object"] == "vmstats")
        return [entry for body in bodies for entry in body if entry["vmdk_path"] == cls.key(path)]

    def test_both_streams_are_counted_exactly(self):
        path = self.exported("one-flat.vmdk")
        self.assertEqual(self.exported("one.vmdk").read_bytes()[:1], b"#")  # no disk: not counted
        with Reader(path, direct=True) as reader, Reader(f"{path.with_suffix('.vmdk')}-cbt-losetup", direct=True) as second:
            for offset, size in ((0, 4 * KIB), (64 * KIB, 512), (MIB - 8 * KIB, 128 * KIB), (MIB, 4 * KIB)):
                reader.read(offset, size)
            second.read(0, 36 * KIB)
        expected = {"vmdk_flat_file_size": MIB, _READ: 12 * KIB + 512, _SKIPPED: 0, f"{_READ}2": 36 * KIB}
        wait_equal(lambda: {key: self.record(path).get(key) for key in expected}, expected, "all is reported", _PASSES)
        self.assertNotIn(self.key(self.exported("one.vmdk")), self.appliance.status()["statistics"])
        # The size comes by itself, before the first counters.
        self.assertEqual(set(self.entries(path)[0]), {"vmdk_path", "vmdk_flat_file_size"})


if __name__ == "__main__":
    place.main()
