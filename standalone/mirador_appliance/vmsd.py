"""Snapshot databases: which snapshots a VM has."""

import re

from .files import open_regular
from .texts import to_bytes, to_text

_MAX_TEXT = 4 << 20  # bytes
_NAME = re.compile(r'\s*snapshot(\d{1,9})\.displayName\s*=\s*"([^"]*)"', re.IGNORECASE)
_ESCAPE = re.compile(rb"\|([0-9A-Fa-f]{2})")


def snapshot_names(path: str) -> list[str]:
    """The names of a VM's snapshots as its database (a local path) lists them; none without a database. OSError."""
    try:
        with open_regular(path) as file:
            text = to_text(file.read(_MAX_TEXT))
    except FileNotFoundError:
        return []
    names = {int(match[1]): unescaped(match[2]) for line in text.splitlines() if (match := _NAME.match(line))}
    return [names[number] for number in sorted(names)]


def unescaped(value: str) -> str:
    """A quoted value without its |XX escapes, each of which is a byte."""
    return to_text(_ESCAPE.sub(lambda match: bytes([int(match[1], 16)]), to_bytes(value)))
