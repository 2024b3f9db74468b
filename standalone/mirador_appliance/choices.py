"""What people and the daemon decide about VMs, folders and settings: checks, and the effect of the daemon's posts.

Used by the running controller and, on the database alone, by the commands.
"""

import re
import secrets
import time
import uuid as uuid_module
from typing import Any

from . import settings
from .faults_told import Refused
from .records import VM_CHOICES, Vm
from .store import Store
from .texts import to_bytes

FOLDER = "folder"
_TIMES = ("cbt_reset_time", "cbt_reset_time_prev")
RESET_WANTED = 1  # what the daemon posts as "cbt_reset_time" when a change id is not the one that it expects
_POSTED_NAMES = {"error_message": "error"}  # what the daemon calls a member when it posts it


def prepare(store: Store) -> int:
    """Makes what a new database lacks. Returns how often the controller has been started on it, this time included."""
    with store.transaction():
        stored = store.settings()
        if not stored.get("controller.uuid"):
            store.set_setting("controller.uuid", str(uuid_module.uuid4()))
        if not store.meta("password"):
            store.set_meta("password", secrets.token_urlsafe(24))
        starts = int(store.meta("starts", "0")) + 1
        store.set_meta("starts", str(starts))
    return starts


def current_settings(store: Store) -> dict[str, str]:
    """Every key of the registry with its value, in the daemon's order; never an empty value."""
    stored = store.settings()
    values = {setting.key: stored.get(setting.key) or setting.default for setting in settings.SETTINGS}
    values["hypervisor.name"] = values["hypervisor.name"] or settings.machine_name()
    return values


def checked_folder_name(name: str, hypervisors: set[str]) -> str:
    """A folder is a directory beside those of the hypervisors. Refused for what cannot be one."""
    if not name or name.startswith(".") or re.search(r"[/\x00-\x1f\x7f]", name) or len(to_bytes(name)) > 255:
        raise Refused(f"{name!r}: no name for a folder: 1 to 255 bytes, no slash, no full stop in front", 2)
    if name in hypervisors:
        raise Refused(f"{name!r}: is the name of a hypervisor's directory")
    return name


def vm_choice(key: str, value: Any) -> tuple[str, Any]:
    """A member as it is stored. ValueError when a VM has no such member or it cannot have the value."""
    key = _POSTED_NAMES.get(key, key)
    if key not in VM_CHOICES:
        raise ValueError(f"{key}: nothing that is chosen for a VM")
    if isinstance(VM_CHOICES[key], str):
        if not isinstance(value, str):
            raise ValueError(f"{key}: not a text")
        return key, value
    try:
        number = int(value)
    except (TypeError, ValueError):
        raise ValueError(f"{key}: not a number") from None
    if not 0 <= number <= (0x7fffffff if key in _TIMES else 1):
        raise ValueError(f"{key}: {number} is out of range")
    return key, number


def vm_choices_posted(posted: dict[str, Any]) -> dict[str, Any]:
    """The choices in a "vmconfig" post; members that are none are passed over."""
    names = [key for key in posted if _POSTED_NAMES.get(key, key) in VM_CHOICES]
    return dict(vm_choice(key, posted[key]) for key in names)


def tracking_reset(chosen: dict[str, Any]) -> dict[str, Any]:
    """What changes for a VM whose changed-block tracking is to start anew."""
    return {"cbt_reset_pending": 1, "cbt_reset_time": int(time.time()),
            "cbt_reset_time_prev": chosen.get("cbt_reset_time", 0)}


def find_vm(vms: list[Vm], word: str) -> Vm:
    """The VM that a person means by its uuid, name or path. Refused when there is none or more than one."""
    found = [vm for vm in vms if word in (vm.uuid, vm.name, vm.facts["vmx_path"], "/".join(vm.key))]
    if len(found) == 1:
        return found[0]
    if not found:
        raise Refused(f"{word!r}: no such virtual machine")
    raise Refused(f"{word!r}: {len(found)} virtual machines are called so; give one's uuid: "
                  f"{', '.join(vm.uuid for vm in found)}")
