"""The test case that starts a daemon and checks what it leaves behind."""

import os
import pathlib
import unittest
from collections.abc import Iterator
from contextlib import contextmanager

from . import census
from .daemon import Daemon
from .tools import saved_error, wait_until


class DaemonCase(unittest.TestCase):
    """One daemon serves all tests of a class. When they are done it must hold no file open, stop in order and leave
    nothing behind."""

    daemon: Daemon
    options: tuple[str, ...] = ()
    maxDiff = None

    @classmethod
    def setUpClass(cls) -> None:
        cls._before = census.take()
        cls.daemon = Daemon(*cls.options)
        cls.daemon.start()
        cls._idle = cls.daemon.descriptors()
        cls.addClassCleanup(cls._stop)

    @classmethod
    def _stop(cls) -> None:
        if not cls.daemon.is_running():
            raise AssertionError(f"the daemon is gone\n{cls.daemon.last_lines()}")
        wait_until(lambda: cls.daemon.descriptors() == cls._idle, "the daemon's files are closed")
        cls.daemon.stop()
        left = census.left(cls._before)
        if left:
            raise AssertionError(f"the daemon left behind: {left}\n{cls.daemon.last_lines()}")

    def assert_open_fails(self, path: pathlib.Path, number: int, text: str) -> None:
        """Opening fails with EIO; the path's attributes and the log tell the real number and text (a pattern)."""
        with self.assertRaises(OSError) as raised:
            os.close(os.open(path, os.O_RDONLY))
        self.assertEqual(raised.exception.strerror, "Input/output error")
        saved_number, saved_text = saved_error(path)
        self.assertEqual(saved_number, number, saved_text)
        self.assertRegex(saved_text, text)
        self.assertIn(saved_text, self.daemon.log())

    @contextmanager
    def assert_nothing_kept(self) -> Iterator[None]:
        """What is done inside leaves no loop device, mapping, temporary file or open descriptor of the daemon."""
        before, descriptors = census.take(), self.daemon.descriptors()
        yield
        self.assertEqual(census.left(before), {})
        self.assertEqual(self.daemon.descriptors(), descriptors)
