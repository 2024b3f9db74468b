"""The command that shows, in a terminal, what a running controller and its daemon do."""

import argparse
import contextlib
import curses
import dataclasses
import locale
import os
import shutil
import signal
import sys
import time
from typing import Any

from . import asking, top_frame
from .faults_told import Refused
from .live_rows import SORTS
from .texts import printable, to_bytes
from .top_frame import BAD, BARS, BOLD, PLAIN_BARS, TITLE, View

_EVERY = 2.0  # seconds between two questions
_ROWS, _MOST_ROWS = 200, 1000  # VMs that are asked for
_WIDTH = 120  # columns of a frame that goes to no terminal
_ESCAPE, _BACKSPACES = 27, (8, 127, curses.KEY_BACKSPACE)
_HELP = " q quit   s sort   / filter   arrows, page up and down: VMs"


def top(options: argparse.Namespace) -> int:
    """Shows the live view until "q"; with --once, or when standard output is no terminal, one frame. Refused."""
    url = options.url or asking.url_of(options)
    if options.once or not (sys.stdout.isatty() and sys.stdin.isatty()):
        width = shutil.get_terminal_size((_WIDTH, 0)).columns if sys.stdout.isatty() else _WIDTH
        told = asking.overview(url, find=options.find, sort=options.sort, rows=options.rows)
        view = View(max(40, width), None, options.sort, bars=_bars(), find=options.find)
        text = "".join(f"{line}\n" for line, _ in top_frame.frame(told, view))
        sys.stdout.buffer.write(to_bytes(text))
        sys.stdout.buffer.flush()
        return 0
    asking.overview(url, rows=0)  # what is wrong is told before the screen is taken
    locale.setlocale(locale.LC_ALL, "")
    signal.signal(signal.SIGTERM, _interrupt)
    with contextlib.suppress(KeyboardInterrupt):
        curses.wrapper(lambda screen: _Screen(screen, options, url).run())
    return 0


def _interrupt(*_: Any) -> None:
    raise KeyboardInterrupt


def _bars() -> str:
    """Blocks where they can be shown."""
    return BARS if (sys.stdout.encoding or "").lower().replace("-", "") == "utf8" else PLAIN_BARS


class _Screen:
    """The live view."""

    def __init__(self, screen: Any, options: argparse.Namespace, url: str) -> None:
        self._screen, self._options, self._url = screen, options, url
        self._view = View(80, 24, options.sort, bars=_bars(), find=options.find)
        self._told: dict[str, Any] | None = None
        self._trouble = ""
        self._asked = self._answered = time.monotonic()
        self._typing = False
        self._styles = self._make_styles()
        screen.keypad(True)
        with contextlib.suppress(curses.error):
            curses.curs_set(0)

    @staticmethod
    def _make_styles() -> dict[int, int]:
        bad = curses.A_BOLD
        if curses.has_colors():
            curses.use_default_colors()
            curses.init_pair(1, curses.COLOR_RED, -1)
            bad = curses.color_pair(1)
        return {BOLD: curses.A_BOLD, TITLE: curses.A_REVERSE, BAD: bad}

    def run(self) -> None:
        """Until the user has had enough."""
        self._ask()
        while True:
            self._draw()
            self._screen.timeout(max(0, int(1000 * (self._asked + _EVERY - time.monotonic()))))
            key = self._screen.getch()
            if key == -1:
                self._ask()
            elif not self._take(key):
                return

    def _ask(self) -> None:
        try:
            if self._trouble and not self._options.url:
                self._url = asking.url_of(self._options)  # a controller that was started anew may be elsewhere
            self._told = asking.overview(self._url, find=self._view.find, sort=self._view.sort,
                                         rows=min(_MOST_ROWS, self._view.first + _ROWS))
            self._trouble, self._answered = "", time.monotonic()
        except Refused as refused:
            self._trouble = str(refused)
        self._asked = time.monotonic()

    def _take(self, key: int) -> bool:
        """Takes a key in; False for the one that ends it."""
        if self._typing:
            self._type(key)
            return True
        if key in (ord("q"), ord("Q")):
            return False
        if key == ord("s"):
            names = list(SORTS)
            self._choose(sort=names[(names.index(self._view.sort) + 1) % len(names)], first=0)
        elif key == ord("/"):
            self._typing = True
        elif key == curses.KEY_RESIZE:
            with contextlib.suppress(curses.error):
                curses.update_lines_cols()
        else:
            self._scroll(key)
        return True

    def _scroll(self, key: int) -> None:
        page = max(1, self._screen.getmaxyx()[0] // 2)
        step = {curses.KEY_DOWN: 1, curses.KEY_UP: -1, curses.KEY_NPAGE: page, curses.KEY_PPAGE: -page,
                curses.KEY_HOME: -_MOST_ROWS}.get(key)
        if step and self._told:
            last = min(self._told["vms"]["matching"], _MOST_ROWS) - 1
            self._choose(first=max(0, min(self._view.first + step, last)))

    def _type(self, key: int) -> None:
        """A key while the filter is typed."""
        if key in (10, 13, curses.KEY_ENTER):
            self._typing = False
        elif key == _ESCAPE:
            self._typing = False
            self._choose(find="", first=0)
        elif key in _BACKSPACES:
            self._choose(find=self._view.find[:-1], first=0)
        elif 32 <= key < 127:
            self._choose(find=self._view.find + chr(key), first=0)

    def _choose(self, **chosen: Any) -> None:
        self._view = dataclasses.replace(self._view, **chosen)
        self._ask()

    def _draw(self) -> None:
        height, width = self._screen.getmaxyx()
        self._screen.erase()
        self._view = dataclasses.replace(self._view, width=width, height=max(1, height - 1))
        lines = top_frame.frame(self._told, self._view) if self._told else []
        if self._trouble:
            seconds = int(time.monotonic() - self._answered)
            trouble = top_frame.fit(f"NO ANSWER FOR {seconds} s: {self._trouble}", width), BAD
            lines = [trouble, *lines[:max(0, height - 2)]]
        for number, (text, style) in enumerate(lines):
            self._put(number, text, width, self._styles.get(style, 0))
        foot = f" filter: {self._view.find}_" if self._typing else f"{_HELP}   {self._url}"
        self._put(height - 1, top_frame.fit(foot, max(1, width - 1)), width, curses.A_DIM)
        self._screen.refresh()

    def _put(self, line: int, text: str, width: int, style: int) -> None:
        """The last cell of a terminal takes no character without scrolling; one that has just shrunk none at all."""
        with contextlib.suppress(curses.error):
            self._screen.addnstr(line, 0, text, width, style)
