"""Reads VMs' configuration files through the program mirador-inspect. The only module that knows its output."""

import dataclasses
import os
import shutil
import subprocess
from typing import Any

from .facts import VmxDisk, VmxRecord
from .faults_told import Refused
from .texts import to_bytes, to_text, unpack

PROGRAM = "mirador-inspect"
_SECONDS, _SECONDS_A_FILE = 30, 2  # time for an answer; on a slow file server a chain takes a while


def find_program(given: str | None, checkout: str) -> str:
    """The path of mirador-inspect: as given, of a build under test, beside this program's checkout, on the PATH.
    Refused when there is none."""
    builds = [os.path.join(checkout, "build", preset, "bin") for preset in ("release", "dev")]
    places = [os.environ.get("MIRADOR_BIN", ""), *builds]
    candidates = [given] if given else [os.path.join(place, PROGRAM) for place in places if place]
    for path in [*candidates, None if given else shutil.which(PROGRAM)]:
        if path and os.access(path, os.X_OK):
            return os.path.abspath(path)
    raise Refused(f"{given or PROGRAM}: no such program; build it or name it with --inspect")


class Failed(Exception):
    """The program did not do its work."""


class Inspector:
    """Runs the program. read() never raises: what is wrong with a file stands in its record."""

    def __init__(self, program: str) -> None:
        self._program = program

    def read(self, paths: list[str]) -> list[VmxRecord]:
        """A record for each path (local, ".vmx" or ".vmtx"), in order."""
        odd = [path for path in paths if _shown(path) != path]  # each alone: the answer does not have its own bytes
        found = self._discover([path for path in paths if path not in odd])
        for path in odd:
            found |= self._discover([path])
        return [found[path] for path in paths]

    def _discover(self, paths: list[str]) -> dict[str, VmxRecord]:
        """Records by path. One run for all; when it fails, halves, so that one file's fault stays with that file."""
        if not paths:
            return {}
        try:
            records = {record.path: record for record in self._run_discover(paths)}
        except Failed as failure:
            if len(paths) == 1:
                return {paths[0]: VmxRecord(paths[0], error=str(failure), is_passing=True)}
            middle = len(paths) // 2
            return {**self._discover(paths[:middle]), **self._discover(paths[middle:])}
        missing = VmxRecord("", error="it was not found again", is_passing=True)
        return {path: dataclasses.replace(records.get(_shown(path), missing), path=path) for path in paths}

    def _run_discover(self, paths: list[str]) -> list[VmxRecord]:
        answer = self._run(["--json", "discover", *paths], len(paths))
        return [_record(vm) for vm in _objects(answer)]

    def _run(self, arguments: list[str], files: int) -> bytes:
        try:
            done = subprocess.run([self._program, *arguments], stdin=subprocess.DEVNULL, capture_output=True,
                                  timeout=_SECONDS + _SECONDS_A_FILE * files, check=False)
        except subprocess.TimeoutExpired:
            raise Failed("it takes too long to read") from None
        except OSError as error:
            raise Failed(f"{self._program}: {error.strerror}") from error
        if done.returncode != 0 and not done.stdout.strip():
            lines = to_text(done.stderr).strip().splitlines() or [f"{PROGRAM} ended with status {done.returncode}"]
            raise Failed(lines[-1].removeprefix(f"{PROGRAM}: "))
        return done.stdout


def _shown(path: str) -> str:
    """A path as the program prints it: bytes that are no UTF-8 become a replacement character."""
    return to_bytes(path).decode("utf-8", "replace")


def _objects(answer: bytes) -> list[dict[str, Any]]:
    """The objects of an answer, which is one array. Failed."""
    try:
        values = unpack(answer)
    except ValueError:
        values = None
    if not isinstance(values, list):
        raise Failed(f"{PROGRAM} answered something else than a JSON array")
    return [value for value in values if isinstance(value, dict)]


def _error_text(error: Any) -> str:
    """What an "err" member says; "" when there is no error."""
    return str(error.get("string") or "unknown error") if isinstance(error, dict) else ""


def _record(vm: dict[str, Any]) -> VmxRecord:
    """A VM as the program tells it. It has no "disks" when its file cannot be read; other errors of the VM tell what
    an export can do without."""
    disks = vm.get("disks")
    return VmxRecord(
        path=vm.get("filename") or "",
        name=vm.get("name") or "",
        uuids=tuple(vm[key] for key in ("uuid", "uuid3") if vm.get(key)),
        working_dir=vm.get("workingdir") or "",
        disks=tuple(VmxDisk(disk["filename"], bool(disk.get("independent")), _error_text(disk.get("err")))
                    for disk in disks or []),
        error="" if disks is not None else _error_text(vm.get("err")) or "it cannot be read",
    )
