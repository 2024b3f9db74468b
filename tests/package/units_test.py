#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The packages' units with systemd as the virtual machine's init, kernel device-mapper and udev.

    MIRADOR_PACKAGES=DIR VM_SHOW=DIR VM_ROOT=$(tests/package/make-root) tests/kernel/run-vm tests/package/units_test.py
"""

import os
import pathlib
import re
import shutil
import signal
import subprocess
import sys
import time
import unittest

from place import (EXPORT, MACHINE, assert_nothing_left, check_disk, devices, exported, lock_holder, make_machine,
                   packages, run, snapshots, source, wait)

DAEMON = "mirador.service"
UNITS = (DAEMON, "mirador-appliance.service", "mirador-watch.service")
SECOND = f"{MACHINE}_1"
DEFAULTS = pathlib.Path("/etc/default/mirador")
FILTER = "/usr/share/doc/mirador/examples/lvm-filter.conf"


def show(unit, *names):
    words = run("systemctl", "show", "--value", *(f"-p{name}" for name in names), unit).splitlines()
    return words[0] if len(names) == 1 else words


def is_active(unit):
    return show(unit, "ActiveState") == "active"


def make_volume_group(path):
    """Lets the guest have a volume group on a whole disk."""
    loop = run("losetup", "--show", "-f", path).strip()
    run("vgcreate", "-y", "guest", loop)
    run("lvcreate", "-y", "-Wn", "-Zn", "-an", "-L4M", "-nvolume", "guest")
    run("losetup", "-d", loop)


def make_newer(package):
    """The package with a higher version."""
    tree = pathlib.Path("/root/newer")
    run("dpkg-deb", "-R", package, tree)
    control = tree / "DEBIAN/control"
    control.write_text(re.sub(r"(?m)^Version: .*", lambda found: f"{found[0]}+newer", control.read_text()))
    newer = pathlib.Path("/root") / f"newer-{package.name}"
    run("dpkg-deb", "-Znone", "-b", tree, newer)
    shutil.rmtree(tree)
    return newer


def files():
    """All that lies on the machine's disk, but for what others note: the package system, the journal, time stamps."""
    others = ("/var/lib/dpkg/", "/var/log/journal/", "/var/log/dpkg.log", "/var/lib/systemd/", "/var/lib/logrotate/",
              "/var/cache/ldconfig/", "/root/", "/srv/", "/etc/lvm/", "/run/", "/tmp/")
    found = run("find", "/", "-xdev").splitlines()
    return {path for path in found if not path.startswith(others)}


