"""Repository paths, time-outs scaled to the machine, the bounded poll and
small file helpers: what every other part of the system-test harness uses."""

import os
import time
from pathlib import Path

import pytest

REPO = Path(__file__).resolve().parents[2]


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
