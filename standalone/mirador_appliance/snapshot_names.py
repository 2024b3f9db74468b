"""Whose a snapshot is, by its name: "VENDOR: UUID" or "VENDOR: UUID SUFFIX" with an appliance's vendor id and uuid."""

import re

_FORM = re.compile(r"[0-9A-Za-z_-]{1,10}: [0-9A-Za-z-]{1,63}(?: .*)?", re.DOTALL)

OURS, OTHERS, FOREIGN = "ours", "another appliance's", "foreign"


def owns(settings: dict[str, str], name: str) -> bool:
    """Whether a snapshot of that name is the appliance's with these settings."""
    mine = f"{settings['vendor.id']}: {settings['controller.uuid']}"
    return name == mine or name.startswith(f"{mine} ")


def is_appliances(name: str) -> bool:
    """Whether some appliance may have made it: a person's snapshots hardly have names of this form."""
    return _FORM.fullmatch(name) is not None


def whose(settings: dict[str, str], name: str) -> str:
    """OURS; OTHERS: of the same vendor; else FOREIGN."""
    if owns(settings, name):
        return OURS
    return OTHERS if name.startswith(f"{settings['vendor.id']}: ") else FOREIGN
