"""Starting, stopping and dying: the command line, the log, recovery, and what is left behind."""

import contextlib
import os
import pathlib
import subprocess
import threading
import time
import unittest

from harness import census, place
from harness.case import DaemonCase
from harness.compare import Reader, first_difference
from harness.daemon import EXPORT, MOUNT_OPTIONS, Daemon, export, flat_entry
from harness.disks import MIB, SECTOR, base_disk, datastore, raw_image, reference, sparse_delta
from harness.tools import WORK, program, run, wait_until

SHADOW = EXPORT.with_name("export.shadow")


def mirador(*arguments, cwd=None):
    """Runs the daemon's program to its end."""
    return subprocess.run([program("mirador"), *arguments], capture_output=True, text=True, timeout=60, check=False,
                          cwd=cwd)


def mount_kind(path):
    with open("/proc/self/mountinfo") as table:
        kinds = [line.split(" - ")[1].split()[0] for line in table if line.split()[4] == str(path)]
    return kinds[-1] if kinds else None


def processes_named(name):
    return [int(entry) for entry in filter(str.isdigit, os.listdir("/proc")) if comm(entry) == name]


def comm(process):
    with contextlib.suppress(OSError):
        return pathlib.Path(f"/proc/{process}/comm").read_text().strip()


class CommandLine(unittest.TestCase):
    """Nothing is started, so the machine stays as it was."""

    def setUp(self):
        before = census.take()
        self.addCleanup(lambda: self.assertEqual(census.left(before), {}))

    def test_starts_that_fail(self):
        """After recovery, in the foreground and in the background; nothing stays."""
        for name, options, status, text in (
            ("shadow file system", ["-O", "size=nonsense"], 1, f"tmpfs_create({SHADOW}, size=nonsense) returned an"),
            ("shadow directory", ["-D", "-P", "/nowhere"], 1, "/nowhere: No such file or directory\n"),
            # A mount that fails is for the caller to see.
            ("option that FUSE does not know", ["-o", "nonsense"], 0, f"mirador: cannot mount on {EXPORT}"),
        ):
            with self.subTest(name):
                done = mirador("--no-threads", *options, str(EXPORT))
                self.assertEqual(done.returncode, status)
                self.assertIn(text, done.stdout + done.stderr)
                self.assertFalse(os.path.exists(SHADOW))
                wait_until(lambda: not processes_named("mirador"), "the daemon ends")


class Running(DaemonCase):
    """A daemon with places of its own."""

    options = ("-P", str(WORK / "shadow/deep"), "-O", "size=1M,mode=0700")

    def test_shadow_tree_is_where_it_was_asked_for(self):
        shadow = WORK / "shadow/deep"
        self.assertEqual((mount_kind(shadow), os.stat(shadow).st_mode & 0o777), ("tmpfs", 0o700))
        self.assertFalse(os.path.exists(SHADOW))

    def test_second_daemon_is_refused(self):
        """And leaves the first one's mounts and devices alone."""
        loop = run("losetup", "-f", "--show", "-r", "/etc/passwd").strip()
        self.addCleanup(run, "losetup", "-d", loop)
        other = WORK / "other"
        other.mkdir()
        before = census.take()
        for mount_point in (EXPORT, other):
            done = mirador("--no-threads", str(mount_point))
            self.assertEqual((done.returncode, done.stdout, done.stderr), (1, "", "mirador: already running\n"))
        self.assertEqual(census.take(), before)
        os.statvfs(EXPORT)


