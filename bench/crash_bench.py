#!/usr/bin/python3
"""Kill-and-restart trials of chassis-mgr (see tests/system/crash_trials.py):
SIGKILL at a random moment of the bring-ups of 1 to 8 cards, restart, and
check that nothing was lost.  Prints the failures by kind, with the seeds.

Usage: bench/crash_bench.py [--build-dir DIR] [--trials 100] [--first-seed 1]
                            [--scale 0.001] [--keep-failed]
"""

import argparse
import collections
import os
import sys
import time
from pathlib import Path

REPO = Path(__file__).resolve().parents[1]
sys.path.insert(0, str(REPO / "tests" / "system"))
from crash_trials import run_trial  # noqa: E402


def main(argv):
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--build-dir", help="directory of the chassis-mgr binary (default $CHMGR_BUILD_DIR, build/)")
    parser.add_argument("--trials", type=int, default=100)
    parser.add_argument("--first-seed", type=int, default=1)
    parser.add_argument("--scale", type=float, default=0.001, help="clock factor (default 0.001)")
    parser.add_argument("--keep-failed", action="store_true", help="leave the sandbox of a failed trial in /tmp")
    args = parser.parse_args(argv)
    build_dir = Path(args.build_dir or os.environ.get("CHMGR_BUILD_DIR") or REPO / "build").resolve()
    binary = build_dir / "chassis-mgr"
    if not os.access(binary, os.X_OK):
        print(f"crash_bench: {binary} not found (build first or give --build-dir)", file=sys.stderr)
        return 2

    by_kind = collections.defaultdict(list)
    failed = 0
    start = time.monotonic()
    for seed in range(args.first_seed, args.first_seed + args.trials):
        failures = run_trial(binary, seed, scale=args.scale, keep_failed=args.keep_failed)
        if failures:
            failed += 1
            print(f"seed {seed} FAILED", flush=True)
            for kind, detail in failures:
                print(f"  {kind}: {detail}", flush=True)
                by_kind[kind].append(seed)
    elapsed = time.monotonic() - start
    print(f"\n{args.trials} trials in {elapsed:.1f} s, {failed} failed ({binary})")
    for kind, seeds in sorted(by_kind.items()):
        print(f"  {kind:<24} {len(seeds):>4}  seeds {seeds}")
    return 1 if failed else 0


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
