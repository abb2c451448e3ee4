"""The `daemon` fixture: chassis-mgr processes started in the sandbox, their
captured output, and their teardown."""

import os
import re
import signal
import subprocess
import time
from pathlib import Path

import pytest

from harness_common import REPO, read_text, timeout_factor

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
