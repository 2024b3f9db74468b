"""The file tree that a sandboxed command sees.

The root is an overlay: the host's root file system below, a tmpfs above that takes every write and vanishes with the
sandbox. Other mounts of the host get an overlay each, except those whose path contains "/mnt" (the daemon's start-up
would unmount them) and those of the kernel. Where the kernel refuses an overlay the tree is a tmpfs with the host's
directories bound read-only into it.
"""

import os
import shutil
import stat
import subprocess

from . import kernel, loops

ABSENT = ("/export", "/export.shadow", "/vmfs", "/vmfs.direct", "/usr/local/corvantis", "/var/corvantis",
          "/inuse_bitmap")
EMPTY = {"/tmp": 0o1777, "/run": 0o755}
_MADE_ANEW = ("/dev", "/proc", "/sys", *EMPTY, *ABSENT)
_STAGE = "/tmp"  # where the tree is put together, before it becomes the root
_TREE = _STAGE + "/root"
_COVERS = {"losetup": "/usr/sbin/losetup", "dmsetup": "/usr/sbin/dmsetup", "exportfs": "/usr/sbin/exportfs"}
REAL_PROGRAMS = "/run/sandbox/real"  # the covered programs themselves


class Refused(Exception):
    """The sandbox can't be built as asked; the text is one line for the user."""


def _below(path, directory):
    return path == directory or path.startswith(directory.rstrip("/") + "/")


def _is_made_anew(path):
    return any(_below(path, directory) for directory in _MADE_ANEW)


