# SPDX-License-Identifier: Apache-2.0
"""Measures one part once and writes the figures as JSON. Runs in a sandbox; script/bench starts it.

    run.py {bytes,smart-reads,inventory,snapshots,changed-blocks} OUTPUT-DIRECTORY [--quick]

Leaves figures.json, and profile.txt with what the machine did during sequential reads; or smart_reads.json; or
inventory.json; or snapshots.json; or changed_blocks.json. MIRADOR_BIN names the directory of the programs.
"""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import statistics
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "tests" / "e2e"))

from harness import place  # noqa: E402
import changed_blocks  # noqa: E402
import inventory  # noqa: E402
import measure  # noqa: E402
import smart_reads  # noqa: E402
import snapshots  # noqa: E402
from subjects import all_subjects  # noqa: E402
from told import tell  # noqa: E402


def machine():
    model = re.search(r"model name\s*: (.*)", pathlib.Path("/proc/cpuinfo").read_text())
    memory = re.search(r"MemTotal:\s+(\d+)", pathlib.Path("/proc/meminfo").read_text())
    return {"processor": model[1] if model else platform.machine(), "cores": os.cpu_count(),
            "memory_gib": round(int(memory[1]) / (1 << 20)), "kernel": platform.release()}


def _profile_lines(data, fields, least):
    report = subprocess.run(["perf", "report", "-i", data, "--stdio", "--sort", fields, "--percent-limit", least],
                            capture_output=True, text=True, check=True)
    return [line.rstrip(" -") for line in report.stdout.splitlines() if line and not line.startswith("#")]


def profile(subject, path):
    """Where the processors' time goes during a sequential read of a subject, by process and by function; nothing is
    written where perf can't tell."""
    data = path.with_suffix(".data")
    read = ["dd", f"if={subject.file}", "of=/dev/null", "bs=1M", "status=none"]
    subject.forget_mapping()
    try:
        subprocess.run(["perf", "record", "-q", "-a", "-F", "1997", "-o", data, "--", *read], check=True,
                       capture_output=True)
        lines = _profile_lines(data, "comm", "2") + [""] + _profile_lines(data, "comm,symbol", "1.5")
    except (OSError, subprocess.CalledProcessError):
        return
    data.unlink()
    path.write_text("\n".join(lines) + "\n")


def origin(output):
    """Where, when and on what is measured."""
    return {"machine": machine(), "date": datetime.datetime.now().astimezone().isoformat(timespec="minutes"),
            "commit": (output / "commit").read_text().strip()}


def measure_bytes(output, quick):
    """Everything but what the other parts measure."""
    rounds = 1 if quick else 5
    short_rounds = 1 if quick else 3
    figures = {**origin(output), "rounds": rounds, "short_rounds": short_rounds}
    tell("disks and subjects")
    with all_subjects() as subjects:
        figures["subjects"] = {subject.name: subject.what for subject in subjects.values()}
        measure.check_bytes(subjects)
        tell("sequential reads")
        figures["sequential"] = measure.sequential(subjects, rounds)
        tell("random reads")
        figures["random"] = measure.random_reads(subjects, short_rounds)
        tell("open, getattr, readdir")
        figures["calls"] = measure.calls(subjects, short_rounds)
        tell("profile")
        profile(subjects["mirador"], output / "profile.txt")
    tell("table emission")
    figures["emission"] = measure.emission(short_rounds)
    tell(f"memory with {measure.OPEN_DISKS} open disks")
    figures["memory"] = measure.memory()
    figures["busy"] = statistics.median(measure.busy_between_rounds)
    (output / "figures.json").write_text(json.dumps(figures, indent=1))


def measure_smart_reads(output, quick):
    """Reads that skip what the guest does not use."""
    tell("optimised reads")
    figures = {**origin(output), **smart_reads.measure_all(quick)}
    figures["busy"] = statistics.median(measure.busy_between_rounds)
    (output / "smart_reads.json").write_text(json.dumps(figures, indent=1))


def measure_inventories(output, quick):
    """Inventories of growing size."""
    rounds = 1 if quick else 3
    figures = {**origin(output), "rounds": rounds, "busy": [], "sizes": {}}
    for count in inventory.QUICK_SIZES if quick else inventory.SIZES:
        tell(f"inventory of {count:,} VMs")
        figures["busy"].append(measure.busy_share(2))
        figures["sizes"][count] = inventory.measure(count, rounds)
    (output / "inventory.json").write_text(json.dumps(figures, indent=1))


def measure_snapshots(output, quick):
    """Opening disks of VMs that need a snapshot."""
    tell("opening disks behind snapshots")
    figures = {**origin(output), "busy": measure.busy_share(2), **snapshots.measure(quick)}
    (output / "snapshots.json").write_text(json.dumps(figures, indent=1))


def measure_changed_blocks(output, quick):
    """Files of changed blocks."""
    tell("changed blocks")
    figures = {**origin(output), **changed_blocks.measure_all(quick)}
    figures["busy"] = statistics.median(measure.busy_between_rounds)
    (output / "changed_blocks.json").write_text(json.dumps(figures, indent=1))


def main():
    parser = argparse.ArgumentParser(usage=__doc__)
    parser.add_argument("part", choices=PARTS)
    parser.add_argument("output", type=pathlib.Path)
    parser.add_argument("--quick", action="store_true", help="one round of everything: a trial, no result")
    arguments = parser.parse_args()
    if not place.is_safe():
        sys.exit("bench/run.py: runs only in a sandbox; use script/bench")
    place.furnish()
    PARTS[arguments.part](arguments.output, arguments.quick)
    tell("done")


PARTS = {"bytes": measure_bytes, "smart-reads": measure_smart_reads, "inventory": measure_inventories,
         "snapshots": measure_snapshots, "changed-blocks": measure_changed_blocks}
if __name__ == "__main__":
    main()
