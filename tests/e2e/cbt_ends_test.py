"""Ends of the daemon, good and bad, while it reads from itself: amid reads and set-ups of changed-block files."""

import contextlib
import os
import signal
import subprocess
import threading

from harness import place, snapshots
from harness.cbt_case import DISKS
from harness.cbt_load import LoadCase
from harness.compare import Reader
from harness.daemon import EXPORT
from harness.snapshot_case import BOUND
from harness.tools import wait_equal, wait_until

BLOCK = 64 * 1024


class Ends(LoadCase):
    """The daemon's end while it reads from itself."""

    settings = LoadCase.settings | {"snapshot.max_idle": "100000"}  # what was read stays mapped

    @classmethod
    def vm_names(cls):
        return ["first", "second"]

    def setUp(self):
        self.start()
        super().setUp()
        self.end()
        self.start()
        self.first, self.second = self.vms.values()
        self.ends = threading.Event()
        self.reads = 0

    def tearDown(self):
        """A daemon that starts now finds nothing in its way and gives the right bytes."""
        self.start()
        for vm in self.vms.values():  # one that was killed has left some
            wait_equal(lambda vm=vm: snapshots.names(vm), [], f"{vm.name}: no snapshot", BOUND)
        self.incremental(self.first, self.bases[self.first.name])
        self.end()

    def wait_quiet(self, vm):
        """Files stay mapped here until the daemon ends."""

    def start(self, **points):
        super().start(**points)
        for vm in self.vms.values():
            for disk in DISKS:
                wait_until(self.changed(vm, disk).exists, f"{vm.name}, {disk}: its changes are exported", BOUND)

    def end(self):
        """It ends in order and leaves nothing."""
        self.daemon.stop()
        self.assert_nothing_left()

    def assert_nothing_left(self):
        self.assertEqual({**self.left(), "mounted": os.path.ismount(EXPORT)}, {"mounted": False})
        for vm in self.vms.values():
            self.assertEqual(snapshots.names(vm), [])

    def _read(self, path):
        """Reads a file over and over until that fails."""
        with contextlib.suppress(OSError), Reader(path) as reader:
            size = os.fstat(reader._fd).st_size
            while not self.ends.is_set():
                for offset in range(0, size, BLOCK):
                    reader.read(offset, BLOCK)
                    self.reads += 1

    @contextlib.contextmanager
    def readers(self):
        """Readers of all changed-block files, while the context lasts or until they fail."""
        files = [self.changed(vm, disk) for vm in self.vms.values() for disk in DISKS] * 4
        with self.reading(files):
            wait_until(lambda: self.reads > 1, "reads are under way", BOUND)  # the next ones: nothing is cached yet
            yield

    @contextlib.contextmanager
    def reading(self, files):
        threads = [threading.Thread(target=self._read, args=(file,), daemon=True) for file in files]
        for thread in threads:
            thread.start()
        try:
            yield
        finally:
            self.ends.set()
            for thread in threads:
                thread.join(60)
            self.assertFalse([thread for thread in threads if thread.is_alive()], "every reader comes free")

    def test_in_order_amid_reads(self):
        """Requests that wait for the file system's own end are ended. A signal may also come when there is none."""
        for _ in range(4):
            self.start()
            with self.slow(0.2), self.readers():
                self.end()
            if "ending FUSE connection" in self.daemon.log():
                return
            self.ends.clear()
            self.reads = 0
        self.fail("no read was ever under way when the daemon was to end")

    def test_in_order_amid_set_ups(self):
        """Whatever the set-up waits for: the snapshot, with the flat disk's open behind it, or itself."""
        self.faults.set(self.first.name, {"method": "create_snapshot", "delay": 3})
        begins = self.faults.next_call(self.first, "create_snapshot")
        with self.reading([self.changed(vm, disk) for vm in self.vms.values() for disk in DISKS]):
            wait_until(begins, "the snapshot is being made", BOUND)
            self.end()
        self.faults.set(self.first.name)

        for point in ("bound", "header", "loaded", "noted"):
            self.ends.clear()
            with self.subTest(point):
                self.start(**{f"cbt.{point}": "wait:100"})
                with self.reading([self.changed(self.first, "disk")]):
                    wait_until(lambda: self.left().get("loops"), "it is being set up", BOUND)
                    self.end()

    def test_with_files_cached(self):
        """Nobody reads, but the loop devices lie over the daemon's own files."""
        for vm in self.vms.values():
            Reader(self.changed(vm, "disk")).__exit__()
        self.assertTrue(self.left()["loops"])
        self.end()

    def test_killed_amid_reads(self):
        """The dead daemon's threads wait for its own file system, and it keeps the lock: the next start frees them."""
        with self.slow(0.2), self.readers():
            dead = self.daemon._process
            dead.send_signal(signal.SIGKILL)
            with contextlib.suppress(subprocess.TimeoutExpired):
                dead.wait(timeout=2)
            hung = dead.poll() is None
            self.daemon.start()
            dead.wait(timeout=30)
            print(f"the dead daemon hung: {hung}")
        for kind in ("loops", "mappings"):
            self.assertNotIn(kind, self.left())

    def test_killed_amid_set_ups(self):
        """The next run takes away what is left, and its first file is right."""
        for point in ("bound", "script", "table", "loaded", "noted"):
            with self.subTest(point):
                self.start(**{f"cbt.{point}": "kill"})
                with self.assertRaises(OSError):
                    Reader(self.changed(self.first, "disk")).__exit__()
                self.daemon._process.wait(timeout=30)
                self.start()
                self.assertEqual(self.left(), {})
                self.incremental(self.first, self.bases[self.first.name])
        self.end()


if __name__ == "__main__":
    place.main()
