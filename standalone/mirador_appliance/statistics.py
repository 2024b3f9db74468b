"""What the daemon reports of reads and changed blocks, by exported file."""

import time
from typing import Any

from .store import Store

_PATH = "vmdk_path"


def _number(value: Any) -> int | None:
    try:
        return int(value)
    except (TypeError, ValueError):
        return None


class StatisticsBook:
    """A record holds the latest value of each reported member, for each "delta_…" member the sum of all that came
    under "sum_…", "reports" and "last_time" (seconds since 1970). The caller serialises calls."""

    def __init__(self, store: Store) -> None:
        self._store = store
        self._records = store.statistics()

    def records(self) -> dict[str, dict[str, Any]]:
        return dict(self._records)

    def take(self, report: list[dict[str, Any]]) -> None:
        """Takes in one report: an array of objects with a "vmdk_path". ValueError for anything else."""
        changed: dict[str, dict[str, Any]] = {}
        for entry in report:
            path = entry.get(_PATH) if isinstance(entry, dict) else None
            if not isinstance(path, str) or not path:
                raise ValueError(f"an entry without \"{_PATH}\"")
            changed[path] = self._merged(changed.get(path) or self._records.get(path, {}), entry)
        self._records.update(changed)
        self._store.set_statistics(changed)

    @staticmethod
    def _merged(record: dict[str, Any], entry: dict[str, Any]) -> dict[str, Any]:
        merged = dict(record)
        for member, value in entry.items():
            number = _number(value)
            if member == _PATH or number is None:
                continue
            merged[member] = number
            if member.startswith("delta_"):
                merged[f"sum_{member}"] = merged.get(f"sum_{member}", 0) + number
        merged["reports"] = merged.get("reports", 0) + 1
        merged["last_time"] = int(time.time())
        return merged
