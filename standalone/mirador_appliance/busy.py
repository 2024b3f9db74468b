"""Whether a snapshot task works on a VM."""

import fcntl

from .hypervisor.locks import task_file


def is_busy(vmx: str) -> bool:
    """vmx: the configuration file's local path. A task that died works no more."""
    try:
        with open(task_file(vmx), "rb") as file:
            fcntl.flock(file, fcntl.LOCK_SH | fcntl.LOCK_NB)
    except BlockingIOError:
        return True
    except OSError:
        pass  # mostly: there is no such file
    return False
