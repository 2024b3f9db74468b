"""What clients read and have open, as the daemon's reports tell it: the latest, and the last hours.

A report of counters tells of every disk file that the daemon has open or ready and that was read since; it comes every
15 seconds, and none comes while there is no such file. A report of sizes tells of one file that was just opened.
"""

import dataclasses
from collections import deque
from typing import Any

_PERIOD = 15.0  # seconds between two reports
_LATE = 20.0  # seconds after which a report is late
_SHORT = 5.0  # seconds; reports that come sooner belong to one sample
_SAMPLES = 960  # four hours of reports
_LARGEST_READ = 1 << 20  # bytes that a file's first report may hold beyond those that it says are new
_UNREAD = 60.0  # seconds for which a file that was opened and not read counts as open: its end is not told


@dataclasses.dataclass
class Sample:
    """Bytes between two times (seconds since 1970). files: those of each file, by path, [read, skipped]."""
    start: float
    end: float
    read: int = 0
    skipped: int = 0
    files: dict[str, list[int]] = dataclasses.field(default_factory=dict)

    def add(self, path: str, read: int, skipped: int) -> None:
        self.read += read
        self.skipped += skipped
        counts = self.files.setdefault(path, [0, 0])
        counts[0] += read
        counts[1] += skipped

    def rates_of(self, path: str) -> tuple[float, float]:
        """Bytes a second."""
        read, skipped = self.files.get(path, (0, 0))
        return read / (self.end - self.start), skipped / (self.end - self.start)


@dataclasses.dataclass
class OpenFile:
    """A file that the daemon has open or ready. read, skipped: bytes since it was opened; last_read: seconds since
    1970 by the daemon's clock, None when nothing has been read; size: bytes, None when it was not told."""
    path: str
    read: int = 0
    skipped: int = 0
    last_read: int | None = None
    size: int | None = None


_Key = tuple[str, str]  # path; "2" for the second stream, else ""


@dataclasses.dataclass
class _Counter:
    read: int
    skipped: int
    is_closed: bool = False


