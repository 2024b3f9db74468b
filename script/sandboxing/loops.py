"""Which loop devices belong to a sandbox.

Loop devices are the machine's: any process sees and detaches all of them. A sandbox owns the ones whose backing file
lies on a file system that it has mounted itself, or below a directory of the host that it was given to write. The
number of a file system that is unmounted may soon be another sandbox's; so loop devices on one are noted one by one when
it goes from sight (lazily: the loop device keeps it, and its number, in being). A loop device on an aborted FUSE
connection can't tell its file system any more: it counts as owned by any sandbox whose /dev has a node of it, as only
those do whose programs once asked for it.

The guardian keeps what is needed to tell in STATE_FILE inside the sandbox, for the cover of losetup.
"""

import errno
import fcntl
import json
import os
import re
import stat
import struct

STATE_FILE = "/run/sandbox/state"
LOOP_MAJOR = 7
_LOOP_CLR_FD, _LOOP_GET_STATUS64, _LOOP_CTL_GET_FREE = 0x4C01, 0x4C05, 0x4C82
DEAD = "dead"
_STATUS64_SIZE = 232  # struct loop_info64; it begins with the backing file's device and inode number


def load_state():
    with open(STATE_FILE) as file:
        return Owner.of_json(json.load(file))


class Owner:
    """mounted: devices of the file systems that the sandbox has mounted now; fixed: further ones that are its own to its
    end; foreign: the host's; adopted: (number, device, inode) of loop devices on file systems that it unmounted;
    writable: directories of the host that the sandbox was given to write."""

    def __init__(self, foreign, writable, fixed=(), mounted=(), adopted=()):
        self.foreign, self.writable, self.fixed = set(foreign), list(writable), set(fixed)
        self.mounted, self.adopted = set(mounted), set(adopted)

    @staticmethod
    def of_json(value):
        pairs = {name: list(map(tuple, value[name])) for name in ("foreign", "fixed", "mounted")}
        adopted = [(number, tuple(device), inode) for number, device, inode in value["adopted"]]
        return Owner(writable=value["writable"], adopted=adopted, **pairs)

    def to_json(self):
        names = ("foreign", "fixed", "mounted", "adopted", "writable")
        return {name: sorted(getattr(self, name)) for name in names}

    def note(self, mounts):
        """Takes these as the sandbox's mounts of now. Returns the devices that were mounted before and are no more."""
        before = self.mounted
        self.mounted = {mount.device for mount in mounts} - self.foreign
        return before - self.mounted

    def owns(self, number, dev="/dev", root="/"):
        """True when loop device `number` is bound and the sandbox's own. dev and root are the sandbox's, as seen by
        the caller. Waits as long as the backing file system takes to answer a stat."""
        found = status(os.path.join(dev, f"loop{number}"))
        if found in (None, DEAD):
            return found == DEAD
        return (found[0] in self.mounted | self.fixed or (number, *found) in self.adopted or
                self._is_given(number, *found, root))

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


def status(node):
    """((major, minor), inode) of the file behind a loop device's node, DEAD when the FUSE connection that served it is
    aborted, None when the device is absent or unbound."""
    try:
        with open(node, "rb", buffering=0) as device:
            device_number, inode = struct.unpack_from("QQ", fcntl.ioctl(device, _LOOP_GET_STATUS64, bytes(_STATUS64_SIZE)))
    except OSError as error:
        return DEAD if error.errno in (errno.ENOTCONN, errno.ECONNABORTED) else None
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
