"""The program that lists changed blocks, as the daemon runs it: its arguments, the password in the environment, exit
statuses, the results file."""

import subprocess
import time
import unittest

from agent_test import MAIL, WEB, AgentCase
from fixture import FLAT_SIZE, SECTOR, wait_until

from mirador_appliance.hypervisor import snapshots
from mirador_appliance.hypervisor.guest import Guest


class Script(AgentCase):
    """The VM "web" of a small disk, its changes tracked; "mail" is another host's."""

    def setUp(self):
        super().setUp()
        self.results = self.directory / "results"
        self.assertEqual(self.appliance.run("cbt", "web", "on").returncode, 0)
        wait_until(lambda: self.appliance.vms()["web"]["cbt_reset_pending"] == 1, "the controller knows")

    def run_script(self, since=None, only="n", environment=None, **changed):
        """The exit status."""
        options = {"server": "esx1", "portnumber": "443", "username": "root", "password": "******", "vmuuid": WEB,
                   "vmdkpath": "/vmfs/volumes/ds1/web/web.vmdk", "vmdksize": str(FLAT_SIZE), "changeid_only": only,
                   "resultsfile": self.results, "vendor_id": "Corvantis", "appliance_uuid": self.mine.split()[1],
                   **({"changeid_incr": since} if since is not None else {}), **changed}
        words = [word for name, value in options.items() for word in (f"--{name}", value)]
        program = self.directory / "root/usr/local/corvantis/bin/cbt_getblocklist.pl"
        environment = {"password": self.password} if environment is None else environment
        return subprocess.run([program, *words], env=environment, stdin=subprocess.DEVNULL, capture_output=True,
                              timeout=20, check=False).returncode

    def answer(self, since=None, only="n", **more):
        """(change id, [(start, length), …]) of a run that succeeds."""
        self.assertEqual(self.run_script(since, only, **more), 0)
        first, *rest = self.results.read_text().splitlines()
        numbers = [int(line.split(": ")[1]) for line in rest]
        self.assertEqual([line.split(": ")[0] for line in rest], ["length", "start"] * (len(rest) // 2))
        self.assertTrue(first.startswith("changeid: "))
        return first[len("changeid: "):], list(zip(numbers[1::2], numbers[::2]))

    def snapshot(self, name=None):
        snapshots.create(str(self.vmx["web"]), name or self.mine, False, time.time())

    def write(self):
        with Guest(str(self.vmx["web"]), 1) as guest:
            guest.write_round()

    def test_a_list_and_its_change_id(self):
        self.snapshot()
        base, nothing = self.answer(only="y")
        self.assertRegex(base, r"^[0-9a-f]{2}( [0-9a-f]{2}){7}-[0-9a-f]{2}( [0-9a-f]{2}){7}/1$")
        self.assertEqual(nothing, [])
        self.assertEqual(self.results.stat().st_mode & 0o777, 0o600)
        self.assertEqual(self.answer(base), (base, []))
        self.assertEqual(self.answer("*")[0], base)
        self.write()
        self.assertEqual(self.run_script(vmdksize=str(FLAT_SIZE - SECTOR), since=base), 1, "would be cut")
        self.snapshot("a user's own")
        for path in ("/vmfs.direct/volumes/ds1/web/web.vmdk", "[ds1] web/web.vmdk",
                     "/vmfs/volumes/ds1/web/web-flat.vmdk", "/vmfs/volumes/ds1/web/web-000001-delta.vmdk",
                     str(self.directory / "root/vmfs/volumes/ds1/web/web-000001.vmdk")):
            self.assertEqual(self.answer(base, vmdkpath=path), (base, [(0, FLAT_SIZE)]), path)
        self.snapshot(f"{self.mine} of the night")
        self.assertEqual(self.answer(base), (f"{base[:-1]}3", [(0, FLAT_SIZE)]), "the newest of its own")
        self.results.write_text("what another run left, and longer than the answer " * 10)
        self.assertEqual(self.answer(base)[0], f"{base[:-1]}3")

    def test_statuses(self):
        self.assertEqual(self.run_script(only="y"), 5, "no snapshot")
        self.snapshot()
        base, _ = self.answer(only="y")
        for status, changed in ((8, {"since": "52 01/3"}), (8, {"since": base[:-1] + "2"}),
                                (5, {"vendor_id": "Nobody"}), (13, {"environment": {}}),
                                (13, {"environment": {"password": "******"}}),
                                (13, {"username": "admin"}), (1, {"vmuuid": MAIL}), (1, {"server": "esx2"}),
                                (1, {"vmdkpath": "/vmfs/volumes/ds1/web/other.vmdk"}), (1, {"vmdkpath": "/etc/passwd"}),
                                (2, {"only": "maybe"}), (2, {"vmdksize": "x"})):
            with self.subTest(changed):
                self.results.unlink(missing_ok=True)
                self.assertEqual(self.run_script(**changed), status)
                self.assertFalse(self.results.exists())
        self.results.symlink_to(victim := self.directory / "victim")
        self.assertEqual(self.run_script(), 1)
        self.assertFalse(victim.exists())
        self.assertNotIn(self.password.encode(), (self.state / "agent-journal.jsonl").read_bytes())


del AgentCase  # its own tests are another file's


if __name__ == "__main__":
    unittest.main()
