"""VMs' snapshots as they stand on the datastore now, for people and scripts."""

import time
from collections.abc import Iterator
from typing import Any

from .agent import faults
from .agent.faults import Rule
from .agent.machines import Machine, Machines
from .busy import is_busy
from .faults_told import reason
from .hypervisor import snapshots
from .hypervisor.machine import Refused
from .places import Places
from .snapshot_names import FOREIGN, whose
from .store import Store

_HOUR, _DAY = 3600, 86400


def of_all(store: Store, places: Places) -> dict[str, Any]:
    """{"vms": {uuid: see of_machine}, "agent_faults": [rule, …]}. Refused when the faults cannot be read."""
    rules = faults.read(store.path.parent)
    machines = Machines(store, places)
    return {"vms": {machine.uuid: of_machine(machine, machines.settings, rules) for machine in machines.all()},
            "agent_faults": [rule.shown() for rule in rules if not rule.is_over]}


def of_machine(machine: Machine, settings: dict[str, str], rules: list[Rule]) -> dict[str, Any]:
    """One VM's snapshots:

    snapshots  [{name, created (seconds since 1970), age (seconds), quiesced, whose: "ours", "another appliance's" or
               "foreign"}]
    busy       whether a task works on the VM, or a fault says so
    consolidation_needed, error (why it cannot be read, or "")

    rules: the agent's faults in force.
    """
    now = time.time()
    found: dict[str, Any] = {"snapshots": [], "busy": False, "consolidation_needed": False, "error": ""}
    try:
        found["snapshots"] = [{"name": snapshot.name, "created": int(snapshot.created),
                               "age": max(0, int(now - snapshot.created)), "quiesced": bool(snapshot.quiesced),
                               "whose": whose(settings, snapshot.name)}
                              for snapshot in snapshots.list(machine.vmx, names=machine.names)]
        found["busy"] = (faults.busy_until(rules, (machine.name, machine.uuid)) is not None
                         or is_busy(machine.vmx))
        found["consolidation_needed"] = snapshots.needs_consolidation(machine.vmx)
    except Refused as refused:
        found["error"] = refused.text
    except OSError as error:
        found["error"] = reason(error)
    return found


def lines(found: dict[str, Any]) -> Iterator[str]:
    """The same as lines for a terminal."""
    for snapshot in found["snapshots"]:
        owner = "a user's own" if snapshot["whose"] == FOREIGN else snapshot["whose"]
        quiet = ", quiesced" if snapshot["quiesced"] else ""
        yield f"snapshot {snapshot['name']!r}, {_age(snapshot['age'])} old, {owner}{quiet}"
    if found["busy"]:
        yield "busy: another task works on it"
    if found["consolidation_needed"]:
        yield "consolidation is needed"
    if found["error"]:
        yield f"snapshots cannot be read: {found['error']}"


def _age(seconds: int) -> str:
    if seconds >= 2 * _DAY:
        return f"{seconds // _DAY} days"
    if seconds >= 2 * _HOUR:
        return f"{seconds // _HOUR} hours"
    return f"{seconds // 60} min {seconds % 60} s" if seconds >= 60 else f"{seconds} s"
