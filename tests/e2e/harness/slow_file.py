"""A file of a datastore that answers slowly: a FUSE file system of one file, mounted over the file itself.

    slow_file.py FILE MILLISECONDS

serves until its input ends. Reads wait; everything else is done at once.
"""

import concurrent.futures
import errno
import os
import pathlib
import stat
import struct
import subprocess
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[3] / "script"))
from sandboxing import kernel  # noqa: E402

GETATTR, SETATTR, OPEN, READ, WRITE, RELEASE, FSYNC, FLUSH, INIT = 3, 4, 14, 15, 16, 18, 20, 25, 26
FORGET, BATCH_FORGET = 2, 42
MAX_WRITE = 1 << 17
HEADER = 40  # bytes of a request's head
SIZE_IS_VALID = 8  # of SETATTR


class SlowFile:
    """A file is slow as long as the context lasts; nobody may replace it meanwhile."""

    def __init__(self, path: pathlib.Path, seconds: float):
        self._command = [sys.executable, "-B", __file__, os.fspath(path), str(int(1000 * seconds))]

    def __enter__(self) -> "SlowFile":
        self._process = subprocess.Popen(self._command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, text=True)
        if self._process.stdout.readline() != "slow\n":
            raise RuntimeError("the slow file is not served")
        return self

    def __exit__(self, *_: object) -> None:
        self._process.communicate(timeout=60)


class Server:
    def __init__(self, path: str, delay: float):
        self._file, self._delay = os.open(path, os.O_RDWR), delay
        self._device = os.open("/dev/fuse", os.O_RDWR)
        kernel.mount("slow", path, "fuse", 0, f"fd={self._device},rootmode={stat.S_IFREG:o},user_id=0,group_id=0,"
                                              "allow_other")

    def serve(self) -> None:
        with concurrent.futures.ThreadPoolExecutor(64) as pool:
            while True:
                try:
                    request = os.read(self._device, MAX_WRITE + 4096)
                except OSError as fault:
                    if fault.errno == errno.ENODEV:  # unmounted
                        return
                    raise
                pool.submit(self._answer, request)

    def _answer(self, request: bytes) -> None:
        _, opcode, unique, _ = struct.unpack_from("<IIQQ", request)
        if opcode in (FORGET, BATCH_FORGET):
            return
        try:
            reply, fault = self._reply(opcode, memoryview(request)[HEADER:]), 0
        except OSError as raised:
            reply, fault = b"", raised.errno
        try:
            os.write(self._device, struct.pack("<IiQ", 16 + len(reply), -fault, unique) + reply)
        except OSError as raised:
            if raised.errno not in (errno.ENOENT, errno.ENODEV):  # whoever asked is gone
                raise

    def _reply(self, opcode: int, body: memoryview) -> bytes:
        if opcode == INIT:
            return struct.pack("<IIIIHHII", 7, 23, MAX_WRITE, 1, 512, 384, MAX_WRITE, 1) + bytes(36)
        if opcode == SETATTR:
            valid, _, _, size = struct.unpack_from("<IIQQ", body)
            if valid & SIZE_IS_VALID:
                os.ftruncate(self._file, size)
        if opcode in (GETATTR, SETATTR):
            return struct.pack("<QII", 0, 0, 0) + self._attributes()
        if opcode == OPEN:
            return struct.pack("<QII", 0, 0, 0)
        if opcode == READ:
            _, offset, size = struct.unpack_from("<QQI", body)
            time.sleep(self._delay)
            return os.pread(self._file, size, offset)
        if opcode == WRITE:
            _, offset, size = struct.unpack_from("<QQI", body)
            return struct.pack("<II", os.pwrite(self._file, body[HEADER:HEADER + size], offset), 0)
        if opcode in (RELEASE, FSYNC, FLUSH):
            return b""
        raise OSError(errno.ENOSYS, "")

    def _attributes(self) -> bytes:
        st = os.fstat(self._file)
        times = [divmod(nanoseconds, 10**9) for nanoseconds in (st.st_atime_ns, st.st_mtime_ns, st.st_ctime_ns)]
        return struct.pack("<QQQQQQIIIIIIIIII", 1, st.st_size, st.st_blocks, *(time[0] for time in times),
                           *(time[1] for time in times), st.st_mode, 1, st.st_uid, st.st_gid, 0, 4096, 0)


def main(path: str, milliseconds: str) -> None:
    server = Server(path, int(milliseconds) / 1000)
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        served = pool.submit(server.serve)
        print("slow", flush=True)
        sys.stdin.read()
        kernel.unmount(path)
        served.result()


if __name__ == "__main__":
    main(*sys.argv[1:])
