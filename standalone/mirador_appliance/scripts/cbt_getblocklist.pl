#!/usr/bin/python3 -IBS
# Installed by mirador-appliance.
"""Lists what changed on a disk of the embedded appliance; the daemon knows the program under this name."""

import pathlib
import sys

settings = pathlib.Path(__file__).resolve().parents[1] / "etc" / "controller.conf"
try:
    text = settings.read_text(encoding="utf-8", errors="surrogateescape")
except OSError as error:
    sys.exit(f"{settings}: {error.strerror}")
lines = (line.partition("=") for line in text.splitlines() if not line.startswith("#"))
values = {key.strip(): value.strip() for key, _, value in lines}
try:
    library = values["appliance.library"]
    home = ["--state", values["appliance.state"], "--root", values["appliance.root"]]
except KeyError as key:
    sys.exit(f"{settings}: {key} is missing; start mirador-appliance")
sys.path.insert(0, library)
from mirador_appliance.agent.blocklist import main  # noqa: E402

sys.exit(main([*sys.argv[1:], *home]))
