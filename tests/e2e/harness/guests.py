"""VMs that run: they write to all their disks all the time, and yet anybody can tell what the disks hold."""

import os
import pathlib
import re
import signal
import subprocess
import sys
from collections.abc import Callable

from .appliance import PROGRAM, Appliance
from .disks import SECTOR
from .machines import Machine
from .tools import WORK, Failed, run, wait_until

sys.path.insert(0, os.fspath(PROGRAM.parent))
from mirador_appliance.hypervisor import guest  # noqa: E402  what a guest writes follows from its seed

_PAUSE = 0.02  # seconds between two rounds: what hundreds of them write can be told in a moment
_UNTOUCHED = 2048  # sectors at the start of a disk that guests leave alone


def _heads(vm: Machine) -> list[pathlib.Path]:
    """The descriptors of the disks that the VM writes to, in its order."""
    return [vm.directory / name for name in re.findall(r'(?m)^scsi0:\d+\.fileName = "(.*)"$', vm.vmx.read_text())]


def contents(vm: Machine) -> list[bytes]:
    """What the disks of a VM hold, in its order, as qemu-img reads them. Nobody may write meanwhile."""
    found, raw = [], WORK / f"{vm.name}.now"
    for head in _heads(vm):
        run("qemu-img", "convert", "-f", "vmdk", "-O", "raw", head, raw)
        found.append(raw.read_bytes())
        raw.unlink()
    return found


class Content:
    """What the disks of a VM hold as the rounds of its guest go by."""

    def __init__(self, seed: int, before: list[bytes]):
        self._seed, self._before, self._round = seed, before, 0
        self._now = [bytearray(data) for data in before]

    def after(self, number: int) -> list[bytes]:
        """The disks behind a round, which must not be one before the last that was asked for."""
        if number < self._round:
            raise Failed(f"round {number} is before round {self._round}")
        for disk, data in enumerate(self._now):
            last: dict[int, int] = {}  # the round that wrote a sector last
            for current in range(self._round + 1, number + 1):
                first, count = guest.extent_of_round(self._seed, current, disk, len(data) // SECTOR)
                last.update(dict.fromkeys(range(first, first + count), current))
            for place, current in last.items():
                data[place * SECTOR:(place + 1) * SECTOR] = guest.sector(self._seed, current, disk, place)
        self._round = number
        return [bytes(data) for data in self._now]

    def last_round(self, disk: int, data: bytes) -> int:
        """The newest round of which a disk holds something; 0 for none."""
        before, newest = self._before[disk], 0
        for start in range(_UNTOUCHED * SECTOR, len(data), SECTOR):
            sector = data[start:start + SECTOR]
            if sector != before[start:start + SECTOR]:
                newest = max(newest, guest.round_of(sector) or 0)
        return newest


class RunningMachine:
    """A VM that runs as long as the context lasts, with its first round behind it. content: what its disks hold."""

    def __init__(self, appliance: Appliance, vm: Machine, seed: int):
        self._appliance, self._vm, self._seed = appliance, vm, seed
        self.content = Content(seed, contents(vm))

    def __enter__(self) -> "RunningMachine":
        head = _heads(self._vm)[-1]
        untouched = head.read_bytes()  # the first write gives a disk a new content id
        command = self._appliance.command_line("guest", self._vm.uuid, "--seed", str(self._seed),
                                               "--pause", str(_PAUSE))
        self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                         stderr=subprocess.STDOUT, text=True)
        self._wait_until(lambda: head.read_bytes() != untouched)
        return self

    def __exit__(self, kind: type | None, *_: object) -> None:
        if kind is not None:
            self._process.kill()
        if self._process.poll() is None or kind is not None:
            self._process.communicate()

    def stop(self) -> int:
        """Switches the VM off; returns the last round."""
        self._process.send_signal(signal.SIGTERM)
        said, _ = self._process.communicate(timeout=60)
        match = re.search(r": (\d+) rounds", said)
        if self._process.returncode != 0 or match is None:
            raise Failed(f"the guest ended with status {self._process.returncode}\n{said}")
        return int(match[1])

    def wait_for_rounds(self, disk: int, path: pathlib.Path) -> None:
        """Waits until some more rounds have been written to a disk that is one flat file."""
        def newest() -> int:
            return self.content.last_round(disk, path.read_bytes())
        start = newest()
        self._wait_until(lambda: newest() >= start + 20)

    def _wait_until(self, condition: Callable[[], bool]) -> None:
        wait_until(lambda: self._process.poll() is not None or condition(), "the guest writes")
        if self._process.poll() is not None:
            raise Failed(f"the guest ended\n{self._process.stdout.read()}")
