"""A controller whose clock the test drives, what a daemon tells it, and its server."""

import json
import pathlib
import threading

from fixture import uuid_of

from mirador_appliance import synthetic
from mirador_appliance.controller import Controller
from mirador_appliance.datastores import Datastore
from mirador_appliance.live import Live
from mirador_appliance.mischief import Mischief
from mirador_appliance.objects import Objects
from mirador_appliance.pages import Pages
from mirador_appliance.store import Store
from mirador_appliance.texts import unpack
from mirador_appliance.web import Journal, Server

START = 1_800_000_000.0  # seconds since 1970
PERIOD = 15
FIRST_READ = 128 << 10  # bytes


class LiveRig:
    """One hypervisor "esx1" with datastore "ds1". files: exported path -> the daemon's counters [read, skipped, …]."""

    def __init__(self, directory: pathlib.Path, *names: str) -> None:
        self.now = START
        self.said: list[str] = []
        self._server: Server | None = None
        self._store = Store(directory / "state" / "appliance.db", create=True)
        self.files: dict[str, list[int]] = {}
        self.controller = Controller(self._store, [Datastore("ds1", "esx1", "/srv/ds1")], self.said.append)
        self.restart()
        self.add(*names)
        self.controller.take_datastore("ds1", True, {"capacity": 4 << 40, "free": 1 << 40}, "")
        self.controller.discovery_complete("ds1")

    def restart(self) -> None:
        """All that is only in memory begins anew; what the daemon has counted does not."""
        self.live = Live(self.controller, self.said.append, lambda: self.now)
        self.objects = Objects(self.controller, self.live)

    def add(self, *names: str) -> None:
        """VMs with two disks of 1 GiB each."""
        count = len(self.controller.look().vms)
        self.controller.take_vms([
            {**synthetic.facts_of(number, "ds1"), "vmx_path": f"{number}/{number}.vmx", "name": name,
             "uuids": [uuid_of(number + 1)]} for number, name in enumerate(names, count)])

    def change(self, name: str, **facts) -> None:
        vm = next(vm for vm in self.controller.look().vms if vm.name == name)
        self.controller.take_vms([{**vm.facts, **facts, "files": str(self.now)}])

    def overview(self, **asked) -> dict:
        return unpack(self.live.overview(**asked))

    def begin(self) -> None:
        """A daemon starts and is given its first generation."""
        self.wait("0-0")

    def wait(self, known: str | None = None, is_there: bool = True) -> None:
        """It waits for a generation other than `known`, by default the newest: for no time. is_there: whether its
        connection stands at the end."""
        known = known or self.controller.generation.token
        self.objects.get("fs_sync", f"target=dsfs&type=wait&timeout=0&genId={known}", lambda: is_there)

    def pass_time(self, seconds: float) -> None:
        """The daemon is there and has nothing to report."""
        end = self.now + seconds
        while self.now < end:
            self.now = min(end, self.now + 10)
            self.wait()

    def take_over(self, count: int | None = None) -> None:
        """It asks for the disks of the first VMs; of all of them, it says that it is through."""
        for vm in self.controller.look().vms[:count]:
            self.objects.get("vdisk", f"vhost_uuid={vm.uuid}", lambda: True)
        if count is None:
            token = self.controller.generation.token
            self.objects.get("fs_sync", f"target=vmfs&type=set&genId={token}", lambda: True)

    def follow(self) -> None:
        self.begin()
        self.take_over()

    def report(self, seconds: float = PERIOD, close: tuple[str, ...] = (), **reads: tuple[int, int]) -> None:
        """The daemon's next report, after `seconds`, as it makes it. reads: file -> bytes read and skipped since; close:
        files that are told for the last time."""
        self.now += seconds
        entries = []
        for file, (read, skipped) in reads.items():
            path = f"/esx1/{file}"
            first = path not in self.files
            counters = self.files.setdefault(path, [0, 0])
            news = [read, skipped]
            counters[0] += read
            counters[1] += skipped
            if first:  # the daemon's own account of what is new lacks a file's first read
                news = [max(0, read - FIRST_READ), skipped]
            entries.append((path, counters, news, file in close))
        self.post([self.entry(path, *counters, *news, closed) for path, counters, news, closed in entries])
        for file in close:
            del self.files[f"/esx1/{file}"]

    def entry(self, path: str, read: int, skipped: int, new_read: int, new_skipped: int, closed: bool = False) -> dict:
        numbers = {"vmdk_bytes_read": read, "vmdk_bytes_skipped": skipped, "delta_bytes_read": new_read,
                   "delta_bytes_skipped": new_skipped}
        if not closed:
            numbers["vmdk_last_read_time"] = int(self.now)
        return {"vmdk_path": path, **{name: str(number) for name, number in numbers.items()}}

    def post(self, entries: list[dict]) -> None:
        self.objects.post("vmstats", json.dumps(entries).encode())

    def alert(self, kind: str, vm: str, message: str) -> None:
        self.controller.post_alert({"alert_id": kind, "object_id": f"esx1:{vm}", "severity": "warning",
                                    "hv_host": "esx1", "vhost": vm, "message": message})

    def serve(self, script: str = "") -> str:
        """Starts a server for it; its URL. close() ends it. script: what the page does beside its own."""
        pages = Pages(self.live)
        kind, own = pages._files["/page.js"]
        pages._files["/page.js"] = kind, own + script.encode()
        self._server = Server(0, self.objects, pages, Mischief(None), Journal(None), None)
        self._thread = threading.Thread(target=self._server.serve_forever, kwargs={"poll_interval": 0.05})
        self._thread.start()
        return self._server.url

    def stop_serving(self) -> None:
        self._server.ending.set()
        self._server.shutdown()
        self._thread.join()
        self._server.server_close()
        self._server = None

    def close(self) -> None:
        if self._server is not None:
            self.stop_serving()
        self._store.close()
