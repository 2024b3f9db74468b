"""A VM's snapshot database as it is written: snapshots are added and taken out, whatever else stands in it is kept.

A snapshot is the lines `snapshotN.KEY = "VALUE"` of one N; those behind one that is taken out move up. The number of
snapshots is written before them, and the number of a snapshot's disks before its disks, since readers go by that order.
Times are microseconds since the epoch, in two halves of 32 bits.
"""

import dataclasses
import re

from ..texts import to_bytes, to_text
from ..vmsd import unescaped
from .vmx import escape

_LINE = re.compile(r'\s*(?P<key>[\w.:]+)\s*=\s*"(?P<value>[^"]*)"', re.ASCII)
_OF_SNAPSHOT = re.compile(r"snapshot(\d+)\.(.+)", re.IGNORECASE | re.ASCII)
_DISK = re.compile(r"disk(\d+)\.(filename|node)", re.IGNORECASE | re.ASCII)
_NEW = ['.encoding = "UTF-8"', 'snapshot.lastUID = "0"', 'snapshot.current = "0"']
_RECENT = 4  # snapshots that are listed as used most recently
_HALF = 32
_MICROSECONDS = 1_000_000

_COUNT, _LAST, _CURRENT, _NEEDED = ("snapshot.numSnapshots", "snapshot.lastUID", "snapshot.current",
                                    "snapshot.needConsolidate")


@dataclasses.dataclass
class SnapshotLines:
    """One snapshot: pairs of the key behind the number and the value without quotes, escaped as it stands there."""
    pairs: list[tuple[str, str]]

    def get(self, key: str) -> str:
        return next((value for name, value in self.pairs if name.lower() == key.lower()), "")

    def set(self, key: str, value: str) -> None:
        self.pairs = [(name, value if name.lower() == key.lower() else old) for name, old in self.pairs]

    def set_text(self, key: str, text: str) -> None:
        self.set(key, escape(text))

    def without(self, key: str) -> None:
        self.pairs = [(name, value) for name, value in self.pairs if name.lower() != key.lower()]

    @property
    def uid(self) -> int:
        return _number(self.get("uid"))

    @property
    def parent(self) -> int:
        """The uid of the snapshot that it was made on; 0: none."""
        return _number(self.get("parent"))

    @property
    def name(self) -> str:
        return unescaped(self.get("displayName"))

    @property
    def quiesced(self) -> bool:
        return self.get("quiesced").upper() == "TRUE"

    @property
    def created(self) -> float:
        """Seconds since the epoch."""
        high, low = (_number(self.get(f"createTime{half}")) & 0xffffffff for half in ("High", "Low"))
        return (high << _HALF | low) / _MICROSECONDS

    def disks(self) -> list[tuple[str, str, str]]:
        """(key of the name, node, name) of each disk that it froze."""
        found: dict[str, dict[str, tuple[str, str]]] = {}
        for key, value in self.pairs:
            if match := _DISK.fullmatch(key):
                found.setdefault(match[1], {})[match[2].lower()] = key, unescaped(value)
        return [(disk["filename"][0], disk["node"][1], disk["filename"][1]) for disk in found.values()
                if {"filename", "node"} <= disk.keys()]


def new_snapshot(uid: int, parent: int, name: str, quiesced: bool, now: float,
                 disks: list[tuple[str, str]]) -> SnapshotLines:
    """now: seconds since the epoch; disks: (node, name of the descriptor)."""
    time = int(now * _MICROSECONDS)
    pairs = [("uid", str(uid))]
    if parent:
        pairs.append(("parent", str(parent)))
    pairs += [("displayName", escape(name)), ("description", ""), ("type", "0"),
              ("createTimeHigh", str(time >> _HALF)), ("createTimeLow", str(time & 0xffffffff)),
              ("numDisks", str(len(disks)))]
    for number, (node, disk) in enumerate(disks):
        pairs += [(f"disk{number}.fileName", escape(disk)), (f"disk{number}.node", escape(node))]
    if quiesced:
        pairs.append(("quiesced", "TRUE"))
    return SnapshotLines(pairs)


