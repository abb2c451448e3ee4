"""Helpers of the supervision tests: a stand-in for the service manager's
notification socket, and ways to make an outside command hang.

NotifySocket   an AF_UNIX datagram socket bound in the test's directory, the
               one the daemon is told about in NOTIFY_SOCKET; it keeps every
               datagram with the monotonic time it was read.
"""

import os
import socket
import time

from conftest import timeout_factor, wait_until


class NotifySocket:
    """Receives the daemon's reports (READY=1, STATUS=..., WATCHDOG=1)."""

    def __init__(self, directory):
        self.path = str(directory / "notify.sock")
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.sock.bind(self.path)
        self.sock.setblocking(False)
        self.received = []  # (monotonic seconds, text)

    def env(self, watchdog_usec=None):
        """Environment for daemon.start(env=...)."""
        env = {"NOTIFY_SOCKET": self.path}
        if watchdog_usec is not None:
            env["WATCHDOG_USEC"] = str(watchdog_usec)
        return env

    def drain(self):
        """Reads every datagram waiting; returns the new ones (texts)."""
        new = []
        while True:
            try:
                data = self.sock.recv(65536)
            except BlockingIOError:
                return new
            self.received.append((time.monotonic(), data.decode()))
            new.append(data.decode())

    def texts(self):
        self.drain()
        return [text for _, text in self.received]

    def statuses(self):
        """The STATUS= values, in the order received (also those sent with READY=1)."""
        found = []
        for text in self.texts():
            for line in text.split("\n"):
                if line.startswith("STATUS="):
                    found.append(line[len("STATUS="):])
        return found

    def ping_times(self):
        self.drain()
        return [at for at, text in self.received if text == "WATCHDOG=1"]

    def wait_for(self, predicate, timeout=10.0, what="a report"):
        """Waits until predicate(list of texts received) is truthy."""
        return wait_until(lambda: predicate(self.texts()), timeout, what=what)

    def wait_status(self, status, timeout=10.0):
        return wait_until(lambda: status in self.statuses(), timeout, what=f"STATUS={status}")

    def wait_pings(self, count, timeout=10.0):
        """Waits for `count` more pings than there are now."""
        start = len(self.ping_times())
        return wait_until(lambda: len(self.ping_times()) >= start + count, timeout,
                          what=f"{count} more WATCHDOG=1")

    def pings_during(self, seconds):
        """Pings read over the next `seconds` (a window to show that none
        come: pings already waiting are read first and not counted)."""
        self.drain()
        before = len(self.ping_times())
        deadline = time.monotonic() + seconds
        while time.monotonic() < deadline:
            self.drain()
            time.sleep(0.005)
        return len(self.ping_times()) - before

    def close(self):
        self.sock.close()
        if os.path.exists(self.path):
            os.unlink(self.path)


def process_group_of(pid):
    """The process group of a live process (field 5 of /proc/PID/stat), or None."""
    try:
        with open(f"/proc/{pid}/stat", encoding="ascii", errors="replace") as stat:
            text = stat.read()
    except OSError:
        return None
    return int(text[text.rindex(")") + 2:].split()[2])


def group_gone(pgid):
    """True when no process is left in the process group."""
    try:
        os.killpg(pgid, 0)
    except ProcessLookupError:
        return True
    return False


def scaled(seconds, scale):
    """A limit of the daemon as it applies at clock factor `scale`, in seconds."""
    return seconds * scale


def bound(seconds):
    """A test's wait bound, scaled with the machine's load."""
    return seconds * timeout_factor()
