#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""Changed-block files over images of before, on a kernel with device-mapper: the merged device, what comes out of the
import device, and the image that mirador-restore makes all equal the disk of now, and nothing stays behind.

    tests/kernel/run-vm tests/kernel/corcbt_test.py DIRECTORY_OF_THE_PROGRAMS
"""

import os
import pathlib
import random
import shutil
import struct
import subprocess
import sys
import tempfile
import unittest

PROGRAMS = pathlib.Path(sys.argv.pop(1))
SECTOR = 512
STEP_SECONDS = 300  # the processor is emulated, and often busy with other things
HEADER = struct.Struct("<IIqqqqq64s256sI")
RECORD = struct.Struct("<Iqq")

# Sectors of the disk before and now, and the changed ranges in sectors; None: at random.
CASES = {
    "nothing changed": (2048, 2048, []),
    "one range": (2048, 2048, [(8, 16)]),
    "all changed": (2048, 2048, [(0, 2048)]),
    "both ends": (2048, 2048, [(0, 1), (2047, 1)]),
    "neighbours": (2048, 2048, [(10, 5), (15, 1), (16, 100)]),
    "grown, with changes on both sides of the old end": (2048, 4096, [(100, 8), (2040, 16), (4088, 8)]),
    "grown, changed in the new part only": (2048, 4096, [(3000, 8)]),
    "grown, nothing changed": (2048, 4096, []),
    "made since": (0, 1024, [(0, 512)]),
    "at random": (40_000, 40_000, None),
    "at random, grown": (40_000, 41_001, None),
    "many ranges": (40_000, 40_000, [(sector, 1) for sector in range(0, 40_000, 2)]),
}


def random_ranges(rng, size):
    ranges, at = [], rng.randrange(100)
    while at < size:
        length = min(rng.randrange(1, 200), size - at)
        ranges.append((at, length))
        at += length + rng.randrange(200)
    return ranges


def corcbt(now, ranges):
    """The changed-block file of the ranges of an image."""
    end = HEADER.size + RECORD.size * len(ranges)
    data = -(-end // SECTOR) * SECTOR
    total = SECTOR * sum(length for _, length in ranges)
    parts = [HEADER.pack(0xcbcb1111, 1, HEADER.size, data, total, data + total, len(now), b"52 de/7",
                         b"disk-flat.vmdk", 0)]
    for start, length in ranges:
        last = (start, length) == ranges[-1]
        parts.append(RECORD.pack(0xcbcb5555 if last else 0xcbcb4444, start * SECTOR, length * SECTOR))
    parts.append(bytes(data - end))
    parts.extend(now[start * SECTOR:(start + length) * SECTOR] for start, length in ranges)
    return b"".join(parts)


def standing():
    block = pathlib.Path("/sys/block")
    return {
        "loop devices": {path.parts[3] for path in block.glob("loop*/loop/backing_file")},
        "mappings": {path.read_text() for path in block.glob("dm-*/dm/name")},
        "work files": {path.name for path in pathlib.Path("/tmp").glob("cbt-*")},
    }


class Corcbt(unittest.TestCase):
    def setUp(self):
        self.dir = pathlib.Path(tempfile.mkdtemp())
        self.addCleanup(shutil.rmtree, self.dir)
        self.flat, self.changes, self.image = (self.dir / name for name in ("old", "changes", "new"))

    def run_program(self, name, *args):
        ended = subprocess.run([PROGRAMS / name, *args], stdin=subprocess.DEVNULL, stderr=subprocess.PIPE, text=True,
                               timeout=STEP_SECONDS)
        self.assertEqual((ended.returncode, ended.stderr), (0, ""))

    def made_image(self):
        made = self.image.read_bytes()
        os.unlink(self.image)
        return made

    def check(self, before, now, ranges):
        rng = random.Random(f"{before} {now} {ranges}")
        ranges = random_ranges(rng, now) if ranges is None else ranges
        old = rng.randbytes(before * SECTOR)
        new = bytearray(old.ljust(now * SECTOR, b"\0"))
        for start, length in ranges:
            new[start * SECTOR:(start + length) * SECTOR] = rng.randbytes(length * SECTOR)
        self.flat.write_bytes(old)
        self.changes.write_bytes(corcbt(new, ranges))

        self.run_program("mirador-restore", self.flat, self.changes, "-o", self.image)
        self.assertTrue(self.made_image() == new, "restored")
        self.run_program("corcbt-device", "read", self.flat, self.changes, self.image)
        self.assertTrue(self.made_image() == new, "merged")
        self.assertTrue(self.flat.read_bytes() == old, "the old image has changed")
        self.run_program("corcbt-device", "import", self.flat, self.changes)
        self.assertTrue(self.flat.read_bytes() == new, "imported")

    def test_makes_the_disk_of_now(self):
        left = standing()
        for name, case in CASES.items():
            with self.subTest(name):
                self.check(*case)
                self.assertEqual(standing(), left)


if __name__ == "__main__":
    unittest.main()
