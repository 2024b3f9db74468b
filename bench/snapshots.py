# SPDX-License-Identifier: Apache-2.0
"""Opening disks of VMs that need a snapshot, with an agent that answers at once: the daemon's own time beside what it
waits for."""

import collections
import os
import pathlib
import statistics
import sys
import threading
import time

from harness.daemon import EXPORT
from harness.tools import Failed, wait_until

import waits
from cycles import HYPERVISOR, Controller, FollowingDaemon, cpu_seconds
from inventory import mount_tmpfs

OPENS, QUICK_OPENS = 5, 1
PARALLEL, QUICK_PARALLEL = 50, 5
REOPENS = 1000
TREE = EXPORT / HYPERVISOR
WORK = pathlib.Path("/run/snapshots")

_PAUSE, _LONG_PAUSE = 0.001, 0.01  # seconds between two looks at the daemon's threads
_SETTLE = 3  # seconds until what an open has set off in the daemon is over


class InstantAppliance(Controller):
    """The appliance whose snapshots stand at once."""
    PROGRAM = [sys.executable, "-B", pathlib.Path(__file__).with_name("instant_appliance.py")]


def _file(number):
    return TREE / f"vm-{number:05d}" / f"vm-{number:05d}-flat.vmdk"


def _open(path):
    return os.open(path, os.O_RDONLY)


def _busiest(samples):
    """What the thread that served a lone open did."""
    return max(samples.workers(), key=lambda found: found.total())


def _first_open(daemon, number):
    """One first open. Seconds by the clock, of the daemon's processor time, and what its thread spent on what; the
    file."""
    time.sleep(_SETTLE)
    with waits.sampled(daemon.pid, _PAUSE) as samples:
        used, begin = cpu_seconds(daemon.pid), time.perf_counter()
        file = _open(_file(number))
        seconds, processor = time.perf_counter() - begin, cpu_seconds(daemon.pid) - used
    waited = collections.Counter(_busiest(samples))
    del waited[waits.OWN]
    return {"seconds": seconds, "processor": processor, "waits": dict(waited), "own": seconds - waited.total()}, file


def _reopens(number):
    """Opening a disk that nobody has open and that is kept ready: median, 99 of 100 and longest, in seconds."""
    taken = []
    for _ in range(REOPENS):
        begin = time.perf_counter()
        file = _open(_file(number))
        taken.append(time.perf_counter() - begin)
        os.close(file)
    taken.sort()
    return {"count": REOPENS, "median": statistics.median(taken), "99": taken[REOPENS * 99 // 100], "longest": taken[-1]}


def _parallel(daemon, numbers):
    """First opens all at once: seconds and processor time in all, what was waited for in all, and when each ended."""
    time.sleep(_SETTLE)
    ends, files = [], []

    def run(number):
        files.append(_open(_file(number)))
        ends.append(time.perf_counter() - begin)

    threads = [threading.Thread(target=run, args=(number,)) for number in numbers]
    with waits.sampled(daemon.pid, _LONG_PAUSE) as samples:
        used, begin = cpu_seconds(daemon.pid), time.perf_counter()
        for thread in threads:
            thread.start()
        for thread in threads:
            thread.join()
        processor = cpu_seconds(daemon.pid) - used
    if len(files) != len(numbers):
        raise Failed("a disk could not be opened")
    waited = sum(samples.workers(), collections.Counter())
    del waited[waits.OWN], waited[waits.LOCK]  # an open waits for the lock while another one waits for these
    return {"count": len(numbers), "seconds": max(ends), "ends": ends, "processor": processor, "waits": dict(waited),
            "own": max(ends) - waited.total()}


def _check(daemon, opened):
    """Every open must have had a snapshot of its own, which the controller showed in time."""
    log = daemon.log()
    if log.count("Creating snapshot ") != opened or "to be discovered" in log:
        raise Failed(f"{opened} opens\n{daemon.last_lines()}")


def measure(quick):
    """The figures: "first" (a list), "reopen", "parallel"."""
    opens, parallel = (QUICK_OPENS, QUICK_PARALLEL) if quick else (OPENS, PARALLEL)
    count = 1 + opens + parallel
    mount_tmpfs(WORK)
    appliance = InstantAppliance(count, WORK)
    appliance.command("set", "export.max_session", str(2 * count))
    appliance.start()
    daemon = FollowingDaemon()
    daemon.start()
    try:
        wait_until(lambda: all(_file(number).exists() for number in range(count)), "the VMs appear")
        _, begun = _first_open(daemon, 0)  # starts the agent
        figures = {"first": [_first_open(daemon, number)[0] for number in range(1, 1 + opens)]}
        os.close(begun)
        figures["reopen"] = _reopens(0)
        figures["parallel"] = _parallel(daemon, range(1 + opens, count))
        _check(daemon, count)
        return figures
    finally:
        daemon.kill()  # stopping it takes a second for each disk; the sandbox cleans up
        appliance.stop()
