"""Every kind of disk chain comes out of the mount byte for byte as qemu-img reads it."""

import os
import random

from harness import place
from harness.case import DaemonCase
from harness.compare import data_windows, first_difference, straddling_reads, wrong_reads
from harness.disks import (KIB, MIB, SECTOR, base_disk, cowd_delta, datastore, raw_image, reference, sparse_delta)
from harness.tools import WORK

# A disk that is no multiple of a grain, nor of what one grain table covers (32 MiB), nor of a page.
ODD_SIZE = 66 * MIB + 64 * KIB + 5 * SECTOR
GRAIN = 64 * KIB
GRAIN_TABLE = 32 * MIB


def scattered_writes(size, seed, count=24):
    """Ranges of whole sectors all over a disk, the last sector among them."""
    rng = random.Random(seed)
    writes = [(size - SECTOR, SECTOR)]
    for _ in range(count):
        sectors = rng.randrange(1, 200 * KIB // SECTOR)
        first = rng.randrange(0, size // SECTOR - sectors)
        writes.append((first * SECTOR, sectors * SECTOR))
    return writes


def chain_of(parent, depth, delta, count=3, **options):
    """`depth` disks on each other, each with a few writes of its own."""
    disk = parent
    for number in range(1, depth):
        disk = delta(disk, scattered_writes(disk.size, number, count), seed=number, **options)
    return disk


class Chains(DaemonCase):
    @classmethod
    def setUpClass(cls):
        cls.store = datastore("chains")
        super().setUpClass()

    def image(self, size=ODD_SIZE):
        return raw_image(WORK / f"{self._testMethodName}.img", size, seed=size)

    def check(self, disk, edges, whole=True):
        """Exports a disk and compares it with its reference: all of it or where it has data, then at the edges."""
        path, truth = self.daemon.export_disk(disk), reference(disk)
        self.assertEqual(os.stat(path).st_size, disk.size)
        if whole:
            self.assertIsNone(first_difference(path, truth))
        else:
            self.assertEqual(wrong_reads(path, truth, data_windows(truth)), [])
        self.assertEqual(wrong_reads(path, truth, straddling_reads([0, *edges, disk.size])), [])

    def test_monolithic_flat(self):
        self.check(base_disk(self.store, "flat", self.image()), [MIB])

    def test_monolithic_sparse_without_parent(self):
        """A grain that the base lacks is zeros."""
        disk = base_disk(self.store, "sparse", self.image(), "monolithicSparse")
        self.check(disk, [GRAIN, GRAIN_TABLE, 2 * GRAIN_TABLE, disk.size // GRAIN * GRAIN])

    def test_sparse_delta_over_flat(self):
        base = base_disk(self.store, "sparse-delta", self.image())
        writes = [(3 * GRAIN, 4 * GRAIN), (GRAIN_TABLE - SECTOR, 2 * SECTOR), *scattered_writes(base.size, seed=1)]
        self.check(sparse_delta(base, writes), [3 * GRAIN, 7 * GRAIN, GRAIN_TABLE, 2 * GRAIN_TABLE])

    def test_sparse_deltas_over_sparse_base(self):
        base = base_disk(self.store, "sparse-base", self.image(), "monolithicSparse")
        self.check(chain_of(base, 3, sparse_delta, count=12), [GRAIN_TABLE])

    def test_cowd_delta(self):
        """Grains of one sector, the kind that hypervisors make; qemu-img reads it as well."""
        base = base_disk(self.store, "cowd", self.image())
        table = 4096 * SECTOR
        writes = [(table - SECTOR, 3 * SECTOR), *scattered_writes(base.size, seed=2)]
        self.check(cowd_delta(base, writes), [SECTOR, table, 2 * table])

    def test_split_delta_over_split_flat(self):
        """Extents of 2 GiB, most of them holes."""
        border, size = 2048 * MIB, 2100 * MIB + 3 * SECTOR
        base = base_disk(self.store, "split", self.image(size), "twoGbMaxExtentFlat")
        writes = [(border - 3 * SECTOR, 6 * SECTOR), (border + 10 * MIB, GRAIN), (size - SECTOR, SECTOR)]
        disk = sparse_delta(base, writes, "twoGbMaxExtentSparse")
        self.check(base, [border], whole=False)
        self.check(disk, [border], whole=False)

    def test_chain_of_32(self):
        base = base_disk(self.store, "deepest", self.image(35 * MIB + SECTOR))
        self.check(chain_of(base, 32, sparse_delta), [GRAIN_TABLE])

    def test_head_deep_in_a_chain(self):
        """A disk that others depend on is exported beside them, from the same files."""
        base = base_disk(self.store, "middle", self.image(5 * MIB))
        middle = sparse_delta(base, scattered_writes(base.size, seed=4, count=5))
        head = sparse_delta(middle, scattered_writes(base.size, seed=5, count=5))
        for disk in (head, base, middle):
            self.check(disk, [])

    def test_ordinary_root_maps_flat_disks_only(self):
        store = datastore("ordinary", direct=False)
        flat = base_disk(store, "ordinary", self.image(3 * MIB + SECTOR))
        self.check(flat, [MIB])
        delta = sparse_delta(flat, [(0, SECTOR)])
        self.assert_open_fails(self.daemon.export_disk(delta), 5, "Flat file .* do not match")


if __name__ == "__main__":
    place.main()
