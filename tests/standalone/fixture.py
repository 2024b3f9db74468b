"""Virtual machines on a datastore, a running appliance, requests to it."""

import json
import os
import pathlib
import shutil
import signal
import ssl
import subprocess
import sys
import tempfile
import time
import unittest
import urllib.error
import urllib.request
from collections.abc import Callable
from typing import Any

CHECKOUT = pathlib.Path(__file__).resolve().parents[2]
PROGRAM = CHECKOUT / "standalone" / "mirador-appliance"
sys.path.insert(0, str(PROGRAM.parent))

SECTOR = 512
FLAT_SIZE = 8 * SECTOR
OLD = 1_500_000_000  # a modification time that nobody takes for fresh


def wait_until(condition: Callable[[], Any], what: str, seconds: float = 30) -> Any:
    """The first true value of the condition."""
    deadline = time.monotonic() + seconds
    while not (value := condition()):
        if time.monotonic() > deadline:
            raise AssertionError(f"not within {seconds} s: {what}")
        time.sleep(0.02)
    return value


def temporary_directory() -> pathlib.Path:
    return pathlib.Path(os.path.realpath(tempfile.mkdtemp(prefix="appliance-")))


class TemporaryCase(unittest.TestCase):
    """A test with a directory of its own."""

    def setUp(self) -> None:
        self.directory = temporary_directory()
        self.addCleanup(shutil.rmtree, self.directory)


# Files of VMs. Every file is given an old time, so that the next write is seen as a change.

def write(path: pathlib.Path, text: str, newline: str = "\n") -> pathlib.Path:
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_bytes(text.replace("\n", newline).encode("utf-8", "surrogateescape"))
    os.utime(path, (OLD, OLD))
    return path


def descriptor(*extents: str, parent: str | None = None, more: str = "") -> str:
    hint = f'parentFileNameHint="{parent}"\n' if parent else ""
    return (f'# Disk DescriptorFile\nversion=1\nCID=0a0b0c0d\nparentCID={"0a0b0c0d" if parent else "ffffffff"}\n'
            f'createType="vmfs"\n{hint}\n' + "".join(f"{extent}\n" for extent in extents) + more)


def flat_disk(path: pathlib.Path, size: int = FLAT_SIZE, newline: str = "\n") -> pathlib.Path:
    """A base disk: descriptor and flat file."""
    flat = path.with_name(f"{path.stem}-flat.vmdk")
    write(flat, "")
    os.truncate(flat, size)
    os.utime(flat, (OLD, OLD))
    return write(path, descriptor(f'RW {size // SECTOR} VMFS "{flat.name}"'), newline)


def delta_disk(path: pathlib.Path, parent: str) -> pathlib.Path:
    delta = write(path.with_name(f"{path.stem}-delta.vmdk"), "COWD")
    return write(path, descriptor(f'RW {FLAT_SIZE // SECTOR} VMFSSPARSE "{delta.name}"', parent=parent))


def vmx_text(name: str, uuid: str, *disks: str, more: str = "") -> str:
    lines = [f'displayName = "{name}"', 'guestOS = "other"', f'uuid.bios = "{uuid}"', 'scsi0.present = "TRUE"']
    for unit, disk in enumerate(disks):
        lines += [f'scsi0:{unit}.present = "TRUE"', f'scsi0:{unit}.deviceType = "scsi-hardDisk"',
                  f'scsi0:{unit}.fileName = "{disk}"']
    return "\n".join(lines) + "\n" + more


def make_vm(store: pathlib.Path, name: str, number: int, suffix: str = ".vmx") -> pathlib.Path:
    """A VM with one disk; returns its configuration file."""
    flat_disk(store / name / f"{name}.vmdk")
    return write(store / name / f"{name}{suffix}", vmx_text(name, uuid_of(number), f"{name}.vmdk"))


def uuid_of(number: int) -> str:
    return f"564d0000-0000-4000-8000-{number:012x}"


# A running appliance

class Reply:
    """An answer: status, headers, body as bytes."""

    def __init__(self, status: int, headers: Any, body: bytes) -> None:
        self.status, self.headers, self.body = status, headers, body

    def json(self) -> Any:
        """The body's value; bytes that are no UTF-8 stand as surrogates."""
        return json.loads(self.body.decode("utf-8", "surrogateescape"))


class Appliance:
    """A controller with a root directory of its own."""

    def __init__(self, root: pathlib.Path, *options: str) -> None:
        self.root, self._options, self.url, self.process = root, options, "", None

    def start(self) -> "Appliance":
        self.root.mkdir(exist_ok=True)
        self.process = subprocess.Popen(
            [PROGRAM, "serve", "--root", self.root, "--port", "0", "--poll", "0.1", *self._options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        line = self.process.stdout.readline()
        if not line:
            raise AssertionError(f"the appliance ended with status {self.process.wait()}")
        self.url = line.split()[-1]
        return self

    def worker(self) -> int | None:
        """The process that watches the datastores."""
        for task in pathlib.Path(f"/proc/{self.process.pid}/task").iterdir():
            for pid in (task / "children").read_text().split():
                return int(pid)
        return None

    def stop(self, number: int = signal.SIGTERM) -> int:
        """Ends it; returns its exit status."""
        if self.process is None:
            return 0
        self.process.send_signal(number)
        self.process.stdout.close()
        status = self.process.wait(timeout=20)
        self.process = None
        return status

    def get(self, what: str, timeout: float = 10) -> Reply:
        return request(f"{self.url}/api/{what}", timeout=timeout)

    def post(self, name: str, value: Any) -> Reply:
        data = value if isinstance(value, bytes) else json.dumps(value).encode()
        return request(f"{self.url}/api/{name}", data)

    def token(self) -> str:
        return self.get("fs_sync?target=dsfs&type=query").json()["genId"]

    def vms(self) -> dict[str, dict[str, Any]]:
        """The VMs' documents by name."""
        return {vm["name"]: vm for vm in self.get("vhost").json()}

    def run(self, *words: str) -> subprocess.CompletedProcess:
        """Runs a command of the program on this appliance's state."""
        return subprocess.run([PROGRAM, *words, "--root", self.root], capture_output=True, text=True, timeout=30,
                              check=False)

    def status(self) -> dict[str, Any]:
        return json.loads(self.run("status", "--json").stdout)


def request(url: str, data: bytes | None = None, timeout: float = 10) -> Reply:
    """Sends a request without following redirections; any status is an answer."""
    opener = urllib.request.build_opener(_NoRedirect, urllib.request.HTTPSHandler(context=_trusting()))
    try:
        with opener.open(urllib.request.Request(url, data), timeout=timeout) as reply:
            return Reply(reply.status, reply.headers, reply.read())
    except urllib.error.HTTPError as error:
        with error:
            return Reply(error.code, error.headers, error.read())


class _NoRedirect(urllib.request.HTTPRedirectHandler):
    def redirect_request(self, *_: Any) -> None:
        return None


def _trusting() -> ssl.SSLContext:
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return context
