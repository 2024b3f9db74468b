"""The program that tells what changed on a disk between a change id and this appliance's snapshot of its VM.

    --server HYPERVISOR --portnumber N --username USER --password "******"      the password is in the environment
    --vmuuid UUID --vmdkpath PATH --vmdksize BYTES      any descriptor or extent of the disk's chain
    --changeid_only y|n    --changeid_incr ID           without an ID, and with "*": all that the disk stores
    --vendor_id VENDOR --appliance_uuid UUID            whose snapshot it is
    --resultsfile PATH    --debug 1

The results are lines: "changeid: ID", then "length: BYTES" and "start: BYTES" for each extent, in order. Exit status:

    0   the results are there
    5   the snapshot's disk has no change id: changes are not tracked, or there is no snapshot
    8   what changed since that ID is not known: tracking must start anew
    13  login refused
    1   anything else; 2 for wrong arguments
"""

import argparse
import hmac
import os
import pathlib
import re
import signal
import sqlite3
import sys
import time
from collections.abc import Iterable, Iterator
from typing import Any, NoReturn

from ..faults_told import Refused, reason
from ..hypervisor import machine as hypervisor
from ..hypervisor import tracking
from ..hypervisor.database import SnapshotLines
from ..hypervisor.tracking import EVERYTHING, Extent, NoChangeId, ResetNeeded
from ..places import VOLUMES
from ..snapshot_names import owns
from ..texts import printable, to_bytes
from ..vmdk import SECTOR, Unreadable
from . import faults
from .faults import Rule
from .framing import AgentError
from .journal import Journal
from .machines import Home, Machine

METHOD = "cbt_getblocklist"  # in faults and journal
FAILED, NO_CHANGE_ID, RESET_NEEDED, LOGIN_REFUSED = 1, 5, 8, 13
_BRACKETED = re.compile(r"\[([^\]]+)\] ?(.*)", re.DOTALL)


class Failed(Exception):
    """What ends the program. status: its exit status."""

    def __init__(self, status: int, text: str) -> None:
        super().__init__(text)
        self.status = status


def _parser() -> argparse.ArgumentParser:
    parser = argparse.ArgumentParser(prog=METHOD, allow_abbrev=False)
    for name in ("server", "username", "vmuuid", "vmdkpath", "resultsfile", "vendor_id", "appliance_uuid"):
        parser.add_argument(f"--{name}", required=True)
    parser.add_argument("--portnumber", type=int, required=True)
    parser.add_argument("--password")
    parser.add_argument("--vmdksize", type=int, required=True)
    parser.add_argument("--changeid_only", choices=("y", "n"), required=True)
    parser.add_argument("--changeid_incr", default=EVERYTHING)
    parser.add_argument("--debug")
    parser.add_argument("--state", type=pathlib.Path, required=True)
    parser.add_argument("--root", type=pathlib.Path, required=True)
    return parser


def main(words: list[str]) -> int:
    """Returns the exit status."""
    options = _parser().parse_args(words)
    home = Home(options.state, options.root)
    try:
        return _run(home, options, _machine(home, options))
    except Failed as failed:
        status, text = failed.status, str(failed)
    except (AgentError, sqlite3.Error) as error:
        status, text = FAILED, str(error)
    sys.stderr.buffer.write(to_bytes(f"{METHOD}: {printable(text)}\n"))
    return status


def _machine(home: Home, options: argparse.Namespace) -> Machine:
    """The VM. Failed, AgentError."""
    with home.machines() as machines:
        login, password = machines.login()
        given = os.environb.get(b"password", b"")
        if options.username != login or not hmac.compare_digest(given, to_bytes(password)):
            raise Failed(LOGIN_REFUSED, f"{options.server}: login as {options.username} refused")
        return machines.find(options.server, "", options.vmuuid)


def _run(home: Home, options: argparse.Namespace, vm: Machine) -> int:
    """Answers, as a fault wants it, and notes it in the journal. Failed, AgentError."""
    try:
        rule = faults.take(home.state, METHOD, (vm.name, vm.uuid), "") or Rule()
    except (Refused, OSError):
        rule = Rule()
    told: dict[str, Any] = {"method": METHOD, "vm": vm.name, "uuid": vm.uuid, "path": options.vmdkpath,
                            "since": options.changeid_incr, "only": options.changeid_only}
    if shown := rule.shown():
        told["fault"] = shown
    journal = Journal(home.state)
    call = journal.begin(hypervisor=options.server, **told)
    try:
        time.sleep(rule.delay)
        if rule.replaces and rule.garbage is None:
            _spoil(rule)
        change_id, extents = _answer(options, vm, rule) if rule.garbage is None else ("", [])
        _write(options.resultsfile, rule, change_id, extents)
    except Failed as failed:
        journal.end(call, "refused", **told, error=failed.status, text=str(failed))
        raise
    journal.end(call, "done", **told, changeid=change_id, result=len(extents))
    return 0


