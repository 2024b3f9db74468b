"""One frame of "top": lines of text, from what the controller told and the size of the terminal."""

import dataclasses
import time
import unicodedata
from collections.abc import Iterator
from typing import Any

from .texts import printable
from .words import duration, size

BARS, PLAIN_BARS = " ▁▂▃▄▅▆▇█", " .:-=+*#@"
_WINDOW = 15.0  # seconds that one bar stands for
_FEWEST_VMS = 4  # lines that the VMs are left of a small terminal, their heading included

NORMAL, BOLD, TITLE, BAD = range(4)  # styles


@dataclasses.dataclass(frozen=True)
class View:
    """What the user has chosen. width: columns; height: lines, None for as many as there are; bars: of the plot."""
    width: int
    height: int | None = None
    sort: str = "activity"
    first: int = 0  # of the VMs
    bars: str = BARS
    find: str = ""


Line = tuple[str, int]  # text of at most `width` columns, style


def columns(text: str) -> int:
    """How many columns of a terminal a printable text takes."""
    return sum(0 if unicodedata.combining(character) else 2 if unicodedata.east_asian_width(character) in "WF" else 1
               for character in text)


def fit(text: str, width: int, right: bool = False) -> str:
    """A text made printable, cut or padded to `width` columns."""
    shown = printable(text)
    if columns(shown) > width:
        while shown and columns(shown) > width - 1:
            shown = shown[:-1]
        shown += "~"
    pad = " " * (width - columns(shown))
    return pad + shown if right else shown + pad


