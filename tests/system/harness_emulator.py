"""The emulated platform: the hardware-management tree tool (chmgr-hwemu),
its running mode that plays the hardware, and the simulated SDK's state files."""

import os
import signal
import subprocess

import pytest

from harness_common import REPO, read_text, timeout_factor, wait_until

HWEMU = REPO / "tools" / "chmgr-hwemu"

SIM_RELDIR = "var/run/ks-sim"


class Emulator:
    """`chmgr-hwemu run` in the background (see Sandbox.start_emulator)."""

    def __init__(self, sandbox, args):
        self.out_path = sandbox.base / "hwemu.out"
        self.err_path = sandbox.base / "hwemu.err"
        with open(self.out_path, "wb") as out, open(self.err_path, "wb") as err:
            self.proc = subprocess.Popen([str(HWEMU), "--root", str(sandbox.root), "run", *args],
                                         stdout=out, stderr=err, stdin=subprocess.DEVNULL,
                                         env=sandbox.env, cwd=sandbox.base)
        self.wait_output("hwemu: running", what="the emulator to start")

    def output(self):
        """Everything the emulator printed so far (one line per action)."""
        return read_text(self.out_path)

    def actions(self):
        """The action lines ("slot 3: powered", ...), without start and stop lines."""
        return [line for line in self.output().splitlines() if line.startswith("slot ")]

    def wait_output(self, text, timeout=5.0, what=None):
        def seen():
            if self.proc.poll() is not None:
                pytest.fail(f"emulator exited with {self.proc.returncode}: "
                            f"{read_text(self.err_path)}", pytrace=False)
            return text in self.output()
        wait_until(seen, timeout, what=what or f"emulator output {text!r}")
        return self.output()

    def stop(self, timeout=5.0):
        """Stops the emulator (SIGTERM) and returns its whole output.

        Before it exits, the emulator plays one more round, so every change
        written before stop() has been answered in the output returned."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(timeout * timeout_factor())
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
                pytest.fail("emulator did not stop on SIGTERM", pytrace=False)
        return self.output()


class EmulatorControls:
    """Sandbox methods for the emulator tool and the simulated SDK; `self.root`,
    `self.base`, `self.env` and `self.emulators` are the sandbox's."""

    def hwemu(self, *args, check=True):
        """Runs `chmgr-hwemu --root ROOT ARGS...`; returns the CompletedProcess."""
        result = subprocess.run([str(HWEMU), "--root", str(self.root), *map(str, args)],
                                env=self.env, cwd=self.base, capture_output=True, text=True,
                                stdin=subprocess.DEVNULL, check=False)
        if check and result.returncode != 0:
            pytest.fail(f"chmgr-hwemu {' '.join(map(str, args))} exited with "
                        f"{result.returncode}: {result.stderr}", pytrace=False)
        return result

    def insert(self, slot, pn="KTR9600-C16", sn=None, rev=2, extra=()):
        """Inserts a card (EEPROM files, then present and verified raised);
        `sn` defaults to "SN0000000N".  `extra` are further `insert` options,
        e.g. extra=("--no-ini-eeprom",)."""
        sn = sn if sn is not None else f"SN{slot:08d}"
        return self.hwemu("insert", slot, "--pn", pn, "--sn", sn, "--rev", rev, *extra)

    def remove(self, slot):
        """Removes the card of a slot (present lowered first)."""
        return self.hwemu("remove", slot)

    def start_emulator(self, *args):
        """Starts `chmgr-hwemu run ARGS...` and waits until it plays; stopped at teardown."""
        emulator = Emulator(self, args)
        self.emulators.append(emulator)
        return emulator

    # -- the simulated SDK
    def sim_path(self, relpath):
        return self.root / SIM_RELDIR / relpath

    def sim_set(self, relpath, text):
        """Replaces a simulator state file (temporary file, then rename)."""
        path = self.sim_path(relpath)
        path.parent.mkdir(parents=True, exist_ok=True)
        tmp = path.with_name(path.name + ".tmp")
        tmp.write_bytes(text.encode() if isinstance(text, str) else text)
        os.rename(tmp, path)

    def sim_read(self, relpath):
        """Text of a simulator state file, or None when it does not exist."""
        path = self.sim_path(relpath)
        return read_text(path) if path.exists() else None

    def sim_calls(self):
        """Lines of the simulator's call log, in call order ([] before the first call)."""
        text = self.sim_read("calls.log")
        return text.splitlines() if text else []
