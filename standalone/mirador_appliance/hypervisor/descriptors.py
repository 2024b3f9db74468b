"""Descriptors of disks as text: what identifies their content and their parent, and how that is changed.

A content id stands for the content of a disk at a time: whoever opens a disk for writing gives it a new one, and a
delta keeps its parent's, so that a delta is never read over a parent that has changed since.
"""

import errno
import os
import re
import secrets
from collections.abc import Callable

from .. import vmdk
from ..texts import to_bytes, to_text

NO_PARENT = 0xffffffff
_RESERVED = (0, 0xfffffffe, NO_PARENT)  # not known, new disk, no parent

_CID = re.compile(r"^([ \t]*CID[ \t]*=[ \t]*)[0-9a-f]+", re.IGNORECASE | re.MULTILINE)
_PARENT_CID = re.compile(r"^([ \t]*parentCID[ \t]*=[ \t]*)[0-9a-f]+", re.IGNORECASE | re.MULTILINE)
_HINT = re.compile(r'^([ \t]*parentFileNameHint[ \t]*=[ \t]*)"[^"\n]*"', re.IGNORECASE | re.MULTILINE)
_LONG_ID = re.compile(r'^([ \t]*ddb\.longContentID[ \t]*=[ \t]*"[0-9a-f]{24})[0-9a-f]{8}"',
                      re.IGNORECASE | re.MULTILINE)

_TRACKED = re.compile(r'^(?:# Change Tracking File[ \t]*\r?\n)?[ \t]*changeTrackPath[ \t]*=.*\n?',
                      re.IGNORECASE | re.MULTILINE)
_LAST_EXTENT = re.compile(r'.*^[ \t]*(?:RW|RDONLY|NOACCESS)[ \t][^\n]*(?:\n|\Z)',
                          re.IGNORECASE | re.MULTILINE | re.DOTALL)


def fresh_content_id(other_than: int = 0) -> int:
    while (value := secrets.randbits(32)) in (*_RESERVED, other_than):
        pass
    return value


def content_id(descriptor: vmdk.Descriptor) -> int:
    return _hexadecimal(descriptor, "cid")


def parent_content_id(descriptor: vmdk.Descriptor) -> int:
    return _hexadecimal(descriptor, "parentcid")


def _hexadecimal(descriptor: vmdk.Descriptor, key: str) -> int:
    try:
        return int(descriptor.keys.get(key, "ffffffff"), 16)
    except ValueError:
        raise vmdk.Unreadable(f"{os.path.basename(descriptor.path)}: its {key} is no number") from None


def changed(text: str, cid: int | None = None, parent_cid: int | None = None, hint: str | None = None) -> str:
    """The text with other ids or another parent; every other byte is kept. A text that lacks one of the lines is
    Unreadable."""
    if cid is not None:
        text = _replaced(_CID, text, f"{cid:08x}")
        text = _LONG_ID.sub(lambda match: f'{match[1]}{cid:08x}"', text)
    if parent_cid is not None:
        text = _replaced(_PARENT_CID, text, f"{parent_cid:08x}")
    if hint is not None:
        text = _replaced(_HINT, text, f'"{hint}"')
    return text


def with_tracking(text: str, name: str | None) -> str:
    """The text naming the file that the disk's changes are tracked in, or none."""
    text = _TRACKED.sub("", text)
    match = _LAST_EXTENT.match(text)
    if name is None or match is None:
        return text
    newline = "\r\n" if match[0].endswith("\r\n") else "\n"
    gap = "" if match[0].endswith("\n") else newline
    return f'{match[0]}{gap}# Change Tracking File{newline}changeTrackPath="{name}"{newline}{text[match.end():]}'


def _replaced(pattern: re.Pattern, text: str, value: str) -> str:
    text, count = pattern.subn(lambda match: match[1] + value, text)
    if count == 0:
        raise vmdk.Unreadable("a line is missing in its descriptor")
    return text


def change_content_id(path: str, tell: Callable[[int, int], None] = lambda old, new: None) -> None:
    """Gives a disk that is about to be written to a new content id, in place and in one write. tell: is given the old
    and the new one before."""
    text = vmdk.read_text(path)
    old = content_id(vmdk.parse(path, text))
    new = fresh_content_id(old)
    data = to_bytes(changed(text, cid=new))
    tell(old, new)
    was = to_bytes(text)
    fd = os.open(path, os.O_RDWR | os.O_CLOEXEC)
    try:
        if os.pread(fd, len(was), 0) != was:
            raise OSError(errno.EIO, "the descriptor does not stand by itself", path)
        # What is behind a text's end is nothing: some tools write zeros there, or leave the end of a longer text.
        data = data.ljust(os.fstat(fd).st_size, b"\0")
        if os.pwrite(fd, data, 0) != len(data):
            raise OSError(errno.EIO, "the descriptor could not be written", path)
    finally:
        os.close(fd)


def delta_text(sectors: int, cid: int, parent_cid: int, hint: str, extent: str) -> bytes:
    """The descriptor of a new delta. hint, extent: names of parent and extent file as they are to stand in it."""
    return to_bytes("# Disk DescriptorFile\n"
                    "version=1\n"
                    'encoding="UTF-8"\n'
                    f"CID={cid:08x}\n"
                    f"parentCID={parent_cid:08x}\n"
                    'createType="vmfsSparse"\n'
                    f'parentFileNameHint="{hint}"\n'
                    "# Extent description\n"
                    f'RW {sectors} VMFSSPARSE "{extent}"\n'
                    "\n"
                    "# The Disk Data Base\n"
                    "#DDB\n"
                    "\n")


def text_bytes(path: str) -> str:
    """A whole descriptor file as text, which to_bytes turns into the same bytes again."""
    with open(path, "rb") as file:
        return to_text(file.read())
