"""The controller's page in a headless browser: what a person sees of made-up data."""

import shutil
import unittest

from browser import Browser
from fixture import TemporaryCase
from live_rig import LiveRig

MIB = 1 << 20
EVIL = "<img src=x onerror=alert(1)>"
ODD = "Büro \x1b\u202egnp.exe"
LONG = "a-very-long-name-of-a-machine-that-somebody-has-copied-from-another-one-and-never-renamed-since-then"

ROWS = "[...document.querySelectorAll('#{table} tbody tr')].map(row => [...row.cells].map(cell => cell.textContent))"


class Page(TemporaryCase):
    @classmethod
    def setUpClass(cls):
        program = shutil.which("chromium")
        if program is None:
            raise unittest.SkipTest("no chromium")
        cls.browser = Browser(program)
        cls.addClassCleanup(cls.browser.close)

    def setUp(self):
        super().setUp()
        self.browser.errors.clear()
        self.browser.look_like(1280, 900)

    def rig(self, *names):
        rig = LiveRig(self.directory, *names)
        self.addCleanup(rig.close)
        self.addCleanup(self.browser.open, "about:blank")
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

    def open(self, rig):
        self.browser.open(rig.serve())
        self.browser.wait("document.querySelectorAll('#vms tbody tr').length")

    def rows(self, table):
        return self.browser.value(ROWS.format(table=table))

    def text(self, selector):
        return self.browser.value(f"document.querySelector('{selector}').textContent")

    def check_no_error(self):
        self.assertEqual(self.browser.errors, [])
        self.assertFalse(self.browser.value("document.documentElement.scrollWidth > innerWidth"), "it is too wide")

    def test_a_small_fleet(self):
        self.open(self.busy_rig())
        self.assertEqual(self.text("#daemon"), "The daemon has taken over all VMs")
        self.assertEqual((self.text("#tile-read"), self.text("#tile-open"), self.text("#tile-alerts")),
                         ("10.0 MiB/s", "1", "1"))
        self.assertEqual([row[0] for row in self.rows("files")], ["/esx1/web/disk-flat.vmdk"])
        vms = self.rows("vms")
        self.assertEqual([row[0] for row in vms], ["web", EVIL, LONG, "Büro \\u{1b}\\u{202e}gnp.exe", "mail"])
        self.assertEqual(vms[0][4:6], ["1", "10.0 MiB/s"])
        self.assertEqual(self.rows("alerts")[0][1:], ["warning", "vm_discovery", f"Discovery of '{EVIL}' failed."])
        self.assertEqual(self.browser.value("document.images.length"), 0)
        # Two runs of samples with the time without a daemon shaded between them.
        for plot in ("read", "skipped"):
            shapes = self.browser.value(f"['.curve', '.gap'].map(kind => "
                                        f"document.querySelectorAll('#plot-{plot} ' + kind).length)")
            self.assertEqual(shapes, [2, 1])
        points = self.browser.value("[...document.querySelectorAll('#plot-read .curve')].map("
                                    "line => line.getAttribute('d').split(' ').map(point => +point.split(',')[1]))")
        self.assertEqual([len(run) for run in points], [4, 20])  # two ends of each step
        heights = points[1][::2]
        self.assertEqual(heights, sorted(heights, reverse=True))  # more is higher up
        self.assertLess(points[0][2], heights[-1])
        self.check_no_error()
        self.browser.look_like(390, 844)
        self.browser.value("new Promise(done => setTimeout(done, 200))")
        self.check_no_error()
        back = self.browser.value("getComputedStyle(document.body).backgroundColor")
        self.browser.look_like(1280, 900, dark=True)
        self.assertNotEqual(self.browser.value("getComputedStyle(document.body).backgroundColor"), back)

    def test_pointing_and_keys(self):
        self.open(self.busy_rig())
        box = self.browser.value("(() => { const box = document.querySelector('#plot-read svg')"
                                 ".getBoundingClientRect(); return [box.right, box.top, box.height] })()")
        self.browser.call("Input.dispatchMouseEvent", type="mouseMoved", x=box[0] - 15, y=box[1] + box[2] / 2)
        self.browser.wait("document.querySelector('#plot-read .cursor')")
        self.assertRegex(self.text("#plot-read output"), r"^\d\d:\d\d:\d\d to \d\d:\d\d:\d\d: 10\.0 MiB/s, 150 MiB$")
        self.browser.value("document.querySelector('#plot-skipped svg').focus()")
        for _ in range(11):  # past the gap to the second of the first two
            self.browser.call("Input.dispatchKeyEvent", type="keyDown", key="ArrowLeft")
        self.assertRegex(self.text("#plot-skipped output"), ": 3.00 MiB/s, 45.0 MiB$")
        self.check_no_error()

    def test_a_big_fleet(self):
        self.open(self.busy_rig(*(f"vm-{number:05d}" for number in range(5000))))
        self.assertEqual(len(self.rows("vms")), 100)
        self.assertEqual(self.text("#vms-note"), "5,005 VMs; 100 are shown.")
        self.browser.value("document.getElementById('more').click()")
        self.browser.wait("document.querySelectorAll('#vms tbody tr').length === 400")
        self.browser.value("(box => { box.value = 'VM-0499'; box.dispatchEvent(new Event('input')) })"
                           "(document.getElementById('find'))")
        self.browser.wait("document.querySelectorAll('#vms tbody tr').length === 10")
        self.assertEqual(self.text("#vms-note"), "10 of 5,005 VMs match.")
        self.check_no_error()

    def test_a_first_cycle_and_no_daemon(self):
        rig = self.rig(*(f"vm-{number:05d}" for number in range(200)))
        self.open(rig)
        self.assertEqual((self.text("#daemon"), self.text("#tile-read")), ("No daemon has spoken yet", "–"))
        self.assertIn("nothing has been reported", self.text("#plot-read svg"))
        self.assertEqual(self.text("#files-note"), "No report yet.")
        rig.begin()
        rig.take_over(50)
        rig.now += 2
        self.browser.wait("!document.getElementById('progress').hidden")
        self.assertEqual(self.browser.value("document.getElementById('progress').position"), 0.25)
        self.assertEqual(self.text("#daemon"), "The daemon takes over the VMs: 50 of 200 in 2 s")
        self.check_no_error()
        rig.stop_serving()
        self.browser.wait("document.getElementById('daemon').textContent.startsWith('The controller has not answered')")


if __name__ == "__main__":
    unittest.main()
