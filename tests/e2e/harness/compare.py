"""An exported file against its reference."""

import mmap
import os
import pathlib
from collections.abc import Iterable, Iterator

from .disks import KIB, MIB
from .tools import saved_error

SIZES = (1, 511, 512, 513, 4096, 65537, 128 * KIB, MIB)


class Reader:
    """Reads at any offset, through the page cache or, with `direct`, as single requests to the daemon."""

    def __init__(self, path: os.PathLike, direct: bool = False):
        try:
            self._fd = os.open(path, os.O_RDONLY | (os.O_DIRECT if direct else 0))
        except OSError as error:
            error.add_note(f"what the daemon tells: {saved_error(path)}")
            raise
        self._buffer = mmap.mmap(-1, 2 * MIB) if direct else None

    def __enter__(self) -> "Reader":
        return self

    def __exit__(self, *_) -> None:
        os.close(self._fd)

    def fileno(self) -> int:
        return self._fd

    def read(self, offset: int, size: int) -> bytes:
        if self._buffer is None:
            return os.pread(self._fd, size, offset)
        with memoryview(self._buffer)[:size] as view:
            return bytes(view[:os.preadv(self._fd, [view], offset)])


def first_difference(path: pathlib.Path, reference: pathlib.Path, skip: range = range(0)) -> str | None:
    """Compares whole files; the bytes in `skip` may differ. None when they are equal."""
    if os.stat(path).st_size != os.stat(reference).st_size:
        return f"sizes {os.stat(path).st_size} and {os.stat(reference).st_size}"
    with open(path, "rb", buffering=0) as one, open(reference, "rb", buffering=0) as other:
        for offset in range(0, os.stat(reference).st_size, MIB):
            left, right = (_without(file.read(MIB), offset, skip) for file in (one, other))
            if left != right:
                place = next((i for i, (a, b) in enumerate(zip(left, right)) if a != b), min(len(left), len(right)))
                return f"differs at byte {offset + place}"
    return None


def _without(data: bytes, offset: int, skip: range) -> bytes:
    begin, end = max(0, skip.start - offset), min(len(data), skip.stop - offset)
    return data[:begin] + bytes(end - begin) + data[end:] if begin < end else data


def data_windows(reference: pathlib.Path) -> Iterator[tuple[int, int]]:
    """Where a sparse reference holds data, widened by what lies beside it: (offset, size), at most a MiB each."""
    with open(reference, "rb") as file:
        end, length = 0, os.stat(reference).st_size
        while end < length:
            try:
                begin = os.lseek(file.fileno(), end, os.SEEK_DATA)
            except OSError:  # nothing but holes to the end
                return
            end = os.lseek(file.fileno(), begin, os.SEEK_HOLE)
            for offset in range(max(0, begin - 64 * KIB), end + 64 * KIB, MIB):
                yield offset, min(MIB, end + 64 * KIB - offset)


def straddling_reads(edges: Iterable[int]) -> Iterator[tuple[int, int]]:
    """Reads that end at an edge, begin at it, and lie across it."""
    for edge in edges:
        for size in SIZES:
            for offset in (edge - size, edge - size + 1, edge - size // 2, edge - 1, edge):
                if offset >= 0:
                    yield offset, size


def wrong_reads(path: pathlib.Path, reference: pathlib.Path, reads: Iterable[tuple[int, int]]) -> list[tuple[int, int]]:
    """The reads (offset, size) that give other bytes than the reference, cached or direct."""
    wrong = []
    with Reader(path) as cached, Reader(path, direct=True) as direct, Reader(reference) as truth:
        for offset, size in reads:
            expected = truth.read(offset, size)
            if direct.read(offset, size) != expected or cached.read(offset, size) != expected:
                wrong.append((offset, size))
    return wrong
