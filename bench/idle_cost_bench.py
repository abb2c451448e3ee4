#!/usr/bin/python3
"""Idle cost of a live chassis-mgr: eight empty slots, clock factor 1.

Starts the daemon in a fresh emulated root (tools/chmgr-hwemu create), waits
until it has reached its poll loop, then measures over DURATION seconds:

  - CPU time of all threads (scheduler run time), and as a share of one CPU;
  - wake-ups per second, per thread and in total, counted as voluntary
    context switches (a thread blocked in poll, a condition wait or a read
    switches out voluntarily once per wake-up);
  - resident memory (VmRSS) and its high-water mark (VmHWM) at the end.

With eight empty slots the only expected activity is the 10-second poll of
each slot: one timer expiry per slot every 10 s, each handled by the main
loop and one worker.

Usage: idle_cost_bench.py [--duration SECONDS] [--build-dir DIR]
"""

import argparse
import os
import shutil
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bench_support import in_main_loop

REPO = Path(__file__).resolve().parents[1]
HWEMU = REPO / "tools" / "chmgr-hwemu"
CLOCK_TICKS = os.sysconf("SC_CLK_TCK")


def cpu_seconds(pid):
    """CPU time of all threads: nanoseconds on a CPU from schedstat (clock
    ticks from stat, 10 ms apart, are too coarse for an idle process)."""
    total_ns = 0
    try:
        for tid in os.listdir(f"/proc/{pid}/task"):
            total_ns += int(Path(f"/proc/{pid}/task/{tid}/schedstat").read_text().split()[0])
        return total_ns / 1e9
    except (OSError, ValueError, IndexError):
        fields = Path(f"/proc/{pid}/stat").read_text().rsplit(")", 1)[1].split()
        # fields[11] and fields[12] are utime and stime (fields 14 and 15 of stat).
        return (int(fields[11]) + int(fields[12])) / CLOCK_TICKS


def status_value(path, key):
    for line in Path(path).read_text().splitlines():
        if line.startswith(key + ":"):
            return int(line.split()[1])
    return 0


def thread_switches(pid):
    """{tid: (name, voluntary context switches)} for every thread."""
    result = {}
    for tid in os.listdir(f"/proc/{pid}/task"):
        base = f"/proc/{pid}/task/{tid}"
        try:
            name = Path(f"{base}/comm").read_text().strip()
            result[int(tid)] = (name, status_value(f"{base}/status", "voluntary_ctxt_switches"))
        except OSError:
            continue
    return result



def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--duration", type=float, default=60.0)
    parser.add_argument("--build-dir", default=os.environ.get("CHMGR_BUILD_DIR", str(REPO / "build")))
    args = parser.parse_args()
    binary = Path(args.build_dir).resolve() / "chassis-mgr"
    if not os.access(binary, os.X_OK):
        sys.exit(f"no daemon binary at {binary}")

    base = Path(tempfile.mkdtemp(prefix="chm-idle-", dir="/tmp"))
    root = base / "r"
    env = dict(os.environ, CHMGR_ROOT=str(root), CHMGR_TIME_SCALE="1")
    subprocess.run([str(HWEMU), "--root", str(root), "create"], env=env, check=True)
    proc = subprocess.Popen([str(binary)], env=env, cwd=base, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL, stdin=subprocess.DEVNULL)
    try:
        deadline = time.monotonic() + 10
        while not in_main_loop(proc.pid):
            if proc.poll() is not None or time.monotonic() > deadline:
                sys.exit("the daemon did not reach its poll loop")
            time.sleep(0.01)

        cpu0, switches0, t0 = cpu_seconds(proc.pid), thread_switches(proc.pid), time.monotonic()
        time.sleep(args.duration)
        cpu1, switches1, t1 = cpu_seconds(proc.pid), thread_switches(proc.pid), time.monotonic()
        rss = status_value(f"/proc/{proc.pid}/status", "VmRSS")
        hwm = status_value(f"/proc/{proc.pid}/status", "VmHWM")
    finally:
        proc.kill()
        proc.wait()
        shutil.rmtree(base, ignore_errors=True)

    elapsed = t1 - t0
    print(f"idle cost, 8 empty slots, clock factor 1, {elapsed:.1f} s measured")
    print(f"cpu time:   {1000 * (cpu1 - cpu0):.3f} ms ({100 * (cpu1 - cpu0) / elapsed:.5f} % of one CPU)")
    # Threads in the order start-up creates them.
    roles = ["main loop", "worker 1", "worker 2", "worker 3", "worker 4", "debug trigger", "control socket"]
    total = 0
    for index, tid in enumerate(sorted(switches1)):
        name, after = switches1[tid]
        before = switches0.get(tid, (name, 0))[1]
        role = roles[index] if index < len(roles) else name
        total += after - before
        print(f"wake-ups:   {(after - before) / elapsed:7.3f} /s  thread {tid} ({role})")
    print(f"wake-ups:   {total / elapsed:7.3f} /s  all threads")
    print(f"resident:   {rss} kB (high-water mark {hwm} kB)")


if __name__ == "__main__":
    main()
