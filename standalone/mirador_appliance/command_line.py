"""The program's command line."""

import argparse
import os
import sqlite3
import sys
from collections.abc import Callable
from typing import NoReturn

from . import choices, commands, serving, snapshot_arguments, top, worker
from .faults_told import Refused, reason
from .live_rows import SORTS
from .places import PROGRAM
from .state import state_of
from .texts import printable, to_bytes
from .worker_link import COMMAND as WORKER_COMMAND

DEFAULT_PORT = 8180

Run = Callable[[argparse.Namespace], int]

_ABOUT = """The embedded appliance: supplies what the export daemon "mirador" needs, for a machine that has nothing
but a directory of virtual machines. A controller serves the inventory that it finds there; the daemon exports it."""

_SERVE_ABOUT = """Finds the virtual machines below each DIR (every ".vmx" and ".vmtx" file), serves them to the daemon
on 127.0.0.1 and follows what changes. Answers at once; machines appear as they are read. Start it before the daemon.

A DIR becomes visible below /vmfs/volumes and /vmfs.direct/volumes, under its own name, by links. "HOST:DIR" lets its
machines belong to the hypervisor HOST. The programs that the daemon runs are put to their places below
/usr/local/corvantis. Only disks whose base is one flat file can be exported; "status" tells of all others.

The main process is called "run-controller", the one that watches the datastores "datastore_fs"."""

_TEST_ABOUT = """--faults FILE is a JSON array of rules, read again whenever it changes. A rule names an "object"
("vhost", "*" for all) and may hold "method", "query" (a part of it), "times"; what it does: "delay" and "hang"
(seconds), "status", "body", "chunked", "cut" (bytes sent before the connection is closed)."""


class _Parser(argparse.ArgumentParser):
    """Tells a wrong command line in one line."""

    def error(self, message: str) -> NoReturn:
        self.exit(2, f"{PROGRAM}: {printable(message)}; see {self.prog} --help\n")


class _Builder:
    """Adds commands to a parser."""

    def __init__(self, parser: argparse.ArgumentParser, destination: str) -> None:
        self._actions = parser.add_subparsers(dest=destination, required=True, metavar=destination.upper())

    def add(self, name: str, about: str, run: Run, *words: str, **more: str) -> argparse.ArgumentParser:
        """A command with arguments called `words`; more: description, epilog."""
        command = self._actions.add_parser(
            name, help=about, **{"description": f"{about[0].upper()}{about[1:]}.", **more},
            formatter_class=argparse.RawDescriptionHelpFormatter)
        command.add_argument("--state", metavar="DIR", help="directory of the database (/var/corvantis/appliance)")
        command.add_argument("--root", metavar="DIR", default="/", help="stands before every fixed path, for tests (/)")
        for word in words:
            command.add_argument(word.lower(), metavar=word)
        command.set_defaults(run=run)
        return command

    def group(self, name: str, about: str) -> "_Builder":
        """A command that has commands of its own."""
        return _Builder(self._actions.add_parser(name, help=about, description=f"{about[0].upper()}{about[1:]}."),
                        "action")


def _parser() -> argparse.ArgumentParser:
    parser = _Parser(prog=PROGRAM, description=_ABOUT)
    builder = _Builder(parser, "command")
    _add_serve(builder.add("serve", "run the controller", serving.serve, description=_SERVE_ABOUT, epilog=_TEST_ABOUT))
    builder.add("status", "show machines, disks, alerts, reads and settings", commands.show_status).add_argument(
        "--json", action="store_true", help="as one JSON object")
    builder.add("set", "change a setting; the daemon reads it at its next start", commands.set_setting, "KEY", "VALUE")
    _add_top(builder)
    _add_folder(builder.group("folder",
                              "folders, which stand beside the hypervisors' directories in the exported tree"))
    keys = ", ".join(sorted(key for key in choices.VM_CHOICES if key != "error"))
    builder.add("vm", "choose something for one machine", commands.choose, "VM", "KEY", "VALUE",
                epilog=f"Keys: {keys}.")
    refresh = builder.add("refresh", "let the daemon read machines anew", commands.refresh)
    refresh.add_argument("vm", metavar="VM", nargs="*")
    refresh.add_argument("--first", type=number, default=0, metavar="N", help="the first N machines as well")
    snapshot_arguments.add_snapshots(builder)
    snapshot_arguments.add_tracking(builder)
    snapshot_arguments.add_guest(builder)
    snapshot_arguments.add_faults(builder)
    _add_others(builder)
    return parser


