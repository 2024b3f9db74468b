"""Passwords stay out of sight, and nobody else on the machine, the datastore or the network gets the daemon to read or
write what is not theirs."""

import errno
import json
import os
import pathlib
import sqlite3
import stat
import subprocess

from harness import place
from harness.case import DaemonCase
from harness.cbt_case import CbtCase
from harness.compare import Reader
from harness.daemon import EXPORT, Entry
from harness.disks import MIB, base_disk, datastore, raw_image
from harness.inventory import SHADOW, InventoryCase, tree
from harness.machines import machine
from harness.snapshot_case import BOUND, HOST
from harness.tools import WORK, wait_until, xattr
from harness.watcher import Watcher

STRANGER = 12345  # a user who is not root
CACHE = pathlib.Path("/var/corvantis/vm_proxy_cache")
MARK = "Zq7hTailwind93Kd"  # found in whatever way the rest of the password is spelled
PASSWORD = f'a"%{MARK}\\ü/&+=#\' b'
SCRIPT = "cbt_getblocklist"
NOTES_MOMENTS = {"method": "create_snapshot", "moment": 1}


def files_for_others(found):
    """Files that others may read or write, of those that the watcher has seen."""
    return [path for path, mode in found.items() if stat.S_ISREG(mode) and mode & 0o077]


class Secrets(CbtCase):
    """All that goes through a password, well or badly, at the highest debug level."""

    settings = CbtCase.settings | {"appliance.debug.level": "9"}

    @classmethod
    def vm_names(cls):
        return ["guarded"]

    @classmethod
    def prepare(cls):
        cls.appliance.stop()
        with sqlite3.connect(cls.appliance.state / "appliance.db") as database:
            changed = database.execute("UPDATE meta SET value = ? WHERE key = 'password'", (PASSWORD,)).rowcount
        assert changed == 1
        cls.appliance.start()
        assert cls.appliance.get("hvconfig")[0]["password"] == PASSWORD
        super().prepare()

    def fail_in_every_way(self, vm):
        """What a password could come out through: errors that repeat it, answers that are no answers."""
        repeated = {"error": errno.EACCES, "text": f"login as root with {PASSWORD} refused"}
        for what in (repeated, {"garbage": f'{{"password": "{PASSWORD}"'}, {"garbage": PASSWORD + "\n"}, {"cut": 3},
                     {"die": "after"}):
            self.faults.set(vm.name, {"method": "create_snapshot", **what})
            self.try_to_open(vm)
            self.faults.set(vm.name)
        self.faults.set("*", {"method": "connect", **repeated}, NOTES_MOMENTS)
        self.try_to_open(vm)
        self.faults.set("*", NOTES_MOMENTS)
        for what in ({"error": 77, "text": "no"}, {"garbage": "password=nothing"}):
            self.faults.set(vm.name, {"method": SCRIPT, **what})
            self.open_changed_fails(vm)
            self.faults.set(vm.name)
        whole = json.dumps(self.appliance.get("hvconfig"))
        for what in ({"cut": len(whole) - 20}, {"body": whole[:-5]}, {"status": 500, "body": whole},
                     {"status": 404, "body": whole}, {"body": f'"{MARK}"'}, {"body": whole.replace("hostname", "x")}):
            self.appliance.set_faults({"object": "hvconfig", **what})
            self.try_to_open(vm)
            self.appliance.set_faults()

    def try_to_open(self, vm):
        try:
            Reader(self.exported(vm)).__exit__()
        except OSError:
            pass

    def told(self):
        """What clients, the controller and its users are told, by place."""
        found = {}
        for directory, names in tree().items():
            for path in (EXPORT / directory, *(EXPORT / directory / name for name in names)):
                for name in ("user.err_string", "devicemapper_path", "vm_uuid", "x"):
                    try:
                        found[f"{name} of {path}"] = xattr(path, name).decode()
                    except PermissionError:  # no attribute of a directory
                        pass
        found["requests"] = json.dumps(self.appliance.journal(), ensure_ascii=False)
        found["alerts"] = str(self.appliance.alerts())
        found["status"] = json.dumps(self.appliance.status(), ensure_ascii=False)
        found["the appliance's output"] = self.appliance.output()
        return found

    def work(self, vm):
        base = self.full(vm)
        self.write(vm)
        self.faults.set(vm.name, {"method": SCRIPT, "delay": 2})  # long enough to be seen
        self.incremental(vm, base)
        self.faults.set(vm.name)

    def test_while_debugging_everything(self):
        vm = self.vms["guarded"]
        with Watcher(MARK, "/tmp") as watcher:
            self.work(vm)
            self.fail_in_every_way(vm)
            self.recover(vm)
            seen = watcher.found()
        self.assertEqual(seen["command_lines"], [])
        self.assertEqual(seen["contents"], [])
        self.assertIn(".query_results", " ".join(seen["files"]), "it was watched")
        self.assertEqual(files_for_others(seen["files"]), [])
        cached = {path: path.read_bytes() for path in CACHE.rglob("*") if path.is_file()}
        self.assertNotEqual(cached, {})
        self.assertEqual([path for path, content in cached.items() if MARK.encode() in content], [])
        programs = " ".join(seen["programs"])
        for name in (SCRIPT, "jrpc_wget", "bin/mirador"):
            self.assertIn(name, programs, "it was watched")
        # The script is handed the password in its environment, and nobody else.
        self.assertNotEqual(seen["environments"], [])
        self.assertEqual([words for words in seen["environments"] if SCRIPT not in words], [])
        self.assertEqual([what for what, text in self.told().items() if MARK in text], [])
        lines = [line for line in self.daemon.log().splitlines() if MARK in line]
        # The dump of a hypervisor's record, for those who want to see everything.
        dumped = [line for line in lines if line.lstrip().startswith("hvc->password ")]
        self.assertEqual([line for line in lines if line not in dumped], [])
        self.assertNotEqual(dumped, [])
        self.assertEqual(self.daemon.log_file.stat().st_mode & 0o777, 0o640)

    def recover(self, vm):
        self.appliance.command("refresh", vm.name)  # without hypervisors there were no VMs
        self.setUp()
        self.full(vm)


