"""A running controller as its clients meet it: objects, waiting, faults on demand, its place on the machine."""

import http.client
import json
import os
import pathlib
import shutil
import signal
import socket
import stat
import subprocess
import threading
import time
import unittest

from fixture import PROGRAM, Appliance, temporary_directory, wait_until

VMS = 7


class Rig:
    """A directory with appliances in it, the first of which reads faults and writes a journal."""

    def __init__(self, clean_up):
        self.directory = temporary_directory()
        clean_up(shutil.rmtree, self.directory)
        self.clean_up = clean_up
        self.faults = self.directory / "faults.json"
        self.journal = self.directory / "journal"
        self.appliance = self.start("--faults", str(self.faults), "--journal", str(self.journal))

    def start(self, *options, root="root"):
        appliance = Appliance(self.directory / root, "--synthetic", str(VMS), *options).start()
        self.clean_up(appliance.stop)
        wait_until(lambda: len(appliance.vms()) == VMS, "all VMs are there")
        return appliance

    def set_faults(self, *rules):
        aside = self.faults.with_suffix(".new")
        aside.write_text(json.dumps(rules))
        aside.rename(self.faults)


class SharedCase(unittest.TestCase):
    """All tests of a class use one appliance."""

    @classmethod
    def setUpClass(cls):
        cls.rig = Rig(cls.addClassCleanup)
        cls.appliance = cls.rig.appliance


