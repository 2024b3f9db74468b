"""New deltas on top of disks."""

import os

from ..vmdk import Link
from . import cowd, descriptors
from .chain import DELTA_KIND, sectors_of
from .machine import Machine

_GRAIN = 1  # sectors, of a disk's first delta; those above follow it


def _grain(links: list[Link]) -> int:
    for link in links:
        extent = link.descriptor.extents[0]
        if extent.kind == DELTA_KIND:
            below = cowd.CowdExtent(link.extent_paths[0], extent.sectors, writable=False)
            below.close()
            return below.grain
    return _GRAIN


def make_extent(machine: Machine, head: str, path: str) -> None:
    """An empty extent for a delta of the disk `head`."""
    links = machine.chain(head)
    cowd.make_empty(path, sectors_of(links[0]), _grain(links))
    machine.steps("delta extent made")


def describe(machine: Machine, head: str, descriptor: str, extent: str) -> None:
    """The descriptor of a new delta of the disk `head`, which nobody may write to any more. Local paths."""
    link = machine.chain(head)[0]
    text = descriptors.delta_text(sectors_of(link), descriptors.fresh_content_id(),
                                  descriptors.content_id(link.descriptor), machine.hint_to(head, descriptor),
                                  os.path.basename(extent))
    machine.replace(descriptor, text, "delta descriptor")
