"""The agent's faults on demand, for tests.

They stand in `agent-faults.json` in the state directory, an array of rules that every agent reads at each call; no
file, no faults. The first rule that fits a call acts on it. A rule's members, all optional:

    method    name of the method, "*" for all
    vm        the VM's name or uuid, "*" for all
    snapshot  what the snapshot's name must contain
    times     how many calls the rule acts on before it is used up, counted over all agents; without it, all
    until     seconds since 1970 at which the rule ends
    delay     seconds to wait before acting
    noise     bytes to write to standard error before acting
    die       "before" or "after" acting, without an answer
    step      name of the step of the operation behind which the process dies, as by SIGKILL
    error     number to answer with, `text` with it
    garbage   text to answer with, as it stands
    cut       how many bytes of the answer are written before the process dies
    silence   1 for no answer; the process stays until it is killed or the daemon is gone
    acts      1 to act all the same before `error`, `garbage` or `silence`
    top       1 to let "create_top_snapshot" make one
    free      bytes that "df" tells as free
    moment    1 to note in the journal what each disk holds at the moment of the snapshot

The program that lists changed blocks reads them too, as the method "cbt_getblocklist". It ends with the status `error`;
`garbage` and `cut` are about its results file; `silence` lets it stay. Members for it alone:

    changeid  change id to tell
    extents   how many extents to tell: made up, a sector each, all over the disk
"""

import contextlib
import dataclasses
import fcntl
import os
import pathlib
import time
from collections.abc import Iterator
from typing import Any

from ..faults_told import Refused, reason
from ..texts import pack, unpack

BUSY = 114  # the number of "another task is in progress"
DEATHS = ("before", "after")


@dataclasses.dataclass
class Rule:
    """One rule; see the module."""
    method: str = "*"
    vm: str = "*"
    snapshot: str = ""
    times: int | None = None
    until: float | None = None
    delay: float = 0
    noise: int = 0
    die: str | None = None
    step: str | None = None
    error: int | None = None
    text: str = "fault on demand"
    garbage: str | None = None
    cut: int | None = None
    silence: int = 0
    acts: int = 0
    top: int = 0
    free: int | None = None
    moment: int = 0
    changeid: str | None = None
    extents: int | None = None

    @property
    def is_over(self) -> bool:
        return self.times == 0 or self.until is not None and time.time() >= self.until

    def fits(self, method: str, names: tuple[str, ...], snapshot: str) -> bool:
        """names: the VM's name and uuid, none for a method that is about no VM."""
        return (not self.is_over and self.method in ("*", method) and (self.vm == "*" or self.vm in names)
                and self.snapshot in snapshot)

    @property
    def replaces(self) -> bool:
        """Whether nothing is done of what was asked."""
        return not self.acts and (self.error is not None or self.garbage is not None or bool(self.silence))

    def shown(self) -> dict[str, Any]:
        """The members that say something."""
        return {field.name: value for field in dataclasses.fields(self)
                if (value := getattr(self, field.name)) != field.default}


MEMBERS = tuple(field.name for field in dataclasses.fields(Rule))


def path_in(state: pathlib.Path) -> pathlib.Path:
    return state / "agent-faults.json"


def read(state: pathlib.Path) -> list[Rule]:
    """The rules as they stand. Refused for a file that holds none."""
    path = path_in(state)
    try:
        return [Rule(**rule) for rule in unpack(path.read_bytes())]
    except FileNotFoundError:
        return []
    except OSError as error:
        raise Refused(f"{path}: {reason(error)}") from error
    except (ValueError, TypeError) as error:
        raise Refused(f"{path}: no list of faults: {error}") from None


def _write(state: pathlib.Path, rules: list[Rule]) -> None:
    path = path_in(state)
    if not rules:
        path.unlink(missing_ok=True)
        return
    aside = path.with_name(f".{path.name}.{os.getpid()}")
    aside.write_bytes(pack([rule.shown() for rule in rules]) + b"\n")
    aside.replace(path)


@contextlib.contextmanager
def _locked(state: pathlib.Path) -> Iterator[None]:
    """Rules that are counted are changed by one process at a time."""
    with open(state / "agent-faults.lock", "ab") as file:
        fcntl.flock(file, fcntl.LOCK_EX)
        yield


def take(state: pathlib.Path, method: str, names: tuple[str, ...], snapshot: str) -> Rule | None:
    """The rule to apply to a call; it counts as applied. Refused, OSError."""
    if not path_in(state).exists():
        return None
    with _locked(state):
        rules = read(state)
        rule = next((rule for rule in rules if rule.fits(method, names, snapshot)), None)
        if rule is not None and rule.times is not None:
            rule.times -= 1
            _write(state, [rule for rule in rules if not rule.is_over])
        return rule


def add(state: pathlib.Path, rule: Rule) -> None:
    """Adds a rule behind the others, and forgets those that are over. Refused, OSError."""
    with _locked(state):
        _write(state, [*(old for old in read(state) if not old.is_over), rule])


def clear(state: pathlib.Path) -> None:
    """Ends all faults. OSError."""
    with _locked(state):
        _write(state, [])


def busy_until(rules: list[Rule], names: tuple[str, ...]) -> float | None:
    """When a VM stops being busy for a fault's sake: seconds since 1970, 0 for nobody knows when; None: it is not."""
    found = [rule.until or 0 for rule in rules if rule.error == BUSY and rule.fits(rule.method, names, rule.snapshot)]
    return max(found, default=None)
