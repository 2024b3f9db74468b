"""The tree follows the controller's inventory: hypervisors, VMs, folders, names, disks, settings, alerts."""

import contextlib
import json
import os
import pathlib
import time

from harness import place
from harness.compare import first_difference
from harness.daemon import EXPORT
from harness.disks import KIB, MIB, SECTOR, base_disk, datastore, raw_image, reference, sparse_delta
from harness.inventory import InventoryCase, by_group, tree
from harness.machines import machine
from harness.tools import WORK, program, run, wait_equal

HOST_A, HOST_B, OWN_HOST = "esx-a.example", "esx-b.example", "appliance.example"

# Displayed names and the directories that they become.
NAMES = {"käse/ß": "käse%2Fß", "..": ".%2E", "x" * 255: "x" * 255}
TOO_LONG = "y" * 256


def exported_configuration(path):
    """What an exported configuration file says."""
    return json.loads(run(program("mirador-inspect"), "--json", "cfg", path))


class Inventory(InventoryCase):
    settings = {"export.cache.ttl": "600", "export.vm_uuid.enabled": "1", "hypervisor.name": OWN_HOST}

    @classmethod
    def make_machines(cls):
        cls.a, cls.b, cls.own = (datastore(f"inventory-{name}") for name in ("a", "b", "own"))
        cls.still = machine(cls.a, "still")
        cls.two = machine(cls.a, "two", disks=("disk.vmdk", "sub/disk.vmdk", "other.vmdk"))
        cls.independent = machine(cls.a, "independent", disks=("disk.vmdk", "free.vmdk", "raw.vmdk"),
                                  modes={"free.vmdk": "independent-persistent", "raw.vmdk": "independent-nonpersistent"})
        cls.diskless = machine(cls.b, "diskless", disks=())
        cls.named = [machine(cls.b, f"name-{number}", name) for number, name in enumerate(NAMES)]
        machine(cls.b, "refused", TOO_LONG)
        cls.flat_template = machine(cls.a, "flat-template", template=True)
        image = raw_image(WORK / "inventory.img", 4 * MIB, seed=21)
        cls.chain = sparse_delta(base_disk(cls.a, "chain-template", image), [(64 * KIB, MIB), (3 * MIB, 64 * KIB)])
        cls.chain_template = machine(cls.a, "chain-template", disks=(cls.chain.descriptor.name,), template=True)
        cls.foldered = [machine(cls.a, f"foldered-{number}") for number in range(2)]
        cls.moved = machine(cls.own, "moved")
        return [f"{HOST_A}:{cls.a.directory}", f"{HOST_B}:{cls.b.directory}", str(cls.own.directory)]

    @classmethod
    def _stop_all(cls):
        """Before the end, all VMs go: nothing of them may stay in the tree, its space or the alerts."""
        try:
            if cls.appliance.is_running() and cls.daemon.is_running():
                cls._check_that_all_can_go()
        finally:
            super()._stop_all()

    @classmethod
    def standing_alerts(cls):
        """Alerts that last; those of single calls, which say what a client met, are not cleared."""
        return {key for key in cls.appliance.alerts() if key[0] != "runtime"}

    @classmethod
    def _check_that_all_can_go(cls):
        for store in (cls.a, cls.b, cls.own):
            for entry in os.scandir(store.directory):
                os.rename(entry.path, WORK / f"gone-{store.name}-{entry.name}")
        wait_equal(lambda: [name for name in tree() if not name.startswith(".")], [], "all VMs are gone")
        wait_equal(lambda: os.listdir(EXPORT / ".uuid"), [], "all links are gone")
        wait_equal(lambda: os.statvfs(EXPORT).f_blocks - os.statvfs(EXPORT).f_bfree, 0, "no space is used")
        wait_equal(cls.standing_alerts, set(), "no alert about a VM stands")

    # As it is after the first cycle

    def test_disks(self):
        """Each disk that can be exported is there once, under a name of its own."""
        first, second = self.two.entries("disk.vmdk", "other.vmdk"), {"disk(1).vmdk", "disk(1)-flat.vmdk"}
        self.wait_tree({
            f"{HOST_A}/still": self.still.entries(),
            f"{HOST_A}/two": first | second,
            f"{HOST_A}/independent": self.independent.entries("disk.vmdk"),
            f"{HOST_B}/diskless": {"vm.vmx", "vm.cfg"},
            f"{HOST_A}/flat-template": self.flat_template.entries(),
            f"{OWN_HOST}/moved": self.moved.entries(),
        })
        for disk in ("free.vmdk", "raw.vmdk"):
            self.wait_alert("independent_disk", f"{self.independent.uuid}:{disk}",
                            f"^Disk '{disk}' on 'independent' does not support snapshot and will not be exported.")
        directory = EXPORT / HOST_A / "two"
        self.assertIn(b'"disk(1)-flat.vmdk"', (directory / "disk(1).vmdk").read_bytes())
        self.assertRegex((directory / "vm.vmx").read_text(), r'(?s)"disk.vmdk".*"disk\(1\).vmdk".*"other.vmdk"')
        found = exported_configuration(directory / "vm.cfg")
        self.assertEqual((found["vmname"], found["vmuuid"], found["servername"]), ("two", self.two.uuid, HOST_A))
        self.assertEqual([(disk["name"], disk["rename"], disk["fpath"], disk["size"]) for disk in found["disks"]], [
            ("disk.vmdk", None, f"/vmfs/volumes/{self.a.name}/two/disk.vmdk", MIB),
            ("disk(1).vmdk", "disk.vmdk", f"/vmfs/volumes/{self.a.name}/two/sub/disk.vmdk", MIB),
            ("other.vmdk", None, f"/vmfs/volumes/{self.a.name}/two/other.vmdk", MIB),
        ])

    def test_names(self):
        """Names become directories that no name leads out of; those that cannot be any are told, and harm no other."""
        self.wait_tree({f"{HOST_B}/{NAMES[vm.name]}": vm.entries() for vm in self.named})
        groups = set(os.listdir(EXPORT)) - {".uuid"}
        self.assertLessEqual(groups, {HOST_A, HOST_B, OWN_HOST, "shelf", "shelf of mine"})
        self.wait_alert("vm_discovery", f"{HOST_B}:{TOO_LONG}", "longer than 255 bytes")
        for name, directory in NAMES.items():
            found = exported_configuration(EXPORT / HOST_B / directory / "vm.cfg")
            self.assertEqual(found["vmname"], name)

    def test_templates_are_read_byte_for_byte(self):
        flat = EXPORT / HOST_A / "flat-template" / "disk-flat.vmdk"
        self.assertIsNone(first_difference(flat, self.flat_template.flat()))
        chain = EXPORT / HOST_A / "chain-template" / "disk-flat.vmdk"
        self.assertIsNone(first_difference(chain, reference(self.chain)))

    def test_links_by_uuid(self):
        for vm, directory in ((self.two, f"{HOST_A}/two"), (self.named[0], f"{HOST_B}/{NAMES[self.named[0].name]}")):
            link = EXPORT / ".uuid" / vm.uuid
            self.assertEqual(sorted(os.listdir(link)), sorted(os.listdir(EXPORT / directory)))
            self.assertEqual((link / "vm.cfg").read_bytes(), (EXPORT / directory / "vm.cfg").read_bytes())

    # As it changes

    def test_folders(self):
        first, _ = self.foldered
        home = by_group(HOST_A, self.foldered)
        self.appliance.command("folder", "add", "shelf")
        for vm in self.foldered:
            self.appliance.command("folder", "move", vm.name, "shelf")
        self.wait_tree({**by_group("shelf", self.foldered), **dict.fromkeys(home)})
        self.appliance.command("folder", "rename", "shelf", "shelf of mine")
        self.wait_tree({**by_group("shelf of mine", self.foldered), **dict.fromkeys(by_group("shelf", self.foldered))})
        wait_equal(lambda: (EXPORT / "shelf").exists(), False, "the old name is gone")
        self.assertIsNone(first_difference(EXPORT / "shelf of mine" / first.name / "disk.vmdk",
                                           first.directory / "disk.vmdk"))

        self.appliance.command("folder", "move", first.uuid, "-")
        self.wait_tree({f"{HOST_A}/{first.name}": first.entries(), f"shelf of mine/{first.name}": None})
        self.appliance.command("folder", "remove", "shelf of mine")
        wait_equal(lambda: (EXPORT / "shelf of mine").exists(), False, "the folder is gone")
        self.wait_tree(home)

    def test_a_name_goes_to_another_vm(self):
        """Of two VMs with one name the first is exported; when it goes, the other one is, and no byte of the first."""
        first = machine(self.b, "same-1", "same", template=True)
        path, entries = f"{HOST_B}/same", {"vm.vmtx", "vm.cfg", "disk.vmdk", "disk-flat.vmdk"}
        self.wait_tree({path: entries})
        second = machine(self.b, "same-2", "same", template=True)
        self.addCleanup(second.remove)
        self.wait_alert("vm_discovery", path.replace("/", ":"), "Cannot assign two VMs with the same name")
        self.assert_exports(path, first)
        first.remove()
        wait_equal(lambda: self.uuid_of(path), second.uuid, "the other one is exported")
        self.wait_tree({path: entries})
        self.wait_alert("vm_discovery", path.replace("/", ":"), None)
        self.assert_exports(path, second)

    def test_a_reader_goes_on_when_its_vm_leaves(self):
        vm = machine(self.b, "leaves", template=True)
        path, truth = f"{HOST_B}/leaves", vm.flat().read_bytes()
        self.wait_tree({path: {"vm.vmtx", "vm.cfg", "disk.vmdk", "disk-flat.vmdk"}})
        with open(EXPORT / path / "disk-flat.vmdk", "rb", buffering=0) as disk:
            read = disk.read(SECTOR)
            vm.remove()
            wait_equal((EXPORT / path).exists, False, "the VM is gone")
            time.sleep(1.1)  # for as long the kernel asks nobody
            pathlib.Path("/proc/sys/vm/drop_caches").write_text("2")  # and it forgets the directory
            while part := disk.read(64 * KIB):
                read += part
        self.assertTrue(read == truth)

    def test_versions_of_a_configuration_do_not_mix(self):
        """Each reader gets the version that it opened, whole, whoever reads another one."""
        vm = machine(self.b, "rewritten")
        path = EXPORT / HOST_B / "rewritten" / "vm.vmx"
        plain = vm.vmx.read_bytes()
        versions = [plain, plain + b'annotation = "longer"\n', plain + b'annotation = "one"\n']
        self.wait_tree({f"{HOST_B}/rewritten": vm.entries()})
        with contextlib.ExitStack() as stack:
            readers = []
            for version in versions:
                vm.vmx.write_bytes(version)
                self.appliance.command("refresh", "rewritten")
                wait_equal(path.read_bytes, version, "the new version is there")
                readers.append(stack.enter_context(open(path, "rb", buffering=0)))
            for reader, version in zip(readers, versions):
                self.assertEqual(reader.read(), version)

    def assert_exports(self, path, vm):
        """Every file of the VM's directory is that VM's."""
        self.assertEqual(self.uuid_of(path), vm.uuid)
        for exported, real in (("disk-flat.vmdk", vm.flat()), ("disk.vmdk", vm.directory / "disk.vmdk"),
                               ("vm.vmtx", vm.vmx)):
            self.assertIsNone(first_difference(EXPORT / path / exported, real), exported)

    def uuid_of(self, vm):
        """The VM's uuid as its exported configuration tells it; none while that is not there."""
        path = EXPORT / vm / "vm.cfg"
        return exported_configuration(path)["vmuuid"] if path.exists() else None

    def test_hypervisors_come_and_go(self):
        hosts = [host for host in self.appliance.get("hvconfig") if host["hostname"] != HOST_B]
        vms, others = by_group(HOST_B, [self.diskless]), by_group(HOST_A, [self.still])
        self.appliance.set_faults({"object": "hvconfig", "body": json.dumps(hosts)})
        self.addCleanup(self.appliance.set_faults)
        self.appliance.command("refresh", "moved")
        wait_equal(lambda: (EXPORT / HOST_B).exists(), False, "the hypervisor's directory is gone")
        self.wait_tree({**dict.fromkeys(vms), **others})
        self.appliance.set_faults()
        self.appliance.command("refresh", "moved")
        self.wait_tree({**vms, **others, **{f"{HOST_B}/{NAMES[vm.name]}": vm.entries() for vm in self.named}})


if __name__ == "__main__":
    place.main()
