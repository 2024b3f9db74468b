"""Texts that may hold any bytes.

File names, display names and messages are bytes to the rest of the world. Here they are `str` in which a byte that is
no UTF-8 stands as a surrogate; in JSON, on the wire and in the database it is that byte again.
"""

import json
import math
from typing import Any


def to_bytes(text: str) -> bytes:
    """The bytes of a text. A surrogate that stands for no byte (JSON can spell one) becomes "?"."""
    try:
        return text.encode("utf-8", "surrogateescape")
    except UnicodeEncodeError:
        return text.encode("utf-8", "replace")


def to_text(data: bytes) -> str:
    return data.decode("utf-8", "surrogateescape")


def pack(value: Any) -> bytes:
    """A value as compact JSON. ValueError for a number that JSON cannot spell."""
    return to_bytes(json.dumps(value, ensure_ascii=False, separators=(",", ":"), allow_nan=False))


def unpack(data: bytes) -> Any:
    """The value of a JSON text. ValueError when it is none or has a number beyond all bounds."""
    try:
        return json.loads(to_text(data), parse_constant=_finite, parse_float=_finite)
    except RecursionError as error:
        raise ValueError("nested too deeply") from error


def _finite(text: str) -> float:
    value = float(text)
    if not math.isfinite(value):
        raise ValueError(f"{text} is no number")
    return value


def printable(text: str) -> str:
    """A text for one line on a terminal: control characters and stray bytes are spelled out."""
    return "".join(character if character.isprintable() else _spelled(character) for character in text)


def _spelled(character: str) -> str:
    return "".join(f"\\x{byte:02x}" for byte in to_bytes(character))
