"""script/sandbox: what runs in it touches nothing outside and leaves nothing behind, however it ends."""

import json
import os
import pathlib
import re
import select
import signal
import subprocess
import sys
import tempfile
import time
import unittest

HERE = pathlib.Path(__file__).resolve().parent
SANDBOX = str(HERE.parent.parent / "script" / "sandbox")
PRIVATE = ["/export", "/export.shadow", "/vmfs", "/vmfs.direct", "/usr/local/corvantis", "/var/corvantis",
           "/inuse_bitmap"]
BIND_TMP_FILE = "truncate -s 1M /tmp/disk; losetup -f --show -r /tmp/disk"
FREE = "/dev/loop1000001"  # nobody has so many


def sandbox(script, *options, env=None, **more):
    """Runs a shell script in a sandbox."""
    return subprocess.run([SANDBOX, *options, "sh", "-c", script], env={**os.environ, **(env or {})}, text=True,
                          stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=120, check=False, **more)


def start(*command):
    return subprocess.Popen([SANDBOX, *command], stdin=subprocess.PIPE, stdout=subprocess.PIPE)


def first_line(running):
    """The next line of a sandbox's output."""
    line = b""
    while not line.endswith(b"\n") and select.select([running.stdout], [], [], 60)[0]:
        part = os.read(running.stdout.fileno(), 1)
        if not part:
            break
        line += part
    return line.decode()


def is_bound(number):
    return os.path.exists(f"/sys/block/loop{number}/loop/backing_file")


def descendants(process):
    """Process ids below a process, itself included."""
    parents = {}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            parents[int(entry)] = int(pathlib.Path(f"/proc/{entry}/stat").read_text().rpartition(")")[2].split()[1])
        except OSError:
            pass
    found = [process]
    for parent in found:
        found += [child for child, its in parents.items() if its == parent]
    return found


def kill_all(processes):
    for process in processes:
        try:
            os.kill(process, signal.SIGKILL)
        except ProcessLookupError:  # the kernel was faster: it ends with the one before it
            pass


def wait_until(condition, seconds=30):
    deadline = time.monotonic() + seconds
    while not condition():
        if time.monotonic() > deadline:
            return False
        time.sleep(0.02)
    return True


class Isolation(unittest.TestCase):
    def test_host_keeps_its_mounts_and_files(self):
        before = pathlib.Path("/proc/self/mountinfo").read_text()
        absent = [path for path in PRIVATE if not os.path.exists(path)]
        made = sandbox("set -e; mkdir -p %s /mnt/x; echo x >/etc/left; rm -rf /etc/passwd; echo x >/usr/local/left;"
                       "mount -t tmpfs x /mnt/x; touch /tmp/left /run/left /dev/mapper/left" % " ".join(PRIVATE))
        self.assertEqual((made.returncode, made.stderr), (0, ""))
        self.assertEqual(pathlib.Path("/proc/self/mountinfo").read_text(), before)
        left = ["/etc/left", "/usr/local/left", "/tmp/left", "/run/left", "/dev/mapper/left", "/mnt/x", *absent]
        self.assertEqual([path for path in left if os.path.exists(path)], [])
        self.assertTrue(os.path.exists("/etc/passwd"))

    def test_shows_the_checkout_but_none_of_the_hosts_own(self):
        with tempfile.TemporaryDirectory(dir="/tmp") as hidden:
            seen = sandbox(f"cat /proc/mounts; ls -d {SANDBOX} {hidden} {' '.join(PRIVATE)} /dev/loop[0-9]*")
        self.assertNotRegex(seen.stdout, r"(?m)^\S+ \S*/mnt")
        self.assertEqual(seen.stdout.splitlines()[-1], SANDBOX)

    def test_kernel_file_systems_are_its_own(self):
        seen = sandbox("echo $$; ls /proc | grep -c '^[0-9]*$'; ls -d /sys/fs/fuse/connections/ /dev/pts/ptmx; ipcs -s")
        self.assertEqual(seen.returncode, 0, seen.stderr)
        self.assertLess(int(seen.stdout.splitlines()[1]), 8)

    def test_writes_last_only_where_asked(self):
        with tempfile.TemporaryDirectory(dir="/tmp") as kept, tempfile.TemporaryDirectory(dir="/tmp") as shown:
            pathlib.Path(shown, "old").write_text("old")
            done = sandbox(f"cat {shown}/old; echo new >{shown}/old; echo yes >{kept}/new",
                           env={"SANDBOX_WRITE": kept, "SANDBOX_SHOW": shown})
            self.assertEqual((done.stdout, done.returncode), ("old", 0), done.stderr)
            self.assertEqual(pathlib.Path(shown, "old").read_text(), "old")
            self.assertEqual(pathlib.Path(kept, "new").read_text(), "yes\n")

    def test_tree_without_an_overlay(self):
        seen = sandbox(f"{BIND_TMP_FILE}; ls -d {' '.join(PRIVATE)}; touch /export /etc/x /usr/local/corvantis &&"
                       "echo ok", "--no-overlay")
        self.assertRegex(seen.stdout, r"^/dev/loop\d+\nok\n$", seen.stderr)
        self.assertFalse(is_bound(re.search(r"\d+", seen.stdout)[0]))


