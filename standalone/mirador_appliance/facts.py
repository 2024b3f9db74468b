"""What is known of a VM from its files.

Facts are a dict, as the worker tells them and the database keeps them:

    datastore    name of the datastore
    vmx_path     the configuration file's path below it, ".vmx" or ".vmtx"
    name         display name
    uuids        up to two, normalised, best first
    working_directory  hypervisor's path of the directory that snapshots go to
    snapshots    names of its snapshots
    snapshot_times  when each was made, in seconds since 1970; 0: its database does not tell
    files        digest of sizes and times of everything read; differs when a file does
    frozen       what snapshots of appliances have frozen: name of the snapshot -> list as in disks, whose heads are what
                 the newest snapshot of that name froze
    disks        list of {name, independent, thin (0 or 1), capacity (bytes), and for base and head:
                 base_ascii_path, base_extent_path (hypervisor's paths), base_ascii_size, base_extent_size (bytes), …}
    problems     list of [object, text]: what of it cannot be exported, and why; object "" for the VM
"""

import dataclasses
import hashlib
import os
from typing import Any

from . import vmdk, vmsd
from .datastores import Datastore, Elsewhere, Volumes
from .faults_told import reason
from .hypervisor.machine import Refused
from .hypervisor.snapshots import frozen
from .snapshot_names import is_appliances
from .uuids import normalised
from .vmdk import Unreadable

Facts = dict[str, Any]


@dataclasses.dataclass(frozen=True)
class VmxDisk:
    """A disk that a configuration file gives. refused: why the daemon's own reading of its chain fails; "" when it
    does not."""
    name: str  # as written
    is_independent: bool = False
    refused: str = ""


@dataclasses.dataclass(frozen=True)
class VmxRecord:
    """A configuration file as discovery reads it. path: local; error: why it could not be read; is_passing: the fault
    is not known to be the file's own, so that the next try may do."""
    path: str
    name: str = ""
    uuids: tuple[str, ...] = ()  # as written, best first
    working_dir: str = ""  # as written
    disks: tuple[VmxDisk, ...] = ()
    error: str = ""
    is_passing: bool = False


# Size, times of modification and of change (ns), inode; None when the file is not there.
Stamp = tuple[int, int, int, int] | None


def stamp(path: str) -> Stamp:
    """What tells whether a file has changed."""
    try:
        found = os.stat(path)
    except OSError:
        return None
    return found.st_size, found.st_mtime_ns, found.st_ctime_ns, found.st_ino


def digest(stamps: dict[str, Stamp]) -> str:
    """Differs when the size or time of modification of a file does."""
    told = sorted((path, found and found[:2]) for path, found in stamps.items())
    text = repr(told).encode("utf-8", "surrogateescape")
    return hashlib.blake2b(text, digest_size=12).hexdigest()


def vmsd_path(vmx: str) -> str:
    return os.path.splitext(vmx)[0] + ".vmsd"


def _working_directory(record: VmxRecord, volumes: Volumes) -> str:
    """Local. A working directory that is not there or not served is as good as none."""
    own = os.path.dirname(record.path)
    try:
        directory = volumes.locate(record.working_dir, own) if record.working_dir not in ("", ".") else own
    except Elsewhere:
        return own
    return directory if os.path.isdir(directory) else own


def _whereabouts(path: str, volumes: Volumes) -> str:
    """Why a configuration file is none of a datastore; "" when it is one."""
    try:
        volumes.store_of(os.path.realpath(path))
    except Elsewhere as where:
        return f"it {where}"
    return ""


