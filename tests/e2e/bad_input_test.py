"""A disk that is broken, or not meant to be read, fails to open: the reason is told, everything else goes on."""

import dataclasses
import errno
import os
import pathlib
import random
import shutil
import struct
from collections.abc import Callable

from harness import place
from harness.case import DaemonCase
from harness.compare import first_difference
from harness.disks import KIB, MIB, SECTOR, Disk, base_disk, datastore, raw_image, reference, sparse_delta
from harness.tools import WORK

OUTSIDE = WORK / "outside"
HEAD, BASE = "disk-000001.vmdk", "disk.vmdk"


@dataclasses.dataclass(frozen=True)
class Fault:
    """What is wrong with a disk, done to a copy of a good one, and what is told of it."""
    name: str
    spoil: Callable[[pathlib.Path], object]
    text: str
    number: int = errno.EINVAL


def poke(file, offset, layout, value):
    def spoil(vm):
        with open(vm / file, "r+b") as image:
            image.seek(offset)
            image.write(struct.pack(layout, value))
    return spoil


def edit(file, old, new):
    def spoil(vm):
        content = (vm / file).read_bytes()
        assert content.count(old) == 1, (file, old)
        (vm / file).write_bytes(content.replace(old, new))
    return spoil


def rename_parent(name):
    """In the text inside the head's extent, whose other bytes stay where they are."""
    def spoil(vm):
        with open(vm / HEAD, "r+b") as image:
            image.seek(SECTOR)
            text = image.read(20 * SECTOR).rstrip(b"\0").replace(b'"disk.vmdk"', b'"' + os.fsencode(name) + b'"')
            image.seek(SECTOR)
            image.write(text)
    return spoil


def cut(file, size):
    return lambda vm: os.truncate(vm / file, size)


def remove(file):
    return lambda vm: (vm / file).unlink()


def replace(file, make):
    """Puts something else in a file's place; `make` gets its path."""
    def spoil(vm):
        (vm / file).unlink()
        make(vm / file)
    return spoil


def link_to(target):
    return lambda path: path.symlink_to(target)


def extent_line(name):
    """Another extent in a flat disk's descriptor."""
    return lambda vm: edit(BASE, b'"disk-flat.vmdk"', b'"' + os.fsencode(name) + b'"')(vm)


FLAT = (
    Fault("missing descriptor", remove(BASE), "disk.vmdk: No such file", errno.ENOENT),
    Fault("truncated extent", cut("disk-flat.vmdk", MIB - SECTOR), "Flat file .* of size 1048064 do not match",
          errno.EIO),
    Fault("empty descriptor", cut(BASE, 0), "cannot parse the input file", errno.EAGAIN),
    Fault("binary descriptor", lambda vm: (vm / BASE).write_bytes(random.Random(1).randbytes(4096)),
          "cannot parse the input file", errno.EAGAIN),
    Fault("too many extents", edit(BASE, b"RW 2048", b'RW 1 FLAT "disk-flat.vmdk" 0\n' * 1100 + b"RW 2048"),
          "more than 1024 extents"),
    Fault("extent beyond all sizes", edit(BASE, b"RW 2048", b"RW 99999999999999999"), "too large"),
    Fault("absolute extent outside", extent_line("/etc/shadow"), "outside every datastore: /etc/shadow"),
    Fault("relative extent outside", extent_line("../../../../etc/shadow"), "outside every datastore"),
    Fault("extent links outside", replace("disk-flat.vmdk", link_to("/etc/shadow")), "outside every datastore"),
    Fault("extent below a link outside", lambda vm: ((vm / "out").symlink_to("/etc"), extent_line("out/shadow")(vm)),
          "outside every datastore"),
    Fault("descriptor links outside", replace(BASE, link_to(OUTSIDE / BASE)), "outside every datastore"),
    Fault("extent is a FIFO", replace("disk-flat.vmdk", os.mkfifo), "not a (regular )?file"),
    Fault("extent is a device",
          replace("disk-flat.vmdk", lambda path: os.mknod(path, 0o20600, os.makedev(1, 5))), "not a (regular )?file"),
    Fault("descriptor is a FIFO", replace(BASE, os.mkfifo), "not a regular file"),
)

SPARSE = (
    Fault("missing extent of the parent", remove("disk-flat.vmdk"), "No such file", errno.ENOENT),
    Fault("parent outside", rename_parent(OUTSIDE / BASE), "outside every datastore"),
    Fault("parent links outside", replace(BASE, link_to(OUTSIDE / BASE)), "outside every datastore"),
    Fault("chain returns to its head",
          edit(BASE, b"parentCID=ffffffff", b'parentCID=12345678\nparentFileNameHint="disk-000001.vmdk"'),
          "returns to"),
    Fault("parent of another size", edit(BASE, b"RW 2048", b"RW 2047"), "another size of extent 0"),
    Fault("wrong magic", poke(HEAD, 0, "<I", 0x12345678), "wrong magic number of a sparse extent.*disk-000001"),
    Fault("absurd capacity", poke(HEAD, 12, "<Q", 1 << 40), "capacity out of range"),
    Fault("directory beyond the file", poke(HEAD, 56, "<Q", 1 << 40), "grain directory beyond"),
)


