"""The REST objects: which request means what. URLs are /api/OBJECT?QUERY."""

import urllib.parse
from collections.abc import Callable
from typing import Any

from . import choices
from .controller import Controller, Unknown
from .live import Live
from .texts import pack, unpack

_LONGEST_WAIT = 300.0  # seconds; the client then asks again
_INVENTORY, _TAKEN_OVER = "dsfs", "vmfs"  # sync targets: what there is, and what the daemon has taken over

IsWanted = Callable[[], bool]
Query = dict[str, str]


class BadRequest(Exception):
    """A request that cannot be answered. status: of HTTP."""

    def __init__(self, status: int, text: str) -> None:
        super().__init__(text)
        self.status = status


def parse_query(text: str) -> Query:
    """The last value of each name; a name without "=" has the value ""."""
    query = {}
    for part in filter(None, text.split("&")):
        name, _, value = part.partition("=")
        query[urllib.parse.unquote(name)] = urllib.parse.unquote(value, errors="surrogateescape")
    return query


def _body(data: bytes, wanted: type) -> Any:
    try:
        value = unpack(data)
    except ValueError as error:
        raise BadRequest(400, f"not JSON: {error}") from None
    if not isinstance(value, wanted):
        raise BadRequest(400, f"not a JSON {'array' if wanted is list else 'object'}")
    return value


class Objects:
    """Answers requests from a controller. live: is told what the daemon does; forget_changes: is given the uuid of a VM
    whose disks' tracked changes are of no use any more."""

    def __init__(self, controller: Controller, live: Live,
                 forget_changes: Callable[[str], None] = lambda uuid: None) -> None:
        self._controller, self._live, self._forget_changes = controller, live, forget_changes
        self._getters: dict[str, Callable[[Query, IsWanted], bytes]] = {
            "hvconfig": lambda query, _: controller.hypervisors(),
            "vhost": self._get_vhost,
            "vdisk": self._get_vdisk,
            "folder": lambda query, _: controller.folders(),
            "datastore": lambda query, _: controller.datastores(),
            "nfs_datastore": lambda query, _: b"[]",  # every datastore is mounted already
            "alert": lambda query, _: controller.alerts(),
            "fs_sync": self._get_fs_sync,
            "node": self._get_node,
        }
        self._posters: dict[str, Callable[[bytes], Any]] = {
            "registry": self._post_registry,
            "vmconfig": self._post_vmconfig,
            "vdisk": self._post_vdisk,
            "event": self._post_event,
            "alert": self._post_alert,
            "vmstats": self._post_vmstats,
        }

    def get(self, name: str, query: str, is_wanted: IsWanted) -> bytes:
        """The JSON text that answers a GET. is_wanted: whether the client is still there. BadRequest."""
        getter = self._getters.get(name)
        if getter is None:
            raise BadRequest(404, f"no object {name}")
        try:
            return getter(parse_query(query), is_wanted)
        except ValueError as error:
            raise BadRequest(400, str(error)) from None

    def post(self, name: str, data: bytes) -> bytes:
        """Takes in a POST; returns the JSON text that answers it. BadRequest."""
        poster = self._posters.get(name)
        if poster is None:
            raise BadRequest(404, f"nothing can be posted to {name}")
        try:
            return pack(poster(data))
        except Unknown as error:
            raise BadRequest(404, str(error)) from None
        except ValueError as error:
            raise BadRequest(400, str(error)) from None

    def _get_vhost(self, query: Query, _: IsWanted) -> bytes:
        if "vm_uuid" in query:
            return self._controller.vm(query["vm_uuid"])
        return self._controller.vms(query.get("hv_hostname"))

    def _get_vdisk(self, query: Query, _: IsWanted) -> bytes:
        uuid, name = query.get("vhost_uuid"), query.get("name")
        if uuid is not None and name is None:
            self._live.daemon_asks_for(uuid)
        return self._controller.disks(uuid, name)

    def _get_node(self, query: Query, _: IsWanted) -> bytes:
        if "get_master" not in query:
            raise BadRequest(400, "node: only get_master can be asked")
        return pack(self._controller.setting("controller.uuid"))

    def _get_fs_sync(self, query: Query, is_wanted: IsWanted) -> bytes:
        target, kind, known = query.get("target"), query.get("type"), query.get("genId", "")
        generation = self._controller.generation
        if target == _TAKEN_OVER and kind == "set":
            self._controller.taken_over(known)
            self._live.daemon_has_taken_over()
            return pack({"genId": known})
        if target != _INVENTORY or kind not in ("query", "wait"):
            raise BadRequest(404, f"fs_sync: no {kind} of {target}")
        if kind == "query":
            return pack({"genId": generation.token})
        seconds = self._seconds(query)
        with self._live.presence.waits(known, is_wanted):
            token = generation.wait(known, seconds, is_wanted)
        if token != known:
            self._live.presence.begins()
        return pack({"genId": token})

    @staticmethod
    def _seconds(query: Query) -> float:
        """ValueError."""
        seconds = float(query.get("timeout") or _LONGEST_WAIT)
        if not seconds >= 0:
            raise ValueError("fs_sync: timeout is no length of time")
        return min(seconds, _LONGEST_WAIT)

    def _post_registry(self, data: bytes) -> dict[str, Any]:
        posted = _body(data, dict)
        key = posted.get("method_args")
        if posted.get("method_name") != "get_value" or not isinstance(key, str):
            raise BadRequest(400, "registry: only get_value of a key can be asked")
        value = self._controller.setting(key)
        return {"error_code": 1, "result": ""} if value is None else {"error_code": 0, "result": value}

    def _post_vmconfig(self, data: bytes) -> dict[str, Any]:
        posted = _body(data, dict)
        uuid, values = self._uuid(posted), choices.vm_choices_posted(posted)
        if values.get("cbt_reset_time") == choices.RESET_WANTED:
            del values["cbt_reset_time"]
            self._start_anew(uuid)
        self._controller.choose(uuid, values)
        return {}

    def _start_anew(self, uuid: str) -> None:
        """What is known of a VM's changed blocks is of no use."""
        self._controller.reset_tracking(uuid)
        self._forget_changes(uuid)

    @staticmethod
    def _uuid(posted: dict[str, Any]) -> str:
        uuid = posted.get("uuid")
        if not isinstance(uuid, str):
            raise BadRequest(400, "no \"uuid\"")
        return uuid

    def _post_vdisk(self, data: bytes) -> dict[str, Any]:
        self._controller.note_disk(_body(data, dict))
        return {}

    def _post_event(self, data: bytes) -> dict[str, Any]:
        posted = _body(data, dict)
        self._controller.record_event(posted)
        if posted.get("event_name") == "reset_cbt":
            arguments = posted.get("args")
            self._start_anew(self._uuid(arguments if isinstance(arguments, dict) else {}))
        return {}

    def _post_alert(self, data: bytes) -> dict[str, Any]:
        posted = _body(data, dict)
        for member in ("alert_id", "object_id"):
            if not isinstance(posted.get(member), str):
                raise BadRequest(400, f"an alert without \"{member}\"")
        action = posted.get("action")
        if action == "alert_post":
            self._controller.post_alert(posted)
        elif action == "alert_clear":
            self._controller.clear_alert(posted)
        else:
            raise BadRequest(400, f"alert: no action {action!r}")
        return {}

    def _post_vmstats(self, data: bytes) -> dict[str, Any]:
        report = _body(data, list)
        self._controller.take_statistics(report)
        self._live.take_report(report)
        return {}
