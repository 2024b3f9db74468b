"""What a client sees of the exported tree besides a disk's data: names, attributes, small files, the header."""

import errno
import json
import os
import re
import time

from harness import place
from harness.case import DaemonCase
from harness.compare import Reader, first_difference, straddling_reads, wrong_reads
from harness.daemon import EXPORT, HYPERVISOR, VM_UUID, Entry, export
from harness.disks import MIB, SECTOR, base_disk, datastore, partition, raw_image, reference, sparse_delta
from harness.tools import WORK, program, run

SHADOW = EXPORT.with_name("export.shadow")
DATASTORE = "5a6f0b1c-2d3e4f50-6172-8394a5b6c7d8"
HIDDEN = ("folder.jpg", "folder.gif.bak", "Thumbs.db", "desktop.ini")


def inode_number(path):
    """What every exported path's inode number is made of."""
    number = 5381
    for byte in path.encode():
        number = (number * 33 & 0xffffffff) ^ (byte if byte < 128 else byte | 0xffffff00)
    return number


class Tree(DaemonCase):
    @classmethod
    def setUpClass(cls):
        cls.store = datastore(DATASTORE)
        cls.image = raw_image(WORK / "tree.img", 4 * MIB + SECTOR, seed=9)
        partition(cls.image)
        super().setUpClass()

    def file(self, name, content=b"", mode=0o644):
        """A file on the datastore."""
        path = self.store.vm("files") / name
        path.write_bytes(content)
        path.chmod(mode)
        return path

    def export_file(self, name, kind, content, mode=0o644):
        link = self.store.link(self.file(name, content, mode))
        self.daemon.export(Entry(f"files/{name}", link, kind))
        return EXPORT / "files" / name

    # Names and attributes

    def test_listing_and_inode_numbers(self):
        vms = ("aä", "b c", "d" * 200)
        link = self.store.link(self.file("listed", b"12345"))
        self.daemon.export(*(Entry(f"list/{vm}/{name}", link, "vmx") for vm in vms for name in ("x.vmx", "y.vmx")))
        for directory in (EXPORT, EXPORT / "list", EXPORT / "list" / vms[0]):
            for entry in os.scandir(directory):
                below = "/" + str((directory / entry.name).relative_to(EXPORT))
                self.assertEqual(entry.inode(), inode_number(below), below)
                self.assertEqual(os.lstat(entry.path).st_ino, inode_number(below), below)
        self.assertEqual(sorted(os.listdir(EXPORT / "list")), sorted(vms))
        status = os.stat(EXPORT / "list" / vms[0] / "x.vmx")
        self.assertEqual((status.st_size, status.st_blocks, status.st_blksize), (5, 1, 131072))

    def test_large_directory(self):
        link = self.store.link(self.file("many"))
        names = [f"disk-{number:05}-flat.vmdk" for number in range(10000)]
        export([Entry(f"many/{name}", link, "vmx") for name in names])
        self.assertEqual(sorted(os.listdir(EXPORT / "many")), names)

    def test_attributes_are_the_real_files(self):
        path = self.file("times", b"x" * 1000, 0o640)
        os.chown(path, 1234, 5678)
        os.utime(path, ns=(10**18 + 1, 10**18 + 999999999))
        self.daemon.export(Entry("files/times", self.store.link(path), "vmx"))
        real, exported = os.stat(path), os.stat(EXPORT / "files" / "times")
        for field in ("st_mode", "st_uid", "st_gid", "st_nlink", "st_size", "st_mtime_ns", "st_ctime_ns"):
            self.assertEqual(getattr(exported, field), getattr(real, field), field)

    def test_hidden_names(self):
        link = self.store.link(self.file("any"))
        self.daemon.export(*(Entry(f"hidden/{name}", link, "vmx") for name in (*HIDDEN, ".corvantis.lck", "seen")))
        before = self.daemon.log()
        for name in HIDDEN:
            self.assertFalse((EXPORT / "hidden" / name).exists(), name)
            self.assertFalse((EXPORT / "hidden" / name / "below").exists(), name)
        self.assertNotIn(".corvantis.lck", os.listdir(EXPORT / "hidden"))
        self.assertEqual(self.daemon.log(), before)

    def test_directory_that_goes_while_it_is_open(self):
        os.mkdir(SHADOW / "going")
        held = os.open(EXPORT / "going", os.O_RDONLY | os.O_DIRECTORY)
        self.addCleanup(os.close, held)
        os.rmdir(SHADOW / "going")
        self.assertEqual(os.listdir(held), [])
        self.assertIn("error:2] /going: No such file or directory\n", self.daemon.log())

    def test_write_is_refused(self):
        path = self.export_file("unwritable", "vmx", b"kept")
        target = path.with_name("new")
        attempts = {f"open for {flags:o}": lambda flags=flags: os.open(path, flags)
                    for flags in (os.O_WRONLY, os.O_RDWR, os.O_APPEND, os.O_RDWR | os.O_CREAT)}
        attempts |= {
            "open and truncate": lambda: os.open(path, os.O_TRUNC),
            "create": lambda: os.open(target, os.O_WRONLY | os.O_CREAT | os.O_EXCL), "mkdir": lambda: os.mkdir(target),
            "symlink": lambda: os.symlink("x", target), "mkfifo": lambda: os.mkfifo(target),
            "unlink": lambda: os.unlink(path), "rmdir": lambda: os.rmdir(path.parent),
            "rename": lambda: os.rename(path, target), "link": lambda: os.link(path, target),
            "truncate": lambda: os.truncate(path, 0), "chmod": lambda: os.chmod(path, 0),
            "utime": lambda: os.utime(path), "removexattr": lambda: os.removexattr(path, "user.x"),
        }
        # What the daemon does not offer at all, kernels report as they like.
        refusals = (errno.EROFS, errno.ENOSYS, errno.EOPNOTSUPP, errno.EPERM)
        for name, attempt in attempts.items():
            with self.subTest(name):
                with self.assertRaises(OSError) as raised:
                    attempt()
                expected = refusals[:1] if name.startswith("open for") else refusals
                self.assertIn(raised.exception.errno, expected)
        self.assertEqual(path.read_bytes(), b"kept")

    # Small files

    def test_descriptor_and_configuration_are_the_real_bytes(self):
        content = os.urandom(3 * MIB + 77)
        for kind in ("ascii", "vmx"):
            path = self.export_file(f"real.{kind}", kind, content)
            real = self.file(f"real.{kind}", content)
            self.assertEqual(wrong_reads(path, real, straddling_reads([0, 4096, MIB, len(content)])), [])

    def test_export_description_ends_in_a_timestamp(self):
        for size in (0, 70000):
            with self.subTest(size):
                content = os.urandom(size)
                path = self.export_file(f"vm{size}.cfg", "cfg", content)
                self.assertEqual(os.stat(path).st_size, size + 200)
                earliest = int(time.time())
                whole = path.read_bytes()
                self.assertEqual((len(whole), whole[:size]), (size + 200, content))
                trailer = re.fullmatch(rb"access-time = (\d+)\n +\n", whole[size:])
                self.assertIn(int(trailer[1]), range(earliest, int(time.time()) + 1))
                seam = slice(max(0, size - 7), size + 11)
                with Reader(path) as reader:
                    self.assertEqual(reader.read(seam.start, seam.stop - seam.start), whole[seam])

    # The header

    def test_header_of_a_disk(self):
        base = base_disk(self.store, "headed", self.image)
        head = sparse_delta(base, [(3 * MIB, 100 * SECTOR)])
        path, truth = self.daemon.export_disk(head), reference(head)
        header = range(2 * SECTOR, 3 * SECTOR)
        self.assertIsNone(first_difference(path, truth, skip=header))
        told = json.loads(run(program("mirador-inspect"), "vdsk", "--json", path))
        self.assertEqual({key: told[key] for key in ("sector", "version", "type", "size", "createtype")},
                         {"sector": 2, "version": 2, "type": 1, "size": head.size // SECTOR, "createtype": 3})
        self.assertEqual(told["cid"], int(base.content_id(), 16))
        self.assertEqual((told["vm_uuid"], told["ds_uuid"].replace("-", "")), (VM_UUID, DATASTORE.replace("-", "")))
        self.assertEqual((told["path"], told["hv"], told["vm"]), ("headed", HYPERVISOR, VM_UUID))

        overlaid = WORK / "overlaid"
        overlaid.write_bytes(truth.read_bytes())
        with open(overlaid, "r+b") as file, open(path, "rb") as exported:
            file.seek(header.start)
            exported.seek(header.start)
            file.write(exported.read(SECTOR))
        edges = (header.start, header.start + 100, header.stop - 1, header.stop)
        self.assertEqual(wrong_reads(path, overlaid, straddling_reads(edges)), [])

    def test_header_takes_the_place_of_an_older_one(self):
        """What was restored from a backup has the header of the exported disk inside."""
        path = self.daemon.export_disk(base_disk(self.store, "backed-up", self.image))
        restored = WORK / "restored.img"
        restored.write_bytes(path.read_bytes())
        self.assertEqual(restored.read_bytes()[1024:1028], b"KVDH")
        again = self.daemon.export_disk(base_disk(self.store, "restored", restored))
        self.assertIsNone(first_difference(again, restored, skip=range(1024, 1536)))
        self.assertEqual(again.read_bytes()[1024:1028], b"KVDH")

    def test_no_room_for_a_header(self):
        full = WORK / "full.img"
        full.write_bytes(self.image.read_bytes())
        with open(full, "r+b") as file:
            file.seek(SECTOR)
            file.write(b"x" * 16 * SECTOR)
        path = self.daemon.export_disk(base_disk(self.store, "full", full))
        self.assertIsNone(first_difference(path, full))
        self.assertIn("info: no free sector available in /full/disk-flat.vmdk", self.daemon.log())


if __name__ == "__main__":
    place.main()
