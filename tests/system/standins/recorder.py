#!/usr/bin/python3 -IS
"""Stand-in for an outside command of chassis-mgr (systemctl, the gearbox tool).

The test harness installs a copy of this program under the name of the
command it replaces, e.g. SANDBOX/bin/systemctl or
ROOT/usr/lib/tarnel/brlgbfwupgrade.ks.  Everything it uses lives beside that
copy and is named after it (here for .../bin/systemctl):

  systemctl.started  one JSON object per invocation, appended when it starts:
                     {"args": [...], "start_ns": N, "pid": N, "fds": {...}}
                     ("fds": the descriptors it was started with, number to
                     link target, as /proc/self/fd shows them)
  systemctl.calls    one JSON object per invocation, appended when it ends:
                     {"args": [...], "start_ns": N, "end_ns": N, "exit": N, "pid": N}
                     (times are wall-clock nanoseconds since the epoch)
  systemctl.exit     exit code to return (decimal; default 0)
  systemctl.sleep    seconds to stay busy before exiting (default 0)
  systemctl.hold     while this file exists, the command does not finish

Each record is appended with one write(2) to a file opened with O_APPEND, so
records of concurrent invocations never interleave.
"""

import json
import os
import sys
import time


def read_number(path, convert, default):
    try:
        with open(path, encoding="ascii", errors="replace") as f:
            text = f.read().strip()
    except OSError:
        return default
    try:
        return convert(text)
    except ValueError:
        print(f"{path}: not a number: {text!r}", file=sys.stderr)
        return default


def append_record(path, record):
    line = (json.dumps(record) + "\n").encode()
    fd = os.open(path, os.O_WRONLY | os.O_APPEND | os.O_CREAT | os.O_CLOEXEC, 0o644)
    try:
        os.write(fd, line)
    finally:
        os.close(fd)


def inherited_fds():
    """Descriptors open now, but the one that lists them."""
    own_listing = f"/proc/{os.getpid()}/fd"
    fds = {}
    for name in os.listdir("/proc/self/fd"):
        try:
            target = os.readlink(f"/proc/self/fd/{name}")
        except OSError:
            continue  # the listing's own descriptor, closed already
        if target != own_listing:
            fds[name] = target
    return fds


def main():
    start_ns = time.time_ns()
    fds = inherited_fds()
    base = os.path.abspath(sys.argv[0])
    args = sys.argv[1:]
    append_record(base + ".started", {"args": args, "start_ns": start_ns, "pid": os.getpid(), "fds": fds})
    exit_code = read_number(base + ".exit", int, 0)
    delay = read_number(base + ".sleep", float, 0.0)
    if delay > 0:
        time.sleep(delay)
    while os.path.exists(base + ".hold"):
        time.sleep(0.002)
    append_record(base + ".calls", {"args": args, "start_ns": start_ns, "end_ns": time.time_ns(),
                                    "exit": exit_code, "pid": os.getpid()})
    return exit_code


if __name__ == "__main__":
    sys.exit(main())
