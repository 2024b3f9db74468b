"""Why a client may see an error: faults that are in force and changes that are under way.

Whatever disturbs the daemon says so here, with the texts that its errors may have; an error that nothing here explains
is the daemon's own."""

import contextlib
import dataclasses
import re
import threading
import time
from collections.abc import Iterator

ALL = "*"
_AFTER = 10  # seconds for which what has ended may still be felt: who waits behind others began later than he was asked


@dataclasses.dataclass
class _Excuse:
    subject: str
    why: str
    told: re.Pattern[str]
    begin: float
    end: float | None = None


class Excuses:
    """Thread-safe."""

    def __init__(self) -> None:
        self._lock = threading.Lock()
        self._known: list[_Excuse] = []

    @contextlib.contextmanager
    def during(self, subject: str, why: str, told: str) -> Iterator[None]:
        """As long as the context lasts and a little longer, errors of a VM, or of ALL, may be so. told: pattern for what
        the daemon says of the path."""
        excuse = _Excuse(subject, why, re.compile(told, re.DOTALL), time.monotonic())
        with self._lock:
            self._known.append(excuse)
        try:
            yield
        finally:
            excuse.end = time.monotonic()

    def explain(self, subject: str, began: float, text: str) -> str | None:
        """Why what was begun at a moment (time.monotonic()) has failed by now; None when nothing explains it."""
        with self._lock:
            self._known = [excuse for excuse in self._known if excuse.end is None or excuse.end > began - 600]
            for excuse in reversed(self._known):  # the latest is the likeliest
                if (excuse.subject in (subject, ALL) and (excuse.end is None or excuse.end + _AFTER > began)
                        and excuse.told.search(text)):
                    return excuse.why
        return None

    def tell(self, subject: str, began: float) -> str:
        """What was in force, whatever it explains."""
        with self._lock:
            found = [f"{excuse.why} of {excuse.subject}" for excuse in self._known
                     if excuse.end is None or excuse.end + _AFTER > began]
        return f"in force for {subject} were: {', '.join(found) or 'nothing'}"
