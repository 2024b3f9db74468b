"""The test case of a whole appliance in the virtual machine, whose daemon is to die: kernel device-mapper, kernel loop
devices, and a datastore that an NFS server serves."""

import compileall
import contextlib
import itertools
import os
import pathlib
import signal
import subprocess
import sys
import threading
import unittest.mock
from collections.abc import Callable

import nfs

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from harness import census, snapshots  # noqa: E402
from harness.appliance import PROGRAM  # noqa: E402
from harness.cbt_case import DISKS, CbtCase  # noqa: E402
from harness.compare import Reader  # noqa: E402
from harness.daemon import EXPORT, Daemon  # noqa: E402
from harness.disks import MIB, Datastore, datastore  # noqa: E402
from harness.inventory import SHADOW  # noqa: E402
from harness.tools import Failed, run, wait_equal, wait_until  # noqa: E402

CACHE = pathlib.Path("/var/corvantis/vm_proxy_cache")
SERVED = pathlib.Path("/srv")  # what the datastore's server gives away
WORK_FILES = (".corstorage", ".query_results", ".dmsetup_table", ".header", ".zero")
STORE_SIZE = 64 * MIB
GROUP = pathlib.Path("/sys/fs/cgroup/mirador")  # of the daemon and what it starts
SUFFIX = "of the night"
LEFT_ID = "52 de ad be ef/1"
BLOCK = 1 << 16

# The processor is emulated, and often busy with other things.
BOUND = 300  # seconds within which all is in order again
DISKS.update(disk=3 * MIB, bare=2 * MIB)
run.__kwdefaults__["timeout"] = BOUND
wait_until.__defaults__ = wait_equal.__defaults__ = (BOUND,)

# States of the daemon. Those with a dot are fault points, in the order in which it meets them.
STARTING = ("recover.ended", "recover.unmapped", "recover.detached", "recover.unmounted", "recover.withdrawn",
            "recover.done", "start.shadow", "start.threads", "cycle.reset")
RUNNING = ("idle", "mapped", "reading")
OPENING = ("snapshot.locked", "snapshot.created", "map.bound", "map.loaded", "open.pdev")
SETTING_UP = ("cbt.bound", "cbt.script", "cbt.header", "cbt.zeros", "cbt.table", "cbt.loaded", "cbt.noted")
EVICTING = ("unmap.removed", "cbt.unmapped", "evict.closed")
REMOVING = ("snapshot.removing", "snapshot.removed")
ENDING = ("end.unmounted", "end.shadow", "end.released", "end.snapshots")


class GroupedDaemon(Daemon):
    """A daemon whose memory can be limited, and whose log is that of its last run."""

    _earlier = 0  # how long the log of earlier runs is

    def start(self) -> None:
        self._earlier = len(super().log())
        super().start()

    def wait(self) -> None:
        wait_until(lambda: not self.is_running(), "the daemon ends", BOUND)
        super().wait()

    def log(self) -> str:
        return super().log()[self._earlier:]

    def command(self, *more: str) -> list[str]:
        enter = f'echo $$ >{GROUP}/cgroup.procs && exec "$0" "$@"'
        return ["sh", "-c", enter, *super().command(*more)]

    def is_dying(self) -> bool:
        """It is dead, or would be if no thread of it waited for its own file system: those come free when the next
        daemon starts."""
        return not self.is_running() or "State:\tZ" in pathlib.Path(f"/proc/{self.pid}/status").read_text()

    def lack_memory(self) -> None:
        """The kernel finds that there is not enough for what it holds."""
        killed = _killed_by_memory()
        limit = GROUP / "memory.max"
        # For as long as this one writes, the kernel kills whoever enters the group.
        writer = subprocess.Popen(["sh", "-c", f"echo 65536 >{limit}"])
        wait_until(lambda: self.is_dying() and _killed_by_memory() > killed, "it is killed for its memory", BOUND)
        writer.kill()
        writer.wait(BOUND)
        limit.write_text("max")


