"""The command that turns the tracking of changed blocks on and off, and starts it anew; and what a daemon does that
finds it must start anew."""

import argparse
import sys
import time
from collections.abc import Callable
from typing import Any

from . import bell, choices
from .agent.framing import AgentError
from .agent.machines import Home, Machine
from .faults_told import Refused, reason
from .hypervisor import machine as hypervisor
from .hypervisor import snapshots
from .snapshot_commands import home_of
from .state import open_store, state_of
from .store import Store
from .texts import printable, to_bytes


def _found(home: Home, word: str) -> Machine:
    try:
        with home.machines() as machines:
            return machines.meant(word)
    except AgentError as error:
        raise Refused(str(error)) from None


def _done(machine: Machine, work: Callable[[], Any]) -> Any:
    """Does something to a VM's files. Refused."""
    try:
        return work()
    except hypervisor.Refused as refused:
        raise Refused(f"{machine.name}: {refused.text}") from None
    except OSError as error:
        raise Refused(f"{error.filename or machine.vmx}: {reason(error)}") from error


def _choose(store: Store, machine: Machine, use: bool | None) -> None:
    """Tells the daemon. use: whether the VM's changed blocks are exported; None to leave that as it is."""
    chosen = store.choices().get(machine.uuid, {})
    values = choices.tracking_reset(chosen) if use is not False else {}
    store.set_choices(machine.uuid, values | ({} if use is None else {"use_cbt": int(use)}))


def track(options: argparse.Namespace) -> int:
    """on, off, reset, or, without an action, what is tracked."""
    home = home_of(options)
    machine = _found(home, options.vm)
    if options.action is None:
        return _show(machine)
    store = open_store(options)
    try:
        if options.action == "reset":
            _done(machine, lambda: snapshots.forget_changes(machine.vmx, names=machine.names))
            _choose(store, machine, None)
        else:
            is_on = options.action == "on"
            _done(machine, lambda: snapshots.track(machine.vmx, is_on, names=machine.names))
            _choose(store, machine, is_on)
    finally:
        store.close()
        bell.ring(state_of(options))
    return 0


def _show(machine: Machine) -> int:
    found = _done(machine, lambda: snapshots.tracked(machine.vmx, names=machine.names))
    lines = [f"{disk.node}: {disk.changed} bytes changed in the period of {disk.change_id or 'no change id yet'}"
             for disk in found] or ["changes are not tracked"]
    sys.stdout.buffer.write(b"".join(to_bytes(f"{printable(line)}\n") for line in lines))
    return 0


def start_anew(home: Home, uuid: str) -> None:
    """A daemon asks for it. It reads the whole disk in any case, so what fails here is told and no more."""
    try:
        machine = _found(home, uuid)
        _done(machine, lambda: snapshots.forget_changes(machine.vmx, names=machine.names))
    except Refused as refused:
        print(f"{time.strftime('%H:%M:%S')} {printable(str(refused))}", file=sys.stderr)
