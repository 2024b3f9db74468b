"""The commands that work on the database; a running controller takes in what they change."""

import argparse
import json
import sys
import time
import uuid

from . import asking, choices, overview, settings, status, synthetic
from .faults_told import Refused, reason
from .installer import install
from .records import Vm
from .state import Lock, open_store, places_of, state_of
from .store import Store


def show_status(options: argparse.Namespace) -> int:
    store = open_store(options)
    found = status.collect(store, Lock(state_of(options)).is_taken(), overview.of_all(store, places_of(options)))
    found["controller"]["daemon"] = _daemon_words(found["controller"]["url"])
    text = json.dumps(found, ensure_ascii=False, indent=1) + "\n" if options.json else status.as_text(found)
    sys.stdout.buffer.write(text.encode("utf-8", "backslashreplace"))  # stray bytes as "\udc..", which is JSON
    sys.stdout.buffer.flush()
    return 0


def _daemon_words(url: str) -> str:
    """How far the daemon is, as the controller tells; "" when it does not."""
    try:
        return str(asking.overview(url, rows=0)["daemon"]["words"]) if url else ""
    except (Refused, LookupError, TypeError):
        return ""


def set_setting(options: argparse.Namespace) -> int:
    """Stores a setting; also before the first start."""
    setting = settings.checked(options.key, options.value)
    store = open_store(options, create=True)
    if options.key == "hypervisor.name" and options.value in store.folders().values():
        raise Refused(f"{options.key}: {options.value!r} is the name of a folder")
    old = choices.current_settings(store)[options.key]
    store.set_setting(options.key, options.value)
    when = "at once" if options.key == "hypervisor.name" else "the daemon reads it at its next start"
    print(f"{setting.key}: {old or '(none)'} -> {options.value}; {when}")
    return 0


def install_scripts(options: argparse.Namespace) -> int:
    install(places_of(options), state_of(options), options.port, options.https)
    return 0


def _vms(store: Store) -> list[Vm]:
    return [Vm(*vm) for vm in store.vms()]


def refresh(options: argparse.Namespace) -> int:
    """Lets VMs count as changed."""
    store = open_store(options)
    vms = _vms(store)
    chosen = [*vms[:options.first], *(choices.find_vm(vms, word) for word in options.vm)]
    if not chosen:
        raise Refused("refresh: no machine is named", 2)
    store.touch_vms({vm.uuid for vm in chosen}, int(time.time()))
    return 0


def synthesize(options: argparse.Namespace) -> int:
    try:
        synthetic.write_files(options.dir, options.count)
    except OSError as error:
        raise Refused(f"{options.dir}: {reason(error)}") from error
    return 0


def choose(options: argparse.Namespace) -> int:
    """Stores a choice for one VM."""
    store = open_store(options)
    vm = choices.find_vm(_vms(store), options.vm)
    try:
        key, value = choices.vm_choice(options.key, options.value)
    except ValueError as error:
        raise Refused(str(error), 2) from None
    store.set_choices(vm.uuid, {key: value})
    return 0


def _folder_named(store: Store, name: str) -> str:
    """A folder's uuid. Refused."""
    for folder, known in store.folders().items():
        if known == name:
            return folder
    raise Refused(f"{name!r}: no such folder")


def _new_folder_name(store: Store, name: str) -> str:
    values = choices.current_settings(store)
    hosts = {record.get("hypervisor") or values["hypervisor.name"] for record in store.datastores().values()}
    choices.checked_folder_name(name, hosts | {values["hypervisor.name"]})
    if name in store.folders().values():
        raise Refused(f"{name!r}: there is such a folder already")
    return name


def folder_add(options: argparse.Namespace) -> int:
    store = open_store(options)
    with store.transaction():
        store.set_folder(str(uuid.uuid4()), _new_folder_name(store, options.name))
    return 0


def folder_rename(options: argparse.Namespace) -> int:
    store = open_store(options)
    with store.transaction():
        store.set_folder(_folder_named(store, options.name), _new_folder_name(store, options.new))
    return 0


def folder_move(options: argparse.Namespace) -> int:
    store = open_store(options)
    vm = choices.find_vm(_vms(store), options.vm)
    with store.transaction():
        folder = None if options.folder == "-" else _folder_named(store, options.folder)
        store.set_choices(vm.uuid, {choices.FOLDER: folder})
    return 0


def folder_remove(options: argparse.Namespace) -> int:
    store = open_store(options)
    with store.transaction():
        folder = _folder_named(store, options.name)
        for vm, chosen in store.choices().items():
            if chosen.get(choices.FOLDER) == folder:
                store.set_choices(vm, {choices.FOLDER: None})
        store.remove_folder(folder)
    return 0
