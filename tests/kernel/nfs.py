"""A datastore's server and its client, both on this virtual machine: kernel NFS server, NFS 3 over the loopback.

What is exported stands in /etc/exports, as on an appliance: whoever takes all exports back can restore them."""

import os
import pathlib
import re
import subprocess
import sys

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1] / "e2e"))

from harness.tools import run  # noqa: E402

EXPORTS = pathlib.Path("/etc/exports")
HARD = "hard,timeo=50,retrans=2"  # asks for ever
SOFT = "soft,timeo=50,retrans=2"  # a request fails after 15 s
_STATE = pathlib.Path("/var/lib/nfs")
_THREADS = "8"


def start(export: str) -> None:
    """Brings the server up. export: line of /etc/exports."""
    _add_users()
    _STATE.mkdir(parents=True, exist_ok=True)
    for name in ("etab", "rmtab", "xtab"):
        (_STATE / name).touch()
    EXPORTS.write_text(f"{export}\n")
    run("mount", "-t", "nfsd", "nfsd", "/proc/fs/nfsd")
    os.makedirs("/run/rpcbind", exist_ok=True)
    run("rpcbind", "-w")
    run("exportfs", "-a")
    run("rpc.mountd", "--no-nfs-version", "4")
    resume()


def _add_users() -> None:
    with open("/etc/passwd", "a+") as users:
        users.seek(0)
        if "_rpc:" not in users.read():
            users.write("_rpc:x:65530:65534::/run/rpcbind:/usr/sbin/nologin\n")


def stop() -> None:
    """The server is gone: its connections are closed, and it refuses new ones."""
    run("rpc.nfsd", "0")


def resume() -> None:
    if int(pathlib.Path("/proc/fs/nfsd/threads").read_text()) == 0:
        run("rpc.nfsd", "--no-nfs-version", "4", "--host", "127.0.0.1", _THREADS)


def exported() -> list[str]:
    """What the server gives away, with all options."""
    text = run("exportfs", "-v").replace("\n\t", " ")
    return sorted(re.sub(r"\s+", " ", line) for line in text.splitlines())


def export_line(directory: pathlib.Path) -> str:
    """A line that gives a directory to this machine, and for reading to another one."""
    options = "sync,no_root_squash,no_subtree_check,fsid=1"  # not every file system has an identity of its own
    return f"{directory} 127.0.0.1(rw,{options}) 127.0.0.2(ro,{options})"


def mount(directory: pathlib.Path, at: pathlib.Path, options: str = HARD) -> None:
    at.mkdir(parents=True, exist_ok=True)
    run("mount", "-t", "nfs", "-o", f"vers=3,nolock,proto=tcp,{options}", f"127.0.0.1:{directory}", at)


def forget_cached() -> None:
    """What is read from now on comes from the server."""
    subprocess.run(["sync"], check=True)
    pathlib.Path("/proc/sys/vm/drop_caches").write_text("3\n")


def export_instead(line: str) -> None:
    """Takes back what the server gives away, and gives this line of /etc/exports."""
    EXPORTS.write_text(f"{line}\n")
    run("exportfs", "-r")
