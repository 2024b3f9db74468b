"""System calls and kernel tables that Python's standard library has no name for."""

import ctypes
import os
import re
from typing import NamedTuple

MS_RDONLY, MS_NOSUID, MS_NODEV, MS_NOEXEC = 1, 2, 4, 8
MS_REMOUNT, MS_BIND, MS_REC, MS_PRIVATE = 32, 4096, 16384, 1 << 18
MNT_DETACH = 2
CLONE_NEWNS, CLONE_NEWIPC, CLONE_NEWPID = 0x00020000, 0x08000000, 0x20000000
PR_SET_PDEATHSIG, PR_SET_NAME = 1, 15
SI_KERNEL = 0x80  # si_code of a signal that a terminal sent

_libc = ctypes.CDLL(None, use_errno=True)


def _checked(result, what):
    if result != 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), what)


def mount(source, target, kind=None, flags=0, data=None):
    text = [None if t is None else os.fsencode(t) for t in (source, target, kind, data)]
    _checked(_libc.mount(text[0], text[1], text[2], ctypes.c_ulong(flags), text[3]), target)


def bind(source, target, read_only):
    """Binds one mount (not those below it) over target."""
    mount(source, target, None, MS_BIND)
    if read_only:
        mount(None, target, None, MS_REMOUNT | MS_BIND | MS_RDONLY)


def unmount(target, flags=MNT_DETACH):
    _checked(_libc.umount2(os.fsencode(target), flags), target)


def unshare(flags):
    _checked(_libc.unshare(flags), "unshare")


def prctl(option, value):
    _checked(_libc.prctl(option, value, 0, 0, 0), "prctl")


class Mount(NamedTuple):
    device: tuple  # (major, minor) of the file system
    path: str
    kind: str  # file system type


def parse_mounts(text):
    """The mounts in a /proc/PID/mountinfo."""
    mounts = []
    for line in text.splitlines():
        fields, _, tail = line.partition(" - ")
        columns = fields.split(" ")
        major, minor = columns[2].split(":")
        path = re.sub(r"\\(\d{3})", lambda escape: chr(int(escape[1], 8)), columns[4])
        mounts.append(Mount((int(major), int(minor)), path, tail.split(" ")[0]))
    return mounts


def mounts(path="/proc/self/mountinfo"):
    with open(path, errors="surrogateescape") as table:
        return parse_mounts(table.read())


def has_device_mapper():
    """True when the running kernel has device-mapper. The node /dev/mapper/control proves nothing."""
    with open("/proc/misc") as table:
        return any(line.split()[1:] == ["device-mapper"] for line in table)


def disk_sequence(device):
    """A number that a block device ("loop3") never has again once it is bound anew; "" when the device is absent or the
    kernel older than 5.15."""
    try:
        with open(f"/sys/block/{device}/diskseq") as file:
            return file.read().strip()
    except OSError:
        return ""
