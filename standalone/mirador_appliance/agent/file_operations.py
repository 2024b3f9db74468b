"""What the agent does with files on its hypervisor's datastores.

Nothing is replaced unless that is asked for, a datastore itself is never touched, a directory is only removed or
replaced when it is empty. A copy gets its name when it is whole; what an agent leaves that dies before, the next copy
into that directory removes. Files of a VM that a snapshot task works on stay as they are: the call is refused as the
task of another.
"""

import contextlib
import errno
import fcntl
import os
import secrets
import stat
from collections.abc import Callable, Iterator
from typing import Any

from ..busy import is_busy
from ..hypervisor import locks
from .datastore_paths import StorePath, opened, parse, told
from .file_entries import UNFINISHED, entry
from .framing import AgentError
from .machines import Home

_BLOCK = 4 << 20  # bytes read at a time


class Files:
    """The files of one hypervisor. step: is told of each step that is done. Errors are AgentError."""

    def __init__(self, home: Home, hypervisor: str, step: Callable[[str], None]) -> None:
        self._home, self._hypervisor, self._step = home, hypervisor, step
        with home.machines() as machines:
            self._stores = machines.stores(hypervisor)

    def path(self, datacenter: str, text: str) -> StorePath:
        """What a path of a request stands for."""
        return parse(text, self._stores, self._hypervisor, datacenter)

    def stat(self, path: StorePath) -> dict[str, Any]:
        with opened(path.parent) as beside, told(path):
            return entry(path, _status(path, beside), beside)

    def ls(self, path: StorePath) -> list[dict[str, Any]]:
        """The entries of a directory in the order of their names; a file lists itself."""
        with opened(path.parent) as beside, told(path):
            status = _status(path, beside)
            if not stat.S_ISDIR(status.st_mode) and not stat.S_ISLNK(status.st_mode):
                return [entry(path, status, beside)]
        with opened(path) as directory, told(path):
            found = []
            for name in sorted(os.listdir(directory)):
                child = path.child(name)
                with contextlib.suppress(FileNotFoundError):  # it has just gone
                    found.append(entry(child, _status(child, directory), directory))
            return found

    def mkdir(self, path: StorePath, with_parents: bool) -> None:
        if not path.parts:
            raise AgentError(errno.EEXIST, f"{path}: {os.strerror(errno.EEXIST)}")
        with opened(path.parent, make=with_parents) as beside, told(path):
            os.mkdir(path.name, 0o755, dir_fd=beside)
            os.fsync(beside)

    def rm(self, path: StorePath) -> None:
        _refuse_stores(path)
        with opened(path.parent) as beside, self._undisturbed(path), told(path):
            is_directory = stat.S_ISDIR(_status(path, beside).st_mode)
            (os.rmdir if is_directory else os.unlink)(path.name, dir_fd=beside)
            os.fsync(beside)

    def cp(self, source: StorePath, target: StorePath, overwrite: bool) -> None:
        """Copies a regular file; holes stay holes."""
        _refuse_stores(source, target)
        with opened(source.parent) as beside, _reading(source, beside) as file:
            self._copy(source, file, target, overwrite)

    def mv(self, source: StorePath, target: StorePath, overwrite: bool) -> None:
        """Renames, or, for a regular file that goes to another file system, copies and removes."""
        _refuse_stores(source, target)
        with opened(source.parent) as here, opened(target.parent) as there:
            with told(source):
                status = _status(source, here)
            _check_target(target, there, status, overwrite)
            is_directory = stat.S_ISDIR(status.st_mode)
            if is_directory:
                self._check_below(source)
            try:
                with self._undisturbed(source, target):
                    _place(source.name, here, target, there, overwrite, is_directory)
                    os.fsync(here)
            except AgentError as error:
                if error.number != errno.EXDEV or is_directory:
                    raise
                self._move_over(source, here, target, overwrite)

    def _move_over(self, source: StorePath, here: int, target: StorePath, overwrite: bool) -> None:
        with self._undisturbed(source), _reading(source, here) as file:
            self._copy(source, file, target, overwrite, moves=True)
            with told(source):
                os.unlink(source.name, dir_fd=here)
                os.fsync(here)

    def _copy(self, source: StorePath, file: int, target: StorePath, overwrite: bool, moves: bool = False) -> None:
        """moves: the source goes when this is done. Owner and times go along, and nobody may write to it meanwhile."""
        status = os.fstat(file)
        with opened(target.parent) as there, told(target):
            _check_target(target, there, status, overwrite)
            _remove_left_copies(there)
            aside, made = _begin_copy(there)
            try:
                _copy_data(source, file, made, status.st_size)
                _dress(made, status, moves)
                self._step("copied")
                if moves and _stamp(os.fstat(file)) != _stamp(status):
                    raise AgentError(errno.EBUSY, f"{source}: was written to while it was moved")
                with self._undisturbed(target):
                    _place(aside, there, target, there, overwrite)
            except BaseException:
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(aside, dir_fd=there)
                raise
            finally:
                os.close(made)

    def _machines(self) -> list[str]:
        """The local paths of all VMs' configuration files."""
        with self._home.machines() as machines:
            return [machine.vmx for machine in machines.all()]

    @contextlib.contextmanager
    def _undisturbed(self, *paths: StorePath) -> Iterator[None]:
        """Holds the locks of the VMs in whose directories these files are."""
        directories = {path.parent.local for path in paths}
        with contextlib.ExitStack() as held:
            for vmx in sorted(self._machines()):
                if os.path.dirname(vmx) in directories:
                    with told(vmx):
                        held.enter_context(locks.task(vmx))
            yield

    def _check_below(self, directory: StorePath) -> None:
        """No task works on a VM below a directory that shall go elsewhere."""
        busy = [vmx for vmx in self._machines() if vmx.startswith(f"{directory.local}/") and is_busy(vmx)]
        if busy:
            raise AgentError(errno.EALREADY, f"{busy[0]}: another task is in progress")


