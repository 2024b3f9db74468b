"""A running daemon and its shadow tree."""

import contextlib
import dataclasses
import itertools
import os
import pathlib
import re
import signal
import subprocess
from collections.abc import Iterable

from . import place
from .disks import Disk
from .tools import WORK, Failed, program, run, wait_until

EXPORT = pathlib.Path("/export")
MOUNT_OPTIONS = ("-o", "use_ino,allow_other,default_permissions,max_background=512")
VM_UUID = "564d1f2e-3a4b-5c6d-7e8f-90a1b2c3d4e5"
HYPERVISOR = "esx1.example"

_FAULTS = re.compile(r"ASSERT:|Sanitizer|runtime error:|terminate called|double free|(free|malloc)\(\): ")
_run_numbers = itertools.count(1)


@dataclasses.dataclass(frozen=True)
class Entry:
    """One exported file."""
    name: str
    link: str
    type: str = "flat"
    stat: str = ""
    size: int = 0

    def line(self) -> str:
        words = ["--type", self.type, "--link", self.link, "--size", str(self.size), "--uuid", VM_UUID,
                 "--hv", HYPERVISOR]
        words += ["--stat", self.stat] if self.stat else []
        return "\t".join([*words, self.name])


def flat_entry(name: str, disk: Disk) -> Entry:
    return Entry(name, disk.link, stat=str(disk.base_extent), size=disk.size)


class Daemon:
    """The daemon on EXPORT: with `threads` it follows the controller, without them the tests write its shadow tree.
    environment: variables that its next start has beside those of the tests."""

    def __init__(self, *options: str, threads: bool = False, environment: dict[str, str] | None = None):
        self.environment = dict(environment or {})
        self._directory = WORK / f"run-{next(_run_numbers)}"
        self._directory.mkdir()
        self._options = ("-L", str(self._directory), *options, *(() if threads else ("--no-threads",)))
        self._process: subprocess.Popen | None = None
        self.log_file = self._directory / "mirador"

    @property
    def pid(self) -> int:
        return self._process.pid

    def command(self, *more: str) -> list[str]:
        return [program("mirador"), *self._options, *more, str(EXPORT), *MOUNT_OPTIONS]

    def start(self, seconds: float = 60) -> None:
        """Waits for its mount, so many seconds at most."""
        self.launch()
        wait_until(lambda: _is_served() or self._process.poll() is not None, "the mount stands", seconds)
        if self._process.poll() is not None:
            raise Failed(f"the daemon ended with status {self._process.returncode}\n{self.last_lines()}")

    def launch(self) -> None:
        """Starts it and does not wait for its mount."""
        if not place.is_safe():
            raise Failed("the daemon is only started in a sandbox")
        with open(self._directory / "output", "ab") as output:  # nothing, once it logs
            self._process = subprocess.Popen(self.command("-f"), stdin=subprocess.DEVNULL, stdout=output, stderr=output,
                                             env={**os.environ, **self.environment})

    def is_running(self) -> bool:
        return self._process is not None and self._process.poll() is None

    def stop(self) -> None:
        """Ends it with SIGTERM; raises Failed when it does not end well."""
        self.signal(signal.SIGTERM)
        self.wait()

    def wait(self) -> None:
        """Waits for it to end; raises Failed when it does not end well."""
        try:
            status = self._process.wait(timeout=60)
        except subprocess.TimeoutExpired:
            raise Failed(f"the daemon does not end\n{self.threads()}\n{self.last_lines()}") from None
        faults = [line for line in self.log().splitlines() if _FAULTS.search(line)]
        if status != 0 or faults:
            raise Failed(f"the daemon ended with status {status}\n{faults}\n{self.last_lines()}")

    def threads(self) -> str:
        """What each of its threads waits for."""
        lines = []
        for task in sorted(pathlib.Path(f"/proc/{self.pid}/task").iterdir()):
            facts = [(task / name).read_text().strip() for name in ("comm", "wchan", "syscall")]
            lines.append(" ".join([task.name, *facts]))
        return "\n".join(lines)

    def kill(self) -> None:
        self.kill_and_leave().wait(timeout=30)

    def kill_and_leave(self) -> subprocess.Popen:
        """Kills it and returns its process, which may be unable to end until the next start."""
        self._process.kill()
        return self._process

    def signal(self, number: int) -> None:
        self._process.send_signal(number)

    def log(self) -> str:
        files = (self._directory / "output", self.log_file)
        return "".join(file.read_text(errors="replace") for file in files if file.exists())

    @staticmethod
    def dmsetup() -> str:
        """The program that the daemon maps disks with."""
        with open("/proc/misc") as devices:
            return "dmsetup" if "device-mapper" in devices.read() else program("fuse-dmsetup")

    def last_lines(self) -> str:
        return "\n".join(self.log().splitlines()[-20:])

    def descriptors(self) -> dict[str, str]:
        """Its open file descriptors and what each is open on."""
        directory = f"/proc/{self.pid}/fd"
        found = {}
        for name in os.listdir(directory):
            with contextlib.suppress(FileNotFoundError):  # closed meanwhile
                found[name] = os.readlink(f"{directory}/{name}")
        return found

    def export(self, *entries: Entry) -> None:
        export(entries)

    def export_disk(self, disk: Disk, name: str | None = None) -> pathlib.Path:
        """Exports a disk; returns its path below the mount."""
        vm = disk.descriptor.parent.name
        entry = flat_entry(name or f"{vm}/{disk.descriptor.stem}-flat.vmdk", disk)
        self.export(entry)
        return EXPORT / entry.name


def _is_served() -> bool:
    try:
        os.statvfs(EXPORT)  # a mount whose daemon is dead may still tell what it is
        return os.path.ismount(EXPORT)
    except OSError:
        return False


def export(entries: Iterable[Entry], root: str = f"{EXPORT}.shadow") -> None:
    """Writes entries into a shadow tree."""
    run(program("shadow-entry"), root, text_input="".join(f"{entry.line()}\n" for entry in entries))
