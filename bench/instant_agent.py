#!/usr/bin/python3 -IBS
# SPDX-License-Identifier: Apache-2.0
"""The agent's program for measurements: hands each request to instant_appliance.py, which answers."""

import socket
import sys

SOCKET = "/run/instant-agent"

with socket.socket(socket.AF_UNIX) as connection:
    connection.connect(SOCKET)
    stream = connection.makefile("rwb")
    for line in sys.stdin.buffer:
        stream.write(line)
        stream.flush()
        sys.stdout.buffer.write(stream.readline())
        sys.stdout.buffer.flush()
