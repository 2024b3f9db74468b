"""Backups of what changed: a full copy of a VM, then rounds of writes and changed-block files, each of which laid over
the full copy must give the disks of its moment; resets in between."""

import contextlib
import errno
import http.client
import os
import pathlib
import shutil

from harness.tools import WORK, Failed, program, run

from model import Vm, Wrong, without_header
from work import Worker

_TOO_MUCH = 27  # more has changed than the file promises
_NEW_START = (8, 1005)  # what has changed is not known any more
_PENDING = 300  # seconds for the daemon to do what belongs to a reset: when the VM's snapshot has gone


class Rounds(Worker):
    """Backs one VM up. Nobody else opens its disks: whoever opens one without copying it must not be the one from whose
    moment changes count."""

    def __init__(self, number: int, *rest):
        super().__init__(f"rounds-{number}", *rest)
        self._vm: Vm = self.stage.tracked[number]
        self._full: dict[str, pathlib.Path] = {}
        self._mtimes: dict[str, float] = {}

    def step(self) -> None:
        with self.clients.may_miss(self._vm, self._vm.place.directory):
            self._back_up()
        self.draw.choices((self._reset, lambda: self.pause(0, 4)), (1, 8))[0]()

    def _back_up(self) -> None:
        times = self._times()
        if times != self._mtimes:  # as a backup tool would
            self._full = {}
        if not self._full:
            self._copy_fully(times)
        for _ in range(self.draw.randint(0, 2)):
            self._vm.write(self.draw.getrandbits(32), self.draw.randint(1, 20))
        if self._full:
            self._copy_changes()

    def _times(self) -> dict[str, float]:
        return {disk: os.stat(self._vm.flat(disk)).st_mtime for disk in self._vm.disks}

    def _file(self, disk: str, kind: str) -> pathlib.Path:
        return WORK / f"{self._vm.name}-{disk}.{kind}"

    def _copy_fully(self, times: dict[str, float]) -> None:
        """Both disks, of one snapshot."""
        with contextlib.ExitStack() as stack:
            readers = {disk: stack.enter_context(self.clients.opened(self._vm, self._vm.flat(disk)))
                       for disk in self._vm.disks}
            if None in readers.values():
                return
            for disk in readers:
                self._copy(self._vm.flat(disk), self._file(disk, "full"))
                self._check_image(disk, self._file(disk, "full"))
        self._full = {disk: self._file(disk, "full") for disk in readers}
        self._mtimes = times
        self.tally.count("full copies")

    def _copy(self, source: pathlib.Path, target: pathlib.Path) -> None:
        size = self.draw.choice(("16K", "64K", "1M"))
        try:
            run("dd", f"if={source}", f"of={target}", f"bs={size}", "status=none", timeout=600)
        except Failed as failure:
            if os.strerror(errno.ENOENT) not in str(failure):
                raise
            raise FileNotFoundError(errno.ENOENT, os.strerror(errno.ENOENT), source) from failure
        self.tally.count("bytes", target.stat().st_size)

    def _check_image(self, disk: str, image: pathlib.Path) -> None:
        if without_header(disk, image.read_bytes()) != self._vm.frozen(disk, self.clients.own):
            kept = image.with_suffix(".wrong")
            shutil.copyfile(image, kept)
            raise Wrong(f"{self._vm.name}, {disk}: {image} is not the disk of the snapshot; kept as {kept}")

    def _copy_changes(self) -> None:
        with contextlib.ExitStack() as stack:
            for disk in self.draw.sample(self._vm.disks, self.draw.randint(1, len(self._vm.disks))):
                path = self._vm.changed(disk)
                # Two places: its own, and the disk's below it.
                if stack.enter_context(self.clients.opened(self._vm, path, places=2)) is None:
                    self._failed(path)
                    return
                self._copy(path, self._file(disk, "changes"))
                self._check_changes(disk)
        self.tally.count("rounds")

    def _check_changes(self, disk: str) -> None:
        image = self._file(disk, "image")
        run(program("mirador-restore"), self._full[disk], self._file(disk, "changes"), "-o", image, "--force",
            timeout=600)
        self._check_image(disk, image)
        image.unlink()

    def _failed(self, path: pathlib.Path) -> None:
        """A changed-block file that cannot be made; after some errors there must be a new full copy."""
        number, _ = self.clients.told(path)  # may be that of an earlier failure: no harm
        if number == _TOO_MUCH:
            self._reset()
        elif number in _NEW_START:
            self._full = {}

    def _reset(self) -> None:
        """Tracking starts anew; what was copied before is of no use when the daemon has heard of it."""
        with self.stage.excuses.during(self._vm.uuid, "a reset", r"; (8|1005): "):
            self.stage.appliance.command("cbt", self._vm.name, "reset")
            self.tally.count("resets")
            if self.draw.random() < 0.7:
                self.wait_for(lambda: not self._is_pending(), f"{self._vm.name}: the reset is done", _PENDING)
        self._full = {}

    def _is_pending(self) -> bool:
        try:
            found = self.stage.appliance.get(f"vhost?vm_uuid={self._vm.uuid}")
        except (OSError, http.client.HTTPException, ValueError):  # a fault of the controller's
            return True
        return bool(found[0]["cbt_reset_pending"])
