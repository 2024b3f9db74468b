"""Whether a snapshot task works on a VM."""

import os

from .hypervisor.locks import task_file


def is_busy(vmx: str) -> bool:
    """vmx: the configuration file's local path. A task that died works no more. Looks at the kernel's list of locks:
    to try the lock would make a task that begins just then believe in another one."""
    try:
        inode = os.stat(task_file(vmx)).st_ino
        with open("/proc/locks", encoding="ascii") as file:
            return any(_holds(line.split(), inode) for line in file)
    except OSError:
        return False  # mostly: there is no such file


def _holds(fields: list[str], inode: int) -> bool:
    """fields of a line: number, kind, "ADVISORY", "WRITE", process, major:minor:inode, …; one that waits has "->"."""
    return (len(fields) > 5 and fields[1] == "FLOCK" and fields[3] == "WRITE"
            and fields[5].rpartition(":")[2] == str(inode))
