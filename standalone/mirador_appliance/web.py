"""The HTTP server: a thread for each connection, one request for each connection."""

import http.server
import io
import ipaddress
import json
import os
import pathlib
import select
import socket
import socketserver
import sqlite3
import ssl
import sys
import threading
import time
import urllib.parse
from typing import Any

from . import peer
from .faults_told import Refused, reason
from .mischief import Mischief, Rule
from .objects import BadRequest, Objects
from .pages import JSON, PAGE_HEADERS, Pages
from .texts import pack, to_text

ADDRESS = "127.0.0.1"
_PREFIX = "/api/"
_LARGEST_POST = 16 << 20  # bytes
_PATIENCE = 60.0  # seconds in which a client must have sent its request, or take a piece of the answer
_CHUNK = 1021  # bytes
_SECRET = ("hvconfig",)  # objects that hold passwords


class Journal:
    """A file with a JSON line for each request: time, method, object, query, body, status; status 0 stands for a
    connection that was closed without an answer. Thread-safe."""

    def __init__(self, path: str | None) -> None:
        self._lock = threading.Lock()
        self._file = None
        if path:
            try:
                self._file = open(path, "ab", opener=_private)
            except OSError as error:
                raise Refused(f"{path}: {reason(error)}") from error

    def note(self, method: str, name: str, query: str, body: bytes, status: int) -> None:
        """Appends a request and how it ended."""
        if self._file is None:
            return
        line = pack({"time": round(time.time(), 3), "method": method, "object": name, "query": query,
                     "body": to_text(body), "status": status})
        with self._lock:
            self._file.write(line + b"\n")
            self._file.flush()


def _private(path: str, flags: int) -> int:
    return os.open(path, flags, 0o600)


class Server(http.server.ThreadingHTTPServer):
    """Serves one set of objects, and the pages for people, on the loopback interface."""
    daemon_threads = True
    block_on_close = False
    request_queue_size = 512

    def __init__(self, port: int, objects: Objects, pages: Pages, mischief: Mischief, journal: Journal,
                 certificate: pathlib.Path | None) -> None:
        """port: 0 for any; certificate: PEM file with certificate and key, for HTTPS. Refused."""
        self.objects, self.pages, self.mischief, self.journal = objects, pages, mischief, journal
        self.ending = threading.Event()
        self._tls = _tls_context(certificate) if certificate else None
        try:
            super().__init__((ADDRESS, port), _Handler)
        except OSError as error:
            raise Refused(f"{ADDRESS}:{port}: {reason(error)}") from error

    @property
    def is_https(self) -> bool:
        return self._tls is not None

    @property
    def url(self) -> str:
        return f"{'https' if self.is_https else 'http'}://{ADDRESS}:{self.server_port}"

    def server_bind(self) -> None:
        """Without the look-up of this machine's name that HTTPServer does here."""
        socketserver.TCPServer.server_bind(self)
        self.server_name, self.server_port = self.server_address[:2]

    def finish_request(self, request: Any, client_address: Any) -> None:
        """In the connection's own thread, so that a slow handshake keeps nobody waiting."""
        if self._tls is not None:
            request.settimeout(_PATIENCE)
            request = self._tls.wrap_socket(request, server_side=True)
        super().finish_request(request, client_address)
        if self._tls is not None:
            request.close()

    def handle_error(self, request: Any, client_address: Any) -> None:
        """Clients that go away in mid-sentence are no news."""
        if not isinstance(sys.exc_info()[1], (OSError, ssl.SSLError)):
            super().handle_error(request, client_address)


def _tls_context(certificate: pathlib.Path) -> ssl.SSLContext:
    context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
    try:
        context.load_cert_chain(certificate)
    except (OSError, ssl.SSLError) as error:
        raise Refused(f"{certificate}: no certificate with its key: {reason(error)}") from error
    return context


class _PromptReader(socket.SocketIO):
    """Reads from a connection until a point of (monotonic) time, however little comes at once."""

    def __init__(self, connection: socket.socket, deadline: float) -> None:
        super().__init__(connection, "r")
        self._connection, self._deadline = connection, deadline

    def readinto(self, buffer: Any) -> int | None:
        self._connection.settimeout(max(self._deadline - time.monotonic(), 0.001))
        return super().readinto(buffer)