def frame(told: dict[str, Any], view: View) -> list[Line]:
    """The whole frame; the VMs get the lines that the rest leaves."""
    head = list(_head(told, view))
    files, alerts = list(_files(told, view)), list(_alerts(told, view))
    if view.height is not None:
        room = max(0, view.height - len(head) - _FEWEST_VMS)
        alerts = _at_most(alerts, min(8, room // 3))
        files = _at_most(files, room // 2)
        vms = list(_vms(told, view, max(0, view.height - len(head) - len(files) - len(alerts))))
    else:
        vms = list(_vms(told, view, None))
    lines = [(fit(text, view.width).rstrip(), style) for text, style in [*head, *files, *vms, *alerts]]
    return lines[:view.height]


def _at_most(lines: list[Line], room: int) -> list[Line]:
    """With a line that counts what is left out; a blank line and a title with nothing below are left out."""
    if len(lines) <= room:
        return lines
    kept = lines[:max(0, room - 1)]
    return [*kept, (f"  … {len(lines) - len(kept)} more", NORMAL)] if len(kept) > 2 else []


def _head(told: dict[str, Any], view: View) -> Iterator[Line]:
    daemon, counts = told["daemon"], told["counts"]
    when = time.strftime("%H:%M:%S", time.localtime(told["time"]))
    yield f"{daemon['words']}  ({when})", NORMAL if daemon["state"] == "there" else BAD
    for store in told["datastores"]:
        if not store["accessible"]:
            yield f"Datastore {store['name']} cannot be read", BAD
        elif not store["complete"]:
            yield f"Datastore {store['name']} is being read: {store['vms']:,} VMs so far", NORMAL
    oldest = f" (oldest {duration(counts['oldest'])})" if counts["oldest"] is not None else ""
    yield (f"VMs {counts['vms']:,}   open exports {counts['open']:,}   snapshots {counts['snapshots']:,}{oldest}   "
           f"alerts {counts['alerts']:,}"), BOLD
    yield from _throughput(told, view)


def _throughput(told: dict[str, Any], view: View) -> Iterator[Line]:
    reads = told["reads"]
    rate = reads["rate"]
    since = time.strftime("%Y-%m-%d %H:%M", time.localtime(told["since"]))
    now = (f"{size(rate['read'])}/s read, {size(rate['skipped'])}/s skipped (average of {duration(rate['seconds'])}, "
           f"{duration(rate['age'])} ago)" if rate else "no report")
    yield f"Reads: {now}", BOLD
    yield f"       {size(reads['read'])} read, {size(reads['skipped'])} skipped since {since}", NORMAL
    bars, most = _bars(told, view)
    if most:
        yield f"       {bars} up to {size(most)}/s", NORMAL


def _bars(told: dict[str, Any], view: View) -> tuple[str, float]:
    """A character for each 15 seconds until now, blank where nothing was reported; and the largest rate."""
    count = min(60, max(10, view.width - 34))
    begin = told["time"] - count * _WINDOW
    rates: list[float | None] = [None] * count
    for start, end, read, _ in told["reads"]["samples"]:
        first, last = int((start - begin) // _WINDOW), int((end - 0.5 - begin) // _WINDOW)
        for number in range(max(0, first), min(count, last + 1)):
            rates[number] = max(rates[number] or 0, read / (end - start))
    most = max((rate for rate in rates if rate is not None), default=0)
    steps = len(view.bars) - 1
    shown = (0 if rate is None else max(1, round(rate / most * steps)) if most else 1 for rate in rates)
    return "".join(view.bars[number] for number in shown), most


def _files(told: dict[str, Any], view: View) -> Iterator[Line]:
    files = told["files"]
    if not files["rows"]:
        return
    path = max(16, view.width - 48)
    yield "", NORMAL
    yield (f"{fit('OPEN EXPORT', path)}{'READ':>11}{'A SECOND':>13}{'SKIPPED':>11}  NOW"), TITLE
    is_stale = told["daemon"]["state"] != "there"
    for file in files["rows"]:
        state = ("unknown" if is_stale else "opened" if file["idle"] is None else
                 "read" if file["reading"] else f"idle {duration(file['idle'])}")
        shown = printable(file["path"])
        while columns(shown) > path:  # its end tells more than its beginning
            shown = "~" + shown[2:]
        yield (f"{fit(shown, path)}{size(file['read']):>11}{_rate(file['read_rate']):>13}{size(file['skipped']):>11}"
               f"  {state}"), NORMAL
    if files["total"] > len(files["rows"]):
        yield f"  … {files['total'] - len(files['rows']):,} more", NORMAL


def _rate(value: float) -> str:
    return f"{size(value)}/s" if value >= 1 else "-"


def _vms(told: dict[str, Any], view: View, room: int | None) -> Iterator[Line]:
    """room: lines."""
    vms = told["vms"]
    name = max(20, view.width - 76)
    rows = vms["rows"][view.first:]
    if room is not None:
        rows = rows[:max(0, room - 3)]
    yield "", NORMAL
    yield (f"{fit('VM', name)} {fit('PLACE', 12)}{'OPEN':>5}{'A SECOND':>13}{'SKIPPED':>13}  "
           f"{fit('SNAPSHOT', 11)}NOTES"), TITLE
    for row in rows:
        yield _vm(row, name), BAD if row["alerts"] or row["problem"] else NORMAL
    rest = vms["matching"] - view.first - len(rows)
    match = f" match \"{printable(view.find)}\"" if view.find else ""
    if rest or view.first or view.find:
        yield (f"  {view.first + 1 if rows else 0:,} to {view.first + len(rows):,} of {vms['matching']:,} "
               f"VMs{match}, sorted by {view.sort}"), NORMAL


def _vm(row: dict[str, Any], name: int) -> str:
    ages = [snapshot["age"] for snapshot in row["snapshots"]]
    known = [age for age in ages if age is not None]
    age = f"{duration(max(known)) if known else '?'}{'+' if len(ages) > 1 else ''}" if ages else ""
    notes = [*([f"{row['alerts']} alerts"] if row["alerts"] else []), *(["problem"] if row["problem"] else []),
             *(word for word in ("template", "tracked") if row[word]), *([] if row["exported"] else ["not exported"])]
    shown = row["open"] > 0
    return (f"{fit(row['name'], name)} {fit(row['place'], 12)}{row['open'] or '':>5}"
            f"{_rate(row['read_rate']) if shown else '':>13}{_rate(row['skipped_rate']) if shown else '':>13}  "
            f"{fit(age, 10)} {', '.join(notes)}")


def _alerts(told: dict[str, Any], view: View) -> Iterator[Line]:
    alerts = told["alerts"]
    if not alerts["rows"]:
        return
    yield "", NORMAL
    yield "ALERTS", TITLE
    for alert in alerts["rows"]:
        when = time.strftime("%m-%d %H:%M", time.localtime(alert["first_time"] or 0))
        yield f"{when} {alert['severity'] or ''} {alert['message'] or alert['alert_id']}", BAD
    if alerts["total"] > len(alerts["rows"]):
        yield f"  … {alerts['total'] - len(alerts['rows']):,} more", NORMAL
