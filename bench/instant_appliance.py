# SPDX-License-Identifier: Apache-2.0
"""The embedded appliance with made-up VMs and an agent that touches no file: what a snapshot costs the daemon alone.

    instant_appliance.py serve --synthetic N --datastore DIR ...

The controller shows a snapshot as soon as the agent is asked for it. The agent answers when the daemon has taken that
over, so that the daemon need not look again ten seconds later.
"""

import errno
import pathlib
import shutil
import socketserver
import sys
import threading
import time

_HERE = pathlib.Path(__file__).resolve().parent
_STANDALONE = _HERE.parent / "standalone"
sys.path.insert(0, str(_STANDALONE))

from mirador_appliance import serving  # noqa: E402
from mirador_appliance.agent.framing import AgentError, parse, refusal, reply  # noqa: E402
from mirador_appliance.command_line import main  # noqa: E402
from mirador_appliance.controller import Controller  # noqa: E402
from mirador_appliance.records import datastore_document  # noqa: E402

_AGENT = _HERE / "instant_agent.py"
_BLOCK_LIST = _HERE / "instant_blocklist.py"
_SOCKET = "/run/instant-agent"  # the agent's program knows it
_PATIENCE = 5.0  # seconds in which the daemon must take over what it is told


class _Snapshots:
    """Which VM has a snapshot, to the controller and to the agent."""

    def __init__(self, controller):
        self._controller = controller
        self._taken_over = threading.Condition()
        self._number = -1

    def note(self, token):
        """The daemon has taken over a generation."""
        with self._taken_over:
            self._number = int(token.partition("-")[2])
            self._taken_over.notify_all()

    def show(self, uuid, names):
        """Gives a VM these snapshots; returns how many it had, once the daemon knows."""
        facts = self._controller.known(uuid).facts
        if names != facts["snapshots"]:
            frozen = {name: facts["disks"] for name in names}
            self._controller.take_vms([facts | {"snapshots": names, "frozen": frozen}])
            wanted = int(self._controller.generation.token.partition("-")[2])
            with self._taken_over:
                self._taken_over.wait_for(lambda: self._number >= wanted, _PATIENCE)
        return len(facts["snapshots"])

    def listing(self):
        return [{"name": name, "vmname": vm.name, "vmuuid": vm.uuid, "createTime": int(time.time()), "quiesced": 0}
                for vm in self._controller.every() for name in vm.facts["snapshots"]]


class _Controller(Controller):
    """Serves the agents too."""

    def __init__(self, *arguments):
        super().__init__(*arguments)
        self.snapshots = _Snapshots(self)
        server = socketserver.ThreadingUnixStreamServer(_SOCKET, _AgentsEnd)
        server.controller = self
        server.daemon_threads = True
        threading.Thread(target=server.serve_forever, daemon=True).start()

    def taken_over(self, token):
        super().taken_over(token)
        self.snapshots.note(token)

    def every(self):
        with self._lock:
            return self._vms.all()

    def known(self, uuid):
        with self._lock:
            return self._vms.by_uuid(uuid)

    def spaces(self):
        """As the agent tells them."""
        documents = [datastore_document(name, self._hypervisor(name), record) for name, record in self._records.items()]
        return [{**{key: document[key] for key in ("name", "url", "type", "timestamp", "accessible", "capacity")},
                 "hv": document["hv_hostname"], "dc": document["datacenter"], "freeSpace": document["capacity"],
                 "paths": [f"/vmfs/volumes/{document['name']}"]} for document in documents]


class _AgentsEnd(socketserver.StreamRequestHandler):
    """One agent's requests."""

    def handle(self):
        for line in self.rfile:
            try:
                self.wfile.write(self._answer(*parse(line)))
            except AgentError as error:
                self.wfile.write(refusal(error, error.number, str(error)))

    def _answer(self, method, *arguments):
        controller = self.server.controller
        if method in ("set_vendor_id", "connect"):
            return reply("void")
        if method == "create_snapshot":
            controller.snapshots.show(arguments[1], [arguments[2]])
            return reply("void")
        if method == "create_top_snapshot":
            return reply("int", 0)
        if method == "remove_snapshot":
            return reply("int", controller.snapshots.show(arguments[1], []))
        if method == "list_snapshot":
            return reply("list", controller.snapshots.listing())
        if method == "df":
            return reply("list", controller.spaces())
        raise AgentError(errno.ENOSYS, f"{method}: no such method")


def _install(places, *arguments):
    _installed(places, *arguments)
    shutil.copy(_AGENT, places.agent_script)
    shutil.copy(_BLOCK_LIST, places.block_list_script)


if __name__ == "__main__":
    _installed, serving.install, serving.Controller = serving.install, _install, _Controller
    sys.argv[0] = str(_STANDALONE / "mirador-appliance")  # as which it starts the process that watches datastores
    sys.exit(main(sys.argv[1:]))
