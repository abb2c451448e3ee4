"""System-test harness for chassis-mgr.

Every test runs the real daemon binary in a sandbox root: a fresh directory
tree made by tools/chmgr-hwemu, with stand-ins for the outside commands.
Nothing outside the sandbox is touched.

Fixtures
--------
sandbox   A `Sandbox`: a fresh emulated root with the stand-in `systemctl`
          first on PATH and the stand-in gearbox tool installed.
daemon    A `DaemonFactory`: `daemon.start(*args)` starts chassis-mgr inside
          the sandbox and returns a `Daemon` handle.  Every daemon started is
          killed at teardown (SIGKILL, with its process group: the daemon has
          no orderly stop).

Helpers (import them: `from conftest import wait_until, status_document`)
-------
wait_until(predicate, timeout=5.0, interval=0.005, what="...")
          bounded poll; returns the predicate's first truthy value.
status_document(sandbox, daemon, slot=255)
          triggers a rewrite of the status document and returns it parsed.
fd_infos(pid, kind)
          the /proc fdinfo text of each descriptor of one kind of a process.
inotify_watch_counts(pid), in_main_loop(pid)
          watches per inotify instance of a process; whether the daemon has
          placed its slot watches (it does so right before its poll loop).
wait_in_main_loop(handle, pid=None), wait_debug_trigger_watched(handle, root=None)
          wait until the daemon reaches its poll loop / until the debug
          thread watches the trigger file (before asking for a document).
console_lines(handle, keepends=False)
          the daemon's console lines with ".cpp:<line> " made ".cpp:<N> ".
console_records(handle)
          the console cut into the texts of single log calls (a message
          without a line feed is continued by the next writer, any thread).
journal_stream_of(path)
          the JOURNAL_STREAM value naming a file (its "<dev>:<ino>"); with
          DaemonFactory.next_console_path() it makes a daemon's stdout file
          its journal stream.
CTL_HEADER, ctl_request(cmd, slot, seq=1, card_type=0, length=24)
          the 24-byte control header (cmd, len, seq, slot_no, status,
          card_type) and a packed request.
ctl_connect(sandbox, timeout=20), ctl_exchange(sandbox, data, timeout=20)
          a client connected to the control socket; one request and the
          whole reply (until the daemon closes the connection).
padded(text, size=128)
          `text` padded with NULs to a reply's fixed text field.
socket_listening(sandbox), start_listening(sandbox, daemon)
          whether the daemon listens on its control socket; start the daemon
          and wait until it does.
daemon_binary(), built_binary(name, kind)
          path of the chassis-mgr binary, or of another built program
          (skips or fails when missing).
crash_shim_env(trace=None, kill=None)
          environment for daemon.start that preloads the test tree's shim:
          `trace` a file receiving "fsync PATH", "remove PATH", "rename A B"
          lines; `kill` "remove:N:PATH" or "rename:N:PATH" (SIGKILL after
          the N-th such call).
read_text(path), write_once(path, text)
          read a file as text; write one with a single open-write-close.
StandinCall
          record of one finished stand-in run: args, start, end, exit_code, pid.

Sandbox methods: path, event, read, write, led_log, hwemu, insert, remove,
start_emulator, sim_path, sim_set, sim_read, sim_calls, and for each
stand-in (systemctl, gearbox): *_calls, *_started, *_exit_code, *_sleep,
*_hold.  Daemon attributes: pid, proc (the Popen), console, stderr,
describe, wait_console, wait_exit, kill.

Environment
-----------
CHMGR_BUILD_DIR             directory holding the `chassis-mgr` binary
                            (default: <repo>/build).  When it is not set and
                            the default binary is missing, tests that start
                            the daemon are skipped; when it is set, a missing
                            binary is an error.
CHMGR_TEST_TIMEOUT_FACTOR   multiplies every time-out of the helpers
                            (default 1; e.g. 5 for sanitizer builds); the
                            time-outs are also multiplied by the machine's
                            load per CPU when it is above 1.

No test sleeps to let something happen: it waits for a condition with a
bounded poll, and fails with what it waited for and the last value seen.
"""

import json
import os
import re
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
from pathlib import Path
from typing import NamedTuple

import pytest