class Strangers(CbtCase):
    """Another user of the machine, who puts things where the daemon and its agent work."""

    @classmethod
    def vm_names(cls):
        return ["wanted"]

    @classmethod
    def make_machines(cls):
        """Plants first: what stands in /tmp then is nothing that the daemon leaves."""
        cls.victim = WORK / "victim"
        cls.victim.write_bytes(b"root's own\n")
        said = cls.as_stranger(
            f"ln -s {cls.victim} /tmp/jrpc_session_file-{HOST}-443",
            f"ln -s {cls.victim} /tmp/a.corstorage; ln -s {cls.victim} /tmp/a.header; mkfifo /tmp/a.zero",
            "echo 0 1 zero > /tmp/dmsetup_cbt_table_test; touch /tmp/cbt_debug",
            "mkdir /tmp/b.query_results /tmp/mirador")
        assert not any(said), said
        return super().make_machines()

    @staticmethod
    def as_stranger(*commands):
        """Runs shell commands; what they say to standard error."""
        return [subprocess.run(["/bin/sh", "-c", command], user=STRANGER, group=STRANGER, extra_groups=[],
                               capture_output=True, text=True, timeout=60, check=False).stderr for command in commands]

    def test_planted_names_are_neither_followed_nor_believed(self):
        vm = self.vms["wanted"]
        base = self.full(vm)
        self.write(vm)
        self.incremental(vm, base)
        self.assertEqual(self.victim.read_bytes(), b"root's own\n")
        self.assertEqual(os.listdir("/tmp/mirador") + os.listdir("/tmp/b.query_results"), [])
        self.assertNotIn("dmsetup_cbt_table_test", self.daemon.log())
        self.assertFalse(os.path.lexists("/tmp/a.corstorage"), "the name goes at the start")
        for path in pathlib.Path("/tmp").glob("jrpc_session_file-*"):
            status = path.lstat()
            self.assertEqual((stat.S_ISREG(status.st_mode), status.st_uid, status.st_mode & 0o777), (True, 0, 0o600))

    def test_a_table_by_hand_is_roots_alone(self):
        """Even root's is not believed when others may have written it, or chosen it."""
        vm, table = self.vms["wanted"], pathlib.Path("/tmp/dmsetup_cbt_table_test")
        mine = WORK / "table"
        mine.write_text("0 1 zero\n")
        self.addCleanup(self.as_stranger, f"echo 0 1 zero > {table}")
        base = self.full(vm)
        for what in ("writable by others", "a link to root's", "a FIFO"):
            with self.subTest(what):
                table.unlink()
                if what.startswith("writable"):
                    table.write_text("0 1 zero\n")
                    table.chmod(0o666)
                elif what == "a FIFO":
                    os.mkfifo(table, 0o600)
                else:
                    self.assertEqual(self.as_stranger(f"ln -s {mine} {table}"), [""])
                self.write(vm)
                self.incremental(vm, base)
        table.unlink()
        self.assertNotIn("dmsetup_cbt_table_test", self.daemon.log())

    def test_what_is_the_daemons_own_is_closed(self):
        vm = self.vms["wanted"]
        flat = self.exported(vm)
        self.assertEqual([path.stat().st_mode & 0o777 for path in (SHADOW, CACHE, EXPORT, flat.parent)],
                         [0o700, 0o700, 0o755, 0o777])
        self.assertEqual({stat.S_IMODE(os.stat(entry.path).st_mode) for entry in os.scandir(CACHE.parent)}, {0o700})
        with Reader(flat), Reader(self.changed(vm, "disk")):
            devices = [*pathlib.Path("/dev/mapper").glob("[a-z]*[0-9]*"), "/run/mirador.lock"]
            self.assertGreater(len(devices), 2)
            for command in (f"ls {SHADOW}/{HOST}", f"cat {SHADOW}/{HOST}/{vm.name}/disk-flat.vmdk", f"ls {CACHE}",
                            f"touch {SHADOW}/{HOST}/{vm.name}/x.tmp", f"touch {CACHE}/x", f"touch {CACHE.parent}/x",
                            f"flock -n {SHADOW}/{HOST}/{vm.name}/.corvantis.lck true", f"touch {EXPORT}/x",
                            *(f"head -c1 {device}" for device in devices)):
                with self.subTest(command):
                    self.assertRegex(self.as_stranger(command)[0], "ermission denied|not permitted")
        self.assertEqual(self.as_stranger(f"ls -l {flat.parent}", f"cat {flat.parent}/vm.vmx"), ["", ""])
        self.wait_quiet(vm)