class Covers(unittest.TestCase):
    def test_losetup_leaves_other_sandboxes_devices_alone(self):
        other = start("sh", "-c", f"{BIND_TMP_FILE}; sleep 60")
        try:
            device = first_line(other).strip()
            number = re.search(r"\d+", device)[0]
            done = sandbox(f"mknod {device} b 7 {number}; losetup -d {device} || echo refused; losetup -D; losetup -a;"
                           f"losetup {device} /etc/passwd || echo refused; losetup -l; losetup -J")
            self.assertEqual(done.stdout.splitlines()[:2], ["refused", "refused"], done.stdout)
            self.assertNotIn(device, done.stdout)
            self.assertIn(f"losetup: {device}: not made in this sandbox", done.stderr)
            self.assertTrue(is_bound(number))
        finally:
            other.terminate()
            other.communicate()
        self.assertFalse(is_bound(number))

    def test_losetup_handles_its_own(self):
        done = sandbox(f"set -e; d=$({BIND_TMP_FILE}); losetup -a; losetup $d; losetup -j /tmp/disk; losetup -J; losetup -d $d;"
                       f"losetup -f --show /tmp/disk; losetup -D; losetup -a")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertEqual(done.stdout.count("(/tmp/disk)"), 3, done.stdout)
        self.assertEqual(done.stdout.count('"/tmp/disk"'), 1, done.stdout)

    def test_losetup_leaves_a_free_device_to_whoever_takes_it(self):
        """It may be another sandbox's by the time that losetup comes to it."""
        done = sandbox(f"mount --bind /bin/true /run/sandbox/real/losetup; mknod {FREE} b 7 1000001; losetup -d {FREE}")
        self.assertEqual((done.returncode, done.stderr), (1, f"losetup: {FREE}: detach failed: No such device or address\n"))

    def test_device_of_an_unmounted_file_system_is_its_own(self):
        done = sandbox("mkdir /mnt/d; mount -t tmpfs x /mnt/d; truncate -s 1M /mnt/d/f; d=$(losetup -f --show /mnt/d/f);"
                       "sleep 0.2; umount -l /mnt/d; losetup -d $d && ! losetup $d")
        self.assertEqual(done.returncode, 0, done.stderr)

    def test_number_of_a_file_system_passes_on(self):
        """The kernel gives the number of a file system that is gone to the next one: here another sandbox's."""
        before = start("sh", "-c", "for i in $(seq 20); do mkdir /d$i; mount -t tmpfs x /d$i; done; sleep 0.5;"
                       "umount /d[0-9]*; echo; while read n; do mknod /dev/loop$n b 7 $n; losetup -d /dev/loop$n; done 2>/dev/null")
        first_line(before)
        after = start("sh", "-c", "for i in $(seq 12); do mkdir /d$i; mount -t tmpfs x /d$i; truncate -s 1M /d$i/f;"
                      "losetup -f --show /d$i/f; done; sleep 1000")
        numbers = [int(re.search(r"\d+", first_line(after))[0]) for _ in range(12)]
        before.communicate("".join(f"{number}\n" for number in numbers).encode(), timeout=60)
        try:
            self.assertEqual([number for number in numbers if not is_bound(number)], [])
        finally:
            after.terminate()
            after.communicate(timeout=60)
        self.assertEqual([number for number in numbers if is_bound(number)], [])

    def test_exportfs_only_notes_its_call(self):
        done = sandbox("/usr/sbin/exportfs -ua && /usr/sbin/exportfs -a && cat /run/sandbox/exportfs.log")
        self.assertEqual([json.loads(line) for line in done.stdout.splitlines()], [["-ua"], ["-a"]], done.stderr)


