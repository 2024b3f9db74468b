# SPDX-License-Identifier: Apache-2.0
"""What the threads of a process wait for, found by looking at them again and again. For x86-64."""

import collections
import os
import pathlib
import threading
import time
from contextlib import contextmanager

IDLE = "idle"  # waits for the kernel's next request
OWN = "own"  # at work, or in a system call that does it
LOCK = "lock"
SLEEP = "sleep"
AGENT = "agent"
CONTROLLER = "controller"

_AGENT_PROGRAM = "jrpc_wget.pl"
_READS = {0, 17, 45, 47, 275}  # read, pread64, recvfrom, recvmsg, splice: the descriptor comes first
_POLLS = {7, 271}
_SLEEPS = {35, 230}
_FUTEX = 202
_DIGITS = 16


class Samples:
    """seconds: thread -> what it waited for (one of the words above, or the name of a program) -> seconds."""

    def __init__(self, pid):
        self._directory = pathlib.Path(f"/proc/{pid}")
        self._memory = os.open(self._directory / "mem", os.O_RDONLY)
        self.seconds = collections.defaultdict(collections.Counter)
        self._first = set(os.listdir(self._directory / "task"))

    def take(self, elapsed):
        """Looks once; whatever a thread does now it is taken to have done for `elapsed` seconds."""
        for thread in os.listdir(self._directory / "task"):
            try:
                self.seconds[thread][self._state(thread)] += elapsed
            except (FileNotFoundError, ProcessLookupError):
                pass  # ended meanwhile

    def workers(self):
        """Threads that serve the kernel's requests: what each did but for waiting for the next one. A thread that has
        come meanwhile is one of them: they come as they are needed."""
        return [collections.Counter({what: seconds for what, seconds in found.items() if what != IDLE})
                for thread, found in self.seconds.items() if IDLE in found or thread not in self._first]

    def _state(self, thread):
        words = (self._directory / "task" / thread / "syscall").read_text().split()
        number = int(words[0]) if words[0] != "running" else -1
        if number in _SLEEPS:
            return self._program_of(thread) or SLEEP
        if number == _FUTEX:
            return LOCK
        if number in _READS:
            return self._stream(thread, int(words[1], _DIGITS))
        if number in _POLLS:
            return self._stream(thread, int.from_bytes(os.pread(self._memory, 4, int(words[1], _DIGITS)), "little"))
        return OWN

    def _stream(self, thread, descriptor):
        name = os.readlink(self._directory / "fd" / str(descriptor))
        if name.startswith("/dev/fuse"):
            return IDLE
        if name.startswith("pipe:"):
            return self._program_of(thread) or AGENT
        return CONTROLLER if name.startswith("socket:") else OWN

    def _program_of(self, thread):
        """The program that a thread has started and not yet seen the end of; agents, which stay, aside."""
        for child in (self._directory / "task" / thread / "children").read_text().split():
            name = pathlib.Path(f"/proc/{child}/comm").read_text().strip()
            if name != _AGENT_PROGRAM:
                return name
        return None


def _look(samples, pause, ended):
    last = time.perf_counter()
    while not ended.wait(pause):
        now = time.perf_counter()
        samples.take(now - last)
        last = now


@contextmanager
def sampled(pid, pause):
    """Yields the Samples of a process, of every `pause` seconds; to be read afterwards."""
    samples, ended = Samples(pid), threading.Event()
    samples.take(0)
    looking = threading.Thread(target=_look, args=(samples, pause, ended))
    looking.start()
    try:
        yield samples
    finally:
        ended.set()
        looking.join()
        samples.take(0)
