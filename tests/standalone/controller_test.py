"""The controller's state: identities, generations, alerts, what is posted, what outlives a restart."""

import json
import sqlite3
import unittest

from fixture import TemporaryCase, uuid_of

from mirador_appliance import synthetic
from mirador_appliance.controller import Controller, Unknown
from mirador_appliance.datastores import Datastore
from mirador_appliance.store import Store

A, B, C = uuid_of(1), uuid_of(2), uuid_of(3)


def vm_facts(name, *uuids, store="ds1", **more):
    path = f"{name}/{name}.vmx"
    return {**synthetic.facts_of(0, store), "vmx_path": path, "name": name, "uuids": list(uuids), **more}


class ControllerCase(TemporaryCase):
    def setUp(self):
        super().setUp()
        self.said = []
        self.start()

    def start(self, *hosts):
        """A controller on the test's database, with datastores ds1 (no host of its own), ds2 …"""
        self.store = Store(self.directory / "state" / "appliance.db", create=True)
        self.addCleanup(self.store.close)
        stores = [Datastore(f"ds{number}", host, "/nowhere") for number, host in enumerate((None, *hosts), 1)]
        self.controller = Controller(self.store, stores, self.said.append)
        return self.controller

    def vms(self):
        return {vm["name"]: vm for vm in json.loads(self.controller.vms())}

    def command(self):
        """The database as a command sees it."""
        store = Store(self.store.path, create=False)
        self.addCleanup(store.close)
        return store


class Identity(ControllerCase):
    def uuids(self):
        return {name: vm["uuid"] for name, vm in self.vms().items()}

    def test_copies_get_uuids_of_their_own_and_keep_them(self):
        self.controller.take_vms([vm_facts("original", A), vm_facts("copy", A, B), vm_facts("second", A, B)])
        uuids = self.uuids()
        self.assertEqual((uuids["original"], uuids["copy"]), (A, B))
        self.assertEqual(len(set(uuids.values())), 3)
        self.controller.take_vms([vm_facts("aaa", A)])  # sorts before all others, comes later
        self.assertEqual(uuids | self.uuids(), self.uuids())
        self.store.close()
        self.start()
        self.controller.take_vms([vm_facts("second", A, B, files="x"), vm_facts("original", A, files="x")])
        self.assertEqual(uuids | self.uuids(), self.uuids())

    def test_moved_vm_keeps_its_uuid_and_choices(self):
        self.controller.take_vms([vm_facts("old", A)])
        self.controller.choose(A, {"quiesce_enabled": 1})
        self.controller.drop_vms([("ds1", "old/old.vmx")])
        self.controller.take_vms([vm_facts("new", A)])
        self.assertEqual((self.vms()["new"]["uuid"], self.vms()["new"]["quiesce_enabled"]), (A, 1))

    def test_new_uuid_in_the_file_takes_the_daemon_two_passes(self):
        self.controller.take_vms([vm_facts("vm", A)])
        self.controller.take_vms([vm_facts("vm", B)])
        self.assertEqual(self.uuids(), {"vm": B})
        token = self.controller.generation.token
        self.controller.taken_over(token)
        self.assertNotEqual(self.controller.generation.token, token)
        token = self.controller.generation.token
        self.controller.taken_over(token)
        self.assertEqual(self.controller.generation.token, token)

    def test_without_a_uuid_the_place_makes_one(self):
        self.controller.take_vms([vm_facts("a"), vm_facts("b")])
        first = self.uuids()
        self.controller.take_vms([vm_facts("a", files="x")])
        self.assertEqual(self.uuids(), first)
        self.assertEqual(len(set(first.values())), 2)


