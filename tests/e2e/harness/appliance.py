"""The embedded appliance, which is the daemon's controller."""

import contextlib
import itertools
import json
import pathlib
import signal
import socket
import subprocess
import urllib.request
from typing import Any

from .tools import WORK, Failed, program, run, wait_until

PROGRAM = pathlib.Path(__file__).resolve().parents[3] / "standalone" / "mirador-appliance"
_POLL = 0.2  # seconds between two looks at the datastores
_GROUPS = ("folder", "snapshot", "fault")  # of commands

_run_numbers = itertools.count(1)

Rule = dict[str, Any]


def _companion(disk: str) -> str:
    """The changed-block file of a disk, which is named with or without its ending."""
    return f"{disk.removesuffix('.vmdk')}-corcbt.vmdk"


def free_port() -> int:
    with socket.create_server(("127.0.0.1", 0)) as probe:
        return probe.getsockname()[1]


class Appliance:
    """One appliance with its state, over any number of starts. Datastores are given as its command line takes them."""

    def __init__(self, *datastores: str):
        self._directory = WORK / f"appliance-{next(_run_numbers)}"
        self._directory.mkdir()
        self._state = self._directory / "state"
        self._faults = self._directory / "faults"
        self._journal = self._directory / "journal"
        self._datastores = datastores
        self._port = free_port()  # kept over restarts, as the daemon asks for it but once
        self._process: subprocess.Popen | None = None

    def start(self) -> None:
        command = [str(PROGRAM), "serve", "--state", str(self._state), "--datastore", ",".join(self._datastores),
                   "--port", str(self._port), "--poll", str(_POLL), "--inspect", program("mirador-inspect"),
                   "--faults", str(self._faults), "--journal", str(self._journal)]
        with open(self._directory / "output", "ab") as output:
            self._process = subprocess.Popen(command, stdin=subprocess.DEVNULL, stdout=output, stderr=output)
        wait_until(lambda: self._answers() or self._process.poll() is not None, "the appliance answers")
        if self._process.poll() is not None:
            raise Failed(f"the appliance ended with status {self._process.returncode}\n{self.output()}")

    def _answers(self) -> bool:
        try:
            return isinstance(self.get("hvconfig"), list)
        except OSError:
            return False

    def stop(self) -> None:
        self._process.send_signal(signal.SIGTERM)
        if self._process.wait(timeout=30) != 0:
            raise Failed(f"the appliance ended with status {self._process.returncode}\n{self.output()}")

    def kill(self) -> None:
        self._process.kill()
        self._process.wait(timeout=30)

    @property
    def state(self) -> pathlib.Path:
        """Where its database and its agents' journal and faults are."""
        return self._state

    def is_running(self) -> bool:
        return self._process is not None and self._process.poll() is None

    def output(self) -> str:
        return (self._directory / "output").read_text(errors="replace")

    # What people do

    def command(self, *words: str) -> str:
        """Runs one of the program's commands, "folder add NAME" and the like."""
        return run(*self.command_line(*words))

    def command_line(self, *words: str) -> list[str]:
        names = 2 if words[0] in _GROUPS else 1
        return [str(PROGRAM), *words[:names], "--state", str(self._state), *words[names:]]

    def status(self) -> dict[str, Any]:
        return json.loads(self.command("status", "--json"))

    def snapshots(self, vm: str) -> list[dict[str, Any]]:
        """A VM's snapshots on the datastore, everybody's."""
        return json.loads(self.command("snapshot", "list", vm, "--json"))[0]["snapshots"]

    def alerts(self) -> dict[tuple[str, str], str]:
        """The alerts that stand: (kind, object) -> message."""
        return {(alert["alert_id"], alert["object_id"]): alert["message"] for alert in self.get("alert")}

    # What the daemon sees and does

    def get(self, object_and_query: str) -> Any:
        """Asks the controller as the daemon does."""
        with urllib.request.urlopen(self.url_of(object_and_query), timeout=10) as answer:
            return json.load(answer)

    def post(self, name: str, value: dict[str, Any]) -> None:
        """Posts to the controller as the daemon does."""
        request = urllib.request.Request(self.url_of(name), json.dumps(value).encode())
        with urllib.request.urlopen(request, timeout=60) as answer:
            answer.read()

    def record(self, uuid: str, disk: str) -> dict[str, Any]:
        """What the record of the changed-block file of a VM's disk says."""
        found = self.get(f"vdisk?vhost_uuid={uuid}&name={_companion(disk)}")
        return found[0] if found else {}

    def note(self, uuid: str, disk: str, **members: Any) -> None:
        """Changes that record as somebody else than the daemon."""
        self.post("vdisk", {"vhost_uuid": uuid, "name": _companion(disk), **members})

    def url_of(self, object_and_query: str) -> str:
        return f"http://127.0.0.1:{self._port}/api/{object_and_query}"

    def set_faults(self, *rules: Rule) -> None:
        """Lets exactly these faults act from now on; see the program's --help."""
        aside = self._faults.with_suffix(".new")
        aside.write_text(json.dumps(rules))
        aside.replace(self._faults)

    def journal(self, start: int = 0) -> list[dict[str, Any]]:
        """The requests received, from number `start` on: method, object, query, body and status of each. The tests' own
        questions are among them."""
        if not self._journal.exists():
            return []
        lines = self._journal.read_bytes().split(b"\n")[:-1]  # the last one may be half-written
        return [json.loads(line) for line in lines[start:]]

    def agent_calls(self) -> list[dict[str, Any]]:
        """What the agents noted of their calls, oldest first; see the program's agent/journal."""
        calls = []
        if (journal := self._state / "agent-journal.jsonl").exists():
            for line in journal.read_bytes().splitlines():
                with contextlib.suppress(ValueError):  # half-written, or torn by a power cut
                    calls.append(json.loads(line))
        return calls

    def count(self) -> int:
        """How many requests have been received."""
        return len(self.journal())