class Objects(SharedCase):
    def value(self, key):
        return self.appliance.post("registry", {"method_name": "get_value", "method_args": key}).json()

    def test_what_only_root_is_told_and_may_change(self):
        """Another user of the machine, over either kind of socket, sees neither passwords nor changes anything."""
        port = self.appliance.url.rpartition(":")[2]
        ask = """import http.client, socket, sys
for family, host in ((socket.AF_INET, "127.0.0.1"), (socket.AF_INET6, "::ffff:127.0.0.1")):
    for method, path in (("GET", "hvconfig"), ("GET", "hvconfig?hostname=x"), ("POST", "registry"), ("POST", "vdisk"),
                         ("GET", "vhost"), ("GET", "datastore")):
        connection = http.client.HTTPConnection(host, int(sys.argv[1]))
        connection.sock = socket.socket(family)
        connection.sock.connect((host, int(sys.argv[1])))
        connection.request(method, "/api/" + path, b'{"method_name": "get_value", "method_args": "vendor.id"}')
        print(connection.getresponse().status, end=" ")
"""
        told = {}
        for user in (0, 12345):
            done = subprocess.run(["/usr/bin/python3", "-c", ask, port], user=user, capture_output=True, text=True,
                                  timeout=60, check=True)
            told[user] = done.stdout.split()
        self.assertEqual(told[12345], ["403", "403", "403", "403", "200", "200"] * 2)
        self.assertNotIn("403", told[0])

    def test_registry(self):
        self.assertEqual(self.value("export.cache.ttl"), {"error_code": 0, "result": "120"})
        self.assertEqual(self.value("no.such")["error_code"], 1)
        for line in self.appliance.run("status").stdout.split("Settings:\n")[1].splitlines():
            key, _, shown = line.strip().partition(" = ")
            self.assertTrue(shown, key)
            self.assertEqual(self.value(key), {"error_code": 0, "result": shown})
        self.assertEqual(self.appliance.run("set", "export.cache.ttl", "5").returncode, 0)
        wait_until(lambda: self.value("export.cache.ttl")["result"] == "5", "the setting is taken in")
        for key, value in (("export.cache.ttl", ""), ("export.max_session", "-1"), ("smartread.enabled", "yes"),
                           ("vendor.id", "a: b"), ("no.such", "1")):
            done = self.appliance.run("set", key, value)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (2, "", 1), done.stderr)

    def test_posts_that_cannot_be_taken(self):
        uuid = self.appliance.vms()["vm-00000"]["uuid"]
        alert = {"action": "alert_post", "alert_id": "a", "object_id": "b"}
        for name, value, status in (
                ("vmconfig", {"uuid": uuid, "cbt_reset_pending": 1, "other": 5}, 200),
                ("vmconfig", {"uuid": "none", "cbt_reset_pending": 1}, 404),
                ("vmconfig", {"uuid": uuid, "cbt_reset_pending": "x"}, 400),
                ("vmconfig", {"cbt_reset_pending": 1}, 400),
                ("vmconfig", b"[" * 100000, 400),
                ("event", {"event_name": "reset_cbt", "args": {"uuid": uuid}}, 200),
                ("event", {"event_name": "reset_cbt", "args": 5}, 400),
                ("event", {"event_name": "other"}, 200),
                ("alert", alert, 200),
                ("alert", {**alert, "object_id": None}, 400),
                ("alert", b'{"action":"alert_post","alert_id":"\xff\\ud800","object_id":"\\u0000"}', 200),
                ("vmstats", [5], 400),
                ("vmstats", b'[{"vmdk_path":"a","vmdk_bytes_read":1e999}]', 400),
                ("hvconfig", {}, 404),
                ("nothing", {}, 404)):
            with self.subTest(name, value=value):
                reply = self.appliance.post(name, value)
                self.assertEqual(reply.status, status, reply.body)
        self.assertEqual(len(self.appliance.get("alert").json()), 2)
        self.assertEqual([event["event_name"] for event in self.appliance.status()["events"]],
                         ["reset_cbt", "reset_cbt", "other"])

    def test_long_poll(self):
        answers = []
        token = self.appliance.token()
        path = f"fs_sync?target=dsfs&genId={token}&type=wait"
        self.assertEqual(self.appliance.get(f"{path}&timeout=1").json(), {"genId": token})
        waiter = threading.Thread(target=lambda: answers.append(self.appliance.get(path, timeout=30).json()["genId"]))
        waiter.start()
        uuid = self.appliance.vms()["vm-00000"]["uuid"]
        self.appliance.post("vmconfig", {"uuid": uuid, "use_cbt": 1})
        waiter.join(5)
        self.assertEqual(answers, [self.appliance.token()])
        self.appliance.get(f"fs_sync?target=vmfs&type=set&genId={answers[0]}")
        self.assertEqual(self.appliance.status()["controller"]["taken_over"], answers[0])
        for wrong in ("target=vmfs&type=wait", "target=x&type=query", "target=dsfs&type=set", "target=dsfs"):
            self.assertEqual(self.appliance.get(f"fs_sync?{wrong}").status, 404)
        for wrong in ("target=dsfs&type=wait&timeout=nan", "target=dsfs&type=wait&timeout=-1",
                      "target=vmfs&type=set&genId=%ff"):
            self.assertEqual(self.appliance.get(f"fs_sync?{wrong}").status, 400)

    def test_waiting_client_that_leaves_is_noticed(self):
        def threads():
            return len(os.listdir(f"/proc/{self.appliance.process.pid}/task"))

        time.sleep(0.5)  # the threads of requests that have been answered end
        before = threads()
        path = f"/api/fs_sync?target=dsfs&genId={self.appliance.token()}&type=wait"
        port = int(self.appliance.url.rpartition(":")[2])
        clients = [socket.create_connection(("127.0.0.1", port)) for _ in range(5)]
        for client in clients:
            client.sendall(f"GET {path} HTTP/1.1\r\nHost: localhost\r\n\r\n".encode())
        wait_until(lambda: threads() >= before + 5, "all wait")
        for client in clients:
            client.close()
        wait_until(lambda: threads() <= before, "all are gone", 10)

    def test_folders(self):
        def folders():
            return {folder["name"]: folder["numVms"] for folder in self.appliance.get("folder").json()}

        host = self.appliance.get("hvconfig").json()[0]["hostname"]
        for words, status in ((("add", "Büro"), 0), (("add", "Büro"), 1), (("add", ".."), 2), (("add", ".uuid"), 2),
                              (("add", host), 1), (("move", "vm-00001", "Büro"), 0), (("move", "vm-9", "Büro"), 1),
                              (("add", "Other"), 0), (("rename", "Other", "Büro"), 1)):
            with self.subTest(words):
                done = self.appliance.run("folder", *words)
                self.assertEqual((done.returncode, done.stderr.count("\n")), (status, int(status != 0)), done.stderr)
        wait_until(lambda: folders() == {"Büro": 1, "Other": 0}, "the folders are there")
        self.assertEqual(self.appliance.vms()["vm-00001"]["folder"], "Büro")


