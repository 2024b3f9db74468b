"""The test case whose VMs' changes are tracked: full copies, changed-block files, and what comes of the two."""

import pathlib
from collections.abc import Callable
from typing import Any

from . import census, snapshots
from .compare import Reader
from .daemon import EXPORT
from .disks import MIB, SECTOR, datastore, flat_disk
from .machines import Machine, machine
from .snapshot_case import BOUND, HEADER, HOST, OWN, SnapshotCase, digest, next_seed
from .tools import WORK, program, run, saved_error, wait_equal, wait_until

DISKS = {"disk": 14 * MIB, "bare": 12 * MIB}  # with a partition table, which makes room for a header, and without
VOID = "uninitialized"

Ids = tuple[str, str]  # epoch, number


def split(change_id: str) -> Ids:
    epoch, _, number = change_id.rpartition("/")
    return epoch, number


class CbtCase(SnapshotCase):
    """VMs of two disks each; their changed-block files promise to hold `percent` of the disk."""

    percent = 60

    @classmethod
    def make_machines(cls):
        cls.store = datastore(cls.__name__.lower())
        cls.vms = {}
        for number, name in enumerate(cls.vm_names()):
            for disk, size in DISKS.items():
                flat_disk(cls.store.vm(name) / f"{disk}.vmdk", size, 100 * number + size, is_partitioned=disk == "disk")
            cls.vms[name] = machine(cls.store, name, disks=tuple(f"{disk}.vmdk" for disk in DISKS))
        return [f"{HOST}:{cls.store.directory}"]

    @classmethod
    def prepare(cls):
        cls.appliance.command("fault", "add", "--method", "create_snapshot", "--moment")
        for vm in cls.vms.values():
            cls.appliance.command("cbt", vm.name, "on")
            for disk in DISKS:
                cls.appliance.note(vm.uuid, disk, corcbt_size_percentage=cls.percent)
        super().prepare()

    # The controller's records

    def known(self, vm: Machine, disk: str) -> dict[str, str]:
        """The change ids of a record that say something."""
        record = self.appliance.record(vm.uuid, disk)
        return {key: record[key] for key in ("changeid", "changeid_base", "changeid_incr")
                if record.get(key, VOID) not in (VOID, "")}

    def wait_reset(self, vm: Machine) -> None:
        """The daemon has done what belongs to a reset."""
        wait_equal(lambda: self.appliance.get(f"vhost?vm_uuid={vm.uuid}")[0]["cbt_reset_pending"], 0,
                   f"{vm.name}: the reset is done", BOUND)

    # Copies

    @staticmethod
    def changed(vm: Machine, disk: str) -> pathlib.Path:
        return EXPORT / HOST / vm.name / f"{disk}-corcbt.vmdk"

    def setUp(self):
        for vm in self.vms.values():
            for disk in DISKS:
                wait_until(self.changed(vm, disk).exists, f"{vm.name}, {disk}: its changes are exported", BOUND)
            self.wait_reset(vm)

    def copy(self, path: pathlib.Path, name: str) -> pathlib.Path:
        """Copies an exported file as a backup tool does."""
        target = WORK / f"{type(self).__name__}-{name}"
        run("dd", f"if={path}", f"of={target}", "bs=64K", "status=none")
        return target

    def full(self, vm: Machine, is_last: bool = True) -> dict[str, pathlib.Path]:
        """A full backup: a copy of each disk, of the moment of one snapshot. is_last: nobody else reads."""
        with Reader(self.exported(vm, "disk")), Reader(self.exported(vm, "bare")):
            copies = {disk: self.copy(self.exported(vm, disk), f"{vm.name}-{disk}.full") for disk in DISKS}
        for disk, image in copies.items():
            self.assert_is_of_moment(vm, disk, image)
        if is_last:
            self.wait_quiet(vm)
        return copies

    def incremental(self, vm: Machine, base: dict[str, pathlib.Path], inside: Callable[[], Any] = lambda: None,
                    name: str = "incremental") -> dict[str, pathlib.Path]:
        """What changed, laid over another backup: the disks as they were at the moment of the snapshot. inside: called
        when the copies are made and the changed-block files are still open."""
        with self.opened(vm, "disk"), self.opened(vm, "bare"):
            self.assertEqual(snapshots.names(vm), [OWN])
            copies = {disk: self.copy(self.changed(vm, disk), f"{vm.name}-{disk}.changes") for disk in DISKS}
            inside()
        images = {disk: self.restored(base[disk], copies[disk], f"{vm.name}-{disk}.{name}") for disk in DISKS}
        for disk, image in images.items():
            self.assert_is_of_moment(vm, disk, image)
        self.wait_quiet(vm)
        return images

    def opened(self, vm: Machine, disk: str) -> Reader:
        path = self.changed(vm, disk)
        try:
            return Reader(path)
        except OSError:
            self.fail(f"{path} cannot be opened: {saved_error(path)}")

    def restored(self, flat: pathlib.Path, changes: pathlib.Path, name: str) -> pathlib.Path:
        image = WORK / f"{type(self).__name__}-{name}"
        run(program("mirador-restore"), flat, changes, "-o", image, "--force")
        return image

    # What must hold

    def assert_is_of_moment(self, vm: Machine, disk: str, image: pathlib.Path) -> None:
        data = bytearray(image.read_bytes())
        if disk == "disk":
            data[HEADER] = bytes(SECTOR)
        moment = self.moments(vm)[-1][f"scsi0:{list(DISKS).index(disk)}"]
        self.assertEqual(digest(data), moment, f"{vm.name}, {disk}: {image.name}")

    def wait_quiet(self, vm: Machine) -> None:
        """No snapshot, loop device, mapping or work file is left of what was done to a VM."""
        wait_equal(lambda: snapshots.names(vm), [], f"{vm.name}: no snapshot", BOUND)
        wait_equal(self.left, {}, "nothing is left", BOUND)

    def left(self) -> dict[str, list[str]]:
        beyond = census.take().beyond(self._before)
        return {kind: names for kind, names in beyond.items() if kind in ("loops", "mappings", "temporary")}

    def open_changed_fails(self, vm: Machine, disk: str = "disk") -> tuple[int, str]:
        """The real error of an open of a changed-block file that must fail."""
        path = self.changed(vm, disk)
        with self.assertRaises(OSError):
            Reader(path).__exit__()
        return saved_error(path)

    def write(self, vm: Machine, rounds: int = 4) -> None:
        snapshots.write_as_guest(vm, next_seed(), rounds)
