#!/usr/bin/python3 -IS
# Installed by mirador-appliance.
"""Prints whether the controller runs: "running" and status 0, or "stopped" and status 1."""

import pathlib
import socket
import sys

PORT_KEY = "controller.port"
PATIENCE = 2.0  # seconds

settings = pathlib.Path(__file__).resolve().parents[1] / "etc" / "controller.conf"
try:
    lines = (line.partition("=") for line in settings.read_text().splitlines())
    port = next(int(value) for key, _, value in lines if key.strip() == PORT_KEY)
    socket.create_connection(("127.0.0.1", port), PATIENCE).close()
except (OSError, ValueError, StopIteration, OverflowError):
    print("stopped")
    sys.exit(1)
print("running")
