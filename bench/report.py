# SPDX-License-Identifier: Apache-2.0
"""Makes the report of a run's figures.

    report.py OUTPUT-DIRECTORY OLD-REPORT

Prints Markdown: goals, figures, ratios, and what falls short with a profile. A part that the run has left out stands
as the old report has it.
"""

import json
import pathlib
import sys

import report_changed_blocks
import report_inventory
import report_smart_reads
import report_snapshots
from markdown import QUIET, count, goals_table, origin, table

TITLE = "# Measured"

EMISSION_GOAL = 5e6  # grains a second
MEMORY_GOAL = 1024  # KiB for each open disk
LEVEL = 0.95  # from this ratio on two figures count as level in "What falls short"
PROFILE_LINES = 30

ROWS = {"mirador first": "mirador, first read", "mirador": "mirador", "mirador again": "mirador, read again"}
READ_VARIANTS = """\
mirador's disk is a chain of three: a flat base, a delta with 100 pieces of 1 MiB, a delta with every fiftieth grain of
64 KiB. All files lie on tmpfs. "mirador": the loop devices' page caches are full, the mapping's is empty, so that all
bytes come through {mapper}. "first read": the loop devices' are empty too. "read again": the mapping's is full.
"""
# Why mirador stays behind, as profiles showed; printed only where it does.
REASONS = {
    "sequential": "the bytes make a second trip, from the stand-in to the daemon: see the profile below",
    "random": "a read makes one trip to the daemon and a second one to the stand-in, one after the other",
    "open": "each open opens the mapped device anew, which behind the stand-in is a trip to another process",
    "getattr": "each name's header of 960 bytes is opened, read and closed",
    "readdir": "each entry's header of 960 bytes is opened, read and closed, for its inode number and type",
}


def compared(figures, kinds, unit=1.0):
    """Rows of figures and, beside each, how mirador's compares with it."""
    names = list(dict.fromkeys(key.split(", ")[0] for key in figures))
    for name in sorted(names, key=lambda name: list(ROWS).index(name) if name in ROWS else len(ROWS)):
        row = [ROWS.get(name, name)]
        for kind in kinds:
            value = figures.get(f"{name}, {kind}")
            row += [count(value / unit), f"{figures[f'mirador, {kind}'] / value:.2f}"] if value else ["–", "–"]
        yield row


def comparison(title, figures, heads, unit=1.0):
    yield f"## {title}\n"
    columns = [column for head in heads.values() for column in (head, "mirador ÷ it")]
    yield from table(["", *columns], compared(figures, heads, unit))


def growth(memory):
    """KiB of resident memory for each open disk."""
    resident = memory["resident"]
    return (resident[-1] - resident[0]) / (len(resident) - 1)


def goals(figures):
    """(goal, measured, reached)."""
    for block in ("128k", "1m"):
        share = figures["sequential"][f"mirador, {block}"] / figures["sequential"][f"qemu, {block}"]
        yield f"sequential read, {block} blocks: at least level with qemu's export", f"{share:.2f} times", share >= 1
    slowest = min(result["grains_per_s"] for result in figures["emission"].values())
    yield "table emission: at least 5 million grains a second", f"{slowest / 1e6:.1f} million", slowest >= EMISSION_GOAL
    kib = growth(figures["memory"])
    yield f"memory for each open disk: below {MEMORY_GOAL} KiB", f"{kib:.0f} KiB", kib < MEMORY_GOAL


def shortfalls(figures):
    yield from (f"- {goal}: {measured}" for goal, measured, reached in goals(figures) if not reached)
    for part in ("sequential", "random", "calls"):
        for key, value in figures[part].items():
            name, kind = key.split(", ")
            if name not in ("pass-through", "qemu"):
                continue
            share = figures[part][f"mirador, {kind}"] / value
            if share < LEVEL:
                whats = {"sequential": f"sequential read, {kind} blocks", "random": f"random reads, {kind} at a time"}
                what = whats.get(part, kind)
                yield f"- {what}: {share:.2f} of {name}; {REASONS[kind if part == 'calls' else part]}."


def head(figures):
    yield f"{TITLE}\n"
    yield (f"{origin('script/bench', figures)} Medians of {figures['rounds']} rounds ({figures['short_rounds']} where "
           f"not sequential) in which the contestants take turns. Between the rounds other work took "
           f"{figures['busy']:.0%} of the processors' time.\n")
    if figures["busy"] > QUIET:
        yield ("**The machine was busy.** Ways to the bytes that use more processes then lose more: the ratios are not "
               "those of a quiet machine.\n")
    yield "## Goals\n"
    yield from goals_table(goals(figures))
    yield "What is compared:\n"
    yield from (f"- {name}: {what}" for name, what in figures["subjects"].items())
    yield ""


