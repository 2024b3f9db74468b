#!/usr/bin/python3
# SPDX-License-Identifier: Apache-2.0
"""script/sandbox on a kernel with device-mapper: loop devices and mappings that are made in it go with it, however it
ends, and those of the machine stay.

    tests/kernel/run-vm tests/kernel/sandbox_mapper_test.py
"""

import os
import pathlib
import signal
import subprocess
import sys
import time
import unittest

SANDBOX = str(pathlib.Path(__file__).resolve().parent.parent.parent / "script" / "sandbox")
STEP_SECONDS = 120  # the processor is emulated, and often busy with other things
SIZE = 16 << 20
SECTORS = SIZE // 512

BIND = f"set -e; truncate -s {SIZE} /tmp/disk; loop=$(losetup -f --show /tmp/disk);"
MAP = f'{BIND} echo "0 {SECTORS} linear $loop 0" | dmsetup create inner;'
WAIT = "echo up; sleep 1000 & wait"
# What is done in the sandbox, which says "up" when that went well, and the signals that its keeper gets then.
CASES = {
    "a loop device and a mapping": (f"{MAP} echo up", ()),
    "the covers of dmsetup and losetup": (
        f"{MAP} dmsetup remove -f outer && exit 1; losetup -d /dev/loop0 && exit 1; dmsetup remove_all -f;"
        "dmsetup info inner && exit 1; losetup -D; losetup $loop && exit 1; echo up", ()),
    "the command is killed, devices on each other": (
        f'{MAP} echo "0 {SECTORS} linear /dev/mapper/inner 0" | dmsetup create another;'
        "losetup -f /dev/mapper/another; echo up; kill -KILL $$", ()),
    "terminated, a reader waits at a suspended mapping": (
        f"{MAP} dmsetup suspend inner; dd if=/dev/mapper/inner of=/dev/null iflag=direct count=1 & sleep 3; {WAIT}",
        (signal.SIGTERM,)),
    "killed, the node is not made yet": (f"{MAP} rm /dev/mapper/inner; {WAIT}", (signal.SIGKILL,)),
    "killed, a file system is mounted": (
        f"{MAP} mkfs.ext2 -q /dev/mapper/inner; mkdir /there; mount /dev/mapper/inner /there; {WAIT}",
        (signal.SIGKILL,)),
}


def standing():
    """What a sandbox may leave on the machine, by kind."""
    block = pathlib.Path("/sys/block")
    mounts = pathlib.Path("/proc/self/mountinfo").read_text().splitlines()
    return {
        "loop devices": {(path.parts[3], path.read_text()) for path in block.glob("loop*/loop/backing_file")},
        "mappings": {path.read_text().strip() for path in block.glob("dm-*/dm/name")},
        "nodes": set(os.listdir("/dev/mapper")),
        "mounts": {line.split()[4] for line in mounts},
        "processes": {name for name in map(command_line, filter(str.isdigit, os.listdir("/proc"))) if SANDBOX in name},
    }


def command_line(process):
    try:
        return pathlib.Path(f"/proc/{process}/cmdline").read_text().replace("\0", " ")
    except OSError:
        return ""


class Ends(unittest.TestCase):
    maxDiff = None

    def setUp(self):
        self.before = standing()

    def check(self, script, signals):
        running = subprocess.Popen([SANDBOX, "sh", "-c", script], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                   stderr=subprocess.PIPE, text=True)
        said = running.stdout.readline()
        for number in signals:
            running.send_signal(number)
        _, problems = running.communicate(timeout=STEP_SECONDS)
        self.assertEqual(said, "up\n", problems)
        self.assertNotIn("script/sandbox:", problems)
        deadline = time.monotonic() + STEP_SECONDS
        while standing() != self.before and time.monotonic() < deadline:
            time.sleep(0.1)  # the guardian may outlive its keeper
        self.assertEqual(standing(), self.before)

    def test_leaves_nothing(self):
        for name, (script, signals) in CASES.items():
            with self.subTest(name):
                self.check(script, signals)


if __name__ == "__main__":
    subprocess.run(["dmsetup", "create", "outer"], input=f"0 {SECTORS} zero", text=True, check=True)
    with open("/tmp/outer", "wb") as file:
        file.truncate(SIZE)
    subprocess.run(["losetup", "/dev/loop0", "/tmp/outer"], check=True)
    sys.exit(unittest.main())
