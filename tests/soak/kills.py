"""Kills the daemon over and over, at random moments under load, and looks at what the next start makes of it."""

import contextlib
import os
import pathlib
import random
import signal
import subprocess
import threading
import time
from collections.abc import Iterator

from harness import census
from harness.compare import Reader
from harness.tools import WORK, program, run, saved_error, wait_equal, wait_until

from leaks import check_reports
from model import Vm, Wrong, without_header
from stage import BOUND, OWN, Stage
from tally import Tally

_FACTOR = 20  # the daemon's seconds in one of the clock on the wall
_SETTINGS = {"export.max_session": "40", "snapshot.max_idle": "20", "snapshot.retry_limit": "60",
             "appliance.cbt.percent": "1", "export.cache.ttl": "60"}
_CACHE = pathlib.Path("/var/corvantis/vm_proxy_cache")
_MOUNTS = ["/export", "/export.shadow"]
_VMS = (2, 2, 0)
_LOAD = 5  # threads
_LONGEST = 6.0  # seconds that a daemon under load may live
_BLOCK = 128 * 1024
_ROUNDS = 5  # of writes between two kills
_NEW_BACKUP = 10  # kills after which the full copies are made anew
_TOO_MUCH = 27  # more has changed than a changed-block file promises


def kill_over_and_over(tally: Tally, reports: pathlib.Path, count: int) -> None:
    stage = Stage(tally, _FACTOR, _SETTINGS, reports, _VMS)
    killer = Killer(stage)
    try:
        stage.start()
        stage.rest()
        killer.prepare()
        for number in range(count):
            killer.kill_once(number)
            print(f"kill {number + 1} of {count} {tally.line()}; last: {killer.last}", flush=True)
        stage.rest()
        stage.stop()
        check_reports(reports)
    except Exception as fault:  # pylint: disable=broad-exception-caught
        tally.fail(f"after the kill {killer.last}", fault)
        print(stage.daemon.last_lines(), flush=True)


class Load:
    """Clients that open and read disks and changed-block files until the daemon is gone, and guests that write. An error
    before it is told to die is a fault; wrong bytes always are."""

    def __init__(self, stage: Stage, seed: int):
        self._stage, self._dies = stage, threading.Event()
        self.faults: list[BaseException] = []
        self._threads = [threading.Thread(target=self._go_on, args=(random.Random(f"{seed} {number}"),), daemon=True)
                         for number in range(_LOAD)]

    def start(self) -> None:
        for thread in self._threads:
            thread.start()

    def dies(self) -> None:
        """From now on, errors are no wonder."""
        self._dies.set()

    def end(self) -> None:
        """Wrong: somebody met a fault or hangs."""
        for thread in self._threads:
            thread.join(60)
        if any(thread.is_alive() for thread in self._threads):
            raise Wrong("a client hangs")
        if self.faults:
            raise self.faults[0]

    def _go_on(self, draw: random.Random) -> None:
        try:
            while not self._dies.is_set():
                vm = draw.choice(self._stage.read + self._stage.tracked)
                if draw.random() < 0.2:
                    vm.write(draw.getrandbits(32), _ROUNDS)
                elif vm in self._stage.read:
                    self._read(vm, draw.choice(vm.disks))
                else:
                    self._skim(vm.changed(draw.choice(vm.disks)))
        except BaseException as fault:  # pylint: disable=broad-exception-caught
            self.faults.append(fault)

    def _read(self, vm: Vm, disk: str) -> None:
        with contextlib.ExitStack() as stack:
            try:
                reader = stack.enter_context(Reader(vm.flat(disk)))
                truth = vm.frozen(disk, OWN)
            except Exception as fault:  # pylint: disable=broad-exception-caught
                if self._dies.is_set():
                    return
                raise Wrong(f"{vm.flat(disk)}: {saved_error(vm.flat(disk))}") from fault
            self._stage.tally.count("opens")
            for offset in range(0, len(truth), _BLOCK):
                with self._may_die(vm.flat(disk)):
                    self._stage.clients.read_equal(reader, disk, truth, offset, _BLOCK)

    def _skim(self, path: pathlib.Path) -> None:
        """What is in it is looked at when nothing dies."""
        with self._may_die(path), Reader(path) as reader:
            self._stage.tally.count("opens")
            for offset in range(0, os.fstat(reader.fileno()).st_size, _BLOCK):
                reader.read(offset, _BLOCK)

    @contextlib.contextmanager
    def _may_die(self, path: pathlib.Path) -> Iterator[None]:
        try:
            yield
        except OSError:
            if not self._dies.is_set() and saved_error(path)[0] != _TOO_MUCH:
                raise Wrong(f"{path}: {saved_error(path)}") from None


