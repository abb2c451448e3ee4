#!/usr/bin/python3
"""Control socket round trips of two or more builds, side by side.

Runs each build's ctl_roundtrip_bench in turn, round after round (so a
change of the machine's load falls on every build alike), under each
thread placement asked for, and prints per build and placement the median
over the rounds of:
  separate  SHOW_SUMMARY's requests per second over the bare accept loop's,
            the two measured one after the other;
  paired    the same ratio with the two taken in alternation;
  show/s, bare/s, debug/s, debug-ro/s   the separate rates (nan: the
            build has no read-only socket);
  show_cpu, bare_cpu   serving CPU time per request (us);
  paired_show_us, paired_bare_us   median round trips (us) in alternation.

  bench/ctl_roundtrip_compare.py --build before=/tmp/old/build-bench \\
      --build after=build-bench --placement same --placement apart --rounds 5
"""
import argparse
import json
import statistics
import subprocess
import sys
from pathlib import Path

PLACEMENTS = ("same", "apart", "free")


def run_once(build_dir: Path, placement: str) -> dict:
    command = [str(build_dir / "ctl_roundtrip_bench"), "--benchmark_format=json"]
    if placement != "free":
        command.append(f"--placement={placement}")
    out = subprocess.run(command, check=True, capture_output=True, text=True).stdout
    return {b["name"].split("/")[0]: b for b in json.loads(out)["benchmarks"]}


def rate(results: dict, name: str) -> float:
    """Requests per second, or NaN where the build has no such socket."""
    return results[name].get("items_per_second", float("nan"))


def figures(results: dict) -> dict:
    bare = results["BM_BareAcceptLoop"]
    show = results["BM_ShowSummaryAllSlots"]
    paired = results["BM_ShowSummaryBesideBare"]
    return {
        "separate": show["items_per_second"] / bare["items_per_second"],
        "paired": paired["rate_ratio"],
        "show/s": show["items_per_second"],
        "bare/s": bare["items_per_second"],
        "debug/s": rate(results, "BM_DebugSlotAllSlots"),
        "debug-ro/s": rate(results, "BM_DebugSlotAllSlotsReadonly"),
        "show_cpu": show["server_cpu_us"],
        "bare_cpu": bare["server_cpu_us"],
        "paired_show_us": paired["show_median_us"],
        "paired_bare_us": paired["bare_median_us"],
    }


def main() -> int:
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--build", action="append", required=True, metavar="LABEL=DIR")
    parser.add_argument("--placement", action="append", choices=PLACEMENTS)
    parser.add_argument("--rounds", type=int, default=5)
    args = parser.parse_args()
    builds = [(label, Path(path)) for label, path in (given.split("=", 1) for given in args.build)]
    placements = args.placement or list(PLACEMENTS)

    samples = {(label, placement): [] for label, _ in builds for placement in placements}
    for round_no in range(args.rounds):
        for placement in placements:
            for label, build_dir in builds:
                samples[(label, placement)].append(figures(run_once(build_dir, placement)))
        print(f"round {round_no + 1} of {args.rounds} done", file=sys.stderr)

    columns = list(next(iter(samples.values()))[0])
    print(f"{'build':<10}{'placement':<10}" + "".join(f"{c:>15}" for c in columns))
    for (label, placement), runs in samples.items():
        medians = [statistics.median(run[c] for run in runs) for c in columns]
        print(f"{label:<10}{placement:<10}" + "".join(f"{m:>15.2f}" if m < 100 else f"{m:>15.0f}" for m in medians))
    for (label, placement), runs in samples.items():
        spread = ", ".join(f"{run['separate']:.2f}/{run['paired']:.2f}" for run in runs)
        print(f"{label} {placement} separate/paired per round: {spread}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
