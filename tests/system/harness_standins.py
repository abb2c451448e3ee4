"""The stand-ins for `systemctl` and the gearbox tool (standins/recorder.py):
where they live and how a test reads their records and steers them."""

import json
from pathlib import Path
from typing import NamedTuple

from harness_common import read_text, write_once

RECORDER = Path(__file__).resolve().parent / "standins" / "recorder.py"
GEARBOX_RELPATH = "usr/lib/tarnel/brlgbfwupgrade.ks"


class StandinCall(NamedTuple):
    """One invocation of a stand-in command."""
    args: tuple      # arguments after the command name
    start: float     # wall-clock seconds since the epoch (ns precision)
    end: float
    exit_code: int
    pid: int


class StandinControls:
    """Sandbox methods for the stand-ins; `self.systemctl` and `self.gearbox`
    are the paths of the two stand-in programs."""

    @staticmethod
    def _records(program, suffix):
        path = Path(f"{program}.{suffix}")
        if not path.exists():
            return []
        return [json.loads(line) for line in read_text(path).splitlines()]

    @classmethod
    def _calls(cls, program):
        return [StandinCall(tuple(rec["args"]), rec["start_ns"] / 1e9, rec["end_ns"] / 1e9,
                            rec["exit"], rec["pid"]) for rec in cls._records(program, "calls")]

    @classmethod
    def _started(cls, program):
        return [tuple(rec["args"]) for rec in cls._records(program, "started")]

    @classmethod
    def _started_fds(cls, program):
        return [(tuple(rec["args"]), {int(fd): target for fd, target in rec["fds"].items()})
                for rec in cls._records(program, "started")]

    def started_fds(self):
        """(args, {fd: link target}) of every stand-in command started
        (`systemctl`, then the gearbox tool): what each inherited."""
        return self._started_fds(self.systemctl) + self._started_fds(self.gearbox)

    def systemctl_calls(self):
        """Finished `systemctl` invocations (StandinCall), in the order they ended."""
        return self._calls(self.systemctl)

    def gearbox_calls(self):
        """Finished gearbox tool invocations (StandinCall), in the order they ended."""
        return self._calls(self.gearbox)

    def systemctl_started(self):
        """Arguments (tuples) of every `systemctl` started, finished or not, in start order."""
        return self._started(self.systemctl)

    def gearbox_started(self):
        """Arguments (tuples) of every gearbox run started, finished or not, in start order."""
        return self._started(self.gearbox)

    def systemctl_exit_code(self, code):
        """Makes every later `systemctl` exit with `code`."""
        write_once(f"{self.systemctl}.exit", f"{code}\n")

    def gearbox_exit_code(self, code):
        """Makes every later gearbox run exit with `code`."""
        write_once(f"{self.gearbox}.exit", f"{code}\n")

    def systemctl_sleep(self, seconds):
        """Makes every later `systemctl` stay busy `seconds` before exiting."""
        write_once(f"{self.systemctl}.sleep", f"{seconds}\n")

    def gearbox_sleep(self, seconds):
        """Makes every later gearbox run stay busy `seconds` before exiting."""
        write_once(f"{self.gearbox}.sleep", f"{seconds}\n")

    def systemctl_hold(self, hold=True):
        """hold=True: `systemctl` runs do not finish until systemctl_hold(False)."""
        self._hold(self.systemctl, hold)

    def gearbox_hold(self, hold=True):
        """hold=True: gearbox runs do not finish until gearbox_hold(False)."""
        self._hold(self.gearbox, hold)

    @staticmethod
    def _hold(program, hold):
        path = Path(f"{program}.hold")
        if hold:
            path.touch()
        elif path.exists():
            path.unlink()
