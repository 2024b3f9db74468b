"""The agent's process: serves requests from standard input until it ends.

Signals that end a whole service or terminal session do not end it: the daemon still needs it then, to remove its
snapshots, and closes the input when it has done so.
"""

import argparse
import dataclasses
import errno
import os
import pathlib
import signal
import sqlite3
import sys
import time
from typing import Any, NoReturn

from ..faults_told import Refused, reason
from ..hypervisor.snapshots import Moment
from ..texts import to_bytes
from . import faults
from .faults import Rule
from .framing import AgentError, Request, parse, read_line, refusal, reply
from .journal import Journal
from .machines import Home
from .methods import Methods, Subject, subject_of
from .session import Session

COMMAND = "agent"  # of the program
_NOISE_LINE = b"noise on demand\n"
_LOOK = 0.2  # seconds between two looks whether the daemon is still there


def main(words: list[str]) -> int:
    """words: --hypervisor NAME --portnumber N, and --state DIR and --root DIR."""
    parser = argparse.ArgumentParser(prog="agent", allow_abbrev=False)
    parser.add_argument("--hypervisor", required=True)
    parser.add_argument("--portnumber", required=True, type=int)
    parser.add_argument("--state", required=True, type=pathlib.Path)
    parser.add_argument("--root", required=True, type=pathlib.Path)
    options = parser.parse_args(words)
    for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
        signal.signal(number, signal.SIG_IGN)
    session = Session(options.hypervisor, options.portnumber)
    agent = Agent(Home(options.state, options.root), session)
    try:
        while (line := read_line(sys.stdin.buffer)) is not None:
            agent.serve(line)
    except BrokenPipeError:
        os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())
    finally:
        session.disconnect()
    return 0


class Agent:
    """Serves one request after the other."""

    def __init__(self, home: Home, session: Session) -> None:
        self._home, self._session = home, session
        self._methods = Methods(home, session)
        self._journal = Journal(home.state)

    def serve(self, line: bytes) -> None:
        """Answers one line."""
        try:
            request = parse(line)
        except AgentError as error:
            _send(refusal(error, error.number, str(error)))
            return
        subject = subject_of(request)
        rule = self._rule(subject)
        call = _Call(self._journal, self._session.hypervisor, subject, rule)
        call.spoil_before()
        answer = None if rule and rule.replaces else self._answer(request, rule, call)
        call.send(answer)

    def _rule(self, subject: Subject) -> Rule | None:
        try:
            return faults.take(self._home.state, subject.method, subject.names, subject.snapshot)
        except (Refused, OSError) as error:
            print(f"agent: {error}", file=sys.stderr)
            return None

    def _answer(self, request: Request, rule: Rule | None, call: "_Call") -> bytes:
        """Carries a request out; whatever goes wrong becomes an answer."""
        try:
            kind, data = self._methods.call(request, rule, call)
        except AgentError as error:
            return call.refused(error, error.number, str(error))
        except OSError as error:
            number = error.errno or errno.EIO
            return call.refused(error, number, f"{error.filename or request[0]}: {reason(error)}")
        except (sqlite3.Error, ValueError, RuntimeError, MemoryError) as error:
            return call.refused(error, errno.EIO, f"{request[0]}: {type(error).__name__}: {error}")
        call.result = data if isinstance(data, int) else len(data) if isinstance(data, list) else None
        return reply(kind, data)


class _Call:
    """One call: what faults do to it, and its lines in the journal."""

    def __init__(self, journal: Journal, hypervisor: str, subject: Subject, rule: Rule | None) -> None:
        self._journal, self._rule = journal, rule
        self._shown: dict[str, Any] = {**subject.shown(), **({"fault": rule.shown()} if rule else {})}
        self.result: int | None = None  # a count
        self._refusal: dict[str, object] = {}
        self._id = journal.begin(hypervisor=hypervisor, **self._shown)

    def _end(self, outcome: str) -> None:
        result = {} if self.result is None else {"result": self.result}
        self._journal.end(self._id, outcome, **{**self._shown, **result, **self._refusal})

    def refused(self, error: BaseException, number: int, text: str) -> bytes:
        """The answer to what failed."""
        self._refusal = {"error": number, "text": text}
        return refusal(error, number, text)

    def spoil_before(self) -> None:
        """What a fault does before the call is carried out."""
        rule = self._rule
        if rule is None:
            return
        _make_noise(rule.noise)
        time.sleep(rule.delay)
        if rule.die == "before":
            self._die()

    def step(self, name: str) -> None:
        """A step of an operation is done."""
        steps = self._shown.setdefault("steps", [])
        if steps[-1:] != [name]:
            steps.append(name)
        if self._rule is not None and self._rule.step == name:
            self._die()

    def moment(self, disks: list[Moment]) -> None:
        """What the disks held at the moment of the snapshot."""
        self._shown["moment"] = [dataclasses.asdict(disk) for disk in disks]

    def send(self, answer: bytes | None) -> None:
        """Answers as the fault wants it. answer: None when nothing was carried out."""
        rule = self._rule or Rule()
        if rule.die == "after":
            self._die()
        if rule.silence:
            self._end("silent")
            _stay_silent()
        if rule.garbage is not None:
            self._end("garbage")
            _send(to_bytes(rule.garbage))
        elif rule.cut is not None and answer is not None:
            self._end("cut")
            _send(answer[:rule.cut])
            os._exit(1)
        else:
            if rule.error is not None:
                error = AgentError(rule.error, rule.text)
                answer = self.refused(error, rule.error, rule.text)
            self._end("refused" if self._refusal else "done")
            _send(answer or b"")

    def _die(self) -> NoReturn:
        """Ends the process at once, with nothing put in order."""
        self._end("died")
        os.kill(os.getpid(), signal.SIGKILL)
        raise AssertionError


def _send(data: bytes) -> None:
    sys.stdout.buffer.write(data)
    sys.stdout.buffer.flush()


def _make_noise(size: int) -> None:
    """Writes that many bytes to standard error; stays there when nobody reads them."""
    while size > 0:
        size -= os.write(2, (_NOISE_LINE * 4096)[:size])


def _stay_silent() -> NoReturn:
    parent = os.getppid()
    while os.getppid() == parent:
        time.sleep(_LOOK)
    os._exit(1)
