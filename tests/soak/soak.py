"""Everything at once, for as long as one likes; see script/soak.

stage        datastores, VMs, appliance, daemon
model        what the disks hold: the truth
clients      how files are opened and compared
excuses      why a client may see an error
work         workers: readers, rounds, guests, inventory_changes, faults, attributes, signals
leaks        what the daemon holds and says of itself
tally        what has been done
kills        the other way to run: kill the daemon over and over
"""

import argparse
import contextlib
import faulthandler
import os
import pathlib
import random
import shutil
import sys
import time

sys.path[:0] = [str(pathlib.Path(__file__).resolve().parents[1] / "e2e")]

from harness import place  # noqa: E402
from harness.tools import WORK  # noqa: E402

_FACTOR = 10  # the daemon's seconds in one of the clock on the wall
_SETTINGS = {"snapshot.retry_limit": "12", "appliance.cbt.percent": "1", "export.cache.ttl": "60"}
_DRAWN = {"export.max_session": ("20", "30"), "snapshot.max_idle": ("0", "20", "200"),
          "snapshot.blocking_removal": ("0", "1"), "smartread.enabled": ("0", "1"), "export.vm_uuid.enabled": ("0", "1")}
_LINE = 5  # seconds between two lines
_STILL = 600  # seconds for the workers to come to the end of a step
_STAGE = 5  # minutes between two looks, fewer when there is little time: the warm-up is a third of it

_PATHS = 5000  # more than the daemon remembers errors of

# Memory that may come on top of the warm-up's, in MiB. What stays in use has its full size by then, the memory of errors
# from the start; the rest is fragments of what is used and freed by threads that come and go. Sanitizers keep what is
# freed for a while, and notes on it.
_MARGINS = {"none": 16, "asan": 32, "tsan": 64}


def main() -> int:
    options = _parse()
    place.enter()
    # After the sandbox is entered: these modules need what the harness finds there.
    from stage import Stage, make_place  # pylint: disable=import-outside-toplevel
    from tally import Tally  # pylint: disable=import-outside-toplevel
    tally = Tally(options.seed)
    draw = random.Random(f"{options.seed} settings")
    settings = _SETTINGS | {key: draw.choice(values) for key, values in _DRAWN.items()}
    print(f"seed {options.seed}: {settings}", flush=True)
    reports = make_place()
    if options.kills:
        import kills  # pylint: disable=import-outside-toplevel
        kills.kill_over_and_over(tally, reports, options.kills)
    else:
        _soak(Stage(tally, _FACTOR, settings, reports), tally, reports, options)
    if tally.failures and options.keep:
        with contextlib.suppress(shutil.Error):  # some may go meanwhile
            shutil.copytree(WORK, options.keep, dirs_exist_ok=True, ignore=_special_files)
    print(tally.line(), tally.reasons(), sep="\n")
    print(f"FAILED, seed {options.seed}" if tally.failures else "all was right", flush=True)
    sys.stdout.flush()
    os._exit(1 if tally.failures else 0)  # workers may hang


def _parse() -> argparse.Namespace:
    parser = argparse.ArgumentParser()
    parser.add_argument("--minutes", type=float, default=2)
    parser.add_argument("--kills", type=int, default=0)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--sanitizer", choices=_MARGINS, default="none")
    parser.add_argument("--keep", default=None)
    options = parser.parse_args()
    if options.seed is None:
        options.seed = int(time.time())
        sys.argv += ["--seed", str(options.seed)]
    return options


def _special_files(directory: str, names: list[str]) -> list[str]:
    paths = (pathlib.Path(directory, name) for name in names)
    return [path.name for path in paths if not path.is_dir() and not path.is_file()]


def _workers(stage, calm, leaks):
    from attributes import Attributes
    from faults import AgentFaults, ControllerFaults
    from guests import Guests
    from inventory_changes import InventoryChanges
    from readers import DiskReader, Hoarder
    from rounds import Rounds
    from signals import Hangups
    return [*(DiskReader(f"reader-{number}", stage, calm) for number in range(4)),
            *(Rounds(number, stage, calm) for number in range(len(stage.tracked))),
            Hoarder("hoarder", stage, calm), Guests("guests", stage, calm), InventoryChanges(stage, calm),
            AgentFaults(stage, calm), ControllerFaults(stage, calm), Attributes("attributes", stage, calm),
            Hangups(leaks, stage, calm)]


def _soak(stage, tally, reports, options) -> None:
    from leaks import MIB, Leaks
    from work import Calm
    leaks = Leaks(stage.daemon, reports, _MARGINS[options.sanitizer] * MIB)
    calm = Calm(tally)
    print("the datastores are made and the daemon is started", flush=True)
    workers = _workers(stage, calm, leaks)
    try:
        stage.start()
        stage.rest()
        leaks.start()
        _fill_memory_of_errors(stage.vms[0].place.directory)
        print(f"idle: {leaks.idle.line()}", flush=True)
        tally.start()
        for worker in workers:
            worker.start()
        looks = 3 * max(1, round(options.minutes / 3 / _STAGE))
        for look in range(looks):
            _watch(tally, options.minutes * 60 / looks, look, looks)
            _look(stage, tally, leaks, calm, workers, is_warm=look + 1 >= looks / 3)
        if not tally.failures:
            tally.ended.set()
            for worker in workers:
                worker.join(_STILL)
            stage.stop()
            leaks.check_reports()
    except Exception as fault:  # pylint: disable=broad-exception-caught
        tally.fail("the end" if tally.ended.is_set() else "a look", fault)
    if tally.failures:
        print(stage.daemon.last_lines(), flush=True)


def _fill_memory_of_errors(directory: pathlib.Path) -> None:
    for number in range(_PATHS):
        with contextlib.suppress(FileNotFoundError):
            os.stat(directory / f"nothing-there-{number}")


def _watch(tally, seconds: float, number: int, of: int) -> None:
    """Tells how far it is, for a while or until something fails. number, of: which of the whiles it is, from 0 on."""
    end = time.monotonic() + seconds
    while not tally.ended.is_set() and time.monotonic() < end:
        tally.ended.wait(min(_LINE, max(0.1, end - time.monotonic())))
        share = (number + min(1, 1 - (end - time.monotonic()) / seconds)) / of
        print(f"{100 * share:3.0f} % {tally.line()}", flush=True)


def _look(stage, tally, leaks, calm, workers, is_warm: bool) -> None:
    """Everybody stands still, and everything comes to rest. is_warm: memory counts from now on."""
    if tally.ended.is_set():
        return
    late = calm.begin([worker.name for worker in workers], _STILL)
    if tally.ended.is_set():
        return
    if late:
        faulthandler.dump_traceback()
        raise TimeoutError(f"{late} did not come to the end of a step within {_STILL} s\n{stage.daemon.threads()}")
    stage.rest()
    for vm in stage.vms:
        if vm.uuid not in stage.away:
            vm.check_contents()
    print(f"at rest: {leaks.look(is_warm).line()}", flush=True)
    calm.end()


if __name__ == "__main__":
    sys.exit(main())
