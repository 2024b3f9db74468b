"""Disks are read without what their guests do not use: copies are whole, and the controller is told exactly what was
read and what was skipped."""

import concurrent.futures
import json
import os
import pathlib
import random
import re

from harness import census, place
from harness.compare import Reader, first_difference
from harness.daemon import EXPORT
from harness.disks import KIB, MIB, SECTOR, base_disk, datastore
from harness.inventory import InventoryCase
from harness.machines import machine
from harness.tools import WORK, run, wait_equal, wait_until

_BITMAPS = pathlib.Path("/inuse_bitmap")
_HEADER = range(2 * SECTOR, 3 * SECTOR)  # where the export shows a header of its own
_PASSES = 60  # seconds, within which some passes of the statistics fall
_READ, _SKIPPED = "vmdk_bytes_read", "vmdk_bytes_skipped"
_START = MIB  # of the disk's one partition
_SIZE = 64 * MIB


class Guest:
    """A disk with one partition and an ext4 file system in it. What is free holds old bytes, as on a disk in use; some
    of them were files."""

    def __init__(self, name: str, seed: int):
        rng = random.Random(seed)
        files, partition = WORK / f"{name}-files", WORK / f"{name}.partition"
        files.mkdir()
        for number in range(60):
            (files / f"f{number}").write_bytes(rng.randbytes(rng.choice((0, 1, 600, 4 * KIB, 70 * KIB, 300 * KIB))))
        old = rng.randbytes(MIB)
        with open(partition, "wb") as file:
            file.truncate(_SIZE)
            for offset in range(0, _SIZE, 4 * MIB):
                file.seek(offset)
                file.write(old)
        run("mkfs.ext4", "-q", "-F", "-E", "nodiscard", "-d", files, partition)
        for number in range(0, 60, 3):
            run("debugfs", "-w", "-R", f"rm /f{number}", partition)
        self._free = [(_START + offset, size) for offset, size in _free(partition)]
        self.image = WORK / f"{name}.img"
        run("dd", f"if={partition}", f"of={self.image}", "bs=1M", "seek=1", "conv=sparse", "status=none")
        partition.unlink()
        with open(self.image, "ab") as disk:
            disk.write(old[:3 * SECTOR])  # behind the partition
        run("sfdisk", "-q", "--no-reread", self.image,
            text_input=f"label: dos\nstart={_START // SECTOR}, size={_SIZE // SECTOR}, type=83\n")

    @property
    def size(self) -> int:
        return self.image.stat().st_size

    @property
    def free_bytes(self) -> int:
        return sum(size for _, size in self._free)

    def bitmap(self) -> bytes:
        """The sectors in use, all beside the partition among them."""
        sectors = self.size // SECTOR
        used = bytearray(b"\xff" * ((sectors + 7) // 8))
        for offset, size in self._free:
            for sector in range(offset // SECTOR, (offset + size) // SECTOR):
                used[sector // 8] &= ~(1 << sector % 8)
        return bytes(used)

    def without_free(self) -> pathlib.Path:
        """The disk with zeros in what is free."""
        path = self.image.with_suffix(".used")
        run("cp", "--sparse=always", self.image, path)
        with open(path, "r+b") as file:
            for offset, size in self._free:
                file.seek(offset)
                file.write(bytes(size))
        return path


def _free(partition: pathlib.Path) -> list[tuple[int, int]]:
    """Free stretches, (offset, size) in bytes, as the file system tells them."""
    text = run("dumpe2fs", partition)
    block = int(re.search(r"(?m)^Block size: +(\d+)", text)[1])
    found = []
    for line in re.findall(r"(?m)^  Free blocks: (.*)$", text):
        for first, last in re.findall(r"(\d+)(?:-(\d+))?", line):
            found.append((int(first) * block, (int(last or first) - int(first) + 1) * block))
    return found


class SmartRead(InventoryCase):
    # A bitmap has the name of its disk's mapping, known while the disk is being opened: there the daemon waits.
    environment = {"MIRADOR_FAULT_POINTS": ",".join(["open.pdev=wait:2"] * 3)}

    @classmethod
    def make_machines(cls):
        _BITMAPS.mkdir()
        store = datastore("smart")
        cls.guest = Guest("guest", 1)
        base_disk(store, "guest", cls.guest.image)
        machine(store, "guest", template=True)
        cls.plain = machine(store, "plain", disks=("counted.vmdk", "last.vmdk"), template=True)
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
        assert len(re.findall("PDEV_STATS for /", cls.daemon.log())) == 1, "the guest's reader is closed"

    @staticmethod
    def open_with_bitmap(path: pathlib.Path, bits: bytes) -> Reader:
        """Opens a disk for the first time; it has this bitmap."""
        before = census.mappings()
        with concurrent.futures.ThreadPoolExecutor(1) as pool:
            opening = pool.submit(Reader, path, direct=True)
            wait_until(lambda: census.mappings() - before, "the mapping stands")
            [name] = census.mappings() - before
            (_BITMAPS / name).write_bytes(bits)
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

    def test_copy_of_a_guest(self):
        guest, path, copy = self.guest, EXPORT / "esx.example" / "guest" / "disk-flat.vmdk", WORK / "copy"
        with self.open_with_bitmap(path, guest.bitmap()) as reader:
            copy.write_bytes(b"".join(reader.read(at, MIB) for at in range(0, guest.size, MIB)))
        self.assertIsNone(first_difference(copy, guest.without_free(), _HEADER))
        expected = {_READ: guest.size - guest.free_bytes, _SKIPPED: guest.free_bytes}
        wait_equal(lambda: {key: self.record(path).get(key) for key in expected}, expected, "all is reported", _PASSES)

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
