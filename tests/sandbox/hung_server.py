"""A FUSE server that can't be killed: it never answers a read, and reads its own file through a loop device.

    hung_server.py DIRECTORY

mounts itself on DIRECTORY, prints the loop device's number once the read hangs, and stays. To be run in a sandbox. The
kernel may keep no attributes of the file: when the server is gone, the loop device can't tell what it is on.
"""

import os
import stat
import struct
import subprocess
import sys
import threading
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../script"))
from sandboxing import kernel  # noqa: E402

LOOKUP, GETATTR, OPEN, READ, INIT = 1, 3, 14, 15, 26
SIZE = 1 << 20
ENOSYS = 38


def attributes(inode):
    mode, size = (stat.S_IFDIR | 0o755, 0) if inode == 1 else (stat.S_IFREG | 0o644, SIZE)
    return struct.pack("<QQQQQQIIIIIIIIII", inode, size, size // 512, 0, 0, 0, 0, 0, 0, mode, 1, 0, 0, 0, 4096, 0)


def answer(opcode, inode):
    """The reply's payload, an error number, or None for no answer ever."""
    if opcode == INIT:
        return struct.pack("<IIIIHHII", 7, 23, 1 << 17, 0, 0, 0, 1 << 17, 1) + bytes(36)
    if opcode == LOOKUP:
        return struct.pack("<QQQQII", 2, 0, 60, 0, 0, 0) + attributes(2)
    if opcode == GETATTR:
        return struct.pack("<QII", 0, 0, 0) + attributes(inode)
    if opcode == OPEN:
        return struct.pack("<QII", 0, 0, 0)
    return None if opcode == READ else ENOSYS


def serve(device):
    while True:
        request = os.read(device, 1 << 18)
        _, opcode, unique, inode = struct.unpack_from("<IIQQ", request)
        reply = answer(opcode, inode)
        if isinstance(reply, int):
            os.write(device, struct.pack("<IiQ", 16, -reply, unique))
        elif reply is not None:
            os.write(device, struct.pack("<IiQ", 16 + len(reply), 0, unique) + reply)


def main(directory):
    device = os.open("/dev/fuse", os.O_RDWR)
    kernel.mount("hung", directory, "fuse", 0, f"fd={device},rootmode=40000,user_id=0,group_id=0,allow_other")
    threading.Thread(target=serve, args=(device,), daemon=True).start()
    shown = subprocess.run(["losetup", "-f", "--show", "-r", f"{directory}/file"], check=True, text=True,
                           stdout=subprocess.PIPE).stdout.strip()
    reader = threading.Thread(target=lambda: open(shown, "rb").read(4096), daemon=True)
    reader.start()
    while not is_stuck(reader.native_id):
        time.sleep(0.01)
    print(shown[len("/dev/loop"):], flush=True)
    time.sleep(3600)


def is_stuck(thread):
    with open(f"/proc/self/task/{thread}/stat") as file:
        return file.read().rpartition(")")[2].split()[0] == "D"


main(sys.argv[1])