class Generations(ControllerCase):
    def setUp(self):
        super().setUp()
        self.controller.take_vms([vm_facts("vm", A)])

    def assert_bumps(self, expected, action):
        before = self.controller.generation.token
        action()
        self.assertEqual(self.controller.generation.token != before, expected)

    def test_what_makes_a_new_one(self):
        companion = {"vhost_uuid": A, "name": "vm-00000-corcbt.vmdk", "changeid_incr": "x"}
        mine = f"Corvantis: {self.controller.setting('controller.uuid')}"
        for what, expected, action in (
                ("the same facts", False, lambda: self.controller.take_vms([vm_facts("vm", A)])),
                ("a file changed", True, lambda: self.controller.take_vms([vm_facts("vm", A, files="x")])),
                ("a snapshot", True, lambda: self.controller.take_vms([vm_facts("vm", A, snapshots=[mine])])),
                ("tracking on", True, lambda: self.controller.choose(A, {"use_cbt": 1})),
                ("tracking on again", False, lambda: self.controller.choose(A, {"use_cbt": 1})),
                ("tracking reset", True, lambda: self.controller.reset_tracking(A)),
                ("the daemon's own error", False, lambda: self.controller.choose(A, {"error": "x"})),
                ("the daemon's own suffix", False, lambda: self.controller.choose(A, {"snap_suffix": "x"})),
                ("a disk's note", False, lambda: self.controller.note_disk(companion)),
                ("datastore lost", True, lambda: self.controller.take_datastore("ds1", False, {}, "gone")),
                ("still lost", False, lambda: self.controller.take_datastore("ds1", False, {}, "gone")),
                ("datastore back", True, lambda: self.controller.take_datastore("ds1", True, {"free": 1}, "")),
                ("less space", False, lambda: self.controller.take_datastore("ds1", True, {"free": 0}, "")),
                ("an unknown VM gone", False, lambda: self.controller.drop_vms([("ds1", "x/x.vmx")])),
                ("a VM gone", True, lambda: self.controller.drop_vms([("ds1", "vm/vm.vmx")]))):
            with self.subTest(what):
                self.assert_bumps(expected, action)

    def test_what_cannot_be_stored_is_served(self):
        connection = self.store._connection
        for what, action in (("come", lambda: self.controller.take_vms([vm_facts("new", B, problems=[["d", "x"]])])),
                             ("go", lambda: self.controller.drop_vms([("ds1", "vm/vm.vmx")])),
                             ("lost", lambda: self.controller.take_datastore("ds1", False, {}, "gone"))):
            with self.subTest(what):
                token = self.controller.generation.token
                connection.execute("PRAGMA query_only = 1")  # as a full disk
                with self.assertRaises(sqlite3.Error):
                    action()
                connection.execute("PRAGMA query_only = 0")
                self.assertNotEqual(self.controller.generation.token, token)
        self.assertEqual(list(self.vms()), ["new"])
        connection.execute("PRAGMA query_only = 1")
        with self.assertRaises(sqlite3.Error):
            self.controller.choose(B, {"use_cbt": 1})  # the daemon is told that it failed and posts it again
        connection.execute("PRAGMA query_only = 0")
        self.assert_bumps(True, lambda: self.controller.choose(B, {"use_cbt": 1}))

    def test_no_token_comes_twice(self):
        token = self.controller.generation.token
        self.store.close()
        self.start()
        self.assertNotEqual(self.controller.generation.token, token)


