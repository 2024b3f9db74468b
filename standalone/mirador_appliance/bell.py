"""Lets whoever changes a datastore tell the watching process, which then looks at once instead of at its next turn.

A FIFO "look" in the state directory: the watching process reads it, anybody writes a byte. Without a reader nothing
happens, and nobody ever waits.
"""

import os
import pathlib
import stat


def path_in(state: pathlib.Path) -> pathlib.Path:
    return state / "look"


def ring(state: pathlib.Path) -> None:
    """Lets the watching process look now."""
    try:
        descriptor = os.open(path_in(state), os.O_WRONLY | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOFOLLOW)
    except OSError:
        return  # nobody watches
    try:
        if stat.S_ISFIFO(os.fstat(descriptor).st_mode):
            os.write(descriptor, b"\n")
    except OSError:
        pass  # full: it has been told often enough
    finally:
        os.close(descriptor)


class Bell:
    """The watching process's end. Without a FIFO (path "" or a directory that takes none) it never rings."""

    def __init__(self, path: str) -> None:
        self._descriptor = self._open(path) if path else None

    @staticmethod
    def _open(path: str) -> int | None:
        try:
            if not os.path.exists(path):
                os.mkfifo(path, 0o600)
            # Opened for writing too, so that it does not end whenever a writer leaves.
            descriptor = os.open(path, os.O_RDWR | os.O_NONBLOCK | os.O_CLOEXEC | os.O_NOFOLLOW)
        except OSError:
            return None
        if stat.S_ISFIFO(os.fstat(descriptor).st_mode):
            return descriptor
        os.close(descriptor)
        return None

    def descriptors(self) -> list[int]:
        """What to wait for."""
        return [] if self._descriptor is None else [self._descriptor]

    def quieten(self) -> None:
        """Takes in every ring so far."""
        try:
            while self._descriptor is not None and os.read(self._descriptor, 4096):
                pass
        except BlockingIOError:
            pass
