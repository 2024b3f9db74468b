"""Guests that write, and people who take snapshots of their own."""

import contextlib
import time

from mirador_appliance.hypervisor import snapshots as hypervisor
from mirador_appliance.hypervisor.machine import Refused

from harness import snapshots

from work import Worker

_USERS_OWN = "before the update"
_TOLD = "No such file or directory|not frozen by the snapshot|Resource temporarily unavailable|already in progress|task is in progress"


class Guests(Worker):
    """Lets the VMs that are read write, and makes and removes users' snapshots of them."""

    def step(self) -> None:
        vm = self.draw.choice(self.stage.read)
        if self.draw.random() < 0.1:
            self._users_snapshot(vm)
        else:
            vm.write(self.draw.getrandbits(32), self.draw.randint(1, 10))
            self.tally.count("writes")
        self.pause(0, 1)

    def _users_snapshot(self, vm) -> None:
        """Refused while another task works on the VM; then there is none, or it stays for the next time."""
        vmx = str(vm.machine.vmx)
        changing = self.stage.excuses.during(vm.uuid, "a user's snapshot", _TOLD)
        with changing, contextlib.suppress(Refused), vm.changes:
            if _USERS_OWN in snapshots.names(vm.machine):
                hypervisor.remove(vmx, _USERS_OWN)
            else:
                hypervisor.create(vmx, _USERS_OWN, False, time.time())
            self.tally.count("users' snapshots")
