# SPDX-License-Identifier: Apache-2.0
"""The report's part on opening disks behind snapshots."""

import statistics

from markdown import QUIET, count, goals_table, origin, table

TITLE = "# Snapshots"

OWN_GOAL = 100  # milliseconds
REOPEN_GOAL = 1  # milliseconds

WAITS = {
    "agent": "the agent's answers: it answers when the daemon has taken over that there is a snapshot",
    "controller": "the controller's answers",
    "dmsetup": "`dmsetup`: whether it has ended is looked for once a second",
    "fuse-dmsetup": "`dmsetup`'s stand-in: whether it has ended is looked for once a second",
    "watchdog-test-c": "the program that tells whether the controller runs, asked before an alert is cleared: whether "
                       "it has ended is looked for once a second",
    "sleep": "the controller to show the snapshot: looked for every ten seconds",
    "lock": "other threads",
}

ABOUT = """\
A running VM's disk is opened for the first time: the daemon orders a snapshot, takes over what the controller then tells
of the VM, maps the disk and looks for a place for its header. The agent touches no file, and the controller shows the
snapshot at once. Made-up VMs with empty disks of 1 GiB. What the opening thread waits for was found by looking at it
every millisecond (every ten with opens in parallel); "own time" is the rest. "Processor time" is that of the whole daemon
during an open, so the controller's news that it takes over meanwhile are in it; that of the programs it runs is not.
"""


def _milliseconds(seconds):
    return count(1000 * seconds)


def _first(figures):
    """The medians of lone first opens, in the form of one."""
    opens = figures["first"]
    names = {name for found in opens for name in found["waits"]}
    return {**{key: statistics.median(found[key] for found in opens) for key in ("seconds", "processor", "own")},
            "waits": {name: statistics.median(found["waits"].get(name, 0) for found in opens) for name in names}}


def _each(parallel):
    """The same of each of the opens that began together: what one costs while the others wait for it."""
    number = parallel["count"]
    return {**{key: parallel[key] / number for key in ("seconds", "processor", "own")},
            "waits": {name: seconds / number for name, seconds in parallel["waits"].items()}}


def _goals(first, each, figures):
    number = figures["parallel"]["count"]
    for what, found in (("first open", first), (f"each of {number} first opens in parallel", each)):
        for key, kind in (("own", "own time beyond its waits"), ("processor", "processor time")):
            yield f"{what}: {kind} under {OWN_GOAL} ms", f"{_milliseconds(found[key])} ms", found[key] * 1000 < OWN_GOAL
    reopen = figures["reopen"]["median"]
    yield (f"reopen of a disk that is kept ready, median: under {REOPEN_GOAL} ms", f"{_milliseconds(reopen)} ms",
           reopen * 1000 < REOPEN_GOAL)


def _rows(first, each):
    unknown = sorted((first["waits"].keys() | each["waits"].keys()) - WAITS.keys())
    for name, told in [*WAITS.items(), *((name, f"`{name}`") for name in unknown)]:
        seconds = [found["waits"].get(name, 0) for found in (first, each)]
        if any(seconds):
            yield [f"waits for {told}", *map(_milliseconds, seconds)]
    yield ["own time", _milliseconds(first["own"]), _milliseconds(each["own"])]
    yield ["**in all**", _milliseconds(first["seconds"]), _milliseconds(each["seconds"])]
    yield ["processor time", _milliseconds(first["processor"]), _milliseconds(each["processor"])]


def report(figures):
    first, each = _first(figures), _each(figures["parallel"])
    reopen, number = figures["reopen"], figures["parallel"]["count"]
    yield f"{TITLE}\n"
    yield (f"{origin('script/bench --snapshots', figures)} Medians of {len(figures['first'])} opens alone, means of "
           f"{number} that began together. Before them other work took {figures['busy']:.0%} of the processors' time.\n")
    if figures["busy"] > QUIET:
        yield "**The machine was busy**: times by the clock are not those of a quiet machine.\n"
    yield "## Goals\n"
    yield from goals_table(_goals(first, each, figures))
    yield "## First open, ms\n"
    yield ABOUT
    yield from table(["", "alone", f"each of {number} in parallel"], _rows(first, each))
    yield (f"Snapshots are made one after another, so opens that begin together wait for each other: the last of "
           f"{number} disks of {number} VMs was open after {figures['parallel']['seconds']:.1f} s, the first after "
           f"{min(figures['parallel']['ends']):.1f} s.\n")
    yield "## Reopen of a disk that is kept ready, ms\n"
    yield "Nobody has it open, and no first open runs meanwhile, which it would have to wait for.\n"
    yield from table(["opens", "median", "99 of 100", "longest"],
                     [[count(reopen["count"]), *(_milliseconds(reopen[key]) for key in ("median", "99", "longest"))]])
