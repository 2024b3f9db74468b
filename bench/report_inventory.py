# SPDX-License-Identifier: Apache-2.0
"""The report's part on inventories of growing size."""

import statistics

from markdown import QUIET, count, goals_table, origin, table

TITLE = "# Inventories"

APPEAR_GOAL = 120  # seconds
WORK_GOAL = 1  # seconds of processor time
MEMORY_GOAL = 64  # KiB for each VM
LISTING_GOAL = 5  # milliseconds
LISTINGS_NEEDED = 100  # for a goal to be judged by them
LINEAR = 1.25  # cost for each VM, largest inventory against a smaller one: up to here it has not grown

CYCLES = {"first": "first cycle", "unchanged": "unchanged cycle", "1 % changed": "cycle with 1 % changed",
          "looked at again": "unchanged cycle, files looked at again"}
LISTINGS = {"first": "the first cycle", "unchanged": "an unchanged cycle", "1 % changed": "a cycle with 1 % changed",
            "looked at again": "cycles that look at all files again", "none": "no cycle"}

ABOUT = """\
VMs with two disks each from the embedded controller, their files on tmpfs. Appear: from the daemon's start until every
VM's directory is complete. A cycle lasts from the controller's answer that announces it until the last VM is up to
date; "own work" is the daemon's processor time from one cycle's end to the next one's, without that of the programs
that it runs. It asks two programs in each cycle whether the services run, and looks once a second whether they have
ended: up to two seconds of a cycle are that. Logged: the whole seconds that its threads report. Files looked at again:
those of all VMs, as in a cycle that comes later than `export.cache.ttl` seconds after the last look. Resident: beyond
what the daemon has when it mounts. The last column compares the cost for each VM: 1 is growth in proportion.
"""


