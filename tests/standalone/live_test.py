"""What people see of the appliance: the overview, how it is served, and "top"."""

import http.client
import json
import os
import pty
import re
import select
import subprocess
import unittest

from fixture import PROGRAM, TemporaryCase, wait_until
from live_rig import PERIOD, LiveRig

MIB = 1 << 20
EVIL = "<img src=x onerror=alert(1)>"
ODD = "a\x1b[31m\n\u202eb\udcff"  # an escape sequence, a line end, letters the wrong way round, a byte that is no UTF-8


class LiveCase(TemporaryCase):
    def rig(self, *names):
        rig = LiveRig(self.directory, *names or ("web", "mail"))
        self.addCleanup(rig.close)
        return rig

    def samples(self, rig):
        """(seconds, MiB read, MiB skipped) of each sample; a gap before one stands as its seconds alone."""
        found, last = [], None
        for start, end, read, skipped in rig.overview()["reads"]["samples"]:
            if last is not None and start > last:
                found.append(round(start - last))
            found.append((round(end - start), round(read / MIB), round(skipped / MIB)))
            last = end
        return found


class Reads(LiveCase):
    def test_rates_are_what_came_between_two_reports(self):
        rig = self.rig()
        rig.follow()
        rig.report(**{"web/a": (30 * MIB, 0)})
        rig.report(**{"web/a": (15 * MIB, 45 * MIB), "mail/b": (60 * MIB, 0)})
        told = rig.overview()
        rate = told["reads"]["rate"]
        self.assertEqual((rate["read"], rate["skipped"], rate["seconds"]), (5 * MIB, 3 * MIB, PERIOD))
        self.assertEqual(self.samples(rig), [(15, 30, 0), (15, 75, 45)])
        self.assertEqual((told["reads"]["read"], told["reads"]["skipped"]), (105 * MIB, 45 * MIB))
        files = {row["path"]: (row["read"], row["read_rate"], row["reading"]) for row in told["files"]["rows"]}
        self.assertEqual(files, {"/esx1/web/a": (45 * MIB, MIB, True), "/esx1/mail/b": (60 * MIB, 4 * MIB, True)})
        rows = {row["name"]: (row["open"], row["read_rate"], row["skipped_rate"]) for row in told["vms"]["rows"]}
        self.assertEqual(rows, {"web": (1, MIB, 3 * MIB), "mail": (1, 4 * MIB, 0)})
        rig.pass_time(30)
        self.assertEqual(rig.overview()["reads"]["rate"]["age"], 30)

    def test_no_byte_is_counted_twice_or_lost(self):
        """However the daemon comes to send a total: reports as (total, new); the last one's share is wanted."""
        for what, reports, wanted in (
                ("new", [(5 * MIB, 5 * MIB - 4096)], 5),
                ("goes on", [(5 * MIB, 5 * MIB), (9 * MIB, 4 * MIB)], 4),
                ("told again, as the answer was lost", [(5 * MIB, 5 * MIB), (9 * MIB, 9 * MIB)], 4),
                ("opened anew", [(50 * MIB, 50 * MIB), "closed", (9 * MIB, 9 * MIB - 4096)], 9),
                ("opened anew and read further", [(5 * MIB, 5 * MIB), "closed", (9 * MIB, 9 * MIB - 4096)], 9),
                ("read on just as it was closed", [(50 * MIB, 50 * MIB), "closed", (52 * MIB, 2 * MIB)], 2),
                ("controller started anew: nobody knows when", [(50 * MIB, 3 * MIB)], 0),
                ("daemon started anew", [(5 * MIB, 5 * MIB), "daemon", (7 * MIB, 7 * MIB - 4096)], 7)):
            with self.subTest(what):
                rig = LiveRig(self.directory / what.replace(" ", "-"), "web")
                self.addCleanup(rig.close)
                rig.follow()
                for report in reports:
                    if report == "daemon":
                        rig.begin()
                    elif report == "closed":
                        rig.now += PERIOD
                        rig.post([rig.entry("/esx1/web/a", total, 0, 0, 0, closed=True)])
                    else:
                        total, new = report
                        rig.now += PERIOD
                        rig.post([rig.entry("/esx1/web/a", total, 0, new, 0)])
                self.assertEqual(self.samples(rig)[-1][1], wanted)

    def test_gaps_and_quiet(self):
        rig = self.rig()
        rig.follow()
        rig.pass_time(120)  # nothing is open: that nothing was read is known, but for what may yet be reported
        self.assertEqual(self.samples(rig), [(104, 0, 0)])
        rig.report(**{"web/a": (30 * MIB, 0)})
        self.assertEqual(self.samples(rig), [(119, 0, 0), (16, 30, 0)])
        rig.pass_time(60)  # a file is open and no report comes: nobody knows
        self.assertEqual(len(self.samples(rig)), 2)
        rig.report(close=("web/a",), **{"web/a": (15 * MIB, 0)})
        self.assertEqual(self.samples(rig)[2:], [(75, 15, 0)])
        rig.pass_time(60)
        rig.wait(is_there=False)  # a short break
        rig.now += 2
        rig.wait()
        rig.pass_time(58)
        self.assertEqual(self.samples(rig)[3:], [(104, 0, 0)])
        rig.pass_time(60)  # nobody looks at it for a while; then the daemon is gone, and there is another one
        rig.wait(is_there=False)
        rig.now += 300
        rig.follow()
        rig.report(**{"web/a": (30 * MIB, 0)})
        self.assertEqual(self.samples(rig)[3:], [(164, 0, 0), 316, (15, 30, 0)])


