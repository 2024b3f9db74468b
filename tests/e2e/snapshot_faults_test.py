"""Snapshots under faults: whatever happens while one is made, used or removed, an open either fails with the reason told
or gives the frozen bytes, no snapshot of this appliance stays behind, and nobody else's is touched."""

import concurrent.futures
import contextlib
import dataclasses
import errno
import functools
import json
import os
import pathlib
import re
import signal
import threading
import time
from collections.abc import Callable
from typing import Any

from harness import place, snapshots
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.disks import MIB, datastore
from harness.inventory import InventoryCase
from harness.machines import Machine, machine
from harness.snapshots import Mischief, Rule
from harness.tools import Failed, saved_error, wait_equal, wait_until, xattr

HOST = "esx.example"
AGENT = "/usr/local/corvantis/bin/jrpc_wget.pl"
OWN_UUID = "5ca1ab1e-0000-4000-8000-00000000cafe"
OWN = f"{snapshots.VENDOR}: {OWN_UUID}"
FACTOR = 50  # the daemon's seconds in one of the clock on the wall
RETRIES = 3
BOUND = 120  # seconds within which all is in order again, with much to spare
WORKERS = 6

BUSY = errno.EALREADY  # another task is in progress
EINVAL, EIO, EPIPE = errno.EINVAL, errno.EIO, errno.EPIPE
NOT_JSON = 1007
_seeds = iter(range(1, 1 << 30))


