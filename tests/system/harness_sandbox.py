"""The `sandbox` fixture: a fresh emulated root for one test, with the
stand-ins installed and first on PATH."""

import os
import re
import shutil
import tempfile
from pathlib import Path

import pytest

from harness_common import read_text, write_once
from harness_emulator import EmulatorControls
from harness_standins import GEARBOX_RELPATH, RECORDER, StandinControls

HW_RELDIR = "var/run/hw-management"
# The daemon refuses roots with other characters (it builds shell commands).
SAFE_ROOT = re.compile(r"^[A-Za-z0-9/._+-]+$")
# The control socket path must fit in sockaddr_un.sun_path (108 bytes).
SOCKET_RELPATH = "run/chassismgr/chassismgr"
MAX_SOCKET_PATH = 107


class Sandbox(EmulatorControls, StandinControls):
    """A fresh emulated root for one test.

    Attributes: `root` (Path of the root given to the daemon as CHMGR_ROOT),
    `base` (the test's directory holding root, bin/ and captured output),
    `bin` (directory put first on PATH, holding the stand-in `systemctl`),
    `env` (environment for commands run in the sandbox).
    """

    def __init__(self, base):
        self.base = Path(base)
        self.root = self.base / "r"
        self.bin = self.base / "bin"
        self.bin.mkdir()
        self.env = dict(os.environ)
        self.env["PATH"] = f"{self.bin}:{os.environ.get('PATH', '/usr/bin:/bin')}"
        self.env["CHMGR_ROOT"] = str(self.root)
        self.emulators = []
        self.hwemu("create")
        self.systemctl = self.bin / "systemctl"
        self.gearbox = self.path(GEARBOX_RELPATH)
        shutil.copyfile(RECORDER, self.systemctl)
        os.chmod(self.systemctl, 0o755)
        self.gearbox.unlink()
        shutil.copyfile(RECORDER, self.gearbox)
        os.chmod(self.gearbox, 0o755)

    # -- paths and files
    def path(self, relpath):
        """Path of `relpath` under the root."""
        return self.root / relpath

    def event(self, slot, name):
        """Path of an event file, e.g. event(3, "present")."""
        return self.root / HW_RELDIR / "events" / f"lc{slot}_{name}"

    def read(self, relpath):
        """Text of a file under the root."""
        return read_text(self.path(relpath))

    def write(self, relpath, text):
        """Writes a file under the root with one open-write-close."""
        write_once(self.path(relpath), text)

    def led_log(self, slot):
        """Lines of the slot's led_status_state.log ("orange", "green", ...)."""
        path = self.root / HW_RELDIR / f"lc{slot}" / "led" / "led_status_state.log"
        return read_text(path).splitlines() if path.exists() else []

    def close(self):
        self.systemctl_hold(False)  # let held stand-ins end
        self.gearbox_hold(False)
        for emulator in self.emulators:
            if emulator.proc.poll() is None:
                emulator.proc.kill()
                emulator.proc.wait()


def short_base(tmp_path):
    """tmp_path when it suits the daemon (safe characters, short enough for
    the control socket), else a fresh directory under /tmp."""
    root = f"{tmp_path}/r"
    if SAFE_ROOT.match(root) and len(root) + 1 + len(SOCKET_RELPATH) <= MAX_SOCKET_PATH:
        return tmp_path, False
    return Path(tempfile.mkdtemp(prefix="chm-", dir="/tmp")), True


@pytest.fixture
def sandbox(tmp_path):
    """A fresh emulated root (see Sandbox)."""
    base, own_dir = short_base(tmp_path)
    box = Sandbox(base)
    yield box
    box.close()
    if own_dir:
        shutil.rmtree(base, ignore_errors=True)
