"""Snapshots that the daemon's end leaves, however it comes, and those that it finds: its own go, all others stay."""

import concurrent.futures
import contextlib
import errno
import re
import signal
import time

from harness import place, snapshots
from harness.compare import Reader
from harness.snapshot_case import BOUND, OWN, OWN_UUID, SnapshotCase, next_seed, slug
from harness.tools import Failed, wait_equal, wait_until

BUSY = errno.EALREADY  # another task is in progress
DAY = 86400


class Strangers(SnapshotCase):
    """What this run did not make: what an earlier one left goes, everything else stays as it is."""

    settings = SnapshotCase.settings | {"snapshot.max_idle": "100000"}  # snapshots go when they are told to

    @classmethod
    def vm_names(cls):
        return ["left", "left-twice", "left-among-others", "mixed",
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
        snapshots.write_as_guest(vm, next_seed())
        contents = snapshots.contents(vm)
        self.remove_own(vm)
        wait_equal(lambda: snapshots.names(vm), ["on top"], "ours goes", BOUND)
        self.assertTrue(snapshots.contents(vm) == contents)
        self.assertTrue(snapshots.frozen(vm, "on top") == held)


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

    def end(self):
        """Ends the daemon in order. Its snapshots that are left: those it has ordered to go go within moments."""
        self.daemon.stop()
        with contextlib.suppress(Failed):
            wait_until(lambda: not self.left(), "all have gone", 5)
        return self.left()

    def left(self):
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
            is_busy = self.faults.next_call(self.waiting, "create_snapshot", "ended")
            opening = pool.submit(self.open_or_error, self.waiting)
            wait_until(is_busy, "it is busy", BOUND)
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

    def test_term_again_while_it_ends(self):
        """Who asks twice gets no snapshot left."""
        contents = self.assert_reads_frozen(self.idle)
        self.faults.set(self.idle.name, {"method": "remove_snapshot", "delay": 1})
        is_removed = self.faults.next_call(self.idle, "remove_snapshot")
        self.daemon.signal(signal.SIGTERM)
        wait_until(is_removed, "it is being removed", BOUND)
        for number in (signal.SIGINT, signal.SIGHUP, signal.SIGTERM):
            self.daemon.signal(number)
        self.daemon.wait()
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

    def test_killed_while_the_agent_acts(self):
        """The agent goes on, and makes the snapshot when the next run has looked for what was left. That run finds it
        when it looks at all snapshots, once an hour."""
        contents = snapshots.contents(self.idle)
        self.faults.set(self.idle.name, {"method": "create_snapshot", "delay": 6})
        is_made = self.faults.next_call(self.idle, "create_snapshot")
        with concurrent.futures.ThreadPoolExecutor() as pool:
            opening = pool.submit(self.open_or_error, self.idle)
            wait_until(is_made, "it is being made", BOUND)
            self.daemon.kill()
            self.assertIsInstance(opening.result(BOUND), OSError)
        self.daemon.environment["MIRADOR_CLOCK_FACTOR"] = "500"
        self.start()
        self.daemon.environment.update(self.environment)
        wait_until(lambda: OWN in snapshots.names(self.idle), "the agent goes on", BOUND)
        is_removed = self.faults.next_call(self.idle, "remove_snapshot", "ended")
        self.wait_clean(self.idle, contents)
        wait_until(is_removed, "the agent has answered", BOUND)  # it would have a quarter of a second at the end
        self.daemon.stop()


if __name__ == "__main__":
    place.main()
