"""A VM's configuration file: its disks, and giving them other files. Every other byte of it is kept."""

import codecs
import dataclasses
import os
import re
from collections.abc import Iterator

from ..texts import to_bytes, to_text

_MARK = b"\xef\xbb\xbf"
_LINE = re.compile(rb'(?P<key>[^"#=\n]+?)[ \t\r\v\f]*=[ \t\r\v\f]*'
                   rb'(?:(?P<quoted>"(?P<text>[^"\n]*)"?)|(?P<bare>[^#\n]*))')
_DEVICE = re.compile(r"((?:scsi|ide|sata|nvme)\d+:\d+)\.(\w+)")
_ESCAPE = re.compile(rb"\|([0-9A-Fa-f]{2})")
_ESCAPED = re.compile(r'[\x00-\x1f\x7f"|#]')
_TRUE = ("true", "t", "yes", "y", "on", "1")
_NO_DISKS = ("cdrom", "floppy", "passthru")


@dataclasses.dataclass(frozen=True)
class ConfiguredDisk:
    """node: "scsi0:1"; name: of its descriptor, as the file has it."""
    node: str
    name: str
    independent: bool


@dataclasses.dataclass(frozen=True)
class _Setting:
    """key: lower case; start, end: of the value with its quotes."""
    key: str
    value: bytes
    start: int
    end: int


def escape(value: str) -> str:
    return _ESCAPED.sub(lambda match: f"|{ord(match[0]):02X}", value)


class Configuration:
    """The file's bytes, and what they say."""

    def __init__(self, data: bytes) -> None:
        self._data = data
        self._settings = [*_settings(data)]
        raw = {setting.key: setting.value for setting in self._settings}
        self._encoding = _codec(to_text(raw.get(".encoding", raw.get("encoding", b""))))
        self._values = {key: self._decoded(value) for key, value in raw.items()}

    @classmethod
    def read(cls, path: str) -> "Configuration":
        with open(path, "rb") as file:
            return cls(file.read())

    def _decoded(self, value: bytes) -> str:
        value = _ESCAPE.sub(lambda match: bytes([int(match[1], 16)]) if match[1] != b"00" else match[0], value)
        for encoding in (self._encoding, "windows-1252" if self._encoding == "utf-8" else self._encoding):
            try:
                return value.decode(encoding)
            except UnicodeDecodeError:
                continue
        return to_text(value)

    def _encoded(self, value: str) -> bytes:
        """UnicodeEncodeError for a text that the file's encoding does not have."""
        if self._encoding == "utf-8":
            return to_bytes(escape(value))
        return escape(value).encode(self._encoding)

    @property
    def working_directory(self) -> str:
        """As written; "" for the file's own."""
        value = self._values.get("workingdir", "")
        return "" if value in (".", "./") else value

    def disks(self) -> list[ConfiguredDisk]:
        """The disks that the VM has, by node."""
        devices: dict[str, dict[str, str]] = {}
        for key, value in self._values.items():
            if match := _DEVICE.fullmatch(key):
                devices.setdefault(match[1], {})[match[2]] = value
        return [ConfiguredDisk(node, device["filename"], device.get("mode", "").lower().startswith("independent"))
                for node, device in sorted(devices.items(), key=lambda item: _order(item[0]))
                if self._is_disk(node, device)]

    def _is_disk(self, node: str, device: dict[str, str]) -> bool:
        present = self._values.get(f"{node.partition(':')[0]}.present", "true").lower() in _TRUE
        kind, name = device.get("devicetype", "").lower(), device.get("filename", "")
        if not name or not present or device.get("present", "").lower() not in _TRUE:
            return False
        return not any(word in kind for word in _NO_DISKS) and (kind.endswith("disk") or name.lower().endswith(".vmdk"))

    def is_tracked(self, node: str) -> bool:
        """Whether changes to a disk are tracked, if it is one that can be."""
        return (self._values.get("ctkenabled", "").lower() in _TRUE
                and self._values.get(f"{node}.ctkenabled", "true").lower() in _TRUE)

    def with_tracking(self, on: bool) -> bytes:
        """The file with tracking of changes turned on or off for the VM."""
        value, parts, done = f'"{str(on).upper()}"'.encode(), [], 0
        for setting in self._settings:
            if setting.key == "ctkenabled":
                parts += [self._data[done:setting.start], value]
                done = setting.end
        if done:
            return b"".join([*parts, self._data[done:]])
        text, zero, rest = self._data.partition(b"\0")
        newline = b"\r\n" if b"\r\n" in text else b"\n"
        gap = b"" if text.endswith(b"\n") or not text else newline
        return text + gap + b"ctkEnabled = " + value + newline + zero + rest

    def with_disks(self, names: dict[str, str]) -> bytes:
        """The file with other disks. names: of descriptors, by node. UnicodeEncodeError."""
        keys = {f"{node}.filename": name for node, name in names.items()}
        parts, done = [], 0
        for setting in self._settings:
            if setting.key in keys and self._decoded(setting.value) == self._values[setting.key]:
                parts += [self._data[done:setting.start], b'"' + self._encoded(keys[setting.key]) + b'"']
                done = setting.end
        return b"".join([*parts, self._data[done:]])


def _order(node: str) -> tuple[int, int, str]:
    controller, unit = re.findall(r"\d+", node)
    return int(controller), int(unit), node


def _codec(declared: str) -> str:
    try:
        b"".decode(declared or "utf-8")  # other codecs than those of texts are refused
        return codecs.lookup(declared or "utf-8").name
    except LookupError:
        return "utf-8"


def _settings(data: bytes) -> Iterator[_Setting]:
    """The lines that are settings; what follows a zero byte is none of the text."""
    start = len(_MARK) if data.startswith(_MARK) else 0
    stop = data.find(b"\0")
    stop = len(data) if stop < 0 else stop
    while start < stop:
        end = data.find(b"\n", start, stop)
        end = stop if end < 0 else end
        line = data[start:end]
        blank = len(line) - len(line.lstrip())
        if match := _LINE.match(line, blank):
            bare = match["bare"]
            part = "quoted" if bare is None else "bare"
            value = match["text"] if bare is None else bare.rstrip()
            last = match.end("quoted") if bare is None else match.start("bare") + len(value)
            yield _Setting(to_text(match["key"]).lower(), value, start + match.start(part), start + last)
        start = end + 1


def database_path(vmx: str) -> str:
    return os.path.splitext(vmx)[0] + ".vmsd"
