"""Paths on the datastores, and the directories there, out of which nobody is led.

A path is "[DATASTORE] FOLDER/FILE" or "/vmfs/volumes/DATASTORE/FOLDER/FILE" (also "/vmfs.direct/…"). It has no "..". No
symbolic link below a datastore is followed, wherever it leads: each directory on the way is opened from the one before,
so that nobody can put a link in its place meanwhile.
"""

import contextlib
import dataclasses
import errno
import os
import re
import stat
from collections.abc import Iterator

from ..faults_told import reason
from ..places import VOLUMES
from .framing import AgentError

_BRACKETED = re.compile(r"\[([^\]]+)\] ?(.*)", re.DOTALL)
_ROOTS = (f"{VOLUMES}/", "/vmfs.direct/volumes/")
_DIRECTORY = os.O_RDONLY | os.O_DIRECTORY | os.O_NOFOLLOW | os.O_CLOEXEC


@dataclasses.dataclass(frozen=True)
class FileStore:
    """A datastore that a session may work on. directory: local and absolute."""
    name: str
    datacenter: str
    directory: str


@dataclasses.dataclass(frozen=True)
class StorePath:
    """A path on a datastore; without parts, the datastore itself."""
    store: FileStore
    parts: tuple[str, ...]

    def __str__(self) -> str:
        return f"[{self.store.name}] {'/'.join(self.parts)}".rstrip()

    @property
    def name(self) -> str:
        return self.parts[-1] if self.parts else ""

    @property
    def folder(self) -> str:
        return "/".join(self.parts[:-1])

    @property
    def parent(self) -> "StorePath":
        return StorePath(self.store, self.parts[:-1])

    @property
    def local(self) -> str:
        """For comparisons only: what is there may be a link by the time it is used."""
        return os.path.join(self.store.directory, *self.parts)

    def child(self, name: str) -> "StorePath":
        return StorePath(self.store, (*self.parts, name))


def parse(text: str, stores: list[FileStore], hypervisor: str, datacenter: str) -> StorePath:
    """What a path of a request stands for. AgentError when it is none, or lies on none of the datastores."""
    name, rest = _split(text)
    store = next((store for store in stores if store.name == name), None)
    if store is None:
        raise AgentError(errno.ENOENT, f"{text}: there is no datastore {name!r} on {hypervisor}")
    if datacenter not in ("", store.datacenter):
        raise AgentError(errno.ENOENT, f"{text}: there is no datacenter {datacenter!r} with this datastore")
    parts = tuple(part for part in rest.split("/") if part not in ("", "."))
    if ".." in parts:
        raise AgentError(errno.EINVAL, f"{text}: a path with \"..\" is refused")
    return StorePath(store, parts)


def _split(text: str) -> tuple[str, str]:
    """A path's datastore, and what follows it. AgentError."""
    try:
        fits = b"\0" not in os.fsencode(text)
    except UnicodeEncodeError:
        fits = False
    if fits and (match := _BRACKETED.fullmatch(text)):
        return match[1], match[2]
    for root in _ROOTS:
        if fits and text.startswith(root):
            name, _, rest = text[len(root):].lstrip("/").partition("/")
            return name, rest
    raise AgentError(errno.EINVAL, f"{text}: is no path on a datastore, as \"[datastore] folder/file\" is one")


@contextlib.contextmanager
def told(path: StorePath | str) -> Iterator[None]:
    """What goes wrong inside is told as being about a path."""
    try:
        yield
    except OSError as error:
        raise AgentError(error.errno or errno.EIO, f"{path}: {reason(error)}").with_traceback(
            error.__traceback__) from None


@contextlib.contextmanager
def opened(path: StorePath, make: bool = False) -> Iterator[int]:
    """A descriptor of a directory. make: those that are missing are made. AgentError."""
    with told(path):
        descriptor = os.open(path.store.directory, _DIRECTORY)
    try:
        for count, part in enumerate(path.parts, 1):
            with told(StorePath(path.store, path.parts[:count])):
                inner = _open_in(descriptor, part, make)
            os.close(descriptor)
            descriptor = inner
        yield descriptor
    finally:
        os.close(descriptor)


def _open_in(parent: int, name: str, make: bool) -> int:
    if make:
        with contextlib.suppress(FileExistsError):
            os.mkdir(name, 0o755, dir_fd=parent)
            os.fsync(parent)
    try:
        return os.open(name, _DIRECTORY, dir_fd=parent)
    except NotADirectoryError:
        if stat.S_ISLNK(os.stat(name, dir_fd=parent, follow_symlinks=False).st_mode):
            raise OSError(errno.ELOOP, "is a symbolic link, and none is followed") from None
        raise
