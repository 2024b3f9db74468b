"""The agent's file methods: what they tell, what they do, and that they stay on their hypervisor's datastores."""

import itertools
import json
import os
import stat
import unittest
import unittest.mock

from agent_test import AgentCase
from fixture import FLAT_SIZE, OLD

from mirador_appliance.agent import faults, file_operations
from mirador_appliance.agent.file_operations import Files
from mirador_appliance.agent.framing import AgentError
from mirador_appliance.agent.machines import Home
from mirador_appliance.hypervisor import locks

DC = "ha-datacenter"


class FilesCase(AgentCase):
    def setUp(self):
        super().setUp()
        self.agent = self.connected()
        self.root = self.directory / "ds1"

    def ls(self, path):
        """The names in a directory with their types."""
        return {entry["name"]: entry["type"] for entry in self.agent.ask("ls", DC, path)}

    def refused(self, *words):
        """The number and text of a refusal."""
        self.agent.send(json.dumps(words) + "\n")
        told = json.loads(self.agent.reply())["errdesc"]
        return told["err_num"], told["err_string"]

    def everything(self):
        """Each file and directory of this test but the appliance's own, and what is in it."""
        return {str(path): os.readlink(path) if path.is_symlink() else path.read_bytes() if path.is_file() else None
                for name in ("ds1", "ds2", "outside") for path in (self.directory / name).rglob("*")}


class Telling(FilesCase):
    def test_what_a_directory_holds(self):
        for name in ("vmware.log", "WEB.VMXF", "notes.txt", ".x.lck", "empty.vmdk", "new\nline \x1b ü", "\udcff"):
            (self.root / "web" / name).write_bytes(b"")
        (self.root / "web" / "link.vmdk").symlink_to("web.vmdk")
        os.mkfifo(self.root / "web" / "pipe.vmdk")
        self.assertEqual(self.ls("[ds1] web"), {
            "web.vmx": "vmxFile", "web.vmdk": "diskDescriptorFile", "web-flat.vmdk": "diskExtentFile",
            "vmware.log": "logFile", "WEB.VMXF": "configFile", "notes.txt": "file", ".x.lck": "IGNORE",
            "empty.vmdk": "diskExtentFile", "new\nline \x1b ü": "file", "\udcff": "file", "link.vmdk": "file",
            "pipe.vmdk": "file"})
        self.assertEqual(self.ls("[ds1]"), {"web": "directory"})

    def test_one_file_by_all_its_names(self):
        size = self.vmx["web"].stat().st_size
        for path in ("[ds1]web/web.vmx", "[ds1] /web/./web.vmx/", "/vmfs.direct/volumes/ds1//web/web.vmx"):
            self.assertEqual(self.agent.ask("stat", DC, path), {
                "dc_name": DC, "ds_name": "ds1", "folder": "web", "name": "web.vmx", "type": "vmxFile",
                "mtime": OLD, "size": size}, path)


