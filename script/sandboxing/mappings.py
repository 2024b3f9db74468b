"""Which device-mapper devices belong to a sandbox, and how they go.

Names and numbers of mappings are the machine's. A sandbox's /dev/mapper is its own, though: it owns the mappings that
have a node there, and those whose table stands on one of them or on a loop device of the sandbox (a program may be
killed before it has made the node, or remove the node). A mapping is named as the kernel does, "dm-3".
"""

import contextlib
import fcntl
import os
import stat
import struct

CONTROL = "/dev/mapper/control"
_DEV_REMOVE, _DEV_SUSPEND = 0xC138FD04, 0xC138FD06
_DEFERRED_REMOVE = 1 << 17
_REQUEST = "=3I6I4xQ128s136x"  # struct dm_ioctl: version, sizes, counts, flags, event, device, name, uuid


def _present():
    return {entry for entry in os.listdir("/sys/block") if entry.startswith("dm-")}


def _attribute(mapping, name):
    """What /sys tells of a mapping, "" when it is gone."""
    try:
        with open(f"/sys/block/{mapping}/dm/{name}", errors="surrogateescape") as file:
            return file.read().rstrip("\n")
    except OSError:
        return ""


def name(mapping):
    """The name that its maker gave it."""
    return _attribute(mapping, "name")


def _stands_on(mapping):
    """Kernel names of the devices that the mapping's table uses."""
    try:
        return set(os.listdir(f"/sys/block/{mapping}/slaves"))
    except OSError:
        return set()


def _has_node(mapping, numbers):
    try:
        with open(f"/sys/block/{mapping}/dev") as file:
            return tuple(map(int, file.read().split(":"))) in numbers
    except OSError:
        return False


def _node_numbers(directory):
    numbers = set()
    for entry in os.scandir(directory):
        found = entry.stat(follow_symlinks=False)
        if stat.S_ISBLK(found.st_mode):
            numbers.add((os.major(found.st_rdev), os.minor(found.st_rdev)))
    return numbers


def own(dev, loops=()):
    """The mappings of the sandbox that has this /dev and these loop devices ("loop7")."""
    try:
        numbers = _node_numbers(os.path.join(dev, "mapper"))
    except OSError:
        numbers = set()
    present = _present()
    found = {mapping for mapping in present if _has_node(mapping, numbers)}
    while more := {mapping for mapping in present - found if _stands_on(mapping) & (found | set(loops))}:
        found |= more
    return found


def _ask(mapping, request, flags):
    text = os.fsencode(name(mapping))
    if not text:
        return
    data = struct.pack(_REQUEST, 4, 0, 0, struct.calcsize(_REQUEST), 0, 0, 0, flags, 0, 0, text)
    with contextlib.suppress(OSError), open(CONTROL, "rb+", buffering=0) as control:
        fcntl.ioctl(control, request, data)


def remove(mapping):
    """Removes a mapping; one that is in use goes with its last user."""
    _ask(mapping, _DEV_REMOVE, _DEFERRED_REMOVE)


def resume(mapping):
    """Lets the requests go on that wait at a suspended mapping: nobody can kill whose they are."""
    if _attribute(mapping, "suspended") == "1":
        _ask(mapping, _DEV_SUSPEND, 0)
