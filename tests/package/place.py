"""What the tests of the packages share: the packages, and one virtual machine to be backed up."""

import os
import pathlib
import subprocess
import time

PACKAGES = pathlib.Path(os.environ.get("MIRADOR_PACKAGES", "build/package-test")).resolve()
STORE = pathlib.Path("/srv/ds1")
EXPORT = pathlib.Path("/export")
MACHINE = "vm-00000"
READ = 4 << 20  # bytes of a disk that are compared
SECTOR = 512


def run(*words, fails=False):
    """A command's output; with `fails`, of one that must fail."""
    done = subprocess.run([str(word) for word in words], stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                          stderr=subprocess.STDOUT, text=True, errors="replace")
    if (done.returncode != 0) != fails:
        raise AssertionError(f"{words}: status {done.returncode}\n{done.stdout}")
    return done.stdout


def wait(condition, what, seconds=120):
    end = time.monotonic() + seconds
    while not condition():
        assert time.monotonic() < end, f"not within {seconds} s: {what}"
        time.sleep(0.2)


def packages(*names):
    return [next(PACKAGES.glob(f"{name}_*.deb")) for name in names]


def make_machine():
    """Makes a datastore with a VM of two disks and lets the appliance serve it."""
    STORE.mkdir(parents=True)
    run("mirador-appliance", "synthesize", STORE, "1")
    with open(source(), "r+b") as disk:
        disk.seek(1 << 20)
        disk.write(os.urandom(READ - (1 << 20)))
    defaults = pathlib.Path("/etc/default/mirador-appliance")
    defaults.write_text(defaults.read_text().replace('DATASTORES=""', f'DATASTORES="esx1:{STORE}"'))


def source(disk=MACHINE):
    return STORE / MACHINE / f"{disk}-flat.vmdk"


def exported(disk=MACHINE):
    return EXPORT / "esx1" / MACHINE / f"{disk}-flat.vmdk"


def check_disk():
    """What is read is what the disk holds, but for the header's sector, where there is room for one."""
    wait(exported().exists, "the disk is in the tree")
    with open(exported(), "rb") as seen, open(source(), "rb") as held:
        pairs = [(seen.read(SECTOR), held.read(SECTOR)) for _ in range(READ // SECTOR)]
    assert sum(a != b for a, b in pairs) <= 1, [i for i, (a, b) in enumerate(pairs) if a != b][:10]


def snapshots():
    return [name for name in os.listdir(STORE / MACHINE) if "-delta" in name]


def devices():
    """Loop devices that are bound and mappings."""
    return run("losetup", "-nO", "NAME").split() + [n for n in os.listdir("/dev/mapper") if n != "control"]


def lock_holder():
    return int(pathlib.Path("/run/mirador.lock").read_text())


def assert_nothing_left():
    assert not os.path.ismount(EXPORT) and not EXPORT.with_name("export.shadow").exists()
    assert devices() == [] and snapshots() == [], (devices(), snapshots())
