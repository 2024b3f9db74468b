"""Log rotation: the daemon opens its log anew on SIGHUP."""

import signal

from harness.tools import WORK

from work import Worker


class Hangups(Worker):
    """Renames the log and tells the daemon; what is renamed is looked through and put behind what came before."""

    def __init__(self, leaks, *rest):
        super().__init__("hangups", *rest)
        self._leaks = leaks

    def step(self) -> None:
        log = self.stage.daemon.log_file
        old = log.with_suffix(".old")
        log.rename(old)
        self.stage.daemon.signal(signal.SIGHUP)
        self.wait_for(log.exists, "the log is opened anew", 60)
        self.pause(1, 1)  # who was writing a line has written it
        text = old.read_text(errors="replace")
        self._leaks.check_log(text)
        self.tally.count("snapshots", text.count(": Creating snapshot "))
        self.tally.count("evictions", text.count(", remove\n"))  # of disks: each gives its use of the snapshot back
        with open(WORK / "log", "ab") as whole:
            whole.write(old.read_bytes())
        old.unlink()
        self.tally.count("hangups")
        self.pause(2, 20)