class Units(unittest.TestCase):
    def test_life(self):
        """The steps go on from each other; one that fails is told, and the next is tried all the same."""
        self.before = files()
        for step in (self.install, self.start, self.host_keeps_off, self.volume_group, self.reload, self.upgrade,
                     self.crash, self.crash_amid_reads_of_itself, self.stop, self.fail_to_mount,
                     self.mount_without_unit, self.purge):
            with self.subTest(step.__name__):
                print(f"[{time.monotonic() - BEGAN:4.0f} s] {step.__name__}", flush=True)
                step()

    def install(self):
        run("dpkg", "--force-unsafe-io", "-i", *packages("mirador", "mirador-appliance"))
        for unit in (DAEMON, UNITS[1]):
            self.assertEqual(show(unit, "ActiveState", "UnitFileState"), ["inactive", "disabled"])
            run("systemctl", "preset", unit)
            self.assertEqual(show(unit, "UnitFileState"), "disabled")
        run("systemctl", "start", DAEMON, fails=True)  # without a controller it would ask none until it is killed
        self.assertIn("does not tell the controller's port", run("journalctl", "--no-pager", "-u", DAEMON))
        run("systemctl", "stop", DAEMON)

    def start(self):
        make_machine()
        make_volume_group(source(SECOND))
        run("systemctl", "enable", "--now", "mirador-appliance")
        wait(lambda: MACHINE in run("mirador-appliance", "status"), "the VM is found")
        run("mirador-appliance", "cbt", MACHINE, "on")
        run("systemctl", "enable", "--now", "mirador")
        self.assertTrue(os.path.ismount(EXPORT))  # this test is not of the unit, and the start has come back
        self.assertTrue(is_active(DAEMON) and is_active("mirador-watch.service"))
        self.assertEqual(*(os.readlink(f"/proc/{pid}/ns/mnt") for pid in (1, show(DAEMON, "MainPID"))))
        check_disk()
        self.assertTrue(snapshots() and devices())

    def host_keeps_off(self):
        mapping = next(name for name in os.listdir("/dev/mapper") if name.startswith("vdsk-"))
        known = run("udevadm", "info", "-q", "property", f"/dev/mapper/{mapping}")
        for line in ("SYSTEMD_READY=0", "UDISKS_IGNORE=1", "DM_UDEV_DISABLE_OTHER_RULES_FLAG=1"):
            self.assertIn(line, known)

    def volume_group(self):
        """A guest's volume group is neither activated nor, with the filter, seen."""
        with open(exported(SECOND), "rb") as disk:
            disk.read(4096)
            wait(lambda: sum(name.startswith("vdsk-") for name in devices()) == 2, "both disks are mapped")
            run("udevadm", "settle")
            self.assertEqual([name for name in devices() if name.startswith("guest-")], [], "activated")
            look = ("vgs", "--noheadings", "-o", "vg_name")
            self.assertIn("guest", run(*look))  # so there is something to hide
            local = pathlib.Path("/etc/lvm/lvmlocal.conf")
            local.write_text(local.read_text() + pathlib.Path(FILTER).read_text())
            self.assertNotIn("guest", run(*look))

    def reload(self):
        log = pathlib.Path("/var/log/mirador/mirador")
        self.assertTrue(log.read_text())
        run("logrotate", "-f", "/etc/logrotate.d/mirador")
        wait(log.exists, "the log is made anew")
        run("systemctl", "reload", DAEMON)
        self.assertTrue(is_active(DAEMON))

    def kill(self):
        daemon, times = lock_holder(), int(show(DAEMON, "NRestarts"))
        os.kill(daemon, signal.SIGKILL)
        wait(lambda: int(show(DAEMON, "NRestarts")) > times and is_active(DAEMON), "it is started again", 300)
        self.assertNotEqual(lock_holder(), daemon)
        check_disk()

    def crash(self):
        self.kill()

    def crash_amid_reads_of_itself(self):
        """A changed-block file is read through a loop device over the daemon's own tree. One that is killed meanwhile
        does not come to its end by itself."""
        changed = exported().with_name(exported().name.replace("-flat", "-corcbt"))
        wait(changed.exists, "its changes are exported")
        read = f"while dd if={changed} of=/dev/null bs=64k iflag=direct status=none; do :; done"
        for _ in range(4):
            reader = subprocess.Popen(["sh", "-c", read], stderr=subprocess.DEVNULL)
            self.addCleanup(reader.wait, 60)
            self.addCleanup(reader.kill)
        wait(lambda: any(name.startswith("cbt-") for name in devices()), "the changes are read")
        time.sleep(3)
        self.kill()
        print(run("journalctl", "-b", "--no-pager", "-o", "cat", "-u", "mirador-watch"))

    def upgrade(self):
        """A daemon that serves goes on serving."""
        newer = [make_newer(package) for package in packages("mirador", "mirador-appliance")]
        daemon, defaults = lock_holder(), DEFAULTS.read_text()
        DEFAULTS.write_text(f"{defaults}# mine\n")
        with open(exported(), "rb") as disk:
            self.assertIn("systemctl restart mirador", run("dpkg", "-i", *newer))
            self.assertEqual((lock_holder(), is_active(DAEMON)), (daemon, True))
            disk.seek(2 << 20)
            self.assertTrue(disk.read(4096))
        self.assertTrue(DEFAULTS.read_text().endswith("# mine\n"))
        self.assertIn("newer", run("dpkg-query", "-W", "mirador"))

    def stop(self):
        with open(exported(), "rb") as disk:
            disk.read(4096)
            self.assertTrue(snapshots())
            run("mirador-appliance", "guest", "--seconds", "3", MACHINE)  # so that there is something to be merged
            run("systemctl", "stop", DAEMON)
        assert_nothing_left()
        wait(lambda: not is_active("mirador-watch.service"), "the watch ends")
        self.assertEqual(show(DAEMON, "Result", "ActiveState"), ["success", "inactive"])

    def fail_to_mount(self):
        right = DEFAULTS.read_text()
        DEFAULTS.write_text(right.replace("use_ino", "no_such_option"))
        run("systemctl", "start", DAEMON, fails=True)
        run("systemctl", "stop", DAEMON)
        DEFAULTS.write_text(right)

    def mount_without_unit(self):
        run("mount", "-t", "fuse.mirador", "mirador", EXPORT, "-o", "ro", fails=True)
        with open("/etc/fstab", "a") as table:
            table.write("mirador /export fuse.mirador noauto,nofail,_netdev,x-systemd.mount-timeout=2h 0 0\n")
        run("mount", EXPORT)
        self.assertIn("default_permissions", run("findmnt", "-no", "OPTIONS", EXPORT))
        check_disk()
        self.assertIn("log", run("mount", "-t", "fuse.mirador", "mirador", "/srv", fails=True))
        self.assertIn("/export", run("dpkg", "-r", "mirador-appliance", fails=True))
        run("umount", EXPORT)
        assert_nothing_left()

    def purge(self):
        told = run("journalctl", "--no-pager", "-o", "cat", "_PID=1")
        self.assertNotRegex(told, r"/mirador[a-z-]*\.service:\d+: ")  # a line of a unit that makes no sense
        own = {"/vmfs/volumes/own", "/usr/local/corvantis/bin/own", "/var/log/mirador/own"}
        for path in own:
            pathlib.Path(path).touch()
        run("dpkg", "-r", "mirador-appliance", "mirador")
        self.assertEqual(show("mirador-appliance.service", "ActiveState"), "inactive")
        run("dpkg", "-P", "mirador-appliance", "mirador")
        parents = {str(parent) for path in own for parent in pathlib.Path(path).parents}
        self.assertEqual(files() - self.before - parents, own)


BEGAN = time.monotonic()
if __name__ == "__main__":
    result = unittest.main(exit=False, verbosity=2).result
    if not result.wasSuccessful():
        print(run("journalctl", "--no-pager", "-n", "80", *(f"-u{unit}" for unit in UNITS)))
    sys.exit(not result.wasSuccessful())