def _spoil(rule: Rule) -> NoReturn:
    """A fault instead of an answer. Failed."""
    if rule.silence:
        parent = os.getppid()
        while os.getppid() == parent:
            time.sleep(0.2)
    raise Failed(rule.error or FAILED, rule.text)


def _answer(options: argparse.Namespace, vm: Machine, rule: Rule) -> tuple[str, list[Extent]]:
    """The snapshot's change id, and what changed. Failed."""
    if rule.die:
        os.kill(os.getpid(), signal.SIGKILL)
    try:
        machine = hypervisor.Machine(vm.vmx, vm.names, hypervisor.no_steps)
        snapshot = _snapshot(machine, options)
        node = _node(machine, options.vmdkpath)
        since = options.changeid_incr or EVERYTHING if options.changeid_only == "n" else None
        change_id, extents = tracking.ask(machine, node, snapshot, since)
        if rule.extents is not None and since is not None:
            extents = _made_up(rule.extents, options.vmdksize)
    except NoChangeId:
        raise Failed(NO_CHANGE_ID, f"{options.vmdkpath}: there is no change id") from None
    except ResetNeeded:
        raise Failed(RESET_NEEDED, f"{options.vmdkpath}: {options.changeid_incr} is not known any more") from None
    except Unreadable as fault:
        raise Failed(FAILED, str(fault)) from fault
    except OSError as error:
        raise Failed(FAILED, f"{error.filename or vm.vmx}: {reason(error)}") from error
    if extents and extents[-1].start + extents[-1].length > options.vmdksize:
        raise Failed(FAILED, f"{options.vmdkpath}: the disk is larger than {options.vmdksize} bytes")
    return rule.changeid or change_id, extents


def _snapshot(machine: hypervisor.Machine, options: argparse.Namespace) -> SnapshotLines:
    """The newest of the appliance's own. NoChangeId when there is none."""
    names = {"vendor.id": options.vendor_id, "controller.uuid": options.appliance_uuid}
    mine = [record for record in machine.database().snapshots if owns(names, record.name)]
    if not mine:
        raise NoChangeId
    return max(mine, key=lambda record: record.uid)


def _node(machine: hypervisor.Machine, path: str) -> str:
    """The disk that a file belongs to. Failed, Unreadable."""
    match = _BRACKETED.fullmatch(path)
    local = machine.locate(f"{VOLUMES}/{match[1]}/{match[2]}" if match else path, machine.directory)
    for node, head in machine.heads().items():
        if any(local in (link.descriptor.path, *link.extent_paths) for link in machine.chain(head)):
            return node
    raise Failed(FAILED, f"{path}: belongs to no disk of the virtual machine")


def _made_up(count: int, size: int) -> list[Extent]:
    """So many extents of a sector, as far as there is room, all over a disk."""
    step = max(1, size // SECTOR // max(1, count)) * SECTOR
    return [Extent(index * step, SECTOR) for index in range(min(count, size // step))]


def _lines(change_id: str, extents: Iterable[Extent]) -> Iterator[str]:
    yield f"changeid: {change_id}\n"
    for extent in extents:
        yield f"length: {extent.length}\nstart: {extent.start}\n"


def _write(path: str, rule: Rule, change_id: str, extents: list[Extent]) -> None:
    """The results file, in a directory that anybody may write to: no link is followed. Failed."""
    text = rule.garbage.replace("\\n", "\n") if rule.garbage is not None else "".join(_lines(change_id, extents))
    data = to_bytes(text)[:rule.cut]
    try:
        descriptor = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_NOFOLLOW | os.O_CLOEXEC, 0o600)
        with os.fdopen(descriptor, "wb") as file:
            file.write(data)
    except OSError as error:
        raise Failed(FAILED, f"{path}: {reason(error)}") from error
    if rule.cut is not None:
        os.kill(os.getpid(), signal.SIGKILL)
