"""What stands on the machine that a daemon makes, and must take away."""

import dataclasses
import errno
import os
import time

from .tools import run

_KERNEL_THREADS = 2  # parent of all of them
_SESSION = "jrpc_session_file-"  # an agent's, which one that is killed leaves for the next


@dataclasses.dataclass(frozen=True)
class Census:
    loops: frozenset[str]
    mappings: frozenset[str]
    mounts: frozenset[str]
    temporary: frozenset[str]
    processes: frozenset[str]

    def beyond(self, other: "Census") -> dict[str, list[str]]:
        """What stands here and not there, by kind."""
        kinds = (field.name for field in dataclasses.fields(self))
        more = {kind: sorted(getattr(self, kind) - getattr(other, kind)) for kind in kinds}
        return {kind: names for kind, names in more.items() if names}


def left(before: Census) -> dict[str, list[str]]:
    """What stands now and did not before. A loop device that another process of the machine looks at just then goes with
    that look."""
    deadline = time.monotonic() + 3
    while list(found := take().beyond(before)) == ["loops"] and time.monotonic() < deadline:
        time.sleep(0.05)
    return found


def take() -> Census:
    temporary = (name for name in os.listdir("/tmp") if not name.startswith(_SESSION))
    return Census(loops(), mappings(), _mounts(), frozenset(temporary), _processes())


def loops() -> frozenset[str]:
    """Bound loop devices, with the file behind each."""
    return frozenset(run("losetup", "-l", "-n", "--raw", "-O", "NAME,BACK-FILE").splitlines())


def mappings() -> frozenset[str]:
    """Mapped devices. A stand-in for device-mapper that is just ending has none."""
    try:
        return frozenset(os.listdir("/dev/mapper")) - {"control"}
    except OSError as error:
        if error.errno not in (errno.ECONNABORTED, errno.ENOTCONN):
            raise
        return frozenset()


def _mounts() -> frozenset[str]:
    with open("/proc/self/mountinfo") as table:
        return frozenset(line.split()[4] for line in table)


def _processes() -> frozenset[str]:
    """Id and name of every process but this one, the kernel's own and the dead that wait for their parent."""
    found = set()
    for entry in filter(str.isdigit, os.listdir("/proc")):
        try:
            with open(f"/proc/{entry}/stat") as stat:
                head, _, tail = stat.read().rpartition(")")
        except (FileNotFoundError, ProcessLookupError):
            continue
        state, parent = tail.split()[:2]
        if int(entry) != os.getpid() and int(parent) != _KERNEL_THREADS and state != "Z":
            found.add(head.replace("(", ""))
    return frozenset(found)
