"""Latency and faults on demand, for tests.

They stand in a JSON file, an array of rules, that is read again whenever it has changed; no file, no faults. The first
rule that fits a request acts on it. A rule's members, all but "object" optional:

    object   name of the object, "*" for all
    method   "GET" or "POST"
    query    what the query must contain
    times    how many requests the rule acts on before it is used up; without it, all
    delay    seconds to wait first
    hang     seconds to wait before the connection is closed without an answer; the request has no effect
    status   HTTP status to answer with; the request has no effect
    body     text to answer with instead, as it stands; the request has no effect
    chunked  1 to send the answer in small chunks, without its length
    cut      how many bytes of the answer's body are sent before the connection is closed
"""

import dataclasses
import pathlib
import threading

from .facts import Stamp, stamp
from .faults_told import Refused, reason
from .texts import unpack


@dataclasses.dataclass
class Rule:
    """One rule; see the module."""
    object: str
    method: str | None = None
    query: str = ""
    times: int | None = None
    delay: float = 0
    hang: float | None = None
    status: int | None = None
    body: str | None = None
    chunked: int = 0
    cut: int | None = None

    def fits(self, method: str, name: str, query: str) -> bool:
        return (self.object in ("*", name) and self.method in (None, method) and self.query in query
                and self.times != 0)

    @property
    def replaces(self) -> bool:
        """Whether the request is not handed on."""
        return self.hang is not None or self.status is not None or self.body is not None


def read_rules(path: pathlib.Path) -> list[Rule]:
    """The rules of a file. Refused."""
    try:
        return [Rule(**rule) for rule in unpack(path.read_bytes())]
    except OSError as error:
        raise Refused(f"{path}: {reason(error)}") from error
    except (ValueError, TypeError) as error:
        raise Refused(f"{path}: no list of faults: {error}") from None


class Mischief:
    """The rules in force. Thread-safe."""

    def __init__(self, path: str | None) -> None:
        self._path = pathlib.Path(path) if path else None
        self._lock = threading.Lock()
        self._stamp: Stamp = None
        self._rules: list[Rule] = []

    def rule_for(self, method: str, name: str, query: str) -> Rule | None:
        """The rule to apply to a request; it counts as applied."""
        if self._path is None:
            return None
        with self._lock:
            self._read_again(self._path)
            rule = next((rule for rule in self._rules if rule.fits(method, name, query)), None)
            if rule is not None and rule.times is not None:
                rule.times -= 1
            return rule

    def _read_again(self, path: pathlib.Path) -> None:
        """A file that makes no sense has no rules."""
        new = stamp(str(path))
        if new == self._stamp:
            return
        self._stamp = new
        try:
            self._rules = read_rules(path) if new is not None else []
        except Refused:
            self._rules = []
