"""A program that looks at all processes and at the places for temporary files, over and over, while a test runs.

    watcher.py DIRECTORY...      reads a mark, a line; ends when its standard input does, and prints as JSON what it saw:

    command_lines   those that a mark stands in
    environments    command lines of the processes whose environment it stands in
    programs        the first words of all command lines
    files           path -> mode, of every file in the directories
    contents        paths of files that it stands in
"""

import contextlib
import json
import os
import select
import stat
import subprocess
import sys
import time
from typing import Any

_PAUSE = 0.003  # seconds between two looks
_LARGEST = 1 << 20  # bytes of a file that are looked at


class Watcher:
    """Runs the program; inside the block, and until `found` is called, it looks."""

    def __init__(self, mark: str, *directories: str):
        self._command = [sys.executable, "-B", __file__, *directories]
        self._mark = mark

    def __enter__(self) -> "Watcher":
        # Not on its command line, which it looks at, too.
        self._process = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE)
        self._process.stdin.write(self._mark.encode() + b"\n")
        self._process.stdin.flush()
        return self

    def __exit__(self, *_: Any) -> None:
        if self._process.poll() is None:
            self._process.kill()
            self._process.communicate()

    def found(self) -> dict[str, Any]:
        output, _ = self._process.communicate(timeout=60)
        return json.loads(output)


def _read(path: str) -> bytes:
    with contextlib.suppress(OSError), open(path, "rb") as file:
        return file.read(_LARGEST)
    return b""


def _shown(words: bytes) -> str:
    return words.replace(b"\0", b" ").decode(errors="replace")


def _look_at_processes(mark: bytes, found: dict[str, Any]) -> None:
    for process in filter(str.isdigit, os.listdir("/proc")):
        words = _read(f"/proc/{process}/cmdline")
        shown = _shown(words)
        found["programs"][" ".join(shown.split()[:4])] = 1
        if mark in words:
            found["command_lines"][shown] = 1
        if mark in _read(f"/proc/{process}/environ"):
            # It may have begun its program since; one that has ended by now was seen before, or will not be.
            if words := _read(f"/proc/{process}/cmdline"):
                found["environments"][_shown(words)] = 1


def _look_at_files(mark: bytes, directory: str, found: dict[str, Any]) -> None:
    for name in os.listdir(directory):
        path = f"{directory}/{name}"
        with contextlib.suppress(OSError):
            found["files"][path] = mode = os.lstat(path).st_mode
            if stat.S_ISREG(mode) and mark in _read(path):
                found["contents"][path] = 1


def main() -> None:
    mark = sys.stdin.buffer.readline().rstrip(b"\n")
    found: dict[str, Any] = {"command_lines": {}, "environments": {}, "programs": {}, "files": {}, "contents": {}}
    while not select.select([sys.stdin], [], [], 0)[0]:
        _look_at_processes(mark, found)
        for directory in sys.argv[1:]:
            _look_at_files(mark, directory, found)
        time.sleep(_PAUSE)
    print(json.dumps({kind: seen if kind == "files" else [*seen] for kind, seen in found.items()}))


if __name__ == "__main__":
    main()
