"""What the disks of the VMs hold: the truth that every byte read is compared with.

A VM's truth has two sources that know nothing of each other. The guest's side is computed here: the disks as they were
made, and every round of writes laid over them. The datastore's side is what the snapshot froze, read from its files
while the daemon holds it. A snapshot must be a moment of the guest's, and what the daemon gives must be the snapshot."""

import dataclasses
import hashlib
import pathlib
import random
import threading

from harness import snapshots
from harness.daemon import EXPORT
from harness.disks import MIB, SECTOR, Datastore, flat_disk
from harness.machines import Machine, machine
from mirador_appliance.hypervisor import guest

HEADER = slice(2 * SECTOR, 3 * SECTOR)  # where an exported disk with a partition table has the daemon's header: the guest
#                                         leaves it zero
PARTITIONED, BARE = "disk.vmdk", "bare.vmdk"
SIZES = {PARTITIONED: 4 * MIB, BARE: 3 * MIB}  # larger than what guests leave alone at a disk's start


class Wrong(Exception):
    """Something that must hold does not."""


@dataclasses.dataclass(frozen=True)
class Place:
    """Where a VM is in the exported tree: a hypervisor or folder, and the displayed name."""
    group: str
    name: str

    @property
    def directory(self) -> pathlib.Path:
        return EXPORT / self.group / self.name


class Vm:
    """A VM and what its disks hold. changes: held by whoever works on its files from outside, and by whoever reads what
    its snapshot froze."""

    def __init__(self, made: Machine, host: str):
        self.changes = threading.RLock()
        self.define(made, host)

    def define(self, made: Machine, host: str) -> None:
        """The VM is another one now: another place, other disks. It must have no snapshot that matters."""
        with self.changes:
            self.machine, self.host = made, host
            self.place = Place(host, made.name)
            self._now = {node: bytearray(data) for node, data in snapshots.contents(made).items()}
            self._moments = {node: {_digest(data)} for node, data in self._now.items()}

    @property
    def name(self) -> str:
        return self.machine.name

    @property
    def path(self) -> str:
        """In the exported tree."""
        return f"{self.place.group}/{self.place.name}"

    @property
    def uuid(self) -> str:
        return self.machine.uuid

    @property
    def disks(self) -> tuple[str, ...]:
        return self.machine.disks

    def flat(self, disk: str) -> pathlib.Path:
        """A disk's exported file."""
        return self.place.directory / disk.replace(".vmdk", "-flat.vmdk")

    def changed(self, disk: str) -> pathlib.Path:
        """A disk's changed-block file."""
        return self.place.directory / disk.replace(".vmdk", "-corcbt.vmdk")

    def node(self, disk: str) -> str:
        return f"scsi0:{self.disks.index(disk)}"

    # The guest

    def write(self, seed: int, rounds: int) -> None:
        """The guest writes. A moment is known before it can be on a disk."""
        with self.changes, guest.Guest(str(self.machine.vmx), seed) as running:
            for number in range(1, rounds + 1):
                self._expect(seed, number)
                running.write_round()

    def _expect(self, seed: int, number: int) -> None:
        nodes = list(self._now)
        for disk, first, data in guest.writes(seed, number, [len(self._now[node]) // SECTOR for node in nodes]):
            content = self._now[nodes[disk]]
            content[first * SECTOR:first * SECTOR + len(data)] = data
            self._moments[nodes[disk]].add(_digest(content))

    def check_contents(self) -> None:
        """The disks hold all that the guest wrote, and nothing else."""
        with self.changes:
            found = snapshots.contents(self.machine)
        for node, data in self._now.items():
            if found[node] != data:
                raise Wrong(f"{self.name}, {node}: its guest does not see what it wrote")

    # Snapshots

    def frozen(self, disk: str, own: str) -> bytes:
        """A disk as the snapshot called `own` froze it; somebody must have the VM open. Wrong."""
        node = self.node(disk)
        with self.changes:
            if not any(name.startswith(own) for name in snapshots.names(self.machine)):
                raise Wrong(f"{self.name}: is read without a snapshot")
            data = snapshots.frozen(self.machine, own)[node]
        if _digest(data) not in self._moments[node]:
            raise Wrong(f"{self.name}, {disk}: the snapshot is no moment of the guest's")
        return data


def _digest(data: bytes | bytearray) -> bytes:
    return hashlib.sha256(data).digest()


def without_header(disk: str, data: bytes, offset: int = 0) -> bytes:
    """What was read from `offset` on, without the daemon's header."""
    begin, end = max(0, HEADER.start - offset), min(len(data), HEADER.stop - offset)
    if disk != PARTITIONED or begin >= end:
        return data
    return data[:begin] + bytes(end - begin) + data[end:]


def make_vm(store: Datastore, host: str, name: str, draw: random.Random,
            disks: tuple[str, ...] = (PARTITIONED, BARE)) -> Vm:
    """A VM with disks that have random pieces all over them."""
    for disk in disks:
        flat_disk(store.vm(name) / disk, SIZES[disk], draw.getrandbits(32), is_partitioned=disk == PARTITIONED)
    return Vm(machine(store, name, disks=disks), host)
