"""Requests and replies, one line of JSON each.

    request  ["METHOD", "ARGUMENT", …]                                      strings only; a flag is "1" or "0"
    reply    {"response_type": NAME, "response_data": VALUE}                no data: no second member
    error    {"errdesc": {"err_num": N, "err_string": TEXT, "linenumber": N, "filename": TEXT}}
"""

import os
import traceback
from typing import Any, BinaryIO

from ..texts import pack, unpack

NOT_JSON = 1007  # the daemon's own number for a text that it cannot read
_LONGEST = 1 << 20  # bytes of a request

Request = list[str]


class AgentError(Exception):
    """An answer that is an error. number: an errno, or one of the daemon's own from 1000 on."""

    def __init__(self, number: int, text: str) -> None:
        super().__init__(text)
        self.number = number


def read_line(stream: BinaryIO) -> bytes | None:
    """The next line that is not empty; None at the end. Of a line that is too long, the part that is too much counts
    as another one."""
    while line := stream.readline(_LONGEST):
        if line.strip():
            return line
    return None


def parse(line: bytes) -> Request:
    """The request in a line. AgentError."""
    try:
        request = unpack(line)
    except ValueError as error:
        raise AgentError(NOT_JSON, f"a request that is no JSON: {error}") from None
    if not isinstance(request, list) or not request or not all(isinstance(word, str) for word in request):
        raise AgentError(NOT_JSON, "a request that is no array of strings")
    return request


def reply(kind: str, data: Any = None) -> bytes:
    return pack({"response_type": kind, **({} if data is None else {"response_data": data})}) + b"\n"


def refusal(error: BaseException, number: int, text: str) -> bytes:
    """The reply to what failed; says where the error came from."""
    frames = traceback.extract_tb(error.__traceback__)
    name, line = (os.path.basename(frames[-1].filename), frames[-1].lineno or 0) if frames else ("agent", 0)
    return pack({"errdesc": {"err_num": number, "err_string": text, "linenumber": line, "filename": name}}) + b"\n"