REPO = Path(__file__).resolve().parents[2]
HWEMU = REPO / "tools" / "chmgr-hwemu"
RECORDER = Path(__file__).resolve().parent / "standins" / "recorder.py"
GEARBOX_RELPATH = "usr/lib/tarnel/brlgbfwupgrade.ks"
SIM_RELDIR = "var/run/ks-sim"
HW_RELDIR = "var/run/hw-management"
# The daemon refuses roots with other characters (it builds shell commands).
SAFE_ROOT = re.compile(r"^[A-Za-z0-9/._+-]+$")
# The control socket path must fit in sockaddr_un.sun_path (108 bytes).
SOCKET_RELPATH = "run/chassismgr/chassismgr"
MAX_SOCKET_PATH = 107


def load_factor():
    """How oversubscribed the machine is now: the 1-minute load average per
    CPU, at least 1.  On a machine busy with other builds and tests every
    step of the daemon, the emulator and the stand-ins takes that much longer."""
    try:
        return max(1.0, os.getloadavg()[0] / (os.cpu_count() or 1))
    except OSError:
        return 1.0


def timeout_factor():
    """CHMGR_TEST_TIMEOUT_FACTOR (default 1; e.g. 5 for sanitizer builds)
    times the machine's current load factor."""
    try:
        factor = float(os.environ.get("CHMGR_TEST_TIMEOUT_FACTOR", "1"))
    except ValueError:
        factor = 1.0
    return (factor if factor > 0 else 1.0) * load_factor()


def wait_until(predicate, timeout=5.0, interval=0.005, what="condition"):
    """Polls `predicate()` until it returns a truthy value and returns that value.

    The time-out is multiplied by CHMGR_TEST_TIMEOUT_FACTOR.  An OSError or
    ValueError raised by the predicate (file not there yet, half-written
    JSON) counts as "not yet".  On time-out the test fails with `what` and
    the last value (or exception) observed.
    """
    limit = timeout * timeout_factor()
    deadline = time.monotonic() + limit
    last = None
    while True:
        try:
            last = predicate()
            if last:
                return last
        except (OSError, ValueError) as err:
            last = err
        if time.monotonic() >= deadline:
            pytest.fail(f"timed out after {limit:g} s waiting for {what}; "
                        f"last value: {last!r}", pytrace=False)
        time.sleep(interval)


def read_text(path):
    return Path(path).read_text(encoding="utf-8", errors="replace")


