"""The command that runs the controller."""

import argparse
import os
import pathlib
import signal
import sqlite3
import sys
import threading
import time

from . import bell, synthetic, tracking_commands, worker
from .agent.machines import Home
from .controller import Controller
from .datastores import Datastore, parse_argument, publish
from .discovery import find_program
from .faults_told import Refused, reason
from .installer import install
from .live import Live
from .mischief import Mischief, read_rules
from .objects import Objects
from .pages import Pages
from .places import PROGRAM, Places
from .state import Lock, open_store, places_of, state_of
from .store import Store
from .texts import printable, to_bytes
from .web import Journal, Server
from .worker import Orders
from .worker_link import WorkerLink

PROCESS_NAME = "run-controller"
_COMMAND_LOOK = 0.25  # seconds between two looks for what commands have changed


def _say(line: str) -> None:
    try:
        sys.stdout.buffer.write(to_bytes(f"{time.strftime('%H:%M:%S')} {printable(line)}\n"))
        sys.stdout.buffer.flush()
    except OSError:
        pass  # nobody listens any more; the daemon still does


def _datastores(options: argparse.Namespace, places: Places) -> list[Datastore]:
    stores = parse_argument(options.datastore, places)
    if options.synthetic is not None:
        if len(stores) > 1:
            raise Refused("--synthetic takes one datastore at most", 2)
        for store in stores:
            try:
                synthetic.write_files(store.directory, options.synthetic)
            except OSError as error:
                raise Refused(f"{store.directory}: {reason(error)}") from error
        return stores or [Datastore(synthetic.NAME, None, str(places.volumes / synthetic.NAME))]
    if not stores:
        raise Refused("serve: no --datastore is given", 2)
    return stores


def serve(options: argparse.Namespace) -> int:
    """Runs until SIGTERM or SIGINT."""
    os.umask(0o022)
    places = places_of(options)
    stores = _datastores(options, places)
    checkout = pathlib.Path(__file__).resolve().parents[2]
    inspect = "" if options.synthetic is not None else find_program(options.inspect, str(checkout))
    if options.faults and os.path.exists(options.faults):
        read_rules(pathlib.Path(options.faults))
    store = open_store(options, create=True)
    Lock(state_of(options)).take()
    say = (lambda line: None) if options.quiet else _say
    controller = Controller(store, stores, say)
    certificate = pathlib.Path(options.certificate) if options.certificate else None
    home = Home(state_of(options), places.root)
    live = Live(controller, say)
    objects = Objects(controller, live, lambda uuid: tracking_commands.start_anew(home, uuid))
    server = Server(options.port, objects, Pages(live), Mischief(options.faults), Journal(options.journal), certificate)
    for datastore in stores if options.datastore else []:
        publish(datastore, places)
    install(places, state_of(options), server.server_port, server.is_https)
    orders = Orders(stores, str(places.root), inspect, options.poll, options.settle, options.synthetic,
                    bell=str(bell.path_in(state_of(options))))
    program = os.path.realpath(sys.argv[0])
    _run(controller, server, store, WorkerLink(program, orders, controller, say))
    return 0


def _run(controller: Controller, server: Server, store: Store, link: WorkerLink) -> None:
    ending = threading.Event()
    for number in (signal.SIGTERM, signal.SIGINT):
        signal.signal(number, lambda *_: ending.set())
    worker.name_process(PROCESS_NAME)
    serving = threading.Thread(target=server.serve_forever, kwargs={"poll_interval": 0.2}, name="http")
    serving.start()
    store.set_meta("url", server.url)
    print(f"{PROGRAM}: serving {server.url}", flush=True)
    link.start()
    while not ending.wait(_COMMAND_LOOK):
        try:
            controller.take_commands()
        except sqlite3.Error as error:
            print(f"{PROGRAM}: {store.path}: {error}", file=sys.stderr)
    server.ending.set()
    controller.generation.end()
    link.stop()
    server.shutdown()
    serving.join()
    server.server_close()
    store.close()