class Ends(unittest.TestCase):
    def test_status_is_the_commands(self):
        for script, status in (("exit 7", 7), ("kill -9 $$", 137), ("sleep 100 & exit 0", 0)):
            with self.subTest(script):
                self.assertEqual(sandbox(script).returncode, status)
        self.assertEqual(subprocess.run([SANDBOX, "no-such"], stderr=subprocess.PIPE, check=False).returncode, 127)

    def test_signal_reaches_the_command_first(self):
        running = start("sh", "-c", "trap 'echo told; exit 3' TERM; echo up; sleep 60 & wait")
        first_line(running)
        running.terminate()
        output, _ = running.communicate(timeout=20)
        self.assertEqual((output, running.returncode), (b"told\n", 3))

    def _check_kill(self, choose):
        """Kills the processes chosen among the sandbox's and expects its loop device to go."""
        running = start("sh", "-c", f"{BIND_TMP_FILE}; sleep 1000 & wait")
        number = re.search(r"\d+", first_line(running))[0]
        self.assertTrue(is_bound(number))
        family = descendants(running.pid)
        kill_all(choose(family))
        running.wait(timeout=30)
        self.assertTrue(wait_until(lambda: not is_bound(number)))
        self.assertTrue(wait_until(lambda: not any(os.path.exists(f"/proc/{process}") for process in family)))

    def test_kill_of_any_process_leaves_nothing(self):
        choices = {"the keeper": lambda family: family[:1], "the first process": lambda family: family[1:2],
                   "the command": lambda family: family[2:3], "all": lambda family: family}
        for name, choose in choices.items():
            with self.subTest(name):
                self._check_kill(choose)

    def test_hung_fuse_server_is_freed(self):
        """Its threads wait for itself; only an abort of the connection ends them. Mounted or lazily unmounted."""
        for unmount in ("", "umount -l /hung;"):
            for kill in (False, True):
                with self.subTest(unmount=unmount, kill=kill):
                    running = start("sh", "-c", "truncate -s 1M /hung;"
                                    f"{sys.executable} -B {HERE}/hung_server.py /hung >/tmp/out &"
                                    f"until [ -s /tmp/out ]; do sleep 0.1; done; {unmount} cat /tmp/out; sleep 1000")
                    number = int(first_line(running))
                    family = descendants(running.pid)
                    if kill:
                        kill_all(family)
                    else:
                        running.terminate()
                    running.communicate(timeout=30)
                    self.assertTrue(wait_until(lambda: not is_bound(number)))
                    self.assertTrue(wait_until(lambda: not any(os.path.exists(f"/proc/{p}") for p in family)))

    def test_mounted_loop_device_goes_with_the_mount(self):
        done = sandbox("truncate -s 16M /tmp/fs; mkfs.ext2 -q /tmp/fs; d=$(losetup -f --show /tmp/fs); mkdir /x;"
                       "mount $d /x && echo $d")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertFalse(is_bound(re.search(r"\d+", done.stdout)[0]))

    def test_loop_device_over_a_writable_directory_goes(self):
        with tempfile.TemporaryDirectory(dir="/var/tmp") as kept:
            done = sandbox(f"truncate -s 1M {kept}/disk; losetup -f --show {kept}/disk", env={"SANDBOX_WRITE": kept})
            self.assertEqual(done.returncode, 0, done.stderr)
            self.assertFalse(is_bound(re.search(r"\d+", done.stdout)[0]))


class Refusals(unittest.TestCase):
    def _refused(self, command, text, **more):
        done = subprocess.run(command, text=True, stderr=subprocess.PIPE, stdout=subprocess.PIPE, check=False, **more)
        self.assertEqual((done.returncode, done.stdout), (125, ""))
        self.assertRegex(done.stderr, rf"\Ascript/sandbox: .*{text}.*\n\Z")

    def test_a_checkout_that_recovery_would_unmount(self):
        script = f"mkdir -p /mnt/c && mount --bind {HERE.parent.parent} /mnt/c && exec /mnt/c/script/sandbox true"
        self._refused([SANDBOX, "sh", "-c", script], '"/mnt"')


if __name__ == "__main__":
    unittest.main()
