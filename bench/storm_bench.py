#!/usr/bin/python3
"""The storm of line-card operations (tests/system/storm.py), run long.

Starts the daemon (CHMGR_BUILD_DIR, default build/) on a fresh emulated
chassis at time scale 0.001 and runs STEPS seeded random steps on all eight
slots, each checked once it has settled.  Reports steps per second (every
500 steps: the rate from the start, the rate over the last 500 steps and the
machine's load average) and the time per kind of step; on a violation prints
it with the seed (replay with --seed) and exits 1.

    bench/storm_bench.py [--steps 10000] [--seed N] [--keep]
"""

import argparse
import collections
import os
import sys
import tempfile
import time
from pathlib import Path

sys.path.insert(0, str(Path(__file__).resolve().parents[1] / "tests" / "system"))
from storm import Chassis, Storm, StormFailure, cleanup, daemon_binary, new_seed  # noqa: E402


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--steps", type=int, default=10000)
    parser.add_argument("--seed", type=int, default=None)
    parser.add_argument("--factor", type=float, default=1.0, help="multiplies every time-out")
    parser.add_argument("--keep", action="store_true", help="keep the sandbox directory")
    args = parser.parse_args(argv)
    seed = args.seed if args.seed is not None else new_seed()
    binary = daemon_binary()
    if not binary.exists():
        print(f"storm_bench: no daemon at {binary}", file=sys.stderr)
        return 2

    base = Path(tempfile.mkdtemp(prefix="chm-storm-", dir="/tmp"))
    times = collections.defaultdict(list)
    last = [time.monotonic()]
    started_at = [time.monotonic()]
    window_at = [time.monotonic()]

    def record(line):
        now = time.monotonic()
        kind = line.split(": ", 1)[1].split()[0]
        times[kind].append(now - last[0])
        last[0] = now
        done = sum(len(v) for v in times.values())
        if done % 500 == 0:
            # From the start, and over the last 500 steps alone: a harness
            # whose cost grows with the run shows a falling second figure.
            print(f"  {line} ({done / (now - started_at[0]):.2f} steps/s, last 500 "
                  f"{500 / (now - window_at[0]):.2f} steps/s, load {os.getloadavg()[0]:.1f})", flush=True)
            window_at[0] = now

    chassis = Chassis(base, binary, factor=args.factor)
    storm = Storm(chassis, seed, log=record)
    print(f"storm seed {seed}, {args.steps} steps, sandbox {base}", flush=True)
    started = time.monotonic()
    status = 0
    try:
        chassis.start()
        last[0] = time.monotonic()
        started = started_at[0] = window_at[0] = last[0]
        storm.run(args.steps)
    except StormFailure as failure:
        print(f"VIOLATION: {failure}", flush=True)
        status = 1
    except KeyboardInterrupt:
        print("interrupted", flush=True)
    finally:
        elapsed = time.monotonic() - started
        chassis.stop()
    done = sum(len(v) for v in times.values())
    print(f"{done} steps in {elapsed:.1f} s: {done / elapsed if elapsed else 0:.2f} steps/s; "
          f"portd reloads {chassis.portd_reloads()}; violations {status}")
    if not args.keep and status == 0:
        cleanup(base)
    for kind, values in sorted(times.items()):
        print(f"  {kind:14s} {len(values):6d} steps, mean {1000 * sum(values) / len(values):7.1f} ms, "
              f"max {1000 * max(values):7.1f} ms")
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
