"""The process that takes away whatever a sandbox made, however the sandbox ends.

It is nobody's child and belongs to no namespace of the sandbox, so that it outlives the death of the others. It learns
the sandbox's mounts as they are made; when the sandbox's first process or the keeper is gone it

1. aborts the sandbox's FUSE connections: a server killed while a loop device reads from its own mount leaves threads
   that no signal ends,
2. kills every process of the sandbox,
3. detaches its loop devices and removes its mappings: each goes with its last user, which may be another of them, or a
   mount,
4. lets go of the mount namespace, with which the mounts vanish, and waits until the devices are gone.
"""

import json
import os
import pickle
import select
import signal
import sys
import time

from . import kernel, loops, mappings

DONE = "done"  # the last line of the guardian's report
_KILL_SECONDS = 20  # for every process to end after abort and kill
_GONE_SECONDS = 30  # for the loop devices and mappings to go
_HELPER_SECONDS = 15  # for one look at a loop device, which waits for whoever serves the file behind it


class Guardian:
    """Watches the sandbox whose first process is `first` (a process id of the caller's namespace), once that process
    stands in its final root."""

    def __init__(self, first, writable):
        self._process = os.pidfd_open(first)
        self._table = os.open(f"/proc/{first}/mountinfo", os.O_RDONLY)  # holds the mount namespace, too
        self._namespace = os.readlink(f"/proc/{first}/ns/mnt")
        self._root = os.open(f"/proc/{first}/root", os.O_PATH | os.O_DIRECTORY)
        self._dev = self._open("dev")
        self._connections = self._open("sys/fs/fuse/connections")
        self._owner = loops.Owner((mount.device for mount in kernel.mounts()), writable)
        # An overlay gives files of a lower layer that it can't number itself a device of their own.
        for path in ("etc/passwd", "usr/bin/env"):
            device = os.stat(path, dir_fd=self._root).st_dev
            self._owner.fixed |= {(os.major(device), os.minor(device))} - self._owner.foreign
        self._fuse = set()  # devices of the sandbox's FUSE connections, unmounted ones too
        self._seen = {mount.device for mount in self._mounts()}  # what was mounted in it when last looked at
        self._note_mounts()

    def _open(self, path):
        return os.open(path, os.O_RDONLY | os.O_DIRECTORY, dir_fd=self._root)

    def _mounts(self):
        os.lseek(self._table, 0, os.SEEK_SET)
        text = b""
        while part := os.read(self._table, 1 << 16):
            text += part
        return kernel.parse_mounts(os.fsdecode(text))

    def _save_state(self):
        """For the cover of losetup. A command that removed the directory does without."""
        try:
            name = loops.STATE_FILE.lstrip("/")
            new = os.open(name + ".new", os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o644, dir_fd=self._root)
            with open(new, "w") as file:
                json.dump(self._owner.to_json(), file)
            os.rename(name + ".new", name, src_dir_fd=self._root, dst_dir_fd=self._root)
        except OSError:
            pass

    def _note_mounts(self):
        mounts = self._mounts()
        # The number of a file system that this machine unmounted is free for one of the sandbox.
        self._owner.foreign &= self._seen | {mount.device for mount in kernel.mounts()}
        self._seen = {mount.device for mount in mounts}
        before = self._owner.mounted
        gone = self._owner.note(mounts)
        if gone:
            self._adopt_loops(gone - _mounted_elsewhere(self._namespace))
        if before != self._owner.mounted:
            self._save_state()
        self._fuse = {(major, minor) for major, minor in self._fuse if self._is_connected(minor)}
        self._fuse |= {m.device for m in mounts if m.kind.split(".")[0] == "fuse"} - self._owner.foreign

    def _is_connected(self, minor):
        try:
            os.stat(str(minor), dir_fd=self._connections)
            return True
        except OSError:
            return False

    def _adopt_loops(self, devices):
        """What was just unmounted may be unmounted lazily only, with a loop device on it."""
        dev = f"/proc/self/fd/{self._dev}"
        for number in _bound(dev) if devices else ():
            found = _in_helper(lambda number=number: loops.status(f"{dev}/loop{number}"))
            if found not in (None, loops.DEAD) and found[0] in devices:
                self._owner.adopted.add((number, *found))

    def watch(self, keeper, first):
        """Returns when `keeper` or `first`, descriptors whose other ends only those processes hold, reach their end."""
        poll = select.poll()
        poll.register(self._table, select.POLLPRI | select.POLLERR)
        poll.register(keeper, select.POLLIN | select.POLLHUP)
        poll.register(first, select.POLLIN | select.POLLHUP)
        while True:
            ready = {descriptor for descriptor, _ in poll.poll()}
            if ready - {self._table}:
                return
            self._note_mounts()

    def clean(self):
        """Takes everything away; returns one line per thing that would not go."""
        problems = self._end_processes()
        devices = self._detach_loops()
        devices |= self._remove_mappings(devices)
        for descriptor in (self._table, self._dev, self._connections, self._root):
            os.close(descriptor)
        return problems + _wait_gone(devices)

    def _end_processes(self):
        poll = select.poll()
        poll.register(self._process, select.POLLIN)
        deadline = time.monotonic() + _KILL_SECONDS
        while True:
            self._abort_connections()
            try:
                signal.pidfd_send_signal(self._process, signal.SIGKILL)
            except ProcessLookupError:
                return []
            if poll.poll(20):
                return []
            for mapping in mappings.own(f"/proc/self/fd/{self._dev}"):
                mappings.resume(mapping)
            if time.monotonic() > deadline:
                return [f"a process would not end within {_KILL_SECONDS} s"]

    def _abort_connections(self):
        """Also of those that were unmounted lazily, unless their number belongs to somebody else by now."""
        self._note_mounts()
        unmounted = self._fuse - self._owner.mounted
        if unmounted:
            self._fuse -= unmounted & _mounted_elsewhere(self._namespace)
        for _, minor in self._fuse:
            try:
                abort = os.open(f"{minor}/abort", os.O_WRONLY, dir_fd=self._connections)
                os.write(abort, b"1")
                os.close(abort)
            except OSError:
                pass  # it ended by itself

    def _detach_loops(self):
        """Detaches the sandbox's loop devices and returns which they were."""
        dev, root = f"/proc/self/fd/{self._dev}", f"/proc/self/fd/{self._root}"
        own = [number for number in _bound(dev)
               if _in_helper(lambda number=number: self._owner.owns(number, dev, root))]
        devices = _identities(f"loop{number}" for number in own)
        for number in own:
            _in_helper(lambda number=number: loops.detach(number, dev))
        return devices

    def _remove_mappings(self, loop_devices):
        """Removes the sandbox's mappings and returns which they were."""
        own = mappings.own(f"/proc/self/fd/{self._dev}", loop_devices)
        devices = _identities(own)
        for mapping in own:
            mappings.remove(mapping)
        return devices