class Changing(FilesCase):
    def test_files_come_and_go(self):
        agent, flat = self.agent, self.root / "web/web-flat.vmdk"
        data = os.urandom(5000)
        with open(flat, "r+b") as file:
            file.truncate(64 << 20)
            file.seek(40 << 20)
            file.write(data)
        flat.chmod(0o640)
        self.assertIsNone(agent.ask("mkdir", DC, "[ds1] a/b/c", "1"))
        self.assertIsNone(agent.ask("mkdir", DC, "[ds1] a/d", "0"))
        self.assertIsNone(agent.ask("cp", DC, "[ds1] web/web-flat.vmdk", DC, "/vmfs/volumes/ds1/a/copy", "0"))
        copy = self.root / "a/copy"
        status = copy.stat()
        self.assertEqual((status.st_size, stat.S_IMODE(status.st_mode)), (64 << 20, 0o640))
        self.assertLess(status.st_blocks * 512, 1 << 20)  # holes stay holes
        self.assertEqual(copy.read_bytes(), flat.read_bytes())
        self.assertIsNone(agent.ask("mv", DC, "[ds1] a/copy", DC, "[ds1] a/b/moved", "0"))
        self.assertIsNone(agent.ask("mv", DC, "[ds1] a/b", DC, "[ds1] b", "0"))
        self.assertEqual((self.root / "b/moved").stat().st_ino, status.st_ino)
        self.assertIsNone(agent.ask("cp", DC, "[ds1] web/web.vmx", DC, "[ds1] b/moved", "1"))
        self.assertEqual((self.root / "b/moved").read_bytes(), self.vmx["web"].read_bytes())
        self.assertIsNone(agent.ask("mv", DC, "[ds1] b/moved", DC, "[ds1] b/c/moved", "1"))
        for path in ("b/c/moved", "b/c", "b", "a/d", "a"):
            self.assertIsNone(agent.ask("rm", DC, f"[ds1] {path}"), path)
        self.assertEqual(os.listdir(self.root), ["web"])
        self.assertEqual({path.name for path in (self.root / "web").iterdir()},
                         {"web.vmx", "web.vmdk", "web-flat.vmdk"})

    def test_what_is_refused_changes_nothing(self):
        web = self.root / "web"
        (self.root / "empty").mkdir()
        os.link(web / "web.vmx", web / "twin")
        os.mkfifo(web / "pipe")
        before = self.everything().keys()
        vmx, flat, new = "[ds1] web/web.vmx", "[ds1] web/web-flat.vmdk", "[ds1] new"
        for words, number in (
                (("stat", DC, "[ds1] web/none"), 2), (("ls", DC, f"{vmx}/x"), 20), (("stat", "dc2", vmx), 2),
                (("mkdir", DC, "[ds1] web", "1"), 17), (("mkdir", DC, "[ds1] a/b", "0"), 2),
                (("rm", DC, "[ds1] web"), 39), (("rm", DC, "[ds1]"), 16),
                (("cp", DC, vmx, DC, flat, "0"), 17), (("cp", DC, vmx, DC, flat, "yes"), 17),
                (("cp", DC, vmx, DC, "[ds1] web/twin", "1"), 22), (("cp", DC, "[ds1] web", DC, new, "0"), 21),
                (("cp", DC, "[ds1] web/pipe", DC, new, "0"), 22), (("cp", DC, vmx, DC, "[ds1] empty", "1"), 21),
                (("cp", DC, vmx, "dc2", new, "0"), 2), (("mv", DC, vmx, DC, flat, "0"), 17),
                (("mv", DC, "[ds1] empty", DC, "[ds1] web", "1"), 39), (("mv", DC, vmx, DC, "[ds1] empty", "1"), 21),
                (("mv", DC, "[ds1] web/twin", DC, vmx, "1"), 22), (("mv", DC, "[ds1] web", DC, "[ds1] web/w", "0"), 22),
                (("mkdir", DC, "[ds1] x"), 22)):
            self.assertEqual(self.refused(*words)[0], number, words)
        self.assertEqual(self.everything().keys(), before)
        self.assertEqual((web / "web-flat.vmdk").stat().st_size, FLAT_SIZE)

    def test_vm_that_a_task_works_on_is_left_alone(self):
        with locks.task(str(self.vmx["web"])):
            for words in (("rm", DC, "[ds1] web/web.vmx"), ("mv", DC, "[ds1] web/web.vmx", DC, "[ds1] x", "0"),
                          ("cp", DC, "[ds1] web/web.vmx", DC, "[ds1] web/web.vmdk", "1"),
                          ("mv", DC, "[ds1] web", DC, "[ds1] www", "0")):
                number, text = self.refused(*words)
                self.assertEqual((number, "another task is in progress" in text), (114, True), words)
            self.assertIsNone(self.agent.ask("cp", DC, "[ds1] web/web.vmx", DC, "[ds1] x", "0"))
        self.assertIsNone(self.agent.ask("rm", DC, "[ds1] web/web.vmx"))
        self.assertEqual(sorted(os.listdir(self.root / "web")), ["web-flat.vmdk", "web.vmdk"])


