#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""fuse-dmsetup over loop devices, in the sandbox: data, life and death of its server.

    script/sandbox tests/tools/fuse_dmsetup_serving_test.py PROGRAM
"""

import concurrent.futures
import glob
import hashlib
import os
import pathlib
import random
import signal
import subprocess
import sys
import unittest

PROGRAM = sys.argv.pop(1)
SECTOR = 512
MIB = 1 << 20
DISK_SIZE = 32 * MIB


def dmsetup(*words, table=None, status=0):
    """Runs the program; returns its standard output, or its standard error when it is to fail."""
    done = subprocess.run([PROGRAM, *words], input=table, text=True, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                          timeout=120, check=False)
    assert done.returncode == status, (words, done)
    return done.stderr if status else done.stdout


def is_mounted():
    return " /dev/mapper fuse" in pathlib.Path("/proc/mounts").read_text()


def server():
    """Process id of the server, None when there is none."""
    for path in glob.glob("/proc/[0-9]*/comm"):
        if pathlib.Path(path).read_text().strip() == "fuse-dmsetup":
            return int(path.split("/")[2])
    return None


def is_open_by_server(device):
    return any(os.path.exists(link) and os.readlink(link) == device for link in glob.glob(f"/proc/{server()}/fd/*"))


class Disk:
    """A file of random bytes behind a loop device."""

    def __init__(self, path, size=DISK_SIZE):
        self.path = path
        self.data = random.Random(path).randbytes(size)
        pathlib.Path(path).write_bytes(self.data)
        self.loop = subprocess.run(["losetup", "-f", "--show", "-r", path], check=True, text=True,
                                   stdout=subprocess.PIPE).stdout.strip()

    def close(self):
        subprocess.run(["losetup", "-d", self.loop], check=True)
        os.unlink(self.path)


class Serving(unittest.TestCase):
    def setUp(self):
        self.disks = [Disk("/tmp/a"), Disk("/tmp/b")]

    def tearDown(self):
        dmsetup("remove_all", "-f")
        self.assertFalse(is_mounted())
        for disk in self.disks:
            disk.close()

    def whole(self, name="one"):
        dmsetup("create", name, table=f"0 {DISK_SIZE // SECTOR} linear {self.disks[0].loop} 0\n")
        return f"/dev/mapper/{name}"

    def make_patchwork(self, sectors):
        """Targets of one to 300 sectors over both disks and zeros, often right behind the place before, so that
        neighbours join; returns the bytes that must come out."""
        chance, lines, expected, start, offset, length = random.Random(7), [], b"", 0, 0, 0
        while start < sectors:
            follows, length = offset + length, min(chance.randint(1, 300), sectors - start)
            disk = chance.choice([*self.disks, None])
            is_next = chance.random() < 0.5 and follows + length < DISK_SIZE // SECTOR
            offset = follows if is_next else chance.randrange(DISK_SIZE // SECTOR - length)
            lines.append(f"{start} {length} " + (f"linear {disk.loop} {offset}" if disk else "zero"))
            expected += disk.data[offset * SECTOR:(offset + length) * SECTOR] if disk else bytes(length * SECTOR)
            start += length
        dmsetup("create", "patchwork", table="\n".join(lines) + "\n")
        return expected

    def test_patchwork_reads_as_its_pieces(self):
        expected = self.make_patchwork(40000)
        path = "/dev/mapper/patchwork"
        self.assertEqual(os.stat(path).st_size, len(expected))
        with open("/tmp/expected", "wb") as file:
            file.write(expected)
        compare = ["qemu-img", "compare", "-f", "raw", "-F", "raw", "/tmp/expected", path]
        self.assertIn("identical", subprocess.run(compare, check=True, stdout=subprocess.PIPE, text=True).stdout)

        def read_at_random(seed):
            chance = random.Random(seed)
            with open(path, "rb", buffering=0) as file:
                for _ in range(200):
                    at, size = chance.randrange(len(expected) + 1000), chance.choice([1, 511, 4096, 70000, 400000])
                    if os.pread(file.fileno(), size, at) != expected[at:at + size]:
                        return (at, size)
            return None

        pathlib.Path("/proc/sys/vm/drop_caches").write_text("1")
        with concurrent.futures.ThreadPoolExecutor(32) as readers:
            self.assertEqual(list(readers.map(read_at_random, range(32))), [None] * 32)

    def test_piece_that_cannot_be_read_is_an_error(self):
        """Not the device's end, which it would be to who gets less than he asked for."""
        whole, broken = self.disks
        size, at = 2 * MIB, MIB - SECTOR
        lines = [f"{start} {count} linear {disk.loop} {start}\n" for start, count, disk in (
            (0, at // SECTOR, whole), (at // SECTOR, 1, broken), (MIB // SECTOR, MIB // SECTOR, whole))]
        dmsetup("create", "one", table="".join(lines))
        os.truncate(broken.path, MIB // 2)
        subprocess.run(["losetup", "-c", broken.loop], check=True)

        def read(file, start, end):
            while start < end:
                got = os.pread(file.fileno(), end - start, start)
                self.assertTrue(got, f"it ends at {start}")
                start += len(got)

        with open("/dev/mapper/one", "rb", buffering=0) as file:
            for start, end in ((at - 2 * SECTOR, MIB), (MIB - 65536, MIB + 65536), (0, size)):
                self.assertRaises(OSError, read, file, start, end)
            self.assertEqual(os.fstat(file.fileno()).st_size, size)
            self.assertEqual(os.pread(file.fileno(), 65536, MIB), whole.data[MIB:MIB + 65536])

    def test_mappings_over_mappings(self):
        expected = self.make_patchwork(40000)
        half = len(expected) // SECTOR // 2
        dmsetup("create", "last", table=f"0 {half} linear /dev/mapper/patchwork {half}\n")
        dmsetup("create", "joined", table=f"0 {half} linear /dev/mapper/patchwork 0\n"
                f"{half} {half} linear /dev/mapper/last 0\n")
        self.assertEqual(pathlib.Path("/dev/mapper/joined").read_bytes(), expected)
        self.assertEqual(dmsetup("table", "last"), f"0 {half} linear /dev/mapper/patchwork {half}\n")
        for name in ("patchwork", "last"):
            self.assertIn("busy", dmsetup("remove", name, status=1))
        self.assertIn("No such", dmsetup("create", "bad", table="0 8 linear /dev/mapper/none 0\n", status=1))
        self.assertIn("beyond its device", dmsetup("create", "bad", status=1,
                                                   table=f"0 {half} linear /dev/mapper/last 1\n"))
        dmsetup("remove_all", "-f")
        self.assertFalse(is_mounted())

    def test_removal_frees_the_loop_device_at_once(self):
        path = self.whole()
        self.assertTrue(is_open_by_server(self.disks[0].loop))
        dmsetup("create", "other", table="0 8 zero\n")
        for _ in range(20):
            with open(path, "rb") as file:
                file.read(MIB)
            dmsetup("remove", path)
            self.assertFalse(is_open_by_server(self.disks[0].loop))
            self.whole()

    def test_open_device_is_busy_and_fails_when_forced(self):
        path = self.whole()
        with open(path, "rb", buffering=0) as file:
            self.assertEqual(file.read(4096), self.disks[0].data[:4096])
            self.assertIn("Device or resource busy", dmsetup("remove", "one", status=1))
            self.assertEqual(os.pread(file.fileno(), 4096, MIB), self.disks[0].data[MIB:MIB + 4096])
            self.assertIn("Device or resource busy", dmsetup("remove", "-f", "one", status=1))
            self.assertRaises(OSError, os.pread, file.fileno(), 4096, 0)  # cached before
            self.assertRaises(OSError, os.pread, file.fileno(), 4096, 8 * MIB)
            self.assertFalse(is_open_by_server(self.disks[0].loop))
            dmsetup("remove_all", "-f")
            self.assertTrue(is_mounted())
        dmsetup("remove", "one")
        self.assertFalse(is_mounted())

    def test_new_device_of_an_old_name_has_the_new_data(self):
        for disk in self.disks * 3:
            dmsetup("create", "one", table=f"0 8 linear {disk.loop} 8\n")
            self.assertEqual(pathlib.Path("/dev/mapper/one").read_bytes(), disk.data[4096:8192])
            dmsetup("create", f"keep{random.random()}", table="0 1 zero\n")
            dmsetup("remove", "one")

    def test_refusals_are_one_line_and_leave_nothing(self):
        loop = self.disks[0].loop
        for table, text in (("0 8 linear /dev/loop7777 0\n", "No such file"), ("0 8 linear /dev/null 0\n", "Block device"),
                            (f"0 65537 linear {loop} 0\n", "beyond its device")):
            said = dmsetup("create", "bad", table=table, status=1)
            self.assertRegex(said, rf"\Adevice-mapper: reload ioctl on bad failed: .*{text}.*\n\Z")
            self.assertFalse(is_mounted())
        self.whole()
        self.assertIn("busy", dmsetup("create", "one", table="0 8 zero\n", status=1))
        for words in (("remove", "none"), ("table", "none")):
            self.assertIn("No such device", dmsetup(*words, status=1))

    def test_tells_what_it_has(self):
        self.assertEqual(dmsetup("ls"), "No devices found\n")
        loop = self.disks[0].loop
        number = os.stat(loop).st_rdev
        line = f"linear {os.major(number)}:{os.minor(number)}"
        table = pathlib.Path("/tmp/table")
        table.write_text(f"# a comment\n\n0 8 linear {loop} 16\n 8\t8 zero\n16 8 {line} 0")
        dmsetup("create", "one", str(table))
        dmsetup("create", "two", table="0 8 zero\n")
        self.assertEqual(dmsetup("table", "one"), f"0 8 {line} 16\n8 8 zero \n16 8 {line} 0\n")
        self.assertIn("\ntwo: 0 8 zero \n", dmsetup("table"))
        self.assertEqual([row.split("\t")[0] for row in dmsetup("ls").splitlines()], ["one", "two"])
        self.assertEqual(sorted(os.listdir("/dev/mapper")), ["one", "two"])

    def test_server_holds_nothing_of_its_starter(self):
        """Who waits for the end of a pipe that the command inherited does not wait for the server."""
        read, write = os.pipe()
        os.set_inheritable(write, True)
        process = subprocess.Popen([PROGRAM, "create", "one"], stdin=subprocess.PIPE, close_fds=False, stdout=write,
                                   text=True)
        process.communicate("0 8 zero\n", timeout=30)
        os.close(write)
        self.assertEqual(os.read(read, 1), b"")
        os.close(read)
        self.assertNotEqual(os.getsid(server()), os.getsid(0))

    def test_killed_server_is_replaced(self):
        path = self.whole()
        orphan = os.open(path, os.O_RDONLY)
        os.kill(server(), signal.SIGKILL)
        self.assertEqual(dmsetup("ls"), "No devices found\n")
        self.whole()
        self.assertEqual(hashlib.sha256(pathlib.Path(path).read_bytes()).digest(),
                         hashlib.sha256(self.disks[0].data).digest())
        self.assertRaises(OSError, os.close, orphan)
        os.kill(server(), signal.SIGKILL)
        dmsetup("remove_all", "-f")
        self.assertFalse(is_mounted())

    def test_many_commands_at_once(self):
        """Servers end and start all the time, as each command may remove the last device."""
        def cycle(name):
            for _ in range(15):
                dmsetup("create", name, table=f"0 8 linear {self.disks[0].loop} 0\n")
                assert pathlib.Path(f"/dev/mapper/{name}").read_bytes() == self.disks[0].data[:4096]
                dmsetup("remove", name)

        with concurrent.futures.ThreadPoolExecutor(4) as workers:
            list(workers.map(cycle, ["one", "two", "three", "four"]))
        self.assertFalse(is_mounted())
        self.assertIsNone(server())


if __name__ == "__main__":
    if not os.path.isdir("/run/sandbox"):
        sys.exit("to be run under script/sandbox")
    unittest.main()
