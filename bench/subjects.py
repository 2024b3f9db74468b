# SPDX-License-Identifier: Apache-2.0
"""What is compared: the daemon's export of a disk, and other ways to the same bytes.

All of them read from tmpfs, so no figure depends on a disk drive.
"""

import dataclasses
import os
import pathlib
import random
import subprocess
from contextlib import ExitStack, contextmanager

from harness import disks
from harness.daemon import EXPORT, MOUNT_OPTIONS, Daemon, Entry, export, flat_entry
from harness.tools import program, run, wait_until

WORK = pathlib.Path("/run/bench")
DISK_SIZE = 1 << 30
ENTRIES = 10_000
GRAIN = 64 * disks.KIB


@dataclasses.dataclass
class Subject:
    name: str
    what: str
    file: pathlib.Path
    directory: pathlib.Path | None = None  # where it shows ENTRIES files
    mapping: pathlib.Path | None = None  # the mapped device that it reads, which has a page cache of its own
    loops: list[str] = dataclasses.field(default_factory=list)  # loop devices below the mapping

    def forget_mapping(self):
        """Empties the mapping's page cache, so that its bytes make the whole way."""
        if self.mapping is None:
            return
        device = os.open(self.mapping, os.O_RDONLY)
        os.posix_fadvise(device, 0, 0, os.POSIX_FADV_DONTNEED)
        os.close(device)


def mount_tmpfs(directory):
    directory.mkdir(parents=True)
    run("mount", "-t", "tmpfs", "-o", "mode=755", "bench", directory)


def make_disk(store):
    """A flat base and two deltas: one with 100 pieces of 1 MiB, one with a grain in fifty."""
    image = WORK / "base.raw"
    with open(image, "wb") as file:
        for _ in range(DISK_SIZE // (16 * disks.MIB)):
            file.write(os.urandom(16 * disks.MIB))
        file.seek(0)
        file.write(bytes(disks.MIB))  # no boot record, and room for the virtual disk header
    base = disks.base_disk(store, "vm", image)
    image.unlink()
    rng = random.Random(1)
    runs = [(rng.randrange(1, DISK_SIZE // disks.MIB - 1) * disks.MIB, disks.MIB) for _ in range(100)]
    grains = [(grain * GRAIN, GRAIN) for grain in rng.sample(range(16, DISK_SIZE // GRAIN), DISK_SIZE // GRAIN // 50)]
    middle = disks.sparse_delta(base, runs, "twoGbMaxExtentSparse", 1)
    return disks.sparse_delta(middle, grains, "twoGbMaxExtentSparse", 2)


def export_all(disk):
    """The disk, and a directory with ENTRIES names."""
    small = [Entry(f"entries/disk-{number:05d}-flat.vmdk", disk.link, stat=str(disk.base_extent), size=disk.size)
             for number in range(ENTRIES)]
    export([flat_entry("vm/disk-flat.vmdk", disk), *small])


@contextmanager
def started(command, is_ready, what):
    process = subprocess.Popen(command, stdin=subprocess.DEVNULL)
    try:
        wait_until(lambda: is_ready() or process.poll() is not None, what)
        if process.poll() is not None:
            raise RuntimeError(f"{command[0]} ended with status {process.returncode}")
        yield process
    finally:
        process.terminate()
        process.wait(timeout=30)


def daemon_subject(stack, disk):
    daemon = Daemon()
    daemon.start()
    stack.callback(daemon.stop)
    export_all(disk)
    file = EXPORT / "vm/disk-flat.vmdk"
    stack.enter_context(open(file, "rb"))  # keeps the cookie, and so the mapping, in place
    [mapping] = [path for path in pathlib.Path("/dev/mapper").iterdir() if path.name != "control"]
    loops = run("losetup", "-l", "-n", "-O", "NAME").split()
    return Subject("mirador", "the daemon's export of the chain", file, EXPORT / "entries", mapping, loops)


def passthrough_subject(stack, disk):
    raw, mounted = WORK / "raw", WORK / "passthrough"
    raw.mkdir()
    mounted.mkdir()
    run("qemu-img", "convert", "-O", "raw", disk.descriptor, raw / "disk")
    (raw / "entries").mkdir()
    for number in range(ENTRIES):
        (raw / "entries" / f"disk-{number:05d}-flat.vmdk").write_bytes(bytes(960))
    stack.enter_context(started([program("bench-passthrough"), str(raw), str(mounted), "-f", *MOUNT_OPTIONS],
                                lambda: os.path.ismount(mounted), "the pass-through stands"))
    bare = "a bare FUSE file system over the raw image"
    return [Subject("pass-through", bare, mounted / "disk", mounted / "entries"),
            Subject("file", "the raw image itself", raw / "disk", raw / "entries")]


def qemu_subject(stack, disk):
    mounted = WORK / "qemu-disk"
    mounted.touch()
    stack.enter_context(started(
        ["qemu-storage-daemon",
         "--blockdev", f"driver=file,node-name=file,read-only=on,filename={disk.descriptor}",
         "--blockdev", "driver=vmdk,node-name=disk,read-only=on,file=file",
         "--export", f"type=fuse,id=export,node-name=disk,mountpoint={mounted}"],
        lambda: mounted.stat().st_size == disk.size, "qemu's export stands"))
    return Subject("qemu", "qemu-storage-daemon's FUSE export of the same chain", mounted)


def loop_subject(stack, image):
    device = run("losetup", "--find", "--show", "--read-only", image).strip()
    stack.callback(run, "losetup", "--detach", device)
    return Subject("loop", "a loop device over the raw image, its own page cache empty", pathlib.Path(device))


@contextmanager
def all_subjects():
    """Yields the subjects by name."""
    mount_tmpfs(WORK)
    mount_tmpfs(disks.DIRECT_ROOT / "bench")
    disks.ORDINARY_ROOT.mkdir(parents=True, exist_ok=True)
    (disks.ORDINARY_ROOT / "bench").symlink_to(disks.DIRECT_ROOT / "bench")
    disk = make_disk(disks.Datastore("bench", disks.DIRECT_ROOT / "bench"))
    with ExitStack() as stack:
        mirador = daemon_subject(stack, disk)
        passthrough, file = passthrough_subject(stack, disk)
        subjects = [mirador, passthrough, qemu_subject(stack, disk), loop_subject(stack, file.file), file]
        yield {subject.name: subject for subject in subjects}