def _number(value: str) -> int:
    return int(value) if re.fullmatch(r"-?\d{1,20}", value, re.ASCII) else 0


class Database:
    """The lines of a database. text: "" for one that is not there yet."""

    def __init__(self, text: str) -> None:
        self._newline = "\r\n" if "\r\n" in text else "\n"
        self._lines: list[str] = []  # those of no snapshot
        found: dict[int, list[tuple[str, str]]] = {}
        for line in text.removesuffix("\n").split("\n"):
            line = line.removesuffix("\r")
            match = _LINE.match(line)
            of_snapshot = _OF_SNAPSHOT.fullmatch(match["key"]) if match else None
            if of_snapshot:
                found.setdefault(int(of_snapshot[1]), []).append((of_snapshot[2], match["value"]))
            elif line.strip():
                self._lines.append(line)
        self.snapshots = [SnapshotLines(found[number]) for number in sorted(found)]
        self._lines = self._lines or [*_NEW]

    @classmethod
    def read(cls, path: str) -> "Database":
        try:
            with open(path, "rb") as file:
                return cls(to_text(file.read()))
        except FileNotFoundError:
            return cls("")

    def _get(self, key: str) -> str:
        for line in self._lines:
            if (match := _LINE.match(line)) and match["key"].lower() == key.lower():
                return match["value"]
        return ""

    def _set(self, key: str, value: str) -> None:
        new = f'{key} = "{value}"'
        for number, line in enumerate(self._lines):
            if (match := _LINE.match(line)) and match["key"].lower() == key.lower():
                self._lines[number] = new
                return
        self._lines.append(new)

    @property
    def current(self) -> int:
        """The uid of the snapshot that the VM runs on; 0: none."""
        return _number(self._get(_CURRENT))

    @property
    def needs_consolidation(self) -> bool:
        return self._get(_NEEDED).upper() == "TRUE"

    @needs_consolidation.setter
    def needs_consolidation(self, needed: bool) -> None:
        if needed != self.needs_consolidation:
            self._set(_NEEDED, "TRUE" if needed else "FALSE")

    def next_uid(self) -> int:
        return max([_number(self._get(_LAST)), *(snapshot.uid for snapshot in self.snapshots)]) + 1

    def add(self, snapshot: SnapshotLines) -> None:
        """Adds a snapshot, which becomes the current one, unless it is there already."""
        if any(snapshot.uid == other.uid for other in self.snapshots):
            return
        self.snapshots.append(snapshot)
        self._set(_LAST, str(max(_number(self._get(_LAST)), snapshot.uid)))
        self._set(_CURRENT, str(snapshot.uid))
        self._set_recent([snapshot.uid, *self._recent()])

    def take_out(self, uids: list[int]) -> None:
        """Takes snapshots out; those made on one of them are then made on what that one was made on."""
        for uid in uids:
            gone = next((snapshot for snapshot in self.snapshots if snapshot.uid == uid), None)
            if gone is None:
                continue
            self.snapshots.remove(gone)
            for other in self.snapshots:
                if other.parent == uid and gone.parent:
                    other.set("parent", str(gone.parent))
                elif other.parent == uid:
                    other.without("parent")
            if self.current == uid:
                self._set(_CURRENT, str(gone.parent))
            self._set_recent([recent for recent in self._recent() if recent != uid])

    def _recent(self) -> list[int]:
        return [_number(value) for number in range(_RECENT) if (value := self._get(f"snapshot.mru{number}.uid"))]

    def _set_recent(self, uids: list[int]) -> None:
        self._lines = [line for line in self._lines if not line.lower().lstrip().startswith("snapshot.mru")]
        for number, uid in enumerate(uids[:_RECENT]):
            self._set(f"snapshot.mru{number}.uid", str(uid))

    def data(self) -> bytes:
        self._set(_COUNT, str(len(self.snapshots)))
        lines = [*self._lines]
        for number, snapshot in enumerate(self.snapshots):
            lines += [f'snapshot{number}.{key} = "{value}"' for key, value in snapshot.pairs]
        return to_bytes("".join(line + self._newline for line in lines))
