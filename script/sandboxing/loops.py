"""Which loop devices belong to a sandbox.

Loop devices are the machine's: any process sees and detaches all of them. A sandbox owns the ones whose backing file
lies on a file system that the sandbox mounted itself, or below a directory of the host that it was given to write.
The guardian keeps what is needed to tell in STATE_FILE inside the sandbox, for the cover of losetup.
"""

import fcntl
import json
import os
import re
import stat
import struct

STATE_FILE = "/run/sandbox/state"
LOOP_MAJOR = 7
_LOOP_CLR_FD, _LOOP_GET_STATUS64, _LOOP_CTL_GET_FREE = 0x4C01, 0x4C05, 0x4C82
_STATUS64_SIZE = 232  # struct loop_info64; it begins with the backing file's device and inode number


def load_state():
    with open(STATE_FILE) as file:
        return Owner.of_json(json.load(file))


class Owner:
    """own: devices of the file systems that the sandbox mounted; foreign: devices of the host's file systems;
    writable: directories of the host that the sandbox was given to write."""

    def __init__(self, own, foreign, writable):
        self.own, self.foreign, self.writable = set(own), set(foreign), list(writable)

    @staticmethod
    def of_json(value):
        return Owner(map(tuple, value["own"]), map(tuple, value["foreign"]), value["writable"])

    def to_json(self):
        return {"own": sorted(self.own), "foreign": sorted(self.foreign), "writable": self.writable}

    def note(self, mounts):
        """Adds the file systems of these mounts of the sandbox; true when one was new."""
        found = {m.device for m in mounts} - self.foreign - self.own
        self.own |= found
        return bool(found)

    def owns(self, number, dev="/dev", root="/"):
        """True when loop device `number` is bound and the sandbox's own. dev and root are the sandbox's, as seen by
        the caller. Waits as long as the backing file system takes to answer a stat."""
        status = _status(os.path.join(dev, f"loop{number}"))
        if status is None:
            return False
        device, inode = status
        return device in self.own or self._is_given(number, device, inode, root)

    def _is_given(self, number, device, inode, root):
        path = backing_file(number) or ""
        if not any(path.startswith(directory.rstrip("/") + "/") for directory in self.writable):
            return False
        try:
            found = os.stat(os.path.join(root, path.lstrip("/")))
        except OSError:
            return False
        return (_split(found.st_dev), found.st_ino) == (device, inode)


def _split(device):
    return os.major(device), os.minor(device)


def _status(node):
    """((major, minor), inode) of the file behind a loop device's node, None when it is absent or unbound."""
    try:
        with open(node, "rb", buffering=0) as device:
            device_number, inode = struct.unpack_from("QQ", fcntl.ioctl(device, _LOOP_GET_STATUS64, bytes(_STATUS64_SIZE)))
    except OSError:
        return None
    return _split(device_number), inode


def backing_file(number):
    """Path of the bound file as the kernel tells it, None when the device is not bound. Never waits."""
    try:
        with open(f"/sys/block/loop{number}/loop/backing_file", errors="surrogateescape") as file:
            return file.read().rstrip("\n")
    except OSError:
        return None


def nodes(dev="/dev"):
    """Numbers of the loop devices that have a node in directory dev."""
    found = (re.fullmatch(r"loop(\d+)", name) for name in os.listdir(dev))
    return sorted(int(match[1]) for match in found if match)


def detach(number, dev="/dev"):
    """Detaches a loop device; one that is still open goes with its last user."""
    with open(os.path.join(dev, f"loop{number}"), "rb", buffering=0) as device:
        fcntl.ioctl(device, _LOOP_CLR_FD)


def make_free_node():
    """Sees to it that the next free loop device has a node in /dev, and returns its number."""
    with open("/dev/loop-control", "rb+", buffering=0) as control:
        number = fcntl.ioctl(control, _LOOP_CTL_GET_FREE)
    try:
        os.mknod(f"/dev/loop{number}", stat.S_IFBLK | 0o660, os.makedev(LOOP_MAJOR, number))
    except FileExistsError:
        pass
    return number
