#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The power goes while the daemon is in one of its states, and comes back: what is on the appliance's disk survives,
all else is gone. Datastore and controller are on the same machine and suffer with it.

    tests/kernel/power_cut_test.py

MIRADOR_CRASH_ALL=1: in every state, which takes long; MIRADOR_CRASH_STATES=STATE,…: in these; otherwise in one."""

import os
import pathlib
import subprocess
import tempfile
import time
import unittest

from crash_case import ENDING, EVICTING, OPENING, REMOVING, RUNNING, SETTING_UP, STARTING
from power_cut_life import CUT, NOWHERE

HERE = pathlib.Path(__file__).resolve().parent
DISK_SIZE = 256 << 20
FEW = ("cbt.table",)
ALL = (*STARTING, *RUNNING, *OPENING, *SETTING_UP, *EVICTING, *REMOVING, *ENDING)


class PowerCuts(unittest.TestCase):
    """Each life of the machine checks what the last one left, and goes on to the state in which the next cut comes."""

    def test_power_cuts(self):
        only = os.environ.get("MIRADOR_CRASH_STATES")
        states = only.split(",") if only else ALL if os.environ.get("MIRADOR_CRASH_ALL") == "1" else FEW
        with tempfile.NamedTemporaryFile(dir="/var/tmp", prefix="mirador-disk-") as disk:
            disk.truncate(DISK_SIZE)
            subprocess.run(["mkfs.ext4", "-q", "-F", disk.name], check=True)
            for before, state in zip((NOWHERE, *states), (*states, NOWHERE)):
                self.live(disk.name, before, state)

    def live(self, disk, before, state):
        began = time.monotonic()
        done = subprocess.run([HERE / "run-vm", HERE / "power_cut_life.py", before, state],
                              env={**os.environ, "VM_DISK": disk, "VM_NFS": "1"}, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, text=True)
        self.assertEqual(done.returncode, 0 if state == NOWHERE else CUT, f"after {before}, to {state}:\n{done.stdout}")
        print(f"after {before}, to {state}: {time.monotonic() - began:.1f} s", flush=True)


if __name__ == "__main__":
    unittest.main()
