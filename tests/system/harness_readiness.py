"""What the daemon is doing, seen from outside: whether it has reached its
poll loop or watches its debug trigger (from /proc), and the status document."""

import json
import os

import pytest

from harness_common import read_text, wait_until

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
