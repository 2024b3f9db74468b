"""The commands that make, list and remove snapshots, let a guest write, and switch the agent's faults. They work on the
datastore itself, beside a running controller or without one; a running one sees at once what they changed."""

import argparse
import json
import signal
import sys
import threading
import time
from collections.abc import Callable, Iterator

from . import bell, overview
from .agent import faults
from .agent.faults import Rule
from .agent.framing import AgentError
from .agent.machines import Home, Machine, Machines
from .datastores import Elsewhere
from .faults_told import Refused, reason
from .hypervisor import machine as hypervisor
from .hypervisor import snapshots
from .hypervisor.guest import run as run_guest
from .snapshot_names import owns
from .state import places_of, state_of
from .texts import printable, to_bytes
from .vmdk import Unreadable


def home_of(options: argparse.Namespace) -> Home:
    return Home(state_of(options), places_of(options).root)


def _opened(options: argparse.Namespace) -> Machines:
    """Refused."""
    try:
        return home_of(options).machines()
    except AgentError as error:
        raise Refused(str(error)) from None


def _machine(options: argparse.Namespace) -> Machine:
    with _opened(options) as machines:
        return machines.meant(options.vm)


def _carried_out(options: argparse.Namespace, machine: Machine, work: Callable[[], None]) -> int:
    """Does something to a VM and lets the controller look. Refused."""
    try:
        work()
    except hypervisor.Refused as refused:
        raise Refused(f"{machine.name}: {refused.text}") from None
    except OSError as error:
        raise Refused(f"{error.filename or machine.vmx}: {reason(error)}") from error
    finally:
        bell.ring(state_of(options))
    return 0


def _print(lines: Iterator[str]) -> int:
    sys.stdout.buffer.write(b"".join(to_bytes(f"{printable(line)}\n") for line in lines))
    return 0


def snapshot_list(options: argparse.Namespace) -> int:
    """Lists snapshots of one VM or of all."""
    rules = faults.read(state_of(options))
    with _opened(options) as machines:
        chosen = machines.all() if options.vm is None else [machines.meant(options.vm)]
        found = [(machine, overview.of_machine(machine, machines.settings, rules)) for machine in chosen]
    if options.json:
        text = json.dumps([{"vm": machine.name, "uuid": machine.uuid, **of_vm} for machine, of_vm in found],
                          ensure_ascii=False, indent=1)
        sys.stdout.buffer.write(to_bytes(f"{text}\n"))
        return 0
    return _print(f"{machine.name}: {line}" for machine, of_vm in found for line in overview.lines(of_vm))


def snapshot_create(options: argparse.Namespace) -> int:
    machine = _machine(options)
    return _carried_out(options, machine, lambda: snapshots.create(
        machine.vmx, options.name, options.quiesce, time.time(), names=machine.names))


def snapshot_remove(options: argparse.Namespace) -> int:
    """Removes every snapshot of that name. One that a backup may be reading only when that is asked for."""
    with _opened(options) as machines:
        machine = machines.meant(options.vm)
        if owns(machines.settings, options.name) and not options.own:
            raise Refused(f"{options.name!r}: is this appliance's own; a backup may be reading it (--own removes it)")

    def remove() -> None:
        if snapshots.remove(machine.vmx, options.name, names=machine.names) == 0:
            raise Refused(f"{machine.name}: has no snapshot {options.name!r}")

    return _carried_out(options, machine, remove)


def snapshot_consolidate(options: argparse.Namespace) -> int:
    machine = _machine(options)
    return _carried_out(options, machine, lambda: snapshots.consolidate(machine.vmx, names=machine.names))


def guest(options: argparse.Namespace) -> int:
    """Lets VMs write until the time is over or somebody ends it; prints each one's last round."""
    with _opened(options) as machines:
        chosen = [machines.meant(word) for word in options.vm]
    ended = threading.Event()
    for number in (signal.SIGINT, signal.SIGTERM):
        signal.signal(number, lambda *_: ended.set())
    deadline = time.monotonic() + options.seconds
    work = [_GuestThread(machine, options, lambda: time.monotonic() < deadline and not ended.is_set())
            for machine in chosen]
    for thread in work:
        thread.start()
    while any(thread.is_alive() for thread in work):  # a thread that is waited for would keep signals waiting
        time.sleep(0.05)
        if any(thread.error for thread in work):
            ended.set()
    for thread in work:
        if thread.error:
            raise Refused(f"{thread.name}: {thread.error}")
    return _print(f"{thread.name}: {thread.rounds} rounds" for thread in work)


class _GuestThread(threading.Thread):
    """One VM that runs. rounds: the last round's number; error: why it stopped early, or ""."""

    def __init__(self, machine: Machine, options: argparse.Namespace, goes_on: Callable[[], bool]) -> None:
        super().__init__(name=machine.name)
        self._machine, self._options, self._goes_on = machine, options, goes_on
        self.rounds, self.error = 0, ""

    def run(self) -> None:
        try:
            self.rounds = run_guest(self._machine.vmx, self._options.seed, self._goes_on, self._options.pause,
                                    self._machine.names)
        except (OSError, Unreadable, Elsewhere, hypervisor.Refused) as error:
            self.error = reason(error) if isinstance(error, OSError) else str(error)


def fault_add(options: argparse.Namespace) -> int:
    given = {key: value for key in faults.MEMBERS if (value := getattr(options, key, None)) is not None}
    if options.busy:
        given.setdefault("error", faults.BUSY)
        given.setdefault("text", "Another task is already in progress.")
    if options.seconds is not None:
        given["until"] = time.time() + options.seconds
    try:
        faults.add(state_of(options), Rule(**given))
    except OSError as error:
        raise Refused(f"{faults.path_in(state_of(options))}: {reason(error)}") from error
    return 0


def fault_list(options: argparse.Namespace) -> int:
    shown = [rule.shown() for rule in faults.read(state_of(options))]
    return _print(json.dumps(rule, ensure_ascii=False) for rule in shown)


def fault_clear(options: argparse.Namespace) -> int:
    try:
        faults.clear(state_of(options))
    except OSError as error:
        raise Refused(f"{faults.path_in(state_of(options))}: {reason(error)}") from error
    return 0