class Confined(FilesCase):
    def setUp(self):
        super().setUp()
        outside = self.directory / "outside"
        outside.mkdir()
        (outside / "precious").write_bytes(b"precious")
        for name, target in (("out", outside), ("up", "../outside"), ("in", "web"), ("root", "/"),
                             ("file", outside / "precious"), ("inner", "web/web.vmx"), ("nowhere", outside / "new")):
            (self.root / name).symlink_to(target)

    def test_no_path_leads_out(self):
        outside = self.directory / "outside"
        before = self.everything()
        paths = {"[ds1] ../outside/precious": 22, "[ds1] web/../../outside/precious": 22, "[ds1] ..": 22,
                 "/vmfs/volumes/ds1/../../outside/precious": 22, "/vmfs/volumes/../volumes/ds1/web/web.vmx": 2,
                 str(outside / "precious"): 22, "/etc/passwd": 22, "web/web.vmx": 22, "": 22, "[": 22, "[] x": 22,
                 "[ds1] web\0/web.vmx": 22, "[ds1] \ud800": 22, "[ds2] mail/mail.vmx": 2, "[ds3] x": 2,
                 "[.] x": 2, "[..] outside/precious": 2, f"[{outside}] precious": 2, "/vmfs/volumes/": 2,
                 "[ds1] out/precious": 40, "[ds1] up/precious": 40, "[ds1] root/etc/passwd": 40,
                 "[ds1] in/web.vmx": 40}
        vmx, new = "[ds1] web/web.vmx", "[ds1] web/new"
        for path, number in paths.items():
            for words in (("stat", DC, path), ("ls", DC, path), ("mkdir", DC, f"{path}/x", "1"), ("rm", DC, path),
                          ("cp", DC, path, DC, new, "1"), ("cp", DC, vmx, DC, path, "1"),
                          ("mv", DC, path, DC, new, "1"), ("mv", DC, vmx, DC, path, "1")):
                told, text = self.refused(*words)
                self.assertEqual((told, ": " in text), (number, True), (words, text))
        self.assertEqual(self.everything(), before)

    def test_a_link_is_never_followed(self):
        before = self.everything()
        for name in ("out", "file", "inner"):
            self.assertEqual(self.agent.ask("stat", DC, f"[ds1] {name}")["type"], "file")
            self.assertEqual(self.refused("ls", DC, f"[ds1] {name}")[0], 40)
            self.assertEqual(self.refused("cp", DC, f"[ds1] {name}", DC, "[ds1] new", "0")[0], 40)
            self.assertEqual(self.refused("mkdir", DC, f"[ds1] {name}", "1")[0], 17)
        for name in ("out", "file", "nowhere"):
            self.assertEqual(self.refused("cp", DC, "[ds1] web/web.vmx", DC, f"[ds1] {name}", "0")[0], 17)
        self.assertEqual(self.everything(), before)
        for name in ("out", "file", "nowhere", "inner"):  # the link itself is replaced, moved and removed
            self.assertIsNone(self.agent.ask("mv", DC, f"[ds1] {name}", DC, "[ds1] moved", "0"))
            self.assertIsNone(self.agent.ask("cp", DC, "[ds1] web/web.vmx", DC, "[ds1] moved", "1"))
            self.assertIsNone(self.agent.ask("rm", DC, "[ds1] moved"))
        self.assertIsNone(self.agent.ask("rm", DC, "[ds1] in"))
        self.assertEqual((self.directory / "outside/precious").read_bytes(), b"precious")
        self.assertEqual(os.listdir(self.directory / "outside"), ["precious"])
        self.assertTrue(self.vmx["web"].exists())


