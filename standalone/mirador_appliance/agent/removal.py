"""Removing a snapshot, and doing so while nobody waits."""

import errno
import os
import pathlib
import time
from collections.abc import Callable
from typing import NoReturn

from .. import bell
from ..busy import is_busy
from ..faults_told import reason
from ..hypervisor import journal as journal_of_tasks
from ..hypervisor import snapshots
from ..hypervisor.machine import Refused, Steps
from ..texts import pack, unpack
from .framing import AgentError
from .journal import Journal
from .machines import Machine

_TURN = 0.1  # seconds between two tries
_PATIENCE = 30.0  # seconds for which others may work on the VM


def remove(state: pathlib.Path, machine: Machine, name: str, steps: Steps) -> int:
    """Removes every snapshot of that name; returns how many there were. Refused, OSError."""
    try:
        return snapshots.remove(machine.vmx, name, names=machine.names, steps=steps)
    finally:
        bell.ring(state)


def remove_behind(state: pathlib.Path, machine: Machine, name: str, steps: Steps) -> int:
    """The same, but returns as soon as the removal is under way; a process of its own goes on with it, whatever
    becomes of this one. What goes wrong until then is raised, what goes wrong later stands in the journal."""
    count = sum(snapshot.name == name for snapshot in snapshots.list(machine.vmx, names=machine.names))
    reading, writing = os.pipe()
    child = os.fork()
    if child == 0:
        os.close(reading)
        _leave(lambda: _Behind(state, machine, name, writing).run(steps))
    os.close(writing)
    os.waitpid(child, 0)
    with os.fdopen(reading, "rb") as pipe:
        line = pipe.readline()
    if not line:
        raise AgentError(errno.EIO, f"{machine.vmx}: the process that removes {name!r} died")
    told = unpack(line)
    if "error" in told:
        raise AgentError(told["error"], told["text"])
    return told.get("count", count)


def tidy_up(state: pathlib.Path, machine: Machine) -> None:
    """Finishes or undoes what a task that died left to do, unless somebody works on the VM. Nobody waits for data to be
    merged; how it went stands in the journal."""
    try:
        is_long = snapshots.needs_consolidation(machine.vmx)
    except Refused:
        return
    if not is_long:
        if os.path.exists(journal_of_tasks.path_of(machine.vmx)) and not is_busy(machine.vmx):
            _consolidate(state, machine)
        return
    child = os.fork()
    if child == 0:
        _leave(lambda: _consolidate(state, machine))
    os.waitpid(child, 0)


def _consolidate(state: pathlib.Path, machine: Machine) -> None:
    """Does what the VM's journal tells, once nobody else works on the VM: whoever lists its snapshots does so for a
    moment. Somebody who takes long does it himself."""
    told: dict[str, object] = {}
    deadline = time.monotonic() + _PATIENCE
    while os.path.exists(journal_of_tasks.path_of(machine.vmx)):
        try:
            snapshots.consolidate(machine.vmx, names=machine.names)
        except Refused as refused:
            if refused.number == errno.EALREADY:
                if time.monotonic() > deadline:
                    return
                time.sleep(_TURN)
                continue
            told = {"error": refused.number, "text": refused.text}
        bell.ring(state)
        Journal(state).finish("consolidate", vmx=machine.vmx, **told)
        return


def _leave(run: Callable[[], None]) -> NoReturn:
    """Runs something in a grandchild with a session and no streams of its own; ends the child."""
    try:
        os.setsid()
        if os.fork() == 0:
            nothing = os.open(os.devnull, os.O_RDWR)
            for descriptor in (0, 1, 2):
                os.dup2(nothing, descriptor)
            run()
    finally:
        os._exit(0)


class _Behind:
    """A removal in its own process. Tells its beginner one line: {}, {"count": N} or {"error": N, "text": TEXT}."""

    def __init__(self, state: pathlib.Path, machine: Machine, name: str, pipe: int) -> None:
        self._state, self._machine, self._name, self._pipe = state, machine, name, pipe
        self._has_told = False
        self._steps: list[str] = []

    def _tell(self, told: dict[str, object]) -> None:
        if not self._has_told:
            self._has_told = True
            os.write(self._pipe, pack(told) + b"\n")
            os.close(self._pipe)

    def run(self, steps: Steps) -> None:
        told: dict[str, object]
        try:
            told = {"count": remove(self._state, self._machine, self._name, lambda name: self._step(steps, name))}
        except Refused as refused:
            told = {"error": refused.number, "text": str(refused)}
        except OSError as error:
            told = {"error": error.errno or errno.EIO, "text": f"{self._machine.vmx}: {reason(error)}"}
        Journal(self._state).finish("remove_snapshot", vmx=self._machine.vmx, snapshot=self._name,
                                    steps=self._steps, **told)
        self._tell(told)

    def _step(self, steps: Steps, name: str) -> None:
        """With the first step it is under way: nothing refuses it any more."""
        self._tell({})
        if self._steps[-1:] != [name]:
            self._steps.append(name)
        steps(name)
