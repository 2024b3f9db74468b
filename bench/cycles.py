# SPDX-License-Identifier: Apache-2.0
"""A daemon that follows the embedded controller, and what its cycles cost."""

import collections
import dataclasses
import json
import os
import pathlib
import re
import subprocess
import time

from harness.daemon import Daemon
from harness.tools import Failed, program, run, wait_until

APPLIANCE = pathlib.Path(__file__).resolve().parents[1] / "standalone" / "mirador-appliance"
HYPERVISOR = "esx1.example"

_REFRESHED = re.compile(r"cnt_thr: refreshed .* \((\d+) enabled, (\d+) updated, (\d+) failed\) in (\d+) seconds")
_CONCLUDED = "cnt_thr: updating mirador genId to "
_UPDATED = re.compile(rf"hv_thr: updated {re.escape(HYPERVISOR)} in (\d+) seconds")


class Tail:
    """The whole lines that a file has got since they were last asked for."""

    def __init__(self, path):
        self._path, self._offset = path, 0

    def lines(self):
        try:
            with open(self._path, "rb") as file:
                file.seek(self._offset)
                data = file.read()
        except FileNotFoundError:
            return []
        end = data.rfind(b"\n") + 1
        self._offset += end
        return data[:end].decode(errors="replace").splitlines()


def cpu_seconds(pid):
    """Processor time of a running process and its ended threads, to the nanosecond; without its children."""
    return time.clock_gettime_ns((~pid << 3) | 2) / 1e9


def children_seconds(pid):
    """Processor time of a process's children that ended, to 10 ms."""
    fields = pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()
    return (int(fields[13]) + int(fields[14])) / os.sysconf("SC_CLK_TCK")


class Controller:
    """The embedded appliance with `count` made-up VMs, whose files lie in a directory."""
    PROGRAM = [APPLIANCE]  # that serves

    def __init__(self, count, directory):
        self.count = count
        self._state = directory / "state"
        self._faults = directory / "faults"
        self._journal = directory / "journal"
        self._output = directory / "output"
        self._store = directory / f"volume-{count}"
        self._store.mkdir(parents=True)
        self._process = None

    def start(self):
        self.command("set", "hypervisor.name", HYPERVISOR)
        with open(self._output, "ab") as output:
            self._process = subprocess.Popen(
                [*self.PROGRAM, "serve", "--state", self._state, "--synthetic", str(self.count),
                 "--datastore", self._store, "--port", "0", "--faults", self._faults, "--journal", self._journal],
                stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        # Complete before the daemon looks: its first cycle is then one.
        complete = f": {self.count} VMs"
        wait_until(lambda: complete in self._output.read_text() or self._process.poll() is not None, "discovery", 120)
        if self._process.poll() is not None:
            raise Failed(f"the appliance ended\n{self._output.read_text()}")

    def stop(self):
        self._process.terminate()
        self._process.wait(timeout=30)

    @property
    def pid(self):
        return self._process.pid

    def command(self, *words):
        run(APPLIANCE, words[0], "--state", self._state, *words[1:])

    def hold_back(self, seconds):
        """Lets the daemon hear of each new generation so much later: one cycle is over before the next."""
        aside = self._faults.with_suffix(".new")
        aside.write_text(json.dumps([{"object": "fs_sync", "query": "type=wait", "delay": seconds}]))
        aside.replace(self._faults)

    def journal(self):
        return Tail(self._journal)


class FollowingDaemon(Daemon):
    """The daemon with its controller's threads."""

    def command(self, *more):
        return [word for word in super().command(*more) if word != "--no-threads"]


@dataclasses.dataclass
class Cycle:
    """One cycle, from the answer that announced it to the last VM's update."""
    begin: float  # seconds since 1970
    end: float
    daemon: float  # processor time, seconds; without its children's
    children: float
    controller: float
    logged: int  # seconds of both threads as the log tells them
    enabled: int
    updated: int
    failed: int
    requests: dict[str, int]  # "METHOD object" -> number

    @property
    def seconds(self):
        return self.end - self.begin


class Cycles:
    """Watches the cycles, one by one, of a daemon that has not been started yet. Ask for each before the next one
    begins."""

    def __init__(self, controller, daemon):
        self._controller, self._daemon = controller, daemon
        self._log, self._journal = Tail(daemon.log_file), controller.journal()
        self._journal.lines()
        self._usage = 0, 0, cpu_seconds(controller.pid)
        self._last_end = 0

    def _used(self):
        return (cpu_seconds(self._daemon.pid), children_seconds(self._daemon.pid), cpu_seconds(self._controller.pid))

    def forget(self):
        """What has been done since the last cycle is not the next one's."""
        self._usage = self._used()

    def next(self, limit=300):
        """The next cycle, once it is over. Processor times since the one before, or since forget(). Failed when that
        one was not over when it began."""
        refreshed, seconds = self._await_end(limit)
        end, usage = time.time(), self._used()
        requests = [json.loads(line) for line in self._journal.lines()]
        begin = _begin(requests)
        if begin < self._last_end:
            raise Failed("a cycle began before the one before it was over")
        enabled, updated, failed, logged = map(int, refreshed)
        cycle = Cycle(begin, end, *(after - before for before, after in zip(self._usage, usage)), logged + seconds,
                      enabled, updated, failed, collections.Counter(f"{r['method']} {r['object']}" for r in requests))
        self._usage, self._last_end = usage, end
        return cycle

    def _await_end(self, limit):
        refreshed = concluded = seconds = None
        deadline = time.monotonic() + limit
        while refreshed is None or concluded is None or seconds is None:
            for line in self._log.lines():
                refreshed = found.groups() if (found := _REFRESHED.search(line)) else refreshed
                concluded = line if _CONCLUDED in line else concluded
                seconds = int(found[1]) if (found := _UPDATED.search(line)) else seconds
            if time.monotonic() > deadline or not self._daemon.is_running():
                raise Failed(f"no cycle ended\n{self._daemon.last_lines()}")
            time.sleep(0.002)
        return refreshed, seconds


def _begin(requests):
    """When the wait was answered that the cycle followed."""
    waits = [request["time"] for request in requests if "type=wait" in request["query"]]
    if not waits:
        raise Failed("a cycle without a new generation")
    return waits[0]