class Faults(SharedCase):
    def setUp(self):
        self.addCleanup(self.rig.set_faults)

    def test_answers_that_do_not_come(self):
        for rule in ({"cut": 10}, {"hang": 0.2}, {"cut": 10, "chunked": 1}):
            with self.subTest(rule):
                self.rig.set_faults({"object": "*", "times": 1, **rule})
                with self.assertRaises((OSError, http.client.HTTPException)):
                    self.appliance.get("hvconfig")
                self.assertEqual(self.appliance.get("hvconfig").status, 200)  # used up
        self.rig.set_faults({"object": "hvconfig", "body": "no JSON"})
        self.assertEqual(self.appliance.get("hvconfig").body, b"no JSON")
        self.assertLess(self.appliance.get("folder").status, 300)
        self.rig.faults.write_text("[{]")
        self.assertEqual(self.appliance.get("hvconfig").status, 200)

    def test_refused_post_has_no_effect(self):
        uuid = self.appliance.vms()["vm-00000"]["uuid"]
        self.rig.set_faults({"object": "vmconfig", "status": 500, "times": 1})
        self.appliance.post("vmconfig", {"uuid": uuid, "use_cbt": 1})
        self.assertEqual(self.appliance.vms()["vm-00000"]["use_cbt"], 0)
        self.appliance.post("vmconfig", {"uuid": uuid, "use_cbt": 1})
        self.assertEqual(self.appliance.vms()["vm-00000"]["use_cbt"], 1)
        posts = [entry for entry in map(json.loads, self.rig.journal.read_text().splitlines())
                 if entry["object"] == "vmconfig"]
        self.assertEqual([(entry["method"], entry["status"], json.loads(entry["body"])["uuid"]) for entry in posts],
                         [("POST", 500, uuid), ("POST", 200, uuid)])


