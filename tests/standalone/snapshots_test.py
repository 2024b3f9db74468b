"""Snapshots on the datastore: what disks hold before, while and after they come and go, also when their maker is killed
at any step, and what stands in the VM's files."""

import contextlib
import os
import pathlib
import random
import re
import shutil
import signal
import unittest
import zlib
from unittest import mock

from fixture import SECTOR, TemporaryCase, flat_disk, uuid_of, vmx_text, write

from mirador_appliance.hypervisor import consolidation, cowd, descriptors, guest, locks, snapshots
from mirador_appliance.hypervisor.chain import Chain, check_links
from mirador_appliance.hypervisor.machine import Machine, PlainNames, Refused, no_steps

SECTORS = 4501  # more than one grain table of one-sector grains covers, and no multiple of anything
NOW = 1_700_000_000.25
INDEPENDENT = 'scsi0:2.mode = "independent-persistent"\r\n'
OURS, THEIRS = "vendor: 1", 'before "the" |update'


def read(path: str | pathlib.Path) -> bytes:
    """A disk's whole content."""
    with Chain.open(str(path), PlainNames().locate) as chain:
        return b"".join(chain.pieces())


class MachineCase(TemporaryCase):
    """A VM "vm" with the disks a, b and, independent, c."""
    sectors = SECTORS  # of each disk

    def setUp(self):
        super().setUp()
        patch = mock.patch("os.fsync")  # a kill, other than a loss of power, loses nothing that is written
        patch.start()
        self.addCleanup(patch.stop)
        self.home = self.directory / "vm"
        self.vmx = self.make(self.home)

    def make(self, home):
        for seed, name in enumerate("abc"):
            flat_disk(home / f"{name}.vmdk", self.sectors * SECTOR)
            (home / f"{name}-flat.vmdk").write_bytes(random.Random(seed).randbytes(self.sectors * SECTOR))
        text = vmx_text("vm", uuid_of(1), "a.vmdk", "b.vmdk", "c.vmdk").replace("\n", "\r\n")
        return str(write(home / "vm.vmx", text + INDEPENDENT))

    def heads(self, vmx=None):
        return Machine(vmx or self.vmx, PlainNames(), no_steps).heads()

    def contents(self, vmx=None):
        return {node: read(path) for node, path in self.heads(vmx).items()}

    def frozen(self, name, vmx=None):
        return {disk.node: read(disk.frozen) for disk in snapshots.frozen(vmx or self.vmx, name)}

    def run_guest(self, seed, rounds=40, vmx=None):
        with guest.Guest(vmx or self.vmx, seed) as running:
            for _ in range(rounds):
                running.write_round()

    def files(self, home=None):
        return sorted(path.name for path in (home or self.home).iterdir())

    def create(self, name, vmx=None, **more):
        snapshots.create(vmx or self.vmx, name, False, NOW, **more)

    def check_chains(self, vmx=None):
        machine = Machine(vmx or self.vmx, PlainNames(), no_steps)
        for path in machine.family().links:
            check_links(machine.chain(path))

    def killed_at(self, step, task):
        """Runs a task in a process that is killed as soon as that many steps are done; whether it came so far."""
        child = os.fork()
        if child == 0:
            left = iter(range(step))

            def die(_: str) -> None:
                if next(left, None) is None:
                    os.kill(os.getpid(), signal.SIGKILL)
            try:
                task(die)
                os._exit(0)
            finally:
                os._exit(1)
        _, status = os.waitpid(child, 0)
        if os.WIFEXITED(status):
            self.assertEqual(os.WEXITSTATUS(status), 0)
        return os.WIFSIGNALED(status)

    def at_every_step(self, task, check):
        """Kills `task(vmx, steps)` at each step in a fresh copy of the VM; check(vmx, home, live) follows. Disks have
        their content all the time."""
        live, step = self.contents(), 0
        while True:
            home = self.directory / "copy"
            shutil.copytree(self.home, home)
            vmx = str(home / "vm.vmx")
            with self.subTest(step=step):
                was_killed = self.killed_at(step, lambda steps: task(vmx, steps))
                self.assertEqual(self.contents(vmx), live)
                self.run_guest(1000 + step, 5, vmx)
                check(vmx, home, self.contents(vmx))
            shutil.rmtree(home)
            if not was_killed:
                return step
            step += 1


