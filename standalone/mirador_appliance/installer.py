"""Puts the programs that the daemon runs to their fixed places.

The daemon must find them before it starts: it asks the branding program for the controller's port once, and waits for
ever when there is none.
"""

import os
import pathlib
import shutil

from .faults_told import Refused, reason
from .places import Places
from .texts import to_bytes

_SOURCES = pathlib.Path(__file__).resolve().parent / "scripts"
_LIBRARY = pathlib.Path(__file__).resolve().parents[1]  # what the programs of the agent are made of
_MARK = b"# Installed by mirador-appliance."
_FUSERMOUNT = "fusermount"


def install(places: Places, state: pathlib.Path, port: int, use_https: bool) -> None:
    """Installs the scripts and tells them where the controller and its state are. Programs of somebody else are not
    replaced: Refused."""
    try:
        for target in (places.brand_script, places.watchdog_script, places.agent_script, places.block_list_script):
            _install_script(_SOURCES / target.name, target)
        _link_fusermount(places.product / "bin" / _FUSERMOUNT)
        text = (f"# Written by mirador-appliance when it starts.\ncontroller.port = {port}\n"
                f"controller.use_https = {int(use_https)}\nappliance.library = {_LIBRARY}\n"
                f"appliance.state = {os.path.realpath(state)}\nappliance.root = {places.root}\n")
        _replace(places.controller_conf, to_bytes(text), 0o644)
    except OSError as error:
        raise Refused(f"{error.filename or places.product}: cannot be installed: {reason(error)}") from error


def _install_script(source: pathlib.Path, target: pathlib.Path) -> None:
    content = source.read_bytes()
    if target.exists():
        present = target.read_bytes()
        if present == content and os.access(target, os.X_OK):
            return
        if _MARK not in present:
            raise Refused(f"{target}: is there already and is not this appliance's")
    _replace(target, content, 0o755)


def _link_fusermount(target: pathlib.Path) -> None:
    """The daemon's own place for the program that unmounts what a dead daemon left."""
    program = shutil.which(_FUSERMOUNT)
    if program and not target.exists():
        target.parent.mkdir(parents=True, exist_ok=True)
        target.unlink(missing_ok=True)
        target.symlink_to(program)


def _replace(target: pathlib.Path, content: bytes, mode: int) -> None:
    """Writes a file aside and renames it into place: whoever runs it meanwhile gets the old one or the new one."""
    target.parent.mkdir(parents=True, exist_ok=True, mode=0o755)
    aside = target.with_name(f".{target.name}.{os.getpid()}")
    try:
        aside.write_bytes(content)
        aside.chmod(mode)
        aside.replace(target)
    finally:
        aside.unlink(missing_ok=True)
