"""Helpers shared by the benchmark scripts that start the real daemon."""
import os
from pathlib import Path


def in_main_loop(pid):
    """True once the daemon watches the six event files of all eight slots
    (the last start-up step before its poll loop)."""
    counts = []
    for fd in os.listdir(f"/proc/{pid}/fd"):
        try:
            if os.readlink(f"/proc/{pid}/fd/{fd}") == "anon_inode:inotify":
                counts.append(Path(f"/proc/{pid}/fdinfo/{fd}").read_text().count("inotify wd:"))
        except OSError:
            continue
    return counts.count(6) == 8
