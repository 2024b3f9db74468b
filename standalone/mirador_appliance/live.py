"""What people see of a running appliance: one JSON text that the page and "top" show.

It is made at most once a second, whoever asks and however often. Nothing in it is secret.

    time, since   seconds since 1970: now, and the controller's start
    daemon        see Presence.told, with is_current (it has taken over the newest state), words (how it is with it, for
                  people) and in cycle: taken, of (VMs)
    datastores    [{name, directory, hypervisor, accessible, complete, capacity, free (bytes), vms}]
    counts        {vms, exported, disks, capacity (bytes), open, reading, snapshots, alerts,
                  oldest (age of the oldest snapshot in seconds, or None)}
    reads         {read, skipped (bytes since the controller's start), rate: None or {read, skipped (bytes a second),
                  seconds (the time that they are an average of), age (seconds since its end)},
                  samples: [[start, end (seconds since 1970), bytes read, bytes skipped], …]}
    files         {total, rows: [{path, vm (name or None), size, read, skipped (bytes since it was opened), read_rate,
                  skipped_rate, idle (seconds since its last read, None before it)}]}
    vms           {total, matching, rows: [see live_rows]}
    alerts        {total, rows: [{alert_id, severity, first_time, raised, hv_host, vhost, message}]}
"""

import threading
import time
from collections.abc import Callable
from typing import Any

from .controller import Controller, Look
from .live_rows import SORTS, Row, VmRows, datastore_rows, is_exported
from .presence import Presence
from .reads import OpenFile, Reads
from .texts import pack
from .words import duration

_KEPT = 1.0  # seconds for which what was made is good enough
_TELL = 5.0  # seconds between two lines about the first cycle
_ROWS, _MOST_ROWS = 100, 1000
_FILES, _ALERTS = 200, 200
_BUSY = 20.0  # seconds since its last read for which a file counts as being read
_ALERT = ("alert_id", "severity", "first_time", "raised", "hv_host", "vhost")
_MESSAGE = 1000  # characters of an alert's message

