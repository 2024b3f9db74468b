"""Disks are read without what their guests do not use: copies are whole, and the controller is told exactly what was
read and what was skipped."""

import concurrent.futures
import contextlib
import errno
import json
import os
import pathlib
import re

from file_systems import Guest
from harness import place
from harness.compare import Reader, first_difference
from harness.daemon import EXPORT
from harness.disks import KIB, MIB, SECTOR, base_disk, datastore
from harness.inventory import InventoryCase
from harness.machines import machine
from harness.tools import WORK, saved_error, wait_equal, wait_until

_BITMAPS = pathlib.Path("/inuse_bitmap")
_MAPPINGS = pathlib.Path("/dev/mapper")
_HEADER = range(2 * SECTOR, 3 * SECTOR)  # where the export shows a header of its own
_PASSES = 60  # seconds, within which some passes of the statistics fall
_READ, _SKIPPED = "vmdk_bytes_read", "vmdk_bytes_skipped"
_PLAIN = ("missing.vmdk", "short.vmdk", "directory.vmdk")


def _mappings() -> set[str]:
    with contextlib.suppress(FileNotFoundError):
        return set(os.listdir(_MAPPINGS)) - {"control"}
    return set()


def _copy(reader: Reader, size: int, path: pathlib.Path) -> None:
    """Reads a whole disk, each byte once; zeros become holes."""
    with open(path, "wb") as file:
        file.truncate(size)
        for offset in range(0, size, MIB):
            data = reader.read(offset, MIB)
            if len(data) != min(MIB, size - offset):
                raise AssertionError(f"{len(data)} bytes at {offset}")
            if data.strip(b"\0"):
                file.seek(offset)
                file.write(data)