class Sizes:
    """The figures, smallest inventory first."""

    def __init__(self, figures):
        self._figures = {int(size): found for size, found in figures.items()}
        self.numbers = sorted(self._figures)

    def values(self, get):
        return [get(self._figures[size]) for size in self.numbers]

    def last(self, get):
        return self.values(get)[-1]

    def growth(self, get, base=0):
        """Cost for each VM in the largest inventory, as a multiple of that in another, the smallest."""
        values = self.values(get)
        return values[-1] / self.numbers[-1] / (values[base] / self.numbers[base])

    def resident(self):
        """KiB for each VM."""
        grown = self.values(lambda found: found["resident"]["full"] - found["resident"]["bare"])
        return [kib / number for kib, number in zip(grown, self.numbers)]

    def changed(self):
        """Milliseconds of own work for each changed VM, where they are many."""
        return [1000 * (found["1 % changed"]["daemon"] - found["unchanged"]["daemon"]) / (number // 100)
                if number >= 1000 else None for number, found in zip(self.numbers, self.values(lambda found: found))]


def _field(cycle, field):
    return lambda found: found[cycle][field]


def _rank(values, share):
    """Milliseconds that `share` of the values do not exceed."""
    return 1000 * sorted(values)[min(len(values) - 1, int(len(values) * share))]


def _goals(sizes):
    largest = f"{sizes.numbers[-1]:,} VMs"
    appear = sizes.last(lambda found: found["appear"])
    yield f"{largest} appear within {APPEAR_GOAL} s", f"{appear:.1f} s", appear < APPEAR_GOAL
    work = sizes.last(_field("unchanged", "daemon"))
    yield f"unchanged cycle of {largest}: own work under {WORK_GOAL} s", f"{work:.2f} s", work < WORK_GOAL
    for cycle in ("unchanged", "1 % changed"):
        growths = [sizes.growth(_field(cycle, "daemon"), base) for base in range(len(sizes.numbers) - 1)]
        told = ", ".join(f"{growth:.2f} of {number:,}" for growth, number in zip(growths, sizes.numbers))
        yield f"{CYCLES[cycle]}: own work for each VM does not grow beyond {LINEAR} times", told, max(growths) <= LINEAR
    kib = sizes.resident()[-1]
    yield f"memory for each of {largest}: under {MEMORY_GOAL} KiB", f"{kib:.1f} KiB", kib < MEMORY_GOAL
    listings = _listings(sizes)[sizes.numbers[-1]].values()
    longest = max(_rank(values, 1) for values in listings)
    for name, share in (("median", 0.5), ("99 of 100", 0.99)):
        slowest = max(_rank(values, share) for values in listings if len(values) >= LISTINGS_NEEDED)
        yield (f"listing a VM's directory while a cycle runs, {name}: under {LISTING_GOAL} ms",
               f"{slowest:.2f} ms (longest of all {longest:.1f} ms)", slowest < LISTING_GOAL)


def _listings(sizes, kinds=tuple(kind for kind in LISTINGS if kind != "none")):
    """Size -> kind -> seconds; kinds without a listing are left out."""
    return {number: {kind: found[f"listing, {kind}"] for kind in kinds if found[f"listing, {kind}"]}
            for number, found in zip(sizes.numbers, sizes.values(lambda found: found))}


def _row(sizes, name, get):
    return [name, *map(count, sizes.values(get)), f"{sizes.growth(get):.2f}"]


def _costs(sizes):
    yield _row(sizes, "all appear, s", lambda found: found["appear"])
    for cycle, name in CYCLES.items():
        yield _row(sizes, f"{name}: own work, s", _field(cycle, "daemon"))
        yield [f"{name}: logged, s", *map(count, sizes.values(_field(cycle, "logged"))), "–"]
        yield [f"{name}: total, s", *map(count, sizes.values(_field(cycle, "seconds"))), "–"]
        yield [f"{name}: controller's work, s", *map(count, sizes.values(_field(cycle, "controller"))), "–"]
    yield ["own work for each changed VM, ms", *("–" if value is None else count(value) for value in sizes.changed()),
           "–"]
    yield _row(sizes, "find over the mount: own work, s", _field("find", "daemon"))
    yield _row(sizes, "find over the mount: total, s", _field("find", "seconds"))
    kib = sizes.resident()
    yield ["resident, KiB for each VM", *map(count, kib), f"{kib[-1] / kib[0]:.2f}"]


def _requests(sizes):
    """Rows: kinds of requests in the largest inventory's cycles."""
    made = {cycle: sizes.last(_field(cycle, "requests")) for cycle in CYCLES}
    names = sorted({name for requests in made.values() for name in requests})
    return [[name, *(f"{requests.get(name, 0):,}" for requests in made.values())] for name in names]


def _listing_rows(sizes):
    for number, kinds in _listings(sizes, tuple(LISTINGS)).items():
        for kind, values in kinds.items():
            ranks = [f"{_rank(values, share):.2f}" for share in (0.5, 0.99, 1)]
            yield [f"{number:,} VMs, {LISTINGS[kind]}", f"{len(values):,}", *ranks]


def report(figures):
    sizes = Sizes(figures["sizes"])
    yield f"{TITLE}\n"
    yield f"{origin('script/bench --inventory', figures)} Medians of {figures['rounds']} cycles, the first of one.\n"
    busy = statistics.median(figures["busy"])
    yield f"Before each size other work took {busy:.0%} of the processors' time.\n"
    if busy > QUIET:
        yield "**The machine was busy**: times, listings above all, are not those of a quiet machine.\n"
    yield "## Goals\n"
    yield from goals_table(_goals(sizes))
    yield "## Cost by number of VMs\n"
    yield ABOUT
    first, last = f"{sizes.numbers[0]:,}", f"{sizes.numbers[-1]:,}"
    yield from table(["", *(f"{number:,}" for number in sizes.numbers), f"for each VM: {last} ÷ {first}"],
                     _costs(sizes))
    yield f"## Requests to the controller in a cycle of {last} VMs\n"
    yield from table(["", *CYCLES.values()], _requests(sizes))
    yield "## Listing one VM's directory with its entries' attributes, ms\n"
    yield ("Every 2 ms a VM at random of those that are complete and do not change. Kinds of cycles with fewer than "
           f"{LISTINGS_NEEDED} listings don't count for the goal.\n")
    yield from table(["while this runs", "listings", "median", "99 of 100", "longest"], _listing_rows(sizes))