class _DiskReader:
    """Reads the disks of one VM. seen: each file that was looked at; written: those that the VM writes to."""

    def __init__(self, record: VmxRecord, volumes: Volumes) -> None:
        self._volumes = volumes
        self._directories = list(dict.fromkeys([_working_directory(record, volumes), os.path.dirname(record.path)]))
        self.seen: list[str] = []
        self.written: set[str] = set()

    def _locate(self, name: str, directory: str) -> str:
        try:
            return self._volumes.locate(name, directory)
        except Elsewhere as where:
            raise Unreadable(f"{name} {where}") from None

    def _head(self, name: str) -> str:
        """Names without a directory are looked for where snapshots go, then beside the configuration file."""
        candidates = [self._locate(name, directory) for directory in self._directories]
        self.seen.extend(candidates)
        return next((path for path in candidates if os.path.isfile(path)), candidates[-1])

    def read(self, disk: VmxDisk, head: str | None) -> dict[str, Any]:
        """One disk's facts. head: local path of the descriptor to take for its head. Unreadable."""
        chain = vmdk.read_chain(head or self._head(disk.name), self._locate, self.seen)
        vmdk.check_exportable(chain)
        if disk.refused:
            raise Unreadable(disk.refused)
        head, base = chain[0], chain[-1]
        self.written.update(head.extent_paths)
        return {
            "name": os.path.basename(base.descriptor.path),
            "independent": int(disk.is_independent),
            "thin": int(base.descriptor.is_thin),
            "capacity": sum(extent.sectors for extent in head.descriptor.extents) * vmdk.SECTOR,
            **self._side("base", base),
            **self._side("head", head),
        }

    def _side(self, side: str, link: vmdk.Link) -> dict[str, Any]:
        ascii_path, extent_path = link.descriptor.path, link.extent_paths[0]
        return {
            f"{side}_ascii_path": self._volumes.hypervisor_path(ascii_path),
            f"{side}_extent_path": self._volumes.hypervisor_path(extent_path),
            f"{side}_ascii_size": os.stat(ascii_path).st_size,
            f"{side}_extent_size": os.stat(extent_path).st_size,
        }


def _read_disks(record: VmxRecord, reader: _DiskReader, problems: list[list[str]],
                heads: dict[str, str] | None = None) -> list[dict[str, Any]]:
    """heads: local paths of the descriptors to take for the disks' heads, by the disks' names; a disk without one is
    then left out."""
    disks = []
    for disk in record.disks:
        try:
            if heads is not None and disk.name not in heads:
                raise Unreadable("what its snapshot froze is not to be found")
            disks.append(reader.read(disk, heads and heads[disk.name]))
        except (Unreadable, OSError) as fault:  # a file may go while it is looked at
            why = reason(fault) if isinstance(fault, OSError) else str(fault)
            if all(item != disk.name for item, _ in problems):
                problems.append([disk.name, f"Disk '{disk.name}' cannot be exported: {why}."])
    return disks


def _read_frozen(record: VmxRecord, reader: _DiskReader, names: list[str], volumes: Volumes,
                 problems: list[list[str]]) -> dict[str, list[dict[str, Any]]]:
    """What appliances' snapshots have frozen. When that is not to be found, no disks: those that the VM writes to are
    never served in their place."""
    found = {}
    for name in dict.fromkeys(filter(is_appliances, names)):
        heads: dict[str, str] = {}
        try:
            heads = {disk.name: disk.frozen for disk in frozen(record.path, name.__eq__, names=volumes)}
        except (Refused, OSError) as fault:
            why = reason(fault) if isinstance(fault, OSError) else fault.text
            problems.append(["snapshots", f"Snapshot '{name}' of '{record.name}' cannot be read: {why}."])
        found[name] = _read_disks(record, reader, problems, heads)
    return found


def gather(record: VmxRecord, store: Datastore, volumes: Volumes) -> tuple[Facts, list[str]]:
    """A VM's facts, but for the key "files", and the local paths of the files that they rest on. Facts of a VM that
    cannot be exported at all have a problem with the object ""."""
    problems: list[list[str]] = []
    relative = store.relative(record.path)
    error = record.error or _whereabouts(record.path, volumes)
    if error:
        problems.append(["", f"'{relative}' cannot be read: {error}."])
    elif not record.name:
        problems.append(["", f"'{relative}' gives the virtual machine no name."])
    reader = _DiskReader(record, volumes)
    disks = _read_disks(record, reader, problems)
    try:
        snapshots = vmsd.snapshots(vmsd_path(record.path))
    except OSError as error:
        snapshots = []
        problems.append(["snapshots", f"The snapshots of '{relative}' cannot be read: {reason(error)}."])
    holder = _DiskReader(record, volumes)
    names = [name for name, _ in snapshots]
    held = _read_frozen(record, holder, names, volumes, problems)
    facts = {
        "datastore": store.name,
        "vmx_path": relative,
        "name": record.name,
        "uuids": [text for text in map(normalised, record.uuids) if text],
        "working_directory": volumes.hypervisor_path(_working_directory(record, volumes)),
        "snapshots": names,
        "snapshot_times": [created for _, created in snapshots],
        "frozen": held,
        "disks": disks,
        "problems": problems,
    }
    seen = dict.fromkeys([record.path, vmsd_path(record.path), *reader.seen, *holder.seen])
    passing = reader.written - set(holder.seen) if held else set()  # nobody is told of these as long as that is held
    return facts, [path for path in seen if path not in passing]
