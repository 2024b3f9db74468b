"""The controller's page in a headless browser: what a person sees of made-up data."""

import html
import json
import re
import shutil
import subprocess
import unittest

from fixture import TemporaryCase
from live_rig import LiveRig

MIB = 1 << 20
EVIL = "<img src=x onerror=alert(1)>"
ODD = "Büro \x1b\u202egnp.exe"
LONG = "a-very-long-name-of-a-machine-that-somebody-has-copied-from-another-one-and-never-renamed-since-then"
CHROMIUM = shutil.which("chromium")

# What a person does on the page, once it shows VMs; what is returned is what there is to see then.
PERSON = """
(async () => {
    const all = selector => [...document.querySelectorAll(selector)];
    const text = selector => document.querySelector(selector).textContent;
    const rows = table => all(`#${table} tbody tr`).map(row => [...row.cells].map(cell => cell.textContent));
    const wait = async condition => { while (!condition()) await new Promise(done => setTimeout(done, 50)); };
    const act = async () => { %s };
    await wait(() => rows("vms").length);
    const seen = await act();
    seen.tooWide = document.documentElement.scrollWidth > innerWidth;
    document.documentElement.dataset.seen = JSON.stringify(seen);
})();
"""


@unittest.skipIf(CHROMIUM is None, "no chromium")
class Page(TemporaryCase):
    def rig(self, *names):
        rig = LiveRig(self.directory, *names)
        self.addCleanup(rig.close)
        return rig

    def busy_rig(self, *more):
        rig = self.rig("web", "mail", EVIL, ODD, LONG, *more)
        rig.follow()
        rig.report(**{"web/disk-flat.vmdk": (30 * MIB, 0)})
        rig.report(**{"web/disk-flat.vmdk": (960 * MIB, 0), "mail/disk-flat.vmdk": (15 * MIB, 45 * MIB)})
        rig.wait(is_there=False)
        rig.now += 200
        rig.follow()
        for number in range(1, 11):
            rig.report(**{"web/disk-flat.vmdk": (number * 15 * MIB, 0)})
        rig.alert("vm_discovery", EVIL, f"Discovery of '{EVIL}' failed.")
        rig.now += 1.1
        return rig

    def seen(self, rig, act, size="1280,900"):
        """What a person sees who has done that; nothing of it is an error in the browser's eyes."""
        url = rig.serve(PERSON % act)
        done = subprocess.run(
            [CHROMIUM, "--headless=new", "--no-sandbox", "--disable-gpu", "--disable-dev-shm-usage", "--no-first-run",
             "--disable-background-networking", "--no-proxy-server", f"--user-data-dir={self.directory}/browser",
             "--enable-logging=stderr", f"--window-size={size}", "--virtual-time-budget=5000", "--dump-dom", url],
            stdin=subprocess.DEVNULL, capture_output=True, text=True, timeout=120, check=True)
        rig.stop_serving()
        self.assertNotIn("CONSOLE", done.stderr)
        seen = json.loads(html.unescape(re.search('data-seen="(.*?)"', done.stdout)[1]))
        self.assertFalse(seen.pop("tooWide"))
        return seen

    def test_a_small_fleet(self):
        rig = self.busy_rig()
        seen = self.seen(rig, """return {
            daemon: text("#daemon"), tiles: ["read", "open", "alerts"].map(tile => text(`#tile-${tile}`)),
            files: rows("files"), vms: rows("vms"), alerts: rows("alerts"), images: document.images.length,
            shapes: ["read", "skipped"].map(plot => [".curve", ".gap"].map(kind => all(`#plot-${plot} ${kind}`).length)),
            heights: all("#plot-read .curve").map(line =>
                line.getAttribute("d").split(" ").map(point => +point.split(",")[1]))
        };""")
        self.assertEqual(seen["daemon"], "The daemon has taken over all VMs")
        self.assertEqual(seen["tiles"], ["10.0 MiB/s", "1", "1"])
        self.assertEqual([row[0] for row in seen["files"]], ["/esx1/web/disk-flat.vmdk"])
        self.assertEqual([row[0] for row in seen["vms"]], ["web", EVIL, LONG, "Büro \\u{1b}\\u{202e}gnp.exe", "mail"])
        self.assertEqual(seen["vms"][0][4:6], ["1", "10.0 MiB/s"])
        self.assertEqual(seen["alerts"][0][1:], ["warning", "vm_discovery", f"Discovery of '{EVIL}' failed."])
        self.assertEqual(seen["images"], 0)
        # Two runs of samples with the time without a daemon shaded between them.
        self.assertEqual(seen["shapes"], [[2, 1]] * 2)
        first, second = seen["heights"]
        self.assertEqual((len(first), len(second)), (4, 20))  # two ends of each step
        self.assertEqual(second[::2], sorted(second[::2], reverse=True))  # more is higher up
        self.assertLess(first[2], second[-2])
        self.assertEqual(self.seen(rig, "return {};", size="390,844"), {})

    def test_pointing_and_keys(self):
        seen = self.seen(self.busy_rig(), """
            const plot = document.querySelector("#plot-read svg"), box = plot.getBoundingClientRect();
            plot.dispatchEvent(new PointerEvent("pointermove", {clientX: box.right - 15, clientY: box.top + 20}));
            const other = document.querySelector("#plot-skipped svg");
            for (let step = 0; step < 11; step++)  // past the gap to the second of the first two
                other.dispatchEvent(new KeyboardEvent("keydown", {key: "ArrowLeft"}));
            return {cursors: all("#plot-read .cursor").length, read: text("#plot-read output"),
                    skipped: text("#plot-skipped output")};""")
        self.assertEqual(seen["cursors"], 1)
        self.assertRegex(seen["read"], r"^\d\d:\d\d:\d\d to \d\d:\d\d:\d\d: 10\.0 MiB/s, 150 MiB$")
        self.assertRegex(seen["skipped"], ": 3.00 MiB/s, 45.0 MiB$")

    def test_a_big_fleet(self):
        seen = self.seen(self.busy_rig(*(f"vm-{number:05d}" for number in range(5000))), """
            const few = [rows("vms").length, text("#vms-note")], find = document.getElementById("find");
            document.getElementById("more").click();
            await wait(() => rows("vms").length === 400);
            find.value = "VM-0499";
            find.dispatchEvent(new Event("input"));
            await wait(() => rows("vms").length === 10);
            return {few, found: text("#vms-note")};""")
        self.assertEqual(seen["few"], [100, "5,005 VMs; 100 are shown."])
        self.assertRegex(seen["found"], "^10 of 5,005 VMs match.")

    def test_no_daemon_and_a_first_cycle(self):
        rig = self.rig(*(f"vm-{number:05d}" for number in range(200)))
        look = """return {daemon: text("#daemon"), read: text("#tile-read"), plot: text("#plot-read svg"),
                          files: text("#files-note"), progress: document.getElementById("progress").position};"""
        seen = self.seen(rig, look)
        self.assertEqual((seen["daemon"], seen["read"]), ("No daemon has spoken yet", "–"))
        self.assertIn("nothing has been reported", seen["plot"])
        self.assertEqual(seen["files"], "No report yet.")
        rig.begin()
        rig.take_over(50)
        rig.now += 2
        seen = self.seen(rig, look)
        self.assertEqual((seen["daemon"], seen["progress"]), ("The daemon takes over the VMs: 50 of 200 in 2 s", 0.25))


if __name__ == "__main__":
    unittest.main()
