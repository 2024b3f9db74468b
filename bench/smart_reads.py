# SPDX-License-Identifier: Apache-2.0
"""Reading a whole disk without what its guest does not use, beside reading it plainly.

The disk lies on tmpfs, where a byte of it costs next to nothing, and on a datastore behind a line."""

import concurrent.futures
import os
import pathlib
import time
from contextlib import ExitStack, contextmanager, suppress

from harness import disks
from harness.compare import Reader
from harness.daemon import EXPORT, MOUNT_OPTIONS, Daemon, flat_entry
from harness.disks import MIB, SECTOR
from harness.tools import program, run, wait_until

import measure
from subjects import Subject, mount_tmpfs, started

SIZE, QUICK_SIZE = 512 * MIB, 64 * MIB
PIECE = MIB  # what is in use lies in pieces of this size
RATE = 120_000_000  # bytes a second: a line of a gigabit
STORES = {"tmpfs": None, "line": RATE}
BLOCK = "1m"

_BITMAPS = pathlib.Path("/inuse_bitmap")
_TABLES = pathlib.Path("/tmp")
_MAPPER = pathlib.Path("/dev/mapper")
_WORK = pathlib.Path("/run/smart")
_TRIALS = 10


class Late(Exception):
    """The daemon looked for a bitmap before it was there."""


def _all(_piece):
    return True


def _tenth(piece):
    return piece % 10 == 0


USED = {"plain": None, "10 % used": _tenth, "all used": _all}  # by subject; None: there is no bitmap


def _bitmap(size, is_used):
    part = PIECE // SECTOR // 8
    return b"".join((b"\xff" if is_used(piece) else b"\0") * part for piece in range(size // PIECE))


def _make_disk(store, size):
    image = _WORK / "image"
    with open(image, "wb") as file:
        file.write(bytes(MIB))  # no boot record, so no header
        for _ in range(size // MIB - 1):
            file.write(os.urandom(MIB))
    disk = disks.base_disk(store, "vm", image)
    image.unlink()
    return disk


def _mappings():
    """Names of the mappings that stand or are being made, which the file with a mapping's table tells."""
    made = {path.name for path in _MAPPER.iterdir()} if _MAPPER.is_dir() else set()
    return (made | {path.stem for path in _TABLES.glob("*.corstorage")}) - {"control"}


def _open(daemon, name, disk, bits):
    """Opens a disk for the first time; with `bits` its bitmap must be there before the daemon looks for it, under the
    mapping's name. Returns the open file, its path and the mapping; raises Late when the daemon was quicker."""
    entry = flat_entry(f"vm/{name}-flat.vmdk", disk)
    daemon.export(entry)
    before, path = _mappings(), EXPORT / entry.name
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        opening = pool.submit(os.open, path, os.O_RDONLY)
        while not (made := _mappings() - before) and not opening.done():
            time.sleep(0.001)
        [mapping] = made
        if bits:
            (_BITMAPS / mapping).write_bytes(bits)
        file = opening.result()
    if bits and f"failed to open {_BITMAPS / mapping}," in daemon.log():
        os.close(file)
        raise Late(f"{path}: there was no bitmap in time")
    return file, path, _MAPPER / mapping


def _open_in_time(daemon, name, disk, bits):
    for trial in range(_TRIALS):
        with suppress(Late):
            return _open(daemon, f"{name}-{trial}", disk, bits)
    raise RuntimeError(f"{name}: never was there a bitmap in time")


def _check_bytes(subject, disk, is_used):
    """Figures of a reader that reads wrong bytes are worth nothing."""
    with Reader(subject.file, direct=True) as one, Reader(disk.base_extent) as other:
        for piece in range(disk.size // PIECE):
            expected = other.read(piece * PIECE, PIECE) if is_used is None or is_used(piece) else bytes(PIECE)
            if one.read(piece * PIECE, PIECE) != expected:
                raise RuntimeError(f"{subject.name}: piece {piece} is wrong")


def _forget(path):
    file = os.open(path, os.O_RDONLY)
    os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
    os.close(file)


def _read_cold(subject, disk):
    """Bytes a second, all from the datastore."""
    subject.forget_mapping()
    for device in subject.loops:
        run("blockdev", "--flushbufs", device)
    _forget(disk.base_extent)
    return measure.read_through(subject, BLOCK)


@contextmanager
def _datastore(name, rate):
    """A datastore on tmpfs, with `rate` behind a line of so many bytes a second."""
    store = disks.Datastore(name, disks.DIRECT_ROOT / name)
    disks.ORDINARY_ROOT.mkdir(parents=True, exist_ok=True)
    (disks.ORDINARY_ROOT / name).symlink_to(store.directory)
    mount_tmpfs(store.directory)
    yield store, lambda: _line(store, rate)


def _line(store, rate):
    """Puts the line in front of a datastore, whose files stand already."""
    hidden = _WORK / store.name
    hidden.mkdir()
    run("mount", "--bind", store.directory, hidden)
    command = ["env", f"PASSTHROUGH_RATE={rate}", program("bench-passthrough"), str(hidden), str(store.directory), "-f",
               "-o", "nonempty", *MOUNT_OPTIONS]
    device = os.stat(store.directory).st_dev
    return started(command, lambda: os.stat(store.directory).st_dev != device, "the line stands")


def _subjects(stack, store, disk):
    daemon = Daemon()
    daemon.start()
    stack.callback(daemon.stop)
    found = {}
    for number, (name, is_used) in enumerate(USED.items()):
        bits = _bitmap(disk.size, is_used) if is_used else None
        file, path, mapping = _open_in_time(daemon, f"{store.name}-{number}", disk, bits)
        stack.callback(os.close, file)  # keeps the mapping in place
        loops = run("losetup", "-l", "-n", "-O", "NAME").split()
        found[name] = Subject(name, "", path, mapping=mapping, loops=loops)
        _check_bytes(found[name], disk, is_used)
    return found


def _measure_store(name, rate, size, rounds):
    with ExitStack() as stack:
        store, line = stack.enter_context(_datastore(name, rate))
        disk = _make_disk(store, size)
        if rate:
            stack.enter_context(line())
        subjects = _subjects(stack, store, disk)
        return measure.taking_turns(rounds, {
            subject.name: (lambda subject=subject: _read_cold(subject, disk)) for subject in subjects.values()})


def measure_all(quick):
    """Bytes a second by store and subject."""
    rounds = 1 if quick else 5
    mount_tmpfs(_WORK)
    with suppress(FileExistsError):
        _BITMAPS.mkdir()
    measure.WORK.mkdir(parents=True, exist_ok=True)
    size = QUICK_SIZE if quick else SIZE
    return {"rounds": rounds, "size": size, "rate": RATE,
            "reads": {name: _measure_store(name, rate, size, rounds) for name, rate in STORES.items()}}
