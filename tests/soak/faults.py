"""Faults of agents, of the block-list script and of the controller; the controller's death."""

import contextlib
import errno

from harness import snapshots
from harness.inventory import tree
from harness.tools import Failed

from excuses import ALL
from model import Wrong
from work import Worker

_DEAD = "Broken pipe"
_NO_JSON = "json parse error"
_HTML = "<html>502 Bad Gateway</html>\n"

# What the agents do to one VM for a while, and what a client may be told then. None: nothing.
_OF_AGENTS = (
    ({"method": "create_snapshot", "die": "before"}, _DEAD),
    ({"method": "create_snapshot", "die": "after"}, _DEAD),
    ({"method": "create_snapshot", "step": "standing still", "times": 1}, _DEAD),
    ({"method": "create_snapshot", "step": "configuration in place", "times": 1}, _DEAD),
    ({"method": "create_snapshot", "error": errno.EIO, "text": "soak refuses"}, "soak refuses"),
    ({"method": "create_snapshot", "error": errno.EIO, "text": "soak acts and refuses", "acts": 1},
     "soak acts and refuses"),
    ({"method": "create_snapshot", "error": errno.EALREADY, "times": 2}, None),
    ({"method": "create_snapshot", "delay": 2, "times": 2}, None),
    ({"method": "create_snapshot", "garbage": _HTML}, _NO_JSON),
    ({"method": "create_snapshot", "cut": 10}, _DEAD),
    ({"method": "create_snapshot", "noise": 1 << 20}, None),
    ({"method": "create_top_snapshot", "die": "after", "top": 1}, _DEAD),
    ({"method": "create_top_snapshot", "top": 1}, None),
    ({"method": "remove_snapshot", "die": "before", "times": 2}, _DEAD),
    ({"method": "remove_snapshot", "die": "after", "times": 2}, _DEAD),
    ({"method": "remove_snapshot", "step": "data", "times": 1}, _DEAD),
    ({"method": "remove_snapshot", "step": "database without in place", "times": 1}, _DEAD),
    ({"method": "remove_snapshot", "error": errno.EIO, "text": "soak removes nothing", "times": 2},
     "soak removes nothing"),
    ({"method": "remove_snapshot", "error": errno.EALREADY, "times": 2}, None),
    ({"method": "remove_snapshot", "garbage": _HTML, "times": 2}, _NO_JSON),
    ({"method": "remove_snapshot", "delay": 2, "times": 1}, None),
)

_OF_SCRIPT = (
    ({"error": 1}, "; 1: "),
    ({"error": 77}, "; 77: "),
    ({"error": 5}, "; (5|1005): "),
    ({"error": 8, "times": 1}, "; (8|1005): "),
    ({"die": "before"}, "; 22: "),
    ({"garbage": "nonsense"}, "; 1009: "),
    ({"delay": 1}, None),
)


class AgentFaults(Worker):
    """One VM at a time is in trouble."""

    def __init__(self, *rest):
        super().__init__("agent faults", *rest)

    def step(self) -> None:
        vm = self.draw.choice(self.stage.read + self.stage.tracked)
        rule, told = self._choose(vm)
        with self.stage.excuses.during(vm.uuid, _name(rule), told or "never told"):
            self.stage.agents.set(vm.uuid, rule)
            self.tally.count("agent faults")
            self.pause(1, 6)
            self.stage.agents.set(vm.uuid)
        self.pause(0, 5)

    def _choose(self, vm):
        if vm in self.stage.tracked and self.draw.random() < 0.5:
            rule, told = self.draw.choice(_OF_SCRIPT)
            return {"method": "cbt_getblocklist", **rule}, told
        return self.draw.choice(_OF_AGENTS)


_OF_CONTROLLER = ({"delay": 1}, {"hang": 1}, {"hang": 0}, {"status": 500}, {"cut": 3}, {"body": _HTML}, {"body": ""})
_MISSED = r"^(?!.*Too many open files)"  # what comes of it has many names
_WHOLE = 400  # seconds for the tree to be back
_OBJECTS = ("*", "vhost", "hvconfig", "vdisk", "vmconfig", "folder", "fs_sync", "alert", "event", "stats")


class ControllerFaults(Worker):
    """The controller answers late, wrongly or not at all; at times it dies and comes back."""

    def __init__(self, *rest):
        super().__init__("controller faults", *rest)

    def step(self) -> None:
        if self.draw.random() < 0.1:
            self._die()
        else:
            self._answer_wrongly()
        self.tally.count("controller faults")
        self.pause(0, 15)

    def _answer_wrongly(self) -> None:
        rule = {"object": self.draw.choice(_OBJECTS), **self.draw.choice(_OF_CONTROLLER)}
        with self.stage.excuses.during(ALL, _name(rule), _MISSED):
            self.stage.controller.set(self.name, rule)
            self.pause(0, 3)
            self.stage.controller.set(self.name)
            self._wait_whole()

    def _wait_whole(self) -> None:
        """A list of hypervisors that cannot be had takes all of them away until there is a new generation; VMs that have a
        snapshot come back when it is gone. What was told of a VM wrongly may come out later: it is told anew of all."""
        for vm in self.stage.read + self.stage.tracked:
            self.stage.appliance.command("refresh", vm.uuid)
        for vm in self.stage.roaming:
            with contextlib.suppress(Failed):  # it may be away
                self.stage.appliance.command("refresh", vm.uuid)
        missing: list[str] = []
        def is_whole() -> bool:
            expected, found = self.stage.expected_tree(), tree()
            vms = [vm for vm in self.stage.read + self.stage.tracked
                   if not found.get(vm.path, set()) >= expected[vm.path]]
            missing[:] = [f"{vm.path}: {sorted(found.get(vm.path, ()))}, snapshots {snapshots.names(vm.machine)}"
                          for vm in vms]
            if vms:
                self.stage.appliance.command("refresh", vms[0].uuid)
                self.pause(1, 1)
            return not vms
        try:
            self.wait_for(is_whole, "the tree is whole again", _WHOLE)
        except TimeoutError as error:
            raise Wrong(f"the tree is not whole after {_WHOLE} s: {missing}") from error

    def _die(self) -> None:
        with self.stage.excuses.during(ALL, "the controller is dead", _MISSED):
            self.stage.appliance.kill()
            self.pause(0, 2)
            self.stage.appliance.start()
            self._wait_whole()


def _name(rule) -> str:
    return " ".join(f"{key}={str(value).strip()[:20]}" for key, value in rule.items())