def write_once(path, text):
    """One open-write-close (a watcher sees one IN_CLOSE_WRITE)."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o644)
    try:
        os.write(fd, text.encode() if isinstance(text, str) else text)
    finally:
        os.close(fd)


class StandinCall(NamedTuple):
    """One invocation of a stand-in command."""
    args: tuple      # arguments after the command name
    start: float     # wall-clock seconds since the epoch (ns precision)
    end: float
    exit_code: int
    pid: int


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


class Sandbox:
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

    # -- the emulator tool
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

    # -- stand-ins
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


# ---------------------------------------------------------------- the daemon


def built_binary(name, kind):
    """Path of the built program `name`, or skip/fail when it is missing
    (`kind` names it in the message)."""
    configured = os.environ.get("CHMGR_BUILD_DIR")
    build_dir = Path(configured).resolve() if configured else REPO / "build"
    binary = build_dir / name
    if not os.access(binary, os.X_OK):
        message = f"{kind} binary {binary} not found (build it or set CHMGR_BUILD_DIR)"
        if configured:
            pytest.fail(message, pytrace=False)
        pytest.skip(message)
    return binary


def daemon_binary():
    """Path of the chassis-mgr binary, or skip/fail when it is missing."""
    return built_binary("chassis-mgr", "daemon")


def crash_shim_env(trace=None, kill=None):
    """Environment (for `daemon.start(env=...)`) preloading the shim built
    from tests/crash_shim.c: `trace` names a file that receives one line per
    fsync, remove and rename; `kill` ("remove:N:PATH" or "rename:N:PATH")
    makes the daemon SIGKILL itself right after that call."""
    shim = built_binary("libchmgr_crash_shim.so", "crash shim")
    asan = os.environ.get("ASAN_OPTIONS", "")
    env = {"LD_PRELOAD": str(shim),
           # The shim comes first in the library list; sanitizer builds accept that.
           "ASAN_OPTIONS": f"{asan}:verify_asan_link_order=0" if asan else "verify_asan_link_order=0",
           "CHMGR_SHIM_TRACE": str(trace) if trace else None,
           "CHMGR_SHIM_KILL": kill}
    return env


class Daemon:
    """One started chassis-mgr process.

    `pid` is the started process (with "-d" the detached daemon has another
    pid: read it from ROOT/var/run/chassis-mgr.pid).  stdout and stderr are
    captured to files in the sandbox base.
    """

    def __init__(self, proc, out_path, err_path, expect_exit):
        self.proc = proc
        self.pid = proc.pid
        self.out_path = out_path
        self.err_path = err_path
        self.expect_exit = expect_exit
        self.killed = False

    def console(self):
        """Everything the daemon wrote on stdout so far."""
        return read_text(self.out_path)

    def stderr(self):
        """Everything the daemon wrote on stderr so far."""
        return read_text(self.err_path)

    def describe(self):
        status = self.proc.poll()
        state = "running" if status is None else f"exited with {status}"
        return (f"daemon {self.pid} {state}\n--- stdout (tail) ---\n{self.console()[-3000:]}"
                f"\n--- stderr (tail) ---\n{self.stderr()[-2000:]}")

    def wait_console(self, pattern, timeout=5.0):
        """Waits until stdout contains `pattern` (a str is a substring, a
        compiled re is searched) and returns the stdout text at that moment."""
        def seen():
            text = self.console()
            found = pattern.search(text) if isinstance(pattern, re.Pattern) else pattern in text
            return text if found else None
        deadline = time.monotonic() + timeout * timeout_factor()
        while True:
            text = seen()
            if text is not None:
                return text
            if time.monotonic() >= deadline:
                shown = pattern.pattern if isinstance(pattern, re.Pattern) else pattern
                pytest.fail(f"timed out waiting for console {shown!r}\n{self.describe()}",
                            pytrace=False)
            time.sleep(0.005)

    def wait_exit(self, timeout=5.0):
        """Waits for the process to end; returns its status (negative: killed by that signal)."""
        try:
            return self.proc.wait(timeout * timeout_factor())
        except subprocess.TimeoutExpired:
            pytest.fail(f"daemon did not exit within {timeout * timeout_factor():g} s\n"
                        f"{self.describe()}", pytrace=False)

    def kill(self):
        """SIGKILL to the daemon and its process group (its running commands)."""
        self.killed = True
        kill_group(self.proc.pid)
        self.proc.wait()


def kill_group(pid):
    try:
        os.killpg(pid, signal.SIGKILL)
    except (ProcessLookupError, PermissionError):
        pass


def is_our_daemon(pid, binary, root):
    """True when `pid` runs `binary` with CHMGR_ROOT=root (guards against a reused pid)."""
    try:
        exe = os.readlink(f"/proc/{pid}/exe")
        environ = Path(f"/proc/{pid}/environ").read_bytes().split(b"\0")
    except OSError:
        return False
    running_binary = exe in (str(binary), f"{binary} (deleted)")  # "(deleted)": rebuilt since
    return running_binary and f"CHMGR_ROOT={root}".encode() in environ


class DaemonFactory:
    """Starts chassis-mgr processes in the sandbox (see `start`)."""

    def __init__(self, sandbox):
        self.sandbox = sandbox
        self.started = []

    @property
    def binary(self):
        return daemon_binary()

    def start(self, *args, scale="0.001", env=None, expect_exit=False, stdout=None):
        """Starts `chassis-mgr ARGS...` with CHMGR_ROOT = the sandbox root,
        CHMGR_TIME_SCALE = `scale` (None: not set), PATH with the stand-ins
        first, and `env` merged over that (a value None removes the variable).
        `stdout` (a descriptor) replaces the captured console; `.console()`
        then reads nothing.

        Returns a Daemon at once.  Unless `expect_exit` is true, a daemon
        that has exited by the end of the test without being killed by the
        test fails the test at teardown (it crashed or stopped on its own).
        """
        binary = daemon_binary()
        run_env = dict(self.sandbox.env)
        run_env.pop("CHMGR_TIME_SCALE", None)
        if scale is not None:
            run_env["CHMGR_TIME_SCALE"] = str(scale)
        for key, value in (env or {}).items():
            if value is None:
                run_env.pop(key, None)
            else:
                run_env[key] = str(value)
        index = len(self.started)
        out_path = self.sandbox.base / f"daemon{index}.out"
        err_path = self.sandbox.base / f"daemon{index}.err"
        with open(out_path, "wb") as out, open(err_path, "wb") as err:
            proc = subprocess.Popen([str(binary), *map(str, args)], stdout=out if stdout is None else stdout,
                                    stderr=err,
                                    stdin=subprocess.DEVNULL, env=run_env, cwd=self.sandbox.base,
                                    start_new_session=True)
        handle = Daemon(proc, out_path, err_path, expect_exit)
        self.started.append(handle)
        return handle

    def next_console_path(self):
        """The file that will be the stdout of the next daemon started,
        created now (start() truncates it in place, keeping its inode)."""
        path = self.sandbox.base / f"daemon{len(self.started)}.out"
        path.touch()
        return path

    def close(self):
        """Kills every daemon started; returns descriptions of unexpected exits."""
        unexpected = []
        for handle in self.started:
            status = handle.proc.poll()
            if status is not None and not handle.expect_exit and not handle.killed:
                unexpected.append(handle.describe())
            kill_group(handle.proc.pid)
            handle.proc.wait()
        self._kill_detached()
        return unexpected

    def _kill_detached(self):
        """A daemon started with -d lives on under the pid in its pid file."""
        if not self.started:
            return
        pid_file = self.sandbox.path("var/run/chassis-mgr.pid")
        try:
            pid = int(read_text(pid_file).split()[0])
        except (OSError, ValueError, IndexError):
            return
        if is_our_daemon(pid, daemon_binary(), self.sandbox.root):
            kill_group(pid)
            try:
                os.kill(pid, signal.SIGKILL)
            except ProcessLookupError:
                pass


@pytest.fixture
def daemon(sandbox):
    """A DaemonFactory for the sandbox; every daemon is killed at teardown."""
    factory = DaemonFactory(sandbox)
    yield factory
    unexpected = factory.close()
    if unexpected:
        pytest.fail("daemon exited during the test:\n" + "\n".join(unexpected), pytrace=False)


# ---------------------------------------------------------------- status document


def status_document(sandbox, daemon, slot=255, timeout=5.0):
    """Writes `slot` into ROOT/etc/tarnel/debug_slot and returns the parsed
    ROOT/etc/tarnel/cm_status.json once the daemon has rewritten it.

    `daemon` is the Daemon handle (its output is shown on failure).  The old
    document's time stamp is first set to the epoch, so any rewrite - in
    place or by rename - shows as a changed modification time.  A trigger
    written before the debug thread watches the file would be missed, so the
    watch is awaited first.
    """
    wait_debug_trigger_watched(daemon, sandbox.root)
    path = sandbox.path("etc/tarnel/cm_status.json")
    if path.exists():
        os.utime(path, ns=(0, 0))

    def rewritten():
        if daemon.proc.poll() is not None:
            pytest.fail(f"daemon is not running\n{daemon.describe()}", pytrace=False)
        if path.stat().st_mtime_ns == 0:
            return None
        return (json.loads(read_text(path)),)  # a tuple: an empty document is still an answer

    sandbox.write("etc/tarnel/debug_slot", f"{slot}\n")
    return wait_until(rewritten, timeout, what=f"{path} to be rewritten for slot {slot}")[0]


# ---------------------------------------------------------------- readiness


def fd_infos(pid, kind):
    """The /proc fdinfo text of every descriptor of the process whose link
    reads `kind` (e.g. "anon_inode:inotify"); descriptors closed meanwhile
    are left out."""
    infos = []
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            if os.readlink(f"/proc/{pid}/fd/{fd}") != kind:
                continue
            infos.append(read_text(f"/proc/{pid}/fdinfo/{fd}"))
        except OSError:
            continue
    return infos


def inotify_watch_counts(pid):
    """Watches per inotify descriptor of the process."""
    return [info.count("inotify wd:") for info in fd_infos(pid, "anon_inode:inotify")]


def in_main_loop(pid):
    """The slot watches (eight instances of six) are placed right before the
    poll loop starts, after every start-up step."""
    return inotify_watch_counts(pid).count(6) == 8


def wait_in_main_loop(handle, pid=None):
    pid = pid or handle.pid

    def ready():
        if handle.proc.poll() is not None and pid == handle.pid:
            pytest.fail(f"daemon exited\n{handle.describe()}", pytrace=False)
        return in_main_loop(pid)
    wait_until(ready, what=f"daemon {pid} to reach its poll loop")


def daemon_root(pid):
    """The CHMGR_ROOT the process was started with."""
    with open(f"/proc/{pid}/environ", "rb") as environ:
        for entry in environ.read().split(b"\0"):
            if entry.startswith(b"CHMGR_ROOT="):
                return entry[len(b"CHMGR_ROOT="):].decode()
    return ""


def watches_inode(pid, path):
    """True when one of the process's inotify instances watches the file now at `path`."""
    try:
        inode = os.stat(path).st_ino
    except OSError:
        return False
    return any(f" ino:{inode:x} " in info for info in fd_infos(pid, "anon_inode:inotify"))


