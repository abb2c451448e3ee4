"""System-test harness for chassis-mgr.

Every test runs the real daemon binary in a sandbox root: a fresh directory
tree made by tools/chmgr-hwemu, with stand-ins for the outside commands.
Nothing outside the sandbox is touched.

This file only wires the harness together; each concern has its module:

harness_common.py     repository paths, scaled time-outs, wait_until, file helpers
harness_sandbox.py    the `sandbox` fixture (Sandbox: root, paths and files)
harness_emulator.py   chmgr-hwemu and its running mode, the simulated SDK's files
harness_standins.py   the `systemctl` and gearbox stand-ins (records, steering)
harness_daemon.py     the `daemon` fixture (starting, watching, killing chassis-mgr)
harness_readiness.py  poll loop and trigger watch seen from /proc, status document
harness_console.py    console lines and log records, journal stream
harness_ctl.py        the control socket client

Every name below stays importable from conftest, as tests have always done.

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

# pytest finds the fixtures (`sandbox`, `daemon`) here; the helpers are
# re-exported for `from conftest import ...`.
from harness_common import REPO, load_factor, read_text, timeout_factor, wait_until, write_once
from harness_console import (CONSOLE_LINE_NUMBER, CONSOLE_RECORD_START, console_lines,
                             console_records, journal_stream_of)
from harness_ctl import (CTL_HEADER, ctl_connect, ctl_exchange, ctl_request, padded,
                         socket_listening, start_listening)
from harness_daemon import (Daemon, DaemonFactory, built_binary, crash_shim_env, daemon,
                            daemon_binary, is_our_daemon, kill_group)
from harness_emulator import HWEMU, SIM_RELDIR, Emulator
from harness_readiness import (daemon_root, fd_infos, in_main_loop, inotify_watch_counts,
                               status_document, wait_debug_trigger_watched, wait_in_main_loop,
                               watches_inode)
from harness_sandbox import (HW_RELDIR, MAX_SOCKET_PATH, SAFE_ROOT, SOCKET_RELPATH, Sandbox,
                             sandbox, short_base)
from harness_standins import GEARBOX_RELPATH, RECORDER, StandinCall

__all__ = ["built_binary", "CONSOLE_LINE_NUMBER", "console_lines", "CONSOLE_RECORD_START",
           "console_records", "crash_shim_env", "ctl_connect", "ctl_exchange", "CTL_HEADER",
           "ctl_request", "Daemon", "daemon", "daemon_binary", "daemon_root", "DaemonFactory",
           "Emulator", "fd_infos", "GEARBOX_RELPATH", "HW_RELDIR", "HWEMU", "in_main_loop",
           "inotify_watch_counts", "is_our_daemon", "journal_stream_of", "kill_group",
           "load_factor", "MAX_SOCKET_PATH", "padded", "read_text", "RECORDER", "REPO",
           "SAFE_ROOT", "Sandbox", "sandbox", "short_base", "SIM_RELDIR", "socket_listening",
           "SOCKET_RELPATH", "StandinCall", "start_listening", "status_document", "timeout_factor",
           "wait_debug_trigger_watched", "wait_in_main_loop", "wait_until", "watches_inode",
           "write_once"]
