"""The command line of the commands about snapshots, tracked changes, guests and the agent's faults."""

import argparse
from collections.abc import Callable
from typing import Any, Protocol

from . import snapshot_commands as commands
from . import tracking_commands
from .agent import faults

_SNAPSHOT_ABOUT = """Works on the datastore itself, as the hypervisor does, also while no controller runs. A running
controller sees at once what has changed. VM is a name, a uuid or a path."""

_FAULT_ABOUT = """Adds a rule to agent-faults.json in the state directory. Every agent reads it at each call; the first
rule that fits a call acts on it. Options that are left out ask for nothing."""


class Builder(Protocol):
    """Adds commands; see command_line."""

    def add(self, name: str, about: str, run: Callable[[argparse.Namespace], int], *words: str,
            **more: str) -> argparse.ArgumentParser: ...

    def group(self, name: str, about: str) -> "Builder": ...


def add_snapshots(top: Builder) -> None:
    """The group "snapshot"."""
    group = top.group("snapshot", "snapshots on the datastore: a user's own, and what the agent makes")
    listing = group.add("list", "list the snapshots of one machine or of all", commands.snapshot_list,
                        description=_SNAPSHOT_ABOUT)
    listing.add_argument("vm", metavar="VM", nargs="?")
    listing.add_argument("--json", action="store_true", help="as a JSON array")
    create = group.add("create", "make a snapshot", commands.snapshot_create, "VM", "NAME",
                       description=_SNAPSHOT_ABOUT)
    create.add_argument("--quiesce", action="store_true", help="note it as made with the guest at rest")
    remove = group.add("remove", "remove every snapshot of that name", commands.snapshot_remove, "VM", "NAME",
                       description=_SNAPSHOT_ABOUT)
    remove.add_argument("--own", action="store_true",
                        help="also one that this appliance made; whoever reads the disk then reads another state")
    group.add("consolidate", "finish what a removal left to do", commands.snapshot_consolidate, "VM")


def add_tracking(top: Builder) -> None:
    """The command "cbt"."""
    cbt = top.add("cbt", "track which blocks of a machine's disks change", tracking_commands.track,
                  description="Turns the tracking of changed blocks on or off for a machine (name, uuid or path): "
                              "ctkEnabled in its\nconfiguration file, and whether the daemon exports what changed. "
                              "\"reset\" lets it begin anew:\nthe next backup is a full one. Without an action, tells "
                              "what is tracked.")
    cbt.add_argument("vm", metavar="VM")
    cbt.add_argument("action", metavar="on|off|reset", choices=("on", "off", "reset"), nargs="?")


def add_guest(top: Builder) -> None:
    """The command "guest"."""
    guest = top.add("guest", "let machines write to their disks as if they ran", commands.guest,
                    description="Writes into the disks of each VM (name, uuid or path) as if it ran, also while "
                                "snapshots are made and removed.\nEnds with SIGINT or SIGTERM. Destroys what the disks "
                                "held.")
    guest.add_argument("vm", metavar="VM", nargs="+")
    guest.add_argument("--seed", type=int, default=1, metavar="N", help="what is written follows from it (1)")
    guest.add_argument("--seconds", type=float, default=float("inf"), help="how long; without end by default")
    guest.add_argument("--pause", type=float, default=0.001, metavar="SECONDS", help="between two rounds (0.001)")


def add_faults(top: Builder) -> None:
    """The group "fault"."""
    group = top.group("fault", "latency and faults of the agent, for tests")
    rule = group.add("add", "switch a fault on", commands.fault_add, description=_FAULT_ABOUT)
    options: tuple[tuple[str, str, Any, str], ...] = (
        ("method", "NAME", str, "only calls of this method"),
        ("vm", "VM", str, "only calls about this machine (name or uuid)"),
        ("snapshot", "TEXT", str, "only calls whose snapshot's name contains it"),
        ("times", "N", int, "only the next N calls"),
        ("delay", "SECONDS", float, "wait before acting"),
        ("noise", "BYTES", int, "write to standard error before acting"),
        ("step", "STEP", str, "die behind this step of a snapshot operation (the journal names them)"),
        ("error", "N", int, "answer with this error number"),
        ("text", "TEXT", str, "text of that error"),
        ("garbage", "TEXT", str, "answer with this text"),
        ("cut", "BYTES", int, "die behind so many bytes of the answer"),
        ("free", "BYTES", int, "what \"df\" tells as free"),
        ("changeid", "ID", str, "change id that cbt_getblocklist tells"),
        ("extents", "N", int, "how many extents cbt_getblocklist makes up"),
    )
    for name, metavar, kind, about in options:
        rule.add_argument(f"--{name}", metavar=metavar, type=kind, help=about)
    rule.add_argument("--for", metavar="SECONDS", type=float, dest="seconds", help="the rule ends then")
    rule.add_argument("--die", choices=faults.DEATHS, help="die before acting, or behind it without an answer")
    for name, about in (("silence", "never answer"), ("acts", "act all the same before an error, garbage, silence"),
                        ("top", "let create_top_snapshot make a snapshot"),
                        ("moment", "note in the journal what the disks hold when a snapshot is made")):
        rule.add_argument(f"--{name}", action="store_const", const=1, help=about)
    rule.add_argument("--busy", action="store_true", help=f"as --error {faults.BUSY}: another task works on it")
    group.add("list", "show the faults in force", commands.fault_list)
    group.add("clear", "end all faults", commands.fault_clear)
