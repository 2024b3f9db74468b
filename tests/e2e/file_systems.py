"""The disk of a guest, made without mounting anything: what is on it, and which of its sectors its file system uses."""

import pathlib
import random
import re

from harness.disks import KIB, MIB, SECTOR
from harness.tools import WORK, run

START = MIB  # of the disk's one partition
SIZE = 64 * MIB


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
            file.truncate(SIZE)
            for offset in range(0, SIZE, 4 * MIB):
                file.seek(offset)
                file.write(old)
        run("mkfs.ext4", "-q", "-F", "-E", "nodiscard", "-d", files, partition)
        for number in range(0, 60, 3):
            run("debugfs", "-w", "-R", f"rm /f{number}", partition)
        self._free = [(START + offset, size) for offset, size in _free(partition)]
        self.image = WORK / f"{name}.img"
        run("dd", f"if={partition}", f"of={self.image}", "bs=1M", "seek=1", "conv=sparse", "status=none")
        partition.unlink()
        with open(self.image, "ab") as disk:
            disk.write(old[:3 * SECTOR])  # behind the partition
        run("sfdisk", "-q", "--no-reread", self.image,
            text_input=f"label: dos\nstart={START // SECTOR}, size={SIZE // SECTOR}, type=83\n")

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
