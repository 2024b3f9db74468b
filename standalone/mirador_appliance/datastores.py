"""The directories that are served as datastores, and their places below the volume roots."""

import dataclasses
import os
import pathlib
import re

from .faults_told import Refused, reason
from .places import VOLUMES, Places
from .settings import HOST_PATTERN
from .texts import to_bytes

_NAME = re.compile(r"[^./\x00-\x1f][^/\x00-\x1f]*")
_LONGEST_NAME = 63  # bytes


class Elsewhere(Exception):
    """A path that lies on no datastore that is served."""


@dataclasses.dataclass(frozen=True)
class Datastore:
    """name: its directory's below the volume roots, which is also its uuid to the daemon; hypervisor: the host that
    its VMs belong to, None for the appliance's setting; directory: local and absolute, links followed."""
    name: str
    hypervisor: str | None
    directory: str

    def hypervisor_path(self, local: str) -> str:
        """What the hypervisor calls a local path of this datastore."""
        return os.path.normpath(f"{VOLUMES}/{self.name}/{os.path.relpath(local, self.directory)}")

    def relative(self, local: str) -> str:
        return os.path.relpath(local, self.directory)


def _directory_of(word: str) -> tuple[str | None, str]:
    host, colon, rest = word.partition(":")
    if colon and host and "/" not in host:
        if not HOST_PATTERN.fullmatch(host):
            raise Refused(f"{word}: {host!r} is no host name of letters, digits, dots and dashes", 2)
        if not rest:
            raise Refused(f"{word}: no directory is given", 2)
        return host, rest
    return None, word


def _readable(directory: str) -> str:
    path = os.path.realpath(directory)
    try:
        with os.scandir(path):
            pass
    except OSError as error:
        raise Refused(f"{directory}: cannot read this datastore: {reason(error)}") from error
    return path


def _name_of(given: str, real: str, places: Places) -> str:
    """A directory that stands below a volume root already keeps its name there."""
    for path in (real, os.path.normpath(os.path.abspath(given))):
        parent = pathlib.Path(path).parent
        if parent in (places.volumes, places.direct_volumes):
            return os.path.basename(path)
    return os.path.basename(real)


def _is_inside(path: str, directory: str) -> bool:
    return f"{path}/".startswith(f"{directory.rstrip('/')}/")


def parse_argument(words: list[str], places: Places) -> list[Datastore]:
    """The datastores that a command line gives: "[HOST:]DIR[,[HOST:]DIR…]", any number of times. Refused when one is
    no readable directory, two have the same name or one lies inside another."""
    found: dict[str, Datastore] = {}
    for word in (part for words_ in words for part in words_.split(",") if part):
        host, directory = _directory_of(word)
        real = _readable(directory)
        name = _name_of(directory, real, places)
        if not _NAME.fullmatch(name) or len(to_bytes(name)) > _LONGEST_NAME:
            raise Refused(f"{directory}: its name cannot be a datastore's", 2)
        if name in found:
            raise Refused(f"{directory}: a second datastore named {name!r}", 2)
        for other in found.values():
            if _is_inside(real, other.directory) or _is_inside(other.directory, real):
                raise Refused(f"{directory}: one lies inside the other: this and datastore {other.name!r}", 2)
        found[name] = Datastore(name, host, real)
    return list(found.values())


def publish(store: Datastore, places: Places) -> None:
    """Makes the datastore visible below both volume roots, by links where it does not stand there. Links that are
    there and lead to it are left; anything else in its place is refused."""
    for root in (places.direct_volumes, places.volumes):
        path = root / store.name
        try:
            root.mkdir(parents=True, exist_ok=True)
            if path.is_symlink() and not path.exists():
                path.unlink()
            if not path.exists():
                path.symlink_to(store.directory)
            if os.path.realpath(path) != store.directory:
                raise Refused(f"{path}: is there already and is not {store.directory}")
        except OSError as error:
            raise Refused(f"{path}: cannot be made: {reason(error)}") from error


class Volumes:
    """Finds files by the names that VMs' files give them."""

    def __init__(self, stores: list[Datastore], places: Places) -> None:
        self._stores = {store.name: store for store in stores}
        self._roots = tuple(dict.fromkeys([VOLUMES, str(places.volumes), str(places.direct_volumes),
                                           "/vmfs.direct/volumes"]))

    def locate(self, name: str, directory: str) -> str:
        """The local path of a name as written in a file that lies in `directory` (local). Elsewhere, also for a name
        that only links lead out of the datastores: who writes there must not choose what else of this machine is
        exported."""
        if "\0" in name:
            raise Elsewhere("is no file's name")
        if not os.path.isabs(name):
            local = os.path.normpath(os.path.join(directory, name))
        else:
            local = self._from_root(os.path.normpath(name))
        self.store_of(local)
        self.store_of(os.path.realpath(local))
        return local

    def _from_root(self, path: str) -> str:
        for root in self._roots:
            if path.startswith(root + "/"):
                store_name, _, rest = path[len(root) + 1:].partition("/")
                store = self._stores.get(store_name) or self._by_link(store_name)
                if store is None:
                    raise Elsewhere(f"lies on datastore {store_name}, which is not served")
                return os.path.join(store.directory, rest)
        return path

    def _by_link(self, name: str) -> Datastore | None:
        """Hypervisors know a datastore by a second name, a link beside the first."""
        for root in self._roots:
            real = os.path.realpath(os.path.join(root, name))
            for store in self._stores.values():
                if store.directory == real:
                    return store
        return None

    def store_of(self, local: str) -> Datastore:
        """The datastore that a local path lies on, the innermost one. Elsewhere."""
        inside = [store for store in self._stores.values() if _is_inside(local, store.directory)]
        if not inside:
            raise Elsewhere("lies outside the datastores that are served")
        return max(inside, key=lambda store: len(store.directory))

    def hypervisor_path(self, local: str) -> str:
        return self.store_of(local).hypervisor_path(local)
