"""The test case whose daemon reads from itself under load: changed-block files on a slow datastore."""

import contextlib
import unittest.mock
from collections.abc import Iterator

from .cbt_case import CbtCase
from .slow_file import SlowFile

AS_THE_DAEMON_LIKES = ("-o", "use_ino,allow_other,default_permissions")
AS_THE_KERNEL_LIKES = (AS_THE_DAEMON_LIKES[0], AS_THE_DAEMON_LIKES[1] + ",max_background=12")


class LoadCase(CbtCase):
    """VMs whose disks have changed since their full backup, on a datastore whose data files may be slow. bases: the
    backups, by VM and disk."""

    mount_options = AS_THE_KERNEL_LIKES
    rounds = 1  # of writes since

    @classmethod
    def setUpClass(cls):
        options = unittest.mock.patch("harness.daemon.MOUNT_OPTIONS", cls.mount_options)
        options.start()
        cls.addClassCleanup(options.stop)
        cls.bases = {}
        super().setUpClass()

    def setUp(self):
        """Every VM has been backed up, and written to since."""
        super().setUp()
        for vm in self.vms.values():
            if vm.name not in self.bases:
                self.bases[vm.name] = self.full(vm)
            self.write(vm, self.rounds)

    @contextlib.contextmanager
    def slow(self, seconds: float) -> Iterator[None]:
        with contextlib.ExitStack() as stack:
            for vm in self.vms.values():
                for disk in vm.disks:
                    stack.enter_context(SlowFile(vm.flat(disk), seconds))
            yield
