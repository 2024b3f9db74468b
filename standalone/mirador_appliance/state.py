"""Where a command finds the appliance's state, and who may serve from it."""

import argparse
import fcntl
import os
import pathlib

from .faults_told import Refused, reason
from .places import Places
from .store import Store


def places_of(options: argparse.Namespace) -> Places:
    return Places(pathlib.Path(os.path.realpath(options.root)))


def state_of(options: argparse.Namespace) -> pathlib.Path:
    return pathlib.Path(options.state) if options.state else places_of(options).state


def open_store(options: argparse.Namespace, create: bool = False) -> Store:
    return Store(state_of(options) / "appliance.db", create)


class Lock:
    """Held by the one controller of a state directory."""

    def __init__(self, directory: pathlib.Path) -> None:
        self._path = directory / "lock"

    def take(self) -> None:
        """Takes it until the process ends. Refused when another one has it."""
        try:
            self._descriptor = os.open(self._path, os.O_CREAT | os.O_RDWR | os.O_CLOEXEC, 0o600)
            fcntl.flock(self._descriptor, fcntl.LOCK_EX | fcntl.LOCK_NB)
        except BlockingIOError:
            raise Refused(f"{self._path.parent}: a controller runs on this directory already") from None
        except OSError as error:
            raise Refused(f"{self._path}: {reason(error)}") from error

    def is_taken(self) -> bool:
        """Whether a controller runs."""
        try:
            with open(self._path, "rb") as file:
                fcntl.flock(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
        except BlockingIOError:
            return True
        except OSError:
            pass
        return False
