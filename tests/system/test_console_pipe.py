"""The console is standard output; a console on a pipe whose reader has gone
loses its lines but does not end the daemon."""

import os
import re

from conftest import status_document, wait_until, write_once


def thread_masks(pid):
    """(name, blocked signals) of each thread of process `pid`."""
    masks = []
    for task in os.listdir(f"/proc/{pid}/task"):
        text = open(f"/proc/{pid}/task/{task}/status", encoding="ascii").read()
        name = re.search(r"^Name:\s*(.*)$", text, re.M)[1]
        masks.append((name, int(re.search(r"^SigBlk:\s*([0-9a-f]+)$", text, re.M)[1], 16)))
    return masks


def test_console_on_a_pipe_without_reader_does_not_end_the_daemon(sandbox, daemon):
    read_end, write_end = os.pipe()
    handle = daemon.start(stdout=write_end)
    os.close(write_end)
    wait_until(lambda: os.path.exists(sandbox.path("var/run/chassis-mgr.pid")) and
               sandbox.read("var/run/chassis-mgr.pid").strip() != "", what="the pid file")
    os.close(read_end)  # the reader goes away

    for value in ("1", "0", "1", "0"):
        write_once(sandbox.event(4, "present"), value)  # each change is logged
    document = status_document(sandbox, handle, 4)

    assert handle.proc.poll() is None
    assert document["slot4"]["SLOT"] == 4
    status = open(f"/proc/{handle.pid}/status", encoding="ascii").read()
    # SIGPIPE (13) is neither ignored, which children would inherit, nor left blocked.
    ignored = int(re.search(r"^SigIgn:\s*([0-9a-f]+)$", status, re.M)[1], 16)
    assert not ignored & (1 << 12)
    # The control thread starts no program: once it serves, it keeps
    # SIGPIPE, and nothing else, blocked (it takes the guard after creating
    # the administration thread, so a loaded machine may see it a little later).
    wait_until(lambda: ("chmgr-ctl", 1 << 12) in thread_masks(handle.pid),
               what="the control thread to serve with SIGPIPE blocked")
    for name, blocked in thread_masks(handle.pid):
        if name == "chmgr-ctl":
            continue
        # A sanitizer's own helper thread blocks every signal; the daemon's
        # other threads block none, SIGINT (2) included, so every program
        # they start begins with SIGPIPE as usual.
        assert not blocked & (1 << 12) or blocked & (1 << 1), (name, hex(blocked))