def _killed_by_memory() -> int:
    events = dict(line.split() for line in (GROUP / "memory.events").read_text().splitlines())
    return int(events["oom_kill"])


def make_group() -> None:
    run("mount", "-t", "cgroup2", "cgroup2", GROUP.parent)
    (GROUP.parent / "cgroup.subtree_control").write_text("+memory")
    GROUP.mkdir()


class CrashCase(CbtCase):
    """Of two VMs the first is used; the second stands beside it. nfs_options: of the datastore's mount."""

    settings = CbtCase.settings | {"snapshot.max_idle": "100000"}  # snapshots stay until they are told to go
    # Its time limits hold for programs that run slowly here.
    environment = {"MIRADOR_CLOCK_FACTOR": os.environ.get("MIRADOR_CLOCK_FACTOR", "5")}
    nfs_options = nfs.HARD
    clients: list[threading.Thread] = []  # of the daemon that runs, or has died

    @classmethod
    def vm_names(cls):
        return ["used", "beside"]

    @classmethod
    def setUpClass(cls):
        compileall.compile_dir(PROGRAM.with_name("mirador_appliance"), quiet=1)  # of which many processes are made
        make_group()
        cls.enterClassContext(unittest.mock.patch("harness.inventory.Daemon", GroupedDaemon))
        cls.enterClassContext(unittest.mock.patch("harness.inventory._SETTLE", BOUND))
        cls.enterClassContext(unittest.mock.patch("harness.cbt_case.BOUND", BOUND))
        for look, seconds in {"tools._LOOK": 0.2, "appliance._POLL": 2}.items():  # looks cost the daemon's time
            cls.enterClassContext(unittest.mock.patch(f"harness.{look}", seconds))
        cls.enterClassContext(unittest.mock.patch("harness.cbt_case.datastore", cls.served_datastore))
        try:
            super().setUpClass()
        except Failed:
            print(cls.daemon.last_lines() if hasattr(cls, "daemon") else cls.appliance.output(), flush=True)
            raise
        cls.used, cls.beside = cls.vms.values()

    @classmethod
    def served_datastore(cls, name: str) -> Datastore:
        """Makes the datastore on the server and mounts it."""
        store, served = datastore(name), SERVED / name
        cls.make_served(served)
        nfs.start(nfs.export_line(served))
        cls.exports = nfs.exported()
        nfs.mount(served, store.directory, cls.nfs_options)
        return store

    @classmethod
    def make_served(cls, served: pathlib.Path) -> None:
        served.mkdir(parents=True)
        run("mount", "-t", "tmpfs", "-o", f"size={STORE_SIZE}", "store", served)

    def setUp(self):
        """The daemon runs, and the first VM has had a full backup."""
        if self.daemon.is_dying():
            self.start()
        super().setUp()
        if not hasattr(type(self), "base"):
            type(self).base = self.full(self.used)

    def wait_quiet(self, vm) -> None:
        """Disks stay mapped for a while, and the snapshot for longer."""

    # The daemon's runs

    def start(self, **points: str) -> None:
        """Starts the daemon, with fault points, and waits for its tree."""
        self.launch(**points)
        for vm in self.vms.values():
            for disk in DISKS:
                wait_until(self.changed(vm, disk).exists, f"{vm.name}, {disk}: its changes are exported", BOUND)

    def launch(self, **points: str) -> None:
        """Starts the daemon; Failed when it dies before its mount stands."""
        self.daemon.environment["MIRADOR_FAULT_POINTS"] = ",".join(f"{name}={act}" for name, act in points.items())
        self.daemon.start()

    def wait_dead(self) -> None:
        wait_until(self.daemon.is_dying, "the daemon dies", BOUND)

    def wait_point(self, name: str) -> None:
        """The daemon has come to a fault point."""
        wait_until(lambda: f"fault_point: {name}: " in self.daemon.log(), f"the daemon comes to {name}", BOUND)

    def lead_to(self, state: str, action: str) -> None:
        """Lets there be a daemon that is in a state, or on its way there. action: of the fault point."""
        if not self.daemon.is_dying():
            self.daemon.stop()
        points = {state: action} if "." in state else {}
        flat, changed = self.exported(self.used, "disk"), self.changed(self.used, "disk")
        if state in STARTING:
            self.mark()
            before = self.daemon._process
            self.let_go_on(self.launch, **points)
            wait_until(lambda: self.daemon._process is not before, "it is started", BOUND)
            return
        self.start(**points)
        self.write(self.used, rounds=1)
        self.mark()
        if state in (*EVICTING, *ENDING, "mapped"):
            for path in (flat, changed) if state != EVICTING[0] else (flat,):
                Reader(path).__exit__()
        if state in ENDING:
            self.daemon.signal(signal.SIGTERM)
        if state in REMOVING:
            Reader(flat).__exit__()
            self.remove_own(self.used)
        if state in (*OPENING, *SETTING_UP):
            self.let_go_on(lambda: Reader(changed if state in SETTING_UP else flat).__exit__())
        if state == "reading":
            self._read(flat, changed, self.changed(self.used, "bare"))

    def let_go_on(self, what: Callable[..., object], **arguments: object) -> None:
        """Lets a client do something that fails when the daemon is dead, or at the latest when the next one starts."""
        def attempt() -> None:
            with contextlib.suppress(OSError, Failed):
                what(**arguments)
        self.clients.append(threading.Thread(target=attempt, daemon=True))
        self.clients[-1].start()

    def join_clients(self) -> None:
        while self.clients:
            self.clients[-1].join(BOUND)
            self.assertFalse(self.clients.pop().is_alive(), "a client waits for a dead daemon")

    def _read(self, *paths: pathlib.Path) -> None:
        """Lets all files be read over and over."""
        reads = dict.fromkeys(paths, 0)

        def read(path: pathlib.Path) -> None:
            with Reader(path, direct=True) as reader:
                for offset in itertools.cycle(range(0, os.stat(path).st_size, BLOCK)):
                    reader.read(offset, BLOCK)
                    reads[path] += 1
        for path in 2 * paths:
            self.let_go_on(read, path=path)
        wait_until(lambda: min(reads.values()) > 1, "reads are under way", BOUND)

    # What a dead daemon leaves to be found

    def mark(self) -> None:
        """Lets there be something to be reset, and something to be removed, at the next start."""
        for disk in DISKS:
            self.appliance.note(self.beside.uuid, disk, changeid_incr=LEFT_ID)
        self.appliance.post("vmconfig", {"uuid": self.beside.uuid, "snap_suffix": SUFFIX})
        CACHE.mkdir(parents=True, exist_ok=True)
        (CACHE / "left").touch()
        for suffix in WORK_FILES:
            pathlib.Path("/tmp", f"left{suffix}").touch()

    def assert_recovered(self) -> None:
        """The daemon has been started again: what the dead one left is gone or goes soon."""
        found = census.take()
        self.assertEqual((found.loops, found.mappings), (frozenset(), frozenset()))
        self.assertEqual(found.mounts - self._before.mounts, {str(EXPORT), str(SHADOW)})
        self.assertEqual([name for name in os.listdir("/tmp") if name.endswith(WORK_FILES)], [])
        self.assertFalse((CACHE / "left").exists())
        self.assertEqual(nfs.exported(), self.exports)
        for vm in self.vms.values():
            wait_equal(lambda vm=vm: snapshots.names(vm), [], f"{vm.name}: no snapshot", BOUND)
        beside = f"vhost?vm_uuid={self.beside.uuid}"
        wait_equal(lambda: self.appliance.get(beside)[0].get("snap_suffix"), "", "the suffix is reset", BOUND)
        for vm in self.vms.values():
            for disk in DISKS:
                wait_equal(lambda vm=vm, disk=disk: self.known(vm, disk).get("changeid_incr"), None,
                           f"{vm.name}, {disk}: its change id is void", BOUND)

    def assert_backup_is_right(self) -> None:
        self.incremental(self.used, self.base)
