"""The agent as the daemon runs it: requests over pipes, what they do to a datastore, the controller that follows."""

import json
import os
import pathlib
import select
import signal
import stat
import subprocess
import threading
import time
import unittest

from fixture import Appliance, TemporaryCase, make_vm, uuid_of, wait_until

from mirador_appliance.hypervisor import locks, snapshots
from mirador_appliance.store import Store

WEB, MAIL = uuid_of(1), uuid_of(2)


class Agent:
    """An agent process."""

    def __init__(self, root: pathlib.Path, hypervisor: str) -> None:
        program = root / "usr/local/corvantis/bin/jrpc_wget.pl"
        self.process = subprocess.Popen([program, "--hypervisor", hypervisor, "--portnumber", "443"],
                                        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)

    def send(self, text: str) -> None:
        self.process.stdin.write(text.encode())
        self.process.stdin.flush()

    def reply(self, seconds: float = 20) -> bytes:
        """What comes: a line, less before the end of the stream, b"" at once at the end. TimeoutError."""
        if not select.select([self.process.stdout], [], [], seconds)[0]:
            raise TimeoutError
        return self.process.stdout.readline()

    def ask(self, *words: str):
        """The data of the reply, or the number of the error that it is."""
        self.send(json.dumps(words) + "\n")
        reply = json.loads(self.reply().decode("utf-8", "surrogateescape"))
        return reply["errdesc"]["err_num"] if "errdesc" in reply else reply.get("response_data")

    def close(self, number: int | None = None) -> int:
        if number is not None:
            self.process.send_signal(number)
        for stream in (self.process.stdin, self.process.stdout, self.process.stderr):
            stream.close()
        return self.process.wait(timeout=20)


class AgentCase(TemporaryCase):
    """Two hosts, a VM each; the watching process looks once a minute unless it is told to."""

    def setUp(self):
        super().setUp()
        self.vmx = {name: make_vm(self.directory / store, name, number)
                    for number, (store, name) in enumerate((("ds1", "web"), ("ds2", "mail")), 1)}
        self.state = self.directory / "root/var/corvantis/appliance"
        stores = [f"{host}:{self.directory / store}" for host, store in (("esx1", "ds1"), ("esx2", "ds2"))]
        self.appliance = Appliance(self.directory / "root", "--datastore", ",".join(stores), "--poll", "60").start()
        self.addCleanup(self.appliance.stop)
        wait_until(lambda: len(self.appliance.vms()) == 2, "the VMs are known")
        wait_until(lambda: all(store["complete"] for store in self.appliance.status()["datastores"]), "all is read")
        store = Store(self.state / "appliance.db", create=False)
        self.addCleanup(store.close)
        self.password = store.meta("password")
        self.mine = f"Corvantis: {store.settings()['controller.uuid']}"

    def start(self, hypervisor="esx1"):
        agent = Agent(self.directory / "root", hypervisor)
        self.addCleanup(agent.close)
        return agent

    def connected(self):
        agent = self.start()
        self.assertIsNone(agent.ask("set_vendor_id", "Corvantis"))
        self.assertIsNone(agent.ask("connect", "root", self.password, str(self.directory / "session")))
        return agent

    def names(self, agent):
        return [entry["name"] for entry in agent.ask("list_snapshot", ".*")]

    def heads(self, name):
        vm = self.appliance.vms()[name]
        return [os.path.basename(disk["head_ascii_path"])
                for disk in self.appliance.get(f"vdisk?vhost_uuid={vm['uuid']}").json()]

    def fault(self, *words):
        done = self.appliance.run("fault", "add", *words)
        self.assertEqual((done.returncode, done.stderr), (0, ""))


