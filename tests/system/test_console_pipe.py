"""The console is standard output; a console on a pipe whose reader has gone
loses its lines but does not end the daemon."""

import os
import re

from conftest import status_document, wait_until, write_once


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
    names = []
    for task in os.listdir(f"/proc/{handle.pid}/task"):
        text = open(f"/proc/{handle.pid}/task/{task}/status", encoding="ascii").read()
        name = re.search(r"^Name:\s*(.*)$", text, re.M)[1]
        blocked = int(re.search(r"^SigBlk:\s*([0-9a-f]+)$", text, re.M)[1], 16)
        names.append(name)
        if name == "chmgr-ctl":
            # The control thread starts no program: it keeps SIGPIPE, and
            # nothing else, blocked while it serves.
            assert blocked == 1 << 12
            continue
        # A sanitizer's own helper thread blocks every signal; the daemon's
        # other threads block none, SIGINT (2) included, so every program
        # they start begins with SIGPIPE as usual.
        assert not blocked & (1 << 12) or blocked & (1 << 1)
    assert "chmgr-ctl" in names
