"""What has been done so far, and what went wrong."""

import collections
import threading
import time
import traceback


class Tally:
    """Counts what the workers do, and keeps what failed first. Thread-safe. ended: set when there is no more to do."""

    def __init__(self, seed: int):
        self.seed = seed
        self.ended = threading.Event()
        self.failures: list[str] = []
        self.start()
        self._lock = threading.Lock()
        self._counts: collections.Counter[str] = collections.Counter()
        self._explained: collections.Counter[str] = collections.Counter()

    def start(self) -> None:
        """Time counts from now on."""
        self._start = time.monotonic()

    def count(self, what: str, number: int = 1) -> None:
        with self._lock:
            self._counts[what] += number

    def explained(self, why: str) -> None:
        """A client met an error, and there was a reason."""
        with self._lock:
            self._explained[why] += 1

    def fail(self, who: str, fault: BaseException) -> None:
        """Everything ends."""
        text = "".join(traceback.format_exception(fault))
        with self._lock:
            self.failures.append(f"seed {self.seed}, {self.seconds():.0f} s after the start, {who}:\n{text}")
        print(self.failures[-1], flush=True)
        self.ended.set()

    def seconds(self) -> float:
        return time.monotonic() - self._start

    def line(self) -> str:
        """How far it is, in one line."""
        with self._lock:
            counts = dict(sorted(self._counts.items()))
            errors = self._explained.total()
        read = counts.pop("bytes", 0)
        words = [f"{read / 1e6:.0f} MB read", *(f"{count} {what}" for what, count in counts.items()),
                 f"{errors} errors explained"]
        return f"[{self.seconds():5.0f} s] " + ", ".join(words)

    def reasons(self) -> str:
        with self._lock:
            found = sorted(self._explained.items(), key=lambda item: -item[1])
        return "\n".join(f"{count:7} {why}" for why, count in found)
