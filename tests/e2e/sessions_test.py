"""Many clients and many files: sharing, parallel reads, the limit of open files and eviction."""

import contextlib
import errno
import os
import pathlib
import random
import threading

from harness import census, place
from harness.case import DaemonCase
from harness.compare import Reader, first_difference
from harness.daemon import EXPORT, Entry
from harness.disks import (KIB, MIB, SECTOR, base_disk, cowd_delta, datastore, partition, raw_image, reference,
                           sparse_delta)
from harness.tools import WORK, Failed, run, saved_error, xattr

MAX_SESSION = 50


def device_of(path):
    return xattr(path, "devicemapper_path").rstrip(b"\0").decode()


class Sessions(DaemonCase):
    @classmethod
    def setUpClass(cls):
        cls.store = datastore("sessions")
        cls.image = raw_image(WORK / "sessions.img", 6 * MIB + SECTOR, seed=11)
        super().setUpClass()

    def setUp(self):
        self.opened = contextlib.ExitStack()
        self.addCleanup(self.opened.close)

    def open(self, path):
        """Holds a file open until the test ends or the result is closed."""
        return self.opened.enter_context(open(path, "rb", buffering=0))

    def export_small(self, count, directory):
        """Files that are opened without a mapping and take a place in the table all the same."""
        real = self.store.vm("small") / "vm.vmx"
        real.write_bytes(b"text")
        names = [f"{directory}/{number}.vmx" for number in range(count)]
        self.daemon.export(*(Entry(name, self.store.link(real), "vmx") for name in names))
        return [EXPORT / name for name in names]

    def test_opens_of_a_disk_share_its_mapping(self):
        disk = sparse_delta(base_disk(self.store, "shared", self.image), [(MIB, MIB)])
        path, truth = self.daemon.export_disk(disk), reference(disk)
        with self.assert_nothing_kept():
            os.stat(path)
        before = census.take()
        first = self.open(path)
        after = census.take()
        device = device_of(path)
        loop_name = path.with_name(path.stem + ".vmdk-cbt-losetup")
        second, by_loop_name = self.open(path), self.open(loop_name)
        self.assertEqual(census.take(), after)
        self.assertEqual(after.mappings - before.mappings, {os.path.basename(device)})
        self.assertEqual(len(after.loops - before.loops), 2)
        self.assertEqual(device_of(path), device)
        self.assertIsNone(first_difference(loop_name, truth))
        for opened in (first, second, by_loop_name):
            opened.close()
        with self.open(path):
            self.assertEqual(device_of(path), device, "a disk is kept ready for the next open")

    def test_parallel_readers(self):
        """32 at once over cached and direct descriptors of four disks, which they open and close all the time."""
        base = base_disk(self.store, "parallel", self.image)
        middle = cowd_delta(base, [(MIB, 100 * KIB), (5 * MIB, 3 * SECTOR)])
        head = cowd_delta(middle, [(2 * MIB, 100 * KIB), (base.size - SECTOR, SECTOR)], seed=2)
        disks = (base, middle, head, sparse_delta(base_disk(self.store, "parallel2", self.image), [(0, MIB)]))
        work = [(self.daemon.export_disk(disk), reference(disk).read_bytes()) for disk in disks]
        wrong = []

        def read(number):
            rng = random.Random(number)
            for turn in range(5):
                path, truth = work[(number + turn) % len(work)]
                with Reader(path, direct=number % 2 == 0) as reader:
                    for _ in range(20):
                        offset, size = rng.randrange(len(truth)), rng.randrange(1, 300 * KIB)
                        if reader.read(offset, size) != truth[offset:offset + size]:
                            wrong.append((number, path, offset, size))

        def read_and_tell(number):
            try:
                read(number)
            except OSError as error:
                wrong.append((number, error))

        threads = [threading.Thread(target=read_and_tell, args=(number,), daemon=True) for number in range(32)]
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join(timeout=60)
        self.assertEqual((wrong, [thread for thread in threads if thread.is_alive()]), ([], []))

    def test_full_table_evicts_the_longest_idle_disk(self):
        """A disk that is open is never evicted, and one that was is mapped anew when it is opened again."""
        disks = [base_disk(self.store, f"evicted{number}", self.image) for number in range(2)]
        old, busy = (self.daemon.export_disk(disk) for disk in disks)
        self.open(old).close()
        held = self.open(busy)
        first_device, busy_device = device_of(old), device_of(busy)
        for path in self.export_small(2 * MAX_SESSION, "filling"):
            self.open(path).close()
        self.assertEqual(device_of(old), "")
        self.assertNotIn(os.path.basename(first_device), census.mappings())
        self.assertFalse([loop for loop in census.loops() if str(disks[0].base_extent) in loop])
        self.assertEqual(device_of(busy), busy_device)
        self.assertEqual(held.read(MIB), self.image.read_bytes()[:MIB])
        self.assertIsNone(first_difference(old, self.image))
        self.assertNotEqual(device_of(old), first_device)

    def test_device_that_fails(self):
        """Reads tell the error, but for the header's alone; the next mapping reads again."""
        image = WORK / "failing.img"
        image.write_bytes(self.image.read_bytes())
        partition(image)
        path = self.daemon.export_disk(base_disk(self.store, "failing", image))
        header = range(2 * SECTOR, 3 * SECTOR)
        with Reader(path, direct=True) as reader:
            expected = reader.read(header.start, SECTOR)
            self.assertEqual(expected[:4], b"KVDH")
            device = pathlib.Path(device_of(path))
            if device.is_block_device():
                run("blockdev", "--flushbufs", device)
            with self.assertRaises(Failed):  # what is open stays, without data
                run(self.daemon.dmsetup(), "remove", "-f", device.name)
            for offset, size in ((0, 4096), (header.stop, SECTOR), (MIB, 100), (header.start - 1, SECTOR),
                                 (header.start, 4096), (header.start + 100, SECTOR)):
                with self.assertRaises(OSError) as raised:
                    reader.read(offset, size)
                self.assertEqual(raised.exception.errno, errno.EIO)
            self.assertEqual(saved_error(path)[0], errno.EIO)
            self.assertEqual(reader.read(header.start, SECTOR), expected)
        for filling in self.export_small(MAX_SESSION, "evicting"):
            self.open(filling).close()
        self.assertIsNone(first_difference(path, image, skip=header))


if __name__ == "__main__":
    place.main()
