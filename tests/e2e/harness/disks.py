"""Datastores and the disks on them. qemu-img makes the disks and tells what is in them."""

from __future__ import annotations

import dataclasses
import os
import pathlib
import random
import re
from collections.abc import Iterable

from .tools import WORK, program, run

SECTOR = 512
KIB = 1 << 10
MIB = 1 << 20

DIRECT_ROOT = pathlib.Path("/vmfs.direct/volumes")
ORDINARY_ROOT = pathlib.Path("/vmfs/volumes")

Writes = Iterable[tuple[int, int]]  # (offset, length) in bytes


@dataclasses.dataclass(frozen=True)
class Datastore:
    """A datastore by its name; the hypervisor names its files below the ordinary root."""
    name: str
    directory: pathlib.Path

    def link(self, path: pathlib.Path) -> str:
        return str(ORDINARY_ROOT / self.name / path.relative_to(self.directory))

    def vm(self, name: str) -> pathlib.Path:
        """The directory of a VM, made if need be."""
        (self.directory / name).mkdir(exist_ok=True)
        return self.directory / name


def datastore(name: str, direct: bool = True) -> Datastore:
    """Makes a datastore below the ordinary root and, with `direct`, below the direct root as well."""
    directory = (DIRECT_ROOT if direct else ORDINARY_ROOT) / name
    directory.mkdir(parents=True)
    if direct:
        (ORDINARY_ROOT / name).symlink_to(directory)
    return Datastore(name, directory)


@dataclasses.dataclass(frozen=True)
class Disk:
    """A disk by the descriptor of its head."""
    store: Datastore
    descriptor: pathlib.Path
    size: int
    base_extent: pathlib.Path  # first extent of the chain's base, whose attributes the export reports
    parent: Disk | None = None

    @property
    def link(self) -> str:
        return self.store.link(self.descriptor)

    def content_id(self) -> str:
        """As the descriptor writes it, which may be without leading zeros."""
        return re.search(rb"(?m)^CID=([0-9a-f]+)$", self.descriptor.read_bytes())[1].decode()


# Raw images

def raw_image(path: pathlib.Path, size: int, seed: int) -> pathlib.Path:
    """A sparse image with random pieces all over it, the last sector among them, and no partition table."""
    rng = random.Random(seed)
    with open(path, "wb") as image:
        image.truncate(size)
        for offset in [0, *range(MIB // 2, size, max(MIB, size // 64)), size - 5 * SECTOR]:
            image.seek(offset)
            image.write(rng.randbytes(min(128 * KIB, size - offset)))
        image.seek(510)
        image.write(b"\0\0")
    return path


def partition(image: pathlib.Path) -> None:
    """Gives an image a partition table with one partition at 1 MiB; what lies before it becomes zeros."""
    with open(image, "r+b") as file:
        file.write(bytes(MIB))
    run("sfdisk", "-q", image, text_input="label: dos\nstart=2048, type=83\n")


# Disks

def flat_disk(descriptor: pathlib.Path, size: int, seed: int, is_partitioned: bool = True) -> None:
    """A disk with random pieces. A partition table makes room for a description in exported copies, at HEADER, which is
    free in the guest."""
    image = raw_image(WORK / "disk.img", size, seed)
    if is_partitioned:
        partition(image)
    run("qemu-img", "convert", "-f", "raw", "-O", "vmdk", "-o", "subformat=monolithicFlat", image, descriptor)


def base_disk(store: Datastore, vm: str, image: pathlib.Path, subformat: str = "monolithicFlat") -> Disk:
    """A disk without parent, from a raw image."""
    descriptor = store.vm(vm) / "disk.vmdk"
    run("qemu-img", "convert", "-f", "raw", "-O", "vmdk", "-o", f"subformat={subformat}", image, descriptor)
    return Disk(store, descriptor, image.stat().st_size, _extents(descriptor)[0])


def _extents(descriptor: pathlib.Path) -> list[pathlib.Path]:
    lines = re.findall(rb'(?m)^RW \d+ \w+ "([^"]+)"', descriptor.read_bytes())
    return [descriptor.parent / os.fsdecode(name) for name in lines]


def sparse_delta(parent: Disk, writes: Writes, subformat: str = "monolithicSparse", seed: int = 1) -> Disk:
    """A delta disk with random bytes in the ranges given."""
    descriptor = _next_name(parent)
    run("qemu-img", "create", "-q", "-f", "vmdk", "-o", f"subformat={subformat}", "-b", parent.descriptor.name,
        "-F", "vmdk", descriptor)
    scribble(descriptor, "vmdk", writes, seed)
    return dataclasses.replace(parent, descriptor=descriptor, parent=parent)


def cowd_delta(parent: Disk, writes: Writes, seed: int = 1) -> Disk:
    """As sparse_delta, of the copy-on-write kind that hypervisors make, with grains of a sector."""
    descriptor = _next_name(parent)
    old = reference(parent)
    new = old.with_suffix(".new")
    run("cp", "--sparse=always", old, new)
    scribble(new, "raw", writes, seed)
    run(program("cowd-delta"), "--grain", "1", "--cid", f"{seed + 0x1000:08x}", "--parent-cid",
        parent.content_id(), "--parent-hint", parent.descriptor.name, old, new, descriptor)
    os.unlink(new)
    return dataclasses.replace(parent, descriptor=descriptor, parent=parent)


def _next_name(parent: Disk) -> pathlib.Path:
    number = int((re.search(r"-(\d+)$", parent.descriptor.stem) or [0, 0])[1]) + 1
    return parent.descriptor.with_name(f"disk-{number:06d}.vmdk")


def scribble(path: pathlib.Path, image_format: str, writes: Writes, seed: int) -> None:
    pattern = WORK / "pattern"
    pattern.write_bytes(random.Random(seed).randbytes(MIB - 7))  # no two sectors alike
    commands = [word for offset, length in writes for word in ("-c", f"write -q -s {pattern} {offset} {length}")]
    if commands:
        run("qemu-io", "-f", image_format, *commands, path)


def reference(disk: Disk) -> pathlib.Path:
    """The whole content of a disk as a sparse raw file, as qemu-img reads its chain. Made once for a disk."""
    path = WORK / f"{disk.store.name}-{disk.descriptor.parent.name}-{disk.descriptor.stem}.raw"
    if not path.exists():
        run("qemu-img", "convert", "-f", "vmdk", "-O", "raw", disk.descriptor, path)
    return path
