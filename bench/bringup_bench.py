#!/usr/bin/python3
"""Bring-up overhead of chassis-mgr.

Measures, on the real binary with the simulated SDK and the emulated chassis
(tools/chmgr-hwemu run), the time from a card's present event to "Online" in
cards.conf, for one card and for eight cards inserted at once, and compares
it with the waits the daemon mandates, scaled by the clock factor.  For eight
cards it also reports the time to the first four "Online" against the time
to all eight.  The mandated waits:

  per card   1 s   power request settle (verified step)
             2 s   INI apply settle (INI programming, serialised over slots
                   by the cards.conf lock)
            50 s   ready step: 30 s after the first enable, 15 s after the
                   second, 5 s after the reset (four workers run four ready
                   steps at a time)

  one card:     1 + 2 + 50                        = 53 s
  N cards:      ceil(N / 4) * (1 + 50) + N * 2    (eight cards: 118 s)

The ratio measured / mandated shows what the daemon, the emulator and the
stand-ins add on top (event delivery, supervision timer steps of 1 s that a
file written ahead of time needs, the reload of portd, process start-ups).

Usage: bench/bringup_bench.py [--build-dir DIR]... [--scale 0.01] [--runs 5]

With several --build-dir options the binaries are measured side by side in
one run, their runs alternating, so that each sees the same machine load.
"""

import argparse
import math
import os
import shutil
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bench_support import in_main_loop, write_once

REPO = Path(__file__).resolve().parents[1]
HWEMU = REPO / "tools" / "chmgr-hwemu"
RECORDER = REPO / "tests" / "system" / "standins" / "recorder.py"
WORKERS = 4
POWER_SETTLE_S = 1
INI_SETTLE_S = 2
READY_STEP_S = 30 + 15 + 5


def mandated_seconds(cards):
    return math.ceil(cards / WORKERS) * (POWER_SETTLE_S + READY_STEP_S) + cards * INI_SETTLE_S


def online_slots(conf_path):
    try:
        text = Path(conf_path).read_text()
    except OSError:
        return set()
    slots = set()
    for line in text.splitlines():
        fields = line.split()
        if len(fields) == 7 and fields[0].isdigit() and fields[5] == "Online":
            slots.add(int(fields[0]))
    return slots



def one_run(binary, scale, slots, timeout):
    """Seconds from the present events of `slots` to the first WORKERS of them
    (or all, when fewer) "Online", and to all of them "Online"."""
    base = Path(tempfile.mkdtemp(prefix="chmgr-bench-", dir="/tmp"))
    root = base / "r"
    env = dict(os.environ, CHMGR_ROOT=str(root), CHMGR_TIME_SCALE=str(scale),
               PATH=f"{base / 'bin'}:{os.environ.get('PATH', '/usr/bin:/bin')}")
    procs = []
    try:
        (base / "bin").mkdir()
        shutil.copyfile(RECORDER, base / "bin" / "systemctl")
        os.chmod(base / "bin" / "systemctl", 0o755)
        hwemu = [str(HWEMU), "--root", str(root)]
        subprocess.run(hwemu + ["create"], env=env, check=True)
        for slot in slots:
            part = "KTR9600-C16" if slot % 2 else "KTR9600-C4"
            subprocess.run(hwemu + ["insert", str(slot), "--pn", part, "--sn", f"SN-BENCH-{slot}",
                                    "--rev", "2" if slot % 2 else "1", "--no-events"], env=env, check=True)
            ready = root / "var/run/ks-sim" / f"slot{slot}" / "ready"
            ready.parent.mkdir(parents=True, exist_ok=True)
            ready.write_text("1")
        with open(base / "hwemu.out", "wb") as out:
            procs.append(subprocess.Popen(hwemu + ["run"], stdout=out, stderr=subprocess.STDOUT, env=env,
                                          start_new_session=True))
        deadline = time.monotonic() + timeout
        # The emulator answers only the requests written after it started.
        while "hwemu: running" not in (base / "hwemu.out").read_text(errors="replace"):
            if time.monotonic() > deadline or procs[-1].poll() is not None:
                raise RuntimeError(f"emulator did not start (see {base})")
            time.sleep(0.005)
        with open(base / "daemon.out", "wb") as out:
            procs.append(subprocess.Popen([str(binary)], stdout=out, stderr=subprocess.STDOUT, env=env,
                                          cwd=base, start_new_session=True))
        while not in_main_loop(procs[-1].pid):
            if time.monotonic() > deadline or procs[-1].poll() is not None:
                raise RuntimeError(f"daemon did not reach its poll loop (see {base})")
            time.sleep(0.005)

        start = time.monotonic()
        for slot in slots:
            write_once(root / f"var/run/hw-management/events/lc{slot}_present", "1")
        for slot in slots:
            write_once(root / f"var/run/hw-management/events/lc{slot}_verified", "1")
        conf = root / "etc/tarnel/cards.conf"
        first = None
        while True:
            online = online_slots(conf) & set(slots)
            now = time.monotonic()
            if first is None and len(online) >= min(WORKERS, len(slots)):
                first = now - start
            if len(online) == len(slots):
                return first, now - start
            if now > deadline + timeout:
                raise RuntimeError(f"cards not online within {timeout} s (see {base})")
            time.sleep(0.001)
    finally:
        for proc in procs:
            proc.terminate()
            proc.wait()
        shutil.rmtree(base, ignore_errors=True)


