"""Programs, waiting, extended attributes."""

import ctypes
import os
import pathlib
import subprocess
import time
from collections.abc import Callable
from typing import Any

WORK = pathlib.Path("/run/e2e")  # the tests' own files; the daemon clears and is checked in /tmp

_LOOK = 0.02  # seconds between two looks at what is waited for

_LIBC = ctypes.CDLL(None, use_errno=True)
_LIBC.getxattr.restype = ctypes.c_ssize_t


class Failed(Exception):
    """A program that the tests rely on failed."""


def program(name: str) -> str:
    """A program of the build under test."""
    return os.path.join(os.environ["MIRADOR_BIN"], name)


def run(*command: str | os.PathLike, timeout: float = 60, text_input: str | None = None) -> str:
    """Runs a program that must succeed; returns its standard output."""
    words = [os.fspath(word) for word in command]
    done = subprocess.run(words, input=text_input, capture_output=True, text=True, timeout=timeout, check=False)
    if done.returncode != 0:
        raise Failed(f"{' '.join(words)}: exit status {done.returncode}\n{done.stdout}{done.stderr}")
    return done.stdout


def wait_until(condition: Callable[[], bool], what: str, seconds: float = 60) -> None:
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            raise Failed(f"not within {seconds} s: {what}")
        time.sleep(_LOOK)


def wait_equal(get: Callable[[], Any], expected: Any, what: str, seconds: float = 60) -> None:
    """Waits until `get` returns `expected`; tells the last value when it does not."""
    last = None

    def is_equal() -> bool:
        nonlocal last
        last = get()
        return last == expected

    try:
        wait_until(is_equal, what, seconds)
    except Failed as failure:
        raise Failed(f"{failure}\nfound    {last}\nexpected {expected}") from None


def xattr(path: str | os.PathLike, name: str, room: int | None = None) -> bytes:
    """An extended attribute, terminator included; with `room`, read once into a buffer of that size."""
    if room is None:
        room = _getxattr(path, name, None, 0)
        if room == 0:
            return b""
    buffer = ctypes.create_string_buffer(room)
    length = _getxattr(path, name, buffer, room)
    return buffer.raw[:length]


def _getxattr(path: str | os.PathLike, name: str, buffer, room: int) -> int:
    length = _LIBC.getxattr(os.fsencode(path), name.encode(), buffer, ctypes.c_size_t(room))
    if length < 0:
        number = ctypes.get_errno()
        raise OSError(number, os.strerror(number), os.fspath(path))
    return length


def saved_error(path: str | os.PathLike) -> tuple[int, str]:
    """The error that the daemon remembers for a path: its number, 0 for none, and its text."""
    number, text = (xattr(path, name).rstrip(b"\0").decode() for name in ("user.err_num", "user.err_string"))
    return int(number), text