def _add_top(builder: _Builder) -> None:
    live = builder.add("top", "show machines, open exports, reads and alerts live; the controller's page does too",
                       top.top)
    live.add_argument("--once", action="store_true", help="print one frame as plain text")
    live.add_argument("--sort", choices=list(SORTS), default="activity", help="which machines come first (activity)")
    live.add_argument("--find", metavar="TEXT", default="", help="only machines with TEXT in name, place or datastore")
    live.add_argument("--rows", type=number, metavar="N", default=20, help="machines in the frame of --once (20)")
    live.add_argument("--url", metavar="URL", help="the controller's, instead of looking it up in the state directory")


def _add_others(builder: _Builder) -> None:
    install = builder.add("install-scripts", "only put the programs that the daemon runs to their places",
                          commands.install_scripts)
    install.add_argument("--port", type=fixed_port, default=DEFAULT_PORT, help=f"of the controller ({DEFAULT_PORT})")
    install.add_argument("--https", action="store_true", help="it speaks HTTPS")
    synthesize = builder.add("synthesize", "make the files of N small machines with two disks each in DIR",
                             commands.synthesize, "DIR")
    synthesize.add_argument("count", metavar="N", type=number)


def _add_serve(serve: argparse.ArgumentParser) -> None:
    serve.add_argument("--datastore", action="append", metavar="[HOST:]DIR[,…]", default=[],
                       help="directory of virtual machines; may be given several times")
    serve.add_argument("--port", type=port, default=DEFAULT_PORT, help=f"0 for any ({DEFAULT_PORT})")
    serve.add_argument("--poll", type=seconds, default=5, metavar="SECONDS",
                       help="between two looks at the datastores (5)")
    serve.add_argument("--settle", type=seconds, default=60, metavar="SECONDS",
                       help="between two accounts of a machine that does nothing but write to its disks (60)")
    serve.add_argument("--inspect", metavar="PROGRAM", help="path of mirador-inspect")
    serve.add_argument("--certificate", metavar="FILE", help="PEM file with certificate and key: serve HTTPS")
    serve.add_argument("--quiet", action="store_true", help="print no line for each thing that happens")
    tests = serve.add_argument_group("for tests")
    tests.add_argument("--synthetic", type=number, metavar="N",
                       help="serve N made-up machines; with --datastore DIR their files are made there")
    tests.add_argument("--faults", metavar="FILE", help="latency and faults on demand, see below")
    tests.add_argument("--journal", metavar="FILE", help="append a JSON line for each request")


def _add_folder(folder: _Builder) -> None:
    folder.add("add", "make a folder", commands.folder_add, "NAME")
    folder.add("rename", "rename a folder", commands.folder_rename, "NAME", "NEW")
    folder.add("move", "move a machine (name or uuid) into a folder, or out of all with \"-\"", commands.folder_move,
               "VM", "FOLDER")
    folder.add("remove", "remove a folder; its machines go back to their hypervisor's directory",
               commands.folder_remove, "NAME")


def number(text: str) -> int:
    """A count of machines."""
    value = int(text)
    if not 0 <= value <= 1_000_000:
        raise argparse.ArgumentTypeError(f"{text}: not from 0 to 1000000")
    return value


def port(text: str) -> int:
    """A TCP port, 0 for any."""
    value = int(text)
    if not 0 <= value <= 65535:
        raise argparse.ArgumentTypeError(f"{text}: not from 0 to 65535")
    return value


def fixed_port(text: str) -> int:
    """A TCP port."""
    if not port(text):
        raise argparse.ArgumentTypeError(f"{text}: not from 1 to 65535")
    return port(text)


def seconds(text: str) -> float:
    """A length of time."""
    value = float(text)
    if not 0.05 <= value <= 86400:
        raise argparse.ArgumentTypeError(f"{text}: not from 0.05 to 86400")
    return value


def _forget_output() -> None:
    os.dup2(os.open(os.devnull, os.O_WRONLY), sys.stdout.fileno())


def main(arguments: list[str]) -> int:
    """Runs one command; returns the exit status: 0, 1 when it failed, 2 for a wrong command line."""
    if arguments == [WORKER_COMMAND]:
        return worker.main()
    options = _parser().parse_args(arguments)
    try:
        return options.run(options)
    except Refused as refused:
        text, code = str(refused), refused.status
    except sqlite3.Error as error:
        text, code = f"{state_of(options)}: {error}", 1
    except BrokenPipeError:
        _forget_output()
        return 1
    except OSError as error:
        _forget_output()
        text, code = f"{error.filename or 'standard output'}: {reason(error)}", 1
    sys.stderr.buffer.write(to_bytes(f"{PROGRAM}: {printable(text)}\n"))
    return code
