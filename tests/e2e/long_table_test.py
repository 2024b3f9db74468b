"""A disk whose table is too long for one device: it reads as any other, and its mappings go with it.

LONG_TABLE_LINES: lines that the table has at least."""

import dataclasses
import os
import random
import unittest

from harness import census, place
from harness.compare import wrong_reads
from harness.daemon import Daemon
from harness.disks import KIB, MIB, SECTOR, base_disk, datastore, raw_image
from harness.tools import WORK, program, run

LINES = int(os.environ.get("LONG_TABLE_LINES", 510_000))
LINES_OF_A_DEVICE = 500_000


def every_other_sector(base, image):
    """A copy of an image with other bytes in every odd sector, no two of them alike."""
    with open(base, "rb") as old, open(image, "wb") as new:
        for first in range(0, os.stat(base).st_size // SECTOR, 2048):
            part = bytearray(old.read(2048 * SECTOR))
            for sector in range(1, len(part) // SECTOR, 2):
                part[sector * SECTOR:(sector + 1) * SECTOR] = (first + sector).to_bytes(8, "little") * (SECTOR // 8)
            new.write(part)
    return image


class LongTable(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        store = datastore("long")
        image = raw_image(WORK / "long.img", LINES * SECTOR, seed=1)
        base = base_disk(store, "long", image)
        cls.truth = every_other_sector(image, WORK / "long.new")
        head = base.descriptor.with_name("disk-000001.vmdk")
        run(program("cowd-delta"), "--parent-cid", base.content_id(), "--parent-hint", base.descriptor.name, image,
            cls.truth, head, timeout=300)
        os.unlink(image)
        cls.disk = dataclasses.replace(base, descriptor=head, parent=base)

    @staticmethod
    def reads():
        """All kinds of reads at the ends and where two devices meet, and some here and there."""
        rng, size = random.Random(2), LINES * SECTOR
        for edge in (0, *range(LINES_OF_A_DEVICE * SECTOR, size, LINES_OF_A_DEVICE * SECTOR), size):
            for length in (1, SECTOR, 4 * KIB, 128 * KIB, MIB):
                yield from ((max(0, edge - back), length) for back in (length, length // 2, 1, 0))
        yield from ((rng.randrange(size), 70_000) for _ in range(40))

    def start(self):
        daemon = Daemon()
        daemon.start()
        return daemon

    def test_reads_as_its_disk_and_is_cleared_away(self):
        before = census.take()
        first = self.start()
        self.assertEqual(wrong_reads(first.export_disk(self.disk), self.truth, self.reads()), [])
        names = sorted(census.mappings(), key=len)
        parts = -(-LINES // LINES_OF_A_DEVICE)
        self.assertEqual(set(names), {names[0], *(f"{names[0]}-{part}" for part in range(parts))})
        self.assertEqual(census.take().temporary, before.temporary)

        # A start after a kill finds them standing on each other.
        first.kill()
        self.assertEqual(census.mappings(), set(names))
        second = self.start()
        self.assertEqual((census.mappings(), census.loops()), (before.mappings, before.loops))

        self.assertEqual(wrong_reads(second.export_disk(self.disk), self.truth, [(0, MIB)]), [])
        self.assertEqual(len(census.mappings()), parts + 1)
        second.stop()
        self.assertEqual(census.left(before), {})


if __name__ == "__main__":
    place.main()