def emission(figures):
    yield "## Table emission, disk of 1 TiB with 16,777,216 grains\n"
    yield ("From the descriptor to the finished table file. Grains held: those in the delta. Scattered: each grain by "
           "itself, anywhere in the delta's file; clustered: runs of 64.\n")
    rows = [[name, *[f"{result[key] / 1e6:,.1f}" for key in ("grains_per_s", "held_grains_per_s", "lines_per_s")],
             f"{result['lines']:,.0f}", f"{result['table_bytes'] / 1e6:,.0f}", f"{result['peak_kib']:,.0f}"]
            for name, result in figures["emission"].items()]
    yield from table(["grains held", "million grains/s", "million held grains/s", "million lines/s", "lines",
                      "table, MB", "peak memory, KiB"], rows)


def memory(figures):
    found = figures["memory"]
    resident = found["resident"]
    yield f"## Memory with {len(resident) - 1} open disks\n"
    yield (f"Disks of 1 TiB, 1 % of the grains held, clustered; a table has {found['table_lines']:,} lines. No grain "
           f"table is taken off. An open with all its set-up takes {found['open_seconds']:.2f} s.\n")
    rows = [["none", count(resident[0]), "–"], ["1", count(resident[1]), count(resident[1] - resident[0])],
            [str(len(resident) - 1), count(resident[-1]), count(growth(found))], ["peak", count(found["peak"]), "–"]]
    yield from table(["open disks", "resident, KiB", "for each disk, KiB"], rows)
    if found["stand_in"]:
        yield f"The stand-in for device-mapper, which keeps all tables: {count(found['stand_in'])} KiB.\n"


def falls_short(figures, profile):
    yield "## What falls short\n"
    lines = list(shortfalls(figures))
    yield from lines or ["Nothing: no goal is missed, no comparison lost."]
    yield ""
    if profile:
        yield "Where the processors' time goes during a sequential read of mirador's disk (perf):\n"
        yield "```"
        yield from profile[:PROFILE_LINES]
        yield "```"
    else:
        yield "No profile: perf does not run on this machine."


def report(figures, profile):
    yield from head(figures)
    yield from comparison("Sequential read of 1 GiB, MB/s", figures["sequential"],
                          {"128k": "128 KiB blocks", "1m": "1 MiB blocks"}, 1e6)
    yield READ_VARIANTS.format(mapper="the stand-in for device-mapper" if figures["memory"]["stand_in"]
                               else "the kernel's device-mapper")
    yield from comparison("Random reads of 4 KiB, a second", figures["random"], {"1": "1 reader", "16": "16 readers"})
    yield from comparison("Calls, a second", figures["calls"],
                          {"open": "open + close of a cached disk", "getattr": "getattr, 10,000 names",
                           "readdir": "entries listed, of 10,000"})
    yield from emission(figures)
    yield from memory(figures)
    yield from falls_short(figures, profile)


def measured(directory):
    """The parts that a run has measured, by the file of their figures."""
    found = {}
    profile = directory / "profile.txt"
    lines = profile.read_text().splitlines() if profile.exists() else []
    for name, make in PARTS.items():
        path = directory / name
        if path.exists():
            figures = json.loads(path.read_text())
            found[name] = "\n".join(make(figures, lines) if make is report else make(figures)).strip()
    return found


def old_parts(path):
    """The parts as they stand in a report: each begins with a title of the first order."""
    text = path.read_text() if path.exists() else ""
    starts = [text.find(title) for title in TITLES]
    ends = [min([end for end in starts if end > start], default=len(text)) for start in starts]
    return {name: text[start:end].strip() for name, start, end in zip(PARTS, starts, ends) if start >= 0}


def main():
    parts = old_parts(pathlib.Path(sys.argv[2])) | measured(pathlib.Path(sys.argv[1]))
    print("\n\n".join(parts[name] for name in PARTS if name in parts))


PARTS = {"figures.json": report, "smart_reads.json": report_smart_reads.report,
         "inventory.json": report_inventory.report, "snapshots.json": report_snapshots.report,
         "changed_blocks.json": report_changed_blocks.report}
TITLES = (TITLE, report_smart_reads.TITLE, report_inventory.TITLE, report_snapshots.TITLE,
          report_changed_blocks.TITLE)
if __name__ == "__main__":
    main()
