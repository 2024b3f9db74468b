"""Asks a running controller what people see of it."""

import argparse
import http.client
import ssl
import urllib.parse
from typing import Any

from .faults_told import Refused, reason
from .pages import OVERVIEW
from .state import Lock, open_store, state_of
from .texts import unpack

_PATIENCE = 5.0  # seconds for an answer


def url_of(options: argparse.Namespace) -> str:
    """Where the controller of a state directory answers. Refused when none runs."""
    if not Lock(state_of(options)).is_taken():
        raise Refused(f"{state_of(options)}: no controller runs on it; \"mirador-appliance serve\" starts one")
    store = open_store(options)
    try:
        return store.meta("url")
    finally:
        store.close()


def overview(url: str, **asked: Any) -> dict[str, Any]:
    """See live. asked: find, sort, rows. The certificate is not verified, as the daemon does not. Refused."""
    place = urllib.parse.urlsplit(url)
    try:
        if place.scheme not in ("http", "https") or not place.hostname:
            raise ValueError("not a URL")
        connection = _connection(place)
    except ValueError as error:
        raise Refused(f"{url!r}: {error}", 2) from None
    try:
        connection.request("GET", f"{OVERVIEW}?{urllib.parse.urlencode(asked)}")
        answer = connection.getresponse()
        body = answer.read()
        if answer.status != 200:
            raise Refused(f"{url}: answers with status {answer.status}; no controller of this version")
        return unpack(body)
    except OSError as error:
        raise Refused(f"{url}: does not answer: {reason(error)}") from None
    except (http.client.HTTPException, ValueError):
        raise Refused(f"{url}: no controller answers there") from None
    finally:
        connection.close()


def _connection(place: urllib.parse.SplitResult) -> http.client.HTTPConnection:
    if place.scheme == "http":
        return http.client.HTTPConnection(place.hostname, place.port, timeout=_PATIENCE)
    context = ssl.create_default_context()
    context.check_hostname = False
    context.verify_mode = ssl.CERT_NONE
    return http.client.HTTPSConnection(place.hostname, place.port, timeout=_PATIENCE, context=context)
