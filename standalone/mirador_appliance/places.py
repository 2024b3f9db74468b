"""Fixed places of an appliance."""

import dataclasses
import pathlib

PROGRAM = "mirador-appliance"

# The hypervisor's own root; every path that is handed out lies below it.
VOLUMES = "/vmfs/volumes"


@dataclasses.dataclass(frozen=True)
class Places:
    """Where things are. `root` stands in front of every path, so that tests need no machine of their own."""
    root: pathlib.Path = pathlib.Path("/")

    @property
    def volumes(self) -> pathlib.Path:
        """Where the daemon finds a datastore by the hypervisor's name of it."""
        return self.root / "vmfs/volumes"

    @property
    def direct_volumes(self) -> pathlib.Path:
        """Where it looks first; only below here may a disk be a chain of several files."""
        return self.root / "vmfs.direct/volumes"

    @property
    def state(self) -> pathlib.Path:
        return self.root / "var/corvantis/appliance"

    @property
    def product(self) -> pathlib.Path:
        return self.root / "usr/local/corvantis"

    @property
    def controller_conf(self) -> pathlib.Path:
        """Where the controller is reached: lines "key = value", read by the scripts."""
        return self.product / "etc/controller.conf"

    @property
    def brand_script(self) -> pathlib.Path:
        return self.product / "python/branding/BrandReader.py"

    @property
    def agent_script(self) -> pathlib.Path:
        """The program that the daemon runs for each session with a hypervisor."""
        return self.product / "bin/jrpc_wget.pl"

    @property
    def block_list_script(self) -> pathlib.Path:
        """The program that the daemon asks for what changed on a disk."""
        return self.product / "bin/cbt_getblocklist.pl"

    @property
    def watchdog_script(self) -> pathlib.Path:
        return self.product / "bin/watchdog-test-controller.py"