class Daemon(LiveCase):
    def words(self, rig):
        rig.now += 1.1
        return rig.overview()["daemon"]["words"]

    def test_how_it_is_with_the_daemon(self):
        rig = self.rig(*(f"vm-{number}" for number in range(10)))
        self.assertEqual(self.words(rig), "No daemon has spoken yet")
        rig.begin()
        rig.now += 6
        rig.take_over(4)
        self.assertEqual(self.words(rig), "The daemon takes over the VMs: 4 of 10 in 7 s")
        self.assertIn("the daemon has taken over 1 of 10 VMs", rig.said)
        rig.take_over()
        self.assertEqual(rig.said[-1], "the daemon has taken over all 10 VMs, in 7.1 s")
        self.assertEqual(self.words(rig), "The daemon has taken over all VMs")
        rig.add("another")
        self.assertEqual(self.words(rig), "The daemon takes over what has changed")
        rig.wait("old")
        rig.take_over()
        rig.wait()
        self.assertEqual(self.words(rig), "The daemon has taken over all VMs")
        rig.now += 40
        self.assertEqual(self.words(rig), "No daemon has spoken for 42 s")
        rig.wait()
        rig.wait(is_there=False)  # its connection breaks, which need not mean much
        self.assertEqual(self.words(rig), "The daemon has taken over all VMs")
        rig.now += 4
        self.assertEqual(self.words(rig), "No daemon has spoken for 6 s")

    def test_a_silent_daemon_has_no_rates(self):
        rig = self.rig()
        rig.follow()
        rig.report(**{"web/a": (30 * MIB, 0)})
        self.assertTrue(rig.overview()["files"]["rows"][0]["reading"])
        rig.wait(is_there=False)
        rig.now += 6
        told = rig.overview()
        self.assertIsNone(told["reads"]["rate"])
        self.assertEqual([(row["read_rate"], row["reading"]) for row in told["files"]["rows"]], [(0, False)])


class Rows(LiveCase):
    def test_what_matters_comes_first_and_the_rest_is_counted(self):
        rig = self.rig("quiet", "theirs", "alerted", "kept", "reading", *(f"vm-{number:04}" for number in range(3000)))
        rig.follow()
        settings = rig.controller.look().settings
        mine = f"{settings['vendor.id']}: {settings['controller.uuid']}"
        rig.change("kept", snapshots=[mine], snapshot_times=[int(rig.now) - 100])
        rig.change("theirs", snapshots=["before the update"])
        rig.alert("vm_discovery", "alerted", "no")
        rig.report(**{"reading/a": (MIB, 0)})
        vms = rig.overview(rows=6)["vms"]
        self.assertEqual([row["name"] for row in vms["rows"]],
                         ["reading", "kept", "alerted", "theirs", "quiet", "vm-0000"])
        self.assertEqual((vms["total"], vms["matching"]), (3005, 3005))
        self.assertEqual([(shot["whose"], shot["age"]) for row in vms["rows"] for shot in row["snapshots"]],
                         [("ours", 115), ("foreign", None)])
        found = rig.overview(find="VM-01", rows=5)["vms"]
        self.assertEqual((found["matching"], found["rows"][4]["name"]), (100, "vm-0104"))
        self.assertEqual([rig.overview(sort=sort, rows=1)["vms"]["rows"][0]["name"]
                          for sort in ("name", "rate", "read", "snapshot", "alerts")],
                         ["alerted", "reading", "reading", "kept", "alerted"])

