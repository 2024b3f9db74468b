"""The controller's end of the worker: starts it, takes in what it tells, starts it again when it ends."""

import dataclasses
import sqlite3
import subprocess
import sys
import threading
from collections.abc import Callable
from typing import Any

from .controller import Controller
from .faults_told import reason
from .texts import unpack
from .worker import Orders

COMMAND = "datastore-fs"  # of the program, for the worker
_FIRST_PAUSE, _LONGEST_PAUSE = 1.0, 30.0  # seconds between two starts
_PATIENCE = 10.0  # seconds until a worker that does not end is killed


def take_message(controller: Controller, message: dict[str, Any]) -> None:
    """What a message of the worker means; see worker."""
    if "vms" in message:
        controller.take_vms(message["vms"])
    elif "gone" in message:
        controller.drop_vms([(datastore, path) for datastore, path in message["gone"]])
    elif "present" in message:
        controller.keep_vms(*message["present"])
    elif "complete" in message:
        controller.discovery_complete(message["complete"])
    elif "store" in message:
        space = {key: message[key] for key in ("capacity", "free") if key in message}
        controller.take_datastore(message["store"], bool(message["accessible"]), space, message.get("error", ""))


class WorkerLink:
    """Keeps a worker running from start() to stop()."""

    def __init__(self, program: str, orders: Orders, controller: Controller, say: Callable[[str], None]) -> None:
        self._command = [sys.executable, program, COMMAND]
        self._orders, self._controller, self._say = orders, controller, say
        self._ending = threading.Event()
        self._process: subprocess.Popen | None = None
        self._thread = threading.Thread(target=self._keep_running, name="worker-link")

    def start(self) -> None:
        self._thread.start()

    def stop(self) -> None:
        """Ends the worker and waits for it. While a datastore's server is silent, only killing ends who waits for it."""
        self._ending.set()
        process = self._process
        if process is not None:
            process.terminate()
            self._thread.join(_PATIENCE)
            process.kill()
        self._thread.join()

    def _keep_running(self) -> None:
        pause = _FIRST_PAUSE
        while not self._ending.is_set():
            error, told = self._run_once()
            if self._ending.is_set():
                return
            self._tell(error)
            pause = _FIRST_PAUSE if told else min(2 * pause, _LONGEST_PAUSE)
            self._ending.wait(pause)

    def _tell(self, error: str) -> None:
        try:
            self._controller.discovery_failed(error)
        except sqlite3.Error as fault:
            self._say(f"{error}; {fault}")

    def _run_once(self) -> tuple[str, int]:
        """Runs a worker to its end. Why it ended, and how many messages it told."""
        try:
            self._process = process = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        except OSError as error:
            return f"{self._command[0]}: {reason(error)}", 0
        if self._ending.is_set():
            process.terminate()
        told = 0
        with process:
            try:
                orders = dataclasses.replace(self._orders, expected=self._controller.stores_with_vms())
                process.stdin.write(orders.packed())
                process.stdin.flush()
                for line in process.stdout:
                    take_message(self._controller, unpack(line))
                    told += 1
                    if told == 1:
                        self._controller.discovery_failed("")
            except Exception as error:  # whatever it is: the datastores are watched again, and people are told
                process.terminate()
                return f"{type(error).__name__}: {error}", told
        return f"the process that does ended with status {process.returncode}", told
