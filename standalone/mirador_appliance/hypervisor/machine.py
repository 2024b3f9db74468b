"""A VM as it lies on the datastore."""

import os
from collections.abc import Callable
from typing import Protocol

# Called with the name of a step that is done.
Steps = Callable[[str], None]


def no_steps(_: str) -> None:
    """Nothing happens between the steps."""


class Refused(Exception):
    """Something that cannot be done. number: system error number; text: for people."""

    def __init__(self, number: int, text: str) -> None:
        super().__init__(text)
        self.number, self.text = number, text


class Names(Protocol):
    """What files are called. Errors are Elsewhere."""

    def locate(self, name: str, directory: str) -> str:
        """The local path of a name as written in a file that lies in `directory` (local)."""

    def hypervisor_path(self, local: str) -> str:
        """An absolute name of a local path."""


class PlainNames:
    """Names are local paths."""

    def locate(self, name: str, directory: str) -> str:
        return os.path.normpath(os.path.join(directory, name))

    def hypervisor_path(self, local: str) -> str:
        return local
