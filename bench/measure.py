# SPDX-License-Identifier: Apache-2.0
"""The measurements. Each returns figures by subject and kind; whatever is compared takes turns, round by round, so that
work of others on the machine falls on all alike."""

import json
import os
import pathlib
import re
import statistics
import subprocess
import time
from functools import partial

from harness import compare, disks
from harness.daemon import EXPORT, Daemon, Entry
from harness.tools import program, run

from subjects import DISK_SIZE, WORK, mount_tmpfs
from told import tell

HERE = pathlib.Path(__file__).resolve().parent
BLOCKS = ("128k", "1m")
READERS = (1, 16)
RANDOM_BYTES = 80 << 20
OPENS = 5000
EMISSION_COUNTS = ("lines", "table_bytes", "peak_kib")
OPEN_DISKS = 50
HEADER_SECTORS = range(disks.SECTOR * 2, disks.SECTOR * 17)  # one of these holds the virtual disk header


def check_bytes(subjects):
    """Figures of a reader that reads wrong bytes are worth nothing."""
    for subject in subjects.values():
        if subject.name == "loop":  # a device has no size to compare
            continue
        difference = compare.first_difference(subject.file, subjects["file"].file, HEADER_SECTORS)
        if difference:
            raise RuntimeError(f"{subject.name}: {difference}")


def _fio(job, subject, **variables):
    environment = {**os.environ, "FILE": str(subject.file), **{k: str(v) for k, v in variables.items()}}
    done = subprocess.run(["fio", "--readonly", "--output-format=json", HERE / job], env=environment, cwd=WORK,
                          check=True, capture_output=True, text=True)
    return json.loads(done.stdout[done.stdout.index("{"):])["jobs"][0]["read"]


def read_through(subject, block):
    return _fio("sequential.fio", subject, BLOCK=block)["bw_bytes"]


def _random(subject, readers):
    subject.forget_mapping()
    part, share = DISK_SIZE // readers, RANDOM_BYTES // readers
    return _fio("random.fio", subject, READERS=readers, PART=part, SHARE=share)["iops"]


def busy_share(seconds):
    """The share of the processors' time that others use while nothing is measured."""
    def read():
        times = [int(word) for word in pathlib.Path("/proc/stat").read_text().split("\n")[0].split()[1:]]
        return sum(times[:8]), times[3] + times[4]
    total, idle = read()
    time.sleep(seconds)
    total_after, idle_after = read()
    return 1 - (idle_after - idle) / (total_after - total)


busy_between_rounds = []  # busy_share, before every round


def taking_turns(rounds, contestants):
    """Runs each contestant (key: function) once a round; the median of its figures by key."""
    figures = {key: [] for key in contestants}
    keys = list(contestants)
    for number in range(rounds):
        tell(f"  round {number + 1} of {rounds}, {len(keys)} measurements")
        busy_between_rounds.append(busy_share(0.5))
        for key in keys[number % len(keys):] + keys[:number % len(keys)]:
            figures[key].append(contestants[key]())
    return {key: statistics.median(values) for key, values in figures.items()}


def _first_read(subject, block):
    subject.forget_mapping()
    for device in subject.loops:
        run("blockdev", "--flushbufs", device)
    return read_through(subject, block)


def _read_unmapped(subject, block):
    subject.forget_mapping()
    return read_through(subject, block)


def _read_mapped(subject, block):
    run("dd", f"if={subject.mapping}", "of=/dev/null", "bs=1M")
    return read_through(subject, block)


def sequential(subjects, rounds):
    """Bytes a second by "subject, block". The daemon three times: with the page caches of mapping and loop devices
    empty ("first"), with the mapping's empty, and with both full ("again")."""
    contestants = {}
    for block in BLOCKS:
        for subject in subjects.values():
            contestants[f"{subject.name}, {block}"] = partial(_read_unmapped, subject, block)
            if subject.mapping:
                contestants[f"{subject.name} first, {block}"] = partial(_first_read, subject, block)
                contestants[f"{subject.name} again, {block}"] = partial(_read_mapped, subject, block)
    return taking_turns(rounds, contestants)