def wait_debug_trigger_watched(handle, root=None):
    """The status document is rewritten through the debug trigger file, whose
    watch the debug thread places on its own schedule: wait until the file
    now at the trigger path is watched before asking for a document.  `root`
    defaults to the process's CHMGR_ROOT."""
    path = f"{root if root is not None else daemon_root(handle.pid)}/etc/tarnel/debug_slot"
    wait_until(lambda: watches_inode(handle.pid, path), what="the debug trigger's watch")


# ---------------------------------------------------------------- console

# Console line: "file.cpp:123 " then the message; slot lines start with "[SLOTn] ".
CONSOLE_LINE_NUMBER = re.compile(r"(\.cpp):\d+ ")


def console_lines(handle, keepends=False):
    """Console lines with line numbers replaced by <N>."""
    return [CONSOLE_LINE_NUMBER.sub(r"\1:<N> ", line) for line in handle.console().splitlines(keepends=keepends)]


# Where one log call's console text starts: the optional slot tag, then "file.cpp:123 ".
CONSOLE_RECORD_START = re.compile(r"(?:\[SLOT\d\] )?[a-z_]+\.cpp:\d+ ")


def console_records(handle):
    """The console cut into the texts of single log calls, line numbers
    replaced by <N>, each with its line feed when it has one.

    A few messages end without a line feed, so whatever is written next -
    by any thread - continues their console line; cut at each log call's
    prefix instead, such a message is its own exact bytes."""
    text = handle.console()
    starts = [match.start() for match in CONSOLE_RECORD_START.finditer(text)]
    bounds = zip(starts, starts[1:] + [len(text)])
    return [CONSOLE_LINE_NUMBER.sub(r"\1:<N> ", text[start:end], count=1) for start, end in bounds]


