"""The rows that people see of VMs and datastores.

Of a VM: uuid, name, place (the directory above its own), datastore, template, exported, tracked (whether), disks (how
many), capacity (bytes), open (how many of its files are), reading (whether one is being read), read, skipped (bytes, of
the files that are open), read_rate, skipped_rate (bytes a second), snapshots: [{name, whose, age (seconds, None when
that is not known)}], alerts (how many stand), problem (why something of it cannot be exported, or ""), and for the
filter: searched.
"""

from collections.abc import Callable
from typing import Any

from .controller import Look
from .records import VM_CHOICES, Vm
from .snapshot_names import whose

Row = dict[str, Any]

def _activity(row: Row) -> tuple[Any, ...]:
    """What is going on comes first."""
    mine = any(snapshot["whose"] == "ours" for snapshot in row["snapshots"])
    return (not row["reading"], not row["open"], not mine, not (row["alerts"] or row["problem"]), not row["snapshots"])


SORTS: dict[str, Callable[[Row], Any]] = {
    "activity": _activity,
    "name": lambda row: row["searched"],
    "rate": lambda row: -row["read_rate"] - row["skipped_rate"],
    "read": lambda row: -row["read"],
    "snapshot": lambda row: -max((snapshot["age"] or 0 for snapshot in row["snapshots"]), default=-1),
    "alerts": lambda row: (-row["alerts"], not row["problem"]),
}


def is_exported(look: Look, vm: Vm) -> bool:
    chosen = look.choices.get(vm.uuid)
    keys = "export_enabled", "controller_export_enabled"
    return not chosen or all(chosen.get(key, VM_CHOICES[key]) for key in keys)


class VmRows:
    """Keeps what does not change: of thousands of VMs, most are idle."""

    def __init__(self) -> None:
        self._idle: dict[str, tuple[Vm, str, Row]] = {}

    def all(self, look: Look, files: list[Row], now: float) -> list[Row]:
        """Of every VM, as SORTS["activity"] has them, then by name."""
        of_vm: dict[str, list[Row]] = {}
        for file in files:
            of_vm.setdefault(file["uuid"], []).append(file)
        alerts = _alerts_by_vm(look)
        hosts = {name: record.get("hypervisor") or look.settings["hypervisor.name"]
                 for name, record in look.datastores.items()}
        idle = {vm.uuid: self._idle_row(vm, look.places[vm.uuid]) for vm in look.vms}
        self._idle = idle
        rows = []
        for vm in look.vms:
            raised = alerts.get((hosts[vm.key[0]], vm.name), 0) if alerts else 0
            chosen = look.choices.get(vm.uuid)
            row = idle[vm.uuid][2]
            if vm.uuid in of_vm or raised or chosen or vm.facts["snapshots"]:
                row = row | _doings(look, vm, chosen or {}, of_vm.get(vm.uuid, []), now) | {"alerts": raised}
            rows.append(row)
        rows.sort(key=lambda row: row["searched"])
        rows.sort(key=_activity)
        return rows

    def _idle_row(self, vm: Vm, place: str) -> tuple[Vm, str, Row]:
        known = self._idle.get(vm.uuid)
        return known if known and known[0] is vm and known[1] == place else (vm, place, _idle_row(vm, place))


def _alerts_by_vm(look: Look) -> dict[tuple[Any, Any], int]:
    """By hypervisor and name."""
    found: dict[tuple[Any, Any], int] = {}
    for alert in look.alerts:
        key = alert.get("hv_host"), alert.get("vhost")
        found[key] = found.get(key, 0) + 1
    return found


def _idle_row(vm: Vm, place: str) -> Row:
    """Of a VM of which nothing else is known than its files."""
    problems = vm.facts["problems"]
    return {
        "uuid": vm.uuid, "name": vm.name, "place": place, "datastore": vm.key[0],
        "template": vm.key[1].endswith(".vmtx"), "exported": True, "tracked": False,
        "disks": len(vm.facts["disks"]), "capacity": sum(disk["capacity"] for disk in vm.facts["disks"]),
        "open": 0, "reading": False, "read": 0, "skipped": 0, "read_rate": 0, "skipped_rate": 0,
        "snapshots": [], "alerts": 0, "problem": problems[0][1] if problems else "",
        "searched": f"{vm.name}\n{place}\n{vm.key[0]}".casefold(),
    }


def _doings(look: Look, vm: Vm, chosen: dict[str, Any], files: list[Row], now: float) -> Row:
    """What differs from an idle VM's row."""
    found = {
        "exported": is_exported(look, vm),
        "tracked": bool(chosen.get("use_cbt")),
        "open": len(files),
        "reading": any(file["reading"] for file in files),
        "snapshots": _snapshots(look, vm, now),
        **{key: sum(file[key] for file in files) for key in ("read", "skipped", "read_rate", "skipped_rate")},
    }
    return found | {"problem": chosen["error"]} if chosen.get("error") else found


def _snapshots(look: Look, vm: Vm, now: float) -> list[Row]:
    names = vm.facts["snapshots"]
    times = vm.facts.get("snapshot_times") or [0] * len(names)
    return [{"name": name, "whose": whose(look.settings, name), "age": max(0, int(now - created)) if created else None}
            for name, created in zip(names, times)]


def datastore_rows(look: Look) -> list[Row]:
    counts: dict[str, int] = {}
    for vm in look.vms:
        counts[vm.key[0]] = counts.get(vm.key[0], 0) + 1
    return [{"name": name, "directory": record.get("directory", ""),
             "hypervisor": record.get("hypervisor") or look.settings["hypervisor.name"],
             "accessible": bool(record.get("accessible")), "complete": bool(record.get("complete")),
             "capacity": record.get("capacity", 0), "free": record.get("free", 0), "vms": counts.get(name, 0)}
            for name, record in look.datastores.items()]