class BadInput(DaemonCase):
    @classmethod
    def setUpClass(cls):
        cls.store = datastore("bad")
        OUTSIDE.mkdir()
        image = raw_image(WORK / "bad.img", MIB, seed=3)
        flat, sparse = (base_disk(cls.store, name, image) for name in ("flat", "sparse"))
        cls.good = {"flat": flat, "sparse": sparse_delta(sparse, [(0, 100 * KIB)])}
        for file in ("disk.vmdk", "disk-flat.vmdk"):
            shutil.copy(flat.descriptor.parent / file, OUTSIDE)
        super().setUpClass()

    def copy_of(self, kind: str, vm: str) -> Disk:
        good = self.good[kind]
        copy = self.store.vm(vm)
        shutil.copytree(good.descriptor.parent, copy, dirs_exist_ok=True)
        return dataclasses.replace(good, descriptor=copy / good.descriptor.name)

    def check(self, kind: str, faults: tuple[Fault, ...]) -> None:
        """Every fault refuses its disk and leaves nothing; then the good disk still reads."""
        for number, fault in enumerate(faults):
            with self.subTest(fault.name):
                disk = self.copy_of(kind, f"{kind}-{number}")
                fault.spoil(disk.descriptor.parent)
                path = self.daemon.export_disk(disk)
                with self.assert_nothing_kept():
                    self.assert_open_fails(path, fault.number, fault.text)
        path = self.daemon.export_disk(self.good[kind])
        self.assertIsNone(first_difference(path, reference(self.good[kind])))

    def test_flat_disks(self):
        self.check("flat", FLAT)

    def test_sparse_deltas(self):
        self.check("sparse", SPARSE)

    def test_parent_of_another_content_opens(self):
        """Only the log tells that the parent's content id is not the one the child was made on."""
        disk = self.copy_of("sparse", "stranger")
        old = self.good["sparse"].parent.content_id()
        edit(BASE, f"CID={old}\n".encode(), b"CID=0badcafe\n")(disk.descriptor.parent)
        self.assertIsNone(first_difference(self.daemon.export_disk(disk), reference(self.good["sparse"])))
        self.assertRegex(self.daemon.log(), f"expects content id {old.zfill(8)} of its parent .*, which has 0badcafe")

    def test_garbage_in_the_shadow_tree(self):
        good = self.daemon.export_disk(self.good["flat"], "shadow/good-flat.vmdk")
        shadow = good.parent.with_name("shadow").parents[1] / "export.shadow" / "shadow"
        header = (shadow / "good-flat.vmdk").read_bytes()
        spoiled = {
            "short": (header[:959], errno.ENOKEY), "empty": (b"", errno.ENOKEY),
            "random": (os.urandom(960), errno.EINVAL),
            "version": (header[:4] + b"\2" + header[5:], errno.EINVAL),
            "unknown type": (header[:8] + b"\0" + header[9:], errno.EINVAL),
            "type out of range": (header[:8] + b"\6" + header[9:], errno.EINVAL),
            "endless path": (header[:116] + b"x" * 844, errno.EINVAL),
        }
        for name, (content, number) in spoiled.items():
            with self.subTest(name), self.assert_nothing_kept():
                (shadow / name).write_bytes(content)
                with self.assertRaises(OSError) as raised:
                    os.close(os.open(good.with_name(name), os.O_RDONLY))
                self.assertEqual(raised.exception.errno, number)
        self.assertEqual(os.listdir(good.parent), ["good-flat.vmdk"])

    def test_header_that_turns_bad_after_the_look_up(self):
        path = self.daemon.export_disk(self.good["flat"], "turned/disk-flat.vmdk")
        shadow = pathlib.Path("/export.shadow/turned/disk-flat.vmdk")
        header = shadow.read_bytes()
        os.stat(path)  # the kernel keeps what it is told for a second
        shadow.write_bytes(os.urandom(960))
        with self.assert_nothing_kept(), self.assertRaises(OSError) as raised:
            os.close(os.open(path, os.O_RDONLY))
        self.assertIn(raised.exception.errno, (errno.EIO, errno.EINVAL))
        shadow.write_bytes(header)
        self.assertEqual(path.stat().st_size, MIB)


if __name__ == "__main__":
    place.main()
