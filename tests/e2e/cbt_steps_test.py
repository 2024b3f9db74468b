"""Changed-block files whose making fails, or is the daemon's death, at any step. Nothing is left, the records keep
their change ids, and the next file is right."""

import contextlib

from harness import place
from harness.cbt_case import CbtCase
from harness.compare import Reader
from harness.snapshot_case import BOUND
from harness.tools import Failed, wait_until

FAULT = 28  # of the steps: nothing that the script's end would mean

# In the order in which an open meets them.
POINTS = ("cbt.bound", "cbt.script", "cbt.header", "cbt.zeros", "cbt.table", "cbt.loaded", "cbt.noted")


class Steps(CbtCase):
    """The daemon fails or dies at every step of an open."""

    @classmethod
    def vm_names(cls):
        return ["vm"]

    def setUp(self):
        super().setUp()
        self.vm, = self.vms.values()
        if not self.known(self.vm, "disk"):
            type(self).base = self.full(self.vm)

    def restart(self, **points):
        if self.daemon.is_running():
            self.daemon.stop()
        self.daemon.environment["MIRADOR_FAULT_POINTS"] = ",".join(f"{name}={act}" for name, act in points.items())
        with contextlib.suppress(Failed):  # it may die early
            self.daemon.start()
        wait_until(self.changed(self.vm, "disk").exists, "changes are exported", BOUND)

    def tearDown(self):
        self.restart()
        self.write(self.vm)
        self.incremental(self.vm, self.base)

    def test_errors(self):
        """Each open fails one step further than the last."""
        self.restart(**dict.fromkeys(POINTS, f"error:{FAULT}"))
        ids = self.known(self.vm, "disk")
        for point in POINTS:
            with self.subTest(point):
                number, text = self.open_changed_fails(self.vm)
                self.assertEqual(number, FAULT)
                self.assertIn(point, text)
                self.wait_quiet(self.vm)
                if point != "cbt.noted":
                    self.assertEqual(self.known(self.vm, "disk"), ids)
        self.write(self.vm)
        self.incremental(self.vm, self.base)

    def test_kills(self):
        """The next run takes away what is left, and its first file is right."""
        for point in POINTS:
            with self.subTest(point):
                self.write(self.vm, rounds=1)
                self.restart(**{point: "kill"})
                with self.assertRaises(OSError):
                    Reader(self.changed(self.vm, "disk")).__exit__()
                wait_until(lambda: not self.daemon.is_running(), "the daemon dies", BOUND)
                self.restart()
                self.wait_quiet(self.vm)
                self.incremental(self.vm, self.base)

    def test_killed_while_a_file_is_read(self):
        """Its loop devices hang on the dead daemon's mount."""
        self.note(self.vm, "disk", changeid_incr=self.known(self.vm, "disk")["changeid_base"])
        with self.opened(self.vm, "disk") as reader:
            reader.read(0, 4096)
            self.daemon.kill()
        self.restart()
        self.wait_quiet(self.vm)
        self.assertNotIn("changeid_incr", self.known(self.vm, "disk"))


if __name__ == "__main__":
    place.main()
