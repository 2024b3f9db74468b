"""What a browser is served: the page, its parts, and what it shows."""

import pathlib

from .live import Live
from .live_rows import SORTS
from .objects import parse_query

JSON = "application/json; charset=UTF-8"

# Nothing but this server's own files is loaded or run, nobody else's page may hold this one, nothing is kept.
PAGE_HEADERS = (
    "Content-Security-Policy: default-src 'self'; base-uri 'none'; form-action 'none'; frame-ancestors 'none'",
    "X-Content-Type-Options: nosniff",
    "Referrer-Policy: no-referrer",
    "Cross-Origin-Resource-Policy: same-origin",
    "Cache-Control: no-store",
)

OVERVIEW = "/overview"
_DIRECTORY = pathlib.Path(__file__).parent / "page"
_FILES = {"/": ("index.html", "text/html; charset=UTF-8"), "/page.css": ("page.css", "text/css; charset=UTF-8"),
          "/page.js": ("page.js", "text/javascript; charset=UTF-8"),
          "/plot.js": ("plot.js", "text/javascript; charset=UTF-8"), "/icon.svg": ("icon.svg", "image/svg+xml")}


class Pages:
    """Files are read once."""

    def __init__(self, live: Live) -> None:
        self._live = live
        self._files = {path: (kind, (_DIRECTORY / name).read_bytes()) for path, (name, kind) in _FILES.items()}

    def __contains__(self, path: str) -> bool:
        return path == OVERVIEW or path in self._files

    def get(self, path: str, query: str) -> tuple[str, bytes]:
        """Media type and content of one of the pages. ValueError for a query that makes no sense."""
        if path != OVERVIEW:
            return self._files[path]
        asked = parse_query(query)
        sort, rows = asked.get("sort") or "activity", asked.get("rows") or "100"
        if sort not in SORTS:
            raise ValueError(f"sort: one of {', '.join(SORTS)}")
        if not rows.isascii() or not rows.isdigit() or len(rows) > 6:
            raise ValueError("rows: not a number")
        return JSON, self._live.overview(asked.get("find", ""), sort, int(rows))
