"""File systems of guests, made without mounting any: what is in them, and which of their sectors they use."""

import dataclasses
import os
import pathlib
import random
import re
import subprocess

from harness.disks import KIB, MIB, SECTOR
from harness.tools import WORK, run

START = MIB  # of the one partition of a guest's disk


@dataclasses.dataclass(frozen=True)
class Files:
    """A directory of files of all sizes."""
    root: pathlib.Path

    def names(self) -> list[str]:
        return sorted(os.fspath(path.relative_to(self.root)) for path in self.root.rglob("*") if path.is_file())

    def read(self, name: str) -> bytes:
        return (self.root / name).read_bytes()


def make_files(name: str, seed: int) -> Files:
    rng = random.Random(seed)
    files = Files(WORK / name)
    for number in range(60):
        path = files.root / f"d{number % 7}" / f"f{number}"
        path.parent.mkdir(parents=True, exist_ok=True)
        path.write_bytes(rng.randbytes(rng.choice((0, 1, 600, 4 * KIB, 70 * KIB, 300 * KIB))))
    return files


class Ext4:
    """deleted: files whose blocks are free again, and still hold what was in them."""
    size = 64 * MIB

    def make(self, partition: pathlib.Path, files: Files) -> None:
        run("mkfs.ext4", "-q", "-F", "-E", "nodiscard", "-d", files.root, partition)
        for name in files.names()[::3]:
            run("debugfs", "-w", "-R", f"rm /{name}", partition)
            (files.root / name).unlink()

    def free(self, partition: pathlib.Path) -> list[tuple[int, int]]:
        """Free stretches, (offset, size) in bytes."""
        text = run("dumpe2fs", partition)
        block = int(re.search(r"(?m)^Block size: +(\d+)", text)[1])
        found = []
        for line in re.findall(r"(?m)^  Free blocks: (.*)$", text):
            for first, last in re.findall(r"(\d+)(?:-(\d+))?", line):
                found.append((int(first) * block, (int(last or first) - int(first) + 1) * block))
        return found

    def check(self, partition: pathlib.Path) -> None:
        run("e2fsck", "-fn", partition)

    def read(self, partition: pathlib.Path, name: str) -> bytes:
        return subprocess.run(["debugfs", "-R", f"cat /{name}", partition], check=True, capture_output=True).stdout


class Xfs:
    size = 320 * MIB  # mkfs.xfs makes none below 300 MiB

    def make(self, partition: pathlib.Path, files: Files) -> None:
        description = partition.with_suffix(".proto")
        description.write_text("\n".join(["/", "0 0", "d--755 0 0", *self._entries(files.root), "$", ""]))
        run("mkfs.xfs", "-q", "-f", "-K", "-p", description, partition)

    def _entries(self, directory: pathlib.Path) -> list[str]:
        lines = []
        for path in sorted(directory.iterdir()):
            if path.is_dir():
                lines += [f"{path.name} d--755 0 0", *self._entries(path), "$"]
            else:
                lines.append(f"{path.name} ---644 0 0 {path}")
        return lines

    def _ask(self, partition: pathlib.Path, *commands: str) -> str:
        return run("xfs_db", "-r", "-f", *(word for command in commands for word in ("-c", command)), partition)

    def _geometry(self, partition: pathlib.Path) -> tuple[int, int]:
        """Size of a block, blocks in an allocation group."""
        text = self._ask(partition, "sb 0", "print blocksize agblocks")
        return tuple(int(re.search(rf"(?m)^{name} = (\d+)", text)[1]) for name in ("blocksize", "agblocks"))

    def free(self, partition: pathlib.Path) -> list[tuple[int, int]]:
        block, group = self._geometry(partition)
        lines = re.findall(r"(?m)^ *(\d+) +(\d+) +(\d+)$", self._ask(partition, "freesp -d"))
        # The histogram below the list has more columns.
        return [((int(number) * group + int(first)) * block, int(count) * block) for number, first, count in lines]

    def check(self, partition: pathlib.Path) -> None:
        run("xfs_repair", "-n", "-f", partition)

    def read(self, partition: pathlib.Path, name: str) -> bytes:
        block, group = self._geometry(partition)
        text = self._ask(partition, f"path /{name}", "print core.size", "bmap")
        size = int(re.search(r"(?m)^core.size = (\d+)", text)[1])
        data = bytearray(size)
        with open(partition, "rb") as file:
            for line in re.findall(r"(?m)^data offset (\d+) startblock \d+ \((\d+)/(\d+)\) count (\d+)", text):
                offset, number, first, count = (int(word) for word in line)
                file.seek((number * group + first) * block)
                data[offset * block:(offset + count) * block] = file.read(count * block)
        return bytes(data[:size])


def copy_sparsely(source: pathlib.Path, begin: int, target: pathlib.Path, to: int, size: int) -> None:
    """Copies bytes of one file into a new one; zeros become holes."""
    with open(source, "rb") as reader, open(target, "wb") as writer:
        writer.truncate(to + size)
        reader.seek(begin)
        for offset in range(0, size, 64 * KIB):
            data = reader.read(min(64 * KIB, size - offset))
            if data.strip(b"\0"):
                writer.seek(to + offset)
                writer.write(data)


class Guest:
    """A disk with one partition and a file system in it. What is free holds old bytes, as on a disk in use."""

    def __init__(self, name: str, system: Ext4 | Xfs, seed: int):
        self.system = system
        self.files = make_files(f"{name}-files", seed)
        self.image = WORK / f"{name}.img"
        partition = WORK / f"{name}.partition"
        old = random.Random(seed).randbytes(MIB)
        with open(partition, "wb") as file:
            file.truncate(system.size)
            for offset in range(0, system.size, 4 * MIB):
                file.seek(offset)
                file.write(old)
        system.make(partition, self.files)
        self._free = [(START + offset, size) for offset, size in system.free(partition)]
        copy_sparsely(partition, 0, self.image, START, system.size)
        partition.unlink()
        with open(self.image, "ab") as disk:
            disk.write(old[:3 * SECTOR])  # behind the partition
        run("sfdisk", "-q", "--no-reread", self.image,
            text_input=f"label: dos\nstart={START // SECTOR}, size={system.size // SECTOR}, type=83\n")

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

    def faults_of(self, copy: pathlib.Path) -> list[str]:
        """Checks the file system of a copied disk; returns the files that are not as they were."""
        partition = copy.with_suffix(".partition")
        copy_sparsely(copy, START, partition, 0, self.system.size)
        self.system.check(partition)
        return [name for name in self.files.names() if self.system.read(partition, name) != self.files.read(name)]
