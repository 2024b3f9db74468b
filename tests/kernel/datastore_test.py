#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The datastore's server fails the daemon: it stops and returns, it never returns, its handles are stale, it is full.

    VM_NFS=1 tests/kernel/run-vm tests/kernel/datastore_test.py [CLASS.TEST ...]

The datastore is mounted as docs/state.md says, with shorter times. MIRADOR_CRASH_ALL=1: the server stops for a
minute."""

import os
import signal
import subprocess
import time

import crash_case
import nfs
from crash_case import BLOCK, BOUND, SERVED

from harness import place, snapshots
from harness.cbt_case import DISKS
from harness.compare import Reader
from harness.tools import WORK, run, saved_error, wait_equal, wait_until

PAUSE = 60 if os.environ.get("MIRADOR_CRASH_ALL") == "1" else 10  # seconds
NO_SPACE, IO_ERROR = 28, 5


class Datastore(crash_case.CrashCase):
    nfs_options = nfs.SOFT

    def setUp(self):
        super().setUp()
        self.path = self.exported(self.used, "disk")

    def check(self, read):
        """What is read is what the disk held at the moment of its snapshot, and comes from the server."""
        nfs.forget_cached()
        copy = WORK / "read"
        copy.write_bytes(b"".join(read(offset, BLOCK) for offset in range(0, DISKS["disk"], BLOCK)))
        self.assert_is_of_moment(self.used, "disk", copy)

    def check_backup(self):
        with Reader(self.path, direct=True) as reader:
            self.check(reader.read)

    def test_full(self):
        """A snapshot that finds no room: the client is told, and nothing of it stays."""
        self.check_backup()
        self.remove_own(self.used)
        files = self.files_before[self.used.name]
        wait_equal(lambda: snapshots.files(self.used), files, "the snapshot is removed")
        filler = SERVED / self.store.name / "filler"
        subprocess.run(["dd", "if=/dev/zero", f"of={filler}", "bs=4k"], stderr=subprocess.DEVNULL)
        with self.assertRaises(OSError):
            Reader(self.path).__exit__()
        self.assertEqual(saved_error(self.path)[0], NO_SPACE)
        wait_equal(lambda: snapshots.files(self.used), files, "nothing stays")
        filler.unlink()
        self.check_backup()

    def test_stops_and_returns(self):
        """Who reads waits, and gets the right bytes."""
        with Reader(self.path, direct=True) as reader:
            self.check(reader.read)
            nfs.forget_cached()
            nfs.stop()
            first = []
            self.let_go_on(lambda: first.append(reader.read(0, BLOCK)))
            time.sleep(PAUSE)
            self.assertEqual(first, [])
            nfs.resume()
            self.join_clients()
            self.check(lambda offset, size: first[0] if offset == 0 else reader.read(offset, size))

    def test_stale(self):
        """Handles that the server knows no more are errors, until it knows them again."""
        with Reader(self.path, direct=True) as reader:
            self.check(reader.read)
            nfs.forget_cached()
            run("exportfs", "-ua")
            with self.assertRaises(OSError):
                reader.read(0, BLOCK)
            self.assertEqual(saved_error(self.path)[0], IO_ERROR)
            run("exportfs", "-a")
            self.check(reader.read)

    def test_never_returns(self):
        """Readers get errors; the daemon can be ended and started; all is well if the server returns after all."""
        with Reader(self.path, direct=True) as reader:
            reader.read(0, BLOCK)
            nfs.forget_cached()
            nfs.stop()
            self.addCleanup(nfs.resume)  # does nothing when it runs
            errors = []

            def read():
                try:
                    reader.read(BLOCK, BLOCK)
                except OSError as error:
                    errors.append(error.errno)
            began = time.monotonic()
            self.let_go_on(read)
            wait_until(lambda: errors, "the reader gets an error")
            print(f"an error after {time.monotonic() - began:.1f} s", flush=True)
            self.join_clients()
        began = time.monotonic()
        self.daemon.signal(signal.SIGTERM)
        self.assertEqual(self.daemon._process.wait(BOUND), 0)
        print(f"ended after {time.monotonic() - began:.1f} s", flush=True)
        began = time.monotonic()
        self.launch()
        print(f"started after {time.monotonic() - began:.1f} s", flush=True)
        nfs.resume()
        self.wait_exported(self.used)
        self.check_backup()


if __name__ == "__main__":
    place.main()