class Races(FilesCase):
    """What somebody else does just before a copy gets its name."""

    def files(self, meanwhile):
        return Files(Home(self.state, self.directory / "root"), "esx1", lambda step: meanwhile())

    def refusal_of(self, run, *words):
        with self.assertRaises(AgentError) as raised:
            run(*words)
        return raised.exception.number

    def test_target_that_comes_meanwhile_is_kept(self):
        files = self.files(lambda: (self.root / "new").write_bytes(b"theirs"))
        vmx, new = files.path(DC, "[ds1] web/web.vmx"), files.path(DC, "[ds1] new")
        self.assertEqual(self.refusal_of(files.cp, vmx, new, False), 17)
        self.assertEqual(((self.root / "new").read_bytes(), sorted(os.listdir(self.root))), (b"theirs", ["new", "web"]))
        files.cp(vmx, new, True)
        self.assertEqual((self.root / "new").read_bytes(), self.vmx["web"].read_bytes())

    def test_copies_beside_each_other(self):
        plain = self.files(lambda: None)
        vmx, one, other = (plain.path(DC, f"[ds1] {name}") for name in ("web/web.vmx", "one", "other"))
        self.files(lambda: plain.cp(vmx, other, False)).cp(vmx, one, False)
        self.assertEqual(sorted(os.listdir(self.root)), ["one", "other", "web"])

    def test_directory_that_becomes_a_link_leads_nobody_out(self):
        outside, folder = self.directory / "outside", self.root / "folder"
        outside.mkdir()
        folder.mkdir()

        def swap():
            folder.rename(self.root / "was")
            folder.symlink_to(outside)

        files = self.files(swap)
        files.cp(files.path(DC, "[ds1] web/web.vmx"), files.path(DC, "[ds1] folder/new"), False)
        self.assertEqual((os.listdir(outside), os.listdir(self.root / "was")), ([], ["new"]))

    def test_file_that_is_written_to_while_it_moves_stays(self):
        flat = self.root / "web/web-flat.vmdk"

        def over_file_systems(real=file_operations._place):
            """A renaming that fails at first."""
            calls = itertools.count()

            def place(*words):
                if next(calls) == 0:
                    raise AgentError(18, "another file system")
                real(*words)
            return unittest.mock.patch.object(file_operations, "_place", place)

        files = self.files(lambda: flat.write_bytes(b"newer"))
        old, new = files.path(DC, "[ds1] web/web-flat.vmdk"), files.path(DC, "[ds1] new")
        with over_file_systems():
            self.assertEqual(self.refusal_of(files.mv, old, new, False), 16)
        self.assertEqual((flat.read_bytes(), os.listdir(self.root)), (b"newer", ["web"]))
        with over_file_systems():
            self.files(lambda: None).mv(old, new, False)
        self.assertEqual(((self.root / "new").read_bytes(), flat.exists()), (b"newer", False))


class Faults(FilesCase):
    def test_death_leaves_the_old_file_or_the_new_one(self):
        copy = ("cp", DC, "[ds1] web/web.vmx", DC, "[ds1] web/web.vmdk", "1")
        old = (self.root / "web/web.vmdk").read_bytes()
        faults.add(self.state, faults.Rule(method="cp", step="copied", times=1))
        self.agent.send(json.dumps(copy) + "\n")
        self.assertEqual(self.agent.reply(), b"")
        self.assertEqual((self.root / "web/web.vmdk").read_bytes(), old)
        self.agent = self.connected()
        self.assertEqual(list(self.ls("[ds1] web").values()).count("IGNORE"), 1)  # the next copy removes it
        faults.add(self.state, faults.Rule(method="cp", die="after", times=1))
        self.agent.send(json.dumps(copy) + "\n")
        self.assertEqual(self.agent.reply(), b"")
        self.assertEqual((self.root / "web/web.vmdk").read_bytes(), self.vmx["web"].read_bytes())
        self.assertEqual(len(os.listdir(self.root / "web")), 3)


if __name__ == "__main__":
    unittest.main()