class Served(LiveCase):
    def ask(self, method, path, **headers):
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=10)
        self.addCleanup(connection.close)
        connection.putrequest(method, path, skip_host="Host" in headers)
        for name, value in headers.items():
            connection.putheader(name, value)
        connection.endheaders()
        answer = connection.getresponse()
        return answer.status, answer.headers, answer.read()

    def test_who_is_served_what(self):
        rig = self.rig(EVIL, ODD)
        self.port = int(rig.serve().rpartition(":")[2])
        password = json.loads(self.ask("GET", "/api/hvconfig")[2])[0]["password"]
        for path in ("/", "/page.js", "/plot.js", "/page.css", "/icon.svg", "/overview"):
            status, headers, body = self.ask("GET", path)
            self.assertEqual(status, 200, path)
            self.assertRegex(headers["Content-Security-Policy"], "^default-src 'self';")
            self.assertEqual((headers["X-Content-Type-Options"], headers["Cache-Control"]), ("nosniff", "no-store"))
            self.assertNotIn(password.encode(), body)
            self.assertNotRegex(body.decode("utf-8", "replace"), r"innerHTML|document\.write|(src|href)=.?http")
        for method, path, headers, status in (
                ("GET", "/overview?rows=1&sort=name&find=%3C", {}, 200),
                ("GET", "/overview?sort=size", {}, 400),
                ("GET", "/overview?rows=-1", {}, 400),
                ("GET", "/overview?rows=9999999", {}, 400),
                ("GET", "/page/index.html", {}, 404),
                ("GET", "/../live.py", {}, 404),
                ("POST", "/overview", {"Content-Length": "0"}, 404),
                ("PUT", "/", {}, 501),
                # A page elsewhere whose name was made to lead here, and one that lets the browser post.
                ("GET", "/overview", {"Host": "attacker.example"}, 403),
                ("GET", "/", {"Host": f"127.0.0.1.attacker.example:{self.port}"}, 403),
                ("GET", "/api/vhost", {"Host": "attacker.example"}, 403),
                ("GET", "/api/vhost", {"Host": "[attacker"}, 403),
                ("POST", "/api/event", {"Origin": "http://attacker.example", "Content-Length": "0"}, 403),
                ("GET", "/overview", {"Host": "localhost:9000"}, 200),
                ("GET", "/overview", {"Host": f"[::1]:{self.port}"}, 200)):
            with self.subTest(f"{method} {path} {headers}"):
                self.assertEqual(self.ask(method, path, **headers)[0], status)


class Top(LiveCase):
    def busy_rig(self, *names):
        rig = self.rig(*names or ("web", EVIL, ODD, "日本語" * 20))
        rig.follow()
        rig.report(**{"web/disk-flat.vmdk": (30 * MIB, 15 * MIB)})
        rig.alert("vm_discovery", EVIL, f"Discovery of '{ODD}' failed.")
        rig.now += 1.1
        return rig

    def test_once(self):
        rig = self.busy_rig()
        url = rig.serve()
        done = subprocess.run([PROGRAM, "top", "--once", "--url", url], capture_output=True, timeout=60, check=True)
        shown = done.stdout.decode()
        self.assertNotRegex(shown, "[\x00-\x09\x0b-\x1f\x7f\u202e]")
        for part in ("The daemon has taken over all VMs", "Reads: 2.0 MiB/s read, 1.0 MiB/s skipped", EVIL,
                     r"a\x1b[31m\x0a\xe2\x80\xaeb\xff", "/esx1/web/disk-flat.vmdk", "30.0 MiB", "ALERTS"):
            self.assertIn(part, shown)
        piped = subprocess.run([PROGRAM, "top", "--url", url, "--find", "web", "--rows", "1"], capture_output=True,
                               stdin=subprocess.DEVNULL, timeout=60, check=True).stdout.decode()
        self.assertIn("1 to 1 of 1 VMs match \"web\"", piped)
        for words, status, said in ((["--root", str(self.directory / "none")], 1, "no controller runs"),
                                    (["--url", "http://127.0.0.1:1"], 1, "does not answer: Connection refused"),
                                    (["--url", "file:///etc/passwd"], 2, "not a URL")):
            done = subprocess.run([PROGRAM, "top", *words], capture_output=True, text=True, timeout=60, check=False)
            self.assertEqual((done.returncode, done.stdout, done.stderr.count("\n")), (status, "", 1), done.stderr)
            self.assertIn(said, done.stderr)

    def terminal(self, url):
        """top on a terminal of its own: what it shows, and how to type."""
        pid, terminal = pty.fork()
        if pid == 0:
            os.environ |= {"TERM": "xterm", "LC_ALL": "C.UTF-8"}
            os.execv(PROGRAM, [str(PROGRAM), "top", "--url", url])
        self.addCleanup(os.close, terminal)
        shown = bytearray()

        def has(part):
            while select.select([terminal], [], [], 0)[0]:
                try:
                    shown.extend(os.read(terminal, 65536))
                except OSError:  # it has ended
                    break
            return part.encode() in shown
        return pid, terminal, shown, has

    def test_keys_and_the_end(self):
        url = self.busy_rig("web", "mail").serve()
        for end in (b"q", b"\x03"):
            pid, terminal, shown, has = self.terminal(url)
            wait_until(lambda: has("sorted by") or has("VMs 2"), "it shows something")
            os.write(terminal, b"/m")  # one letter: of what it shows anew, only the difference comes
            wait_until(lambda: has("match \"m\""), "the filter is shown")
            os.write(terminal, b"\rs")
            wait_until(lambda: has("name"), "another order is shown")
            os.write(terminal, end)
            self.assertEqual(os.waitpid(pid, 0)[1], 0)
            has("")
            # The screen that was there before is shown again, and the cursor.
            self.assertTrue({b"\x1b[?1049h", b"\x1b[?1049l"} <= set(re.findall(rb"\x1b\[\?1049[hl]", shown)), shown)
            self.assertGreater(shown.rfind(b"\x1b[?1049l"), shown.rfind(b"\x1b[?1049h"))


if __name__ == "__main__":
    unittest.main()