def binary_of(build_dir):
    binary = Path(build_dir).resolve() / "chassis-mgr"
    return binary if os.access(binary, os.X_OK) else None


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build-dir", action="append",
                        help="directory of a chassis-mgr binary; repeat to compare builds "
                             "(default $CHMGR_BUILD_DIR, build/)")
    parser.add_argument("--scale", type=float, default=0.01, help="clock factor (default 0.01)")
    parser.add_argument("--runs", type=int, default=5, help="runs per case (default 5)")
    parser.add_argument("--timeout", type=float, default=120.0, help="seconds per run before giving up")
    args = parser.parse_args(argv)
    build_dirs = args.build_dir or [os.environ.get("CHMGR_BUILD_DIR") or REPO / "build"]
    binaries = []
    for build_dir in build_dirs:
        binary = binary_of(build_dir)
        if binary is None:
            print(f"bringup_bench: no chassis-mgr in {build_dir} (build first or give --build-dir)",
                  file=sys.stderr)
            return 2
        binaries.append(binary)

    print(f"chassis-mgr bring-up, clock factor {args.scale:g}, {args.runs} runs per case")
    for index, binary in enumerate(binaries):
        print(f"  [{index}] {binary}")
    print(f"{'case':<12} {'binary':>6} {'mandated':>10} {'min':>10} {'median':>10} {'max':>10} "
          f"{'ratio(median)':>14}")
    for name, slots in (("one card", [3]), ("eight cards", list(range(1, 9)))):
        runs = [[] for _ in binaries]
        for _ in range(args.runs):
            for index, binary in enumerate(binaries):
                runs[index].append(one_run(binary, args.scale, slots, args.timeout))
        mandated = mandated_seconds(len(slots)) * args.scale
        for index, pairs in enumerate(runs):
            times = [whole for _, whole in pairs]
            median = statistics.median(times)
            print(f"{name:<12} {'[' + str(index) + ']':>6} {mandated:>9.3f}s {min(times):>9.3f}s {median:>9.3f}s "
                  f"{max(times):>9.3f}s {median / mandated:>14.2f}")
        if len(slots) > WORKERS:
            print_first_cards(runs)
    return 0


def print_first_cards(runs):
    """Time to the first four cards "Online" against the time to all: a card
    whose ready step has ended should not wait for the next cards' ready steps."""
    print(f"{'':<12} {'binary':>6} {'first four':>11} {'all':>10} {'first/all':>10}   (medians; per run)")
    for index, pairs in enumerate(runs):
        first = statistics.median(first for first, _ in pairs)
        whole = statistics.median(whole for _, whole in pairs)
        each = " ".join(f"{first / whole:.2f}" for first, whole in pairs)
        print(f"{'first four':<12} {'[' + str(index) + ']':>6} {first:>10.3f}s {whole:>9.3f}s "
              f"{first / whole:>10.2f}   ({each})")


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
