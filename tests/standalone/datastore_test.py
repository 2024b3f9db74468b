"""The appliance over real datastores, with the program that reads configuration files: what a person sees and the
daemon is told while VMs come, change, break and go."""

import os
import shutil
import unittest

from fixture import Appliance, TemporaryCase, flat_disk, make_vm, uuid_of, vmx_text, wait_until, write


class DatastoreCase(TemporaryCase):
    def setUp(self):
        super().setUp()
        self.store = self.directory / "ds1"
        self.store.mkdir()

    def start(self, *options):
        self.appliance = Appliance(self.directory / "root", "--datastore", str(self.store), *options).start()
        self.addCleanup(self.appliance.stop)
        return self.appliance

    def wait_for(self, *names):
        """Waits until exactly these VMs are served; returns their documents."""
        wait_until(lambda: sorted(self.appliance.vms()) == sorted(names), f"VMs {names}")
        return self.appliance.vms()

    def disks(self, name):
        return self.appliance.get(f"vdisk?vhost_uuid={self.appliance.vms()[name]['uuid']}").json()

    def messages(self):
        return {alert["alert_id"]: alert["message"] for alert in self.appliance.get("alert").json()}


class Life(DatastoreCase):
    def test_vm_that_cannot_be_read_is_told(self):
        write(self.store / "empty" / "empty.vmx", "")
        write(self.store / "nameless" / "nameless.vmx", vmx_text("", uuid_of(1)))
        self.start()
        wait_until(lambda: len(self.appliance.get("alert").json()) == 2, "it is told")
        told = {alert["object_id"]: alert["message"] for alert in self.appliance.get("alert").json()}
        self.assertIn("cannot be read", told["ds1/empty/empty.vmx"])
        self.assertIn("no name", told["ds1/nameless/nameless.vmx"])
        write(self.store / "empty" / "empty.vmx", vmx_text("full", uuid_of(2)))
        shutil.rmtree(self.store / "nameless")
        self.wait_for("full")
        wait_until(lambda: not self.messages(), "the alerts are cleared")

    def test_names_of_any_bytes(self):
        name = "M\u00e4rz \u2603 | 100% a/b.."
        for number, directory in enumerate((b"M\xe4rz", b"M\xe5rz"), 1):
            home = self.store / os.fsdecode(directory)
            flat_disk(home / "d\u00e4sk.vmdk")
            text = vmx_text(f"{name.replace('|', '|7C')}{number}", uuid_of(number), "d\u00e4sk.vmdk")
            write(home / "v.vmx", f'.encoding = "UTF-8"\n{text}')
        self.start()
        vms = self.wait_for(f"{name}1", f"{name}2")
        self.assertEqual(os.fsencode(vms[f"{name}1"]["vmx_path"]), b"M\xe4rz/v.vmx")
        disk, = self.disks(f"{name}2")
        self.assertEqual(os.fsencode(disk["base_extent_path"]),
                         b"/vmfs/volumes/ds1/M\xe5rz/" + "d\u00e4sk-flat.vmdk".encode())
        self.assertIn("M\\xe4rz/v.vmx", self.appliance.run("status").stdout)


class Stores(DatastoreCase):
    def test_nothing_is_mounted_at_the_start(self):
        make_vm(self.store, "web", 1)
        self.start()
        self.wait_for("web")
        self.appliance.stop()
        away = self.directory / "away"
        os.rename(self.store, away)
        self.store.mkdir()
        self.start()
        wait_until(lambda: "it is empty" in self.messages().get("datastore", ""), "the loss is told")
        self.assertEqual(list(self.appliance.vms()), ["web"])
        os.rename(away / "web", self.store / "web")
        wait_until(lambda: not self.messages(), "the return is seen")
        shutil.rmtree(self.store / "web")
        self.wait_for()

    def test_vm_moves_between_datastores(self):
        second = self.directory / "ds2"
        second.mkdir()
        make_vm(self.store, "web", 1)
        self.start("--datastore", f"esx2:{second}")
        before = self.wait_for("web")["web"]
        os.rename(self.store / "web", second / "web")
        after = wait_until(lambda: [vm for vm in self.appliance.vms().values() if vm["datastore_name"] == "ds2"],
                           "the VM has moved")
        self.assertEqual([(vm["uuid"], vm["hv_hostname"]) for vm in after], [(before["uuid"], "esx2")])


if __name__ == "__main__":
    unittest.main()
