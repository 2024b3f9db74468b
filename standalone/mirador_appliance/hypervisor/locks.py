"""Locks of a VM, which end with their holder.

    task   one snapshot task at a time works on a VM
    run    the running VM holds it shared whenever it reads or writes; whoever holds it alone makes the VM stand still

Each is a file beside the configuration file, there only while somebody uses it. A file may go while one waits for it,
so a lock counts only when its file is still in place. Held alone, it is removed before it is let go.
"""

import contextlib
import errno
import fcntl
import os
import time
from collections.abc import Iterator

_TURN = 0.0005  # seconds between two tries
PATIENCE = 60.0  # seconds that a VM may take to stand still
LOOK = 0.5  # seconds for which whoever only lists the VM's snapshots may hold it


def _file(vmx: str, kind: str) -> str:
    directory, name = os.path.split(vmx)
    return os.path.join(directory, f".{name}.{kind}.lck")


def task_file(vmx: str) -> str:
    return _file(vmx, "task")


def _is_in_place(fd: int, path: str) -> bool:
    try:
        return os.path.samestat(os.fstat(fd), os.stat(path))
    except FileNotFoundError:
        return False


def _take(path: str, how: int) -> int | None:
    """A descriptor that holds the lock; None when somebody else does."""
    while True:
        fd = os.open(path, os.O_RDWR | os.O_CREAT | os.O_CLOEXEC, 0o600)
        try:
            fcntl.flock(fd, how | fcntl.LOCK_NB)
            if _is_in_place(fd, path):
                return fd
        except BlockingIOError:
            os.close(fd)
            return None
        except BaseException:
            os.close(fd)
            raise
        os.close(fd)


@contextlib.contextmanager
def _alone(path: str, fd: int) -> Iterator[None]:
    try:
        yield
    finally:
        with contextlib.suppress(OSError):
            os.unlink(path)
        os.close(fd)


@contextlib.contextmanager
def task(vmx: str, patience: float = LOOK) -> Iterator[None]:
    """BlockingIOError while another task works on the VM, after so many seconds. Without patience: this is no task that
    others have to reckon with, and it is over at once."""
    path = task_file(vmx)
    deadline = time.monotonic() + patience
    while (fd := _take(path, fcntl.LOCK_EX)) is None:
        if time.monotonic() >= deadline:
            raise BlockingIOError(errno.EALREADY, "another task is in progress")
        time.sleep(_TURN)
    with _alone(path, fd):
        yield


@contextlib.contextmanager
def standing_still(vmx: str) -> Iterator[None]:
    """The VM neither reads nor writes. TimeoutError when it does not come to rest."""
    path = _file(vmx, "run")
    deadline = time.monotonic() + PATIENCE
    while (fd := _take(path, fcntl.LOCK_EX)) is None:
        if time.monotonic() > deadline:
            raise TimeoutError(errno.ETIMEDOUT, "the virtual machine does not come to rest")
        time.sleep(_TURN)
    with _alone(path, fd):
        yield


def tidy(vmx: str) -> None:
    """Removes the file that a crash left of a VM that is not running."""
    path = _file(vmx, "run")
    if os.path.exists(path) and (fd := _take(path, fcntl.LOCK_EX)) is not None:
        with _alone(path, fd):
            pass


class Running:
    """The running VM's side. A context manager's body is what it does without being interrupted."""

    def __init__(self, vmx: str) -> None:
        self._vmx, self._path = vmx, _file(vmx, "run")
        self._fd: int | None = None

    @contextlib.contextmanager
    def undisturbed(self) -> Iterator[None]:
        self._enter()
        try:
            yield
        finally:
            fcntl.flock(self._fd, fcntl.LOCK_UN)

    def _enter(self) -> None:
        if self._fd is not None:
            fcntl.flock(self._fd, fcntl.LOCK_SH)
            if _is_in_place(self._fd, self._path):
                return
            self.close()
        while (fd := _take(self._path, fcntl.LOCK_SH)) is None:
            time.sleep(_TURN)
        self._fd = fd

    def end(self) -> None:
        """The VM is switched off; nothing of it stays."""
        self.close()
        tidy(self._vmx)

    def close(self) -> None:
        if self._fd is not None:
            os.close(self._fd)
            self._fd = None
