"""The VMs, and which uuid each has."""

from collections.abc import Iterable
from uuid import uuid4

from .facts import Facts
from .records import Vm
from .uuids import derived

Key = tuple[str, str]  # datastore, vmx_path


class Inventory:
    """VMs by place and by uuid. Each has a uuid of its own: the first that its files give and no other VM has, else
    one made from its place. It keeps that uuid as long as its files do not give other ones."""

    def __init__(self, vms: Iterable[Vm] = ()) -> None:
        self._by_key: dict[Key, Vm] = {}
        self._by_uuid: dict[str, Vm] = {}
        for vm in vms:
            self._put(vm)

    def __len__(self) -> int:
        return len(self._by_key)

    def all(self) -> list[Vm]:
        """In the order in which they came."""
        return list(self._by_key.values())

    def get(self, key: Key) -> Vm | None:
        return self._by_key.get(key)

    def by_uuid(self, uuid: str) -> Vm | None:
        return self._by_uuid.get(uuid)

    def _put(self, vm: Vm) -> None:
        old = self._by_key.get(vm.key)
        if old is not None:
            del self._by_uuid[old.uuid]
        self._by_key[vm.key] = vm
        self._by_uuid[vm.uuid] = vm

    def take(self, facts: Facts, now: int) -> Vm | None:
        """Takes in what was found. The new VM record, or None when nothing is new."""
        key = facts["datastore"], facts["vmx_path"]
        old = self._by_key.get(key)
        if old is not None and old.facts == facts:
            return None
        vm = Vm(self._uuid_for(key, facts, old), now if old is None else max(now, old.changed + 1), facts)
        self._put(vm)
        return vm

    def _uuid_for(self, key: Key, facts: Facts, old: Vm | None) -> str:
        own = derived("\0".join(key))
        wanted = [*facts["uuids"], own]
        if old is not None and old.uuid in wanted:
            return old.uuid
        free = (uuid for uuid in wanted if uuid not in self._by_uuid)
        return next(free, None) or str(uuid4())  # somebody's files may give what is derived here

    def set_change_time(self, uuid: str, changed: int) -> None:
        vm = self._by_uuid[uuid]
        self._put(Vm(uuid, changed, vm.facts))

    def drop(self, key: Key) -> Vm | None:
        vm = self._by_key.pop(key, None)
        if vm is not None:
            del self._by_uuid[vm.uuid]
        return vm
