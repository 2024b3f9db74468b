#!/usr/bin/python3 -SE
# SPDX-License-Identifier: Apache-2.0
"""An agent that does what each request says, misbehaving included. Arguments are for the pool to tell agents apart."""
import json
import os
import sys
import time

ignores_end = False


def say(text):
    sys.stdout.write(text)
    sys.stdout.flush()


def say_what_is_wanted(text):  # the other side may hang up
    try:
        say(text)
    except BrokenPipeError:
        os._exit(1)


def reply(data, kind="any"):
    say_what_is_wanted(json.dumps({"response_type": kind, "response_data": data}) + "\n")


def serve(method, *args):
    global ignores_end
    if method == "echo":
        reply(args)
    elif method == "slow":  # echo, in two pieces
        say('{"response_data": [')
        time.sleep(float(args[0]))
        say('"late"]}\n')
    elif method == "say":  # any bytes
        say(args[0])
    elif method == "say_and_die":
        say(args[0])
        os._exit(3)
    elif method == "act_and_die":
        with open(args[0], "w"):
            os._exit(0)
    elif method == "big":
        reply(["x" * 90] * (int(args[0]) // 94))
    elif method == "silence":
        time.sleep(1000)
    elif method == "hang_up":  # but go on reading
        reply(None)
        os.close(1)
        open(args[0], "w").close()
    elif method == "leave_child":  # which keeps both pipes open
        import subprocess  # slow, and hardly ever needed
        reply(subprocess.Popen(["/bin/sleep", "100"]).pid)
    elif method == "ignore_end":
        ignores_end = True
        reply(None)


for line in sys.stdin:
    serve(*json.loads(line))
while ignores_end:
    time.sleep(1000)
