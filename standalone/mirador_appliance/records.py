"""The documents that the daemon reads, one function for each kind of record.

Whole numbers are JSON numbers, flags 0 or 1. Every document is complete: a daemon that misses a member cannot write
the VM's exported configuration.
"""

import dataclasses
from typing import Any

from .facts import Facts
from .places import VOLUMES
from .texts import pack, to_text

LOGIN_NAME = "root"
_PORT, _DATA_PORT = 443, 902
_DATACENTER, _VM_FOLDER, _RESOURCE_POOL = "ha-datacenter", "vm", "Resources"
_CBT_PERCENT = 5  # size of a changed-block file until the daemon knows better

# What can be chosen for a VM: member of its document -> value without a choice. "folder" is a folder's uuid.
VM_CHOICES: dict[str, Any] = {
    "controller_export_enabled": 1,
    "export_enabled": 1,
    "discover_enabled": 1,
    "alerts_enabled": 1,
    "quiesce_enabled": 0,
    "use_cbt": 0,
    "cbt_reset_pending": 0,
    "cbt_reset_time": 0,
    "cbt_reset_time_prev": 0,
    "snap_suffix": "",
    "error": "",
}

# What the daemon may note at a disk.
DISK_NOTES = ("changeid", "changeid_prev", "changeid_incr", "changeid_base", "corcbt_size_percentage",
              "cbt_reset_time_vdisk", "flat_file_size")

CHANGE_IDS = ("changeid", "changeid_incr", "changeid_base")
VOID = "uninitialized"  # a change id that says nothing

COMPANION = "-corcbt."  # in the name of a changed-block file


@dataclasses.dataclass(frozen=True)
class Vm:
    """A VM of the inventory. changed: seconds since 1970 of the last change to its files or of a request to take it
    for changed; the daemon reads a VM anew when it differs."""
    uuid: str
    changed: int
    facts: Facts

    @property
    def key(self) -> tuple[str, str]:
        return self.facts["datastore"], self.facts["vmx_path"]

    @property
    def name(self) -> str:
        return self.facts["name"]


def hypervisor_document(name: str, password: str) -> dict[str, Any]:
    return {"hostname": name, "login_name": LOGIN_NAME, "password": password, "hv_port": _PORT,
            "hv_data_port": _DATA_PORT, "hv_type": "ESXi"}


def vm_document(vm: Vm, hypervisor: str, choices: dict[str, Any], folder: str | None, snapshots: int) -> dict[str, Any]:
    """snapshots: number of the VM's snapshots that this appliance has made."""
    datastore, vmx_path = vm.key
    directory = vmx_path.rpartition("/")[0]
    return {
        "hv_hostname": hypervisor,
        "name": vm.name,
        "uuid": vm.uuid,
        **({"folder": folder} if folder is not None else {}),
        "vmx_path": vmx_path,
        "snapshot_directory": vm.facts["working_directory"],
        "datastore_name": datastore,
        "datastore_path": f"[{datastore}] {directory}",
        "datastore_uuid": datastore,
        "datacenter": _DATACENTER,
        "vm_folder": _VM_FOLDER,
        "host_system": hypervisor,
        "resource_pool": _RESOURCE_POOL,
        "last_discover_time": vm.changed,
        **{key: choices.get(key, default) for key, default in VM_CHOICES.items()},
        "snap_exists": snapshots,
    }


def disk_document(uuid: str, disk: dict[str, Any], note: dict[str, Any]) -> dict[str, Any]:
    """A disk of the VM `uuid`. note: what the daemon noted at it."""
    sides = {f"{side}_{kind}": disk[f"{side}_{kind}"]
             for side in ("base", "head") for kind in ("ascii_path", "extent_path", "ascii_size", "extent_size")}
    return {
        "vhost_uuid": uuid,
        "name": disk["name"],
        "corcbt_size_percentage": _CBT_PERCENT,
        **note,
        "flat_file_size": disk["capacity"],
        **sides,
        "independent": disk["independent"],
        "thin_provisioned": disk["thin"],
    }


def companion_document(uuid: str, name: str, note: dict[str, Any]) -> dict[str, Any]:
    """The record of a changed-block file, which exists as far as the daemon has noted it."""
    return {"vhost_uuid": uuid, "name": name, **note}


def folder_document(uuid: str, name: str, vms: int) -> dict[str, Any]:
    return {"name": name, "uuid": uuid, "numVms": vms}


def datastore_document(name: str, hypervisor: str, record: dict[str, Any]) -> dict[str, Any]:
    """The local paths stand in a JSON text of their own."""
    paths = [f"/vmfs.direct/volumes/{name}", f"{VOLUMES}/{name}"]
    return {
        "hv_hostname": hypervisor,
        "datacenter": _DATACENTER,
        "esx_host": hypervisor,
        "name": name,
        "uuid": name,
        "url": f"ds://{VOLUMES}/{name}/",
        "type": "VMFS",
        "timestamp": record.get("time", 0),
        "accessible": record.get("accessible", 0),
        "capacity": record.get("capacity", 0),
        "free": record.get("free", 0),
        "path": to_text(pack(paths)),
        "is_local_dc": 1,
    }