class Records(ControllerCase):
    def test_only_own_snapshots_count(self):
        mine = f"Corvantis: {self.controller.setting('controller.uuid')}"
        names = [mine, f"{mine} suffix", f"{mine}0", "before the update", f"copy of {mine}", "Corvantis: somebody-else"]
        self.controller.take_vms([vm_facts("vm", A, snapshots=names)])
        self.assertEqual(self.vms()["vm"]["snap_exists"], 2)

    def test_disks_are_served_as_the_newest_own_snapshot_froze_them(self):
        mine = f"Corvantis: {self.controller.setting('controller.uuid')}"
        facts = vm_facts("vm", A, disks=synthetic.facts_of(0)["disks"][:1])
        frozen = {name: [{**disk, "head_ascii_path": name} for disk in facts["disks"]]
                  for name in (mine, f"{mine} x", "Corvantis: somebody-else")}
        live = facts["disks"][0]["head_ascii_path"]
        for names, heads in (([], {live}), (["a user's"], {live}), ([mine], {mine}), ([mine, f"{mine} x"], {f"{mine} x"}),
                             ([mine, "Corvantis: somebody-else"], {mine}), (["Corvantis: somebody-else"], {live}),
                             ([f"{mine} unreadable"], set())):  # never what the VM writes to
            with self.subTest(names):
                self.controller.take_vms([{**facts, "snapshots": names, "frozen": frozen}])
                served = {disk["head_ascii_path"] for disk in json.loads(self.controller.disks(A))}
                self.assertEqual(served, heads)

    def test_vm_that_cannot_be_read_stays_as_it_was(self):
        self.controller.take_vms([vm_facts("vm", A)])
        broken = vm_facts("", store="ds1", vmx_path="vm/vm.vmx", problems=[["", "it cannot be read"]])
        self.controller.take_vms([broken, vm_facts("new", problems=[["", "no name"]])])
        self.assertEqual(list(self.vms()), ["vm"])
        self.assertEqual([alert["message"] for alert in json.loads(self.controller.alerts())],
                         ["it cannot be read", "no name"])
        self.controller.take_vms([vm_facts("vm", A)])
        self.assertEqual([alert["message"] for alert in json.loads(self.controller.alerts())], ["no name"])

    def test_disk_notes(self):
        self.controller.take_vms([vm_facts("vm", A)])
        companion = {"vhost_uuid": A, "name": "vm-00000-corcbt.vmdk", "changeid": "52 01/3", "name2": "dropped"}
        self.controller.note_disk(companion)
        self.controller.note_disk({"vhost_uuid": A, "name": "vm-00000.vmdk", "flat_file_size": "77"})
        self.controller.note_disk({"vhost_uuid": A, "name": "vm-00000-corcbt.vmdk", "changeid_incr": "y"})
        for wrong in ({"vhost_uuid": A, "name": "other.vmdk"}, {"vhost_uuid": B, "name": "x-corcbt.vmdk"}):
            with self.assertRaises(Unknown):
                self.controller.note_disk(wrong)
        self.store.close()
        self.start()
        one, two, three = json.loads(self.controller.disks(A))
        self.assertEqual((one["name"], one["flat_file_size"], two["name"]),
                         ("vm-00000.vmdk", synthetic.CAPACITY, "vm-00000_1.vmdk"))
        self.assertEqual(three, {"vhost_uuid": A, "name": "vm-00000-corcbt.vmdk", "changeid": "52 01/3",
                                 "changeid_incr": "y"})
        self.assertEqual(json.loads(self.controller.disks(A, "vm-00000-corcbt.vmdk")), [three])
        self.assertEqual(len(json.loads(self.controller.disks(None))), 3)
        self.assertEqual(json.loads(self.controller.disks(B)), [])


class Posted(ControllerCase):
    def alert(self, **more):
        return {"alert_id": "snapshot_create", "object_id": "esx:vm", "severity": "warning", "message": "m", **more}

    def standing(self):
        return [(alert["alert_id"], alert["object_id"], alert["node_uuid"], alert["raised"])
                for alert in json.loads(self.controller.alerts())]

    def test_alerts(self):
        own = self.controller.setting("controller.uuid")
        self.controller.post_alert(self.alert())  # without a node: this appliance's
        self.controller.post_alert(self.alert(node_uuid=own))
        self.controller.post_alert(self.alert(node_uuid="other"))
        self.assertEqual(self.standing(), [("snapshot_create", "esx:vm", own, 2), ("snapshot_create", "esx:vm",
                                                                                  "other", 1)])
        self.assertEqual(sum("alert snapshot_create: m" in line for line in self.said), 2)  # a repetition is no news
        self.store.close()
        self.start()
        self.assertEqual(len(self.standing()), 2)
        self.controller.clear_alert(self.alert(node_uuid=""))
        self.controller.clear_alert(self.alert(object_id="never raised"))
        self.assertEqual(self.standing(), [("snapshot_create", "esx:vm", "other", 1)])
        self.assertEqual(len(self.store.alerts()), 1)

    def test_alerts_of_an_earlier_daemon_go_when_the_new_one_has_not_raised_them(self):
        for name in ("again", "gone"):
            self.controller.post_alert(self.alert(object_id=name))
        self.controller.post_alert(self.alert(node_uuid="other"))
        self.controller.taken_over("1-1")  # by the daemon that raised them
        self.assertEqual(len(self.standing()), 3)
        self.controller.daemon_begins()
        self.controller.post_alert(self.alert(object_id="again"))
        self.controller.post_alert(self.alert(object_id="new"))
        self.controller.daemon_begins()  # it asks once more
        self.controller.taken_over("1-2")
        self.assertEqual({(alert[1], alert[2] == "other") for alert in self.standing()},
                         {("again", False), ("new", False), ("esx:vm", True)})
        self.assertEqual(len(self.store.alerts()), 3)


if __name__ == "__main__":
    unittest.main()