class Killer:
    """last: what the last kill was like."""

    def __init__(self, stage: Stage):
        self._stage, self._tally = stage, stage.tally
        self._draw = random.Random(f"{stage.tally.seed} kills")
        self._full: dict[tuple[str, str], pathlib.Path] = {}
        self._cached: set[pathlib.Path] = set()
        self.last = "none yet"

    def prepare(self) -> None:
        self._cached = self._cache()
        self._copy_fully()

    def kill_once(self, number: int) -> None:
        kill = self._draw.choices((self._kill_under_load, self._kill_at_start, self._kill_at_end), (7, 1, 2))[0]
        load = Load(self._stage, self._draw.getrandbits(32))
        dead = kill(number, load)
        self._leave_traces(number)
        began = time.monotonic()
        self._stage.daemon.start(BOUND)  # a tool is run for each loop device that the machine has ever had
        dead.wait(timeout=30)
        load.end()
        self._check_machine()
        self._check_controller()
        self._stage.wait_tree()
        wait_equal(self._cache, self._cached, "the cache is as ever", BOUND)
        self._check_snapshots()
        self._check_backups(number)
        self._tally.count("kills")
        self.last += f"; all in order after {time.monotonic() - began:.1f} s"

    # The kill

    def _kill_under_load(self, number: int, load: Load) -> subprocess.Popen:
        seconds = self._draw.uniform(0, _LONGEST)
        self.last = f"no. {number}, {seconds:.3f} s after the load began"
        load.start()
        time.sleep(seconds)
        load.dies()
        return self._stage.daemon.kill_and_leave()

    def _kill_at_start(self, number: int, load: Load) -> subprocess.Popen:
        """One is killed under load, and the next before it has come up."""
        first = self._kill_under_load(number, load)
        seconds = self._draw.uniform(0, 1)
        self.last += f", and {seconds:.3f} s after the next start"
        self._stage.daemon.launch()
        time.sleep(seconds)
        second = self._stage.daemon.kill_and_leave()
        second.wait(timeout=30)
        return first

    def _kill_at_end(self, number: int, load: Load) -> subprocess.Popen:
        before, seconds = self._draw.uniform(0, _LONGEST), self._draw.uniform(0, 1.5)
        self.last = f"no. {number}, {seconds:.3f} s after it was told to end, {before:.3f} s after the load began"
        load.start()
        time.sleep(before)
        load.dies()
        self._stage.daemon.signal(signal.SIGTERM)
        time.sleep(seconds)
        return self._stage.daemon.kill_and_leave()

    # What must be there then

    def _leave_traces(self, number: int) -> None:
        """What a dead daemon might leave, whatever it was about."""
        _CACHE.mkdir(parents=True, exist_ok=True)
        (_CACHE / f"left-{number}.tmp").touch()
        vm = self._draw.choice(self._stage.tracked)
        self._stage.appliance.post("vmconfig", {"uuid": vm.uuid, "snap_suffix": "left"})
        for disk in vm.disks:
            known = self._stage.appliance.record(vm.uuid, disk)
            self._stage.appliance.note(vm.uuid, disk, changeid_incr=known["changeid"])

    def _check_machine(self) -> None:
        found = census.left(self._stage.before)
        kinds = {kind: found.get(kind, []) for kind in ("loops", "mappings", "mounts", "temporary")}
        if kinds != {"loops": [], "mappings": [], "mounts": _MOUNTS, "temporary": []}:
            raise Wrong(f"the machine is not as it should be: {kinds}")

    def _check_controller(self) -> None:
        """Suffixes and change ids that nobody stands for are void."""
        def left():
            vms = [found["name"] for found in self._stage.appliance.get("vhost") if found.get("snap_suffix")]
            ids = [(vm.name, disk) for vm in self._stage.tracked for disk in vm.disks
                   if self._stage.appliance.record(vm.uuid, disk).get("changeid_incr", "") not in ("", "uninitialized")]
            return vms, ids
        wait_equal(left, ([], []), "no suffix and no change id of a dead one's", BOUND)

    def _check_snapshots(self) -> None:
        for vm in self._stage.vms:
            wait_until(lambda vm=vm: self._stage.is_clean(vm), f"{vm.name}: no snapshot", BOUND)
            vm.check_contents()

    @staticmethod
    def _cache() -> set[pathlib.Path]:
        return {path for path in _CACHE.rglob("*") if path.is_file()}

    # Backups

    def _check_backups(self, number: int) -> None:
        """A disk is read, or what changed on it."""
        if number % _NEW_BACKUP == _NEW_BACKUP - 1:
            self._copy_fully()
        self._draw.choice((self._check_disk, self._check_changes))()
        self._tally.count("backups")

    def _check_disk(self) -> None:
        vm = self._draw.choice(self._stage.read)
        disk = self._draw.choice(vm.disks)
        with _opened(vm.flat(disk)) as reader:
            truth = vm.frozen(disk, OWN)
            for offset in range(0, len(truth), _BLOCK):
                self._stage.clients.read_equal(reader, disk, truth, offset, _BLOCK)

    def _check_changes(self) -> None:
        vm = self._draw.choice(self._stage.tracked)
        disk = self._draw.choice(vm.disks)
        if not self._has_room(vm, disk):
            self._copy_fully()
        with _opened(vm.changed(disk)):
            changes = _copy(vm.changed(disk), WORK / "changes")
            image = WORK / "image"
            run(program("mirador-restore"), self._full[vm.name, disk], changes, "-o", image, "--force")
            self._check_image(vm, disk, image)

    @staticmethod
    def _has_room(vm: Vm, disk: str) -> bool:
        try:
            Reader(vm.changed(disk)).__exit__()
        except OSError:
            return saved_error(vm.changed(disk))[0] != _TOO_MUCH
        return True

    def _copy_fully(self) -> None:
        """Tracking starts anew, so that changed-block files do not grow for ever."""
        for vm in self._stage.tracked:
            self._stage.appliance.command("cbt", vm.name, "reset")
            wait_until(lambda vm=vm: self._is_reset(vm), f"{vm.name}: the reset is done", BOUND)
            for disk in vm.disks:
                with _opened(vm.flat(disk)):
                    self._full[vm.name, disk] = _copy(vm.flat(disk), WORK / f"{vm.name}-{disk}.full")
                    self._check_image(vm, disk, self._full[vm.name, disk])

    def _is_reset(self, vm: Vm) -> bool:
        return not self._stage.appliance.get(f"vhost?vm_uuid={vm.uuid}")[0]["cbt_reset_pending"]

    def _check_image(self, vm: Vm, disk: str, image: pathlib.Path) -> None:
        data = image.read_bytes()
        self._tally.count("bytes", len(data))
        if without_header(disk, data) != vm.frozen(disk, OWN):
            raise Wrong(f"{vm.name}, {disk}: {image} is not the disk of the snapshot")


def _opened(path: pathlib.Path) -> Reader:
    try:
        return Reader(path)
    except OSError as error:
        raise Wrong(f"{path} cannot be opened: {saved_error(path)}") from error


def _copy(source: pathlib.Path, target: pathlib.Path) -> pathlib.Path:
    run("dd", f"if={source}", f"of={target}", "bs=64K", "status=none", timeout=600)
    return target