class Live:
    """Is told what the daemon does, and tells people. Any thread may call anything. say: receives a line for what is
    new; clock: seconds since 1970."""

    def __init__(self, controller: Controller, say: Callable[[str], None] = lambda line: None,
                 clock: Callable[[], float] = time.time) -> None:
        self._controller, self._say, self._clock = controller, say, clock
        self._since = clock()
        self._lock = threading.Lock()
        self._reads = Reads()
        self.presence = Presence(clock, self._daemon_begins)
        self._made: tuple[float, dict[str, Any], list[Row]] | None = None
        self._rows = VmRows()
        self._told = 0.0

    def _daemon_begins(self) -> None:
        self._controller.daemon_begins()
        with self._lock:
            self._note_quiet()
            self._reads.forget()

    # What the daemon does

    def take_report(self, report: list[dict[str, Any]]) -> None:
        self.presence.speaks()
        with self._lock:
            self._note_quiet()
            self._reads.take(report, self._clock())

    def _note_quiet(self) -> None:
        for since, until in self.presence.stays():
            self._reads.quiet(since, until)

    def daemon_asks_for(self, uuid: str) -> None:
        """It asks for a VM's disks."""
        asked, now = self.presence.takes(uuid), self._clock()
        cycle = self.presence.told()["cycle"]
        if asked and cycle and cycle["first"] and now - max(self._told, now - cycle["seconds"]) >= _TELL:
            self._told = now
            taken, of = self._progress(self._controller.look())
            self._say(f"the daemon has taken over {taken} of {of} VMs")

    def daemon_has_taken_over(self) -> None:
        seconds = self.presence.ends()
        if seconds is not None:
            look = self._controller.look()
            count = sum(is_exported(look, vm) for vm in look.vms)
            self._say(f"the daemon has taken over all {count} VMs, in {seconds:.1f} s")

    def _progress(self, look: Look) -> tuple[int, int]:
        asked = self.presence.asked()
        exported = [vm.uuid for vm in look.vms if is_exported(look, vm)]
        return sum(uuid in asked for uuid in exported), len(exported)

    # What people see

    def overview(self, find: str = "", sort: str = "activity", rows: int = _ROWS) -> bytes:
        """The JSON text. find: part of a VM's name, place or datastore; sort: one of SORTS; rows: of VMs."""
        told, all_rows = self._latest()
        needle = find.casefold()
        matching = [row for row in all_rows if needle in row["searched"]] if needle else all_rows
        if sort != "activity":
            matching = sorted(matching, key=SORTS[sort])
        shown = [{key: value for key, value in row.items() if key != "searched"}
                 for row in matching[:max(0, min(rows, _MOST_ROWS))]]
        return pack(told | {"vms": {"total": len(all_rows), "matching": len(matching), "rows": shown}})

    def _latest(self) -> tuple[dict[str, Any], list[Row]]:
        with self._lock:
            now = self._clock()
            if self._made is None or not 0 <= now - self._made[0] < _KEPT:
                self._note_quiet()
                self._made = now, *self._make(self._controller.look(), now)
            return self._made[1:]

    def _make(self, look: Look, now: float) -> tuple[dict[str, Any], list[Row]]:
        files = self._files(look, now)
        rows = self._rows.all(look, files, now)
        return {
            "time": now,
            "since": self._since,
            "daemon": self._daemon(look),
            "datastores": datastore_rows(look),
            "counts": _counts(rows, files, len(look.alerts)),
            "reads": self._throughput(now),
            "files": {"total": len(files), "rows": files[:_FILES]},
            "alerts": _alerts(look),
        }, rows

    def _daemon(self, look: Look) -> dict[str, Any]:
        told = self.presence.told()
        if told["cycle"] is not None:
            taken, of = self._progress(look)
            told["cycle"] |= {"taken": taken, "of": of}
        told["is_current"] = look.is_current
        return told | {"words": _words(told)}

    def _throughput(self, now: float) -> dict[str, Any]:
        latest, rate = self._reads.latest(now), None
        if latest is not None and self.presence.is_there():
            seconds = latest.end - latest.start
            rate = {"read": latest.read / seconds, "skipped": latest.skipped / seconds, "seconds": seconds,
                    "age": now - latest.end}
        return {"read": self._reads.total_read, "skipped": self._reads.total_skipped, "rate": rate,
                "samples": [[round(sample.start, 1), round(sample.end, 1), sample.read, sample.skipped]
                            for sample in self._reads.samples]}

    def _files(self, look: Look, now: float) -> list[Row]:
        """Those that are read come first."""
        files = self._reads.open_files(now)
        names = {(look.places[vm.uuid], vm.name): vm.uuid for vm in look.vms} if files else {}
        rates = self._reads.latest(now) if self.presence.is_there() else None
        rows = [self._file(file, names, rates, now) for file in files]
        return sorted(rows, key=lambda row: (not row["reading"], row["path"]))

    @staticmethod
    def _file(file: OpenFile, names: dict[tuple[str, str], str], rates: Any, now: float) -> Row:
        place, name = ("", "", *file.path.split("/"))[-3:-1]
        idle = None if file.last_read is None else max(0.0, now - file.last_read)
        read, skipped = rates.rates_of(file.path) if rates else (0.0, 0.0)
        return {"path": file.path, "uuid": names.get((place, name)), "size": file.size, "read": file.read,
                "skipped": file.skipped, "read_rate": read, "skipped_rate": skipped, "idle": idle,
                "reading": rates is not None and idle is not None and idle < _BUSY}


def _words(daemon: dict[str, Any]) -> str:
    cycle = daemon["cycle"]
    if daemon["state"] == "never":
        return "No daemon has spoken yet"
    if daemon["state"] == "silent":
        return f"No daemon has spoken for {duration(daemon['silent'])}"
    if cycle is not None and cycle["first"]:
        return f"The daemon takes over the VMs: {cycle['taken']:,} of {cycle['of']:,} in {duration(cycle['seconds'])}"
    if cycle is not None or not daemon["is_current"]:
        return "The daemon takes over what has changed"
    return "The daemon has taken over all VMs"


def _counts(rows: list[Row], files: list[Row], alerts: int) -> dict[str, Any]:
    ages = [snapshot["age"] for row in rows for snapshot in row["snapshots"]]
    return {"vms": len(rows), "exported": sum(row["exported"] for row in rows),
            "disks": sum(row["disks"] for row in rows), "capacity": sum(row["capacity"] for row in rows),
            "open": len(files), "reading": sum(file["reading"] for file in files),
            "snapshots": len(ages), "oldest": max((age for age in ages if age is not None), default=None),
            "alerts": alerts}


def _alerts(look: Look) -> Row:
    newest = sorted(look.alerts, key=lambda alert: -alert.get("first_time", 0))
    return {"total": len(newest),
            "rows": [{**{key: alert.get(key) for key in _ALERT},
                      "message": str(alert.get("message", "")).strip()[:_MESSAGE]} for alert in newest[:_ALERTS]]}