class Contents(MachineCase):
    def test_snapshots_come_and_go_in_any_order(self):
        before, vmx_before = self.files(), pathlib.Path(self.vmx).read_bytes()
        held = {}
        for number in range(12):
            self.run_guest(number, 10)
            held[f"s{number:02}"] = self.contents()
            self.create(f"s{number:02}")
        self.run_guest(99, 10)
        live = self.contents()
        self.assertEqual(len({content["scsi0:0"] for content in [*held.values(), live]}), 13)
        order = list(held)
        random.Random(7).shuffle(order)
        for name in order:
            for other, content in held.items():
                for node in ("scsi0:0", "scsi0:1"):
                    self.assertEqual(self.frozen(other)[node], content[node], other)
            self.check_chains()
            self.assertEqual(snapshots.remove(self.vmx, name), 1)
            del held[name]
            self.assertEqual(sorted(found.name for found in snapshots.list(self.vmx)), sorted(held))
            self.assertEqual(self.contents(), live)
        self.assertEqual(self.files(), sorted([*before, "vm.vmsd"]))
        self.assertEqual(pathlib.Path(self.vmx).read_bytes(), vmx_before)

    def delta(self, home, name, grain):
        """A delta that the VM has already."""
        cowd.make_empty(str(home / f"{name}-000001-delta.vmdk"), SECTORS, grain)
        (home / f"{name}-000001.vmdk").write_bytes(
            descriptors.delta_text(SECTORS, 0x1234abcd, 0x0a0b0c0d, f"{name}.vmdk", f"{name}-000001-delta.vmdk"))


class Interrupted(MachineCase):
    """A task is killed at each of its steps, the VM goes on writing, and the next task makes good what was left."""
    sectors = 301

    def test_create(self):
        for below in ([], [THEIRS]):
            for name in below:
                self.create(name)
                self.run_guest(1)
            at_first, held = self.files(), self.contents()
            vmx_before = pathlib.Path(self.vmx).read_bytes()

            def check(vmx, home, live):
                found = [found.name for found in snapshots.list(vmx)]
                self.assertIn(found, (below, [*below, OURS]))
                self.check_chains(vmx)
                self.assertEqual(self.contents(vmx), live)
                if OURS in found:
                    for node, content in self.frozen(OURS, vmx).items():
                        self.assertEqual(content, live[node] if node == "scsi0:2" else held[node])
                else:
                    self.assertEqual(self.files(home), sorted({*at_first, *self.database_of(home)}))
                self.assertEqual(snapshots.remove(vmx, OURS), len(found) - len(below))
                self.assertEqual(self.contents(vmx), live)
                self.assertEqual(self.files(home), sorted({*at_first, *self.database_of(home)}))
                self.assertEqual(pathlib.Path(vmx).read_bytes(), vmx_before)

            steps = self.at_every_step(lambda vmx, steps: snapshots.create(vmx, OURS, True, NOW, steps=steps), check)
            self.assertGreater(steps, 10)

    def database_of(self, home):
        return {"vm.vmsd"} & set(self.files(home))

    def test_remove(self):
        small = consolidation._SMALL
        cases = {"only one": ([OURS], small), "several": ([OURS, OURS], small),
                 "around another": ([OURS, THEIRS, OURS], 0)}
        for name, (chain, small) in cases.items():
            with self.subTest(name), mock.patch.object(consolidation, "_SMALL", small):
                self.check_remove(chain)

    def check_remove(self, names):
        shutil.rmtree(self.home)
        self.make(self.home)
        theirs = None
        for seed, name in enumerate(names):
            self.create(name)
            theirs = theirs or (self.frozen(THEIRS) if name == THEIRS else None)
            self.run_guest(seed, 3)

        def check(vmx, home, live):
            if theirs:
                for node in ("scsi0:0", "scsi0:1"):
                    self.assertEqual(self.frozen(THEIRS, vmx)[node], theirs[node])
            listed = [found.name for found in snapshots.list(vmx)]
            self.assertIn(listed, (names, [name for name in names if name != OURS]))
            if snapshots.needs_consolidation(vmx):
                with self.assertRaisesRegex(Refused, "need a consolidation"):
                    self.create("new", vmx)
            again = zlib.crc32(live["scsi0:0"]) % 40  # dies a second time, at any step
            self.killed_at(again, lambda steps: snapshots.remove(vmx, OURS, steps=steps))
            self.assertEqual(self.contents(vmx), live)
            snapshots.remove(vmx, OURS)
            self.check_chains(vmx)
            self.assertFalse(snapshots.needs_consolidation(vmx))
            self.assertEqual([found.name for found in snapshots.list(vmx)], [name for name in names if name != OURS])
            self.assertEqual(self.contents(vmx), live)
            self.assertEqual(sum("delta" in file for file in self.files(home)), 2 if theirs else 0)
            self.assertFalse([file for file in self.files(home) if file.startswith(".") or file.endswith(".tmp")])
            if theirs:
                for node in ("scsi0:0", "scsi0:1"):
                    self.assertEqual(self.frozen(THEIRS, vmx)[node], theirs[node])
                self.assertEqual(snapshots.remove(vmx, THEIRS), 1)
            self.assertEqual(self.contents(vmx), live)

        steps = self.at_every_step(lambda vmx, steps: snapshots.remove(vmx, OURS, steps=steps), check)
        self.assertGreater(steps, 30)


