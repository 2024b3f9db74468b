"""Many readers of changed-block files, whose reads the daemon makes from itself, on a slow datastore: all of them finish."""

import concurrent.futures
import os
import time

from harness import place
from harness.cbt_case import DISKS
from harness.cbt_load import AS_THE_DAEMON_LIKES, LoadCase
from harness.tools import WORK

READERS = 32
BLOCK = 64 * 1024
CHANGED = slice(24, 32)  # of a file's head: how many bytes have changed


def read_from(descriptor, start):
    """A whole file, read in order from a place on and then from its beginning to there."""
    blocks = list(range(0, os.fstat(descriptor).st_size, BLOCK))
    first = int(start * len(blocks))
    pieces = {offset: os.pread(descriptor, BLOCK, offset) for offset in blocks[first:] + blocks[:first]}
    return b"".join(pieces[offset] for offset in blocks)


def spliced_from(descriptor, start):
    """The same through the page cache, past which every other read of the file goes."""
    size = os.fstat(descriptor).st_size
    first = int(start * size) // BLOCK * BLOCK
    with open(os.memfd_create("copy"), "w+b") as copy:
        for begin, end in ((first, size), (0, first)):
            while begin < end:
                sent = os.sendfile(copy.fileno(), descriptor, begin, min(BLOCK, end - begin))
                assert sent > 0, f"nothing behind byte {begin}"
                begin += sent
        copy.seek(0)
        data = copy.read()
    return data[size - first:] + data[:size - first]


class ManyReaders(LoadCase):
    """Most of each disk has changed, so that nearly all that is read comes from the disk."""

    percent = 100
    rounds = 200
    read = staticmethod(read_from)

    @classmethod
    def vm_names(cls):
        return ["one", "two"]

    def test_all_finish(self):
        """All files are opened at the same time, and read when all are open, each by several readers at different places;
        every one gets the same, and it is right."""
        files = [(vm, disk) for vm in self.vms.values() for disk in DISKS]
        shares = [(files[number % len(files)], number / READERS) for number in range(READERS)]
        with self.slow(0.003), concurrent.futures.ThreadPoolExecutor(READERS) as pool:
            opened = list(pool.map(lambda share: os.open(self.changed(*share[0]), os.O_RDONLY), shares))
            start = time.monotonic()
            found = list(pool.map(lambda share, descriptor: self.read(descriptor, share[1]), shares, opened, timeout=120))
            print(f"{READERS} readers: {time.monotonic() - start:.1f} s")
            for descriptor in opened:
                os.close(descriptor)
        for (vm, disk), first in zip(files, found):
            copy = WORK / "read"
            copy.write_bytes(first)
            self.assertGreater(int.from_bytes(first[CHANGED], "little"), DISKS[disk] // 3, "there is much to be read")
            self.assert_is_of_moment(vm, disk, self.restored(self.bases[vm.name][disk], copy, "by-a-reader"))
        for number, data in enumerate(found):
            self.assertTrue(data == found[number % len(files)], f"reader {number} gets the same")
        for vm in self.vms.values():
            self.wait_quiet(vm)


class ManySplicingReaders(ManyReaders):
    """The same through the page cache, with as many requests for it as the daemon asks the kernel for."""

    mount_options = AS_THE_DAEMON_LIKES
    read = staticmethod(spliced_from)


if __name__ == "__main__":
    place.main()