class Tree:
    """Puts the tree together in a mount namespace of the caller's own, then makes it the root.

    checkout and show are directories that stay visible, writable are those whose writes reach the host."""

    def __init__(self, checkout, show, writable, size, use_overlay):
        self._host_mounts = kernel.mounts()
        self._use_overlay = use_overlay
        self._size = size
        self._layers = 0
        self._writable = writable
        hidden = [path for path in (checkout, *show) if any(_below(path, directory) for directory in EMPTY)]
        self._bound = sorted({*hidden, *writable})  # these get a mount of their own
        for path in (checkout, *show, *self._bound):
            self._check(path)

    def _check(self, path):
        """The daemon's start-up unmounts whatever lies under "/mnt", so nothing that is needed may be mounted there."""
        if not os.path.isdir(path):
            raise Refused(f"{path}: no such directory")
        mounted = [m.path for m in self._host_mounts if "/mnt" in m.path and _below(path, m.path)]
        if mounted or (path in self._bound and "/mnt" in path):
            raise Refused(f'{path} is, or lies below, a mount whose path contains "/mnt": no sandbox can show it')

    def enter(self):
        kernel.mount(None, "/", None, kernel.MS_REC | kernel.MS_PRIVATE)
        sources = {path: os.open(path, os.O_PATH) for path in self._bound}  # the stage may hide them
        kernel.mount("sandbox", _STAGE, "tmpfs", 0, f"size={self._size},mode=755")
        os.mkdir(_TREE)
        if not (self._use_overlay and self._overlay_root()):
            self._use_overlay = False
            kernel.bind(_TREE, _TREE, read_only=False)  # a root must be a mount
            self._bind_children("/")
        self._add_host_mounts()
        self._bind_shown(sources)
        self._make_dev()
        self._mount_kernel_file_systems()
        self._cover_programs()
        os.chdir(_TREE)
        subprocess.run(["pivot_root", ".", "."], check=True)
        kernel.unmount(".")
        os.chdir("/")

    # The layers

    def _new_layer(self):
        self._layers += 1
        upper, work = f"{_STAGE}/upper{self._layers}", f"{_STAGE}/work{self._layers}"
        os.mkdir(upper)
        os.mkdir(work)
        return upper, work

    def _overlay(self, lower, target, upper, work):
        """False when the kernel refuses: `lower` may be an overlay's overlay already, or of an unsuitable kind."""
        for options in ("xino=on,", ""):
            try:
                kernel.mount("sandbox", target, "overlay", 0,
                             f"{options}lowerdir={lower},upperdir={upper},workdir={work}")
                return True
            except OSError:
                pass
        return False

    def _overlay_root(self):
        upper, work = self._new_layer()
        shutil.copystat("/", upper)
        for path in ABSENT:
            if os.path.lexists(path):
                self._upper_parents(upper, path)
                os.mknod(upper + path, stat.S_IFCHR, os.makedev(0, 0))  # an overlay's mark for "deleted"
        for path, mode in EMPTY.items():
            os.mkdir(upper + path)
            os.chmod(upper + path, mode)
            os.setxattr(upper + path, "trusted.overlay.opaque", b"y")
        return self._overlay("/", _TREE, upper, work)

    @staticmethod
    def _upper_parents(upper, path):
        parents = []
        while (path := os.path.dirname(path)) != "/":
            parents.append(path)
        for parent in reversed(parents):
            os.makedirs(upper + parent, exist_ok=True)
            shutil.copystat(parent, upper + parent)

    def _show(self, source, target):
        """A directory or file of the host at `target`, its writes discarded where an overlay can be had."""
        if stat.S_ISDIR(os.stat(source).st_mode):
            os.makedirs(target, exist_ok=True)
            if self._use_overlay and self._overlay(source, target, *self._new_layer()):
                return
        elif not os.path.lexists(target):
            os.mknod(target)
        kernel.bind(source, target, read_only=True)

    def _add_host_mounts(self):
        pseudo = ("autofs", "binfmt_misc", "nsfs", "swap", "efivarfs", "cgroup", "cgroup2", "mqueue")
        for mount in self._host_mounts:
            if (mount.path == "/" or "/mnt" in mount.path or _is_made_anew(mount.path) or mount.kind in pseudo or
                    mount.kind.split(".")[0] == "fuse" or mount.path in self._writable):
                continue
            if os.path.lexists(_TREE + mount.path):
                self._show(mount.path, _TREE + mount.path)

    def _bind_shown(self, sources):
        for path, descriptor in sources.items():
            source, target = f"/proc/self/fd/{descriptor}", _TREE + path
            os.makedirs(target, exist_ok=True)
            if path in self._writable:
                kernel.bind(source, target, read_only=False)
            else:
                self._show(source, target)
            os.close(descriptor)

    # The tree without an overlay

    def _bind_children(self, directory):
        """Directories in which something must be hidden or made are built anew, what they hold is bound read-only."""
        built_anew = ("/usr", "/usr/local", "/var")
        for entry in os.scandir(directory):
            target = _TREE + entry.path
            if entry.path in EMPTY:
                os.mkdir(target)
                os.chmod(target, EMPTY[entry.path])
            elif entry.path in ABSENT:
                continue
            elif entry.is_symlink():
                os.symlink(os.readlink(entry.path), target)
            elif entry.path == "/etc":
                shutil.copytree(entry.path, target, symlinks=True)
            elif entry.path in built_anew:
                os.mkdir(target)
                shutil.copystat(entry.path, target)
                self._bind_children(entry.path)
            elif entry.path in (*_MADE_ANEW, "/mnt"):
                os.mkdir(target)
            elif entry.is_dir() or entry.is_file():
                self._show(entry.path, target)

    # What is never the host's

    def _make_dev(self):
        dev = _TREE + "/dev"
        nodes = {"null": (1, 3), "zero": (1, 5), "full": (1, 7), "random": (1, 8), "urandom": (1, 9), "tty": (5, 0)}
        for name in ("fuse", "loop-control", "kvm"):
            if os.path.exists("/dev/" + name):
                number = os.stat("/dev/" + name).st_rdev
                nodes[name] = (os.major(number), os.minor(number))
        kernel.mount("sandbox-dev", dev, "tmpfs", kernel.MS_NOSUID, "mode=755,size=64k,nr_inodes=0")
        for name, (major, minor) in nodes.items():
            os.mknod(f"{dev}/{name}", stat.S_IFCHR, os.makedev(major, minor))
            os.chmod(f"{dev}/{name}", 0o666)
        for name, target in {"ptmx": "pts/ptmx", "fd": "/proc/self/fd", "stdin": "fd/0", "stdout": "fd/1",
                             "stderr": "fd/2"}.items():
            os.symlink(target, f"{dev}/{name}")
        for name in ("pts", "shm", "mapper"):
            os.mkdir(f"{dev}/{name}")
        kernel.mount("sandbox-pts", dev + "/pts", "devpts", kernel.MS_NOSUID, "newinstance,ptmxmode=0666,mode=620")
        kernel.mount("sandbox-shm", dev + "/shm", "tmpfs", 0, f"mode=1777,size={self._size}")
        if kernel.has_device_mapper() and os.path.exists("/dev/mapper/control"):
            os.mknod(dev + "/mapper/control", stat.S_IFCHR | 0o600, os.stat("/dev/mapper/control").st_rdev)

    def _mount_kernel_file_systems(self):
        careful = kernel.MS_NOSUID | kernel.MS_NODEV | kernel.MS_NOEXEC
        kernel.mount("proc", _TREE + "/proc", "proc", careful)
        kernel.mount("sysfs", _TREE + "/sys", "sysfs", careful)
        kernel.mount("fusectl", _TREE + "/sys/fs/fuse/connections", "fusectl", careful)
        os.mkdir(_TREE + "/run/lock")

    def _cover_programs(self):
        """Lays the cover of each program over it; the program itself moves to REAL_PROGRAMS."""
        package = os.path.dirname(os.path.dirname(os.path.abspath(__file__)))
        real = _TREE + REAL_PROGRAMS
        os.makedirs(real)
        for name, path in _COVERS.items():
            if os.path.exists(path):
                shutil.copy2(path, f"{real}/{name}")
            cover = f"{_TREE}{os.path.dirname(REAL_PROGRAMS)}/{name}"
            with open(cover, "w") as file:
                file.write("#!/usr/bin/python3 -IS\nimport sys\n"
                           f"sys.path.insert(0, {package!r})\n"
                           f"from sandboxing.cover import {name}\n"
                           f"sys.exit({name}(sys.argv[1:]))\n")
            os.chmod(cover, 0o755)
            self._put_cover(cover, _TREE + path)

    def _put_cover(self, cover, target):
        try:
            if os.path.lexists(target):
                os.unlink(target)
            shutil.copy2(cover, target)
        except OSError:  # no overlay there: the directory is read-only
            if os.path.exists(target):
                kernel.bind(cover, target, read_only=True)
