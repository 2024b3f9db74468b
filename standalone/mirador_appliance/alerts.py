"""Alerts: those that the daemon posts, and the appliance's own."""

import time
from typing import Any

from .store import Store

_POSTED = ("alert_id", "object_id", "alert_time", "severity", "hv_host", "vhost", "message", "node_uuid",
           "managed_alert")

AlertKey = tuple[str, str, str]  # alert_id, object_id, node_uuid


class AlertBook:
    """The alerts that stand. A record has the members of _POSTED, "raised" (how often), "first_time" (seconds since
    1970) and "own" (0 or 1). The caller serialises calls."""

    def __init__(self, store: Store, node_uuid: str) -> None:
        self._store = store
        self._node = node_uuid
        self._alerts: dict[AlertKey, dict[str, Any]] = {}
        self._own: dict[tuple[str, str], dict[str, str]] = {}  # alert_id and owner -> object -> message
        self._earlier: set[AlertKey] | None = None  # raised by a daemon before the one that begins
        for record in store.alerts():
            key = self._key(record)
            if record.get("own"):
                store.remove_alert(key)  # the cause is looked for anew
            else:
                self._alerts[key] = record

    def _key(self, posted: dict[str, Any]) -> AlertKey:
        """An alert without a node is this appliance's: the daemon looks for it there."""
        return (str(posted.get("alert_id", "")), str(posted.get("object_id", "")),
                str(posted.get("node_uuid") or self._node))

    def standing(self) -> list[dict[str, Any]]:
        return list(self._alerts.values())

    def post(self, posted: dict[str, Any], own: int = 0) -> bool:
        """Raises an alert or renews it. Whether it says something new."""
        key = self._key(posted)
        if self._earlier is not None:
            self._earlier.discard(key)
        old = self._alerts.get(key, {})
        now = int(time.time())
        record = {"alert_time": now, **{member: posted[member] for member in _POSTED if member in posted}}
        record |= {"node_uuid": key[2], "raised": old.get("raised", 0) + 1, "first_time": old.get("first_time", now),
                   "own": own}
        self._alerts[key] = record
        self._store.set_alert(key, record)
        return old.get("message") != record.get("message")

    def clear(self, posted: dict[str, Any]) -> bool:
        """Clears an alert; whether it stood."""
        key = self._key(posted)
        if self._alerts.pop(key, None) is None:
            return False
        self._store.remove_alert(key)
        return True

    def daemon_begins(self) -> None:
        """What an earlier daemon raised, the one that begins doesn't know, and would never clear."""
        if self._earlier is None:
            self._earlier = {key for key, record in self._alerts.items() if not record["own"] and key[2] == self._node}

    def daemon_has_followed(self) -> list[AlertKey]:
        """It has looked at everything: drops what it has not raised again. The alerts dropped."""
        dropped = [key for key in self._earlier or () if self._alerts.pop(key, None)]
        self._earlier = None
        for key in dropped:
            self._store.remove_alert(key)
        return dropped

    def keep_own(self, alert_id: str, owner: str, texts: dict[str, str], hypervisor: str, vm_name: str) -> list[str]:
        """Lets exactly the alerts `texts` (object -> message) stand of those that the appliance raises as `alert_id`
        for an owner. Returns the messages that are new."""
        standing = self._own.pop((alert_id, owner), {})
        for object_id in standing.keys() - texts.keys():
            self.clear({"alert_id": alert_id, "object_id": object_id})
        if texts:
            self._own[alert_id, owner] = dict(texts)
        new = [object_id for object_id, text in texts.items() if standing.get(object_id) != text]
        for object_id in new:
            self.post({"alert_id": alert_id, "object_id": object_id, "severity": "warning", "hv_host": hypervisor,
                       "vhost": vm_name, "message": texts[object_id], "managed_alert": 1}, own=1)
        return [texts[object_id] for object_id in new]
