"""The settings registry's keys: defaults and what may be stored.

The daemon reads them all, in this order, once after its start; a key that is missing or empty ends its reading there.
"""

import dataclasses
import re
import socket

from .faults_told import Refused

HOST_PATTERN = re.compile(r"[A-Za-z0-9][A-Za-z0-9._-]{0,254}")


@dataclasses.dataclass(frozen=True)
class Setting:
    """One key. pattern: what a value must match as a whole; wanted: the same for people."""
    key: str
    default: str
    pattern: str
    wanted: str
    about: str


def _flag(key: str, default: str, about: str) -> Setting:
    return Setting(key, default, "[01]", "0 or 1", about)


def _count(key: str, default: str, about: str) -> Setting:
    return Setting(key, default, "[0-9]{1,9}", "a number from 0 to 999999999", about)


SETTINGS: tuple[Setting, ...] = (
    Setting("controller.uuid", "", "[0-9A-Za-z-]{1,63}", "a uuid", "identity of this appliance, made at first start"),
    _flag("smartread.enabled", "1", "read only what the guest uses"),
    _flag("smartread.lvm.enabled", "0", "the same inside volume groups"),
    _flag("directio.enabled", "0", "direct reads"),
    _count("export.cache.ttl", "120", "seconds for which a VM's directory is taken for fresh"),
    _flag("export.ondemand.enabled", "0", "look at a VM again when a client does"),
    _flag("export.vm_uuid.enabled", "0", "links by uuid below .uuid"),
    Setting("appliance.debug.level", "0", "[0-9]", "a digit", "how much the daemon logs"),
    _flag("appliance.cbt.debug", "0", "log and keep what concerns changed blocks"),
    _flag("recover.automount.enabled", "0", "mount guests' file systems for recovery"),
    Setting("appliance.cbt.percent", "1", "[0-9]|[1-9][0-9]|100", "a number from 0 to 100",
            "0 makes every changed-block file 4096 bytes long; else it has the percentage noted at its disk"),
    Setting("vendor.id", "Corvantis", "[0-9A-Za-z_-]{1,10}", "1 to 10 letters, digits, _ or -",
            "what names of this appliance's snapshots begin with"),
    _count("feature.read_ahead.size", "1048576", "bytes"),
    _count("snapshot.max_idle", "300", "seconds for which an unused snapshot is kept"),
    _count("snapshot.max_life", "172800", "seconds after which a snapshot is reported as old"),
    _count("snapshot.retry_limit", "12", "attempts to make or remove a snapshot"),
    _flag("snapshot.blocking_removal", "1", "wait for the end of a removal"),
    _count("nfc.session.reserved", "0", "sessions left to others"),
    _count("export.max_session", "50", "exported files open or kept ready at a time"),
    Setting("hypervisor.name", "", HOST_PATTERN.pattern, "a host name of letters, digits, dots and dashes",
            "host of the VMs whose datastore names none; the appliance's own, at once"),
)

_BY_KEY = {setting.key: setting for setting in SETTINGS}


def machine_name() -> str:
    """This machine's host name, or "localhost" when that is no name for a directory."""
    name = socket.gethostname()
    return name if HOST_PATTERN.fullmatch(name) else "localhost"


def checked(key: str, value: str) -> Setting:
    """The setting of a key. Refused when there is none or the value is not one it can have."""
    setting = _BY_KEY.get(key)
    if setting is None:
        raise Refused(f"{key}: no such setting; \"status\" lists them", 2)
    if not re.fullmatch(setting.pattern, value):
        raise Refused(f"{key}: {value!r}: not {setting.wanted}", 2)
    return setting