class _Handler(http.server.BaseHTTPRequestHandler):
    server: Server
    protocol_version = "HTTP/1.1"

    def setup(self) -> None:
        super().setup()
        self.rfile.close()
        self.rfile = io.BufferedReader(_PromptReader(self.connection, time.monotonic() + _PATIENCE))

    def do_GET(self) -> None:
        path, _, query = self.path.partition("?")
        if path in self.server.pages:
            self._show(path, query)
        else:
            self._serve(b"")

    def _show(self, path: str, query: str) -> None:
        """A page for people; no part of what the journal and the faults are about."""
        if not self._is_host_own():
            self._answer(403, pack({"error": "not the name of this machine"}))
            return
        try:
            kind, body = self.server.pages.get(path, query)
            self._answer(200, body, kind=kind, more=PAGE_HEADERS)
        except ValueError as error:
            self._answer(400, pack({"error": str(error)}))

    def do_POST(self) -> None:
        try:
            length = int(self.headers.get("Content-Length", ""))
        except ValueError:
            self._answer(411, pack({"error": "no length"}))
            return
        if not 0 <= length <= _LARGEST_POST:
            self._answer(413, pack({"error": "too long"}))
            return
        self._serve(self.rfile.read(length))

    def _serve(self, body: bytes) -> None:
        path, _, query = self.path.partition("?")
        name = path.removeprefix(_PREFIX) if path.startswith(_PREFIX) else path
        rule = self.server.mischief.rule_for(self.command, name, query)
        if rule is not None and rule.delay:
            self.server.ending.wait(rule.delay)
        status, answer = self._replaced(rule) if rule and rule.replaces else self._result(name, query, body)
        self.server.journal.note(self.command, name, query, body, status)
        if status:
            self._answer(status, answer, rule)
        self.close_connection = True

    def _replaced(self, rule: Rule) -> tuple[int, bytes]:
        if rule.hang is not None:
            self.server.ending.wait(rule.hang)
            return 0, b""
        text = rule.body if rule.body is not None else json.dumps({"error": "on demand"})
        return rule.status or 200, text.encode("utf-8", "surrogateescape")

    def _result(self, name: str, query: str, body: bytes) -> tuple[int, bytes]:
        if not self._is_host_own() or self.command == "POST" and self.headers.get("Origin") is not None:
            return 403, pack({"error": "not for other sites' pages"})
        if (self.command == "POST" or name in _SECRET) and not self._is_client_trusted():
            return 403, pack({"error": "for root alone"})
        try:
            if self.command == "POST":
                return 200, self.server.objects.post(name, body)
            return 200, self.server.objects.get(name, query, self._is_client_there)
        except BadRequest as error:
            return error.status, pack({"error": str(error)})
        except sqlite3.Error as error:
            return 500, pack({"error": str(error)})

    def _is_client_trusted(self) -> bool:
        return peer.is_trusted(self.client_address, self.server.server_address)

    def _is_host_own(self) -> bool:
        """Whether the client means this machine. A page whose own name was made to lead here (it would count as this
        server's then) does not. Whoever sends no name is no browser."""
        host = self.headers.get("Host")
        try:
            name = "" if host is None else (urllib.parse.urlsplit(f"//{host}").hostname or "-")
            if name not in ("", "localhost"):
                ipaddress.ip_address(name)
        except ValueError:  # malformed, or another name
            return False
        return True

    def _is_client_there(self) -> bool:
        """Whether the client still holds the connection open, which it does without sending more."""
        if isinstance(self.connection, ssl.SSLSocket):
            return True  # not to be peeked into; the wait is bounded
        poll = select.poll()
        poll.register(self.connection, select.POLLIN)
        try:
            return not poll.poll(0) or self.connection.recv(1, socket.MSG_PEEK) != b""
        except OSError:
            return False

    def _answer(self, status: int, answer: bytes, rule: Rule | None = None, kind: str = JSON,
                more: tuple[str, ...] = ()) -> None:
        """Head and body in one piece, so that neither waits for the other's acknowledgement."""
        self.connection.settimeout(_PATIENCE)
        reason_phrase = self.responses.get(status, ("",))[0]
        chunked = rule is not None and bool(rule.chunked)
        head = [f"HTTP/1.1 {status} {reason_phrase}", f"Content-Type: {kind}",
                "Transfer-Encoding: chunked" if chunked else f"Content-Length: {len(answer)}", "Connection: close",
                *more]
        data = _in_chunks(answer) if chunked else answer
        if rule is not None and rule.cut is not None:
            data = data[:rule.cut]
        self.wfile.write("\r\n".join(head).encode("latin-1", "replace") + b"\r\n\r\n" + data)
        self.close_connection = True

    def log_message(self, format: str, *args: Any) -> None:
        """The journal tells what was asked."""


def _in_chunks(data: bytes) -> bytes:
    pieces = [data[start:start + _CHUNK] for start in range(0, len(data), _CHUNK)]
    return b"".join(b"%x\r\n%s\r\n" % (len(piece), piece) for piece in pieces) + b"0\r\n\r\n"
