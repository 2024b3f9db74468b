"""mirador-fileops, by way of the embedded appliance: each operation, and what is refused."""

import json
import os
import subprocess
import unittest

from harness import place
from harness.appliance import Appliance
from harness.disks import MIB, datastore
from harness.machines import machine
from harness.tools import WORK, program, run, wait_until

HOST, OTHER_HOST = "esx1.example", "esx2.example"


class Fileops(unittest.TestCase):
    @classmethod
    def setUpClass(cls):
        cls.store, cls.other, cls.foreign = (datastore(f"fileops-{name}") for name in ("a", "b", "c"))
        run("mount", "-t", "tmpfs", "-o", "size=16m", "b", cls.other.directory)
        cls.vm = machine(cls.store, "web")
        cls.appliance = Appliance(*(f"{host}:{store.directory}" for host, store in (
            (HOST, cls.store), (HOST, cls.other), (OTHER_HOST, cls.foreign))))
        cls.appliance.start()
        cls.addClassCleanup(cls.appliance.stop)
        os.environ["MIRADOR_CLOCK_FACTOR"] = "10"  # a look whether a program has ended lasts a second
        wait_until(lambda: all(store["complete"] for store in cls.appliance.status()["datastores"]), "discovery")
        cls.outside = WORK / "outside"
        cls.outside.mkdir()
        (cls.outside / "precious").write_text("precious")
        (cls.store.directory / "out").symlink_to(cls.outside)

    def call(self, *words, host=HOST):
        return subprocess.run([program("mirador-fileops"), host, *words], stdin=subprocess.DEVNULL, timeout=60,
                              capture_output=True, text=True, check=False)

    def does(self, *words):
        """A call that must succeed; returns its output."""
        done = self.call(*words)
        self.assertEqual((done.returncode, done.stderr), (0, ""), words)
        return done.stdout

    def refuses(self, text, *words, host=HOST):
        """A call that must fail with one line in which the text stands."""
        done = self.call(*words, host=host)
        self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (1, "", 1), (words, done.stderr))
        self.assertTrue(done.stderr.startswith("mirador-fileops: "), done.stderr)
        self.assertIn(text, done.stderr)

    def test_looking(self):
        flat = self.vm.flat()
        os.utime(flat, (1_700_000_000, 1_700_000_000))
        when = run("date", "-d", "@1700000000", "+%F %T").strip()
        lines = self.does("ls", f"[{self.store.name}] web").splitlines()
        self.assertIn(f"diskExtentFile      {MIB}  {when}  disk-flat.vmdk", lines)
        self.assertEqual([line.split()[-1] for line in lines], sorted(os.listdir(self.vm.directory)))
        told = json.loads(self.does("stat", "--json", self.store.link(flat)))
        self.assertEqual((told["folder"], told["size"], told["mtime"]), ("web", MIB, 1_700_000_000))
        told = {store["name"]: store["capacity"] for store in json.loads(self.does("df", "--json"))}
        self.assertEqual(told.keys(), {self.store.name, self.other.name})
        self.assertEqual(told[self.other.name], 16 * MIB)

    def test_changing(self):
        a, b, flat = f"[{self.store.name}]", f"[{self.other.name}]", self.vm.flat()
        data = flat.read_bytes()
        self.does("mkdir", "-p", f"{a} one/two")
        self.does("cp", self.store.link(flat), f"{a} one/two/copy")
        self.assertEqual((self.store.directory / "one/two/copy").read_bytes(), data)
        self.does("mv", f"{a} one/two", f"{a} two")
        moved = self.store.directory / "two/copy"
        os.utime(moved, (1_600_000_000, 1_600_000_000))
        moved.chmod(0o604)
        self.does("mv", f"{a} two/copy", f"{b} copy")  # to another file system
        status = (self.other.directory / "copy").stat()
        self.assertEqual((status.st_mtime, status.st_mode & 0o777, moved.exists()), (1_600_000_000, 0o604, False))
        self.assertEqual((self.other.directory / "copy").read_bytes(), data)
        self.does("cp", "--force", self.store.link(self.vm.vmx), f"{b} copy")
        self.assertEqual((self.other.directory / "copy").read_bytes(), self.vm.vmx.read_bytes())
        self.does("cp", self.store.link(flat), f"{b} other")
        self.does("mv", "--force", f"{b} other", f"{b} copy")
        self.assertEqual((self.other.directory / "copy").read_bytes(), data)
        for path in (f"{b} copy", f"{a} two", f"{a} one"):
            self.does("rm", path)
        self.assertEqual(os.listdir(self.other.directory), [])
        self.assertFalse((self.store.directory / "one").exists())

    def test_refusals(self):
        a, vmx = f"[{self.store.name}]", self.store.link(self.vm.vmx)
        before = self.vm.flat().read_bytes()
        for words, text in (
                (("cp", f"{a} out/precious", f"{a} stolen"), "symbolic link"),
                (("cp", vmx, f"{a} web/disk-flat.vmdk"), "File exists"),
                (("mv", vmx, f"{a} web/disk-flat.vmdk"), "File exists"),
                (("mkdir", f"{a} none/new"), "No such file"),
                (("rm", str(self.outside / "precious")), "on no datastore"),
                (("ls", f"[{self.foreign.name}]"), "on no datastore"),
                (("ls", "--datacenter", "elsewhere", a), "there is no datacenter")):
            self.refuses(text, *words)
        self.refuses(f"no such hypervisor; the controller knows {HOST}, {OTHER_HOST}", "df", host="esx9.example")
        self.assertEqual((self.outside / "precious").read_text(), "precious")
        self.assertEqual((os.listdir(self.outside), self.vm.flat().read_bytes()), (["precious"], before))
        self.assertFalse((self.store.directory / "stolen").exists())

    def test_says_what_happens_and_keeps_secrets(self):
        """Nothing of it is in the output, nor is the login."""
        password = next(record["password"] for record in self.appliance.get("hvconfig") if record["hostname"] == HOST)
        done = self.call("-v", "ls", self.store.link(self.vm.vmx))
        self.assertEqual(done.returncode, 0)
        self.assertIn("ls: fdesc 0x", done.stderr)
        self.assertEqual(done.stdout.count("\n"), 1)
        self.assertNotIn(password, done.stdout + done.stderr)

    def test_without_a_controller(self):
        self.appliance.stop()
        try:
            self.refuses("Cannot perform operations on", "df")
        finally:
            self.appliance.start()


if __name__ == "__main__":
    place.main()
