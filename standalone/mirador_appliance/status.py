"""What the appliance knows, for people and scripts. Read from the database alone, so it works beside a running
controller and without one."""

import json
import time
from collections.abc import Iterator
from typing import Any

from . import choices, overview
from .records import VM_CHOICES
from .store import Store
from .texts import printable
from .words import size

Status = dict[str, Any]


def collect(store: Store, is_running: bool, now: dict[str, Any]) -> Status:
    """The status as one JSON object. now: the snapshots as they stand, see overview.of_all.

    controller  {running, url, taken_over (generation that the daemon reported last), daemon (how far it is, in words;
                "" when no controller tells; the caller adds it)}
    datastores  [{name, directory, hypervisor, accessible, complete, capacity, free (bytes), vms}]
    folders     [{uuid, name, vms}]
    vms         [{uuid, name, datastore, vmx_path, hypervisor, folder, snapshots, busy, consolidation_needed, changed,
                disks, problems, and what was chosen for it}]; a disk {name, capacity, independent, thin, head, base};
                a snapshot {name, created, age (seconds), quiesced, whose}
    agent_faults  rules of the agent's faults on demand
    alerts, events  as posted, each with times
    statistics  {path: {member: number}}
    settings    {key: value}
    """
    settings = choices.current_settings(store)
    folders, chosen = store.folders(), store.choices()
    datastores = store.datastores()
    vms = [_vm(vm, chosen.get(vm[0], {}), folders, datastores, settings) for vm in store.vms()]
    return {
        "controller": {"running": is_running, "url": store.meta("url") if is_running else "",
                       "taken_over": store.meta("taken_over")},
        "datastores": [{"name": name, **record, "hypervisor": record.get("hypervisor") or settings["hypervisor.name"],
                        "vms": sum(vm["datastore"] == name for vm in vms)} for name, record in datastores.items()],
        "folders": [{"uuid": uuid, "name": name, "vms": sum(vm["folder"] == name for vm in vms)}
                    for uuid, name in folders.items()],
        "vms": [vm | _snapshots(now["vms"].get(vm["uuid"])) for vm in vms],
        "agent_faults": now["agent_faults"],
        "alerts": store.alerts(),
        "events": store.events(),
        "statistics": store.statistics(),
        "settings": settings,
    }


def _vm(vm: tuple[str, int, dict[str, Any]], chosen: dict[str, Any], folders: dict[str, str],
        datastores: dict[str, dict[str, Any]], settings: dict[str, str]) -> dict[str, Any]:
    uuid, changed, facts = vm
    return {
        "uuid": uuid,
        "name": facts["name"],
        "datastore": facts["datastore"],
        "vmx_path": facts["vmx_path"],
        "hypervisor": datastores.get(facts["datastore"], {}).get("hypervisor") or settings["hypervisor.name"],
        "folder": folders.get(chosen.get(choices.FOLDER, "")),
        "changed": changed,
        "disks": [{"name": disk["name"], "capacity": disk["capacity"], "independent": disk["independent"],
                   "thin": disk["thin"], "head": disk["head_ascii_path"], "base": disk["base_ascii_path"]}
                  for disk in facts["disks"]],
        "problems": [text for _, text in facts["problems"]],
        **{key: chosen.get(key, default) for key, default in VM_CHOICES.items()},
    }


def _snapshots(now: dict[str, Any] | None) -> dict[str, Any]:
    found = dict(now or {"snapshots": [], "busy": False, "consolidation_needed": False, "error": ""})
    found["snapshot_error"] = found.pop("error")
    return found


def as_text(status: Status) -> str:
    """The status as lines for a terminal."""
    return "\n".join(printable(line) for line in _lines(status)) + "\n"


def _lines(status: Status) -> Iterator[str]:
    controller = status["controller"]
    yield f"Controller: {'running on ' + controller['url'] if controller['running'] else 'not running'}"
    if controller.get("daemon"):
        yield controller["daemon"]
    yield from _section("Datastores", map(_datastore_line, status["datastores"]))
    yield from _section("Folders", (f"{folder['name']}  {folder['vms']} VMs" for folder in status["folders"]))
    yield from _section("Virtual machines", (line for vm in status["vms"] for line in _vm_lines(vm)))
    if status["agent_faults"]:
        yield from _section("Faults of the agent", (json.dumps(rule) for rule in status["agent_faults"]))
    yield from _section("Alerts", map(_alert_line, status["alerts"]))
    yield from _section("Reads", (_statistics_line(path, record) for path, record in status["statistics"].items()))
    yield from _section("Settings", (f"{key} = {value}" for key, value in status["settings"].items()))


def _section(title: str, lines: Iterator[str]) -> Iterator[str]:
    found = list(lines)
    yield ""
    yield f"{title}:{'' if found else ' none'}"
    yield from (f"  {line}" for line in found)


def _datastore_line(store: dict[str, Any]) -> str:
    state = "readable" if store.get("accessible") else "LOST"
    reading = "" if store.get("complete") else ", still being read"
    return (f"{store['name']}  {store['directory']} on {store['hypervisor']}: {state}, {store['vms']} VMs{reading}, "
            f"{size(store.get('free', 0))} of {size(store.get('capacity', 0))} free")


def _vm_lines(vm: dict[str, Any]) -> Iterator[str]:
    marks = [word for word, is_set in (("template", vm["vmx_path"].endswith(".vmtx")),
                                       ("not exported", not vm["export_enabled"])) if is_set]
    place = f"folder {vm['folder']}" if vm["folder"] else vm["hypervisor"]
    yield f"{vm['name']}  {vm['uuid']}  {place}  [{vm['datastore']}] {vm['vmx_path']}" + "".join(
        f", {mark}" for mark in marks)
    for disk in vm["disks"]:
        kind = "independent, not exported" if disk["independent"] else "thin" if disk["thin"] else "thick"
        yield f"    {disk['name']}  {size(disk['capacity'])}, {kind}"
    for line in overview.lines(vm | {"error": vm["snapshot_error"]}):
        yield f"    {line}"
    for problem in [*vm["problems"], *([vm["error"]] if vm["error"] else [])]:
        yield f"    ! {problem}"


def _alert_line(alert: dict[str, Any]) -> str:
    when = time.strftime("%Y-%m-%d %H:%M:%S", time.localtime(alert.get("first_time", 0)))
    return f"{when}  {alert.get('severity', '')}  {alert['alert_id']}  {str(alert.get('message', '')).strip()}"


def _statistics_line(path: str, record: dict[str, int]) -> str:
    total = record.get("vmdk_bytes_read", 0) + record.get("vmdk_bytes_read2", 0)
    skipped = record.get("vmdk_bytes_skipped", 0) + record.get("vmdk_bytes_skipped2", 0)
    return f"{path}  {size(total)} read, {size(skipped)} skipped"
