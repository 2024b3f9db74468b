"""A file as the agent tells of it:

    {"dc_name", "ds_name", "folder", "name", "type", "mtime", "size"}     seconds since 1970, bytes

"folder" is the file's on the datastore, "" on top; a datastore itself has no name either. "type" is one of the names
below, or "file". "IGNORE" is what others shall not touch: locks, and copies that are not finished.
"""

import contextlib
import os
import stat
from typing import Any

from .datastore_paths import StorePath

UNFINISHED = ".mirador-copy-"  # begins the name of a copy until it is whole
_TYPES = {".log": "logFile", ".vmx": "vmxFile", ".vmtx": "vmxFile", ".vmxf": "configFile",
          ".vmsn": "snapshotDataFile", ".vmsd": "snapshotListFile", ".vswp": "swapFile", ".vmss": "vmssFile",
          ".nvram": "nvramFile"}
_DESCRIPTOR_START = b"# Disk DescriptorFile"
_LATEST = 0xffffffff  # seconds that can be told


def entry(path: StorePath, status: os.stat_result, parent: int) -> dict[str, Any]:
    """parent: descriptor of the file's directory."""
    return {"dc_name": path.store.datacenter, "ds_name": path.store.name, "folder": path.folder, "name": path.name,
            "type": _type(path.name, status, parent), "mtime": min(max(int(status.st_mtime), 0), _LATEST),
            "size": status.st_size}


def _type(name: str, status: os.stat_result, parent: int) -> str:
    if stat.S_ISDIR(status.st_mode):
        return "directory"
    if not stat.S_ISREG(status.st_mode):
        return "file"
    if name.startswith(UNFINISHED) or name.startswith(".") and name.endswith(".lck"):
        return "IGNORE"
    ending = os.path.splitext(name)[1].lower()
    if ending == ".vmdk":
        return "diskDescriptorFile" if _begins_as_descriptor(name, parent) else "diskExtentFile"
    return _TYPES.get(ending, "file")


def _begins_as_descriptor(name: str, parent: int) -> bool:
    with contextlib.suppress(OSError):
        descriptor = os.open(name, os.O_RDONLY | os.O_NOFOLLOW | os.O_NONBLOCK | os.O_NOCTTY | os.O_CLOEXEC,
                             dir_fd=parent)
        try:
            return os.read(descriptor, len(_DESCRIPTOR_START)) == _DESCRIPTOR_START
        finally:
            os.close(descriptor)
    return False
