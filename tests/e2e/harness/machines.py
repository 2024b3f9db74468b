"""Virtual machines on a datastore, as a hypervisor leaves their files there."""

from __future__ import annotations

import dataclasses
import itertools
import os
import pathlib
import random
import shutil

from .disks import MIB, Datastore
from .tools import run

_numbers = itertools.count(1)


@dataclasses.dataclass(frozen=True)
class Machine:
    """A VM by its configuration file. directory: local; name: as displayed; disks: names of the descriptors."""
    store: Datastore
    vmx: pathlib.Path
    name: str
    uuid: str
    disks: tuple[str, ...]

    @property
    def directory(self) -> pathlib.Path:
        return self.vmx.parent

    def entries(self, *disks: str, companions: bool = False) -> set[str]:
        """The files that its directory in the exported tree has; `disks` instead of its own."""
        stems = [pathlib.PurePath(disk).stem for disk in disks or self.disks]
        kinds = (".vmdk", "-flat.vmdk", *(["-corcbt.vmdk"] if companions else []))
        return {self.vmx.name, f"{self.vmx.stem}.cfg", *(stem + kind for stem in stems for kind in kinds)}

    def write(self, name: str | None = None, disks: tuple[str, ...] | None = None,
              modes: dict[str, str] | None = None) -> Machine:
        """Writes its configuration file; disks that are missing are made. Returns the VM as it is now."""
        vm = dataclasses.replace(self, name=name or self.name, disks=self.disks if disks is None else disks)
        for disk in vm.disks:
            _make_disk(vm.directory / disk)
        lines = [f'displayName = "{_escaped(vm.name)}"', 'guestOS = "other"', f'uuid.bios = "{_spaced(vm.uuid)}"',
                 'scsi0.present = "TRUE"']
        for unit, disk in enumerate(vm.disks):
            lines += [f'scsi0:{unit}.present = "TRUE"', f'scsi0:{unit}.fileName = "{_escaped(disk)}"']
            if mode := (modes or {}).get(disk):
                lines.append(f'scsi0:{unit}.mode = "{mode}"')
        aside = vm.vmx.with_suffix(".new")
        aside.write_text("".join(f"{line}\n" for line in lines), encoding="utf-8")
        aside.replace(vm.vmx)
        return vm

    def flat(self, disk: str | None = None) -> pathlib.Path:
        """The data file of a disk, the first one by default."""
        path = self.directory / (disk or self.disks[0])
        return path.with_name(f"{path.stem}-flat.vmdk")

    def remove(self) -> None:
        shutil.rmtree(self.directory, ignore_errors=True)


def machine(store: Datastore, directory: str, name: str | None = None, disks: tuple[str, ...] = ("disk.vmdk",),
            template: bool = False, modes: dict[str, str] | None = None) -> Machine:
    """Makes a VM. modes: disk -> its mode, "persistent" for the others."""
    suffix = ".vmtx" if template else ".vmx"
    number = next(_numbers)
    made = Machine(store, store.vm(directory) / f"vm{suffix}", name or directory,
                   f"564d{number:04x}-1b2c-3d4e-5f60-718293a4b5c6", disks)
    return made.write(modes=modes)


def _make_disk(descriptor: pathlib.Path) -> None:
    if descriptor.exists():
        return
    descriptor.parent.mkdir(parents=True, exist_ok=True)
    run("qemu-img", "create", "-q", "-f", "vmdk", "-o", "subformat=monolithicFlat", descriptor, str(MIB))
    with open(descriptor.with_name(f"{descriptor.stem}-flat.vmdk"), "r+b") as flat:
        for offset in (4096, MIB // 2 - 7, MIB - 512):
            flat.seek(offset)
            flat.write(random.Random(os.fspath(descriptor)).randbytes(500))


def _escaped(text: str) -> str:
    """A value of a configuration file, where quotes and some more are spelled by their code."""
    return "".join(f"|{ord(character):02X}" if character in '|"#' else character for character in text)


def _spaced(uuid: str) -> str:
    digits = uuid.replace("-", "")
    pairs = [digits[at:at + 2] for at in range(0, 32, 2)]
    return f"{' '.join(pairs[:8])}-{' '.join(pairs[8:])}"
