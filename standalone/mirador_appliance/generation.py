"""The token that tells one state of the inventory from another, and waiting for the next."""

import threading
import time
from collections.abc import Callable

_LOOK = 1.0  # seconds between two looks whether the waiting client is still there


class Generation:
    """A token "START-NUMBER": START counts the controller's starts, so that no token comes twice. Thread-safe.
    told: receives every token before it can be seen."""

    def __init__(self, start: int, told: Callable[[str], None] = lambda token: None) -> None:
        self._start = start
        self._told = told
        self._number = 0
        self._again = False
        self._ended = False
        self._changed = threading.Condition()
        told(self.token)

    @property
    def token(self) -> str:
        return f"{self._start}-{self._number}"

    def bump(self, again: bool = False) -> str:
        """A new token. again: once it has been taken over, another one; for what takes the daemon two passes."""
        with self._changed:
            self._number += 1
            self._told(self.token)
            self._again = self._again or again
            self._changed.notify_all()
            return self.token

    def taken_over(self, token: str) -> None:
        """The daemon has taken over the state of a token."""
        with self._changed:
            if self._again and token == self.token:
                self._again = False
                self.bump()

    def wait(self, known: str, seconds: float, is_wanted: Callable[[], bool]) -> str:
        """The token as soon as it differs from `known`, else after `seconds`, or when nobody wants it any more."""
        deadline = time.monotonic() + seconds
        with self._changed:
            while self.token == known and not self._ended:
                left = deadline - time.monotonic()
                if left <= 0 or not is_wanted():
                    break
                self._changed.wait(min(left, _LOOK))
            return self.token

    def end(self) -> None:
        """Lets everybody go who waits."""
        with self._changed:
            self._ended = True
            self._changed.notify_all()
