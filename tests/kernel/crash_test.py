#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""The daemon dies in every state that its log tells apart, and is started again.

    VM_NFS=1 tests/kernel/run-vm tests/kernel/crash_test.py [CLASS.TEST ...]

MIRADOR_CRASH_ALL=1: each state with each kind of death, which takes long; MIRADOR_CRASH_STATES=STATE,…: these states;
otherwise a choice."""

import itertools
import os
import signal
import time

import crash_case
from crash_case import BOUND, ENDING, EVICTING, OPENING, REMOVING, RUNNING, SETTING_UP, STARTING

from harness import place

ALL = os.environ.get("MIRADOR_CRASH_ALL") == "1"
ONLY = os.environ.get("MIRADOR_CRASH_STATES")
AT_POINT = {"kill": "kill", "assertion": "assert", "memory": "wait:100000"}
SIGNALS = {"kill": signal.SIGKILL, "assertion": signal.SIGABRT}

CHOICE = {"reading": "memory", "cbt.loaded": "kill", "end.released": "assertion"}


def deaths(states):
    """States with the deaths to die there."""
    if ONLY:
        states = [state for state in states if state in ONLY.split(",")]
    return itertools.product(states, AT_POINT) if ALL else zip(states, itertools.cycle(AT_POINT))


class Crashes(crash_case.CrashCase):
    def die(self, state, death):
        began = time.monotonic()
        self.lead_to(state, AT_POINT[death])
        if "." in state and death == "memory":
            self.wait_point(state)
        if death == "memory":
            self.daemon.lack_memory()
        elif "." not in state:
            self.daemon.signal(SIGNALS[death])
        self.wait_dead()
        if "." in state:
            self.assertIn(f"fault_point: {state}: ", self.daemon.log())
        print(f"{state}, {death}: {time.monotonic() - began:.1f} s", flush=True)

    def recover(self):
        began = time.monotonic()
        dead = self.daemon._process
        self.start()
        self.join_clients()
        dead.wait(BOUND)
        self.assert_recovered()
        checked = time.monotonic()
        self.assert_backup_is_right()
        print(f"recovered: {checked - began:.1f} s, backup: {time.monotonic() - checked:.1f} s", flush=True)

    def test_starting(self):
        """Each finds what the last one left, and the first one what a daemon left that was killed amid reads."""
        self.die("reading", "kill")
        for state, death in deaths(STARTING):
            with self.subTest(state, death=death):
                self.die(state, death)
        self.recover()

    def test_others(self):
        states = (*RUNNING, *OPENING, *SETTING_UP, *EVICTING, *REMOVING, *ENDING)
        for state, death in deaths(states) if ALL or ONLY else CHOICE.items():
            with self.subTest(state, death=death):
                self.die(state, death)
                self.recover()


if __name__ == "__main__":
    place.main()