class SmartRead(InventoryCase):
    # A bitmap has the name of its disk's mapping, known while the disk is being opened: there the daemon waits.
    environment = {"MIRADOR_FAULT_POINTS": ",".join(["open.pdev=wait:2"] * (len(_PLAIN) + 4))}

    @classmethod
    def make_machines(cls):
        _BITMAPS.mkdir()
        store = datastore("smart")
        cls.readers = []  # names of the devices that were read with their bitmaps
        cls.guest = Guest("guest", 1)
        base_disk(store, "guest", cls.guest.image)
        machine(store, "guest", template=True)
        cls.plain = machine(store, "plain", disks=(*_PLAIN, "cut.vmdk", "counted.vmdk", "last.vmdk"), template=True)
        return [f"esx.example:{store.directory}"]

    def setUp(self):
        self.wait_tree({"esx.example/plain": self.plain.entries()})

    @classmethod
    def _stop_all(cls):
        """A disk that is read just before the end is reported all the same."""
        try:
            path = cls.exported("last")
            with Reader(path, direct=True) as reader:
                reader.read(0, 256 * KIB)
                start = cls.appliance.count()
            cls.daemon.stop()
            assert cls.record(path)[_READ] == 256 * KIB, cls.record(path)
            assert [entry for entry in cls.entries(path, start) if "vmdk_last_read_time" not in entry], "closed"
        finally:
            super()._stop_all()
        closed = re.findall(r"PDEV_STATS for /(\S+): ", cls.daemon.log())
        assert sorted(closed) == sorted(cls.readers), f"{closed}, not {cls.readers}"

    def open(self, path: pathlib.Path, publish) -> Reader:
        """Opens a disk for the first time; `publish` is called with the path that its bitmap has."""
        before = _mappings()
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            opening = pool.submit(Reader, path, direct=True)
            wait_until(lambda: _mappings() - before, "the mapping stands")
            [name] = _mappings() - before
            publish(_BITMAPS / name)
            return opening.result(timeout=60)

    @staticmethod
    def exported(name):
        """A disk of the plain VM."""
        return EXPORT / "esx.example" / "plain" / f"{name}-flat.vmdk"

    @classmethod
    def record(cls, path):
        return cls.appliance.status()["statistics"].get("/" + os.fspath(path.relative_to(EXPORT)), {})

    @classmethod
    def entries(cls, path, start=0):
        """What was reported of a file, report by report."""
        bodies = (json.loads(request["body"]) for request in cls.appliance.journal(start)
                  if request["object"] == "vmstats")
        return [entry for body in bodies for entry in body
                if entry["vmdk_path"] == "/" + os.fspath(path.relative_to(EXPORT))]

    def open_with_bitmap(self, path: pathlib.Path, bits: bytes) -> tuple[Reader, pathlib.Path]:
        """Opens a disk that has this bitmap; returns the bitmap's path as well."""
        def publish(bitmap: pathlib.Path) -> None:
            bitmap.write_bytes(bits)
            self.readers.append(bitmap.name)

        return self.open(path, publish), _BITMAPS / self.readers[-1]

    def test_copy_of_a_guest(self):
        guest, path, copy = self.guest, EXPORT / "esx.example" / "guest" / "disk-flat.vmdk", WORK / "copy"
        with self.open_with_bitmap(path, guest.bitmap())[0] as reader:
            _copy(reader, guest.size, copy)
        self.assertIsNone(first_difference(copy, guest.without_free(), _HEADER))
        expected = {_READ: guest.size - guest.free_bytes, _SKIPPED: guest.free_bytes}
        wait_equal(lambda: {key: self.record(path).get(key) for key in expected}, expected, "all is reported", _PASSES)

    def test_disk_without_a_whole_bitmap_is_read_plainly(self):
        def publish(bitmap: pathlib.Path) -> None:
            if disk == "short.vmdk":
                bitmap.write_bytes(bytes(MIB // SECTOR // 8 - 1))
            elif disk == "directory.vmdk":
                bitmap.mkdir()

        for disk in _PLAIN:
            with self.subTest(disk):
                path = EXPORT / "esx.example" / "plain" / self.plain.flat(disk).name
                with self.open(path, publish) as reader:
                    self.assertEqual(reader.read(0, MIB), self.plain.flat(disk).read_bytes())

    def test_bitmap_that_becomes_too_short(self):
        """What it no longer tells cannot be read; nothing of the disk is left out in silence."""
        truth = self.plain.flat("cut.vmdk").read_bytes()
        path = self.exported("cut")
        reader, bitmap = self.open_with_bitmap(path, b"\xff" * (MIB // SECTOR // 8))
        with reader:
            os.truncate(bitmap, 128)
            self.assertEqual(reader.read(0, MIB // 2), truth[:MIB // 2])
            with self.assertRaises(OSError) as raised:
                reader.read(MIB // 2, 4 * KIB)
            self.assertEqual(raised.exception.errno, errno.EIO)
            self.assertRegex(saved_error(path)[1], "^optimize_byte_read : pread size 1 bytes, start 128, ")
            reader.read(0, 4 * KIB)

    def test_both_streams_are_counted_exactly(self):
        path = self.exported("counted")
        descriptor = path.with_name("counted.vmdk")
        self.assertEqual(descriptor.read_bytes()[:1], b"#")  # no disk: not counted
        with Reader(path, direct=True) as reader, Reader(f"{path}-cbt-losetup", direct=True) as second:
            for offset, size in ((0, 4 * KIB), (64 * KIB, 512), (MIB - 8 * KIB, 128 * KIB), (MIB, 4 * KIB)):
                reader.read(offset, size)
            second.read(0, 36 * KIB)
        expected = {"vmdk_flat_file_size": MIB, _READ: 12 * KIB + 512, _SKIPPED: 0, f"{_READ}2": 36 * KIB}
        wait_equal(lambda: {key: self.record(path).get(key) for key in expected}, expected, "all is reported", _PASSES)
        self.assertEqual(self.record(descriptor), {})
        # The size comes by itself, before the first counters.
        self.assertEqual(set(self.entries(path)[0]), {"vmdk_path", "vmdk_flat_file_size"})


if __name__ == "__main__":
    place.main()
