"""Finds the VMs' configuration files below a datastore, again and again."""

import os
import time

_SUFFIXES = (".vmx", ".vmtx")
_PAST = ("~snapshot", "#snapshot")  # a file server's own copies of the past: the VMs in there are not VMs
_SETTLED = 3_000_000_000  # ns after which a directory's time tells every later change


class Tree:
    """Remembers each directory's entries and lists only those directories again whose time has changed. Links and
    directories whose name begins with a full stop are not entered."""

    def __init__(self, root: str) -> None:
        self._root = root
        self._known: dict[str, tuple[int, list[str], list[str]]] = {}  # directory -> (mtime or -1, directories, files)

    def find(self) -> list[str]:
        """The local paths of all configuration files, sorted. OSError when the root itself cannot be read."""
        known, found, waiting = {}, [], [self._root]
        while waiting:
            directory = waiting.pop()
            try:
                entry = self._entry(directory)
            except OSError as error:
                if directory == self._root:
                    raise
                if isinstance(error, (FileNotFoundError, NotADirectoryError)) or directory not in self._known:
                    continue
                entry = self._known[directory]  # what cannot be read now is not gone
            known[directory] = entry
            waiting.extend(entry[1])
            found.extend(entry[2])
        self._known = known
        return sorted(found)

    def _entry(self, directory: str) -> tuple[int, list[str], list[str]]:
        changed = os.stat(directory).st_mtime_ns
        if directory in self._known and self._known[directory][0] == changed:
            return self._known[directory]
        directories, files = [], []
        with os.scandir(directory) as entries:
            for entry in entries:
                if entry.is_dir(follow_symlinks=False):
                    if not entry.name.startswith(".") and entry.name not in _PAST:
                        directories.append(entry.path)
                elif _is_configuration(entry.name) and entry.is_file():
                    files.append(entry.path)
        return changed if time.time_ns() - changed > _SETTLED else -1, directories, files


def _is_configuration(name: str) -> bool:
    return name.endswith(_SUFFIXES) and name not in _SUFFIXES
