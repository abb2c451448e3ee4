"""Helpers for the tests of the read-only socket: its path, a raw exchange
on it, a sandbox that another user can reach, and running as that user."""

import os
import shutil
import socket
import tempfile

from conftest import Sandbox, timeout_factor
from harness_ctl import exchange_on

READONLY_SOCKET_RELPATH = "run/chassismgr/chassismgr-ro"
NOBODY = 65534


def ro_connect(sandbox, timeout=20):
    sock = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
    try:
        sock.connect(str(sandbox.path(READONLY_SOCKET_RELPATH)))
        sock.settimeout(timeout * timeout_factor())
    except BaseException:
        sock.close()
        raise
    return sock


def ro_exchange(sandbox, data, timeout=20):
    """Sends `data` on the read-only socket; everything until the daemon closes."""
    return exchange_on(ro_connect(sandbox, timeout), data)


def run_as_nobody():
    os.setgroups([])
    os.setgid(NOBODY)
    os.setuid(NOBODY)


class ReachableSandbox:
    """A sandbox under a directory of /tmp that any user may pass through
    (a test's own directory is for root only), the runtime directory made
    as the package makes it: 2755, so others reach the read-only socket."""

    def __init__(self):
        self.base = tempfile.mkdtemp(prefix="chm-ro-", dir="/tmp")
        os.chmod(self.base, 0o711)
        self.sandbox = Sandbox(self.base)
        for directory in (self.sandbox.root, self.sandbox.path("run")):
            os.chmod(directory, 0o755)
        os.chmod(self.sandbox.path("run/chassismgr"), 0o2755)

    def close(self):
        self.sandbox.close()
        shutil.rmtree(self.base, ignore_errors=True)
