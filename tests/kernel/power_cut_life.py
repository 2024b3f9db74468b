#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""One life of a machine whose power is cut, for power_cut_test.py.

    power_cut_life.py BEFORE STATE

BEFORE: the state in which its last life ended; STATE: the one in which this life ends; "nowhere" for the first and the
last. The machine's disk holds the datastore, the controller's state, the backup, /tmp and /var/corvantis."""

import json
import os
import pathlib
import shutil
import sys
import termios
import time
import unittest.mock

import crash_case
from crash_case import SERVED

from harness import cbt_case, place
from harness.appliance import Appliance
from harness.cbt_case import DISKS
from harness.machines import Machine
from harness.snapshot_case import HOST
from harness.tools import run

CUT = 75  # exit status of a life that ended so
NOWHERE = "nowhere"
KEPT = SERVED / "kept"
NOTES = KEPT / "notes"  # uuids of the VMs, by name
COPIES = KEPT / "copies"  # the backup


class KeptAppliance(Appliance):
    """An appliance whose state survives."""

    def __init__(self, *datastores: str):
        super().__init__(*datastores)
        self._state = KEPT / "state"


class Life(crash_case.CrashCase):
    before = state = NOWHERE

    @classmethod
    def setUpClass(cls):
        cls.enterClassContext(unittest.mock.patch("harness.inventory.Appliance", KeptAppliance))
        run("mount", "/dev/vda", SERVED)
        for name in ("tmp", "var/corvantis"):
            _bind(KEPT / name, pathlib.Path("/", name))
        super().setUpClass()

    @classmethod
    def make_served(cls, served):
        served.mkdir(exist_ok=True)

    @classmethod
    def make_machines(cls):
        if cls.before == NOWHERE:
            datastores = super().make_machines()
            NOTES.write_text(json.dumps({vm.name: vm.uuid for vm in cls.vms.values()}))
            return datastores
        cls.store = cls.served_datastore(cls.__name__.lower())
        cls.vms = {name: Machine(cls.store, cls.store.directory / name / "vm.vmx", name, uuid,
                                 tuple(f"{disk}.vmdk" for disk in DISKS))
                   for name, uuid in json.loads(NOTES.read_text()).items()}
        cls.base = {disk: COPIES / disk for disk in DISKS}
        return [f"{HOST}:{cls.store.directory}"]

    @classmethod
    def prepare(cls):
        if cls.before == NOWHERE:
            super().prepare()
        else:
            super(cbt_case.CbtCase, cls).prepare()  # the choices have been made

    def test_life(self):
        if self.before == NOWHERE:
            COPIES.mkdir()
            for disk, path in self.base.items():
                shutil.copy(path, COPIES / disk)
        else:
            self.assert_recovered()
            self.assert_backup_is_right()
        os.sync()
        if self.state != NOWHERE:
            self.lead_to(self.state, "wait:100000")
            if "." in self.state:
                self.wait_point(self.state)
            cut_power()


def _bind(kept: pathlib.Path, directory: pathlib.Path) -> None:
    """Lets a directory of the disk's stand in the place of another; what is to be seen there stays in sight."""
    shown = [path for path in _shown() if path.is_relative_to(directory)]
    for number, path in enumerate(shown):
        (SERVED / f"shown-{number}").mkdir(exist_ok=True)
        run("mount", "--bind", path, SERVED / f"shown-{number}")
    kept.mkdir(parents=True, exist_ok=True)
    directory.mkdir(parents=True, exist_ok=True)
    run("mount", "--bind", kept, directory)
    for number, path in enumerate(shown):
        path.mkdir(parents=True, exist_ok=True)
        run("mount", "--bind", SERVED / f"shown-{number}", path)


def _shown() -> list[pathlib.Path]:
    words = dict(word.partition("=")[::2] for word in pathlib.Path("/proc/cmdline").read_text().split())
    return [pathlib.Path(path) for path in words["vmshow"].split(":") if path]


def cut_power() -> None:
    """Nothing of this machine goes on, and what it has not written is lost."""
    with open("/dev/ttyS2", "w") as status:
        print(f"status={CUT}", file=status, flush=True)
        termios.tcdrain(status)
    pathlib.Path("/proc/sysrq-trigger").write_text("b")
    time.sleep(60)


if __name__ == "__main__":
    Life.before, Life.state = sys.argv[1:]
    del sys.argv[1:]
    place.main()