class Protocol(AgentCase):
    def test_nothing_is_done_for_strangers(self):
        agent, file = self.start(), str(self.directory / "session")
        for request in (("create_snapshot", "web", WEB, "x", "0"), ("create_top_snapshot", "web", WEB, "x", "0"),
                        ("remove_snapshot", "web", WEB, "x", "1"), ("list_snapshot", ".*"), ("df",),
                        ("ls", "", "[ds1]"), ("stat", "", "[ds1]"), ("mkdir", "", "[ds1] x", "0"),
                        ("rm", "", "[ds1] web/web.vmx"), ("cp", "", "[ds1] web/web.vmx", "", "[ds1] x", "0"),
                        ("mv", "", "[ds1] web/web.vmx", "", "[ds1] x", "0")):
            self.assertEqual(agent.ask(*request), 107, request)
        self.assertEqual(agent.ask("connect", "root", "guess", file), 13)
        self.assertEqual(agent.ask("connect", "admin", self.password, file), 13)
        self.assertEqual(agent.ask("df"), 107)
        self.assertEqual(self.start("esx3").ask("connect", "root", self.password, file), 113)
        self.assertFalse(os.path.exists(file))
        self.assertEqual(os.listdir(self.directory / "ds1"), ["web"])
        self.assertTrue(self.vmx["web"].exists())

    def test_session_file_is_private_and_replaces_what_lies_there(self):
        victim, file = self.directory / "victim", self.directory / "session"
        victim.write_text("precious")
        file.symlink_to(victim)
        agent = self.connected()
        self.assertEqual(stat.S_IMODE(file.lstat().st_mode), 0o600)
        self.assertEqual(victim.read_text(), "precious")
        for path in (file, *self.state.glob("agent*")):
            self.assertNotIn(self.password.encode(), path.read_bytes(), path)
        self.assertIsNone(agent.ask("disconnect"))
        self.assertFalse(file.exists())
        self.assertEqual(agent.ask("df"), 107)

    def test_bad_requests_are_answered_and_harm_nobody(self):
        agent = self.connected()
        for line, number in (("nonsense", 1007), ("{}", 1007), ("[]", 1007), ("[1]", 1007), ('["nope"]', 38),
                             ('["df", "x"]', 22), ('["list_snapshot", "("]', 22),
                             (json.dumps(["create_snapshot", "web", uuid_of(9), "x", "0"]), 22),
                             (json.dumps(["remove_snapshot", "mail", MAIL, "x", "1"]), 22),  # another host's
                             (json.dumps(["create_snapshot", "web", WEB, "", "0"]), 22)):
            agent.send(f"\n{line}\n")
            told = json.loads(agent.reply())["errdesc"]
            self.assertEqual((told["err_num"], set(told)),
                             (number, {"err_num", "err_string", "linenumber", "filename"}), line)
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            agent.process.send_signal(number)  # as a whole service gets them when it is stopped
        store, = agent.ask("df")
        self.assertEqual((store["hv"], store["name"], store["accessible"]), ("esx1", "ds1", 1))
        self.assertGreater(store["capacity"], store["freeSpace"])
        self.assertEqual(agent.close(), 0)


class Snapshots(AgentCase):
    def test_answer_comes_when_the_daemon_has_taken_it_over(self):
        taken, ending = [], threading.Event()

        def daemon():
            token = "none"
            while not ending.is_set():
                token = self.appliance.get(f"fs_sync?target=dsfs&type=wait&genId={token}&timeout=1").json()["genId"]
                count = self.appliance.vms()["web"]["snap_exists"]
                time.sleep(0.3)  # a cycle's own work
                taken.append(count)
                self.appliance.get(f"fs_sync?target=vmfs&type=set&genId={token}")

        thread = threading.Thread(target=daemon)
        thread.start()
        self.addCleanup(thread.join)
        self.addCleanup(ending.set)
        agent = self.connected()
        wait_until(lambda: len(taken) > 1, "the daemon follows")  # the first is known as taken over
        agent.ask("create_snapshot", "web", WEB, self.mine, "0")
        self.assertEqual(taken[-1], 1)
        agent.ask("remove_snapshot", "web", WEB, self.mine, "1")
        self.assertEqual(taken[-1], 0)

    def test_works_without_controller_and_for_a_renamed_vm(self):
        agent = self.connected()
        agent.ask("create_snapshot", "web", WEB, self.mine, "0")
        self.appliance.stop()
        agent.close()
        agent = self.connected()
        self.assertEqual(self.names(agent), [self.mine])
        self.assertEqual(agent.ask("remove_snapshot", "old name", WEB, self.mine, "0"), 1)
        wait_until(lambda: not self.names(agent), "it is gone")
        wait_until(lambda: not any(name.startswith(".web") for name in os.listdir(self.vmx["web"].parent)), "it is done")

    def test_unfinished_removal_is_finished_by_a_listing(self):
        agent, before = self.connected(), self.vmx["web"].read_bytes()
        agent.ask("create_snapshot", "web", WEB, self.mine, "0")
        snapshots.remove(str(self.vmx["web"]), self.mine, merging=False)
        vm = next(vm for vm in self.appliance.status()["vms"] if vm["name"] == "web")
        self.assertEqual((vm["consolidation_needed"], vm["snapshots"]), (True, []))
        self.assertEqual(agent.ask("create_snapshot", "web", WEB, self.mine, "0"), 16)
        self.assertEqual(self.names(agent), [])
        wait_until(lambda: self.vmx["web"].read_bytes() == before, "it is finished")
        wait_until(lambda: not snapshots.needs_consolidation(str(self.vmx["web"])), "nothing is left to do")

    def test_busy_vm(self):
        agent = self.connected()
        agent.ask("create_snapshot", "web", WEB, self.mine, "0")
        with locks.task(str(self.vmx["web"])):
            for request in (("create_snapshot", "web", WEB, "y", "0"), ("remove_snapshot", "web", WEB, self.mine, "1"),
                            ("remove_snapshot", "web", WEB, self.mine, "0")):
                self.assertEqual(agent.ask(*request), 114, request)
            vm = next(vm for vm in self.appliance.status()["vms"] if vm["name"] == "web")
            self.assertTrue(vm["busy"])
        self.assertEqual(self.names(agent), [self.mine])


if __name__ == "__main__":
    unittest.main()