def random_reads(subjects, rounds):
    """Reads a second by "subject, readers"."""
    return taking_turns(rounds, {f"{subject.name}, {readers}": partial(_random, subject, readers)
                                 for readers in READERS for subject in subjects.values()})


def _rate(*arguments):
    count, seconds = run(program("bench-calls"), *arguments).split()
    return int(count) / float(seconds)


def calls(subjects, rounds):
    """Operations a second by "subject, kind"."""
    contestants = {}
    for subject in subjects.values():
        contestants[f"{subject.name}, open"] = partial(_rate, "open", subject.file, str(OPENS))
        for kind in ("getattr", "readdir") if subject.directory else ():
            contestants[f"{subject.name}, {kind}"] = partial(_rate, kind, subject.directory)
    return taking_turns(rounds, contestants)


def emission(rounds):
    """What bench-emission counts, each figure its median, by "percent, layout"."""
    directory = WORK / "emission"
    directory.mkdir()
    os.environ["TMPDIR"] = str(directory)
    output = run(program("bench-emission"), f"--benchmark_repetitions={rounds}", "--benchmark_format=json", timeout=300)
    by_name = {}
    for result in json.loads(output)["benchmarks"]:
        if result.get("error_occurred"):
            raise RuntimeError(result["error_message"])
        if result["run_type"] == "iteration":
            percent, clustered = re.search(r"percent:(\d+)/clustered:(\d)", result["name"]).groups()
            by_name.setdefault(f"{percent} %, {'clustered' if clustered == '1' else 'scattered'}", []).append(result)
    return {name: {key: statistics.median(result[key] for result in results)
                   for key in results[0] if key.endswith("_per_s") or key in EMISSION_COUNTS}
            for name, results in by_name.items()}


def status_kib(pid, field):
    """A field of a process's status that is a number of KiB."""
    text = pathlib.Path(f"/proc/{pid}/status").read_text()
    return int(re.search(rf"(?m)^{field}:\s+(\d+) kB$", text)[1])


def _stand_in():
    """Process id of the stand-in for device-mapper, where there is one."""
    for entry in pathlib.Path("/proc").iterdir():
        if entry.name.isdigit() and (entry / "comm").read_text().strip() == "fuse-dmsetup":
            return int(entry.name)
    return None


def memory():
    """Resident memory in KiB while OPEN_DISKS disks are opened one after the other: 1 TiB each, one grain in a hundred
    in the delta."""
    store = disks.Datastore("large", disks.DIRECT_ROOT / "large")
    mount_tmpfs(store.directory)
    (disks.ORDINARY_ROOT / "large").symlink_to(store.directory)
    disk = pathlib.Path(run(program("bench-disk"), store.directory, "1").strip())
    daemon = Daemon()
    daemon.start()
    names = [f"many/disk-{number:02d}-flat.vmdk" for number in range(OPEN_DISKS)]
    daemon.export(*[Entry(name, store.link(disk), stat=str(store.directory / "base-flat.vmdk"), size=1 << 40)
                    for name in names])
    os.listdir(EXPORT / "many")
    resident, seconds, files = [status_kib(daemon.pid, "VmRSS")], [], []
    for name in names:
        begin = time.monotonic()
        files.append(open(EXPORT / name, "rb", buffering=0))
        seconds.append(time.monotonic() - begin)
        files[-1].read(1 << 20)
        resident.append(status_kib(daemon.pid, "VmRSS"))
    peak = status_kib(daemon.pid, "VmHWM")
    stand_in = _stand_in()
    tool = program("fuse-dmsetup") if stand_in else "dmsetup"
    figures = {"resident": resident, "peak": peak, "open_seconds": statistics.median(seconds),
               "stand_in": status_kib(stand_in, "VmRSS") if stand_in else None,
               "table_lines": run(tool, "table", _mapping_of(daemon)).count("\n")}
    daemon.kill()  # stopping it takes a second for each disk; the sandbox cleans up
    for file in files:
        file.close()
    return figures


def _mapping_of(daemon):
    paths = daemon.descriptors().values()
    return next(os.path.basename(path) for path in paths if path.startswith("/dev/mapper/"))
