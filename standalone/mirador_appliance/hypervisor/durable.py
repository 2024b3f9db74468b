"""Changes of the datastore that are whole or not there, also after a crash."""

import contextlib
import os
from collections.abc import Callable


def aside(path: str) -> str:
    """Where a file is written before it is put in place."""
    return f"{path}.tmp"


def sync_directory(path: str) -> None:
    fd = os.open(path, os.O_RDONLY | os.O_DIRECTORY | os.O_CLOEXEC)
    try:
        os.fsync(fd)
    finally:
        os.close(fd)


def replace(path: str, data: bytes, written: Callable[[], None] = lambda: None) -> None:
    """Writes a file aside, with the mode and, if possible, the owner of the one in its place, and renames it. written:
    called before the rename."""
    fd = os.open(aside(path), os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o600)
    with os.fdopen(fd, "wb") as file:
        _take_after(fd, path)
        file.write(data)
        file.flush()
        os.fsync(fd)
    written()
    os.rename(aside(path), path)
    sync_directory(os.path.dirname(path))


def _take_after(fd: int, path: str) -> None:
    with contextlib.suppress(OSError):
        old = os.stat(path)
        os.fchmod(fd, old.st_mode & 0o7777)
        os.fchown(fd, old.st_uid, old.st_gid)


def remove(path: str) -> None:
    """Removes a file, if there, and what a crash left beside it."""
    for name in (aside(path), path):
        with contextlib.suppress(FileNotFoundError):
            os.unlink(name)


def tidy(path: str) -> None:
    """Removes what a crash left beside a file."""
    with contextlib.suppress(FileNotFoundError):
        os.unlink(aside(path))