def _mounted_elsewhere(namespace):
    """Devices of all file systems that are mounted in other mount namespaces than this one."""
    devices, seen = set(), {namespace}
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            name = os.readlink(f"/proc/{entry}/ns/mnt")
            if name not in seen:
                seen.add(name)
                devices |= {mount.device for mount in kernel.mounts(f"/proc/{entry}/mountinfo")}
        except OSError:
            pass
    return devices


def _bound(dev):
    return [number for number in loops.nodes(dev) if loops.backing_file(number) is not None]


def _in_helper(action):
    """The action's result, None when it fails or when its process takes too long and is left behind."""
    read, write = os.pipe()
    helper = os.fork()
    if helper == 0:
        try:
            os.dup2(os.open("/dev/null", os.O_RDWR), 2)  # nobody is to wait for this process
            os.write(write, pickle.dumps(action()))
        finally:
            os._exit(0)
    os.close(write)
    in_time, _, _ = select.select([read], [], [], _HELPER_SECONDS)
    result = os.read(read, 1 << 12) if in_time else b""
    os.close(read)
    if in_time:
        os.waitpid(helper, 0)
    return pickle.loads(result) if result else None


def _identities(devices):
    """By block device what tells it from a later one of the same name."""
    return {device: kernel.disk_sequence(device) for device in devices}


def _is_there(device, sequence):
    if kernel.disk_sequence(device) != sequence:
        return False
    return bool(mappings.name(device)) or loops.backing_file(device.removeprefix("loop")) is not None


def _wait_gone(devices):
    """Waits for devices to go; returns a line for each that doesn't."""
    deadline = time.monotonic() + _GONE_SECONDS
    while devices and time.monotonic() < deadline:
        devices = {device: sequence for device, sequence in devices.items() if _is_there(device, sequence)}
        time.sleep(0.01 if devices else 0)
    return [f"{mappings.name(device) or device} is still there" for device in sorted(devices)]


def run(keeper, first, done, writable):
    """The guardian's whole life. It reads the sandbox's first process id, one line, from `keeper`, waits on the socket
    `first` until that process is ready, tells it to go on, and in the end writes what would not go, and DONE, to
    `done`."""
    kernel.prctl(kernel.PR_SET_NAME, b"sandbox-guard")
    line = keeper.readline()
    if not line or not first.recv(1):
        _report(done, [DONE])
        return
    guardian = Guardian(int(line), writable)
    try:
        first.send(b"g")
        guardian.watch(keeper.fileno(), first.fileno())
    except OSError as error:
        print(f"script/sandbox: {error}", file=sys.stderr)
    _report(done, [*guardian.clean(), DONE])


def _report(done, lines):
    try:
        os.write(done, "".join(f"{line}\n" for line in lines).encode())
    except BrokenPipeError:  # the keeper is dead
        for line in lines[:-1]:
            print(f"script/sandbox: {line}", file=sys.stderr)
