"""What stands in a sandbox for programs whose effect no namespace contains.

losetup and dmsetup act on the sandbox's own devices only, exportfs on nothing. Each function takes the command line
behind the program's name and returns the exit status.
"""

import errno
import getopt
import json
import os
import re
import subprocess
import sys
import time

from . import kernel, loops
from .root import REAL_PROGRAMS

_RACES = 32  # other processes of the machine take loop devices at the same time
_NOTING_SECONDS = 2.0


def _run(name, arguments, **options):
    return subprocess.run([f"{REAL_PROGRAMS}/{name}", *arguments], **options)


def _refuse(program, what):
    print(f"{program}: {what}: not made in this sandbox", file=sys.stderr)
    return 1


# losetup

_LOSETUP_SHORT = "adDfc:j:b:o:PrvJlnO:hV"
_LOSETUP_LONG = ["all", "detach", "detach-all", "find", "set-capacity=", "associated=", "sector-size=", "offset=",
                 "sizelimit=", "partscan", "read-only", "direct-io=", "show", "verbose", "json", "list", "noheadings",
                 "output=", "output-all", "raw", "nooverlap", "help", "version"]


def losetup(arguments):
    try:
        options, words = getopt.gnu_getopt(arguments, _LOSETUP_SHORT, _LOSETUP_LONG)
    except getopt.GetoptError:
        return _run("losetup", arguments).returncode
    names = {option.lstrip("-") for option, _ in options}
    owner = _owner()
    devices = [word for _, word in options if word] + words
    for device in filter(_is_loop, devices):
        if _is_foreign(owner, device):
            return _refuse("losetup", device)
    if names & {"D", "detach-all"}:
        return _losetup_detach_all(owner)
    if names & {"f", "find"}:
        return _losetup_find(arguments)
    if names & {"d", "detach"} and all(map(_is_loop, devices)):
        return _losetup_detach(owner, devices)
    if any(map(_is_loop, devices)) or names & {"d", "detach", "h", "help", "V", "version"}:
        return _run("losetup", arguments).returncode
    return _losetup_list(owner, arguments, bool(names & {"J", "json"}))


def _owner():
    """The guardian notes a moment later what is unmounted, and which loop devices stay behind."""
    deadline = time.monotonic() + _NOTING_SECONDS
    while True:
        owner = loops.load_state()
        if not owner.note(kernel.mounts()) or time.monotonic() > deadline:
            return owner
        time.sleep(0.01)


def _is_loop(word):
    return re.fullmatch(r"(/dev/)?loop\d+", word) is not None


def _number(device):
    return int(re.search(r"\d+$", device)[0])


def _is_foreign(owner, device):
    number = _number(device)
    return loops.backing_file(number) is not None and not owner.owns(number)


def _losetup_detach(owner, devices):
    """A free device is left alone: by the time that losetup came to it, another sandbox might have taken it."""
    status = 0
    for device in devices:
        if owner.owns(_number(device)):
            status |= _run("losetup", ["-d", device]).returncode
        else:
            print(f"losetup: {device}: detach failed: {os.strerror(errno.ENXIO)}", file=sys.stderr)
            status = 1
    return status


def _losetup_detach_all(owner):
    return _losetup_detach(owner, [f"/dev/loop{number}" for number in filter(owner.owns, loops.nodes())])


def _losetup_find(arguments):
    """losetup wants a node for the free device that the kernel names, and gives up when it can't have it."""
    free = loops.make_free_node()
    for _ in range(_RACES):
        done = _run("losetup", arguments, stderr=subprocess.PIPE, text=True)
        if done.returncode == 0:
            break
        tried, free = free, loops.make_free_node()
        if tried == free:  # nobody took the device meanwhile: the failure is another
            break
    sys.stderr.write(done.stderr)
    return done.returncode


def _losetup_list(owner, arguments, is_json):
    done = _run("losetup", arguments, stdout=subprocess.PIPE, text=True)
    if is_json and done.stdout.strip():
        table = json.loads(done.stdout)
        table["loopdevices"] = [row for row in table["loopdevices"] if owner.owns(_number(row["name"]))]
        print(json.dumps(table, indent=3))
        return done.returncode
    for line in done.stdout.splitlines():
        device = re.match(r"(/dev/loop\d+)\b", line)
        if device is None or owner.owns(_number(device[1])):
            print(line)
    return done.returncode


# dmsetup

_MAPPER = "/dev/mapper"


def _mapped_names():
    """Device-mapper devices of the sandbox: its /dev/mapper is its own, so those that have a node there."""
    return [name for name in os.listdir(_MAPPER) if name != "control"]


def dmsetup(arguments):
    words = [word for word in arguments if not word.startswith("-")]
    command = words[0] if words else ""
    if not kernel.has_device_mapper():
        return _run("dmsetup", arguments).returncode
    if command == "remove_all":
        force = [word for word in arguments if word in ("-f", "--force")]
        for name in _mapped_names():
            _run("dmsetup", ["remove", *force, name])
        return 0
    if command in ("remove", "suspend", "resume", "load", "reload", "clear", "wipe_table", "rename", "message"):
        name = os.path.basename(words[1]) if len(words) > 1 else ""
        if name not in _mapped_names():
            return _refuse("dmsetup", name)
    if command in ("mknodes", "udevcomplete_all"):
        return _refuse("dmsetup", command)
    return _run("dmsetup", arguments).returncode


# exportfs

EXPORTFS_LOG = "/run/sandbox/exportfs.log"


def exportfs(arguments):
    """Notes the call, a line of JSON each, and does nothing."""
    with open(EXPORTFS_LOG, "a") as log:
        print(json.dumps(arguments), file=log)
    return 0
