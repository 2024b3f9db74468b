"""Readers of disks behind snapshots: alone and together, in every size and way, while guests write."""

import mmap
import re
import time

from harness.compare import SIZES, Reader
from harness.tools import WORK, program, run

from model import Vm, Wrong, without_header
from work import Worker

_CONTENT_ID = re.compile(rb"(?m)^CID=[0-9a-f]+$")


class DiskReader(Worker):
    """Opens a disk, reads it, keeps it open for a while."""

    def step(self) -> None:
        vm = self.draw.choice(self.stage.read)
        disk = self.draw.choice(vm.disks)
        is_direct = self.draw.random() < 0.5
        with self.clients.opened(vm, vm.flat(disk), is_direct) as reader:
            if reader is not None:
                check_disk(self, vm, disk, reader)
                self.pause(0, self.draw.choice((0, 0, 3)))
                check_pieces(self, vm, disk, reader, 5)
        self.pause(0, self.draw.choice((0, 1, 8)))  # what nobody uses for long enough goes


def check_disk(worker: Worker, vm: Vm, disk: str, reader: Reader) -> None:
    """Reads a whole disk in one of several ways, then pieces of it."""
    worker.draw.choice((_check_in_order, _check_mapped, check_pieces))(worker, vm, disk, reader)


def _check_in_order(worker: Worker, vm: Vm, disk: str, reader: Reader) -> None:
    truth = vm.frozen(disk, worker.clients.own)
    size = worker.draw.choice((64, 128, 1024)) * 1024
    for offset in range(0, len(truth), size):
        worker.clients.read_equal(reader, disk, truth, offset, size)


def _check_mapped(worker: Worker, vm: Vm, disk: str, reader: Reader) -> None:
    truth = vm.frozen(disk, worker.clients.own)
    with mmap.mmap(reader.fileno(), len(truth), prot=mmap.PROT_READ) as mapped:
        data = mapped[:]
    worker.tally.count("bytes", len(data))
    if without_header(disk, data) != truth:
        raise Wrong(f"{vm.name}, {disk}: wrong when it is mapped into memory")


def check_pieces(worker: Worker, vm: Vm, disk: str, reader: Reader, count: int = 30) -> None:
    truth = vm.frozen(disk, worker.clients.own)
    for _ in range(count):
        size = worker.draw.choice(SIZES)
        worker.clients.read_equal(reader, disk, truth, worker.draw.randrange(len(truth) + 1), size)


class Hoarder(Worker):
    """Opens many files at a time, small ones most of all, so that the daemon's table fills and idle disks must go."""

    def step(self) -> None:
        files = [(vm, path) for vm in self.stage.read + self.stage.tracked for path in self._small(vm)]
        self._open(self.draw.sample(files, self.draw.randint(2, len(files))))
        self.pause(0, 10)

    @staticmethod
    def _small(vm: Vm):
        names = [*vm.disks, f"{vm.machine.vmx.stem}.cfg", vm.machine.vmx.name]
        return [vm.place.directory / name for name in names]

    def _open(self, files) -> None:
        """One within the other, so that all are open in the end."""
        if not files or self.tally.ended.is_set():
            self.pause(0, 1)
            return
        (vm, path), *rest = files
        with self.clients.opened(vm, path) as reader:
            if reader is not None:
                self._check(vm, path, reader)
            self._open(rest)

    def _check(self, vm: Vm, path, reader: Reader) -> None:
        data = reader.read(0, 1 << 20)
        self.tally.count("bytes", len(data))
        if path.suffix == ".vmdk":
            self._check_descriptor(vm, path, data)
        elif path.suffix == ".vmx":
            self._check_configuration(vm, path, data)
        elif path.suffix == ".cfg" and self.draw.random() < 0.1:
            copy = WORK / f"{self.name}.cfg"  # the path itself may have gone
            copy.write_bytes(data)
            said = run(program("mirador-inspect"), "cfg", copy)
            if vm.uuid not in said:
                raise Wrong(f"{path}: not the VM's: {said}")

    def _check_configuration(self, vm: Vm, path, data: bytes) -> None:
        """Whole, though fstat may tell a later version's size, and with the bases of the disks that are exported."""
        if not data.endswith(b"\n"):
            raise Wrong(f"{path}: without its end: {data!r}")
        names_bases = set(re.findall(rb'fileName = "(.*)"', data)) == set(map(str.encode, vm.disks))
        if not names_bases and not self.stage.excuses.explain(vm.uuid, time.monotonic(), "the VM has no disks"):
            raise Wrong(f"{path}: not the disks' bases: {data!r}")

    @staticmethod
    def _check_descriptor(vm: Vm, path, data: bytes) -> None:
        """Equal to the base's on the datastore, but for the content id, which changes as the guest writes."""
        base = (vm.machine.directory / path.name).read_bytes()
        if _CONTENT_ID.sub(b"CID=", data) != _CONTENT_ID.sub(b"CID=", base):
            raise Wrong(f"{path}: is {data!r} instead of {base!r}")