class SnapshotCase(InventoryCase):
    """Each test has VMs of its own. When all are done, no VM has a snapshot of this appliance, and every other one that
    it had."""

    settings = {"snapshot.max_idle": "0", "snapshot.retry_limit": str(RETRIES), "controller.uuid": OWN_UUID}
    environment = {"MIRADOR_CLOCK_FACTOR": str(FACTOR)}
    faults: Mischief
    vms: dict[str, Machine]
    files_before: dict[str, dict[str, bytes]]  # by name of the VM

    @classmethod
    def make_machines(cls):
        cls.store = datastore(cls.__name__.lower())
        cls.vms = {name: machine(cls.store, name) for name in cls.vm_names()}
        return [f"{HOST}:{cls.store.directory}"]

    @classmethod
    def vm_names(cls) -> list[str]:
        raise NotImplementedError

    @classmethod
    def prepare(cls):
        cls.faults = Mischief(cls.appliance)
        cls.files_before = {name: snapshots.files(vm) for name, vm in cls.vms.items()}

    # Reading

    @staticmethod
    def exported(vm: Machine, disk: str = "disk"):
        return EXPORT / HOST / vm.name / f"{disk}-flat.vmdk"

    def wait_exported(self, vm: Machine):
        wait_until(self.exported(vm).exists, f"{vm.name} is exported", BOUND)

    def assert_reads_frozen(self, vm: Machine, before_close: Callable[[], Any] = lambda: None) -> dict[str, bytes]:
        """What is read is what the disk held when it was opened, whatever the guest writes meanwhile. Returns what the
        guest sees at the end."""
        frozen = snapshots.contents(vm)["scsi0:0"]
        with Reader(self.exported(vm), direct=True) as reader:
            self.assertEqual(snapshots.names(vm)[-1:], [OWN], "it is read from a snapshot")
            self.assertTrue(reader.read(0, MIB // 2) == frozen[:MIB // 2])
            snapshots.write_as_guest(vm, next(_seeds))
            self.assertTrue(reader.read(0, 2 * MIB) == frozen, f"{vm.name} gives the frozen bytes")
            before_close()
        return snapshots.contents(vm)

    def open_fails(self, vm: Machine) -> tuple[int, str]:
        """The real error of an open that must fail."""
        with self.assertRaises(OSError) as raised:
            Reader(self.exported(vm)).__exit__()
        self.assertEqual(raised.exception.errno, EIO)
        return saved_error(self.exported(vm))

    def scrub(self, vm: Machine, name: str) -> str:
        """What is answered to the order to remove a snapshot."""
        return xattr(self.exported(vm).parent, f"snapshot_scrub:{name}").rstrip(b"\0").decode()

    def remove_own(self, vm: Machine):
        """Orders an idle snapshot to be removed. A disk that was closed a moment ago counts as used a little longer."""
        wait_until(lambda: self.scrub(vm, OWN).startswith("11:"), f"{vm.name}: the removal begins", BOUND)

    # What must hold

    def wait_clean(self, vm: Machine, contents: dict[str, bytes]):
        """Waits until nothing of this appliance's stands on a VM and its files are as at the start; contents as given."""
        wait_equal(lambda: [name for name in snapshots.names(vm) if name.startswith(OWN)], [], f"{vm.name}: no snapshot",
                   BOUND)
        wait_equal(lambda: snapshots.files(vm), self.files_before[vm.name], f"{vm.name}: files as before", BOUND)
        self.assertTrue(snapshots.contents(vm) == contents, f"{vm.name}: its guest sees the same")

    def assert_is_well(self, vm: Machine):
        """A snapshot comes and goes as ever, and nothing is told any more."""
        self.wait_clean(vm, self.assert_reads_frozen(vm))
        self.wait_told(vm, None)

    def wait_told(self, vm: Machine, kind: str | None):
        """Waits until exactly this is told of a VM: that the creation or the removal of a snapshot failed, or nothing."""
        def told():
            alerts = {alert for alert, subject in self.appliance.alerts() if subject == f"{HOST}:{vm.name}"}
            return alerts & {"snapshot_create", "snapshot_remove"}, self.error_of(vm)
        word = {"snapshot_create": "creation", "snapshot_remove": "removal"}.get(kind)
        wait_equal(told, ({kind}, f"Snapshot {word} failed") if kind else (set(), ""), f"{vm.name}: what is told", BOUND)

    def error_of(self, vm: Machine) -> str:
        found = self.appliance.get(f"vhost?vm_uuid={vm.uuid}")
        return found[0].get("error") or ""

    @classmethod
    def _stop_all(cls):
        try:
            if cls.daemon.is_running():
                cls.daemon.stop()
            for vm in cls.appliance.status()["vms"]:
                ours = [snapshot["name"] for snapshot in vm["snapshots"] if snapshot["whose"] == "ours"]
                assert not ours and not vm["consolidation_needed"] and not vm["busy"], vm
        finally:
            super()._stop_all()


@dataclasses.dataclass(frozen=True)
class Fault:
    """What the agents do to one VM, and what comes of it.

    rules    the agents' faults on demand; in force from the VM's first call on or, for removals, once the disk is read
    number   error that the open fails with, None when it succeeds; for removals: whether anything fails
    told     pattern of the text that is told
    """
    rules: tuple[Rule, ...]
    number: int | None = None
    told: str = ""


def fault(method: str, number: int | None = None, told: str = "", **rule: Any) -> Fault:
    return Fault(({"method": method, **rule},), number, told)


_DEAD = "Failed to get response to JRPC request: Broken pipe"

CREATION = {
    "dies before it removes orphans": fault("remove_snapshot", EPIPE, _DEAD, die="before"),
    "dies after it removed orphans": fault("remove_snapshot", EPIPE, _DEAD, die="after"),
    "dies before create_top": fault("create_top_snapshot", EPIPE, _DEAD, die="before"),
    "dies after create_top": fault("create_top_snapshot", EPIPE, _DEAD, die="after", top=1),
    "dies before create": fault("create_snapshot", EPIPE, _DEAD, die="before"),
    "dies after create": fault("create_snapshot", EPIPE, _DEAD, die="after"),
    **{f"dies in create, {step}": fault("create_snapshot", EPIPE, _DEAD, step=step) for step in (
        "journal", "delta extent made", "standing still", "configuration written", "configuration in place",
        "database in place", "journal gone")},
    "busy twice": fault("create_snapshot", error=BUSY, times=2),
    "busy twice with the top": fault("create_top_snapshot", error=BUSY, times=2),
    "busy twice with orphans": fault("remove_snapshot", error=BUSY, times=2),
    "busy for good": fault("create_snapshot", BUSY, "fault on demand", error=BUSY),
    "refuses": fault("create_snapshot", EINVAL, "no such luck", error=EINVAL, text="no such luck"),
    "refuses the top": fault("create_top_snapshot", EINVAL, "no such luck", error=EINVAL, text="no such luck"),
    "refuses to remove orphans": fault("remove_snapshot", EIO, "no such luck", error=EIO, text="no such luck"),
    "acts and refuses": fault("create_snapshot", EIO, "no such luck", error=EIO, text="no such luck", acts=1),
    "an error that nobody knows": fault("create_snapshot", 4711, "no such luck", error=4711, text="no such luck"),
    "garbage": fault("create_snapshot", NOT_JSON, "json parse error", garbage="<html>502 Bad Gateway</html>\n"),
    "acts and answers garbage": fault("create_snapshot", NOT_JSON, "json parse error", garbage="<html>502 Bad Gateway</html>\n", acts=1),
    "another shape": fault("create_top_snapshot", NOT_JSON, "json parse error", garbage='[{"response_type": 7}]\n', acts=1),
    "half a line": fault("create_snapshot", EPIPE, _DEAD, cut=10),
    "a flood on standard error": fault("create_snapshot", noise=4 * MIB),
    "slow": fault("create_snapshot", delay=3),
    "makes a top as well": fault("create_top_snapshot", top=1),
    # The first removal is that of orphans.
    "dies after create and cannot remove it": Fault((
        {"method": "remove_snapshot", "times": 1}, {"method": "remove_snapshot", "error": EIO},
        {"method": "create_snapshot", "die": "after"}), EPIPE, _DEAD),
}

REMOVAL = {
    "dies before": fault("remove_snapshot", EPIPE, die="before"),
    "dies after": fault("remove_snapshot", EPIPE, die="after"),
    **{f"dies in removal, {step}": fault("remove_snapshot", EPIPE, step=step) for step in (
        "journal", "database without in place", "journal for merge", "parent's id in place", "data",
        "configuration in place", "file removed", "merged", "journal gone")},
    "busy twice": fault("remove_snapshot", error=BUSY, times=2),
    "busy for good": fault("remove_snapshot", BUSY, error=BUSY),
    "refuses": fault("remove_snapshot", EINVAL, error=EINVAL),
    "acts and refuses": fault("remove_snapshot", EIO, error=EIO, acts=1),
    "garbage": fault("remove_snapshot", 0, garbage="<html>502 Bad Gateway</html>\n"),
    "half a line": fault("remove_snapshot", 0, cut=10),
    "a flood on standard error": fault("remove_snapshot", noise=4 * MIB),
    "slow": fault("remove_snapshot", delay=3),
}


def slug(what: str) -> str:
    return re.sub(r"\W+", "-", what).strip("-")


class AgentFaults(SnapshotCase):
    """Each fault of the tables has a VM of its own; a few are tried at a time."""

    @classmethod
    def vm_names(cls):
        return [*(f"making-{slug(what)}" for what in CREATION), *(f"removing-{slug(what)}" for what in REMOVAL)]

    def check_all(self, checks: dict[str, Callable[[], None]]):
        with concurrent.futures.ThreadPoolExecutor(WORKERS) as pool:
            done = {what: pool.submit(check) for what, check in checks.items()}
        for what, check in done.items():
            with self.subTest(what):
                check.result()

    def test_making(self):
        self.check_all({what: functools.partial(self.check_making, self.vms[f"making-{slug(what)}"], fault)
                        for what, fault in CREATION.items()})

    def check_making(self, vm: Machine, fault: Fault):
        self.wait_exported(vm)
        contents = snapshots.contents(vm)
        self.faults.set(vm.name, *fault.rules)
        if fault.number is None:
            contents = self.assert_reads_frozen(vm)
        else:
            number, text = self.open_fails(vm)
            self.assertRegex(text, fault.told)
            self.assertEqual(number, fault.number, text)
            self.wait_told(vm, "snapshot_create")
        self.assertTrue(self.faults.have_acted(vm))
        self.faults.set(vm.name)
        self.wait_clean(vm, contents)
        if fault.number is not None:
            contents = self.assert_reads_frozen(vm)
            self.wait_clean(vm, contents)
        self.wait_told(vm, None)

    def test_removing(self):
        self.check_all({what: functools.partial(self.check_removing, self.vms[f"removing-{slug(what)}"], fault)
                        for what, fault in REMOVAL.items()})

    def check_removing(self, vm: Machine, fault: Fault):
        self.wait_exported(vm)
        contents = self.assert_reads_frozen(vm, lambda: self.faults.set(vm.name, *fault.rules))
        if fault.number is not None:
            self.wait_told(vm, "snapshot_remove")
            self.faults.set(vm.name)
        self.wait_clean(vm, contents)
        self.wait_told(vm, None)
        self.assertTrue(self.faults.have_acted(vm))
        self.faults.set(vm.name)
        contents = self.assert_reads_frozen(vm)
        self.wait_clean(vm, contents)


class Others(SnapshotCase):
    """Faults that touch all VMs, one at a time: agents that cannot be had, list_snapshot, silence, the controller."""

    @classmethod
    def vm_names(cls):
        return ["first", "second"]

    @classmethod
    def prepare(cls):
        super().prepare()
        cls.first, cls.second = cls.vms.values()

    def setUp(self):
        for vm in self.vms.values():
            self.wait_exported(vm)
            self.wait_told(vm, None)

    def assert_open_fails(self, vm: Machine, number: int, text: str):
        failed, told = self.open_fails(vm)
        self.assertRegex(told, text)
        self.assertEqual(failed, number, told)

    def kill_agents(self):
        """An agent that runs already would go on serving."""
        for entry in pathlib.Path("/proc").iterdir():
            with contextlib.suppress(OSError):
                if entry.name.isdigit() and AGENT in (entry / "cmdline").read_bytes().decode().split("\0")[:3]:
                    os.kill(int(entry.name), signal.SIGKILL)

    def test_no_agent(self):
        """Its program is missing, cannot be run, or ends at once."""
        agent = pathlib.Path(AGENT)
        program = agent.read_bytes()
        agent.unlink()
        for what, number, text in (("missing", errno.ENOENT, AGENT), ("no program", errno.EACCES, AGENT),
                                   ("ends", errno.EPIPE, "Broken pipe")):
            with self.subTest(what):
                if what == "no program":
                    agent.write_text("nothing")
                elif what == "ends":
                    agent.write_text("#!/bin/sh\n")
                    agent.chmod(0o755)
                self.kill_agents()
                self.assert_open_fails(self.first, number, text)
                self.wait_told(self.first, "snapshot_create")
        agent.write_bytes(program)
        self.assert_is_well(self.first)

    def test_wrong_password(self):
        hosts = [{**host, "password": "wrong"} for host in self.appliance.get("hvconfig")]
        self.appliance.set_faults({"object": "hvconfig", "body": json.dumps(hosts)})
        self.assert_open_fails(self.first, errno.EACCES, "refused")
        self.assertNotIn("wrong", self.daemon.log())
        self.appliance.set_faults()
        self.assert_is_well(self.first)

    def test_agents_that_cannot_list(self):
        """They are asked for a snapshot that this daemon knows nothing of."""
        for number, rule in ((EPIPE, {"die": "before"}), (EIO, {"error": EIO}), (NOT_JSON, {"garbage": "<html>\n"})):
            with self.subTest(rule=rule):
                self.faults.set("*", {"method": "list_snapshot", **rule})
                self.assertRegex(self.scrub(self.first, "some name"), f"^{number}:")
        self.faults.set("*")
        self.assertRegex(self.scrub(self.first, "some name"), "^2:Snapshot 'some name' not found")

    def test_silence(self):
        """An agent that does not answer keeps nobody from reading what is open; killed, it lets all go on."""
        frozen = snapshots.contents(self.first)["scsi0:0"]
        with Reader(self.exported(self.first), direct=True) as reader, \
                concurrent.futures.ThreadPoolExecutor() as pool:
            self.faults.set(self.second.name, {"method": "create_snapshot", "silence": 1, "acts": 1})
            opening = pool.submit(self.open_fails, self.second)
            wait_until(lambda: self.faults.silent(), "the agent is silent", BOUND)
            for _ in range(5):
                self.assertTrue(reader.read(0, 2 * MIB) == frozen)
                self.assertIn("disk-flat.vmdk", os.listdir(self.exported(self.second).parent))
                time.sleep(0.1)
            self.assertFalse(opening.done())
            self.faults.set(self.second.name)
            os.kill(self.faults.silent()[-1], signal.SIGKILL)
            self.assertEqual(opening.result(BOUND)[0], EPIPE)
            self.wait_told(self.second, "snapshot_create")
        self.assert_is_well(self.second)
        self.assert_is_well(self.first)

    # The controller

    def test_controller_goes_while_a_snapshot_is_made(self):
        contents = snapshots.contents(self.first)
        self.faults.set(self.first.name, {"method": "create_snapshot", "delay": 1, "times": 1})
        with concurrent.futures.ThreadPoolExecutor() as pool:
            opening = pool.submit(self.open_fails, self.first)
            wait_until(lambda: self.faults.calls(self.first, "create_snapshot"), "a snapshot is being made", BOUND)
            self.appliance.kill()
            self.assertNotEqual(opening.result(BOUND)[0], 0)
        self.wait_clean(self.first, contents)
        self.appliance.start()
        self.assert_is_well(self.first)

    def test_controller_goes_while_a_snapshot_is_read(self):
        """It is removed without it, and what the controller missed it learns when it is back."""
        self.wait_clean(self.second, self.assert_reads_frozen(self.second, self.appliance.kill))
        self.appliance.start()
        self.assert_is_well(self.second)

    def test_controller_goes_while_a_snapshot_is_removed(self):
        start = len(self.faults.calls(self.second, "remove_snapshot"))
        def slow_removal():
            self.faults.set(self.second.name, {"method": "remove_snapshot", "delay": 1, "times": 1})
        contents = self.assert_reads_frozen(self.second, slow_removal)
        wait_until(lambda: len(self.faults.calls(self.second, "remove_snapshot")) > start + 1, "it is removed", BOUND)
        self.appliance.kill()
        self.wait_clean(self.second, contents)
        self.appliance.start()
        self.assert_is_well(self.second)


class Readers(SnapshotCase):
    """Many readers of many disks."""

    @classmethod
    def vm_names(cls):
        return []

    @classmethod
    def make_machines(cls):
        datastores = super().make_machines()
        cls.vm = machine(cls.store, "busy", disks=("one.vmdk", "two.vmdk", "three.vmdk"))
        cls.vms["busy"] = cls.vm
        return datastores

    def test_readers_share_a_snapshot(self):
        disks = ("one", "two", "three")
        wait_until(lambda: all(self.exported(self.vm, disk).exists() for disk in disks), "it is exported", BOUND)
        frozen = snapshots.contents(self.vm)
        start = len(self.faults.calls(self.vm, "create_snapshot"))

        def read(number: int) -> bool:
            disk = number % len(disks)
            with Reader(self.exported(self.vm, disks[disk]), direct=True) as reader:
                first = reader.read(0, MIB // 2)
                all_open.wait(BOUND)
                return first + reader.read(MIB // 2, MIB) == frozen[f"scsi0:{disk}"]

        count = 12
        all_open = threading.Barrier(count + 1)
        with concurrent.futures.ThreadPoolExecutor(count) as pool:
            reading = [pool.submit(read, number) for number in range(count)]
            wait_until(lambda: snapshots.names(self.vm) == [OWN], "there is a snapshot", BOUND)
            snapshots.write_as_guest(self.vm, next(_seeds))
            all_open.wait(BOUND)
            self.assertEqual([done.result() for done in reading], [True] * count)
        contents = snapshots.contents(self.vm)
        self.wait_clean(self.vm, contents)
        self.assertEqual(len(self.faults.calls(self.vm, "create_snapshot")), start + 1)


DAY = 86400


class Strangers(SnapshotCase):
    """What this run did not make: what an earlier one left goes, everything else stays as it is."""

    settings = SnapshotCase.settings | {"snapshot.max_idle": "100000"}  # snapshots go when they are told to

    @classmethod
    def vm_names(cls):
        return ["left", "left-twice", "left-among-others", "unused", "used", "mixed",
                *(f"of-{slug(what)}" for what in snapshots.strangers(OWN_UUID))]

    @classmethod
    def prepare(cls):
        super().prepare()
        snapshots.make(cls.vms["left"], OWN, time.time() - 3 * DAY)
        for name in (f"{OWN} nightly", OWN):
            snapshots.make(cls.vms["left-twice"], name, time.time())
        for name in ("a user's", OWN, "another of the user's"):
            snapshots.make(cls.vms["left-among-others"], name, time.time())
        for what, name in snapshots.strangers(OWN_UUID).items():
            snapshots.make(cls.vms[f"of-{slug(what)}"], name, time.time() - 3 * DAY)
        cls.contents_before = {name: snapshots.contents(vm) for name, vm in cls.vms.items()}

    def setUp(self):
        for vm in self.vms.values():
            self.wait_exported(vm)

    def test_what_an_earlier_run_left_is_removed(self):
        for name in ("left", "left-twice"):
            self.wait_clean(self.vms[name], self.contents_before[name])
        mixed = self.vms["left-among-others"]
        wait_equal(lambda: snapshots.names(mixed), ["a user's", "another of the user's"], "ours goes", BOUND)
        self.assertTrue(snapshots.contents(mixed) == self.contents_before[mixed.name])

    def test_strangers_stay(self):
        """Backups come and go above them; old ones of the vendor's are reported."""
        for what, name in snapshots.strangers(OWN_UUID).items():
            with self.subTest(what):
                vm = self.vms[f"of-{slug(what)}"]
                files = snapshots.files(vm)
                self.assertEqual(snapshots.names(vm), [name])
                contents = self.assert_reads_frozen(vm)
                self.assertEqual(snapshots.names(vm), [name, OWN])
                self.remove_own(vm)
                wait_equal(lambda: snapshots.names(vm), [name], "ours goes", BOUND)
                wait_equal(lambda: snapshots.files(vm), files, "files as before", BOUND)
                self.assertTrue(snapshots.contents(vm) == contents)
                if name.startswith(f"{snapshots.VENDOR}: "):
                    self.wait_alert("old_snapshot", vm.uuid, re.escape(f"has snapshot '{name}' created over 3 days ago"))
                else:
                    self.assertNotIn(("old_snapshot", vm.uuid), self.appliance.alerts())

    def test_a_users_snapshot_on_ours(self):
        """It keeps the state that it was made of when ours goes from below it."""
        vm = self.vms["mixed"]
        self.assert_reads_frozen(vm)
        held = snapshots.contents(vm)
        snapshots.make(vm, "on top", time.time())
        snapshots.write_as_guest(vm, next(_seeds))
        contents = snapshots.contents(vm)
        self.remove_own(vm)
        wait_equal(lambda: snapshots.names(vm), ["on top"], "ours goes", BOUND)
        self.assertTrue(snapshots.contents(vm) == contents)
        self.assertTrue(snapshots.frozen(vm, "on top") == held)

    def test_scrub_command(self):
        used, unused = self.vms["used"], self.vms["unused"]
        contents = self.assert_reads_frozen(unused)
        with Reader(self.exported(used)):
            self.assertRegex(self.scrub(used, OWN), f"^16:Snapshot '{OWN}' is still in use and cannot be removed")
            self.assertEqual(snapshots.names(used), [OWN])
        wait_until(lambda: not self.scrub(unused, OWN).startswith("16:"), "it is closed", BOUND)
        self.wait_clean(unused, contents)
        self.remove_own(used)
        self.wait_clean(used, self.contents_before["used"])
        for name, answer in {"": "^22:Invalid snapshot name", "before": "^2:Snapshot 'before' not found",
                             OWN: f"^2:Snapshot '{OWN}' not found"}.items():
            with self.subTest(name):
                self.assertRegex(self.scrub(unused, name), answer)
        self.assertEqual(snapshots.names(unused), [])

    def test_scrub_command_of_strangers(self):
        """Whoever names one of the vendor's is obeyed; nobody else's is removed."""
        vm = self.vms["of-a-user-s"]
        self.assertRegex(self.scrub(vm, "before the update"), "^1[0-9]{3}:.*was not made by")
        self.assertIn("before the update", snapshots.names(vm))
        snapshots.make(self.vms["unused"], name := f"{snapshots.VENDOR}: of another", time.time())
        self.assertEqual(self.scrub(self.vms["unused"], name), f"0:Snapshot '{name}' has been removed.")
        self.assertEqual(snapshots.names(self.vms["unused"]), [])


MAKING = ("snapshot.locked", "snapshot.orphans_removed", "snapshot.top_created", "snapshot.created", "snapshot.followed")
REMOVING = ("snapshot.removing", "snapshot.removed")


class Ends(SnapshotCase):
    """The daemon's own end, good or bad, with snapshots in every state. What is left goes with the next start at the
    latest."""

    settings = SnapshotCase.settings | {"snapshot.max_idle": "100000", "snapshot.retry_limit": "12"}

    @classmethod
    def vm_names(cls):
        return ["read", "idle", "waiting"]

    def setUp(self):
        self.read, self.idle, self.waiting = self.vms.values()
        self.start()

    def tearDown(self):
        """All is well with a daemon that meets no fault, and nothing is left for the next test."""
        for vm in self.vms.values():
            self.faults.set(vm.name)
        self.start()
        for vm in self.vms.values():
            wait_equal(lambda vm=vm: snapshots.names(vm), [], f"{vm.name}: no snapshot", BOUND)
        self.assert_reads_frozen(self.waiting)
        for vm in self.vms.values():
            self.wait_told(vm, None)
        self.assertEqual(self.end(), {})

    def start(self, **points: str):
        """Starts the daemon if it does not run, or with fault points in any case."""
        if self.daemon.is_running() and points:
            self.daemon.stop()
        if not self.daemon.is_running():
            self.daemon.environment["MIRADOR_FAULT_POINTS"] = ",".join(f"{name}={act}" for name, act in points.items())
            self.daemon.start()
        for vm in self.vms.values():
            self.wait_exported(vm)

    def end(self):
        """Ends the daemon in order, and looks at once."""
        self.daemon.stop()
        return {vm.name: names for vm in self.vms.values() if (names := snapshots.names(vm))}

    def wait_dead(self):
        wait_until(lambda: not self.daemon.is_running(), "the daemon dies", BOUND)

    # In order

    def test_term_with_snapshots_in_every_state(self):
        """Read, idle, and one that the hypervisor is too busy to make."""
        contents = self.assert_reads_frozen(self.idle)
        frozen = snapshots.contents(self.waiting)
        with Reader(self.exported(self.read)), concurrent.futures.ThreadPoolExecutor() as pool:
            self.faults.set(self.waiting.name, {"method": "create_snapshot", "error": BUSY})
            opening = pool.submit(self.open_or_error, self.waiting)
            wait_until(lambda: self.faults.calls(self.waiting, "create_snapshot", "ended"), "it is busy", BOUND)
            self.assertEqual(self.end(), {})
            self.assertIsInstance(opening.result(BOUND), OSError)
        self.wait_clean(self.idle, contents)
        self.wait_clean(self.waiting, frozen)

    def open_or_error(self, vm):
        try:
            with Reader(self.exported(vm)):
                return None
        except OSError as error:
            return error

    def test_term_while_a_snapshot_is_removed(self):
        contents = self.assert_reads_frozen(self.idle)
        self.faults.set(self.idle.name, {"method": "remove_snapshot", "delay": 1})
        start = len(self.faults.calls(self.idle, "remove_snapshot"))
        self.remove_own(self.idle)
        wait_until(lambda: len(self.faults.calls(self.idle, "remove_snapshot")) > start, "it is being removed", BOUND)
        self.assertEqual(self.end(), {})
        self.wait_clean(self.idle, contents)

    def test_term_while_snapshots_cannot_be_removed(self):
        """It is told, and the next run removes them."""
        contents = self.assert_reads_frozen(self.idle), self.assert_reads_frozen(self.read)
        self.faults.set(self.idle.name, {"method": "remove_snapshot", "error": BUSY})
        self.faults.set(self.read.name, {"method": "remove_snapshot", "die": "before"})
        self.assertEqual(self.end(), {"idle": [OWN], "read": [OWN]})
        self.faults.set(self.idle.name)
        self.faults.set(self.read.name)
        for vm in (self.idle, self.read):
            self.wait_told(vm, "snapshot_remove")
        self.start()
        self.wait_clean(self.idle, contents[0])
        self.wait_clean(self.read, contents[1])

    def test_term_with_a_silent_agent(self):
        self.faults.set(self.waiting.name, {"method": "create_snapshot", "silence": 1})
        with concurrent.futures.ThreadPoolExecutor() as pool:
            start = len(self.faults.silent())
            opening = pool.submit(self.open_or_error, self.waiting)
            wait_until(lambda: len(self.faults.silent()) > start or opening.done(), "the agent is silent", 20)
            self.assertFalse(opening.done())
            self.faults.set(self.waiting.name)
            self.assertEqual(self.end(), {})
            self.assertIsInstance(opening.result(BOUND), OSError)

    def test_term_without_controller(self):
        contents = self.assert_reads_frozen(self.idle)
        self.appliance.kill()
        self.assertEqual(self.end(), {})
        self.wait_clean(self.idle, contents)
        self.appliance.start()

    # Not in order

    def test_killed_while_it_makes_a_snapshot(self):
        """At every step; the run that makes the loss good is the next to be killed."""
        for point in MAKING:
            with self.subTest(point):
                contents = snapshots.contents(self.idle)
                self.start(**{point: "kill"})
                self.assertIsInstance(self.open_or_error(self.idle), OSError)
                self.wait_dead()
                self.start()
                self.wait_clean(self.idle, contents)

    def test_killed_while_it_removes_a_snapshot(self):
        """Its own or what an earlier run left, at every step."""
        for point in REMOVING:
            with self.subTest(point):
                contents = self.assert_reads_frozen(self.idle)
                self.daemon.kill()
                self.daemon.environment["MIRADOR_FAULT_POINTS"] = f"{point}=kill"
                with contextlib.suppress(Failed):  # it may die before its mount stands
                    self.daemon.start()
                self.wait_dead()
                self.start()
                self.wait_clean(self.idle, contents)

    def test_killed_while_a_disk_is_read(self):
        contents = self.assert_reads_frozen(self.idle)
        with Reader(self.exported(self.read)):
            self.daemon.kill()
        self.start()
        self.wait_clean(self.idle, contents)

    def test_killed_while_the_agent_acts(self):
        """The agent goes on, and makes the snapshot when the next run has looked for what was left. That run finds it
        when it looks at all snapshots, once an hour."""
        contents = snapshots.contents(self.idle)
        self.faults.set(self.idle.name, {"method": "create_snapshot", "delay": 6})
        with concurrent.futures.ThreadPoolExecutor() as pool:
            opening = pool.submit(self.open_or_error, self.idle)
            wait_until(lambda: self.faults.calls(self.idle, "create_snapshot"), "it is being made", BOUND)
            self.daemon.kill()
            self.assertIsInstance(opening.result(BOUND), OSError)
        self.daemon.environment["MIRADOR_CLOCK_FACTOR"] = "500"
        self.start()
        self.daemon.environment.update(self.environment)
        wait_until(lambda: OWN in snapshots.names(self.idle), "the agent goes on", BOUND)
        self.wait_clean(self.idle, contents)
        self.daemon.stop()

    # Errors at the same steps

    def test_errors_at_every_step(self):
        self.start(**dict.fromkeys(MAKING, "error:5"))
        for point in MAKING:
            with self.subTest(point):
                contents = snapshots.contents(self.idle)
                number, text = self.open_fails(self.idle)
                self.assertEqual(number, EIO)
                self.assertIn(point, text)
                self.wait_told(self.idle, "snapshot_create")
                self.wait_clean(self.idle, contents)
        contents = self.assert_reads_frozen(self.idle)
        self.wait_told(self.idle, None)
        self.remove_own(self.idle)
        self.wait_clean(self.idle, contents)


if __name__ == "__main__":
    place.main()