class Datastore(DaemonCase):
    """Who may write to a datastore puts something else in the place of a file that is exported already."""

    def test_links_in_the_place_of_exported_files(self):
        store = datastore("hostile")
        secret = WORK / "shadow"
        secret.write_text("root:secret\n")
        for kind in ("vmx", "ascii", "cfg"):
            for what, target in (("outside", secret), ("a device", "/dev/zero")):
                with self.subTest(kind=kind, what=what):
                    real = store.vm("swapped") / f"{what.replace(' ', '-')}.{kind}"
                    real.write_text("harmless")
                    name = f"swapped/{real.name}"
                    self.daemon.export(Entry(name, store.link(real), kind))
                    real.unlink()
                    real.symlink_to(target)
                    with self.assert_nothing_kept():
                        self.assert_open_fails(EXPORT / name, errno.EINVAL, "Refused, outside every datastore")
                    real.unlink()
                    real.symlink_to("inside")
                    real.with_name("inside").write_text("harmless")
                    self.assertTrue((EXPORT / name).read_text().startswith("harmless"), "links within it are fine")

    def test_a_disk_that_leads_out_and_back(self):
        """What was checked when a disk was opened is what is read."""
        store = datastore("back")
        disk = base_disk(store, "vm", raw_image(WORK / "back.img", MIB, seed=5))
        path = self.daemon.export_disk(disk)
        content = disk.base_extent.read_bytes()
        with open(path, "rb") as file:
            disk.base_extent.rename(disk.base_extent.with_name("away"))
            disk.base_extent.symlink_to("/etc/shadow")
            self.assertEqual(file.read(), content)


class Configurations(InventoryCase):
    @classmethod
    def make_machines(cls):
        store = datastore("led-out")
        cls.vm = machine(store, "vm")
        return [f"{HOST}:{store.directory}"]

    def test_a_configuration_file_that_leads_outside(self):
        """Its VM's disks are exported all the same; of the file outside nothing is shown."""
        self.wait_tree({f"{HOST}/vm": self.vm.entries()})
        exported, outside = EXPORT / HOST / "vm" / "vm.vmx", WORK / "outside.vmx"
        before = exported.read_bytes()
        outside.write_text(f'displayName = "{MARK}"\n')
        kept = self.vm.vmx.with_suffix(".kept")
        self.vm.vmx.rename(kept)
        self.addCleanup(kept.rename, self.vm.vmx)
        self.vm.vmx.symlink_to(outside)
        told, = self.appliance.get(f"vhost?hv_hostname={HOST}")
        told["last_discover_time"] += 1  # otherwise nobody looks again
        self.appliance.set_faults({"object": "vhost", "query": f"hv_hostname={HOST}", "body": json.dumps([told])})
        self.addCleanup(self.appliance.set_faults)
        self.appliance.command("refresh", "vm")
        wait_until(lambda: f"Refused, outside every datastore: {outside}" in self.daemon.log(), "it is told", BOUND)
        self.assertNotIn(MARK, self.daemon.log())
        self.assertEqual(exported.read_bytes(), before)


if __name__ == "__main__":
    place.main()
