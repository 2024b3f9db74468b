"""Tracked changes: what a list since a change id tells covers all that the guest wrote, whatever snapshots, merges,
kills and resets come between, and not much more; and change ids that do not hold are turned down."""

import contextlib
import os
import pathlib
import random
import subprocess
import sys
import threading
import unittest
from unittest import mock

from fixture import SECTOR, flat_disk
from snapshots_test import NOW, MachineCase, read

from mirador_appliance.hypervisor import consolidation, ctk, guest, snapshots, tracking
from mirador_appliance.hypervisor.descriptors import change_content_id
from mirador_appliance.hypervisor.machine import Machine, PlainNames, no_steps
from mirador_appliance.hypervisor.tracking import EVERYTHING, ResetNeeded

NODES = ("scsi0:0", "scsi0:1")
BLOCK = ctk.BLOCK * SECTOR
SECTORS = 40 * ctk.BLOCK + 7


class TrackedCase(MachineCase):
    sectors = SECTORS

    def setUp(self):
        super().setUp()
        snapshots.track(self.vmx, True)

    def machine(self):
        return Machine(self.vmx, PlainNames(), no_steps)

    def ask(self, name, since, node="scsi0:0"):
        """(change id, extents) of a snapshot's disk."""
        machine = self.machine()
        record = next(record for record in machine.database().snapshots if record.name == name)
        return tracking.ask(machine, node, record, since)

    def take(self, name):
        """A snapshot with what its disks hold; its change ids, by node."""
        held = self.contents()
        self.create(name)
        return held, {node: self.ask(name, None, node)[0] for node in NODES}

    def assert_covers(self, name, since, old, new):
        """The list, laid over the old content, gives the new one. Returns the bytes it has more than differ."""
        more = 0
        for node in NODES:
            merged = bytearray(old[node]).ljust(len(new[node]), b"\0")
            _, extents = self.ask(name, since[node], node)
            end = 0
            for extent in extents:
                self.assertGreaterEqual(extent.start, end)
                end = extent.start + extent.length
                merged[extent.start:end] = new[node][extent.start:end]
                more += extent.length
            self.assertLessEqual(end, len(new[node]))
            self.assertTrue(bytes(merged) == new[node], f"{name}, {node}")
        return more

    def write(self, *sectors):
        """Lets the guest write to the first disk."""
        with mock.patch("mirador_appliance.hypervisor.guest.writes",
                        lambda *_: ((0, first, os.urandom(SECTOR)) for first in sectors)):
            self.run_guest(0, 1)

    def starts(self, name, since):
        return [extent.start // BLOCK for extent in self.ask(name, since)[1]]


class Lists(TrackedCase):
    def test_any_two_snapshots_of_a_long_history(self):
        """Among snapshots that come and go in any order, with a guest that writes between."""
        rng, taken = random.Random(3), {}
        for number in range(24):
            self.run_guest(number, rng.randrange(5))
            name = f"s{number}"
            taken[name] = self.take(name)
            newest = taken[name]
            for old in rng.sample(list(taken), min(3, len(taken))):
                self.assert_covers(name, taken[old][1], taken[old][0], newest[0])
            if rng.random() < 0.6:
                largest = rng.choice((0, 16 << 20))  # delta that is merged without another one on top of it
                with mock.patch.object(consolidation, "_SMALL", largest):
                    self.run_guest(100 + number, 1)
                    snapshots.remove(self.vmx, rng.choice([found.name for found in snapshots.list(self.vmx)][-3:]))
        self.assertEqual(len({ids["scsi0:0"].rpartition("/")[0] for _, ids in taken.values()}), 1, "one epoch")

    def test_a_list_is_exact_to_the_block(self):
        _, ids = self.take("one")
        self.write(0, 3 * ctk.BLOCK - 1, 3 * ctk.BLOCK, SECTORS - 1)
        self.create("two")
        _, extents = self.ask("two", ids["scsi0:0"])
        self.assertEqual([(extent.start, extent.length) for extent in extents],
                         [(0, BLOCK), (2 * BLOCK, 2 * BLOCK), (40 * BLOCK, 7 * SECTOR)])
        _, second = self.ask("two", None)[0], self.ask("two", self.ask("two", None)[0])[1]
        self.assertEqual(second, [], "nothing since itself")

    def test_what_is_stored(self):
        for name in "ab":
            os.truncate(self.home / f"{name}-flat.vmdk", 0)
            os.truncate(self.home / f"{name}-flat.vmdk", self.sectors * SECTOR)
        self.write(5 * ctk.BLOCK)
        self.create("below")
        self.write(9 * ctk.BLOCK)
        self.create("one")
        self.assertEqual(self.starts("one", EVERYTHING), [5, 9])
        new = self.contents()
        self.assert_covers("one", dict.fromkeys(NODES, EVERYTHING), {node: b"" for node in NODES}, new)

    def test_a_long_list_is_told_in_fewer_extents(self):
        ranges = [[0, 1], [3, 4], [5, 8], [10, 11], [40, 41]]
        for most, expected in ((5, ranges), (4, [[0, 1], [3, 8], [10, 11], [40, 41]]), (2, [[0, 11], [40, 41]]),
                               (1, [[0, 41]])):
            self.assertEqual(tracking.bounded(ranges, most), expected)


class Resets(TrackedCase):
    def assert_lost(self, name, ids):
        """The ids hold no longer; the snapshot has one of another epoch."""
        with self.assertRaises(ResetNeeded):
            self.ask(name, ids["scsi0:0"])
        self.assertNotEqual(self.ask(name, EVERYTHING)[0].rpartition("/")[0], ids["scsi0:0"].rpartition("/")[0])

    def test_who_writes_without_tracking(self):
        def as_another_hypervisor():
            head = self.heads()["scsi0:0"]
            change_content_id(head)

        def after_a_loss_of_power():
            with mock.patch.object(ctk, "_this_boot", lambda: b"x" * 16), \
                    mock.patch.object(ctk.TrackedChanges, "switch_off"):
                self.write(1)

        def another_disk():
            flat_disk(self.home / "d.vmdk", SECTORS * SECTOR)
            self.machine().write_configuration({"scsi0:0": "d.vmdk"}, "configuration")

        for number, way in enumerate((as_another_hypervisor, after_a_loss_of_power, another_disk)):
            with self.subTest(way.__name__):
                _, ids = self.take(f"before {number}")
                way()
                self.create(f"behind {number}")
                self.assert_lost(f"behind {number}", ids)
                held, ids = self.take(f"again {number}")
                self.run_guest(number)
                self.create(f"at last {number}")
                self.assert_covers(f"at last {number}", ids, held, self.contents())

    def test_ids_that_do_not_hold(self):
        _, ids = self.take("one")
        epoch = ids["scsi0:0"].rpartition("/")[0]
        for wrong in ("", "/", "*1", epoch, f"{epoch}/", f"{epoch}/0", f"{epoch}/2", f"{epoch}/-1", f"{epoch}/x",
                      f"{epoch}/1{'0' * 30}", f"{epoch}/\u0661", f"{epoch[:-1]}/1", "\udcff/1"):
            with self.subTest(wrong), self.assertRaises(ResetNeeded):
                self.ask("one", wrong)

    def test_a_reset_while_the_guest_writes(self):
        """No earlier id holds. The snapshot that stands has one of the new epoch, from which changes are known."""
        held, old = self.take("one")
        with guest.Guest(self.vmx, 5) as running:
            running.write_round()
            snapshots.forget_changes(self.vmx)
            self.assert_lost("one", old)
            running.write_round()
            ids = {node: self.ask("one", None, node)[0] for node in NODES}
            self.create("two")
            running.write_round()
        self.assert_covers("two", ids, held, self.frozen("two"))

    def test_files_that_are_damaged(self):
        path = pathlib.Path(tracking.path_of(self.machine(), "scsi0:0"))
        whole = path.read_bytes()
        for what, data in (("empty", b""), ("cut", whole[:-4]), ("no header", b"x" * len(whole)),
                           ("entries", whole[:72] + b"\xff" * 4 + whole[76:])):
            with self.subTest(what):
                path.write_bytes(data)
                self.create(what)
                self.ask(what, EVERYTHING)


class Switches(TrackedCase):
    def test_which_disks_are_tracked(self):
        vmx = pathlib.Path(self.vmx)
        text = vmx.read_bytes()
        self.assertEqual(tracking.nodes(self.machine()), list(NODES), "no independent one")
        for change, expected in ((b'scsi0:1.ctkEnabled = "false"\r\n', ["scsi0:0"]),
                                 (b'scsi0:0.CTKENABLED = "0"\r\nscsi0:1.ctkEnabled="TRUE"\r\n', ["scsi0:1"]),
                                 (b'ctkEnabled = "nonsense"\r\n', [])):
            vmx.write_bytes(text + change)
            self.assertEqual(tracking.nodes(self.machine()), expected)

    def test_a_merge_goes_first(self):
        """Both write the base's descriptor."""
        self.create("one")
        self.run_guest(1)
        self.create("two")
        switch = threading.Thread(target=snapshots.track, args=(self.vmx, False))

        def meanwhile(step):
            if step == "parent's id written" and switch.ident is None:
                switch.start()
                switch.join(0.2)

        held = self.contents()
        self.assertEqual(snapshots.remove(self.vmx, "one", steps=meanwhile), 1)
        switch.join()
        self.assertNotIn("changeTrackPath", (self.home / "a.vmdk").read_text())
        self.create("three")
        self.assertEqual(self.contents(), held)


class Kills(TrackedCase):
    """The maker of snapshots dies behind every step, and the guest in the middle of a write."""
    sectors = 5 * ctk.BLOCK + 1

    def test_at_every_step(self):
        held, ids = self.take("one")
        self.run_guest(1, 3)

        def check(vmx, *_):
            with mock.patch.object(self, "vmx", vmx):
                snapshots.consolidate(vmx)
                self.create("at last")
                self.assert_covers("at last", ids, held, self.contents())

        for task in (lambda vmx, steps: snapshots.create(vmx, "another", False, NOW, steps=steps),
                     lambda vmx, steps: snapshots.remove(vmx, "one", steps=steps)):
            self.assertGreater(self.at_every_step(task, check), 10)

    def test_the_guest(self):
        held, ids = self.take("one")
        for seed in range(5):
            program = (f"from mirador_appliance.hypervisor.guest import run\n"
                       f"run({self.vmx!r}, {seed}, lambda: True, 0)")
            library = str(pathlib.Path(snapshots.__file__).parents[2])
            process = subprocess.Popen([sys.executable, "-B", "-c", program],
                                       env={**os.environ, "PYTHONPATH": library})
            before = read(self.heads()["scsi0:0"])
            with contextlib.suppress(OSError):
                while read(self.heads()["scsi0:0"]) == before and process.poll() is None:
                    pass
            process.kill()
            process.wait()
            self.create(f"s{seed}")
            self.assert_covers(f"s{seed}", ids, held, self.contents())
        newest = self.ask("s4", None)[0]
        self.assertEqual(newest.rpartition("/")[0], ids["scsi0:0"].rpartition("/")[0], "nothing was missed")


if __name__ == "__main__":
    unittest.main()
