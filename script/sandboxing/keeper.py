"""Sets up a sandbox's namespaces, runs the command in them, passes on signals and the exit status.

Three processes take part: the keeper (the program the user started), the guardian (see there), and the sandbox's
first process, which builds the tree, starts the command as its child and reaps orphans. When the first process ends,
the kernel kills every other process of its PID namespace.
"""

import os
import signal
import socket
import sys
import time

from . import guardian, kernel
from .root import Refused, Tree

FAILED = 125  # exit status when the sandbox itself failed
_GRACE_SECONDS = 10  # for the command to end by itself after a signal
_PASSED_ON = {signal.SIGTERM, signal.SIGINT, signal.SIGHUP, signal.SIGQUIT, signal.SIGUSR1, signal.SIGUSR2}
_WAITED_FOR = _PASSED_ON | {signal.SIGCHLD}


def require_kernel():
    """Raises Refused when this machine or user can't have a sandbox."""
    if os.geteuid() != 0:
        raise Refused("needs root")
    with open("/proc/filesystems") as kinds:
        has_fuse = any(line.split()[-1] == "fuse" for line in kinds)
    for what, node in (("FUSE", "/dev/fuse"), ("loop devices", "/dev/loop-control")):
        try:
            os.close(os.open(node, os.O_RDWR | os.O_CLOEXEC))
        except OSError as error:
            raise Refused(f"needs {what} ({node}: {error.strerror})") from None
    if not has_fuse:  # opening its node has loaded the module, where it is one
        with open("/proc/filesystems") as kinds:
            if not any(line.split()[-1] == "fuse" for line in kinds):
                raise Refused("needs FUSE (/proc/filesystems does not list it)")


def run(command, tree, writable):
    """Runs the command in a sandbox with this Tree; returns its exit status, 128 + n after signal n."""
    life_read, life_write = os.pipe()
    done_read, done_write = os.pipe()
    guards_end, firsts_end = socket.socketpair(socket.AF_UNIX, socket.SOCK_STREAM)
    _start_guardian(life_read, guards_end, done_write, writable, unused=(life_write, done_read, firsts_end.fileno()))
    os.close(life_read), os.close(done_write), guards_end.close()

    signal.pthread_sigmask(signal.SIG_BLOCK, _WAITED_FOR)
    kernel.unshare(kernel.CLONE_NEWPID)  # for the child, not for this process
    sys.stdout.flush(), sys.stderr.flush()
    first = os.fork()
    if first == 0:
        os.close(life_write), os.close(done_read)
        _first_process(command, tree, firsts_end)
    firsts_end.close()
    os.write(life_write, f"{first}\n".encode())

    status = _wait_for(first, life_write)
    problems = _read_report(done_read)
    for problem in problems:
        print(f"script/sandbox: {problem}", file=sys.stderr)
    return status or (FAILED if problems else 0)


def _read_report(descriptor):
    """What the guardian could not take away. It may leave a process behind that keeps the pipe open."""
    problems = []
    with open(descriptor) as report:
        for line in report:
            if line.rstrip() == guardian.DONE:
                return problems
            problems.append(line.rstrip())
    return problems + ["the guardian died before its work was done"]


def _start_guardian(life_read, socket_end, done_write, writable, unused):
    """Forks twice, so that whoever ends the keeper with all its descendants does not meet the guardian."""
    between = os.fork()
    if between != 0:
        os.waitpid(between, 0)
        return
    if os.fork() != 0:
        os._exit(0)
    try:
        os.setsid()
        for descriptor in unused:
            os.close(descriptor)
        null = os.open("/dev/null", os.O_RDWR)
        os.dup2(null, 0), os.dup2(null, 1)
        os.chdir("/")
        for number in _PASSED_ON:
            signal.signal(number, signal.SIG_IGN)
        guardian.run(open(life_read, "r", buffering=1), socket_end, done_write, writable)
        os._exit(0)
    except BaseException:
        sys.excepthook(*sys.exc_info())
        os._exit(1)


def _wait_for(first, life):
    """Waits for the first process to end, closes `life` and returns the exit status. A signal from a terminal has
    reached the command by itself, any other is passed on; a second one, or a command that doesn't end in time, ends
    the sandbox at once."""
    deadline = None
    while (status := _exit_status(first, os.WNOHANG)) is None:
        left = 3600 if deadline is None else max(0, deadline - time.monotonic())
        info = signal.sigtimedwait(_WAITED_FOR, left)
        number = info.si_signo if info else None
        if number == signal.SIGCHLD or number is None and deadline is None:
            continue
        is_plea_to_end = number not in (signal.SIGUSR1, signal.SIGUSR2)
        if is_plea_to_end and deadline is not None:
            os.kill(first, signal.SIGKILL)
            status = None
            break
        if info.si_code != kernel.SI_KERNEL:
            os.kill(first, number)
        if is_plea_to_end:
            deadline = time.monotonic() + _GRACE_SECONDS
    os.close(life)  # the guardian takes over; it also frees what keeps the first process from ending
    return _exit_status(first, 0) if status is None else status


def _exit_status(process, flags):
    """A child's exit status as a shell tells it, None while it runs."""
    ended, status = os.waitpid(process, flags)
    return None if ended == 0 else _as_shell(status)


def _as_shell(status):
    return os.WEXITSTATUS(status) if os.WIFEXITED(status) else 128 + os.WTERMSIG(status)


def _first_process(command, tree, guard):
    """Life of the sandbox's first process; never returns."""
    try:
        kernel.prctl(kernel.PR_SET_PDEATHSIG, signal.SIGKILL)
        where = os.getcwd()
        kernel.unshare(kernel.CLONE_NEWNS | kernel.CLONE_NEWIPC)
        tree.enter()
        guard.send(b"r")
        if not guard.recv(1):
            os._exit(FAILED)
        child = os.fork()
        if child == 0:
            _exec(command, where)
        os._exit(_reap_until(child))
    except (OSError, Refused) as error:
        print(f"script/sandbox: {error}", file=sys.stderr)
    except BaseException:
        sys.excepthook(*sys.exc_info())
    finally:
        os._exit(FAILED)


def _reap_until(child):
    """Reaps whatever ends until `child` does; passes signals of the keeper on to it. Returns its exit status."""
    while True:
        info = signal.sigwaitinfo(_WAITED_FOR)
        if info.si_signo != signal.SIGCHLD:
            if info.si_code != kernel.SI_KERNEL:
                os.kill(child, info.si_signo)
            continue
        while True:
            ended, status = os.waitpid(-1, os.WNOHANG)
            if ended == child:
                return _as_shell(status)
            if ended == 0:
                break


def _exec(command, where):
    try:
        try:
            os.chdir(where)
        except OSError:
            os.chdir("/")
        for number in (signal.SIGPIPE, signal.SIGXFSZ, signal.SIGINT):
            signal.signal(number, signal.SIG_DFL)
        signal.pthread_sigmask(signal.SIG_UNBLOCK, _WAITED_FOR)
        os.environ["MIRADOR_SANDBOX"] = "1"
        os.environ["DM_DISABLE_UDEV"] = "1"  # nobody but dmsetup itself makes nodes in this /dev
        os.execvp(command[0], command)
    except OSError as error:
        print(f"script/sandbox: {command[0]}: {error.strerror} (inside the sandbox)", file=sys.stderr)
        os._exit(127 if isinstance(error, FileNotFoundError) else 126)
