"""A made-up inventory of any size: the same VMs, names and disks every time, for tests of scale."""

import os
from collections.abc import Iterator

from .facts import Facts
from .places import VOLUMES
from .uuids import derived

NAME = "synthetic"  # of its datastore
DISKS = 2  # of each VM
CAPACITY = 1 << 30  # bytes of each disk; the files are holes

_DESCRIPTOR = """# Disk DescriptorFile
version=1
CID=fffffffe
parentCID=ffffffff
createType="vmfs"

RW {sectors} VMFS "{extent}"

ddb.adapterType = "lsilogic"
ddb.thinProvisioned = "1"
"""

_VMX = """.encoding = "UTF-8"
config.version = "8"
virtualHW.version = "13"
displayName = "{name}"
guestOS = "other3xlinux-64"
uuid.bios = "{uuid}"
scsi0.present = "TRUE"
scsi0.virtualDev = "lsilogic"
"""

_VMX_DISK = """scsi0:{unit}.present = "TRUE"
scsi0:{unit}.deviceType = "scsi-hardDisk"
scsi0:{unit}.fileName = "{file}"
"""


def _vm_name(number: int) -> str:
    return f"vm-{number:05d}"


def _disk_names(name: str) -> list[str]:
    return [f"{name}.vmdk" if unit == 0 else f"{name}_{unit}.vmdk" for unit in range(DISKS)]


def _extent(disk: str) -> str:
    return disk.removesuffix(".vmdk") + "-flat.vmdk"


def _uuid(number: int) -> str:
    return derived(f"synthetic {number}")


def _descriptor(disk: str) -> str:
    return _DESCRIPTOR.format(sectors=CAPACITY // 512, extent=_extent(disk))


def _disk(directory: str, name: str) -> dict[str, object]:
    sizes = {"ascii": len(_descriptor(name)), "extent": CAPACITY}
    names = {"ascii": name, "extent": _extent(name)}
    sides = {f"{side}_{kind}_path": f"{directory}/{names[kind]}" for side in ("base", "head") for kind in names}
    return {"name": name, "independent": 0, "thin": 1, "capacity": CAPACITY, **sides,
            **{f"{side}_{kind}_size": size for side in ("base", "head") for kind, size in sizes.items()}}


def facts_of(number: int, datastore: str = NAME) -> Facts:
    """The facts of VM `number`, from 0 on."""
    name = _vm_name(number)
    directory = f"{VOLUMES}/{datastore}/{name}"
    return {
        "datastore": datastore,
        "vmx_path": f"{name}/{name}.vmx",
        "name": name,
        "uuids": [_uuid(number)],
        "working_directory": directory,
        "snapshots": [],
        "files": "",
        "disks": [_disk(directory, disk) for disk in _disk_names(name)],
        "problems": [],
    }


def inventory(count: int, datastore: str = NAME) -> Iterator[Facts]:
    return (facts_of(number, datastore) for number in range(count))


def write_files(directory: str, count: int) -> None:
    """Makes the files of the first `count` VMs in a directory; those that are there already are left. OSError."""
    for number in range(count):
        name = _vm_name(number)
        home = os.path.join(directory, name)
        if os.path.exists(os.path.join(home, f"{name}.vmx")):
            continue
        os.makedirs(home, exist_ok=True)
        vmx = _VMX.format(name=name, uuid=_uuid(number))
        for unit, disk in enumerate(_disk_names(name)):
            vmx += _VMX_DISK.format(unit=unit, file=disk)
            _write(os.path.join(home, disk), _descriptor(disk))
            _write(os.path.join(home, _extent(disk)), "", CAPACITY)
        _write(os.path.join(home, f"{name}.vmx"), vmx)


def _write(path: str, text: str, size: int | None = None) -> None:
    with open(path, "w", encoding="utf-8") as file:
        file.write(text)
        if size is not None:
            file.truncate(size)
