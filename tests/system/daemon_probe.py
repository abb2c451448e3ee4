"""Standard-library helpers shared by the drivers that run the real daemon
outside pytest (storm.py, crash_trials.py and the benchmarks in bench/)."""

import os
from pathlib import Path


def write_once(path, text):
    """One open-write-close, as the hardware-management layer writes an
    event file (a watcher sees one IN_CLOSE_WRITE)."""
    fd = os.open(path, os.O_WRONLY | os.O_CREAT | os.O_TRUNC | os.O_CLOEXEC, 0o644)
    try:
        os.write(fd, text.encode())
    finally:
        os.close(fd)


def in_main_loop(pid):
    """True once the daemon watches the six event files of all eight slots
    (the last start-up step before its poll loop); False while it is not
    there yet or has gone."""
    counts = []
    try:
        fds = os.listdir(f"/proc/{pid}/fd")
    except OSError:
        return False
    for fd in fds:
        try:
            if os.readlink(f"/proc/{pid}/fd/{fd}") == "anon_inode:inotify":
                counts.append(Path(f"/proc/{pid}/fdinfo/{fd}").read_text().count("inotify wd:"))
        except OSError:
            continue
    return counts.count(6) == 8
