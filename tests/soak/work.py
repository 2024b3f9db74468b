"""Workers: threads that do one kind of work over and over, each after a seed of its own, and stand still together when
somebody wants to look."""

import contextlib
import random
import threading
import time
from abc import ABC, abstractmethod
from collections.abc import Sequence

from clients import Lost
from stage import Stage
from tally import Tally


_LOOK = 1  # seconds between two looks whether it is over


class Ended(Exception):
    """The soak is over; whatever the worker was about need not be finished."""


class Calm:
    """Lets workers stand still between two of their steps."""

    def __init__(self, tally: Tally):
        self._tally = tally
        self._changed = threading.Condition()
        self._wanted = False
        self._still: set[str] = set()

    def pass_by(self, name: str) -> None:
        """Called by each worker between its steps; returns when work may go on. Ended."""
        with self._changed:
            self._still.add(name)
            self._changed.notify_all()
            while self._wanted and not self._tally.ended.is_set():
                self._changed.wait(_LOOK)
            self._still.discard(name)
        if self._tally.ended.is_set():
            raise Ended

    def begin(self, names: Sequence[str], seconds: float) -> list[str]:
        """Waits until the workers stand still; returns those that do not."""
        with self._changed:
            self._wanted = True
            deadline = time.monotonic() + seconds
            while not self._still >= set(names) and not self._tally.ended.is_set() and time.monotonic() < deadline:
                self._changed.wait(_LOOK)
            return sorted(set(names) - self._still)

    def end(self) -> None:
        with self._changed:
            self._wanted = False
            self._changed.notify_all()


class Worker(ABC, threading.Thread):
    """One kind of work. draw: all that it chooses comes from here."""

    def __init__(self, name: str, stage: Stage, calm: Calm):
        super().__init__(name=name, daemon=True)
        self.stage, self.tally, self.clients = stage, stage.tally, stage.clients
        self.draw = random.Random(f"{stage.tally.seed} {name}")
        self._calm = calm

    def run(self) -> None:
        try:
            while True:
                self._calm.pass_by(self.name)
                with contextlib.suppress(Lost):
                    self.step()
        except Ended:
            pass
        except BaseException as fault:  # pylint: disable=broad-exception-caught  a worker's end is the soak's
            self.tally.fail(self.name, fault)

    @abstractmethod
    def step(self) -> None:
        """Does some work, a minute's at most, and leaves nothing under way. Lost."""

    def pause(self, shortest: float, longest: float) -> None:
        """Seconds of doing nothing; fewer when the soak ends."""
        self.tally.ended.wait(self.draw.uniform(shortest, longest))

    def wait_for(self, condition, what: str, seconds: float) -> None:
        """As wait_until. Ended."""
        deadline = time.monotonic() + seconds
        while not condition():
            if self.tally.ended.is_set():
                raise Ended
            if time.monotonic() > deadline:
                raise TimeoutError(f"not within {seconds} s: {what}")
            time.sleep(0.05)
