"""Snapshot databases: which snapshots a VM has."""

import re

from .files import open_regular
from .texts import to_bytes, to_text

_MAX_TEXT = 4 << 20  # bytes
_LINE = re.compile(r'\s*snapshot(\d{1,9})\.(displayName|createTimeHigh|createTimeLow)\s*=\s*"([^"]*)"',
                   re.IGNORECASE)
_ESCAPE = re.compile(rb"\|([0-9A-Fa-f]{2})")


def snapshots(path: str) -> list[tuple[str, int]]:
    """Name and time (seconds since 1970, 0: not told) of a VM's snapshots as its database (a local path) lists them;
    none without a database. OSError."""
    try:
        with open_regular(path) as file:
            text = to_text(file.read(_MAX_TEXT))
    except FileNotFoundError:
        return []
    told: dict[int, dict[str, str]] = {}
    for line in text.splitlines():
        if match := _LINE.match(line):
            told.setdefault(int(match[1]), {})[match[2].lower()] = match[3]
    return [(unescaped(told[number]["displayname"]), _seconds(told[number]))
            for number in sorted(told) if "displayname" in told[number]]


def _seconds(told: dict[str, str]) -> int:
    """The halves hold microseconds; each may be written as a signed number."""
    try:
        high, low = (int(told.get(f"createtime{half}", "0")) & 0xffffffff for half in ("high", "low"))
    except ValueError:
        return 0
    return (high << 32 | low) // 1_000_000


def unescaped(value: str) -> str:
    """A quoted value without its |XX escapes, each of which is a byte."""
    return to_text(_ESCAPE.sub(lambda match: bytes([int(match[1], 16)]), to_bytes(value)))
