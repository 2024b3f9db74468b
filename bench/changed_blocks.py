# SPDX-License-Identifier: Apache-2.0
"""Opening files of changed blocks, and reading them beside reading the same extents from the disk."""

import json
import os
import pathlib
import re
import time
import urllib.request

from harness.daemon import EXPORT
from harness.tools import Failed, run, wait_until

import measure
import waits
from cycles import HYPERVISOR, FollowingDaemon, cpu_seconds
from snapshots import InstantAppliance
from subjects import mount_tmpfs

DISK = 1 << 30  # bytes of a made-up disk
CHANGED = 400 << 20  # bytes of it
COUNTS, QUICK_COUNTS = (1, 1_000, 100_000), (1, 1_000)  # extents; the first is what an open costs by itself
OPENS, QUICK_OPENS = 5, 1
TREE = EXPORT / HYPERVISOR
WORK = pathlib.Path("/run/changed-blocks")

_LIST = pathlib.Path("/run/block-list")  # what instant_blocklist.py gives
_UNIT = 4096  # what lengths and places of extents are multiples of
_PAUSE = 0.001  # seconds between two looks at the daemon's threads
_SETTLE = 3  # seconds until what an open has set off in the daemon is over
_HEAD = 372  # bytes of a file's head; at 16 stands where its data begin


def _extents(count):
    """As many extents of equal length, with gaps of that length between them: (start, length)."""
    length = max(CHANGED // count // _UNIT, 1) * _UNIT
    return [(2 * number * length, length) for number in range(count)]


def _give_list(extents):
    lines = [f"length: {length}\nstart: {start}\n" for start, length in extents]
    _LIST.write_text("changeid: 52 00 00 00 00 00 00 01-00 00 00 00 00 00 00 01/2\n" + "".join(lines))


def _name(number):
    return f"vm-{number:05d}"


def _flat(number):
    return TREE / _name(number) / f"{_name(number)}-flat.vmdk"


def _changed(number):
    return TREE / _name(number) / f"{_name(number)}-corcbt.vmdk"


def _open(path):
    return os.open(path, os.O_RDONLY)


class _Appliance(InstantAppliance):
    """Whose VMs are tracked."""

    def start(self):
        """Every file of changed blocks may be as large as its disk."""
        super().start()
        for disk in self._ask("vdisk"):
            self._ask("vmconfig", {"uuid": disk["vhost_uuid"], "use_cbt": 1})
            self._ask("vdisk", {"vhost_uuid": disk["vhost_uuid"], "corcbt_size_percentage": 100,
                                "name": disk["name"].replace(".vmdk", "-corcbt.vmdk")})

    def _ask(self, name, posted=None):
        url = re.search(r"serving (http://\S+)", self._output.read_text())[1]
        with urllib.request.urlopen(f"{url}/api/{name}", posted and json.dumps(posted).encode(), timeout=30) as answer:
            return json.load(answer)

    def flat_file(self, name):
        """On the datastore."""
        return next(self._store.rglob(f"{name}-flat.vmdk"))


def _busiest(samples):
    return max(samples.workers(), key=lambda found: found.total())


def _first_byte(daemon, number):
    """Opens a file of changed blocks and reads its head, with the disk open already: seconds by the clock, of the
    daemon's processor time, and what its thread waited for; the file."""
    time.sleep(_SETTLE)
    with waits.sampled(daemon.pid, _PAUSE) as samples:
        used, begin = cpu_seconds(daemon.pid), time.perf_counter()
        file = _open(_changed(number))
        os.pread(file, _UNIT, 0)
        seconds, processor = time.perf_counter() - begin, cpu_seconds(daemon.pid) - used
    waited = _busiest(samples)
    del waited[waits.OWN]
    return {"seconds": seconds, "processor": processor, "waits": dict(waited), "own": seconds - waited.total()}, file


def _begin_of_data(file, extents):
    head = os.pread(file, _HEAD, 0)
    begin, changed = (int.from_bytes(head[at:at + 8], "little") for at in (16, 24))
    if changed != sum(length for _, length in extents):
        raise Failed(f"{len(extents)} extents: the file's head tells of {changed} bytes")
    return begin


def _check_bytes(file, begin, flat, extents):
    """A file that holds wrong bytes is worth nothing."""
    for start, length in extents[::max(len(extents) // 1000, 1)]:
        place = begin + start // 2
        if os.pread(file, _UNIT, place) != os.pread(flat, _UNIT, start):
            raise Failed(f"{len(extents)} extents: the one at {start} is wrong")


def _forget(file):
    """Nothing that the daemon serves or reads is cached above the datastore."""
    os.posix_fadvise(file, 0, 0, os.POSIX_FADV_DONTNEED)
    for device in [*pathlib.Path("/dev/mapper").iterdir(), *run("losetup", "-l", "-n", "-O", "NAME").split()]:
        if pathlib.Path(device).name != "control":
            opened = os.open(device, os.O_RDONLY)
            os.posix_fadvise(opened, 0, 0, os.POSIX_FADV_DONTNEED)
            os.close(opened)


def _rate(file, pieces):
    """Bytes a second of reads of (place, length)."""
    _forget(file)
    begin, count = time.perf_counter(), 0
    for place, length in pieces:
        while length:
            data = os.pread(file, min(length, 1 << 20), place)
            place, length, count = place + len(data), length - len(data), count + len(data)
    return count / (time.perf_counter() - begin)


def _reads(number, file, extents, rounds):
    """Bytes a second of the changed data, from the file and from the disk."""
    flat = _open(_flat(number))
    try:
        begin = _begin_of_data(file, extents)
        _check_bytes(file, begin, flat, extents)
        return measure.taking_turns(rounds, {
            "file": lambda: _rate(file, [(begin, sum(length for _, length in extents))]),
            "disk": lambda: _rate(flat, extents)})
    finally:
        os.close(flat)


def _fill(path):
    """Data in place of holes."""
    with open(path, "r+b") as disk:
        for _ in range(DISK >> 24):
            disk.write(os.urandom(1 << 24))


def _measure_count(daemon, numbers, count, rounds):
    extents = _extents(count)
    _give_list(extents)
    opens, kept = [], []
    for number in numbers:
        kept.append(_open(_flat(number)))  # its snapshot and mapping are not what is measured
        figures, file = _first_byte(daemon, number)
        opens.append(figures)
        kept.append(file)
    reads = _reads(numbers[-1], kept[-1], extents, rounds)
    for file in kept:
        os.close(file)
    return {"opens": opens, "reads": reads, "length": extents[0][1]}


def measure_all(quick):
    """By number of extents: "opens" (a list), "reads" (bytes a second from "file" and "disk"), "length" of one."""
    opens, counts = (QUICK_OPENS, QUICK_COUNTS) if quick else (OPENS, COUNTS)
    total = opens * len(counts)
    mount_tmpfs(WORK)
    appliance = _Appliance(total, WORK)
    appliance.command("set", "export.max_session", str(3 * total))
    appliance.start()
    daemon = FollowingDaemon()
    daemon.start()
    try:
        wait_until(lambda: all(_changed(number).exists() for number in range(total)), "changes are exported", 120)
        for last in range(opens - 1, total, opens):
            _fill(appliance.flat_file(_name(last)))
        return {"rounds": opens, "extents": {
            count: _measure_count(daemon, range(index * opens, (index + 1) * opens), count, opens)
            for index, count in enumerate(counts)}}
    finally:
        daemon.kill()  # stopping it takes a second for each disk; the sandbox cleans up
        appliance.stop()
