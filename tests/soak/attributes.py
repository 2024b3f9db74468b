"""Everything that clients do beside reading: listings, attributes, extended attributes, orders to remove snapshots, the
file system's totals."""

import errno
import os
import pathlib
import re
import time

from harness.daemon import EXPORT
from harness.tools import saved_error, xattr

from model import Vm, Wrong
from stage import OWN
from work import Worker

_BLOCK_SIZE = 131072
_ANSWER = re.compile(r"-?\d+:.*", re.DOTALL)
_ANSWERS = ("0:", "2:", "11:", "16:")  # to the order to remove a snapshot, when nothing is wrong
_GONE = (errno.ENOENT, errno.ENOTDIR, errno.ESTALE)


class Attributes(Worker):
    def step(self) -> None:
        vm = self.draw.choice(self.stage.read + self.stage.tracked)
        query = self.draw.choice((self._list, self._stat, self._errors, self._device, self._scrub, self._totals,
                                  self._invent))
        with self.clients.may_miss(vm, vm.place.directory):
            query(vm)
        self.tally.count("queries")
        self.pause(0, 0.3)

    def _path(self, vm: Vm) -> pathlib.Path:
        return vm.place.directory / self.draw.choice(sorted(vm.machine.entries()))

    def _list(self, vm: Vm) -> None:
        """The whole tree; what goes meanwhile is passed over."""
        for directory, _, files in os.walk(EXPORT):
            for name in files:
                try:
                    os.stat(os.path.join(directory, name))
                except OSError as error:
                    if error.errno not in _GONE:
                        raise
        if not set(os.listdir(vm.place.directory)) >= vm.machine.entries():
            raise FileNotFoundError(errno.ENOENT, "a file is missing in the listing", vm.place.directory)

    def _stat(self, vm: Vm) -> None:
        for disk in vm.disks:
            found = os.stat(vm.flat(disk))
            size = (vm.machine.directory / disk.replace(".vmdk", "-flat.vmdk")).stat().st_size
            if (found.st_size, found.st_blksize) != (size, _BLOCK_SIZE):
                raise Wrong(f"{vm.flat(disk)}: {found}")

    def _errors(self, vm: Vm) -> None:
        """Also into a buffer of any size."""
        path = self._path(vm)
        number, text = saved_error(path)
        if bool(number) != bool(text):
            raise Wrong(f"{path}: error {number}: {text!r}")
        for room in (1, self.draw.randint(2, 300), 65536):
            try:
                xattr(path, self.draw.choice(("user.err_num", "user.err_string")), room)
            except OSError as error:
                if error.errno not in (errno.ERANGE, errno.EPERM):
                    raise
        if self.draw.random() < 0.2:
            os.setxattr(path, "user.err_reset", b"1")

    def _device(self, vm: Vm) -> None:
        path = self._path(vm)
        device, uuid = (xattr(path, name) for name in ("devicemapper_path", "vm_uuid"))
        if device and not device.startswith(b"/dev/mapper/"):
            raise Wrong(f"{path}: is on {device!r} of {uuid!r}")

    def _scrub(self, vm: Vm) -> None:
        began = time.monotonic()
        name = self.draw.choice((OWN, f"{OWN} nightly", "nobody's"))
        answer = xattr(vm.place.directory, f"snapshot_scrub:{name}", 4096).rstrip(b"\0").decode()
        if not _ANSWER.fullmatch(answer):
            raise Wrong(f"{vm.name}: the order to remove a snapshot was answered with {answer!r}")
        if not answer.startswith(_ANSWERS) and not self.stage.excuses.explain(vm.uuid, began, answer):
            raise Wrong(f"{vm.name}: a snapshot could not be removed: {answer}; {self.stage.excuses.tell(vm.uuid, began)}")

    @staticmethod
    def _totals(_: Vm) -> None:
        totals = os.statvfs(EXPORT)
        if totals.f_bfree or totals.f_bavail:
            raise Wrong(f"totals: {totals}")

    def _invent(self, vm: Vm) -> None:
        """Names that are not there, of which there are so many that the memory of errors must forget some."""
        path = vm.place.directory / f"nothing-{self.draw.randrange(20000)}"
        for name in (path, f"{path}-flat.vmdk", f"{path}-flat.vmdk-cbt-losetup"):
            try:
                os.stat(name)
            except FileNotFoundError:
                continue
            raise Wrong(f"{name}: is there")
