# SPDX-License-Identifier: Apache-2.0
"""The report's part on reads that skip what the guest does not use."""

from markdown import QUIET, count, goals_table, origin, table

TITLE = "# Optimised reads"

TENTH_GOAL = 4  # times as fast as the plain read
ADDED_GOAL = 0.05  # of the plain read's time

ABOUT = """\
A flat disk of {size} MiB is read whole, in blocks of 1 MiB, with every cache below the export empty. "10 % used": of ten
pieces of 1 MiB the bitmap has one in use; "all used": all; "plain": there is no bitmap. On tmpfs the disk's bytes cost
next to nothing, and what remains is the way from the daemon to the client, which a skipped byte goes as well; the line
carries {rate} MB/s.
"""


def _ratio(figures, store, name):
    return figures["reads"][store][name] / figures["reads"][store]["plain"]


def _goals(figures):
    tenth, added = _ratio(figures, "line", "10 % used"), 1 / _ratio(figures, "tmpfs", "all used") - 1
    yield (f"disk behind the line, 10 % used: at least {TENTH_GOAL} times as fast as the plain read", f"{tenth:.1f} times",
           tenth >= TENTH_GOAL)
    yield f"disk on tmpfs, all used: under {ADDED_GOAL:.0%} added", f"{added:+.1%}", added < ADDED_GOAL


def report(figures):
    yield f"{TITLE}\n"
    yield (f"{origin('script/bench --smart-reads', figures)} Medians of {figures['rounds']} rounds in which the "
           f"contestants take turns. Between the rounds other work took {figures['busy']:.0%} of the processors' "
           f"time.\n")
    if figures["busy"] > QUIET:
        yield "**The machine was busy.** The figures are not those of a quiet machine.\n"
    yield "## Goals\n"
    yield from goals_table(_goals(figures))
    yield "## Sequential read, MB/s\n"
    yield ABOUT.format(size=figures["size"] >> 20, rate=figures["rate"] // 10**6)
    stores = list(figures["reads"])
    rows = [[name, *[text for store in stores for text in (count(figures["reads"][store][name] / 1e6),
                                                           f"{_ratio(figures, store, name):.2f}")]]
            for name in figures["reads"][stores[0]]]
    yield from table(["", *[head for store in stores for head in (store, "it ÷ plain")]], rows)