class Reads:
    """Takes in reports. Times are handed in by the caller, who serialises calls."""

    def __init__(self) -> None:
        self.samples: deque[Sample] = deque(maxlen=_SAMPLES)
        self.total_read, self.total_skipped = 0, 0  # bytes since the controller's start
        self.last_report: float | None = None
        self._counters: dict[_Key, _Counter] = {}
        self._open: dict[str, OpenFile] = {}
        self._opened: dict[str, tuple[float, int]] = {}  # path -> when its size was told and the size; 0: it has ended

    def open_files(self, now: float) -> list[OpenFile]:
        """As the latest reports have them, by path."""
        fresh = {path: OpenFile(path, size=size) for path, (when, size) in self._opened.items()
                 if path not in self._open and now - when < _UNREAD}
        return [file for _, file in sorted((fresh | self._open).items())]

    def forget(self) -> None:
        """The daemon is another one: nothing is open, and counters begin anew."""
        self._counters.clear()
        self._open.clear()
        self._opened.clear()

    def latest(self, now: float) -> Sample | None:
        """The sample that tells of the present; None when there is none so young."""
        return self.samples[-1] if self.samples and now - self.samples[-1].end < 2 * _LATE else None

    def quiet(self, since: float, until: float) -> None:
        """The daemon could have reported all the time between the two: where it did not, nothing was read."""
        if self._counters_standing():
            return  # it had something to report and could not
        start = max(since, self.samples[-1].end if self.samples else since)
        end = until - _PERIOD - 1  # what was read since may yet be told
        if end <= start:
            return
        last = self.samples[-1] if self.samples else None
        if last is not None and last.end == start and last.read == last.skipped == 0:
            last.end = end
        else:
            self.samples.append(Sample(start, end))

    def _counters_standing(self) -> bool:
        return any(not counter.is_closed for counter in self._counters.values())

    def take(self, report: list[dict[str, Any]], now: float) -> None:
        """Takes in a report whose form has been checked, of which every number may still be missing or none."""
        counted = [entry for entry in report if any(f"vmdk_bytes_read{stream}" in entry for stream in ("", "2"))]
        for entry in report:
            size = _number(entry.get("vmdk_flat_file_size"))
            if size is not None:
                self._opened[entry["vmdk_path"]] = now, size
        if counted:
            self._take_counters(counted, now)
        while len(self._opened) > 4096:
            del self._opened[next(iter(self._opened))]

    def _take_counters(self, entries: list[dict[str, Any]], now: float) -> None:
        sample = Sample(self._start_of_sample(now), now)
        counters, standing = {}, {}
        for entry in entries:
            path = entry["vmdk_path"]
            for stream in ("", "2"):
                if f"vmdk_bytes_read{stream}" in entry:
                    counters[path, stream] = self._count(entry, stream, sample)
                    self._note_open(standing, entry, stream, counters[path, stream])
        self._counters, self._open, self.last_report = counters, standing, now
        self._append(sample)

    def _start_of_sample(self, now: float) -> float:
        if not self.samples:
            return now - _PERIOD
        last = self.samples[-1].end
        return last if now - last <= _LATE or self._counters_standing() else now - _PERIOD

    def _count(self, entry: dict[str, Any], stream: str, sample: Sample) -> _Counter:
        path = entry["vmdk_path"]
        known = self._counters.get((path, stream))
        totals, news = [], []
        for kind in ("read", "skipped"):
            total = _number(entry.get(f"vmdk_bytes_{kind}{stream}")) or 0
            new = _number(entry.get(f"delta_bytes_{kind}{stream}")) or 0
            totals.append(total)
            news.append(total - _told_before(known and getattr(known, kind), known and known.is_closed, total, new))
        sample.add(path, *news)
        return _Counter(*totals, is_closed=_number(entry.get(f"vmdk_last_read_time{stream}")) is None)

    def _note_open(self, standing: dict[str, OpenFile], entry: dict[str, Any], stream: str, counter: _Counter) -> None:
        path = entry["vmdk_path"]
        if counter.is_closed:
            if path in self._opened:
                self._opened[path] = 0.0, self._opened[path][1]
            return
        file = standing.setdefault(path, OpenFile(path, size=self._opened.get(path, (0, None))[1]))
        file.read += counter.read
        file.skipped += counter.skipped
        file.last_read = max(file.last_read or 0, _number(entry.get(f"vmdk_last_read_time{stream}")) or 0)

    def _append(self, sample: Sample) -> None:
        self.total_read += sample.read
        self.total_skipped += sample.skipped
        last = self.samples[-1] if self.samples else None
        if last is not None and _are_one(last, sample):
            last.end = sample.end
            for path, counts in sample.files.items():
                last.add(path, *counts)
        elif sample.end > sample.start:
            if last is not None:
                last.files.clear()  # only the latest one's are asked for
            self.samples.append(sample)


def _are_one(last: Sample, sample: Sample) -> bool:
    """Whether two samples in succession are too short for two."""
    return (last.end == sample.start and sample.end - last.start <= _LATE
            and min(last.end - last.start, sample.end - sample.start) < _SHORT)


def _number(value: Any) -> int | None:
    try:
        return int(value)
    except (TypeError, ValueError):
        return None


def _told_before(known: int | None, was_closed: bool | None, total: int, new: int) -> int:
    """How many of a file's bytes an earlier report has told. The daemon's own account of what is new lacks a file's
    first read, and holds what an answer that got lost has told already. 0 for a file that was opened anew. When nothing
    is known of it and it is not new, all: nobody can tell when they were read."""
    before = total - new
    if known is not None and known <= total and (not was_closed or known == before):
        return known
    return 0 if before <= _LARGEST_READ else total