def journal_stream_of(path):
    """The JOURNAL_STREAM value ("<dev>:<ino>") naming the file `path`."""
    st = os.stat(path)
    return f"{st.st_dev}:{st.st_ino}"


# ---------------------------------------------------------------- control socket

CTL_HEADER = struct.Struct("<6I")  # cmd, len, seq, slot_no, status, card_type


def ctl_request(cmd, slot, seq=1, card_type=0, length=24):
    return CTL_HEADER.pack(cmd, length, seq, slot, 0, card_type)


def padded(text, size=128):
    return text + b"\0" * (size - len(text))


def ctl_connect(sandbox, timeout=20):
    """A client connected to the control socket, with `timeout` (scaled) on
    every later operation."""
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        sock.connect(str(sandbox.path(SOCKET_RELPATH)))  # blocking: waits for room in the backlog
        sock.settimeout(timeout * timeout_factor())
    except BaseException:
        sock.close()
        raise
    return sock


def ctl_exchange(sandbox, data, timeout=20):
    """Sends `data` and returns everything until the daemon closes the connection."""
    sock = ctl_connect(sandbox, timeout)
    try:
        sock.sendall(data)
        reply = b""
        while True:
            chunk = sock.recv(1 << 20)
            if not chunk:
                return reply
            reply += chunk
    finally:
        sock.close()


def socket_listening(sandbox):
    """True once the daemon listens on its socket (seen in /proc/net/unix,
    without connecting: a connection would be served as a request)."""
    path = str(sandbox.path(SOCKET_RELPATH))
    with open("/proc/net/unix", encoding="utf-8", errors="replace") as table:
        for line in table:
            fields = line.split()
            if len(fields) >= 8 and fields[7] == path and int(fields[3], 16) & 0x10000:
                return True
    return False


def start_listening(sandbox, daemon):
    """Starts the daemon and waits until its control socket listens."""
    handle = daemon.start()
    wait_until(lambda: socket_listening(sandbox), what="the control socket to listen")
    return handle
