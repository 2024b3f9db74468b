"""Where the daemon may run. Its start-up takes the machine's mounts, mappings and loop devices away."""

import os
import pathlib
import sys
import unittest

_CHECKOUT = pathlib.Path(__file__).resolve().parents[3]
_SANDBOX = _CHECKOUT / "script" / "sandbox"

_FUSERMOUNT = pathlib.Path("/usr/local/corvantis/bin/fusermount")
_DIRECTORIES = ("/export", "/vmfs/volumes", "/vmfs.direct/volumes", "/run/e2e", str(_FUSERMOUNT.parent))


def is_safe() -> bool:
    return os.path.isdir("/run/sandbox") or is_virtual_machine()


def is_virtual_machine() -> bool:
    """Whether this is the throw-away machine of tests/kernel, where no sandbox is needed."""
    return " vmjob=" in pathlib.Path("/proc/cmdline").read_text()


def _enter_sandbox() -> None:
    """Runs this program again, in a sandbox."""
    show = [os.environ["MIRADOR_BIN"], os.environ.get("SANDBOX_SHOW", "")]
    os.environ["SANDBOX_SHOW"] = ":".join(filter(None, show))
    os.execv(_SANDBOX, [str(_SANDBOX), sys.executable, "-B", *sys.argv])


def furnish() -> None:
    """The directories of an appliance."""
    for path in _DIRECTORIES:
        os.makedirs(path, exist_ok=True)
    if not _FUSERMOUNT.is_symlink():
        _FUSERMOUNT.symlink_to("/usr/bin/fusermount")


def enter() -> None:
    """Goes on where a daemon may run. MIRADOR_BIN: directory of the programs to test."""
    os.environ["MIRADOR_BIN"] = os.path.abspath(os.environ.get("MIRADOR_BIN", _CHECKOUT / "build" / "dev" / "bin"))
    if not is_safe():
        _enter_sandbox()
    furnish()


def main(module: str | None = "__main__") -> None:
    """Runs a module's tests, or, without one, those that the arguments name, where a daemon may run."""
    enter()
    unittest.main(module=module, verbosity=2)