class Place(unittest.TestCase):
    def setUp(self):
        self.rig = Rig(self.addCleanup)
        self.appliance, self.directory = self.rig.appliance, self.rig.directory

    def test_stops_while_clients_wait(self):
        self.rig.set_faults({"object": "folder", "hang": 60})
        for what in ("folder", f"fs_sync?target=dsfs&genId={self.appliance.token()}&type=wait"):
            threading.Thread(target=lambda what=what: _quietly(self.appliance.get, what), daemon=True).start()
        time.sleep(0.3)
        worker = self.appliance.worker()
        started = time.monotonic()
        self.assertEqual(self.appliance.stop(), 0)
        self.assertLess(time.monotonic() - started, 3)
        self.assertFalse(pathlib.Path(f"/proc/{worker}").exists())

    def test_worker_goes_with_a_killed_controller(self):
        worker = self.appliance.worker()
        self.assertEqual(pathlib.Path(f"/proc/{worker}/comm").read_text().strip(), "datastore_fs")
        self.assertEqual(pathlib.Path(f"/proc/{self.appliance.process.pid}/comm").read_text().strip(),
                         "run-controller")
        self.appliance.stop(signal.SIGKILL)
        wait_until(lambda: not pathlib.Path(f"/proc/{worker}").exists(), "the worker is gone")
        again = self.rig.start()
        self.assertEqual(len(again.vms()), VMS)

    def test_killed_worker_is_replaced(self):
        os.kill(self.appliance.worker(), signal.SIGKILL)
        wait_until(lambda: [alert["alert_id"] for alert in self.appliance.get("alert").json()] == ["appliance"],
                   "it is told that the worker ended")
        wait_until(lambda: not self.appliance.get("alert").json(), "a new worker tells")
        self.assertEqual(len(self.appliance.vms()), VMS)

    def test_nobody_else_reads_its_secrets(self):
        state = self.directory / "root/var/corvantis/appliance"
        modes = {path.name: stat.S_IMODE(path.stat().st_mode) for path in state.iterdir()}
        self.assertIn("appliance.db", modes)
        self.assertEqual(set(modes.values()), {0o600}, modes)
        self.assertEqual(stat.S_IMODE(self.rig.journal.stat().st_mode), 0o600)
        password = self.appliance.get("hvconfig").json()[0]["password"]
        command = pathlib.Path(f"/proc/{self.appliance.process.pid}/cmdline").read_bytes()
        self.assertNotIn(password, self.appliance.run("status", "--json").stdout + command.decode())

    def test_listens_on_the_loopback_interface_alone(self):
        port = int(self.appliance.url.rpartition(":")[2])
        pid = self.appliance.process.pid
        table = "".join(pathlib.Path(f"/proc/{pid}/net/{name}").read_text() for name in ("tcp", "tcp6"))
        listening = [line.split()[1] for line in table.splitlines() if line.split()[3:4] == ["0A"]]
        self.assertEqual([address for address in listening if address.endswith(f":{port:04X}")],
                         [f"0100007F:{port:04X}"])

    def test_programs_at_fixed_places(self):
        product = self.directory / "root/usr/local/corvantis"
        brand = product / "python/branding/BrandReader.py"
        watchdog = product / "bin/watchdog-test-controller.py"
        port = self.appliance.url.rpartition(":")[2]
        self.assertEqual(_output(brand, "controller.port", "controller.use_https"), (0, f"{port}\n0\n"))
        self.assertEqual(_output(watchdog), (0, "running\n"))
        self.appliance.stop()
        self.assertEqual(_output(watchdog), (1, "stopped\n"))
        (product / "etc/controller.conf").unlink()
        self.assertEqual(_output(brand, "controller.port", "controller.use_https"), (0, "443\n1\n"))
        self.assertEqual(_output(watchdog), (1, "stopped\n"))

    def test_https(self):
        certificate = self.directory / "certificate.pem"
        subprocess.run(["openssl", "req", "-x509", "-newkey", "rsa:2048", "-nodes", "-subj", "/CN=localhost",
                        "-keyout", certificate, "-out", self.directory / "public.pem"], check=True, capture_output=True)
        with open(certificate, "a", encoding="ascii") as file:
            file.write((self.directory / "public.pem").read_text())
        appliance = self.rig.start("--certificate", str(certificate), root="tls")
        self.assertTrue(appliance.url.startswith("https://"))
        self.assertEqual(appliance.get("hvconfig").status, 200)
        brand = self.directory / "tls/usr/local/corvantis/python/branding/BrandReader.py"
        self.assertEqual(_output(brand, "controller.use_https"), (0, "1\n"))

    def test_one_clear_line(self):
        port = self.appliance.url.rpartition(":")[2]
        foreign = self.directory / "foreign/usr/local/corvantis/bin/watchdog-test-controller.py"
        foreign.parent.mkdir(parents=True)
        foreign.write_text("#!/bin/sh\necho running\n")
        (self.directory / "garbage").write_bytes(b"x" * 5000)
        cases = [
            (["serve", "--root", "new", "--synthetic", "1", "--port", port], "Address already in use"),
            (["serve", "--root", "root", "--synthetic", "1", "--port", "0"], "a controller runs"),
            (["serve", "--root", "new", "--datastore", "gone"], "gone: cannot read this datastore: No such file"),
            (["serve", "--root", "new", "--datastore", "root,root/var"], "inside the other"),
            (["serve", "--root", "new", "--datastore", "garbage"], "Not a directory"),
            (["serve", "--root", "new", "--synthetic", "1", "--certificate", "garbage"], "no certificate"),
            (["serve", "--root", "foreign", "--synthetic", "1", "--port", "0"], "is not this appliance's"),
            (["serve", "--root", "new", "--synthetic", "1", "--state", "garbage"], "garbage"),
            (["status", "--root", "nothing"], "no such database"),
            ([], "COMMAND"),
        ]
        for words, told in cases:
            with self.subTest(words):
                done = subprocess.run([PROGRAM, *words], cwd=self.directory, capture_output=True, text=True,
                                      timeout=30, check=False)
                self.assertIn(done.returncode, (1, 2))
                self.assertEqual((done.stdout, done.stderr.count("\n")), ("", 1), done.stderr)
                self.assertIn(told, done.stderr)
                self.assertTrue(done.stderr.startswith("mirador-appliance: "), done.stderr)


def _output(program, *words):
    done = subprocess.run([program, *words], capture_output=True, text=True, timeout=10, check=False)
    return done.returncode, done.stdout


def _quietly(call, *arguments):
    try:
        call(*arguments, timeout=20)
    except Exception:  # the appliance stops meanwhile
        pass


if __name__ == "__main__":
    unittest.main()
