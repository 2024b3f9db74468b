"""The test case whose daemon follows an appliance."""

import collections
import os
import pathlib
from collections.abc import Iterable

from . import census
from .appliance import Appliance
from .case import DaemonCase
from .daemon import EXPORT, Daemon
from .machines import Machine
from .tools import wait_equal, wait_until

SHADOW = EXPORT.with_name("export.shadow")
_CONNECTIONS = ("socket:", "pipe:", "anon_inode:")
_SETTLE = 40  # seconds for the tree to follow a change


def tree() -> dict[str, set[str]]:
    """The exported VMs: "GROUP/VM" -> names of its files. Groups without VMs are left out."""
    found = {}
    for group in _names(EXPORT):
        for vm in _names(EXPORT / group):
            found[f"{group}/{vm}"] = set(_names(EXPORT / group / vm))
    return found


def _names(directory: pathlib.Path) -> list[str]:
    try:
        return os.listdir(directory)
    except (FileNotFoundError, NotADirectoryError):  # it went while the tree was read
        return []


class InventoryCase(DaemonCase):
    """One appliance and one daemon serve all tests of a class; make_machines is called before they start, prepare
    between the two. When the tests are done, the daemon must stop in order, and with the appliance gone nothing may be
    left."""

    appliance: Appliance
    settings: dict[str, str] = {}
    environment: dict[str, str] = {}  # of the daemon

    @classmethod
    def make_machines(cls) -> list[str]:
        """Makes the VMs that are there from the start. Returns the datastores as the appliance's command takes them."""
        raise NotImplementedError

    @classmethod
    def prepare(cls) -> None:
        """The appliance runs and knows the VMs; the daemon does not run yet."""

    @classmethod
    def setUpClass(cls) -> None:
        datastores = cls.make_machines()
        cls._before = census.take()
        cls.appliance = Appliance(*datastores)
        for key, value in cls.settings.items():
            cls.appliance.command("set", key, value)
        cls.appliance.start()
        cls.addClassCleanup(cls._stop_all)
        # Complete before the daemon looks: its first cycle then is the only one.
        wait_until(lambda: all(store["complete"] for store in cls.appliance.status()["datastores"]), "discovery")
        cls.prepare()
        cls.daemon = Daemon(*cls.options, threads=True, environment=cls.environment)
        cls.daemon.start()
        cls.wait_taken_over()

    @classmethod
    def _stop_all(cls) -> None:
        try:
            if cls.daemon.is_running():
                cls.daemon.stop()
        finally:
            if cls.appliance.is_running():
                cls.appliance.stop()
        left = census.left(cls._before)
        if left:
            raise AssertionError(f"left behind: {left}\n{cls.daemon.last_lines()}")

    # Waiting

    @classmethod
    def wait_taken_over(cls) -> None:
        """Waits until the daemon has reported the newest generation. The directories of VMs may follow a little later."""
        def is_taken_over() -> bool:
            token = cls.appliance.get("fs_sync?target=dsfs&type=query")["genId"]
            return any(f"genId={token}" in request["query"] for request in cls.appliance.journal()
                       if request["object"] == "fs_sync" and "target=vmfs" in request["query"])
        wait_until(is_taken_over, "the generation is taken over", _SETTLE)

    def wait_tree(self, expected: dict[str, set[str] | None]) -> None:
        """Waits until the VMs named are there with exactly the files given, or, with None, are not there."""
        def found() -> dict[str, set[str] | None]:
            vms = tree()
            return {name: vms.get(name) for name in expected}
        wait_equal(found, expected, "the tree follows", _SETTLE)

    def wait_alert(self, kind: str, object_id: str, pattern: str | None) -> None:
        """Waits for an alert whose message matches a pattern; with None, until there is none."""
        def message() -> str | None:
            return self.appliance.alerts().get((kind, object_id))
        if pattern is None:
            wait_equal(message, None, f"alert {kind} of {object_id} is cleared", _SETTLE)
            return
        wait_until(lambda: message() is not None, f"alert {kind} of {object_id}", _SETTLE)
        self.assertRegex(message(), pattern)

    # Looking

    def status(self, vm: Machine) -> dict:
        """What the controller knows of a VM."""
        return next(found for found in self.appliance.status()["vms"] if found["uuid"] == vm.uuid)

    def requests(self, start: int, name: str, query: str = "") -> list[dict]:
        return [request for request in self.appliance.journal(start)
                if request["object"] == name and query in request["query"]]

    def open_files(self) -> dict[str, int]:
        """The files that the daemon holds open, with how many times."""
        return dict(collections.Counter(target for target in self.daemon.descriptors().values()
                                        if not target.startswith(_CONNECTIONS)))

    def connections(self) -> int:
        """How many connections and pipes the daemon has."""
        return sum(target.startswith(_CONNECTIONS) for target in self.daemon.descriptors().values())

    def cpu_seconds(self) -> float:
        """Processor time that the daemon itself has used."""
        fields = pathlib.Path(f"/proc/{self.daemon.pid}/stat").read_text().rpartition(")")[2].split()
        return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def by_group(group: str, vms: Iterable[Machine]) -> dict[str, set[str]]:
    """The directories that VMs have below a group."""
    return {f"{group}/{vm.name}": vm.entries() for vm in vms}
