# SPDX-License-Identifier: Apache-2.0
"""Inventories of growing size: what the daemon's cycles cost, its memory, and listings while a cycle runs."""

import multiprocessing
import os
import pathlib
import random
import statistics
import time
from contextlib import contextmanager

from harness.daemon import EXPORT
from harness.tools import run

from cycles import HYPERVISOR, Controller, Cycles, FollowingDaemon, cpu_seconds
from measure import status_kib
from subjects import mount_tmpfs
from told import tell

SIZES = (100, 1_000, 5_000)
QUICK_SIZES = (100, 1_000)
FILES = 6  # of each VM: two for each of two disks, the VMX file, the configuration file
WORK = pathlib.Path("/run/inventory")
TREE = EXPORT / HYPERVISOR
SHADOW = pathlib.Path(f"{EXPORT}.shadow") / HYPERVISOR

_FRESH, _STALE = "600", "0"  # seconds for which a VM's files are not looked at again
_HELPERS = 2  # seconds that go by until the daemon has seen its checks of other processes end
_PACE = 0.002  # seconds between two listings
_SETTLED = 1.0  # seconds; a VM whose configuration file stands so long is complete


def _shadow_size(count):
    """Options of the shadow tmpfs: a page and an inode for each header, and for each directory."""
    entries = count * (FILES + 1) + 1000
    return f"size={entries * 6}k,nr_inodes={entries * 2},mode=0755"


# Listings


def _is_settled(name):
    """A VM that is not complete is completed by whoever lists it: that is no listing."""
    try:
        return time.time() - os.stat(SHADOW / name / f"{name}.cfg").st_ctime > _SETTLED
    except FileNotFoundError:
        return False


def _list_until(ended, names, results):
    """Lists VMs' directories with each entry's attributes, one every now and then."""
    rng = random.Random(1)
    found = []
    while not ended.is_set():
        time.sleep(_PACE)
        name = rng.choice(names)
        if not _is_settled(name):
            continue
        when, begin = time.time(), time.perf_counter()
        with os.scandir(TREE / name) as entries:
            count = sum(entry.stat().st_size > 0 for entry in entries)
        found.append((when, time.perf_counter() - begin))
        if count != FILES:
            raise RuntimeError(f"{name}: {count} files")
    results.send(found)


@contextmanager
def _lister(names):
    """Lists in a process of its own; yields a list that holds (time, seconds) of each listing once that has ended."""
    found = []
    ended = multiprocessing.Event()
    receiving, sending = multiprocessing.Pipe(duplex=False)
    process = multiprocessing.Process(target=_list_until, args=(ended, names, sending))
    process.start()
    try:
        yield found
    finally:
        ended.set()
        if receiving.poll(30):
            found += receiving.recv()
        process.join()


def _during(listings, cycle):
    return [seconds for when, seconds in listings if cycle.begin <= when <= cycle.end]


# Cycles


def _check(cycle, count, updated):
    if (cycle.enabled, cycle.updated, cycle.failed) != (count, updated, 0):
        raise RuntimeError(f"{count} VMs, {updated} changed: {cycle}")


@contextmanager
def _following(controller, ttl):
    """A daemon that has just been started."""
    controller.command("set", "export.cache.ttl", ttl)
    controller.hold_back(0)
    daemon = FollowingDaemon("-O", _shadow_size(controller.count))
    cycles = Cycles(controller, daemon)
    begin = time.time()
    daemon.start()
    try:
        yield daemon, cycles, begin
    finally:
        daemon.stop()


def _pair(controller, cycles, changed):
    """A cycle with `changed` VMs changed and the unchanged one that follows."""
    controller.command("refresh", "--first", str(changed))
    first = cycles.next()
    _check(first, controller.count, changed)
    second = cycles.next()
    _check(second, controller.count, 0)
    return first, second


def _median(cycles):
    """Each figure's median."""
    names = ("seconds", "daemon", "children", "controller", "logged")
    figures = {name: statistics.median(getattr(cycle, name) for cycle in cycles) for name in names}
    return {**figures, "requests": cycles[-1].requests}


def _find(count, daemon):
    """The first find over the mount: seconds, and the daemon's processor time."""
    begin, used = time.monotonic(), cpu_seconds(daemon.pid)
    sizes = run("find", EXPORT, "-type", "f", "-printf", "%s\n", timeout=300).split()
    figures = {"seconds": time.monotonic() - begin, "daemon": cpu_seconds(daemon.pid) - used}
    if len(sizes) != count * FILES or "0" in sizes:
        raise RuntimeError(f"{count} VMs: {len(sizes)} files")
    return figures


def _fresh_cycles(controller, rounds):
    """With VMs whose files have just been looked at."""
    count, one_percent = controller.count, max(1, controller.count // 100)
    figures = {}
    with _following(controller, _FRESH) as (daemon, cycles, begin):
        bare = status_kib(daemon.pid, "VmRSS")
        tell("  the first cycle")
        first = cycles.next()
        _check(first, count, 0)
        figures["appear"] = first.end - begin
        figures["first"] = _median([first])
        figures["find"] = _find(count, daemon)
        cycles.forget()
        controller.hold_back(_HELPERS + count / 5000)
        pairs = []
        for number in range(rounds):
            tell(f"  cycles with and without changes, {number + 1} of {rounds}")
            pairs.append(_pair(controller, cycles, one_percent))
        tell("  listings during cycles")
        figures["1 % changed"] = _median([cycle for cycle, _ in pairs])
        figures["unchanged"] = _median([cycle for _, cycle in pairs])
        with _lister(_names(one_percent, count)) as listings:
            changed, unchanged = _pair(controller, cycles, one_percent)
        figures["listing, 1 % changed"] = _during(listings, changed)
        figures["listing, unchanged"] = _during(listings, unchanged)
        figures["listing, none"] = [seconds for when, seconds in listings if changed.end < when < unchanged.begin]
        figures["resident"] = {"bare": bare, "full": status_kib(daemon.pid, "VmRSS"),
                               "peak": status_kib(daemon.pid, "VmHWM")}
    return figures


def _stale_cycles(controller):
    """With VMs whose files are looked at again in each cycle."""
    count, figures = controller.count, {}
    tell("  cycles that look at every file again")
    with _following(controller, _STALE) as (_, cycles, _):
        with _lister(_names(0, count)) as listings:
            first = cycles.next()
        figures["listing, first"] = _during(listings, first)
        controller.hold_back(_HELPERS + count / 1500)
        figures["looked at again"] = _median(_pair(controller, cycles, 1))
        with _lister(_names(1, count)) as listings:
            pair = _pair(controller, cycles, 1)
        figures["listing, looked at again"] = [seconds for cycle in pair for seconds in _during(listings, cycle)]
    return figures


def _names(begin, end):
    return [f"vm-{number:05d}" for number in range(begin, end)]


def measure(count, rounds):
    """The figures of an inventory of `count` VMs. Cycles: see _median; listings: seconds of each, by what ran
    meanwhile; resident: KiB before the first cycle, at the end, and at the most."""
    directory = WORK / str(count)
    mount_tmpfs(directory)
    controller = Controller(count, directory)
    controller.start()
    try:
        return {**_fresh_cycles(controller, rounds), **_stale_cycles(controller)}
    finally:
        controller.stop()
        run("umount", "--lazy", directory)
