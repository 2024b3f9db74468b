# SPDX-License-Identifier: Apache-2.0
"""The report's part on changed blocks."""

import statistics

from markdown import QUIET, count, goals_table, origin, table

TITLE = "# Changed blocks"

EXTENT_GOAL = 2  # microseconds

ABOUT = """\
A disk of 1 GiB is open; then the file of its changed blocks is opened for the first time and its head is read. The
program that lists the blocks has its answer ready, the controller's and the agent's are those of the snapshots' figures
above. "Own time" is what is left of the time by the clock when all that the opening thread waits for is taken off:
`dmsetup` and the block list's program, whose ends are looked for once a second, and the controller. "Processor time" is
that of the whole daemon.
"""

READS = """\
The changed data, {changed} MiB, read in requests of 1 MiB at most, with all caches above the datastore (tmpfs) empty; a
file's extents lie on the disk with gaps of their own length. Each byte of the file makes the way through the daemon and
the mappings twice.
"""


def _median(opens, key):
    return statistics.median(found[key] for found in opens)


def _each(figures, key):
    """Microseconds an extent, from the fewest to the most."""
    numbers = sorted(map(int, figures["extents"]))
    few, many = (_median(figures["extents"][str(number)]["opens"], key) for number in (numbers[0], numbers[-1]))
    return (many - few) / (numbers[-1] - numbers[0]) * 1e6


def _goals(figures):
    for key, kind in (("own", "own time"), ("processor", "processor time")):
        each = _each(figures, key)
        yield f"opening: {kind} under {EXTENT_GOAL} µs an extent", f"{count(each)} µs", each < EXTENT_GOAL


def _open_rows(figures):
    for number, found in figures["extents"].items():
        times = [_median(found["opens"], key) * 1000 for key in ("seconds", "own", "processor")]
        yield [f"{int(number):,}", *map(count, times)]


def _read_rows(figures):
    for number, found in figures["extents"].items():
        reads = found["reads"]
        rates = [count(reads[key] / 1e6) for key in ("file", "disk")]
        yield [f"{int(number):,} of {found['length'] >> 10:,} KiB", *rates, f"{reads['file'] / reads['disk']:.2f}"]


def report(figures):
    some = next(iter(figures["extents"].items()))
    yield f"{TITLE}\n"
    yield (f"{origin('script/bench --changed-blocks', figures)} Medians of {figures['rounds']} opens and rounds. "
           f"Between the rounds other work took {figures['busy']:.0%} of the processors' time.\n")
    if figures["busy"] > QUIET:
        yield "**The machine was busy.** The figures are not those of a quiet machine.\n"
    yield "## Goals\n"
    yield from goals_table(_goals(figures))
    yield "## Time to the first byte, ms\n"
    yield ABOUT
    yield from table(["extents", "by the clock", "own time", "processor time"], _open_rows(figures))
    yield "## Reading the changed data, MB/s\n"
    yield READS.format(changed=int(some[0]) * some[1]["length"] >> 20)
    yield from table(["extents", "from their file", "from the disk", "file ÷ disk"], _read_rows(figures))
