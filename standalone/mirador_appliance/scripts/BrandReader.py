#!/usr/bin/python3 -IS
# Installed by mirador-appliance.
"""Prints the values of branding keys, a line each: BrandReader.py KEY...

Always answers: a key that nobody has set has the default of an appliance whose controller is nearby.
"""

import pathlib
import sys

FILES = ("brand.txt", "controller.conf")  # the later one wins
DEFAULTS = {"controller.port": "443", "controller.use_https": "1"}


def pairs(path):
    try:
        lines = path.read_text(errors="replace").splitlines()
    except OSError:
        return {}
    parts = (line.partition("=") for line in lines if not line.lstrip().startswith("#"))
    return {key.strip(): value.strip() for key, equals, value in parts if equals}


directory = pathlib.Path(__file__).resolve().parents[2] / "etc"
values = dict(DEFAULTS)
for name in FILES:
    values.update(pairs(directory / name))
for key in sys.argv[1:]:
    print(values.get(key, ""))
