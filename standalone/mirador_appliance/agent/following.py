"""Waits until controller and daemon have taken in what was done to a VM.

A daemon that waits for a snapshot to be seen looks every ten seconds; an answer that comes when it has been seen spares
it the first ten.
"""

import sqlite3
import time

from ..hypervisor import snapshots
from ..hypervisor.machine import Refused
from .machines import Home, Machine, Machines

_PATIENCE = 3.0  # seconds
_LOOK = 0.02  # seconds between two looks


def wait(home: Home, machine: Machine) -> None:
    """Returns when both know the VM's snapshots as they are, and at once when no daemon follows the controller."""
    deadline = time.monotonic() + _PATIENCE
    try:
        names = sorted(snapshot.name for snapshot in snapshots.list(machine.vmx, names=machine.names))
        with home.machines() as machines:
            if not machines.is_followed():
                return
            token = _token_of(machines, machine.uuid, names, deadline)
            while token and not machines.has_taken_over(token) and time.monotonic() < deadline:
                time.sleep(_LOOK)
    except (OSError, Refused, sqlite3.Error):
        pass  # what was done is done


def _token_of(machines: Machines, uuid: str, names: list[str], deadline: float) -> str:
    """The generation with the VM's snapshots as they are; "" when it does not come in time."""
    while sorted(machines.snapshots_known(uuid)) != names:
        if time.monotonic() >= deadline:
            return ""
        time.sleep(_LOOK)
    return machines.generation()
