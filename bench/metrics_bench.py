#!/usr/bin/python3
"""Cost of one `chmgrctl metrics` collection on a full chassis.

Starts chassis-mgr in a fresh emulated root with the hardware emulator,
brings eight cards into service (clock factor 0.001), then runs
`chmgrctl metrics --textfile FILE` COUNT times, one after the other, as the
packaged timer does every 15 s, and prints:

  - wall time per collection (median, 90th percentile, maximum);
  - CPU time of chmgrctl per collection (user + system, from wait4);
  - CPU time the daemon spends answering one collection (its two requests),
    from the daemon's scheduler run time over all collections;
  - the size of the file for eight cards.

Usage: metrics_bench.py [--count N] [--build-dir DIR]
"""

import argparse
import json
import os
import shutil
import signal
import statistics
import subprocess
import sys
import tempfile
import time
from pathlib import Path

from bench_support import in_main_loop

REPO = Path(__file__).resolve().parents[1]
HWEMU = REPO / "tools" / "chmgr-hwemu"
RECORDER = REPO / "tests" / "system" / "standins" / "recorder.py"
BRING_UP_LIMIT_S = 120


def daemon_cpu_seconds(pid):
    total_ns = 0
    for tid in os.listdir(f"/proc/{pid}/task"):
        total_ns += int(Path(f"/proc/{pid}/task/{tid}/schedstat").read_text().split()[0])
    return total_ns / 1e9


def run_timed(args, env):
    """(wall seconds, CPU seconds, exit status) of one run of `args`."""
    start = time.perf_counter()
    proc = subprocess.Popen(args, env=env, stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                            stderr=subprocess.DEVNULL)
    _, status, usage = os.wait4(proc.pid, 0)
    wall = time.perf_counter() - start
    proc.returncode = os.waitstatus_to_exitcode(status)
    return wall, usage.ru_utime + usage.ru_stime, proc.returncode


def all_operational(chmgrctl, env):
    result = subprocess.run([chmgrctl, "show", "--json"], env=env, capture_output=True, text=True, timeout=30)
    if result.returncode != 0:
        return False
    return all(slot["oper_state"] == "Operational" for slot in json.loads(result.stdout)["slots"])


def bring_up_eight_cards(base, env, chmgrctl):
    hwemu = [sys.executable, str(HWEMU), "--root", str(base / "r")]
    for slot in range(1, 9):
        part = "KTR9600-C16" if slot % 2 else "KTR9600-C4"
        subprocess.run([*hwemu, "insert", str(slot), "--pn", part, "--sn", f"MT2231X{slot:05d}", "--rev", "2"],
                       env=env, check=True, capture_output=True)
    deadline = time.monotonic() + BRING_UP_LIMIT_S
    while not all_operational(chmgrctl, env):
        if time.monotonic() > deadline:
            sys.exit("metrics_bench: the eight cards did not come into service")
        time.sleep(0.1)


def report(walls, cpus, daemon_cpu, size, count):
    walls_ms = sorted(w * 1000 for w in walls)
    p90 = walls_ms[min(len(walls_ms) - 1, int(0.9 * len(walls_ms)))]
    print(f"collections:                   {count} (eight cards in service)")
    print(f"wall time per collection:      median {statistics.median(walls_ms):.2f} ms, "
          f"p90 {p90:.2f} ms, max {walls_ms[-1]:.2f} ms")
    print(f"chmgrctl CPU per collection:   mean {statistics.mean(cpus) * 1000:.2f} ms, "
          f"max {max(cpus) * 1000:.2f} ms")
    print(f"daemon CPU per collection:     {daemon_cpu / count * 1000:.2f} ms")
    print(f"textfile size, eight cards:    {size} bytes")


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n")[0])
    parser.add_argument("--count", type=int, default=50)
    parser.add_argument("--build-dir", default=os.environ.get("CHMGR_BUILD_DIR", str(REPO / "build")))
    options = parser.parse_args()
    build = Path(options.build_dir).resolve()
    daemon_bin, chmgrctl = build / "chassis-mgr", str(build / "chmgrctl")

    base = Path(tempfile.mkdtemp(prefix="chmgr-metrics-bench."))
    (base / "bin").mkdir()
    shutil.copyfile(RECORDER, base / "bin" / "systemctl")
    os.chmod(base / "bin" / "systemctl", 0o755)
    env = dict(os.environ, CHMGR_ROOT=str(base / "r"), CHMGR_TIME_SCALE="0.001",
               PATH=f"{base / 'bin'}:{os.environ.get('PATH', '/usr/bin:/bin')}")
    subprocess.run([sys.executable, str(HWEMU), "--root", str(base / "r"), "create"], env=env, check=True,
                   capture_output=True)
    started = []
    try:
        emulator = subprocess.Popen([sys.executable, str(HWEMU), "--root", str(base / "r"), "run"], env=env,
                                    stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, start_new_session=True)
        started.append(emulator)
        with open(base / "daemon.out", "wb") as out:
            daemon = subprocess.Popen([str(daemon_bin)], env=env, stdout=out, stderr=subprocess.STDOUT,
                                      stdin=subprocess.DEVNULL, cwd=base, start_new_session=True)
        started.append(daemon)
        deadline = time.monotonic() + 30
        while not in_main_loop(daemon.pid):
            if time.monotonic() > deadline:
                sys.exit("metrics_bench: the daemon did not reach its main loop")
            time.sleep(0.01)
        bring_up_eight_cards(base, env, chmgrctl)

        textfile = base / "chassis_mgr.prom"
        args = [chmgrctl, "metrics", "--textfile", str(textfile)]
        run_timed(args, env)  # warm the page cache
        walls, cpus = [], []
        daemon_before = daemon_cpu_seconds(daemon.pid)
        for _ in range(options.count):
            wall, cpu, status = run_timed(args, env)
            if status != 0:
                sys.exit(f"metrics_bench: chmgrctl metrics exited with {status}")
            walls.append(wall)
            cpus.append(cpu)
        daemon_cpu = daemon_cpu_seconds(daemon.pid) - daemon_before
        if "chassis_mgr_up 1\n" not in textfile.read_text():
            sys.exit("metrics_bench: the daemon did not answer the collections")
        report(walls, cpus, daemon_cpu, textfile.stat().st_size, options.count)
    finally:
        for proc in reversed(started):
            os.killpg(proc.pid, signal.SIGKILL)
            proc.wait()
        shutil.rmtree(base, ignore_errors=True)


if __name__ == "__main__":
    main()
