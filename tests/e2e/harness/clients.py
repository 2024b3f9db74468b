"""The tools that people back up with, called as docs/clients.md says. Each takes the directory of one hypervisor and
gives a directory of what can be restored of it."""

import hashlib
import json
import os
import pathlib
import shutil
import subprocess
from typing import Any

from .appliance import free_port
from .daemon import EXPORT
from .snapshot_case import HOST
from .tools import WORK, run, wait_until

SOURCE = EXPORT / HOST
TRAILER = 200  # bytes at the end of NAME.cfg, which tell when it was opened
_PLACE = WORK / "clients"

Names = set[str]  # "VM/FILE"


def files(root: pathlib.Path = SOURCE) -> list[str]:
    """What is in a directory, as "VM/FILE". Disks first: what has changed is told since they were opened."""
    found = [str(path.relative_to(root)) for path in root.rglob("*") if path.is_file()]
    return sorted(found, key=lambda name: (not name.endswith("-flat.vmdk"), name))


def contents(root: pathlib.Path = SOURCE) -> dict[str, str]:
    """The checksums of the files in a directory, trailers left out."""
    found = {}
    for name in files(root):
        data = (root / name).read_bytes()
        found[name] = hashlib.sha256(data[:-TRAILER] if name.endswith(".cfg") else data).hexdigest()
    return found


def _empty(name: str) -> pathlib.Path:
    directory = _PLACE / name
    shutil.rmtree(directory, ignore_errors=True)
    directory.mkdir(parents=True)
    return directory


# Whole copies

def cp() -> pathlib.Path:
    target = _empty("cp")
    run("cp", "-r", "--sparse=always", SOURCE, target)
    return target / HOST


def tar(*options: str) -> pathlib.Path:
    target = _empty("tar")
    run("tar", *options, "-C", EXPORT, "-cf", target / "archive", HOST)
    run("tar", "-C", target, "-xf", target / "archive")
    return target / HOST


def dd() -> pathlib.Path:
    target = _empty("dd")
    for name in files():
        (target / name).parent.mkdir(exist_ok=True)
        run("dd", f"if={SOURCE / name}", f"of={target / name}", "bs=1M", "status=none")
    return target


# Tools that look for what has changed

class Rsync:
    target = _PLACE / "rsync"

    def back_up(self, *options: str) -> Names:
        """Returns the files that it has copied."""
        self.target.mkdir(parents=True, exist_ok=True)
        said = run("rsync", "-aX", "--itemize-changes", *options, f"{SOURCE}/", self.target)
        return {line.split(" ", 1)[1] for line in said.splitlines() if line.startswith(">f")}


class Restic:
    def __init__(self):
        self._place = _empty("restic")
        (self._place / "password").write_text("of the tests\n")
        self._run("init")

    def _run(self, *words: str) -> str:
        return run("restic", "--repo", self._place / "repository", "--password-file", self._place / "password",
                   "--cache-dir", self._place / "cache", *words)

    def back_up(self, *options: str) -> dict[str, Any]:
        """Returns its summary."""
        return json.loads(self._run("backup", "--json", *options, str(SOURCE)).splitlines()[-1])

    def changed(self, one: dict[str, Any], other: dict[str, Any]) -> Names:
        """The files whose content differs between two backups."""
        lines = self._run("diff", one["snapshot_id"], other["snapshot_id"]).splitlines()
        return {os.path.relpath(line[5:], SOURCE) for line in lines if line.startswith("M ")}

    def restored(self) -> pathlib.Path:
        target = _empty("restic-restored")
        self._run("restore", "latest", "--target", str(target))
        return target / SOURCE.relative_to("/")


class Borg:
    def __init__(self):
        self._place = _empty("borg")
        self._run("init", "--encryption", "none", self._place / "repository")

    def _run(self, *words: str | pathlib.Path, directory: pathlib.Path = _PLACE) -> str:
        settings = {"BORG_BASE_DIR": str(self._place), "BORG_UNKNOWN_UNENCRYPTED_REPO_ACCESS_IS_OK": "yes"}
        done = subprocess.run(["borg", *words], cwd=directory, env=os.environ | settings, text=True, timeout=60,
                              stdout=subprocess.PIPE, stderr=subprocess.STDOUT, check=False)
        if done.returncode != 0:
            raise AssertionError(f"borg {words}: exit status {done.returncode}\n{done.stdout}")
        return done.stdout

    def back_up(self, name: str, *options: str) -> Names:
        """Returns the files that it has read."""
        said = self._run("create", "--list", "--filter=AMC", *options, f"{self._place}/repository::{name}", SOURCE)
        return {os.path.relpath(line[2:], SOURCE) for line in said.splitlines()}

    def changed(self, one: str, other: str) -> Names:
        """The files whose content differs between two archives."""
        lines = self._run("diff", "--json-lines", f"{self._place}/repository::{one}", other).splitlines()
        return {os.path.relpath("/" + found["path"], SOURCE) for found in map(json.loads, lines)
                if any(change.get("added") for change in found["changes"])}

    def restored(self, name: str) -> pathlib.Path:
        target = _empty("borg-restored")
        self._run("extract", f"{self._place}/repository::{name}", directory=target)
        return target / SOURCE.relative_to("/")


# File servers

_SMB = """\
[global]
  server role = standalone server
  disable spoolss = yes
  load printers = no
  interfaces = lo
  bind interfaces only = yes
  smb ports = {port}
  private dir = {place}
  lock directory = {place}
  state directory = {place}
  cache directory = {place}
  pid directory = {place}
  ncalrpc dir = {place}/rpc
[vms]
  path = {export}
  read only = yes
  valid users = backup
  force user = root
"""


class Samba:
    """A server, and its client, for a user named backup."""

    def __init__(self):
        self._place = _empty("samba")
        self._config = self._place / "smb.conf"
        self._port = free_port()
        self._config.write_text(_SMB.format(port=self._port, place=self._place, export=EXPORT))
        (self._place / "login").write_text("username = backup\npassword = secret\n")
        run("smbpasswd", "-c", self._config, "-s", "-a", "backup", text_input="secret\nsecret\n")
        with open(self._place / "output", "ab") as output:
            self._process = subprocess.Popen(["smbd", "--foreground", "--no-process-group", "--debug-stdout",
                                              f"--configfile={self._config}"], stdout=output, stderr=output,
                                             start_new_session=True)  # it ends its whole process group
        wait_until(self._answers, "the file server answers")

    def stop(self) -> None:
        self._process.terminate()
        self._process.wait(timeout=30)

    def _answers(self) -> bool:
        return subprocess.run(self._client("ls"), capture_output=True, check=False).returncode == 0

    def _client(self, command: str) -> list[str]:
        return ["smbclient", f"--configfile={self._config}", f"--authentication-file={self._place}/login",
                f"--port={self._port}", "//127.0.0.1/vms", "--command", command]

    def listing(self) -> str:
        return run(*self._client("recurse on; ls"))

    def copied(self) -> pathlib.Path:
        target = _empty("smb")
        run(*self._client(f"lcd {target}; recurse on; prompt off; mget {HOST}"))
        return target / HOST
