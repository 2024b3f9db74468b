"""Snapshots of VMs as they stand on the datastore, their guests, and faults of the agent."""

import contextlib
import fcntl
import json
import pathlib
import sys
from collections.abc import Callable, Iterator
from typing import Any

from .appliance import Appliance
from .machines import Machine

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "standalone"))

from mirador_appliance.hypervisor import machine as hypervisor  # noqa: E402
from mirador_appliance.hypervisor import snapshots  # noqa: E402
from mirador_appliance.hypervisor.chain import Chain  # noqa: E402
from mirador_appliance.hypervisor.guest import Guest  # noqa: E402

VENDOR = "Corvantis"

Rule = dict[str, Any]


def _opened(vm: Machine) -> hypervisor.Machine:
    return hypervisor.Machine(str(vm.vmx), hypervisor.PlainNames(), hypervisor.no_steps)


def names(vm: Machine) -> list[str]:
    """The names of a VM's snapshots. Only looks: what a crash left stays as it is."""
    return [snapshot.name for snapshot in _opened(vm).database().snapshots]


def make(vm: Machine, name: str, created: float) -> None:
    """Makes a snapshot that nobody of the daemon's has asked for. created: seconds since 1970."""
    snapshots.create(str(vm.vmx), name, False, created)


def contents(vm: Machine) -> dict[str, bytes]:
    """What the guest sees of each disk, by node ("scsi0:0"). Nothing may write meanwhile."""
    machine = _opened(vm)
    found = {}
    for node, head in machine.heads().items():
        with Chain(machine.chain(head)) as chain:
            found[node] = b"".join(chain.pieces())
    return found


def frozen(vm: Machine, name: str) -> dict[str, bytes]:
    """What a snapshot holds of each disk, by node."""
    found = {}
    for disk in snapshots.frozen(str(vm.vmx), name):
        with Chain.open(disk.frozen, hypervisor.PlainNames().locate) as chain:
            found[disk.node] = b"".join(chain.pieces())
    return found


def write_as_guest(vm: Machine, seed: int, rounds: int = 5) -> None:
    """Lets the running VM write all over its disks; what is written follows from the seed."""
    with Guest(str(vm.vmx), seed) as guest:
        for _ in range(rounds):
            guest.write_round()


def files(vm: Machine) -> dict[str, bytes]:
    """The names of a VM's files, locks and journals of unfinished work among them, with the content of its configuration.
    The database is left out: it stays once there has been a snapshot."""
    return {path.name: path.read_bytes() if path == vm.vmx else b""
            for path in vm.directory.iterdir() if path.suffix != ".vmsd"}


class Mischief:
    """The faults of an appliance's agents. One set of rules for each VM, which may be changed by several threads."""

    def __init__(self, appliance: Appliance):
        self._path = appliance.state / "agent-faults.json"
        self._lock = appliance.state / "agent-faults.lock"
        self._done = appliance.agent_calls

    def set(self, vm: str, *rules: Rule) -> None:
        """Lets exactly these rules act on calls about a VM from now on; "*" for calls that are about none."""
        with self._locked():
            others = [rule for rule in self._read() if rule.get("vm", "*") != vm]
            aside = self._path.with_suffix(".new")
            aside.write_text(json.dumps([*({"vm": vm, **rule} for rule in rules), *others]))
            aside.replace(self._path)

    def _read(self) -> list[Rule]:
        return json.loads(self._path.read_bytes()) if self._path.exists() else []

    @contextlib.contextmanager
    def _locked(self) -> Iterator[None]:
        """As the agents lock it, which count the calls that a rule acts on."""
        with open(self._lock, "ab") as file:
            fcntl.flock(file, fcntl.LOCK_EX)
            yield

    def calls(self, vm: Machine, method: str, event: str = "began") -> list[dict[str, Any]]:
        return [call for call in self._done()
                if (call["event"], call["method"], call.get("uuid")) == (event, method, vm.uuid)]

    def next_call(self, vm: Machine, method: str, event: str = "began") -> Callable[[], bool]:
        """Tells, whenever it is asked, whether there has been one more such call."""
        start = len(self.calls(vm, method, event))
        return lambda: len(self.calls(vm, method, event)) > start

    def have_acted(self, vm: Machine) -> bool:
        """Whether any rule has acted on a call about a VM."""
        return any("fault" in call and call.get("uuid") == vm.uuid for call in self._done())

    def silent(self) -> list[int]:
        """The processes of agents that have fallen silent."""
        return [int(call["call"].partition("-")[0]) for call in self._done() if call.get("outcome") == "silent"]


def strangers(own_uuid: str) -> dict[str, str]:
    """Names of snapshots that are not those of the appliance with that uuid: what -> name."""
    return {
        "a user's": "before the update",
        "another appliance's": f"{VENDOR}: 0f0e0d0c-1111-2222-3333-444455556666",
        "one whose uuid begins like ours": f"{VENDOR}: {own_uuid}0",
        "one that has our uuid inside": f"{VENDOR}: x {own_uuid}",
        "another vendor's": f"Nobody: {own_uuid}",
        "ours in another spelling": f"{VENDOR.lower()}: {own_uuid}",
    }