class Files(MachineCase):
    def test_foreign_snapshots_and_lines_are_kept(self):
        theirs = ('snapshot0.uid = "7"\nsnapshot0.filename = "vm-Snapshot7.vmsn"\nsnapshot0.displayName = "a|22b"\n'
                  'snapshot0.createTimeHigh = "395812"\nsnapshot0.createTimeLow = "-5"\nsnapshot0.customData = "x"\n'
                  'snapshot0.numDisks = "1"\nsnapshot0.disk0.fileName = "a.vmdk"\nsnapshot0.disk0.node = "scsi0:0"\n')
        write(self.home / "vm.vmsd", '.encoding = "UTF-8"\nsnapshot.numSnapshots = "1"\nsnapshot.current = "7"\n'
              'snapshot.lastUID = "9"\n' + theirs, "\r\n")
        self.create(OURS)
        mine = snapshots.list(self.vmx)[1]
        self.assertEqual((mine.name, mine.uid, mine.created, mine.quiesced), (OURS, 10, NOW, False))
        self.assertEqual(mine.disks, {"scsi0:0": str(self.home / "a.vmdk"), "scsi0:1": str(self.home / "b.vmdk")})
        text = (self.home / "vm.vmsd").read_bytes().decode()
        self.assertIn('snapshot1.parent = "7"\r\n', text)
        snapshots.remove(self.vmx, OURS)
        text = (self.home / "vm.vmsd").read_bytes().decode()
        self.assertTrue(text.endswith(theirs.replace("\n", "\r\n")), text)
        for line in ('snapshot.current = "7"', 'snapshot.numSnapshots = "1"', 'snapshot.lastUID = "10"'):
            self.assertIn(line + "\r\n", text)

    def test_what_is_refused_changes_nothing(self):
        delta = self.directory / "delta"
        cases = {
            "busy": (114, None, None),
            "consolidation": (16, "vm.vmsd", 'snapshot.needConsolidate = "TRUE"\n'),
            "raw": (22, "b.vmdk", (self.home / "b.vmdk").read_text().replace("VMFS", "VMFSRDM")),
            "short": (22, "b.vmdk", (self.home / "b.vmdk").read_text().replace(f"RW {SECTORS}", "RW 9999")),
            "missing": (22, "b.vmdk", None),
            "no name": (2, "vm.vmx", None),
            "parent changed": (22, "b.vmdk", (self.home / "b.vmdk").read_text().replace(
                "parentCID=ffffffff", 'parentCID=12345678\nparentFileNameHint="a.vmdk"')),
        }
        for name, (number, file, text) in cases.items():
            with self.subTest(name), contextlib.ExitStack() as stack:
                shutil.rmtree(delta, ignore_errors=True)
                shutil.copytree(self.home, delta)
                if text is not None:
                    write(delta / file, text)
                elif file:
                    (delta / file).unlink()
                else:
                    stack.enter_context(locks.task(str(delta / "vm.vmx")))
                before = self.files(delta)
                with self.assertRaises(Refused) as refused:
                    self.create(OURS, str(delta / "vm.vmx"))
                self.assertEqual((refused.exception.number, self.files(delta)), (number, before))

    def test_failure_on_the_way_is_undone(self):
        def full(step):
            if step == "delta descriptor written":
                raise OSError(28, "No space left on device")
        before = self.files()
        with self.assertRaises(Refused) as refused:
            self.create(OURS, steps=full)
        self.assertEqual((refused.exception.number, self.files(), snapshots.list(self.vmx)), (28, before, []))

    def test_data_that_is_lost_is_not_merged(self):
        self.create(OURS)
        self.run_guest(1)
        before = (self.home / "b-flat.vmdk").read_bytes()
        delta = self.home / "b-000001-delta.vmdk"
        os.truncate(delta, delta.stat().st_size - SECTOR)
        with self.assertRaisesRegex(Refused, "ends early"):
            snapshots.remove(self.vmx, OURS)
        self.assertTrue(delta.exists() and snapshots.needs_consolidation(self.vmx))
        self.assertNotEqual((self.home / "b-flat.vmdk").read_bytes(), before)  # what came before it is merged
        self.assertEqual(Machine(self.vmx, PlainNames(), no_steps).disks()[1].name, "b-000001.vmdk")

    def test_content_id_of_less_than_eight_digits(self):
        """With the disk's text alone in its file, with zeros behind it, and with the end of a longer text."""
        path = self.home / "a.vmdk"
        text = re.sub("(?m)^CID=.*", "CID=f0a78", path.read_text())
        for behind in ("", "\0" * 99, "\0", "\0\"\n"):
            path.write_text(text + behind)
            self.run_guest(1)
            found = path.read_text()
            self.assertRegex(found, "(?m)^CID=[0-9a-f]{8}$")
            self.assertEqual(found.partition("parentCID")[2].rstrip("\0"), text.partition("parentCID")[2])

    def test_disk_that_others_stand_on_is_not_touched(self):
        """Two branches stand on the disk that the snapshot holds; a third file is missing."""
        self.create(THEIRS)
        self.create(OURS)
        text = (self.home / "vm.vmsd").read_text()
        for node in "ab":
            Contents.delta(self, self.home, f"{node}-000001", 1)
            path = self.home / f"{node}-000001-000001.vmdk"
            parent = descriptors.content_id(Machine(self.vmx, PlainNames(), no_steps).chain(
                str(self.home / f"{node}-000001.vmdk"))[0].descriptor)
            path.write_text(descriptors.changed(path.read_text(), parent_cid=parent))
        text = text.replace('"2"\nsnapshot0', '"3"\nsnapshot0') + "".join(
            f'snapshot2.{line}\n' for line in ('uid = "90"', 'displayName = "branch"', 'numDisks = "1"',
                                               'disk0.fileName = "a-000001-000001.vmdk"', 'disk0.node = "scsi0:0"'))
        write(self.home / "vm.vmsd", text)
        self.run_guest(1)
        live, branch = self.contents(), self.frozen("branch")
        self.assertEqual(snapshots.remove(self.vmx, OURS), 1)
        self.assertEqual((self.contents(), self.frozen("branch")["scsi0:0"]), (live, branch["scsi0:0"]))
        self.assertIn("a-000002.vmdk", self.files())
        self.assertNotIn("b-000002.vmdk", self.files())


if __name__ == "__main__":
    unittest.main()