class Lifecycle(unittest.TestCase):
    """Each test starts daemons of its own and finds the machine clean at its end."""

    @classmethod
    def setUpClass(cls):
        cls.store = datastore("lifecycle")
        image = raw_image(WORK / "lifecycle.img", 8 * MIB + SECTOR, seed=21)
        cls.disk = sparse_delta(base_disk(cls.store, "vm", image), [(MIB, MIB), (5 * MIB, 9 * SECTOR)])
        cls.other = base_disk(cls.store, "other", image)

    def setUp(self):
        before = census.take()
        self.addCleanup(lambda: self.assertEqual(census.left(before), {}))

    def start(self, *options):
        daemon = Daemon(*options)
        daemon.start()
        self.addCleanup(lambda: daemon.is_running() and daemon.stop())
        return daemon

    def check_disk(self, daemon, disk):
        self.assertIsNone(first_difference(daemon.export_disk(disk), reference(disk)))

    def test_ends_while_files_are_open(self):
        """A client that still holds a file keeps neither the daemon nor anything of it."""
        daemon = self.start()
        held = os.open(daemon.export_disk(self.disk), os.O_RDONLY)
        self.assertEqual(len(os.pread(held, MIB, 0)), MIB)
        daemon.stop()
        with self.assertRaises(OSError):
            os.pread(held, 1, 6 * MIB)
        with contextlib.suppress(OSError):
            os.close(held)
        self.assertEqual((census.loops(), census.mappings()), (frozenset(), frozenset()))
        self.assertFalse(os.path.exists(SHADOW))

    def test_ends_when_it_is_unmounted(self):
        """In the background, where it went once it served."""
        logs = WORK / "background"
        logs.mkdir()
        done = mirador("-L", "background", "--no-threads", "../../export", *MOUNT_OPTIONS, cwd=WORK)
        self.assertEqual((done.returncode, done.stdout, done.stderr), (0, "", ""))
        self.assertTrue(mount_kind(EXPORT).startswith("fuse"))
        [process] = processes_named("mirador")
        self.assertEqual((os.readlink(f"/proc/{process}/cwd"), os.getsid(process)), ("/", process))
        run("umount", EXPORT)
        wait_until(lambda: not processes_named("mirador"), "the daemon ends")
        self.assertTrue((logs / "mirador").exists())
        self.assertFalse(os.path.exists(SHADOW))

    def test_leaves_no_dead_mount_where_its_connection_was_ended(self):
        """umount -f ends the connection, then finds the mount busy."""
        daemon = self.start()
        held = os.open(daemon.export_disk(self.disk), os.O_RDONLY)
        done = subprocess.run(["umount", "-f", EXPORT], capture_output=True, timeout=60, check=False)
        self.assertIn(b"busy", done.stderr)
        daemon.wait()
        self.assertIsNone(mount_kind(EXPORT))
        with contextlib.suppress(OSError):
            os.close(held)

    def test_directory_of_the_users_own(self):
        """What -D names is used as it stands, counted, and left alone."""
        own = WORK / "own"
        own.mkdir()
        export([flat_entry("vm/disk-flat.vmdk", self.disk)], str(own))
        daemon = self.start("-D", "-P", str(own))
        self.assertEqual(mount_kind(own), None)
        self.assertIsNone(first_difference(EXPORT / "vm/disk-flat.vmdk", reference(self.disk)))
        blocks = -(-self.disk.size // SECTOR)
        self.assertEqual(os.statvfs(EXPORT).f_blocks, blocks // (os.statvfs(own).f_bsize // SECTOR))
        daemon.stop()
        self.assertTrue((own / "vm/disk-flat.vmdk").exists())

    def test_recovers_from_a_kill_amid_reads(self):
        """Readers get errors, the next start clears everything, the machine's own mounts below /mnt included."""
        daemon = self.start()
        path = daemon.export_disk(self.disk)
        readers = [threading.Thread(target=self._read_until_it_fails, args=(path,), daemon=True) for _ in range(8)]
        for reader in readers:
            reader.start()
        wait_until(lambda: self.reads > 50, "reads are under way")
        daemon.kill()
        for reader in readers:
            reader.join(timeout=30)
        self.assertFalse([reader for reader in readers if reader.is_alive()])
        self.assertEqual((len(census.loops()), len(census.mappings())), (2, 1))
        self.assertEqual(mount_kind(SHADOW), "tmpfs")
        for name in ("left.corstorage", "left.query_results", "left.zero", "kept"):
            pathlib.Path("/tmp", name).touch()
        os.makedirs("/mnt/left", exist_ok=True)
        run("mount", "-t", "tmpfs", "left", "/mnt/left")

        again = self.start()
        self.assertEqual((census.loops(), census.mappings()), (frozenset(), frozenset()))
        self.assertEqual([name for name in os.listdir("/tmp") if "left" in name or "vdsk" in name], [])
        os.unlink("/tmp/kept")
        self.assertIsNone(mount_kind("/mnt/left"))
        self.assertEqual(os.listdir(EXPORT), [])
        self.check_disk(again, self.disk)

    reads = 0

    def _read_until_it_fails(self, path):
        with contextlib.suppress(OSError), Reader(path, direct=True) as reader:
            offset = 0
            while True:
                reader.read(offset, MIB)
                offset = (offset + 77 * SECTOR) % self.disk.size
                self.reads += 1

    def test_recovers_from_kills_amid_opens(self):
        """A disk that is being mapped while the daemon is killed leaves its parts behind in any state."""
        for delay in (0.01, 0.5):
            daemon = self.start()
            self.check_disk(daemon, self.other)
            path = daemon.export_disk(self.disk)
            opener = threading.Thread(target=self._open, args=(path,), daemon=True)
            opener.start()
            time.sleep(delay)  # the point in time is the test's subject
            daemon.kill()
            opener.join(timeout=30)
            self.assertFalse(opener.is_alive())
        again = self.start()
        self.assertEqual((census.loops(), census.mappings()), (frozenset(), frozenset()))
        self.check_disk(again, self.disk)

    @staticmethod
    def _open(path):
        with contextlib.suppress(OSError):
            os.close(os.open(path, os.O_RDONLY))


if __name__ == "__main__":
    place.main()
