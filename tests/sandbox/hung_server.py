"""A FUSE server that can't be killed: it never answers a read, and reads its own file through a loop device.

    hung_server.py FILE

serves the file from then on, prints the loop device's number once the read hangs, and stays. To be run in a sandbox.
The kernel may keep no attributes of the file: when the server is gone, the loop device can't tell what it is on.
"""

import os
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../e2e"))
from harness.slow_file import Server  # noqa: E402

FOR_EVER = 10 ** 6  # seconds


def main(path):
    threading.Thread(target=Server(path, FOR_EVER).serve, daemon=True).start()
    shown = subprocess.run(["losetup", "-f", "--show", "-r", path], check=True, text=True,
                           stdout=subprocess.PIPE).stdout.strip()
    reader = threading.Thread(target=lambda: open(shown, "rb").read(4096), daemon=True)
    reader.start()
    while not is_stuck(reader.native_id):
        time.sleep(0.01)
    print(shown[len("/dev/loop"):], flush=True)
    time.sleep(FOR_EVER)


def is_stuck(thread):
    with open(f"/proc/self/task/{thread}/stat") as file:
        return file.read().rpartition(")")[2].split()[0] == "D"


main(sys.argv[1])