def _status(path: StorePath, beside: int) -> os.stat_result:
    """beside: the directory of the file; of a datastore itself, that."""
    return os.stat(path.name, dir_fd=beside, follow_symlinks=False) if path.parts else os.fstat(beside)


def _refuse_stores(*paths: StorePath) -> None:
    for path in paths:
        if not path.parts:
            raise AgentError(errno.EBUSY, f"{path}: is a datastore itself")


@contextlib.contextmanager
def _reading(path: StorePath, beside: int) -> Iterator[int]:
    """A descriptor of a regular file."""
    with told(path):
        if stat.S_ISLNK(_status(path, beside).st_mode):
            raise OSError(errno.ELOOP, "is a symbolic link, and none is followed")
        file = os.open(path.name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC,
                       dir_fd=beside)
    try:
        kind = os.fstat(file).st_mode
        if not stat.S_ISREG(kind):
            number = errno.EISDIR if stat.S_ISDIR(kind) else errno.EINVAL
            raise AgentError(number, f"{path}: is no regular file")
        yield file
    finally:
        os.close(file)


def _check_target(target: StorePath, there: int, source: os.stat_result, overwrite: bool) -> None:
    """Spares work that would be refused in the end."""
    with told(target):
        try:
            status = _status(target, there)
        except FileNotFoundError:
            return
        if os.path.samestat(status, source):
            raise OSError(errno.EINVAL, "source and target are the same file")
        if not overwrite:
            raise OSError(errno.EEXIST, os.strerror(errno.EEXIST))
        if stat.S_ISDIR(status.st_mode) and not stat.S_ISDIR(source.st_mode):
            raise OSError(errno.EISDIR, os.strerror(errno.EISDIR))


def _begin_copy(directory: int) -> tuple[str, int]:
    """Name and descriptor of a new file. Its lock, where there are locks, tells that somebody works on it."""
    while True:
        name = f"{UNFINISHED}{os.getpid()}-{secrets.token_hex(4)}"
        made = os.open(name, os.O_WRONLY | os.O_CREAT | os.O_EXCL | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600,
                       dir_fd=directory)
        with contextlib.suppress(OSError):
            fcntl.flock(made, fcntl.LOCK_EX)
        if os.fstat(made).st_nlink > 0:
            return name, made
        os.close(made)  # somebody has taken it for one that was left


def _remove_left_copies(directory: int) -> None:
    for name in filter(lambda name: name.startswith(UNFINISHED), os.listdir(directory)):
        with contextlib.suppress(OSError):
            if not stat.S_ISREG(os.stat(name, dir_fd=directory, follow_symlinks=False).st_mode):
                continue
            left = os.open(name, os.O_WRONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC,
                           dir_fd=directory)
            try:
                fcntl.flock(left, fcntl.LOCK_EX | fcntl.LOCK_NB)
                os.unlink(name, dir_fd=directory)
            finally:
                os.close(left)


def _copy_data(source: StorePath, file: int, made: int, size: int) -> None:
    os.ftruncate(made, size)
    for start, length in _pieces(file, size):
        data = memoryview(os.pread(file, length, start))
        if len(data) < length:
            raise AgentError(errno.EIO, f"{source}: became shorter while it was copied")
        while data:
            written = os.pwrite(made, data, start)
            data, start = data[written:], start + written


def _pieces(file: int, size: int) -> Iterator[tuple[int, int]]:
    """Start and length of what a file holds beside its holes, in the order of the file."""
    end = 0
    while end < size:
        try:
            start = os.lseek(file, end, os.SEEK_DATA)
        except OSError as error:
            if error.errno == errno.ENXIO:
                return  # a hole up to the end
            raise
        end = min(os.lseek(file, start, os.SEEK_HOLE), size)
        for at in range(start, end, _BLOCK):
            yield at, min(_BLOCK, end - at)


def _dress(made: int, status: os.stat_result, moves: bool) -> None:
    """Gives a copy what its source has beside the data, and waits until all of it is on the disk."""
    if moves:
        os.fchown(made, status.st_uid, status.st_gid)
        os.utime(made, ns=(status.st_atime_ns, status.st_mtime_ns))
    os.fchmod(made, status.st_mode & 0o777)
    os.fsync(made)


def _stamp(status: os.stat_result) -> tuple[int, int]:
    return status.st_size, status.st_mtime_ns


def _place(name: str, here: int, target: StorePath, there: int, overwrite: bool, is_directory: bool = False) -> None:
    """Gives a file another name. Without `overwrite` that name is taken by what fails when somebody has it."""
    with told(target):
        if overwrite:
            os.rename(name, target.name, src_dir_fd=here, dst_dir_fd=there)
        elif is_directory:
            os.mkdir(target.name, dir_fd=there)
            try:
                os.rename(name, target.name, src_dir_fd=here, dst_dir_fd=there)
            except OSError:
                os.rmdir(target.name, dir_fd=there)
                raise
        else:
            os.link(name, target.name, src_dir_fd=here, dst_dir_fd=there, follow_symlinks=False)
            os.unlink(name, dir_fd=here)
        os.fsync(there)
